#include "appliance/tools/check_command.h"

#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "appliance/mailcore/store_check.h"
#include "appliance/system/appliance.h"
#include "appliance/system/user_admin.h"
#include "platform/mailcore/db_setup.h"

namespace larkpost::tools {

int Check(const Args& args) {
  bool all = false;
  std::string name;
  for (const std::string& arg : args) {
    if (arg == "--all") {
      all = true;
    } else if (arg.size() > 1 && arg[0] == '-') {
      throw UsageError("check: unknown option " + arg);
    } else if (name.empty()) {
      name = arg;
    } else {
      throw UsageError("check: one name only");
    }
  }
  if (all == !name.empty()) throw UsageError("check: give NAME or --all");
  std::vector<appliance::UserRecord> users;
  if (all) {
    users = appliance::ListUsers();
  } else if (std::optional<appliance::UserRecord> user = appliance::UserStore::FindByName(name)) {
    users.push_back(*user);
  } else {
    throw std::runtime_error("no user " + name);
  }
  bool sound = true;
  for (const appliance::UserRecord& user : users) {
    // A user who never had mail nor signed in has no store: nothing to check.
    if (!ornic::larkpost::db::DBSetupHandler(user.uid).DoesDBExist()) {
      std::cout << user.name << ": no store\n";
      continue;
    }
    std::vector<std::string> findings;
    try {
      findings = ornic::larkpost::store::CheckStore(user.uid);
    } catch (const std::exception& e) {
      findings.push_back(std::string("cannot be checked: ") + e.what());
    }
    for (const std::string& finding : findings) std::cout << user.name << ": " << finding << "\n";
    if (findings.empty()) std::cout << user.name << ": ok\n";
    sound = sound && findings.empty();
  }
  return sound ? 0 : 1;
}

}  // namespace larkpost::tools
