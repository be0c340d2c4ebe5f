// Text rules of the mail store: the folding that makes text searches
// case-insensitive, the subject key that threads fall back on, previews,
// the full-text query made of a user's words, and the small encodings that
// the store's columns use. Pure functions; private to the core.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ornic::larkpost::store {

// `text` with letters folded to lower case: ASCII, Latin-1, Latin
// Extended-A, Greek and Cyrillic capitals. Other bytes (and bytes that are
// not UTF-8) pass unchanged, so folding never fails.
std::string FoldCase(const std::string& text);

// The subject that threading compares: reply and forward prefixes ("Re:",
// "Fwd:", "Fw:", "AW:", "SV:", in any case, repeated, also "Re[2]:") taken
// off, white space collapsed, case folded. "" for a subject of prefixes only.
std::string SubjectKey(const std::string& subject);

// The first `chars` characters of `text` with white space collapsed, never
// cutting a UTF-8 sequence.
std::string Preview(const std::string& text, size_t chars);

// A JSON array of strings (the store's address and reference lists), and
// back. Decoding a text that is not such an array gives an empty list.
std::string EncodeStringArray(const std::vector<std::string>& values);
std::vector<std::string> DecodeStringArray(const std::string& json);

// A JSON array of ids ("[3,1]"), the one parameter through which a
// statement takes a list (json_each).
std::string EncodeIdArray(const std::vector<int>& ids);

// The FTS5 query for a user's search words: each blank-separated word is a
// quoted phrase that matches as a prefix, all words must match. The user's
// text never reaches FTS5 as syntax. "" when the text holds no word.
std::string FullTextQuery(const std::string& words);

// A whole decimal integer with an optional sign ("12", "-3"); false for
// anything else, including blanks and overflow.
bool ParseInt64(const std::string& text, int64_t* value);

}  // namespace ornic::larkpost::store
