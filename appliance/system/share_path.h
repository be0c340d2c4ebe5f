// Confined reads of files that the plug-in names by path.
//
// A path that the plug-in hands to the file services or to a program is one
// of the folders the appliance knows (a configured share's directory, a
// user's home, or one of the appliance's own folders: the upload spool, the
// stickers, the request user's application folder) joined with the rest of
// what a client asked for. The rest is resolved beneath that folder, never
// above it and never through a symbolic link, so that ".." and links cannot
// lead anywhere else, for administrators too.
#pragma once

#include <optional>
#include <string>

#include "appliance/system/appliance.h"

namespace larkpost::appliance {

// Opens `path` with `flags` (O_CLOEXEC is added) beneath the known folder it
// lies in. Shares and homes are opened with the request user's rights (an
// administrator's with the host's), so that the kernel's permission check at
// open is the readability test; the appliance's own folders with the host's.
// The descriptor, or -1 with errno: EXDEV for a path that leaves its folder,
// ELOOP for one that passes through a symbolic link, EACCES for one beneath
// no known folder or when the request user is not known.
int OpenBeneathRoot(const std::string& path, int flags);

// The environment variable through which a program that the file services
// start learns whose request it serves: "<uid>" or "<uid>:admin".
inline constexpr char kRequestUserVariable[] = "LARKPOST_REQUEST_USER";
std::string FormatRequestUser(const RequestUser& user);
std::optional<RequestUser> ParseRequestUser(const char* text);

// Where the stickers ship: $LARKPOST_STICKER_DIR, else
// <libdir>/../share/larkpost/stickers beside this library, the place the
// core reads them from.
std::string StickerDir();

}  // namespace larkpost::appliance
