#include "platform/mailcore/error.h"

#include <string>

namespace ornic {

Error::Error(int32_t code)
    : std::runtime_error("mail core error " + std::to_string(code)), code_(code) {}

Error::~Error() = default;

}  // namespace ornic
