#include "appliance/framework/cgi.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <utility>

#include "appliance/framework/answer_relay.h"
#include "appliance/framework/multipart.h"
#include "appliance/framework/request_limits.h"
#include "appliance/framework/text.h"
#include "appliance/system/appliance.h"
#include "platform/zevo/webapi.h"

extern char** environ;

namespace larkpost::cgi {
namespace {

constexpr size_t kReadChunk = size_t{64} * 1024;

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Field names that only the host may fill: they name the stored upload, and
// a client that could set "file_tmp" could make the plug-in read any file.
bool IsHostField(const std::string& name) { return name == "file" || name == "file_tmp"; }

// The body length a CGI request announces; -1 when it is not a number.
int64_t ContentLength(const std::string& text) {
  if (text.empty()) return 0;
  int64_t length = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return -1;
    if (length > (INT64_MAX - 9) / 10) return INT64_MAX;  // over any limit anyway
    length = length * 10 + (c - '0');
  }
  return length;
}

// Reads up to `want` bytes into `chunk`; fewer only at the end of the stream.
size_t ReadSome(std::istream& body, std::array<char, kReadChunk>& chunk, int64_t want) {
  const auto size = static_cast<std::streamsize>(std::min<int64_t>(want, chunk.size()));
  body.read(chunk.data(), size);
  return static_cast<size_t>(body.gcount());
}

[[noreturn]] void Truncated() {
  throw RequestError(kErrorBadRequest, "the body is shorter than its Content-Length");
}

// Collects a multipart body: text fields in memory, the file part on disk.
class FormSink : public MultipartSink {
 public:
  FormSink(Form& form, const FormOptions& options) : form_(form), options_(options) {}
  ~FormSink() override { CloseFile(); }

  void BeginPart(const PartInfo& part) override {
    kind_ = Kind::kSkip;
    if (part.filename) {
      // A file input left empty still sends a part, without a name: there is
      // nothing to store.
      if (!part.filename->empty()) OpenFile(*part.filename);
    } else if (!IsHostField(part.name)) {
      kind_ = Kind::kText;
      name_ = part.name;
      text_.clear();
    }
  }

  void PartData(std::string_view data) override {
    if (kind_ == Kind::kText) {
      text_.append(data);
    } else if (kind_ == Kind::kFile) {
      while (!data.empty()) {
        const ssize_t written = write(fd_, data.data(), data.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) {
          throw RequestError(kErrorUnknown,
                             std::string("cannot store the upload: ") + std::strerror(errno));
        }
        data.remove_prefix(static_cast<size_t>(written));
      }
    }
  }

  void EndPart() override {
    if (kind_ == Kind::kText) fields_[name_] = std::move(text_);
    if (kind_ == Kind::kFile && !CloseFile()) {
      throw RequestError(kErrorUnknown,
                         std::string("cannot store the upload: ") + std::strerror(errno));
    }
    kind_ = Kind::kSkip;
  }

  FieldMap& fields() { return fields_; }

 private:
  enum class Kind { kSkip, kText, kFile };

  void OpenFile(const std::string& client_name) {
    if (options_.upload_dir.empty()) {
      throw RequestError(kErrorBadRequest, "this program takes no file uploads");
    }
    if (!form_.upload.empty()) {
      throw RequestError(kErrorBadRequest, "a request may carry one file only");
    }
    if (!larkpost::appliance::MakeDirs(options_.upload_dir)) {
      throw RequestError(kErrorUnknown, "cannot create " + options_.upload_dir);
    }
    std::string path = options_.upload_dir + "/upload-XXXXXX";
    fd_ = mkstemp(path.data());  // mode 0600
    if (fd_ < 0) {
      throw RequestError(kErrorUnknown,
                         "cannot create an upload file: " + std::string(std::strerror(errno)));
    }
    form_.upload = TempFile(std::move(path));
    form_.upload_name = BaseFileName(client_name);
    kind_ = Kind::kFile;
  }

  bool CloseFile() {
    if (fd_ < 0) return true;
    const int result = close(fd_);
    fd_ = -1;
    return result == 0;
  }

