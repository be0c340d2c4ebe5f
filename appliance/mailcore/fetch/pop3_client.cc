#include "appliance/mailcore/fetch/pop3_client.h"
#include "appliance/mailcore/curl_failure.h"

#include <curl/curl.h>
#include <errno.h>
#include <sys/socket.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace ornic::larkpost::fetch {
namespace {

size_t Collect(char* data, size_t size, size_t count, void* target) {
  static_cast<std::string*>(target)->append(data, size * count);
  return size * count;
}

// The server's latest refusal, for the error text. Only what the server
// says is looked at: what we send holds the password.
int KeepRefusal(CURL*, curl_infotype type, char* data, size_t size, void* user) {
  if (type != CURLINFO_HEADER_IN || size < 4 || std::string(data, 4) != "-ERR") return 0;
  std::string line(data, size);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  *static_cast<std::string*>(user) = line;
  return 0;
}

bool IsConnectFailure(CURLcode result) { return store::IsUnreachable(result); }

int CheckStop(void* stop, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return static_cast<const std::atomic<bool>*>(stop)->load() ? 1 : 0;
}

// Whether the server has not closed the session's connection. A closed
// TCP connection reads as its end for good, whatever came before it, so a
// peek tells; data waiting (with TLS, perhaps a closing alert) cannot be
// told apart from anything else and counts as open.
bool StillOpen(CURL* curl) {
  curl_socket_t socket = CURL_SOCKET_BAD;
  if (curl_easy_getinfo(curl, CURLINFO_ACTIVESOCKET, &socket) != CURLE_OK ||
      socket == CURL_SOCKET_BAD) {
    return false;
  }
  char byte;
  const ssize_t got = recv(socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return got > 0 || (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR));
}

}  // namespace

Pop3Client::Pop3Client(const Pop3Server& server) : server_(server) {
  static std::once_flag init;
  std::call_once(init, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  curl_.reset(curl_easy_init());
  std::string host = server.host;
  if (host.find(':') != std::string::npos && host.front() != '[') host = "[" + host + "]";
  base_url_ = std::string(server.implicit_tls ? "pop3s://" : "pop3://") + host + ":" +
              std::to_string(server.port) + "/";
  if (!curl_) {
    failure_ = Failure::kConnect;
    error_ = "libcurl cannot start a transfer";
    return;
  }
  CURL* c = curl_.get();
  curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "pop3,pop3s");
  curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(c, CURLOPT_VERBOSE, 1L);  // feeds KeepRefusal; nothing is printed
  curl_easy_setopt(c, CURLOPT_DEBUGFUNCTION, KeepRefusal);
  curl_easy_setopt(c, CURLOPT_DEBUGDATA, &refusal_);
  curl_easy_setopt(c, CURLOPT_USE_SSL,
                   static_cast<long>(server.implicit_tls ? CURLUSESSL_ALL : CURLUSESSL_TRY));
  if (!server.ca_file.empty()) curl_easy_setopt(c, CURLOPT_CAINFO, server_.ca_file.c_str());
  curl_easy_setopt(c, CURLOPT_USERNAME, server_.user_name.c_str());
  curl_easy_setopt(c, CURLOPT_PASSWORD, server_.password.c_str());
  curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT, server.connect_timeout);
  curl_easy_setopt(c, CURLOPT_SERVER_RESPONSE_TIMEOUT, server.reply_timeout);
  curl_easy_setopt(c, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(c, CURLOPT_LOW_SPEED_TIME, server.stall_timeout);
  curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, Collect);
  if (server.stop != nullptr) {
    curl_easy_setopt(c, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(c, CURLOPT_XFERINFOFUNCTION, CheckStop);
    curl_easy_setopt(c, CURLOPT_XFERINFODATA, server.stop);
  }
}

Pop3Client::~Pop3Client() = default;

bool Pop3Client::Perform(const std::string& path, const char* command, bool body,
                         std::string* out) {
  if (failure_ != Failure::kNone) return false;
  CURL* c = curl_.get();
  const std::string url = base_url_ + path;
  std::string ignored;
  curl_easy_setopt(c, CURLOPT_URL, url.c_str());
  curl_easy_setopt(c, CURLOPT_CUSTOMREQUEST, command);
  curl_easy_setopt(c, CURLOPT_NOBODY, body ? 0L : 1L);
  curl_easy_setopt(c, CURLOPT_WRITEDATA, out != nullptr ? out : &ignored);
  char error[CURL_ERROR_SIZE] = "";
  curl_easy_setopt(c, CURLOPT_ERRORBUFFER, error);
  refusal_.clear();
  const CURLcode result = curl_easy_perform(c);
  curl_easy_setopt(c, CURLOPT_ERRORBUFFER, nullptr);
  long connects = 0;
  curl_easy_getinfo(c, CURLINFO_NUM_CONNECTS, &connects);
  const std::string where = server_.host + ":" + std::to_string(server_.port);
  // A new connection: the first one was lost, and message numbers of the
  // old session mean nothing here. The server closed the connection: it
  // went away, perhaps in the middle of a message, whose end libcurl then
  // takes for the message's end.
  if (result == CURLE_OK && ((connected_ && connects > 0) || !StillOpen(c))) {
    failure_ = Failure::kSession;
    error_ = where + ": the connection was lost";
    return false;
  }
  if (result == CURLE_OK) {
    connected_ = true;
    return true;
  }
  curl_off_t connected_after = 0;
  curl_easy_getinfo(c, CURLINFO_CONNECT_TIME_T, &connected_after);
  const bool before_connect =
      !connected_ &&
      (IsConnectFailure(result) || (result == CURLE_OPERATION_TIMEDOUT && connected_after == 0));
  failure_ = result == CURLE_LOGIN_DENIED ? Failure::kLogin
             : before_connect             ? Failure::kConnect
                                          : Failure::kSession;
  error_ = where + ": " + (error[0] != '\0' ? error : curl_easy_strerror(result));
  if (!refusal_.empty()) error_ += ": " + refusal_;
  return false;
}

bool Pop3Client::ListUidls(std::vector<std::pair<int, std::string>>* listing) {
  std::string text;
  if (!Perform("", "UIDL", true, &text)) return false;
  listing->clear();
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    start = end + 1;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const size_t blank = line.find(' ');
    if (blank == std::string::npos || blank == 0) continue;
    const std::string number = line.substr(0, blank);
    const size_t uidl = line.find_first_not_of(' ', blank);
    if (number.find_first_not_of("0123456789") != std::string::npos || number.size() > 9 ||
        uidl == std::string::npos) {
      continue;
    }
    listing->emplace_back(std::stoi(number), line.substr(uidl));
  }
  return true;
}

bool Pop3Client::Retrieve(int number, std::string* message) {
  message->clear();
  return Perform(std::to_string(number), nullptr, true, message);
}

bool Pop3Client::Delete(int number) {
  return Perform(std::to_string(number), "DELE", false, nullptr);
}

}  // namespace ornic::larkpost::fetch
