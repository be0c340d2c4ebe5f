#include "appliance/mailcore/mime/mime_parser.h"

#include <gmime/gmime.h>
#include <strings.h>

#include <cctype>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "appliance/mailcore/mime/charset.h"
#include "appliance/mailcore/mime/header.h"
#include "appliance/mailcore/mime/html_text.h"

namespace ornic::larkpost::mime {
namespace {

constexpr size_t kPreviewCharacters = 200;

struct GObjectRelease {
  void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectRelease>;

struct GFreeRelease {
  void operator()(gpointer memory) const { g_free(memory); }
};
using GString = std::unique_ptr<char, GFreeRelease>;

struct PartIterRelease {
  void operator()(GMimePartIter* iter) const { g_mime_part_iter_free(iter); }
};

// GMime's settings for every parse, made once: as lenient as it can be.
GMimeParserOptions* ParserOptions() {
  static GMimeParserOptions* options = [] {
    g_mime_init();
    GMimeParserOptions* made = g_mime_parser_options_new();
    g_mime_parser_options_set_rfc2047_compliance_mode(made, GMIME_RFC_COMPLIANCE_LOOSE);
    g_mime_parser_options_set_parameter_compliance_mode(made, GMIME_RFC_COMPLIANCE_LOOSE);
    g_mime_parser_options_set_address_compliance_mode(made, GMIME_RFC_COMPLIANCE_LOOSE);
    const char* fallback[] = {"utf-8", "windows-1252", nullptr};
    g_mime_parser_options_set_fallback_charsets(made, fallback);
    return made;
  }();
  return options;
}

// A message parsed by GMime, with the bytes that it was parsed from (the
// source without a leading mbox "From " line): GMime's header offsets point
// into them.
struct ParsedSource {
  explicit ParsedSource(const std::string& raw) {
    GMimeParserOptions* options = ParserOptions();
    size_t skip = 0;
    if (raw.compare(0, 5, "From ") == 0) {
      skip = raw.find('\n');
      skip = skip == std::string::npos ? raw.size() : skip + 1;
    }
    bytes = raw.substr(skip);
    GObjectPtr<GMimeStream> stream(g_mime_stream_mem_new_with_buffer(bytes.data(), bytes.size()));
    GObjectPtr<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
    g_mime_parser_set_format(parser.get(), GMIME_FORMAT_MESSAGE);
    message.reset(g_mime_parser_construct_message(parser.get(), options));
  }