  Form& form_;
  const FormOptions& options_;
  FieldMap fields_;
  Kind kind_ = Kind::kSkip;
  std::string name_;
  std::string text_;
  int fd_ = -1;
};

void ReadMultipart(const std::string& content_type, std::istream& body, int64_t length,
                   const FormOptions& options, Form& form) {
  const std::optional<std::string> boundary = BoundaryOf(content_type);
  if (!boundary) throw RequestError(kErrorBadRequest, "multipart body without a boundary");
  FormSink sink(form, options);
  MultipartParser parser(*boundary, &sink);
  std::array<char, kReadChunk> chunk;
  while (length > 0) {
    const size_t got = ReadSome(body, chunk, length);
    if (got == 0) Truncated();
    parser.Feed(std::string_view(chunk.data(), got));
    length -= static_cast<int64_t>(got);
  }
  parser.Finish();
  for (auto& [name, value] : sink.fields()) form.fields[name] = std::move(value);
}

FieldMap ReadUrlEncoded(std::istream& body, int64_t length) {
  std::string text(static_cast<size_t>(length), '\0');
  body.read(text.data(), static_cast<std::streamsize>(length));
  if (body.gcount() != length) Truncated();
  FieldMap fields;
  ParseUrlEncoded(text, fields);
  return fields;
}

}  // namespace

const std::string& Get(const Environment& env, const std::string& name) {
  static const std::string kNone;
  const auto found = env.find(name);
  return found == env.end() ? kNone : found->second;
}

Environment ProcessEnvironment() {
  Environment env;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const char* equals = std::strchr(*entry, '=');
    if (equals != nullptr)
      env.emplace(std::string(*entry, static_cast<size_t>(equals - *entry)),
                  std::string(equals + 1));
  }
  return env;
}

TempFile::~TempFile() {
  if (!path_.empty()) unlink(path_.c_str());
}

TempFile& TempFile::operator=(TempFile&& other) noexcept {
  if (this != &other) {
    if (!path_.empty()) unlink(path_.c_str());
    path_ = std::move(other.path_);
    other.path_.clear();
  }
  return *this;
}

std::string PercentDecode(std::string_view text, bool plus_is_space) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '%' && i + 2 < text.size() && HexDigit(text[i + 1]) >= 0 &&
        HexDigit(text[i + 2]) >= 0) {
      out.push_back(static_cast<char>(HexDigit(text[i + 1]) * 16 + HexDigit(text[i + 2])));
      i += 2;
    } else {
      out.push_back(plus_is_space && c == '+' ? ' ' : c);
    }
  }
  return out;
}

void ParseUrlEncoded(std::string_view text, FieldMap& fields) {
  while (!text.empty()) {
    const size_t amp = text.find('&');
    const std::string_view pair = text.substr(0, amp);
    text = amp == std::string_view::npos ? std::string_view() : text.substr(amp + 1);
    if (pair.empty()) continue;
    const size_t equals = pair.find('=');
    std::string name = PercentDecode(pair.substr(0, equals), true);
    if (name.empty()) continue;
    fields[std::move(name)] = equals == std::string_view::npos
                                  ? std::string()
                                  : PercentDecode(pair.substr(equals + 1), true);
  }
}

Json::Value DecodeFieldValue(const std::string& text) {
  Json::Value value;
  if (ZEVO::WebAPIUtil::FromString(text, value)) return value;
  return Json::Value(text);
}

std::optional<std::string> CookieValue(std::string_view header, std::string_view name) {
  while (!header.empty()) {
    const size_t semicolon = header.find(';');
    const std::string_view cookie = Trim(header.substr(0, semicolon));
    header =
        semicolon == std::string_view::npos ? std::string_view() : header.substr(semicolon + 1);
    const size_t equals = cookie.find('=');
    if (equals == std::string_view::npos || Trim(cookie.substr(0, equals)) != name) continue;
    std::string_view value = Trim(cookie.substr(equals + 1));
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
      value = value.substr(1, value.size() - 2);
    }
    return std::string(value);
  }
  return std::nullopt;
}

