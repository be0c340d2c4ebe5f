#include "appliance/mailcore/send/smtp_client.h"

#include <curl/curl.h>
#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <mutex>
#include <string>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/mailcore/curl_failure.h"
#include "platform/mailcore/error.h"

namespace ornic::larkpost::send {
namespace {

struct CurlRelease {
  void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
  void operator()(char* text) const { curl_free(text); }
};

// The message file, read from its start.
struct Upload {
  int fd;
  int64_t size;
  int64_t offset = 0;
  bool failed = false;
};

size_t ReadUpload(char* buffer, size_t size, size_t count, void* data) {
  auto* upload = static_cast<Upload*>(data);
  size_t want = static_cast<size_t>(
      std::min<int64_t>(static_cast<int64_t>(size * count), upload->size - upload->offset));
  while (want > 0) {
    ssize_t got = pread(upload->fd, buffer, want, upload->offset);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      upload->failed = true;
      return CURL_READFUNC_ABORT;
    }
    upload->offset += got;
    return static_cast<size_t>(got);
  }
  return 0;
}

// The server's latest refusal (a reply of class 4 or 5), for the log: the
// replies that follow it (to QUIT) say nothing. Only what the server says
// is looked at: what we send holds the password.
int KeepRefusal(CURL*, curl_infotype type, char* data, size_t size, void* user) {
  if (type != CURLINFO_HEADER_IN || size == 0 || (data[0] != '4' && data[0] != '5')) return 0;
  std::string line(data, size);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  *static_cast<std::string*>(user) = line;
  return 0;
}

std::string Url(const SmtpServer& server, CURL* curl) {
  std::string host = server.host;
  if (host.find(':') != std::string::npos && host.front() != '[') host = "[" + host + "]";
  std::unique_ptr<char, CurlRelease> hello(
      curl_easy_escape(curl, server.hello_name.data(), static_cast<int>(server.hello_name.size())));
  // The path names this host in EHLO.
  return std::string(server.security == Security::kImplicitTls ? "smtps://" : "smtp://") + host +
         ":" + std::to_string(server.port) + "/" + (hello ? hello.get() : "localhost");
}

bool IsConnectFailure(CURLcode result) {
  // Sending also reports a TLS shutdown that failed as a server not reached.
  return store::IsUnreachable(result) || result == CURLE_SSL_SHUTDOWN_FAILED;
}

// Replies that mean "log in first" or "not with these credentials".
bool IsLoginReply(long reply) {
  return reply == 530 || reply == 534 || reply == 535 || reply == 538;
}

}  // namespace

int32_t Transmit(const SmtpServer& server, const Envelope& envelope, int fd, int64_t size) {
  static std::once_flag init;
  std::call_once(init, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });

  std::unique_ptr<CURL, CurlRelease> curl(curl_easy_init());
  if (!curl) {
    store::LogError("send", __LINE__, "libcurl cannot start a transfer");
    return kErrorSmtpConnect;
  }
  std::unique_ptr<curl_slist, CurlRelease> recipients;
  for (const std::string& address : envelope.recipients) {
    curl_slist* more = curl_slist_append(recipients.get(), ("<" + address + ">").c_str());
    if (more == nullptr) return kErrorStorage;
    recipients.release();
    recipients.reset(more);
  }
  Upload upload{fd, size};
  std::string refusal;
  char error[CURL_ERROR_SIZE] = "";
  const std::string url = Url(server, curl.get());
  const std::string sender = "<" + envelope.sender + ">";
  CURL* c = curl.get();
  curl_easy_setopt(c, CURLOPT_URL, url.c_str());
  curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "smtp,smtps");
  curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(c, CURLOPT_ERRORBUFFER, error);
  curl_easy_setopt(c, CURLOPT_VERBOSE, 1L);  // feeds KeepRefusal; nothing is printed
  curl_easy_setopt(c, CURLOPT_DEBUGFUNCTION, KeepRefusal);
  curl_easy_setopt(c, CURLOPT_DEBUGDATA, &refusal);
  switch (server.security) {
    case Security::kNone:
      curl_easy_setopt(c, CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_NONE));
      break;
    case Security::kStartTlsIfOffered:
      curl_easy_setopt(c, CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_TRY));
      break;
    case Security::kStartTlsRequired:
    case Security::kImplicitTls:
      curl_easy_setopt(c, CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_ALL));
      break;
  }
  if (!server.user_name.empty()) {
    curl_easy_setopt(c, CURLOPT_USERNAME, server.user_name.c_str());
    curl_easy_setopt(c, CURLOPT_PASSWORD, server.password.c_str());
  }
  curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT, server.connect_timeout);
  curl_easy_setopt(c, CURLOPT_SERVER_RESPONSE_TIMEOUT, server.reply_timeout);
  curl_easy_setopt(c, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(c, CURLOPT_LOW_SPEED_TIME, server.stall_timeout);
  curl_easy_setopt(c, CURLOPT_MAIL_FROM, sender.c_str());
  curl_easy_setopt(c, CURLOPT_MAIL_RCPT, recipients.get());
  curl_easy_setopt(c, CURLOPT_UPLOAD, 1L);
  curl_easy_setopt(c, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(size));
  curl_easy_setopt(c, CURLOPT_READFUNCTION, ReadUpload);
  curl_easy_setopt(c, CURLOPT_READDATA, &upload);

  const CURLcode result = curl_easy_perform(c);
  if (result == CURLE_OK) return 0;

  // The code of the refusal itself: what curl reports may be that of the
  // QUIT that followed it.
  long last_reply = 0;
  if (refusal.size() >= 3 && isdigit(static_cast<unsigned char>(refusal[1])) &&
      isdigit(static_cast<unsigned char>(refusal[2]))) {
    last_reply = std::stol(refusal.substr(0, 3));
  } else {
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &last_reply);
  }
  curl_off_t connected_after = 0;
  curl_easy_getinfo(c, CURLINFO_CONNECT_TIME_T, &connected_after);
  const std::string where = "SMTP server " + server.host + ":" + std::to_string(server.port);
  const std::string what = error[0] != '\0' ? error : curl_easy_strerror(result);

  if (upload.failed) {
    store::LogError("send", __LINE__, "reading the message to send failed");
    return kErrorStorage;
  }
  if (result == CURLE_OPERATION_TIMEDOUT) {
    store::LogError("send", __LINE__, where + ": " + what);
    // Before the connection stood: a server that cannot be reached; after
    // it: one that stopped answering.
    return connected_after > 0 ? kErrorSmtpTimeout : kErrorSmtpConnect;
  }
  if (IsConnectFailure(result) ||
      (last_reply < 400 && result != CURLE_LOGIN_DENIED && result != CURLE_AUTH_ERROR)) {
    store::LogError("send", __LINE__, where + ": " + what);
    return kErrorSmtpConnect;
  }
  store::LogError("send", __LINE__, where + " refused: " + (refusal.empty() ? what : refusal));
  if (result == CURLE_LOGIN_DENIED || result == CURLE_AUTH_ERROR || IsLoginReply(last_reply)) {
    return kErrorSmtpAuth;
  }
  return kErrorSmtpRejected;
}

}  // namespace ornic::larkpost::send