  std::string bytes;
  GObjectPtr<GMimeMessage> message;
};

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string MimeType(GMimeObject* object) {
  GMimeContentType* type = g_mime_object_get_content_type(object);
  if (type == nullptr) return "application/octet-stream";
  GString text(g_mime_content_type_get_mime_type(type));
  return Lower(text ? text.get() : "application/octet-stream");
}

// The raw value of the part's header `name` (first of that name), read
// from the source itself where GMime knows its place: GMime's own copy ends
// at a NUL byte.
std::string RawPartHeader(const ParsedSource& source, GMimeObject* object, const char* name) {
  GMimeHeaderList* headers = g_mime_object_get_header_list(object);
  GMimeHeader* header = headers ? g_mime_header_list_get_header(headers, name) : nullptr;
  if (header == nullptr) return "";
  gint64 offset = g_mime_header_get_offset(header);
  if (offset >= 0) {
    std::string value = FieldValueAt(source.bytes, static_cast<size_t>(offset), name);
    if (!value.empty()) return value;
  }
  const char* raw = g_mime_header_get_raw_value(header);
  return raw ? raw : "";
}

// The part's content with its transfer encoding undone.
std::string DecodedContent(GMimePart* part) {
  GMimeDataWrapper* content = g_mime_part_get_content(part);
  if (content == nullptr) return "";
  GObjectPtr<GMimeStream> stream(g_mime_stream_mem_new());
  g_mime_data_wrapper_write_to_stream(content, stream.get());
  GByteArray* bytes = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(stream.get()));
  return std::string(reinterpret_cast<const char*>(bytes->data), bytes->len);
}

// The source of an attached message.
std::string AttachedMessage(GMimeMessagePart* part) {
  GMimeMessage* message = g_mime_message_part_get_message(part);
  if (message == nullptr) return "";
  GObjectPtr<GMimeStream> stream(g_mime_stream_mem_new());
  g_mime_object_write_to_stream(GMIME_OBJECT(message), nullptr, stream.get());
  GByteArray* bytes = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(stream.get()));
  return std::string(reinterpret_cast<const char*>(bytes->data), bytes->len);
}

// How many bytes the content decodes to, without keeping them.
int64_t DecodedSize(GMimeObject* object) {
  GObjectPtr<GMimeStream> counter(g_mime_stream_null_new());
  if (GMIME_IS_MESSAGE_PART(object)) {
    GMimeMessage* message = g_mime_message_part_get_message(GMIME_MESSAGE_PART(object));
    if (message == nullptr) return 0;
    g_mime_object_write_to_stream(GMIME_OBJECT(message), nullptr, counter.get());
  } else {
    GMimeDataWrapper* content = g_mime_part_get_content(GMIME_PART(object));
    if (content == nullptr) return 0;
    g_mime_data_wrapper_write_to_stream(content, counter.get());
  }
  return static_cast<int64_t>(GMIME_STREAM_NULL(counter.get())->written);
}

// The charset an HTML document names for itself in a <meta> element, for a
// part whose header names none.
std::string HtmlMetaCharset(const std::string& html) {
  std::string head = Lower(html.substr(0, 4096));
  for (size_t at = head.find("charset="); at != std::string::npos;
       at = head.find("charset=", at + 1)) {
    // Only inside a <meta ...> tag.
    size_t tag = head.rfind('<', at);
    if (tag == std::string::npos || head.compare(tag, 5, "<meta") != 0 ||
        head.find('>', tag) < at) {
      continue;
    }
    size_t begin = at + 8;
    while (begin < head.size() && (head[begin] == '"' || head[begin] == '\'')) ++begin;
    size_t end = begin;
    while (end < head.size() && (isalnum(static_cast<unsigned char>(head[end])) ||
                                 head[end] == '-' || head[end] == '_' || head[end] == ':')) {
      ++end;
    }
    if (end > begin) return head.substr(begin, end - begin);
  }
  return "";
}

// Text content as UTF-8, without a byte order mark.
std::string TextContent(GMimePart* part, bool html) {
  std::string bytes = DecodedContent(part);
  const char* declared = g_mime_object_get_content_type_parameter(GMIME_OBJECT(part), "charset");
  std::string charset = declared ? declared : "";
  if (charset.empty() && html) charset = HtmlMetaCharset(bytes);
  std::string text = ToUtf8(bytes, charset);
  if (text.compare(0, 3, "\xEF\xBB\xBF") == 0) text.erase(0, 3);
  return text;
}

// `text` without NUL characters (text, not data) and, when asked, with
// "\r\n" line ends made "\n".
std::string CleanText(const std::string& text, bool unix_line_ends) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\0') continue;
    if (unix_line_ends && text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') continue;
    out += text[i];
  }
  return out;
}

// True when `object` is a part of multipart/related other than its root
// (the part that "start" names, else the first).
bool IsRelatedResource(GMimeObject* parent, GMimeObject* object) {
  if (parent == nullptr || !GMIME_IS_MULTIPART(parent) || MimeType(parent) != "multipart/related") {
    return false;
  }
  GMimeMultipart* related = GMIME_MULTIPART(parent);
  if (g_mime_multipart_get_count(related) == 0) return false;
  GMimeObject* root = g_mime_multipart_get_part(related, 0);
  const char* start = g_mime_object_get_content_type_parameter(parent, "start");
  if (start != nullptr) {
    std::vector<std::string> ids = ParseMessageIds(start);
    for (int k = 0; !ids.empty() && k < g_mime_multipart_get_count(related); ++k) {
      GMimeObject* candidate = g_mime_multipart_get_part(related, k);
      const char* id = g_mime_object_get_content_id(candidate);
      if (id != nullptr && ids[0] == id) {
        root = candidate;
        break;
      }
    }
  }
  return object != root;
}

// Builds a message's bodies and attachments from its MIME parts.
class PartWalker {
 public:
  PartWalker(const ParsedSource& source, store::NewMessage& message)
      : source_(source), message_(message) {}