std::string LanguageFromAcceptLanguage(std::string_view header) {
  std::string tag(Trim(header.substr(0, header.find_first_of(",;"))));
  for (char& c : tag)
    c = c == '_' ? '-' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  const std::string primary = tag.substr(0, tag.find('-'));
  auto has_subtag = [&tag](std::string_view subtag) {
    for (size_t start = tag.find('-'); start != std::string::npos;
         start = tag.find('-', start + 1)) {
      const size_t end = tag.find('-', start + 1);
      if (std::string_view(tag).substr(start + 1, end - start - 1) == subtag) return true;
    }
    return false;
  };
  if (primary == "zh") {
    const bool traditional =
        has_subtag("tw") || has_subtag("hk") || has_subtag("mo") || has_subtag("hant");
    return traditional ? "cht" : "chs";
  }
  if (primary == "pt") return has_subtag("br") ? "ptb" : "ptg";
  static const std::pair<std::string_view, std::string_view> kCodes[] = {
      {"en", "enu"}, {"ja", "jpn"}, {"ko", "krn"}, {"de", "ger"}, {"fr", "fre"},
      {"it", "ita"}, {"es", "spn"}, {"nl", "nld"}, {"sv", "sve"}, {"da", "dan"},
      {"nb", "nor"}, {"no", "nor"}, {"nn", "nor"}, {"fi", "fin"}, {"pl", "plk"},
      {"ru", "rus"}, {"cs", "csy"}, {"hu", "hun"}, {"tr", "trk"}, {"th", "tha"},
  };
  for (const auto& [language, code] : kCodes) {
    if (primary == language) return std::string(code);
  }
  return "enu";
}

bool ConstantTimeEquals(std::string_view a, std::string_view b) {
  // The length of a token is no secret; where it differs from the expected
  // one is.
  if (a.size() != b.size()) return false;
  unsigned char diff = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    diff |= static_cast<unsigned char>(a[i] ^ b[i]);
  }
  return diff == 0;
}

Credentials ReadCredentials(const Environment& env, const FieldMap& fields) {
  Credentials credentials;
  const auto sid = fields.find("_sid");
  if (sid != fields.end() && !sid->second.empty()) {
    credentials.session_id = sid->second;
    credentials.source = SessionSource::kField;
  } else if (std::optional<std::string> cookie = CookieValue(Get(env, "HTTP_COOKIE"), "id");
             cookie && !cookie->empty()) {
    credentials.session_id = std::move(*cookie);
    credentials.source = SessionSource::kCookie;
  }
  credentials.token = Get(env, "HTTP_X_ZEVO_TOKEN");
  if (credentials.token.empty()) {
    const auto token = fields.find("_token");
    if (token != fields.end()) credentials.token = token->second;
  }
  return credentials;
}

Form ReadForm(const Environment& env, std::istream& body, const FormOptions& options) {
  Form form;
  if (options.with_query) ParseUrlEncoded(Get(env, "QUERY_STRING"), form.fields);
  for (auto it = form.fields.begin(); it != form.fields.end();) {
    it = IsHostField(it->first) ? form.fields.erase(it) : std::next(it);
  }

  const int64_t length = ContentLength(Get(env, "CONTENT_LENGTH"));
  if (length < 0) throw RequestError(kErrorBadRequest, "Content-Length is not a number");
  if (length > options.max_body) {
    throw RequestError(kErrorTooLarge, "request too large: " + std::to_string(length) + " bytes");
  }
  const std::string& content_type = Get(env, "CONTENT_TYPE");
  const std::string type = ParseHeaderValue(content_type).type;
  if (type == "multipart/form-data") {
    form.multipart = true;
    ReadMultipart(content_type, body, length, options, form);
  } else if (length == 0) {
    // Nothing to read, whatever the type.
  } else if (type.empty() || type == "application/x-www-form-urlencoded") {
    for (auto& [name, value] : ReadUrlEncoded(body, length)) {
      if (!IsHostField(name)) form.fields[name] = std::move(value);
    }
  } else {
    throw RequestError(kErrorBadRequest, "unsupported content type " + type);
  }
  return form;
}

EntryRequest DecodeEntryRequest(const Environment& env, std::istream& body,
                                const FormOptions& options) {
  EntryRequest request;
  Form form = ReadForm(env, body, options);
  request.credentials = ReadCredentials(env, form.fields);
  request.language = LanguageFromAcceptLanguage(Get(env, "HTTP_ACCEPT_LANGUAGE"));
  request.upload = form.multipart;
  for (auto& [name, text] : form.fields) {
    if (name == "api") {
      request.api = std::move(text);
    } else if (name == "version") {
      request.version = std::move(text);
    } else if (name == "method") {
      request.method = std::move(text);
    } else if (name != "_sid" && name != "_token") {
      // An upload's fields stay text: the plug-in decodes them itself, and
      // must see the file's fields exactly as stored.
      request.params[name] = form.multipart ? Json::Value(text) : DecodeFieldValue(text);
    }
  }
  if (!form.upload.empty()) {
    request.params["file"] = form.upload_name;
    request.params["file_tmp"] = form.upload.path();
    request.upload_file = std::move(form.upload);
  }
  return request;
}

