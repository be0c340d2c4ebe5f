#include "appliance/tools/mail_commands.h"

#include <errno.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <future>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "appliance/mailcore/delivery.h"
#include "appliance/mailcore/fetch/fetcher.h"
#include "appliance/mailcore/message_store.h"
#include "appliance/mailcore/mime/mail_source.h"
#include "appliance/mailcore/mime/mime_parser.h"
#include "appliance/system/appliance.h"
#include "appliance/system/clock.h"
#include "platform/mailcore/constant.h"
#include "platform/mailcore/control.h"
#include "platform/mailcore/controller.h"
#include "platform/mailcore/db_setup.h"
#include "platform/mailcore/error.h"
#include "platform/mailcore/sync.h"
#include "platform/mailcore/zevo_user.h"
#include "platform/zevo/notify.h"

namespace larkpost::tools {
namespace {

namespace control = ornic::larkpost::control;
namespace mime = ornic::larkpost::mime;
namespace store = ornic::larkpost::store;

// Messages stored per transaction by import: large enough that the commit
// costs little per message, small enough to hold in memory with their
// sources.
constexpr size_t kImportBatch = 500;

// A command's words: the user's name, the mailbox path and, for import,
// the sources.
struct MailArgs {
  std::string user;
  std::string mailbox;  // "" for the inbox
  std::vector<std::string> sources;
};

MailArgs ReadArgs(const char* command, const Args& args, bool sources) {
  MailArgs read;
  for (size_t i = 0; i < args.size(); ++i) {
    if (TakeOption(args, i, "--mailbox", &read.mailbox)) {
      if (read.mailbox.empty()) throw UsageError(std::string(command) + ": --mailbox needs a path");
    } else if (args[i].size() > 1 && args[i][0] == '-') {
      throw UsageError(std::string(command) + ": unknown option " + args[i]);
    } else if (read.user.empty()) {
      read.user = args[i];
    } else if (sources) {
      read.sources.push_back(args[i]);
    } else {
      throw UsageError(std::string(command) + ": unexpected " + args[i]);
    }
  }
  if (read.user.empty()) throw UsageError(std::string(command) + ": NAME is missing");
  if (sources && read.sources.empty()) throw UsageError("import: no SOURCE given");
  return read;
}

// The core reports its failures as codes; here they become sentences.
std::string Describe(const ornic::Error& error) {
  switch (error.ErrorCode()) {
    case ornic::kErrorNoSuchUser:
      return "no such user";
    case ornic::kErrorInvalidArgument:
      return "the mail store refused the message (error 506)";
    default:
      return "the mail store failed (error " + std::to_string(error.ErrorCode()) +
             "); the system log has the details";
  }
}

// Ends an import that failed, saying how far it got: what was stored
// before stays stored, and the first message that was not is named by its
// source and its number there. `read` holds each source's path and how
// many messages were read from it, in order.
[[noreturn]] void ImportStopped(const std::string& why, size_t stored,
                                const std::vector<std::pair<std::string, size_t>>& read) {
  std::string text = why + "; " + std::to_string(stored) + " messages were stored";
  size_t before = 0;
  for (const auto& [path, count] : read) {
    if (stored < before + count) {
      text += ", none from message " + std::to_string(stored - before + 1) + " of " + path + " on";
      break;
    }
    before += count;
  }
  throw std::runtime_error(text);
}

// The store of a user, opened as the web client's first call opens it:
// created with its built-in mailboxes when it does not exist yet, brought
// to the newest schema when it does.
class MailStore {
 public:
  explicit MailStore(const std::string& name) {
    ornic::sdk::ZevoUser user(name);
    if (!user.IsValid()) throw std::runtime_error("no user " + name);
    uid_ = user.uid();
    PrepareDataRoot();
    ornic::larkpost::db::DBSetupHandler setup(uid_);
    bool existed = setup.DoesDBExist();
    if (!setup.SetupDB()) {
      throw std::runtime_error("the mail store of " + name +
                               " cannot be set up; the system log has the details");
    }
    controller_ = std::make_unique<control::Controller>(uid_);
    if (!existed) {
      control::MailboxSyncer::CheckDefaultMailbox(*controller_);
      control::UpdateControl(*controller_).UpdateAllMailbox(false);
    }
  }

  uint32_t uid() const { return uid_; }
  control::Controller& controller() { return *controller_; }

  // The id of the mailbox with UTF-8 path `path` ("" for the inbox; the
  // inbox's name in any case, as IMAP has it). Throws std::runtime_error
  // for an unknown path and for the virtual Starred mailbox.
  int MailboxId(const std::string& path) {
    constexpr int kInbox = control::DefaultMailbox::id<ornic::larkpost::constant::kInbox>();
    constexpr int kStarred = control::DefaultMailbox::id<ornic::larkpost::constant::kStarred>();
    if (path.empty() || strcasecmp(path.c_str(), "INBOX") == 0) return kInbox;
    for (const ornic::larkpost::record::Mailbox& mailbox :
         control::MailboxControl(*controller_).List(false, false)) {
      if (mailbox.UTF8MailboxPath() != path) continue;
      if (mailbox.id == kStarred) {
        throw std::runtime_error("mailbox " + path +
                                 " holds no messages of its own: it shows the starred ones");
      }
      return mailbox.id;
    }
    throw std::runtime_error("no mailbox " + path);
  }

  // Tells the user's web clients that there is new mail.
  void Announce() { ZEVOLarkpostNotifyMailboxUpdate(uid_); }

