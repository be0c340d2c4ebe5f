#include "appliance/mailcore/mime/mime_parser.h"

#include <errno.h>
#include <gmime/gmime.h>
#include <strings.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "appliance/mailcore/mime/charset.h"
#include "appliance/mailcore/mime/header.h"
#include "appliance/mailcore/mime/html_text.h"
#include "appliance/mailcore/mime/transfer_decoder.h"

namespace ornic::larkpost::mime {
namespace {

// The part path of a message's one part when it is not multipart, as the
// part iterator numbers it.
constexpr char kTopPartPath[] = "0";

constexpr size_t kPreviewCharacters = 200;
// How much of the source is read at once where it is not all in memory.
constexpr size_t kScanWindow = 64 * 1024;
// How many times a source is parsed again with more of its later
// Content-Type fields hidden (each parse may find parts the one before
// did not).
constexpr int kMaxReparses = 4;

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

// The bytes that a message is parsed from, with GMime streams over them
// that do not copy them: a source in memory, or a file read a window at a
// time. Offsets are from the start of the source, a leading mbox "From "
// line included.
class SourceBytes {
 public:
  explicit SourceBytes(int64_t size) : size_(size) {}
  virtual ~SourceBytes() = default;
  SourceBytes(const SourceBytes&) = delete;
  SourceBytes& operator=(const SourceBytes&) = delete;

  int64_t size() const { return size_; }
  // At least `length` bytes from `offset` on, fewer only at the end of the
  // source; valid until the next call.
  virtual std::string_view Window(int64_t offset, size_t length) = 0;
  // A seekable stream over the bytes from `start` on; the parts that GMime
  // parses from it keep substreams of it rather than copies.
  virtual GMimeStream* NewStream(int64_t start) = 0;
  // Whether `stream` reads from these bytes (so that its position is an
  // offset of the source).
  virtual bool Owns(GMimeStream* stream) const = 0;
  // Makes the header field that starts at `offset` unknown to the streams
  // made from now on, its length and so every offset kept (its name's
  // first letter becomes "X"). Windows still show the source as it is.
  // False when nothing changed.
  virtual bool Hide(int64_t offset) = 0;

 private:
  int64_t size_;
};

class MemoryBytes : public SourceBytes {
 public:
  explicit MemoryBytes(std::string_view bytes)
      : SourceBytes(static_cast<int64_t>(bytes.size())), bytes_(bytes) {
    // GMime reads a memory stream's array through its data and len only,
    // and leaves alone an array it does not own: one over the caller's
    // buffer spares a copy of the whole source.
    array_.data = reinterpret_cast<guint8*>(const_cast<char*>(bytes.data()));
    array_.len = static_cast<guint>(bytes.size());
  }
  std::string_view Window(int64_t offset, size_t /*length*/) override {
    return offset >= size() ? std::string_view() : bytes_.substr(static_cast<size_t>(offset));
  }
  GMimeStream* NewStream(int64_t start) override {
    GMimeStream* stream = g_mime_stream_mem_new_with_byte_array(&array_);
    g_mime_stream_mem_set_owner(GMIME_STREAM_MEM(stream), FALSE);
    g_mime_stream_set_bounds(stream, start, -1);
    return stream;
  }
  bool Owns(GMimeStream* stream) const override {
    return GMIME_IS_STREAM_MEM(stream) && GMIME_STREAM_MEM(stream)->buffer == &array_;
  }
  bool Hide(int64_t offset) override {
    if (offset < 0 || offset >= size()) return false;
    if (shown_.empty()) {
      shown_.assign(bytes_);
      array_.data = reinterpret_cast<guint8*>(shown_.data());
    }
    char& first = shown_[static_cast<size_t>(offset)];
    if (first == 'X') return false;
    first = 'X';
    return true;
  }

