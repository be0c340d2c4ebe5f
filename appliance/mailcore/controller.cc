#include "platform/mailcore/controller.h"

#include <memory>
#include <string>
#include <utility>

#include "appliance/mailcore/controller_impl.h"
#include "platform/mailcore/error.h"

namespace ornic::larkpost::control {

Controller::Controller(uint32_t uid, std::string session_id) {
  sdk::ZevoUser user(uid);
  if (!user.IsValid()) throw Error(kErrorNoSuchUser);
  impl_ = std::make_unique<Impl>(std::move(user), std::move(session_id));
}

Controller::Controller(uint32_t uid) : Controller(uid, std::string()) {}

Controller::~Controller() = default;

uint32_t Controller::uid() const { return impl_->user.uid(); }

const std::string& Controller::session_id() const { return impl_->session_id; }

const sdk::ZevoUser& Controller::zevo_user() const { return impl_->user; }

void Controller::CloseDatabaseConnection() { impl_->CloseDb(); }

Controller::Impl& Controller::impl() const { return *impl_; }

}  // namespace ornic::larkpost::control
