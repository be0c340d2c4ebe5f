// Header fields of mail as senders really write them: folded, with encoded
// words split at any byte, 8-bit text in no declared charset, parameters in
// RFC 2231 pieces, and now and then a NUL or a line of garbage. Everything
// here is lenient: it returns what it can read and never throws.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace ornic::larkpost::mime {

struct HeaderField {
  std::string name;   // as written ("Subject")
  std::string value;  // raw and still folded, without the name and colon
};

// The header block at the start of a message or part.
struct HeaderBlock {
  std::vector<HeaderField> fields;
  // Where the body starts: after the blank line that ends the header block;
  // the end of the source when there is none; 0 when the source does not
  // start with a header field at all.
  size_t body_offset = 0;

  // The raw value of the first field called `name` (any case); nullptr when
  // there is none.
  const std::string* Find(const std::string& name) const;
  // The raw values of every field called `name`, in order.
  std::vector<std::string> FindAll(const std::string& name) const;
};

// Reads the header block at the start of `source`. A leading mbox "From "
// line is skipped; lines that are not header fields are skipped too.
HeaderBlock ScanHeaders(std::string_view source);

// The value of the field `name` that starts at `offset` of `source`
// (continuation lines included), or "" when no field of that name starts
// there. `*field_end`, when asked for, is where the field ends: the start
// of the line after it, or the end of `source` (the field may go on beyond
// a source that is only a window of the message).
std::string FieldValueAt(std::string_view source, size_t offset, const std::string& name,
                         size_t* field_end = nullptr);

// Unstructured header text (Subject, a display name) as UTF-8: unfolded,
// RFC 2047 encoded words decoded (adjacent words of one charset joined
// before decoding, so a character split between two words survives), raw
// 8-bit text read as UTF-8, else in `charset` (what the message declares for
// its text, "" for none) when it reads cleanly in it, else as Windows-1252;
// control characters turned into blanks and NUL removed, blanks at either
// end trimmed.
std::string DecodeHeaderText(const std::string& raw, const std::string& charset = "");

// An address list header (From, To, Cc, Bcc) as one display text per
// mailbox: "Ann Example <ann@example.org>", "ann@example.org", or
// "\"Example, Ann\" <ann@example.org>" when the name needs quotes. Read as
// RFC 5322 with its obsolete forms: group names are dropped, their members
// kept; comments are dropped, though one outside the address stands in for a
// missing display name. Lists that break the syntax are read as careful
// readers do: bare addresses apart from each other ("a@x b@y" is two),
// words beside a bare address its display name ("Big Bug bb@bug.com").
// Raw 8-bit names are read as DecodeHeaderText reads them.
std::vector<std::string> ParseAddressList(const std::string& raw, const std::string& charset = "");

// The message ids of Message-ID, In-Reply-To or References, without angle
// brackets, in order. Text outside angle brackets is ignored, unless the
// header has no angle brackets at all: then its words are the ids.
std::vector<std::string> ParseMessageIds(const std::string& raw);

// A structured field with parameters: Content-Type, Content-Disposition.
struct ParameterizedValue {
  std::string value;                          // lower case: "attachment", "text/plain"
  std::map<std::string, std::string> params;  // lower-case name -> decoded UTF-8 value
};

// Reads `raw` with its parameters decoded: RFC 2231 ("name*=utf-8''%E2%82",
// "name*0*=", "name*1=") with its charset, quoted strings, and RFC 2047
// words inside quotes (wrong, but common). An RFC 2231 value of a parameter
// wins over a plain one of the same name. A value ends at a NUL, written
// or encoded.
ParameterizedValue ParseParameterizedValue(const std::string& raw);

// The media type of a Content-Type value, lower case ("text/plain"); a
// text type without a valid subtype ("text", "text plain", "text/") is
// text/plain. "" for any other value that is not "type/subtype".
std::string MediaType(const std::string& raw);

// An attachment name that is safe to show and to store as a file name: cut
// at a NUL, control and bidirectional-override characters removed, any
// directory part removed (what follows the last "/" or "\\"), blanks
// trimmed, at most 240 bytes (on a character boundary) with its extension
// kept. A name that is left empty, "." or ".." becomes "attachment" with
// an extension for `mimetype` ("attachment.pdf"; just "attachment" for an
// unknown type). A name whose extension stands for a type that runs
// script (.html, .svg, .xml, .js) while `mimetype` is another (and not
// application/octet-stream) gets `mimetype`'s extension too
// ("x.svg.txt").
std::string SafeFileName(const std::string& name, const std::string& mimetype);

}  // namespace ornic::larkpost::mime
