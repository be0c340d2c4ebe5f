// The CGI host's side of a request: reading the fields a client sent
// (query string, urlencoded or multipart body), finding its session, token
// and language, and writing the JSON answer. Everything here works on an
// environment map and a stream, so it runs in tests without a process.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <istream>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace larkpost::cgi {

// The host's own error codes, answered before (or instead of) the plug-in.
enum HostError : int {
  kErrorUnknown = 100,         // an exception, a broken installation
  kErrorBadRequest = 101,      // api, version or method missing; malformed request
  kErrorNoSuchAPI = 102,       // the API is not declared
  kErrorNoSuchMethod = 103,    // the method is not declared or not served
  kErrorBadVersion = 104,      // the version is not declared (or not a positive integer)
  kErrorNotAdmin = 105,        // an administrator's API called by another user
  kErrorTooLarge = 107,        // the request body exceeds the configured limit
  kErrorBusy = 108,            // too many requests in service: try again after Retry-After
  kErrorTimeLimit = 109,       // the request ran past its time limit and was ended
  kErrorNoSession = 119,       // no valid session, or a missing or wrong token
  kErrorBadText = 120,         // a parameter's text is not valid UTF-8 or holds a NUL
  kErrorLoginFailed = 400,     // unknown account or wrong password
  kErrorLoginThrottled = 407,  // too many failed logins: try again after Retry-After seconds
};

// A request the host refuses; `code()` is the host error to answer with and
// what() says why, for the log.
class RequestError : public std::runtime_error {
 public:
  RequestError(int code, const std::string& why) : std::runtime_error(why), code_(code) {}
  int code() const { return code_; }

 private:
  int code_;
};

using Environment = std::map<std::string, std::string>;
// Field name -> raw text as the client sent it (after percent-decoding).
using FieldMap = std::map<std::string, std::string>;

// The value of `name` in `env`, or "" when it is not there.
const std::string& Get(const Environment& env, const std::string& name);

// The process's own environment.
Environment ProcessEnvironment();

// A file that belongs to one request: removed when the owner goes away,
// whatever way the request ends.
class TempFile {
 public:
  TempFile() = default;
  explicit TempFile(std::string path) : path_(std::move(path)) {}
  ~TempFile();
  TempFile(TempFile&& other) noexcept : path_(std::move(other.path_)) { other.path_.clear(); }
  TempFile& operator=(TempFile&& other) noexcept;
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  const std::string& path() const { return path_; }
  bool empty() const { return path_.empty(); }

 private:
  std::string path_;
};

struct FormOptions {
  // Bodies longer than this are refused (107) before a byte is read.
  int64_t max_body = int64_t{64} * 1024 * 1024;
  // Where a multipart file part is stored; empty refuses file parts.
  std::string upload_dir;
  // False for the login program: passwords must never travel in a URL.
  bool with_query = true;
};

// All fields of one request.
struct Form {
  FieldMap fields;
  bool multipart = false;
  // The stored file part of a multipart request, if it had one.
  TempFile upload;
  // The file name the client sent for it, without any directory part.
  std::string upload_name;
};

// Reads the query string (unless options say otherwise) and the body, which
// is urlencoded or multipart/form-data; a body field overrides a query field
// of the same name. A multipart body is streamed: file data goes straight to
// a new file (mode 0600) below options.upload_dir. The names "file" and
// "file_tmp" are the host's to fill and are never taken from the client.
// Throws RequestError: 107 for a body over the limit, 101 for a malformed one.
Form ReadForm(const Environment& env, std::istream& body, const FormOptions& options);

// Replaces %XX escapes by their byte (a "%" without two hex digits stays as
// it is) and, with `plus_is_space`, "+" by a blank.
std::string PercentDecode(std::string_view text, bool plus_is_space);

// Splits "a=1&b=x+y" into fields, percent-decoding and turning "+" into a
// blank; later names override earlier ones.
void ParseUrlEncoded(std::string_view text, FieldMap& fields);

// A field's text as a parameter: its JSON value when the text is JSON,
// otherwise the text itself as a JSON string.
Json::Value DecodeFieldValue(const std::string& text);

// The value of cookie `name` in a Cookie header, or nullopt.
std::optional<std::string> CookieValue(std::string_view header, std::string_view name);

// The interface language (the appliance's three-letter code) for an
// Accept-Language header: its first tag decides, "enu" when it names none
// that the appliance knows.
std::string LanguageFromAcceptLanguage(std::string_view header);

// Compares two secrets in a time that does not depend on where they differ.
bool ConstantTimeEquals(std::string_view a, std::string_view b);

enum class SessionSource { kNone, kField, kCookie };

// How a request names its session and its token.
struct Credentials {
  std::string session_id;
  SessionSource source = SessionSource::kNone;
  std::string token;  // the X-ZEVO-Token header, else the field "_token"
};

// The session is the field "_sid", else the cookie "id".
Credentials ReadCredentials(const Environment& env, const FieldMap& fields);

// A request to the API program, decoded.
struct EntryRequest {
  std::optional<std::string> api, version, method;
  Json::Value params{Json::objectValue};
  Credentials credentials;
  std::string language = "enu";
  bool upload = false;
  TempFile upload_file;
};

// ReadForm, then: every field but api, version, method, _sid and _token
// becomes a parameter (JSON-decoded, or kept as a string in an upload,
// where "file" and "file_tmp" describe the stored file part).
EntryRequest DecodeEntryRequest(const Environment& env, std::istream& body,
                                const FormOptions& options);

// True when `text` is valid UTF-8 (no overlong forms, no surrogates) without
// a NUL byte: the only text the host lets through to the plug-in and its
// stores, whose answers must stay valid JSON and whose C strings must not
// end early.
bool IsCleanText(std::string_view text);
// The first parameter whose name or text (every string of its JSON value,
// object keys included) is not clean; nullopt when all are. A name that is
// not clean itself comes back with its offending bytes as "?".
std::optional<std::string> FindUncleanParameter(const Json::Value& params);

// A complete CGI answer: the JSON headers, the extra header lines (without
// line ends) and the compact envelope.
std::string BuildAnswer(const Json::Value& envelope, const std::vector<std::string>& headers = {});
// The envelope of an error without data.
Json::Value ErrorEnvelope(int code);
// Writes a complete answer to standard output in one go.
void WriteAnswer(const std::string& answer);

}  // namespace larkpost::cgi
