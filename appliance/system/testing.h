// Hooks for tests that run many cases in one process.
#pragma once

namespace larkpost::appliance {

// Forgets the data root and the configuration that this process has read,
// so that the next DataRoot() and GetConfig() read $LARKPOST_ROOT and the
// configuration file again. References returned earlier by DataRoot() stay
// valid but see the new value. Not for production code: the process-wide
// values are read once there on purpose.
void ResetForTesting();

namespace detail {
void ForgetDataRoot();
void ForgetConfig();
}  // namespace detail

}  // namespace larkpost::appliance
