// The sending library's entry: build the draft into a message in a work
// file, hand the file to the SMTP server, and parse the very bytes that went
// out, from the file, into the copy that Sent keeps.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <exception>
#include <string>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/mailcore/mime/mime_parser.h"
#include "appliance/mailcore/send/message_builder.h"
#include "appliance/mailcore/send/send_library.h"
#include "appliance/mailcore/send/smtp_client.h"
#include "appliance/system/appliance.h"
#include "platform/export.h"
#include "platform/mailcore/control.h"
#include "platform/mailcore/error.h"

namespace ornic::larkpost::send {
namespace {

class FileCloser {
 public:
  explicit FileCloser(int fd) : fd_(fd) {}
  ~FileCloser() {
    if (fd_ >= 0) close(fd_);
  }
  FileCloser(const FileCloser&) = delete;
  FileCloser& operator=(const FileCloser&) = delete;
  // The file stays open: someone else closes it.
  void Release() { fd_ = -1; }

 private:
  int fd_;
};

std::string Base36(int64_t value) {
  static const char kDigits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
  std::string text;
  uint64_t rest = static_cast<uint64_t>(value);
  do {
    text.insert(text.begin(), kDigits[rest % 36]);
    rest /= 36;
  } while (rest != 0);
  return text;
}

// Unique by its 120 random bits; the time in front only helps a reader.
std::string MessageId(int64_t now, const std::string& domain) {
  return Base36(now) + "." + control::RandomString("", 20) + "@" +
         (domain.empty() ? "localhost" : domain);
}

void Send(const SendJob& job, SendOutcome* outcome) {
  const store::Draft& draft = *job.draft;
  if (job.sender_must_be_own) {
    const std::string sender = SenderAddress(draft.from);
    if (!sender.empty() && !IsOwnAddress(sender, job.own_addresses)) {
      store::LogError("send", __LINE__,
                      "draft " + std::to_string(draft.id) + " is not sent as " + sender +
                          ": the appliance's server sends only from the user's own addresses");
      outcome->error = kErrorSenderNotOwn;
      return;
    }
  }
  MessageHeaders headers;
  headers.message_id = MessageId(job.now, job.id_domain);
  headers.date = job.now;
  headers.sender_name = job.sender_name;
  auto content = [&](const store::DraftAttachment& attachment, int fd) {
    store::WriteDraftAttachment(*job.controller, draft.id, attachment.id, fd);
  };

  const int fd = OpenWorkFile(job.work_dir);
  FileCloser closer(fd);
  const Envelope envelope = WriteMessage(draft, headers, content, job.work_dir, fd);
  struct stat info;
  if (fstat(fd, &info) != 0) {
    store::LogError("send", __LINE__, std::string("the message to send: ") + strerror(errno));
    throw Error(kErrorStorage);
  }
  outcome->error = Transmit(job.server, envelope, fd, info.st_size);
  if (outcome->error != 0) return;
  // The copy is parsed from the file, and stored from it by the caller: the
  // message is never in memory whole.
  outcome->sent = mime::ParseMessageFile(fd, info.st_size, job.now);
  closer.Release();
  outcome->sent.bcc = draft.bcc;
}

}  // namespace
}  // namespace ornic::larkpost::send

extern "C" ZEVO_PLATFORM_API void larkpost_send_draft(const ornic::larkpost::send::SendJob* job,
                                                      ornic::larkpost::send::SendOutcome* outcome) {
  using namespace ornic::larkpost;
  outcome->error = 0;
  try {
    send::Send(*job, outcome);
  } catch (const ornic::Error& e) {
    outcome->error = e.ErrorCode();
  } catch (const std::exception& e) {
    store::LogError("send", __LINE__, std::string("sending failed: ") + e.what());
    outcome->error = ornic::kErrorStorage;
  }
}

extern "C" ZEVO_PLATFORM_API int32_t
larkpost_relay_message(const ornic::larkpost::send::RelayJob* job) {
  using namespace ornic::larkpost;
  try {
    const ::larkpost::appliance::Config& config = ::larkpost::appliance::GetConfig();
    send::SmtpServer relay;
    relay.host = config.relay_host;
    relay.port = config.relay_port;
    // The relay is this appliance's own server: TLS would protect nothing.
    relay.security = send::Security::kNone;
    auto hostname = config.mail_server.find("smtp_hostname");
    if (hostname != config.mail_server.end() && !hostname->second.empty()) {
      relay.hello_name = hostname->second;
    }
    const int fd = send::OpenWorkFile(::larkpost::appliance::DataRoot());
    send::FileCloser closer(fd);
    const std::string& bytes = *job->message;
    if (write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
      store::LogError("send", __LINE__,
                      std::string("no room for a relayed message: ") + strerror(errno));
      return ornic::kErrorStorage;
    }
    return send::Transmit(relay, send::Envelope{job->sender, job->recipients}, fd,
                          static_cast<int64_t>(bytes.size()));
  } catch (const ornic::Error& e) {
    return e.ErrorCode();
  } catch (const std::exception& e) {
    store::LogError("send", __LINE__, std::string("relaying failed: ") + e.what());
    return ornic::kErrorSmtpConnect;
  }
}
