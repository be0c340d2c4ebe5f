// Sending a draft, the core's side: read the draft, choose the SMTP server,
// and keep the sent copy. Building the message and talking SMTP live in
// liblarkpost_send (GMime, libcurl), loaded on the first send.
//
// The server: the user's SMTP account whose address is the draft's From,
// else the default account, else (when the appliance's own mail server may
// send) the configured relay, plainly and without a login; the relay is this
// appliance's own server, so TLS would protect nothing. An account's
// connection type is 0 no encryption, 1 TLS from the start (SMTPS), 2
// STARTTLS or nothing; certificates are verified. Its password is opened
// from its sealed form here, for its own server only.
//
// Through the relay the appliance vouches for the sender, so a message goes
// out only from the user's own addresses (OwnAddresses); anything else is
// kErrorSenderNotOwn, before any server is asked. An account's server
// judges its own senders.
#include <unistd.h>

#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/mailcore/delivery.h"
#include "appliance/mailcore/draft_html.h"
#include "appliance/mailcore/draft_store.h"
#include "appliance/mailcore/lazy_library.h"
#include "appliance/mailcore/mime/html_text.h"
#include "appliance/mailcore/secret_box.h"
#include "appliance/mailcore/send/send_library.h"
#include "appliance/mailcore/store_text.h"
#include "appliance/system/appliance.h"
#include "appliance/system/clock.h"
#include "platform/mailcore/control.h"
#include "platform/mailcore/error.h"
#include "platform/mailcore/zevo_user.h"

namespace ornic::larkpost::control {
namespace {

namespace appliance = ::larkpost::appliance;

bool AnyAddress(const std::vector<std::string>& texts) {
  for (const std::string& text : texts) {
    if (text.find_first_not_of(" \t\r\n") != std::string::npos) return true;
  }
  return false;
}

std::string DomainOf(const std::string& address) {
  size_t at = address.rfind('@');
  return at == std::string::npos ? "" : address.substr(at + 1);
}

send::Security SecurityOf(int connection_type) {
  switch (connection_type) {
    case 1:
      return send::Security::kImplicitTls;
    case 2:
      return send::Security::kStartTlsRequired;
    case 0:
      return send::Security::kNone;
    default:
      return send::Security::kStartTlsIfOffered;
  }
}

struct Account {
  send::SmtpServer server;
  std::string display_name;
};

// The account for `from_address`, matched by address, else the default one.
// `*matched` tells which.
std::optional<Account> ChooseAccount(store::Database& db, const std::string& from_address,
                                     bool* matched) {
  return store::Guard("choosing the SMTP account", [&]() -> std::optional<Account> {
    store::SealPlainSecrets(db, "smtp_account", "password");
    store::Statement rows(db,
                          "SELECT mail, host_name, port, user_name, password, connection_type, "
                          "display_name, is_default FROM smtp_account ORDER BY id");
    const std::string wanted = store::FoldCase(from_address);
    std::optional<Account> by_default;
    while (rows.Step()) {
      Account account;
      account.server.host = rows.Text(1);
      account.server.port = rows.Int(2);
      account.server.user_name = rows.Text(3);
      account.server.password = store::OpenSecret(rows.Text(4));
      account.server.security = SecurityOf(rows.Int(5));
      account.display_name = rows.Text(6);
      if (!wanted.empty() && store::FoldCase(rows.Text(0)) == wanted) {
        *matched = true;
        return account;
      }
      if (rows.Int(7) != 0 && !by_default) by_default = std::move(account);
    }
    *matched = false;
    return by_default;
  });
}

// The addresses the appliance's own server sends from for this user: the
// account's NAME@DOMAIN and the addresses of the sending identities. Any
// text can be typed into an identity, but a From that names one always
// leaves through that identity's own server (ChooseAccount), never
// through the relay, so the relay vouches for no more than before.
std::vector<std::string> OwnAddresses(Controller& controller) {
  return store::UserAddresses(controller);
}

const appliance::Config& Configuration() {
  try {
    return appliance::GetConfig();
  } catch (const std::exception& e) {
    store::LogError("send", __LINE__, e.what());
    throw Error(kErrorConfiguration);
  }
}

std::string ServerKey(const appliance::Config& config, const std::string& key) {
  auto value = config.mail_server.find(key);
  return value == config.mail_server.end() ? "" : value->second;
}

std::string HostName() {
  char name[256] = "";
  if (gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') return "localhost";
  return name;
}

}  // namespace

int MessageControl::Send(int id) {
  store::Draft draft;
  if (!store::LoadDraft(controller_, id, &draft)) throw Error(kErrorNotFound);
  // Drafts are stored without session parameters; one kept from before
  // loses them here, so that no session ever leaves in mail.
  std::map<int, std::string> images;
  for (const store::DraftAttachment& attachment : draft.attachments) {
    if (!attachment.content_id.empty()) images.emplace(attachment.id, attachment.content_id);
  }
  std::string html = store::RestoreInlineImages(draft.html_body, images);
  if (html != draft.html_body) {
    draft.html_body = std::move(html);
    draft.plain_body = mime::HtmlToText(draft.html_body);
  }
  if (!AnyAddress(draft.to) && !AnyAddress(draft.cc) && !AnyAddress(draft.bcc)) {
    throw Error(kErrorNoRecipient);
  }

  const appliance::Config& config = Configuration();
  const std::string server_name = ServerKey(config, "smtp_hostname");
  const std::string from_address = MailAddress(draft.from).GetEmail();
  send::SendJob job;
  bool matched = false;
  if (std::optional<Account> account =
          ChooseAccount(controller_.impl().db(), from_address, &matched)) {
    job.server = std::move(account->server);
    if (matched) job.sender_name = account->display_name;
  } else if (ServerKey(config, "smtp_enabled") == "yes") {
    job.server.host = config.relay_host;
    job.server.port = config.relay_port;
    job.server.security = send::Security::kNone;
    job.sender_must_be_own = true;
    job.own_addresses = OwnAddresses(controller_);
  } else {
    throw Error(kErrorNoSmtpAccount);
  }
  job.server.hello_name = server_name.empty() ? HostName() : server_name;
  job.id_domain = DomainOf(from_address);
  if (job.id_domain.empty()) job.id_domain = server_name;
  if (job.id_domain.empty()) job.id_domain = controller_.zevo_user().domain();
  job.controller = &controller_;
  job.draft = &draft;
  job.work_dir = appliance::UserDir(controller_.uid());
  job.now = appliance::UnixTime();

  auto* send_draft = store::LazyFunction<send::SendEntry>(send::kLibraryName, send::kEntryName);
  send::SendOutcome outcome;
  send_draft(&job, &outcome);
  std::unique_ptr<int, void (*)(int*)> source_file(&outcome.sent.raw_fd, [](int* fd) {
    if (*fd >= 0) close(*fd);
  });
  if (outcome.error != 0) throw Error(outcome.error);
  try {
    return store::StoreSentCopy(controller_, id, outcome.sent);
  } catch (const Error& e) {
    store::LogError("send", __LINE__,
                    "draft " + std::to_string(id) + " went out, but its copy was not kept (" +
                        std::to_string(e.ErrorCode()) + ")");
    throw;
  }
}

}  // namespace ornic::larkpost::control
