// MIME ingest: a message parsed as delivery parses it and stored, through
// the user's (empty) filters, into a store below a temporary data root.
// Every attachment's content range lies inside the source and its part can
// be found again. Input: the message source.
#include <ftw.h>
#include <stdlib.h>

#include <cstdio>
#include <memory>
#include <string>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/mailcore/delivery.h"
#include "appliance/mailcore/mime/mime_parser.h"
#include "appliance/system/appliance.h"
#include "appliance/system/testing.h"
#include "fuzz/fuzz_util.h"
#include "platform/mailcore/controller.h"
#include "platform/mailcore/db_setup.h"
#include "platform/mailcore/error.h"
#include "platform/mailcore/sync.h"

namespace store = ornic::larkpost::store;
namespace control = ornic::larkpost::control;
using larkpost::fuzz::Broken;

namespace {

// A fresh data root with one user; replaced every few thousand messages so
// that the store stays small and the run fast.
class Root {
 public:
  Root() {
    char pattern[] = "/tmp/larkpost-fuzz-mime-XXXXXX";
    if (mkdtemp(pattern) == nullptr) abort();
    path_ = pattern;
    setenv("LARKPOST_ROOT", pattern, 1);
    larkpost::appliance::ResetForTesting();
    const uint32_t uid = larkpost::appliance::UserStore::Add("alice", "pw", false, "example.org");
    if (!ornic::larkpost::db::DBSetupHandler(uid).SetupDB()) abort();
    controller_ = std::make_unique<control::Controller>(uid);
    control::MailboxSyncer::CheckDefaultMailbox(*controller_);
  }
  ~Root() {
    controller_.reset();
    store::CloseConnections();
    nftw(
        path_.c_str(), [](const char* path, const struct stat*, int, FTW*) { return remove(path); },
        16, FTW_DEPTH | FTW_PHYS);
  }
  control::Controller& controller() { return *controller_; }

 private:
  std::string path_;
  std::unique_ptr<control::Controller> controller_;
};

std::unique_ptr<Root> root;
int delivered = 0;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string raw(reinterpret_cast<const char*>(data), size);
  store::NewMessage message = ornic::larkpost::mime::ParseMessage(raw, 1700000000);
  if (message.raw != raw) Broken("the source is not kept as it came");
  for (const store::NewAttachment& attachment : message.attachments) {
    if (attachment.content_offset >= 0 &&
        (attachment.content_length < 0 ||
         attachment.content_offset + attachment.content_length > static_cast<int64_t>(size))) {
      Broken("an attachment's content lies outside its source");
    }
    if (!ornic::larkpost::mime::ExtractPart(raw, attachment.part_path)) {
      Broken("an attachment's part cannot be found again: " + attachment.part_path);
    }
    if (attachment.name.empty() || attachment.name == "." || attachment.name == ".." ||
        attachment.name.find_first_of(std::string("/\\\0", 3)) != std::string::npos) {
      Broken("an attachment name that is not a safe file name: " + attachment.name);
    }
  }
  if (!root || ++delivered % 2000 == 0) {
    root.reset();
    root = std::make_unique<Root>();
  }
  message.arrival_time = 1700000000;
  try {
    store::DeliverMessage(root->controller(), message);
  } catch (const ornic::Error& error) {
    Broken("delivery failed with error " + std::to_string(error.ErrorCode()));
  }
  return 0;
}
