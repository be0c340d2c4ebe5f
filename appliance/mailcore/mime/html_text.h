// The readable text of an HTML body, for a message that has no plain one.
#pragma once

#include <string>

namespace ornic::larkpost::mime {

// The text that `html` (UTF-8) shows: tags, comments, and the contents of
// head, script, style and title removed; character references decoded;
// blanks collapsed as a browser collapses them; a line break for each
// block (paragraph, division, list item, table row, heading, <br>); at most
// one empty line in a row. It is for previews and searching, not a
// faithful rendering.
std::string HtmlToText(const std::string& html);

}  // namespace ornic::larkpost::mime
