// The sending library's entry: build the draft into a message in a work
// file, hand the file to the SMTP server, and parse the very bytes that went
// out into the copy that Sent keeps.
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
#include "platform/export.h"
#include "platform/mailcore/control.h"
#include "platform/mailcore/error.h"

namespace ornic::larkpost::send {
namespace {

class FileCloser {
 public:
  explicit FileCloser(int fd) : fd_(fd) {}
  ~FileCloser() { close(fd_); }
  FileCloser(const FileCloser&) = delete;
  FileCloser& operator=(const FileCloser&) = delete;

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

std::string ReadAll(int fd, int64_t size) {
  std::string bytes(static_cast<size_t>(size), '\0');
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t got = pread(fd, &bytes[done], bytes.size() - done, static_cast<off_t>(done));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      store::LogError("send", __LINE__,
                      std::string("reading the sent message back failed: ") +
                          (got < 0 ? strerror(errno) : "it is shorter"));
      throw Error(kErrorStorage);
    }
    done += static_cast<size_t>(got);
  }
  return bytes;
}

void Send(const SendJob& job, SendOutcome* outcome) {
  const store::Draft& draft = *job.draft;
  MessageHeaders headers;
  headers.message_id = MessageId(job.now, job.id_domain);
  headers.date = job.now;
  headers.sender_name = job.sender_name;
  auto content = [&](const store::DraftAttachment& attachment) {
    return store::ReadDraftAttachment(*job.controller, draft.id, attachment.id);
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
  outcome->sent = mime::ParseMessage(ReadAll(fd, info.st_size), job.now);
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
