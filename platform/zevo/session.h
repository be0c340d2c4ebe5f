// The web server's session checker, as the platform offers it to CGI code.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/export.h"

extern "C" {

// An open session-checker context; owned by the caller until ZevoCgiFree.
typedef struct ZevoCgiContext ZEVO_CGI_CTX;

// Opens the session store `session_file` (a store name such as
// "current.users", kept below the data root) for sessions that expire after
// `timeout` seconds of inactivity. `mode` 1 refreshes the inactivity timer
// of every session it authorises; 0 only reads. `extra` is reserved (pass "").
// Returns nullptr when the store cannot be opened.
ZEVO_PLATFORM_API ZEVO_CGI_CTX* ZevoCgiInitEx(int timeout, int mode, const char* session_file,
                                              const char* extra);

// Looks `session_id` up. On success copies the user's name, NUL-terminated,
// into `user` (at most `user_size` bytes) and returns the uid (>= 0). Returns
// -1 for an unknown or expired session and -2 when the store fails.
// `flags[0]` selects the session kinds that count (bit 0 web login, bit 1
// application token, bit 2 shared link, bit 3 single sign-on: 15 takes all);
// the kind of the session found is written to `flags[1]`. `reserved` is 0.
ZEVO_PLATFORM_API int ZevoCgiIsAuthorizedEx(ZEVO_CGI_CTX* ctx, const char* session_id, char* user,
                                            size_t user_size, uint32_t* flags, int reserved);

// Closes the context; nullptr is allowed.
ZEVO_PLATFORM_API void ZevoCgiFree(ZEVO_CGI_CTX* ctx);

// The configured session time-out in seconds (the configuration's
// "session_timeout", 1800 when it names none).
ZEVO_PLATFORM_API int VESLCConfGetVexTimeout(void);

}  // extern "C"
