#include "platform/mailcore/mail_server.h"

#include <stdexcept>
#include <string>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/system/appliance.h"
#include "platform/mailcore/error.h"

namespace ornic::larkpost {

std::string GetMailServerKey(const std::string& key) {
  const ::larkpost::appliance::Config* config = nullptr;
  try {
    config = &::larkpost::appliance::GetConfig();
  } catch (const std::runtime_error& e) {
    store::LogError("mail_server", __LINE__, e.what());
    throw Error(kErrorConfiguration);
  }
  auto found = config->mail_server.find(key);
  return found == config->mail_server.end() ? std::string() : found->second;
}

}  // namespace ornic::larkpost