 private:
  std::string_view bytes_;
  std::string shown_;  // what GMime reads once a field is hidden
  GByteArray array_{};
};

class FileBytes : public SourceBytes {
 public:
  FileBytes(int fd, int64_t size) : SourceBytes(size), fd_(fd) {}
  std::string_view Window(int64_t offset, size_t length) override {
    length = static_cast<size_t>(
        std::min<int64_t>(static_cast<int64_t>(length), std::max<int64_t>(size() - offset, 0)));
    window_.resize(length);
    size_t done = 0;
    while (done < length) {
      ssize_t got = pread(fd_, &window_[done], length - done, static_cast<off_t>(offset + done));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) break;
      done += static_cast<size_t>(got);
    }
    window_.resize(done);
    return window_;
  }
  GMimeStream* NewStream(int64_t start) override {
    GMimeStream* stream = g_mime_stream_fs_new_with_bounds(fd_, start, size());
    g_mime_stream_fs_set_owner(GMIME_STREAM_FS(stream), FALSE);
    return stream;
  }
  bool Owns(GMimeStream* stream) const override {
    return GMIME_IS_STREAM_FS(stream) && GMIME_STREAM_FS(stream)->fd == fd_;
  }
  bool Hide(int64_t offset) override {
    if (offset < 0 || offset >= size()) return false;
    if (copy_ < 0 && !Copy()) return false;
    char first = 0;
    if (pread(fd_, &first, 1, static_cast<off_t>(offset)) != 1 || first == 'X') return false;
    first = 'X';
    return pwrite(fd_, &first, 1, static_cast<off_t>(offset)) == 1;
  }
  ~FileBytes() override {
    if (copy_ >= 0) close(copy_);
  }

 private:
  // Reads from now on from a copy of the file in memory, which Hide()
  // changes: the caller's file stays as it is. Rare (a source with two
  // Content-Type fields in one header), so a large copy is acceptable.
  bool Copy() {
    int copy = memfd_create("larkpost-source", MFD_CLOEXEC);
    if (copy < 0) return false;
    for (int64_t at = 0; at < size();) {
      std::string_view piece = Window(at, kScanWindow);
      if (piece.empty() || pwrite(copy, piece.data(), piece.size(), static_cast<off_t>(at)) !=
                               static_cast<ssize_t>(piece.size())) {
        close(copy);
        return false;
      }
      at += static_cast<int64_t>(piece.size());
    }
    copy_ = fd_ = copy;
    return true;
  }

  int fd_;
  int copy_ = -1;
  std::string window_;
};

// Whether `line` starts a header field ("Name: value"; blanks before the
// colon allowed).
bool StartsField(std::string_view line) {
  size_t i = 0;
  while (i < line.size() && line[i] > ' ' && line[i] < 127 && line[i] != ':') ++i;
  size_t name_end = i;
  while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
  return name_end > 0 && i < line.size() && line[i] == ':';
}

bool IsBlankLine(std::string_view line) { return line.empty() || line == "\r"; }

// The offset after the line that starts at `offset`.
int64_t LineAfter(SourceBytes& bytes, int64_t offset) {
  while (offset < bytes.size()) {
    std::string_view window = bytes.Window(offset, kScanWindow);
    if (window.empty()) break;
    size_t end = window.find('\n');
    if (end != std::string_view::npos) return offset + static_cast<int64_t>(end) + 1;
    offset += static_cast<int64_t>(window.size());
  }
  return bytes.size();
}

// Where the message's header starts: after a leading mbox "From " line,
// and after blank lines that some programs write before the header (when
// a header field follows them; otherwise the message is all body).
int64_t HeaderStart(SourceBytes& bytes) {
  int64_t start = bytes.Window(0, 5).substr(0, 5) == "From " ? LineAfter(bytes, 0) : 0;
  for (int64_t at = start;;) {
    std::string_view window = bytes.Window(at, kScanWindow);
    size_t end = window.find('\n');
    std::string_view line = window.substr(0, end);
    if (!IsBlankLine(line) || end == std::string_view::npos) {
      return at > start && StartsField(line) ? at : start;
    }
    at += static_cast<int64_t>(end) + 1;
  }
}

// The offsets of the Content-Type fields of `object` and of the parts in
// it that come after the first of their header when one of them says
// something else than the first.
void LaterContentTypes(GMimeObject* object, std::set<int64_t>* offsets) {
  if (object == nullptr) return;
  if (GMimeHeaderList* headers = g_mime_object_get_header_list(object)) {
    const char* first = nullptr;
    std::vector<int64_t> later;
    bool differs = false;
    for (int i = 0; i < g_mime_header_list_get_count(headers); ++i) {
      GMimeHeader* header = g_mime_header_list_get_header_at(headers, i);
      if (strcasecmp(g_mime_header_get_name(header), "Content-Type") != 0) continue;
      const char* value = g_mime_header_get_raw_value(header);
      if (value == nullptr) value = "";
      if (first == nullptr) {
        first = value;
        continue;
      }
      later.push_back(g_mime_header_get_offset(header));
      differs = differs || strcmp(first, value) != 0;
    }
    if (differs) offsets->insert(later.begin(), later.end());
  }
  if (GMIME_IS_MESSAGE(object)) {
    LaterContentTypes(g_mime_message_get_mime_part(GMIME_MESSAGE(object)), offsets);
  } else if (GMIME_IS_MESSAGE_PART(object)) {
    GMimeMessage* inner = g_mime_message_part_get_message(GMIME_MESSAGE_PART(object));
    LaterContentTypes(GMIME_OBJECT(inner), offsets);
  } else if (GMIME_IS_MULTIPART(object)) {
    GMimeMultipart* multipart = GMIME_MULTIPART(object);
    for (int i = 0; i < g_mime_multipart_get_count(multipart); ++i) {
      LaterContentTypes(g_mime_multipart_get_part(multipart, i), offsets);
    }
  }
}

// A message parsed by GMime from its bytes (from where its header starts:
// GMime would read neither a leading mbox "From " line nor a blank line
// as a header).
struct ParsedSource {
  explicit ParsedSource(SourceBytes& source) : bytes(source), start(HeaderStart(source)) {
    Construct();
    // Of two Content-Type fields in one header the first wins, as most
    // mail programs have it; GMime takes the last. The later ones are
    // hidden from it, and the source is parsed again.
    for (int round = 0; message && round < kMaxReparses; ++round) {
      std::set<int64_t> later;
      LaterContentTypes(GMIME_OBJECT(message.get()), &later);
      bool hidden = false;
      for (int64_t offset : later) hidden = bytes.Hide(offset) || hidden;
      if (!hidden) break;
      message.reset();
      Construct();
    }
  }

