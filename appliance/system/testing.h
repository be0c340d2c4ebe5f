// Hooks for tests that run many cases in one process.
#pragma once

namespace larkpost::appliance {

// Forgets what this process has read or opened below the data root: the
// data root itself, the configuration, the accounts cached by UserStore and
// the open record files, so that the next call reads $LARKPOST_ROOT and its
// files again, as a new process would. References returned earlier by
// DataRoot() stay valid but see the new value. Not for production code: the
// process-wide values are read once there on purpose.
void ResetForTesting();

namespace detail {
void ForgetDataRoot();
void ForgetConfig();
void ForgetUsers();
void CloseLogFiles();
}  // namespace detail

}  // namespace larkpost::appliance
