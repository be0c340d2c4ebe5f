// A draft's HTML as the composer hands it back. The core shows inline images
// as its own attachment download URLs, which carry the session (the token,
// perhaps the session id); a composer saves or sends the HTML it was shown.
// Before a draft's HTML is stored or sent, those URLs become "cid:"
// references again, and no URL of the host keeps a session parameter.
#pragma once

#include <map>
#include <string>

namespace ornic::larkpost::store {

// Returns `html` with every URL of the host's entry.cgi rewritten, in any
// form the host is reached by ("/webapi/entry.cgi?...", with a scheme and
// host or "//host" in front; parameters in any order, separated by "&" or
// "&amp;"):
// - an attachment download ("api=ZEVO.Larkpost.Attachment",
//   "method=download") whose "id" is a key of `content_ids` becomes
//   "cid:" + its content id, the whole URL replaced;
// - every other one keeps its place and its other parameters, without
//   "_sid" and "_token".
// A content id that could not stand in an attribute unchanged (quotes,
// angle brackets, "&", blanks) is not written; its URL is only stripped.
std::string RestoreInlineImages(const std::string& html,
                                const std::map<int, std::string>& content_ids);

}  // namespace ornic::larkpost::store