  void Walk() {
    GMimeObject* top = g_mime_message_get_mime_part(source_.message.get());
    if (top == nullptr) return;
    std::unique_ptr<GMimePartIter, PartIterRelease> iter(
        g_mime_part_iter_new(GMIME_OBJECT(source_.message.get())));
    std::string skipped;  // the path of an attached message: its parts are its own
    do {
      GMimeObject* object = g_mime_part_iter_get_current(iter.get());
      if (object == nullptr) break;
      GString path_text(g_mime_part_iter_get_path(iter.get()));
      std::string path = path_text ? path_text.get() : "";
      if (!skipped.empty() && path.compare(0, skipped.size() + 1, skipped + ".") == 0) continue;
      if (GMIME_IS_MULTIPART(object)) continue;
      if (GMIME_IS_MESSAGE_PART(object)) {
        skipped = path;
        AddAttachment(object, g_mime_part_iter_get_parent(iter.get()), path);
      } else if (GMIME_IS_PART(object)) {
        Leaf(object, g_mime_part_iter_get_parent(iter.get()), path, object == top);
      }
    } while (g_mime_part_iter_next(iter.get()));
  }

 private:
  void Leaf(GMimeObject* object, GMimeObject* parent, const std::string& path, bool top) {
    std::string type = MimeType(object);
    bool plain = type == "text/plain", html = type == "text/html";
    if ((plain && !have_plain_) || (html && !have_html_)) {
      ParameterizedValue disposition =
          ParseParameterizedValue(RawPartHeader(source_, object, "Content-Disposition"));
      bool named = !FileName(object, disposition).empty();
      // The message's only part is its body even when a name came with it.
      if (disposition.value != "attachment" && (!named || top)) {
        if (plain) {
          message_.plain_body = CleanText(TextContent(GMIME_PART(object), false), true);
          have_plain_ = true;
        } else {
          message_.html_body = CleanText(TextContent(GMIME_PART(object), true), false);
          have_html_ = true;
        }
        return;
      }
    }
    AddAttachment(object, parent, path);
  }

  // The name the sender gave: Content-Disposition's filename, else
  // Content-Type's name.
  std::string FileName(GMimeObject* object, const ParameterizedValue& disposition) {
    auto filename = disposition.params.find("filename");
    if (filename != disposition.params.end() && !filename->second.empty()) return filename->second;
    ParameterizedValue type =
        ParseParameterizedValue(RawPartHeader(source_, object, "Content-Type"));
    auto name = type.params.find("name");
    return name == type.params.end() ? "" : name->second;
  }

  void AddAttachment(GMimeObject* object, GMimeObject* parent, const std::string& path) {
    ParameterizedValue disposition =
        ParseParameterizedValue(RawPartHeader(source_, object, "Content-Disposition"));
    store::NewAttachment attachment;
    attachment.mimetype = MimeType(object);
    std::string name = FileName(object, disposition);
    if (name.empty() && GMIME_IS_MESSAGE_PART(object)) {
      // An attached message is known by its subject.
      GMimeMessage* inner = g_mime_message_part_get_message(GMIME_MESSAGE_PART(object));
      GMimeHeaderList* headers =
          inner ? g_mime_object_get_header_list(GMIME_OBJECT(inner)) : nullptr;
      GMimeHeader* header = headers ? g_mime_header_list_get_header(headers, "Subject") : nullptr;
      const char* raw = header ? g_mime_header_get_raw_value(header) : nullptr;
      std::string subject = raw ? DecodeHeaderText(raw) : "";
      for (char& c : subject) {
        if (c == '/' || c == '\\') c = '_';
      }
      if (!subject.empty()) name = subject + ".eml";
    }
    attachment.name = SafeFileName(name, attachment.mimetype);
    std::vector<std::string> ids = ParseMessageIds(RawPartHeader(source_, object, "Content-ID"));
    if (!ids.empty()) attachment.content_id = ids[0];
    attachment.is_inline = !attachment.content_id.empty() &&
                           (IsRelatedResource(parent, object) || disposition.value == "inline");
    attachment.size = DecodedSize(object);
    attachment.part_path = path;
    message_.attachments.push_back(std::move(attachment));
  }

  const ParsedSource& source_;
  store::NewMessage& message_;
  bool have_plain_ = false;
  bool have_html_ = false;
};

std::string JoinAddresses(const std::vector<std::string>& addresses) {
  std::string joined;
  for (const std::string& address : addresses) joined += (joined.empty() ? "" : ", ") + address;
  return joined;
}

std::vector<std::string> AddressesOf(const HeaderBlock& headers, const char* name) {
  std::vector<std::string> all;
  for (const std::string& value : headers.FindAll(name)) {
    for (std::string& address : ParseAddressList(value)) all.push_back(std::move(address));
  }
  return all;
}