std::string BuildAnswer(const Json::Value& envelope, const std::vector<std::string>& headers) {
  const std::string body = ZEVO::WebAPIUtil::ToString(envelope);
  // A body refused for its size, or a request refused for the host's load,
  // is refused in HTTP terms too: a client or a proxy that stops sending on
  // 413, or retries on 503, need not parse the envelope to know why.
  const Json::Value code = envelope.isObject() && envelope["error"].isObject()
                               ? envelope["error"]["code"]
                               : Json::Value();
  std::string answer;
  if (code == kErrorTooLarge) answer = "Status: 413 Payload Too Large\r\n";
  if (code == kErrorBusy || code == kErrorTimeLimit) {
    answer = "Status: 503 Service Unavailable\r\n";
  }
  answer += "Content-Type: application/json; charset=utf-8\r\n";
  answer += kHostHeaders;
  answer += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  for (const std::string& header : headers) answer.append(header).append("\r\n");
  answer.append("\r\n").append(body);
  return answer;
}

bool IsCleanText(std::string_view text) {
  size_t at = 0;
  while (at < text.size()) {
    const auto lead = static_cast<unsigned char>(text[at]);
    if (lead == 0) return false;
    if (lead < 0x80) {
      ++at;
      continue;
    }
    size_t follow;
    uint32_t code;
    uint32_t lowest;
    if ((lead & 0xe0) == 0xc0) {
      follow = 1, code = lead & 0x1f, lowest = 0x80;
    } else if ((lead & 0xf0) == 0xe0) {
      follow = 2, code = lead & 0x0f, lowest = 0x800;
    } else if ((lead & 0xf8) == 0xf0) {
      follow = 3, code = lead & 0x07, lowest = 0x10000;
    } else {
      return false;
    }
    if (text.size() - at - 1 < follow) return false;
    for (size_t i = 1; i <= follow; ++i) {
      const auto next = static_cast<unsigned char>(text[at + i]);
      if ((next & 0xc0) != 0x80) return false;
      code = (code << 6) | (next & 0x3f);
    }
    // Overlong forms, surrogates and code points past Unicode's last.
    if (code < lowest || code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff)) return false;
    at += follow + 1;
  }
  return true;
}

namespace {

bool IsCleanValue(const Json::Value& value) {
  if (value.isString()) {
    const char* begin = nullptr;
    const char* end = nullptr;
    value.getString(&begin, &end);
    return IsCleanText(std::string_view(begin, static_cast<size_t>(end - begin)));
  }
  if (value.isArray()) {
    for (const Json::Value& item : value) {
      if (!IsCleanValue(item)) return false;
    }
  }
  if (value.isObject()) {
    for (auto member = value.begin(); member != value.end(); ++member) {
      if (!IsCleanText(member.name()) || !IsCleanValue(*member)) return false;
    }
  }
  return true;
}

}  // namespace

std::optional<std::string> FindUncleanParameter(const Json::Value& params) {
  for (auto member = params.begin(); member != params.end(); ++member) {
    std::string name = member.name();
    if (IsCleanText(name) && IsCleanValue(*member)) continue;
    // The name goes back in a JSON answer, which must stay valid itself.
    if (!IsCleanText(name)) {
      for (char& c : name) {
        if (c == '\0' || static_cast<unsigned char>(c) >= 0x80) c = '?';
      }
    }
    return name;
  }
  return std::nullopt;
}

Json::Value ErrorEnvelope(int code) {
  ZEVO::APIResponse response;
  response.SetError(code);
  return response.ToEnvelope();
}

void WriteAnswer(const std::string& answer) {
  if (!ClaimAnswer()) return;  // the time limit answered; this process is ending
  std::cout.flush();
  std::fflush(stdout);
  std::string_view rest = answer;
  while (!rest.empty()) {
    const ssize_t written = write(STDOUT_FILENO, rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;  // the client is gone; nobody is left to tell
    rest.remove_prefix(static_cast<size_t>(written));
  }
}

}  // namespace larkpost::cgi