 private:
  uint32_t uid_ = 0;
  std::unique_ptr<control::Controller> controller_;
};

// Stores import batches on a thread of its own, so that the next batch is
// parsed while the last one is written (each takes about as long as the
// other). One batch is in flight at a time; the controller is used by that
// thread alone while the writer lives, and the writer waits for it before
// it goes. `stored` counts the messages whose batch is stored.
class BatchWriter {
 public:
  BatchWriter(control::Controller& controller, size_t& stored)
      : controller_(controller), stored_(stored) {}
  ~BatchWriter() { FinishQuietly(); }
  BatchWriter(const BatchWriter&) = delete;
  BatchWriter& operator=(const BatchWriter&) = delete;

  // Waits for the batch before, then starts storing `batch` (all of it or
  // none, in one transaction). Throws what storing the batch before threw.
  void Write(std::vector<store::NewMessage>&& batch) {
    Finish();
    in_flight_ = batch.size();
    pending_ = std::async(std::launch::async, [this, messages = std::move(batch)] {
      store::InsertMessages(controller_, messages);
    });
  }

  // Waits for the batch in flight. Throws what storing it threw.
  void Finish() {
    if (!pending_.valid()) return;
    std::future<void> pending = std::move(pending_);
    pending.get();
    stored_ += in_flight_;
    in_flight_ = 0;
  }

  // Waits for the batch in flight; its failure was, or will be, reported
  // by another way.
  void FinishQuietly() noexcept {
    try {
      Finish();
    } catch (...) {
    }
  }

 private:
  control::Controller& controller_;
  size_t& stored_;
  std::future<void> pending_;
  size_t in_flight_ = 0;
};

std::string ReadStandardInput() {
  std::string bytes;
  char buffer[65536];
  for (;;) {
    ssize_t got = read(STDIN_FILENO, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0)
      throw std::runtime_error(std::string("cannot read standard input: ") + strerror(errno));
    if (got == 0) return bytes;
    bytes.append(buffer, static_cast<size_t>(got));
  }
}

}  // namespace

int Deliver(const Args& args) {
  MailArgs words = ReadArgs("deliver", args, false);
  try {
    MailStore user(words.user);
    int mailbox = user.MailboxId(words.mailbox);
    std::string raw = ReadStandardInput();
    if (raw.find_first_not_of(" \t\r\n") == std::string::npos) {
      throw std::runtime_error("deliver: no message on standard input");
    }
    int64_t now = appliance::UnixTime();
    store::NewMessage message = mime::ParseMessage(std::move(raw), now);
    // A delivered message arrives now, whatever its Date header claims.
    message.arrival_time = now;
    message.mailbox_id = mailbox;
    // The user's filters, forwarding and the vacation reply apply as a mail
    // server's delivery agent applies them. A redirect leaves once the
    // message is safe. Failures to send are logged, and lose nothing.
    const store::Delivered delivered = store::Deliver(user.controller(), message);
    user.Announce();
    std::cout << delivered.id << "\n";
    return 0;
  } catch (const ornic::Error& error) {
    throw std::runtime_error(Describe(error));
  }
}

int Import(const Args& args) {
  MailArgs words = ReadArgs("import", args, true);
  size_t stored = 0;
  std::vector<std::pair<std::string, size_t>> read;
  try {
    MailStore user(words.user);
    // Every source is looked at before anything is stored, so that a typing
    // mistake in the last one does not leave the first ones half imported.
    std::vector<mime::MailSource> sources;
    for (const std::string& path : words.sources) sources.emplace_back(path);
    int mailbox = user.MailboxId(words.mailbox);

    BatchWriter writer(user.controller(), stored);
    std::vector<store::NewMessage> batch;
    batch.reserve(kImportBatch);
    for (const mime::MailSource& source : sources) {
      read.emplace_back(source.path(), 0);
      source.ForEach([&](mime::SourceMessage&& found) {
        ++read.back().second;
        store::NewMessage message =
            mime::ParseMessage(std::move(found.raw), found.time_without_date);
        message.mailbox_id = mailbox;
        message.read = found.read;
        message.star = found.starred ? 1 : 0;
        batch.push_back(std::move(message));
        if (batch.size() == kImportBatch) {
          writer.Write(std::move(batch));
          batch = {};
          batch.reserve(kImportBatch);
        }
      });
    }
    if (!batch.empty()) writer.Write(std::move(batch));
    writer.Finish();
    if (stored > 0) user.Announce();
    std::cout << stored << "\n";
    return 0;
  } catch (const ornic::Error& error) {
    ImportStopped(Describe(error), stored, read);
  } catch (const std::runtime_error& error) {
    ImportStopped(error.what(), stored, read);
  }
}

int Fetch(const Args& args) {
  MailArgs words = ReadArgs("fetch", args, false);
  if (!words.mailbox.empty()) throw UsageError("fetch: --mailbox is the account's own setting");
  try {
    MailStore user(words.user);
    int stored = 0;
    bool failed = false;
    for (const ornic::larkpost::fetch::FetchOutcome& outcome :
         ornic::larkpost::fetch::FetchAllAccounts(user.controller())) {
      stored += outcome.stored;
      if (outcome.busy) {
        std::cerr << "fetch: account " << outcome.account_id
                  << " is being fetched by another process; skipped\n";
      } else if (!outcome.error.empty()) {
        std::cerr << "fetch: account " << outcome.account_id << ": " << outcome.error << "\n";
        failed = true;
      }
    }
    std::cout << stored << "\n";
    return failed ? 1 : 0;
  } catch (const ornic::Error& error) {
    throw std::runtime_error(Describe(error));
  }
}

}  // namespace larkpost::tools