  void Construct() {
    GObjectPtr<GMimeStream> stream(bytes.NewStream(start));
    GObjectPtr<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
    g_mime_parser_set_format(parser.get(), GMIME_FORMAT_MESSAGE);
    g_mime_parser_set_persist_stream(parser.get(), TRUE);
    message.reset(g_mime_parser_construct_message(parser.get(), ParserOptions()));
  }

  SourceBytes& bytes;
  int64_t start;  // of the header
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
  std::string mimetype = Lower(text ? text.get() : "application/octet-stream");
  if (mimetype == "application/octet-stream") {
    // GMime's answer for a type it cannot read: "text" without a subtype
    // is still text.
    GMimeHeaderList* headers = g_mime_object_get_header_list(object);
    GMimeHeader* header =
        headers ? g_mime_header_list_get_header(headers, "Content-Type") : nullptr;
    const char* raw = header ? g_mime_header_get_raw_value(header) : nullptr;
    std::string declared = raw ? MediaType(raw) : "";
    if (!declared.empty()) mimetype = declared;
  }
  return mimetype;
}

// The value of the header field `name` that starts at `offset` of the
// source, read through windows that grow until the field ends inside one.
std::string FieldAt(SourceBytes& bytes, int64_t offset, const std::string& name) {
  for (size_t length = kScanWindow;; length *= 4) {
    std::string_view window = bytes.Window(offset, length);
    size_t end = 0;
    std::string value = FieldValueAt(window, 0, name, &end);
    if (end < window.size() || offset + static_cast<int64_t>(window.size()) >= bytes.size()) {
      return value;
    }
  }
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
    std::string value = FieldAt(source.bytes, offset, name);
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

// Where a part's content lies in the source, still encoded.
struct ContentRange {
  int64_t offset = 0;
  int64_t length = 0;
  TransferEncoding encoding = TransferEncoding::kIdentity;
  const char* encoding_name = "7bit";  // as the store keeps it
};

// The lines of the source from an offset on, each without its "\n", read a
// window at a time. A line longer than a window comes as its first window.
class LineReader {
 public:
  LineReader(SourceBytes& bytes, int64_t offset) : bytes_(bytes), next_(offset) {}

  bool Next(int64_t* start, std::string_view* line) {
    for (;;) {
      if (at_ == window_.size()) {
        base_ = next_;
        at_ = 0;
        window_ = bytes_.Window(base_, kScanWindow);
        if (window_.empty()) return false;
      }
      size_t end = window_.find('\n', at_);
      if (skipping_) {  // the rest of a line that was too long
        at_ = end == std::string_view::npos ? window_.size() : end + 1;
        skipping_ = end == std::string_view::npos;
        next_ = base_ + static_cast<int64_t>(at_);
        continue;
      }
      bool last = base_ + static_cast<int64_t>(window_.size()) >= bytes_.size();
      if (end == std::string_view::npos && !last) {
        skipping_ = at_ == 0;
        *start = base_;
        *line = window_;
        if (!skipping_) {
          // Read again from the start of the line.
          next_ = base_ + static_cast<int64_t>(at_);
          at_ = window_.size();
          continue;
        }
        next_ = base_ + static_cast<int64_t>(window_.size());
        at_ = window_.size();
        return true;
      }
      if (end == std::string_view::npos) end = window_.size();
      *start = base_ + static_cast<int64_t>(at_);
      *line = window_.substr(at_, end - at_);
      at_ = std::min(end + 1, window_.size());
      next_ = base_ + static_cast<int64_t>(at_);
      return true;
    }
  }

 private:
  SourceBytes& bytes_;
  int64_t base_ = 0;
  int64_t next_;
  std::string_view window_;
  size_t at_ = 0;
  bool skipping_ = false;
};

// Whether `line` is a delimiter line ("--boundary", or "--boundary--" at
// the end) of one of `boundaries`, blanks after it allowed, as GMime tells
// them.
bool IsDelimiter(std::string_view line, const std::vector<std::string>& boundaries) {
  for (const std::string& boundary : boundaries) {
    if (line.size() < boundary.size() + 2 || line.substr(0, 2) != "--" ||
        line.substr(2, boundary.size()) != boundary) {
      continue;
    }
    std::string_view rest = line.substr(boundary.size() + 2);
    if (rest.substr(0, 2) == "--") rest.remove_prefix(2);
    if (rest.find_first_not_of(" \t\r") == std::string_view::npos) return true;
  }
  return false;
}

// Sets the encoding of `range`; false for one that the core does not
// decode.
bool SetEncoding(GMimeContentEncoding encoding, ContentRange* range_out) {
  ContentRange& range = *range_out;
  switch (encoding) {
    case GMIME_CONTENT_ENCODING_DEFAULT:
    case GMIME_CONTENT_ENCODING_7BIT:
      break;
    case GMIME_CONTENT_ENCODING_8BIT:
      range.encoding_name = "8bit";
      break;
    case GMIME_CONTENT_ENCODING_BINARY:
      range.encoding_name = "binary";
      break;
    case GMIME_CONTENT_ENCODING_BASE64:
      range.encoding = TransferEncoding::kBase64;
      range.encoding_name = "base64";
      break;
    case GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE:
      range.encoding = TransferEncoding::kQuotedPrintable;
      range.encoding_name = "quoted-printable";
      break;
    case GMIME_CONTENT_ENCODING_UUENCODE:
      range.encoding = TransferEncoding::kUuencode;
      range.encoding_name = "x-uuencode";
      break;
    default:
      return false;
  }
  return true;
}

// Where the content of a leaf part lies: GMime keeps it as a window of the
// source it parsed, whose bounds are the content's offsets. A part encoded
// in a way that the core does not decode has none.
std::optional<ContentRange> LeafRange(SourceBytes& bytes, GMimePart* part) {
  GMimeDataWrapper* content = g_mime_part_get_content(part);
  GMimeStream* stream = content ? g_mime_data_wrapper_get_stream(content) : nullptr;
  if (stream == nullptr || !bytes.Owns(stream)) return std::nullopt;
  ContentRange range;
  if (!SetEncoding(g_mime_data_wrapper_get_encoding(content), &range)) return std::nullopt;
  if (g_mime_stream_reset(stream) != 0) return std::nullopt;
  range.offset = g_mime_stream_tell(stream);
  range.length = g_mime_stream_length(stream);
  if (range.offset < 0 || range.length < 0 || range.offset + range.length > bytes.size()) {
    return std::nullopt;
  }
  // The line break before a delimiter is the delimiter's. GMime leaves its
  // CR in the content when the closing delimiter is the source's last line
  // and has no line break of its own.
  const int64_t end = range.offset + range.length;
  if (range.length > 0) {
    std::string_view around = bytes.Window(end - 1, 4).substr(0, 4);
    if (around.size() == 4 && around.substr(0, 2) == "\r\n" && around.substr(2) == "--") {
      --range.length;
    }
  }
  return range;
}

// The furthest offset of the source that GMime placed inside `object`: its
// header fields, its parts', and the ends of its leaves' contents.
void ExtendToLastOffset(SourceBytes& bytes, GMimeObject* object, int64_t* last) {
  if (object == nullptr) return;
  if (GMimeHeaderList* headers = g_mime_object_get_header_list(object)) {
    for (int i = 0; i < g_mime_header_list_get_count(headers); ++i) {
      *last = std::max<int64_t>(
          *last, g_mime_header_get_offset(g_mime_header_list_get_header_at(headers, i)));
    }
  }
  if (GMIME_IS_MESSAGE(object)) {
    ExtendToLastOffset(bytes, g_mime_message_get_mime_part(GMIME_MESSAGE(object)), last);
  } else if (GMIME_IS_MESSAGE_PART(object)) {
    GMimeMessage* inner = g_mime_message_part_get_message(GMIME_MESSAGE_PART(object));
    ExtendToLastOffset(bytes, GMIME_OBJECT(inner), last);
  } else if (GMIME_IS_MULTIPART(object)) {
    GMimeMultipart* multipart = GMIME_MULTIPART(object);
    for (int i = 0; i < g_mime_multipart_get_count(multipart); ++i) {
      ExtendToLastOffset(bytes, g_mime_multipart_get_part(multipart, i), last);
    }
  } else if (GMIME_IS_PART(object)) {
    if (std::optional<ContentRange> range = LeafRange(bytes, GMIME_PART(object))) {
      *last = std::max(*last, range->offset + range->length);
    }
  }
}

// The multiparts from `from` down to `target` (exclusive); false when
// `target` is not below `from`.
bool PathTo(GMimeObject* from, GMimeObject* target, std::vector<GMimeMultipart*>* path) {
  if (from == target) return true;
  if (from == nullptr || !GMIME_IS_MULTIPART(from)) return false;
  GMimeMultipart* multipart = GMIME_MULTIPART(from);
  path->push_back(multipart);
  for (int i = 0; i < g_mime_multipart_get_count(multipart); ++i) {
    if (PathTo(g_mime_multipart_get_part(multipart, i), target, path)) return true;
  }
  path->pop_back();
  return false;
}

// The boundaries of the multiparts that hold `object`.
std::vector<std::string> EnclosingBoundaries(const ParsedSource& source, GMimeObject* object) {
  std::vector<GMimeMultipart*> enclosing;
  PathTo(g_mime_message_get_mime_part(source.message.get()), object, &enclosing);
  std::vector<std::string> boundaries;
  for (GMimeMultipart* multipart : enclosing) {
    const char* boundary = g_mime_multipart_get_boundary(multipart);
    if (boundary != nullptr && *boundary != '\0') boundaries.push_back(boundary);
  }
  return boundaries;
}

// `end` without the line break before it (a delimiter's), not before
// `start`.
int64_t BeforeLineBreak(SourceBytes& bytes, int64_t start, int64_t end) {
  const int64_t from = std::max<int64_t>(end - 2, start);
  std::string_view before = bytes.Window(from, 2).substr(0, static_cast<size_t>(end - from));
  if (end > start && !before.empty() && before.back() == '\n') {
    --end;
    before.remove_suffix(1);
    if (end > start && !before.empty() && before.back() == '\r') --end;
  }
  return end;
}

// Where an attached message lies: from its first header field up to the
// delimiter line of an enclosing multipart that ended it for GMime (the
// line break before the delimiter is the delimiter's), or to the end of the
// source. GMime keeps no bounds of its own for it.
std::optional<ContentRange> MessageRange(const ParsedSource& source, GMimeObject* object) {
  GMimeMessage* inner = g_mime_message_part_get_message(GMIME_MESSAGE_PART(object));
  if (inner == nullptr) return std::nullopt;
  // Only an attached message that is not encoded is its own source.
  std::string encoding = Lower(RawPartHeader(source, object, "Content-Transfer-Encoding"));
  encoding.erase(0, encoding.find_first_not_of(" \t\r\n"));
  encoding.erase(encoding.find_last_not_of(" \t\r\n") + 1);
  ContentRange range;
  if (encoding == "8bit") range.encoding_name = "8bit";
  if (encoding == "binary") range.encoding_name = "binary";
  if (!encoding.empty() && encoding != "7bit" && encoding != "8bit" && encoding != "binary") {
    return std::nullopt;
  }
  int64_t start = -1;
  for (GMimeObject* holder : {GMIME_OBJECT(inner), g_mime_message_get_mime_part(inner)}) {
    GMimeHeaderList* headers = holder ? g_mime_object_get_header_list(holder) : nullptr;
    for (int i = 0; headers != nullptr && i < g_mime_header_list_get_count(headers); ++i) {
      gint64 offset = g_mime_header_get_offset(g_mime_header_list_get_header_at(headers, i));
      if (offset >= 0 && (start < 0 || offset < start)) start = offset;
    }
  }
  if (start < 0) return std::nullopt;  // no header: nothing marks where it starts
  int64_t last = start;
  ExtendToLastOffset(source.bytes, object, &last);
  std::vector<std::string> boundaries = EnclosingBoundaries(source, object);
  int64_t end = source.bytes.size();
  LineReader lines(source.bytes, last);
  int64_t at = 0;
  std::string_view line;
  bool first = true;  // the line that `last` is in is the message's own
  while (lines.Next(&at, &line)) {
    if (!first && IsDelimiter(line, boundaries)) {
      end = BeforeLineBreak(source.bytes, start, at);
      break;
    }
    first = false;
  }
  range.offset = start;
  range.length = end - start;
  return range;
}

// The smallest offset of a header field of `object`, and of the message
// when it is the message's own part; -1 when none has one.
int64_t FirstFieldOffset(const ParsedSource& source, GMimeObject* object) {
  int64_t first = -1;
  std::vector<GMimeObject*> holders = {object};
  if (object == g_mime_message_get_mime_part(source.message.get())) {
    holders.push_back(GMIME_OBJECT(source.message.get()));
  }
  for (GMimeObject* holder : holders) {
    GMimeHeaderList* headers = g_mime_object_get_header_list(holder);
    for (int i = 0; headers != nullptr && i < g_mime_header_list_get_count(headers); ++i) {
      gint64 offset = g_mime_header_get_offset(g_mime_header_list_get_header_at(headers, i));
      if (offset >= 0 && (first < 0 || offset < first)) first = offset;
    }
  }
  return first;
}

// A header that no blank line ends runs into the body: GMime takes the
// body's lines for broken header fields and drops them. The body starts
// instead at the first line that is neither a header field nor the
// continuation of one. (A header that a blank line ends keeps GMime's
// reading: a broken line in it is skipped.) `range` is where GMime put the
// content (nullopt: it kept none).
std::optional<ContentRange> WithBodyAfterOpenHeader(const ParsedSource& source, GMimeObject* object,
                                                    std::optional<ContentRange> range) {
  int64_t first = FirstFieldOffset(source, object);
  if (first < 0 || (range && first >= range->offset)) return range;
  std::vector<std::string> boundaries = EnclosingBoundaries(source, object);
  LineReader lines(source.bytes, first);
  int64_t at = 0, body = -1, end = source.bytes.size();
  std::string_view line;
  while (lines.Next(&at, &line) && !(range && at >= range->offset)) {
    if (IsBlankLine(line)) return range;
    if (IsDelimiter(line, boundaries)) {
      end = at;
      break;
    }
    if (body < 0 && line[0] != ' ' && line[0] != '\t' && !StartsField(line)) body = at;
  }
  if (body < 0) return range;
  if (range) {
    range->length += range->offset - body;
    range->offset = body;
    return range;
  }
  ContentRange made;
  if (!SetEncoding(g_mime_part_get_content_encoding(GMIME_PART(object)), &made)) {
    return std::nullopt;
  }
  made.offset = body;
  made.length = (end < source.bytes.size() ? BeforeLineBreak(source.bytes, body, end) : end) - body;
  return made;
}

std::optional<ContentRange> RangeOf(const ParsedSource& source, GMimeObject* object) {
  if (GMIME_IS_MESSAGE_PART(object)) return MessageRange(source, object);
  if (!GMIME_IS_PART(object)) return std::nullopt;
  std::optional<ContentRange> range = LeafRange(source.bytes, GMIME_PART(object));
  if (range || g_mime_part_get_content(GMIME_PART(object)) == nullptr) {
    range = WithBodyAfterOpenHeader(source, object, range);
  }
  return range;
}

// Decodes the range a bounded piece at a time, handing each piece's output
// to `sink`.
template <typename Sink>
void DecodeRange(SourceBytes& bytes, const ContentRange& range, Sink&& sink) {
  TransferDecoder decoder(range.encoding);
  std::string out;
  for (int64_t done = 0; done < range.length;) {
    std::string_view window = bytes.Window(range.offset + done, kScanWindow);
    size_t piece = static_cast<size_t>(
        std::min<int64_t>({static_cast<int64_t>(window.size()), static_cast<int64_t>(kScanWindow),
                           range.length - done}));
    if (piece == 0) break;
    decoder.Step(window.data(), piece, &out);
    sink(out);
    out.clear();
    done += static_cast<int64_t>(piece);
  }
  decoder.Finish(&out);
  sink(out);
}

int64_t DecodedRangeSize(SourceBytes& bytes, const ContentRange& range) {
  if (range.encoding == TransferEncoding::kIdentity) return range.length;
  int64_t size = 0;
  DecodeRange(bytes, range, [&](const std::string& piece) { size += piece.size(); });
  return size;
}

// The content of a leaf part or an attached message, decoded: from where
// it lies in the source when that is known, else as GMime decodes it.
std::string PartContent(const ParsedSource& source, GMimeObject* object) {
  if (std::optional<ContentRange> range = RangeOf(source, object)) {
    std::string content;
    content.reserve(static_cast<size_t>(
        range->encoding == TransferEncoding::kBase64 ? range->length / 4 * 3 + 3 : range->length));
    DecodeRange(source.bytes, *range, [&](const std::string& piece) { content += piece; });
    return content;
  }
  if (GMIME_IS_MESSAGE_PART(object)) return AttachedMessage(GMIME_MESSAGE_PART(object));
  if (GMIME_IS_PART(object)) return DecodedContent(GMIME_PART(object));
  return "";
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
std::string TextContent(const ParsedSource& source, GMimeObject* part, bool html) {
  std::string bytes = PartContent(source, part);
  const char* declared = g_mime_object_get_content_type_parameter(part, "charset");
  std::string charset = declared ? declared : "";
  if (charset.empty()) {
    // A Content-Type that GMime could not read ("text; charset=...").
    charset =
        ParseParameterizedValue(RawPartHeader(source, part, "Content-Type")).params["charset"];
  }
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

std::string PercentDecoded(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() &&
        isxdigit(static_cast<unsigned char>(text[i + 1])) &&
        isxdigit(static_cast<unsigned char>(text[i + 2]))) {
      out += static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

// The Content-IDs that "cid:" URLs of `html` name, as written and
// percent-decoded, without angle brackets.
std::set<std::string> CidReferences(const std::string& html) {
  std::set<std::string> ids;
  std::string lower = Lower(html);
  for (size_t at = lower.find("cid:"); at != std::string::npos; at = lower.find("cid:", at + 4)) {
    size_t end = html.find_first_of("\"'>) \t\r\n", at + 4);
    std::string_view id = std::string_view(html).substr(at + 4, end - (at + 4));
    for (std::string form : {std::string(id), PercentDecoded(id)}) {
      if (form.size() > 2 && form.front() == '<' && form.back() == '>') {
        form = form.substr(1, form.size() - 2);
      }
      ids.insert(form);
    }
  }
  return ids;
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
    if (GMIME_IS_MESSAGE_PART(top)) {
      // A message that is only an attached message (a forward as a whole):
      // the part iterator starts inside it, so it is taken here, whole.
      AddAttachment(top, nullptr, kTopPartPath);
      return;
    }
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
    // An inline part that the HTML body does not show (a photo in plain
    // text mail, an attached message marked inline) is an attachment for
    // the reader.
    std::set<std::string> shown = CidReferences(message_.html_body);
    for (store::NewAttachment& attachment : message_.attachments) {
      attachment.is_inline = attachment.is_inline && shown.count(attachment.content_id) > 0;
    }
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
          message_.plain_body = CleanText(TextContent(source_, object, false), true);
          have_plain_ = true;
        } else {
          message_.html_body = CleanText(TextContent(source_, object, true), false);
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
    if (std::optional<ContentRange> range = RangeOf(source_, object)) {
      attachment.size = DecodedRangeSize(source_.bytes, *range);
      attachment.content_offset = range->offset;
      attachment.content_length = range->length;
      attachment.content_encoding = range->encoding_name;
    } else {
      attachment.size = DecodedSize(object);
    }
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

// The charset that the message declares for its text: the top-level one,
// else the first that a part declares; "" when there is none but ASCII or
// UTF-8. Raw 8-bit headers are tried in it.
std::string DeclaredCharset(const HeaderBlock& headers, const ParsedSource& source) {
  auto legacy = [](const std::string& charset) {
    const std::string name = Lower(charset);
    return name == "us-ascii" || name == "utf-8" || name == "utf8" ? "" : name;
  };
  if (const std::string* type = headers.Find("Content-Type")) {
    const std::string charset = legacy(ParseParameterizedValue(*type).params["charset"]);
    if (!charset.empty()) return charset;
  }
  if (!source.message) return "";
  std::unique_ptr<GMimePartIter, PartIterRelease> iter(
      g_mime_part_iter_new(GMIME_OBJECT(source.message.get())));
  do {
    GMimeObject* object = g_mime_part_iter_get_current(iter.get());
    if (object == nullptr) break;
    const char* declared = g_mime_object_get_content_type_parameter(object, "charset");
    const std::string charset = legacy(declared ? declared : "");
    if (!charset.empty()) return charset;
  } while (g_mime_part_iter_next(iter.get()));
  return "";
}

std::vector<std::string> AddressesOf(const HeaderBlock& headers, const char* name,
                                     const std::string& charset) {
  std::vector<std::string> all;
  for (const std::string& value : headers.FindAll(name)) {
    for (std::string& address : ParseAddressList(value, charset)) all.push_back(std::move(address));
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

void ReadHeaders(const HeaderBlock& headers, const std::string& charset, int64_t time_without_date,
                 store::NewMessage& message) {
  if (const std::string* subject = headers.Find("Subject")) {
    message.subject = DecodeHeaderText(*subject, charset);
  }
  message.from = JoinAddresses(AddressesOf(headers, "From", charset));
  message.to = AddressesOf(headers, "To", charset);
  message.cc = AddressesOf(headers, "Cc", charset);
  message.bcc = AddressesOf(headers, "Bcc", charset);
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

namespace {

store::NewMessage Parse(SourceBytes& bytes, int64_t time_without_date) {
  store::NewMessage message;
  ParsedSource source(bytes);
  // The header block, through windows that grow until it ends inside one.
  HeaderBlock headers;
  for (size_t length = kScanWindow;; length *= 4) {
    std::string_view window = bytes.Window(source.start, length);
    headers = ScanHeaders(window);
    if (headers.body_offset < window.size() ||
        source.start + static_cast<int64_t>(window.size()) >= bytes.size()) {
      break;
    }
  }
  ReadHeaders(headers, DeclaredCharset(headers, source), time_without_date, message);
  if (source.message) {
    PartWalker(source, message).Walk();
  } else {
    std::string_view body = bytes.Window(source.start + static_cast<int64_t>(headers.body_offset),
                                         static_cast<size_t>(bytes.size()));
    message.plain_body = CleanText(ToUtf8(std::string(body), ""), true);
  }
  if (message.plain_body.empty() && !message.html_body.empty()) {
    message.plain_body = HtmlToText(message.html_body);
  }
  message.body_preview = BodyPreview(message.plain_body);
  return message;
}

}  // namespace

store::NewMessage ParseMessage(std::string raw, int64_t time_without_date) {
  store::NewMessage message;
  {
    MemoryBytes bytes(raw);
    message = Parse(bytes, time_without_date);
  }
  message.raw = std::move(raw);
  return message;
}

store::NewMessage ParseMessageFile(int fd, int64_t size, int64_t time_without_date) {
  FileBytes bytes(fd, size);
  store::NewMessage message = Parse(bytes, time_without_date);
  message.raw_fd = fd;
  message.raw_size = size;
  return message;
}

std::optional<std::string> ExtractPart(std::string_view raw, const std::string& part_path) {
  MemoryBytes bytes(raw);
  ParsedSource source(bytes);
  if (!source.message || part_path.empty()) return std::nullopt;
  auto extract = [&](GMimeObject* object) -> std::optional<std::string> {
    if (!GMIME_IS_MESSAGE_PART(object) && !GMIME_IS_PART(object)) return std::nullopt;
    return PartContent(source, object);
  };
  GMimeObject* top = g_mime_message_get_mime_part(source.message.get());
  if (GMIME_IS_MESSAGE_PART(top)) {
    return part_path == kTopPartPath ? extract(top) : std::nullopt;
  }
  std::unique_ptr<GMimePartIter, PartIterRelease> iter(
      g_mime_part_iter_new(GMIME_OBJECT(source.message.get())));
  do {
    GMimeObject* object = g_mime_part_iter_get_current(iter.get());
    if (object == nullptr) break;
    GString path(g_mime_part_iter_get_path(iter.get()));
    if (path == nullptr || part_path != path.get()) continue;
    return extract(object);
  } while (g_mime_part_iter_next(iter.get()));
  return std::nullopt;
}

}  // namespace ornic::larkpost::mime