int64_t DateOf(const HeaderBlock& headers) {
  const std::string* date = headers.Find("Date");
  if (date == nullptr) return 0;
  std::string text;
  for (char c : *date) text += (c == '\r' || c == '\n' || c == '\0') ? ' ' : c;
  ParserOptions();  // GMime is ready
  GDateTime* time = g_mime_utils_header_decode_date(text.c_str());
  if (time == nullptr) return 0;
  int64_t seconds = g_date_time_to_unix(time);
  g_date_time_unref(time);
  return seconds;
}

void ReadHeaders(const HeaderBlock& headers, int64_t time_without_date,
                 store::NewMessage& message) {
  if (const std::string* subject = headers.Find("Subject")) {
    message.subject = DecodeHeaderText(*subject);
  }
  message.from = JoinAddresses(AddressesOf(headers, "From"));
  message.to = AddressesOf(headers, "To");
  message.cc = AddressesOf(headers, "Cc");
  message.bcc = AddressesOf(headers, "Bcc");
  if (const std::string* id = headers.Find("Message-ID")) {
    std::vector<std::string> ids = ParseMessageIds(*id);
    if (!ids.empty()) message.rfc_message_id = ids[0];
  }
  if (const std::string* reply = headers.Find("In-Reply-To")) {
    std::vector<std::string> ids = ParseMessageIds(*reply);
    if (!ids.empty()) message.in_reply_to = ids[0];
  }
  if (const std::string* references = headers.Find("References")) {
    message.references = ParseMessageIds(*references);
  }
  int64_t date = DateOf(headers);
  message.arrival_time = date > 0 ? date : time_without_date;
}

}  // namespace

std::string BodyPreview(const std::string& text) {
  std::string preview;
  size_t characters = 0;
  bool blank = false;
  for (size_t i = 0; i < text.size() && characters < kPreviewCharacters; ++i) {
    auto c = static_cast<unsigned char>(text[i]);
    // U+00A0 (no-break space) is white space too.
    bool nbsp = c == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) == 0xA0;
    if (isspace(c) || nbsp) {
      if (nbsp) ++i;
      blank = !preview.empty();
      continue;
    }
    if (blank) {
      if (characters + 1 == kPreviewCharacters) break;  // no blank at the end
      preview += ' ';
      ++characters;
      blank = false;
    }
    if ((c & 0xC0) != 0x80) {
      // A new character; its continuation bytes follow it below.
      preview += static_cast<char>(c);
      ++characters;
      while (i + 1 < text.size() && (static_cast<unsigned char>(text[i + 1]) & 0xC0) == 0x80) {
        preview += text[++i];
      }
    }
  }
  return preview;
}

store::NewMessage ParseMessage(std::string raw, int64_t time_without_date) {
  store::NewMessage message;
  ParsedSource source(raw);
  HeaderBlock headers = ScanHeaders(source.bytes);
  ReadHeaders(headers, time_without_date, message);
  if (source.message) {
    PartWalker(source, message).Walk();
  } else {
    message.plain_body = CleanText(ToUtf8(source.bytes.substr(headers.body_offset), ""), true);
  }
  if (message.plain_body.empty() && !message.html_body.empty()) {
    message.plain_body = HtmlToText(message.html_body);
  }
  message.body_preview = BodyPreview(message.plain_body);
  message.raw = std::move(raw);
  return message;
}

std::optional<std::string> ExtractPart(const std::string& raw, const std::string& part_path) {
  ParsedSource source(raw);
  if (!source.message || part_path.empty()) return std::nullopt;
  std::unique_ptr<GMimePartIter, PartIterRelease> iter(
      g_mime_part_iter_new(GMIME_OBJECT(source.message.get())));
  do {
    GMimeObject* object = g_mime_part_iter_get_current(iter.get());
    if (object == nullptr) break;
    GString path(g_mime_part_iter_get_path(iter.get()));
    if (path == nullptr || part_path != path.get()) continue;
    if (GMIME_IS_MESSAGE_PART(object)) return AttachedMessage(GMIME_MESSAGE_PART(object));
    if (GMIME_IS_PART(object)) return DecodedContent(GMIME_PART(object));
    return std::nullopt;
  } while (g_mime_part_iter_next(iter.get()));
  return std::nullopt;
}

}  // namespace ornic::larkpost::mime
