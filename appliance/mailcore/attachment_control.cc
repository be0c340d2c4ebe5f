#include "platform/mailcore/control.h"

namespace ornic::larkpost::control {

AttachmentControl::AttachmentControl(Controller& controller) : controller_(controller) {}

}  // namespace ornic::larkpost::control
