// The platform's file services: shared folders, file copy and running
// programs. Failures are reported by the result; VESLCErrGet() then tells
// why (the calling thread's last platform error).
#pragma once

#include <cstdint>

#include "platform/export.h"

extern "C" {

// Last platform errors (VESLCErrGet).
enum {
  VESLC_ERR_NONE = 0x0000,
  VESLC_ERR_NOT_FOUND = 0x0101,  // no such share, file or program
  VESLC_ERR_ACCESS = 0x0102,     // permission denied
  VESLC_ERR_IO = 0x0103,         // reading or writing failed
  VESLC_ERR_INVALID = 0x0104,    // an argument was not acceptable
  VESLC_ERR_EXEC = 0x0105,       // the program could not be started
  VESLC_ERR_EXIT = 0x0200,       // | exit status: the program exited non-zero
  VESLC_ERR_SIGNAL = 0x0400,     // | signal number: the program was killed
};

// A shared folder's record; owned by the caller until ZEVOShareFree.
typedef struct ZevoShareInfo ZEVOSHARE;

// Looks up the shared folder `name` (case-sensitive) of the configuration.
// 0 and `*share` set when it exists; -1 otherwise.
ZEVO_PLATFORM_API int ZEVOShareGet(const char* name, ZEVOSHARE** share);
// The share's directory on disk, owned by the record; nullptr when it has
// none.
ZEVO_PLATFORM_API const char* VESLSharePathGet(const ZEVOSHARE* share);
// nullptr is allowed.
ZEVO_PLATFORM_API void ZEVOShareFree(ZEVOSHARE* share);

// Copies the regular file `source` to `destination` (replaced when it
// exists), contents and permission bits, through a temporary name so that
// the destination is never seen half written. `options` is reserved (pass
// 0). 0 on success, -1 on failure.
ZEVO_PLATFORM_API int ZEVOFileCopy(const char* source, const char* destination,
                                   unsigned int options);

// Runs `path` with `argv` (argv[0] first, nullptr after the last) and the
// caller's environment. A path that begins with "/usr/zevo/" is looked up
// below the configured program prefix first. With `wait` non-zero, waits
// and returns 0 when the program exited with status 0, -1 otherwise; without,
// returns 0 once the program started. A waited-for program still running
// after the configured time limit is killed, with what it started
// (VESLC_ERR_SIGNAL | SIGKILL).
ZEVO_PLATFORM_API int VESLCExecv(const char* path, char* const argv[], int wait);
// The same with the arguments after `path` (argv[1] on) as a list that ends
// with nullptr; argv[0] is `path`.
ZEVO_PLATFORM_API int VESLCExec(int wait, const char* path, ...);

// The calling thread's last platform error (VESLC_ERR_*).
ZEVO_PLATFORM_API unsigned int VESLCErrGet(void);

}  // extern "C"
