#include "appliance/mailcore/attachment_content.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "appliance/mailcore/lazy_library.h"
#include "appliance/mailcore/mime/mime_exports.h"
#include "appliance/mailcore/mime/transfer_decoder.h"
#include "platform/mailcore/error.h"

namespace ornic::larkpost::store {
namespace {

constexpr size_t kChunk = 64 * 1024;

struct BlobCloser {
  void operator()(sqlite3_blob* blob) const { sqlite3_blob_close(blob); }
};
using Blob = std::unique_ptr<sqlite3_blob, BlobCloser>;

Blob OpenBlob(Database& db, const char* table, const char* column, int64_t rowid, bool write) {
  sqlite3_blob* blob = nullptr;
  if (sqlite3_blob_open(db.handle(), "main", table, column, rowid, write ? 1 : 0, &blob) !=
      SQLITE_OK) {
    sqlite3_blob_close(blob);
    throw db.LastError(std::string("opening ") + table + "." + column + " of row " +
                       std::to_string(rowid));
  }
  return Blob(blob);
}

void ReadChunk(Database& db, sqlite3_blob* blob, char* data, size_t size, int64_t offset) {
  if (sqlite3_blob_read(blob, data, static_cast<int>(size), static_cast<int>(offset)) !=
      SQLITE_OK) {
    throw db.LastError("reading a stored content");
  }
}

void WriteChunk(Database& db, sqlite3_blob* blob, const char* data, size_t size, int64_t offset) {
  if (sqlite3_blob_write(blob, data, static_cast<int>(size), static_cast<int>(offset)) !=
      SQLITE_OK) {
    throw db.LastError("writing a stored content");
  }
}

[[noreturn]] void Unreadable(int line, const std::string& what) {
  LogError("attachment", line, what);
  throw Error(kErrorStorage);
}

// Where the content of an attachment comes from.
struct Place {
  int id = 0;
  int message_id = 0;
  std::string part_path;
  int64_t size = 0;     // as recorded: the decoded size
  bool stored = false;  // in attachment_content
  bool ranged = false;  // a range of the source
  int64_t offset = 0;
  int64_t length = 0;
  std::string encoding;
};

Place Locate(Database& db, int id) {
  Statement row(db,
                "SELECT a.message_id, a.part_path, a.size, a.content_offset, a.content_length,"
                " a.content_encoding, EXISTS (SELECT 1 FROM attachment_content c"
                " WHERE c.attachment_id = a.id) FROM attachment a WHERE a.id = ?1");
  row.Bind(1, id);
  if (!row.Step()) throw Error(kErrorNotFound);
  Place place;
  place.id = id;
  place.message_id = row.Int(0);
  place.part_path = row.Text(1);
  place.size = row.Int64(2);
  place.ranged = !row.IsNull(3);
  place.offset = row.Int64(3);
  place.length = row.Int64(4);
  place.encoding = row.Text(5);
  place.stored = row.Int(6) != 0;
  return place;
}

using Sink = std::function<void(const char* data, size_t size)>;

// A part stored before ranges were recorded: the MIME library parses the
// source (in place) and decodes the part.
std::string ExtractedContent(Database& db, const Place& place) {
  Statement source(db, "SELECT 1 FROM message_source WHERE message_id = ?1");
  source.Bind(1, place.message_id);
  if (place.part_path.empty() || !source.Step()) {
    Unreadable(__LINE__,
               "attachment " + std::to_string(place.id) + " has neither content nor a source part");
  }
  Blob blob = OpenBlob(db, "message_source", "raw", place.message_id, false);
  std::string raw(static_cast<size_t>(sqlite3_blob_bytes(blob.get())), '\0');
  if (!raw.empty()) ReadChunk(db, blob.get(), raw.data(), raw.size(), 0);
  blob.reset();
  auto* extract =
      LazyFunction<LarkpostMimeExtractPart>("liblarkpost_mime.so", LARKPOST_MIME_EXTRACT_PART);
  std::string content;
  if (!extract(raw.data(), raw.size(), place.part_path.c_str(), &content)) {
    Unreadable(__LINE__, "part " + place.part_path + " of message " +
                             std::to_string(place.message_id) + " cannot be decoded");
  }
  return content;
}

// Hands the content to `sink` a bounded piece at a time (a part without a
// range in one piece).
void Stream(Database& db, const Place& place, const Sink& sink) {
  std::vector<char> buffer(kChunk);
  if (place.stored) {
    Blob blob = OpenBlob(db, "attachment_content", "content", place.id, false);
    const int64_t size = sqlite3_blob_bytes(blob.get());
    for (int64_t at = 0; at < size;) {
      size_t piece = static_cast<size_t>(std::min<int64_t>(kChunk, size - at));
      ReadChunk(db, blob.get(), buffer.data(), piece, at);
      sink(buffer.data(), piece);
      at += static_cast<int64_t>(piece);
    }
    return;
  }
  if (!place.ranged) {
    const std::string content = ExtractedContent(db, place);
    sink(content.data(), content.size());
    return;
  }
  mime::TransferEncoding encoding;
  if (!mime::TransferEncodingNamed(place.encoding, &encoding)) {
    Unreadable(__LINE__, "attachment " + std::to_string(place.id) + " is in the unknown encoding " +
                             place.encoding);
  }
  Blob blob = OpenBlob(db, "message_source", "raw", place.message_id, false);
  if (place.offset < 0 || place.length < 0 ||
      place.offset + place.length > sqlite3_blob_bytes(blob.get())) {
    Unreadable(__LINE__, "attachment " + std::to_string(place.id) +
                             " lies beyond the source of message " +
                             std::to_string(place.message_id));
  }
  mime::TransferDecoder decoder(encoding);
  std::string out;
  for (int64_t at = 0; at < place.length;) {
    size_t piece = static_cast<size_t>(std::min<int64_t>(kChunk, place.length - at));
    ReadChunk(db, blob.get(), buffer.data(), piece, place.offset + at);
    decoder.Step(buffer.data(), piece, &out);
    sink(out.data(), out.size());
    out.clear();
    at += static_cast<int64_t>(piece);
  }
  decoder.Finish(&out);
  sink(out.data(), out.size());
}

void InsertContentRow(Database& db, int64_t id, int64_t size) {
  Statement insert(
      db, "INSERT INTO attachment_content(attachment_id, content) VALUES (?1, zeroblob(?2))");
  insert.Bind(1, id).Bind(2, size);
  insert.Run();
}

void WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t wrote = write(fd, data, size);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) {
      Unreadable(__LINE__, std::string("writing an attachment's content: ") + strerror(errno));
    }
    data += wrote;
    size -= static_cast<size_t>(wrote);
  }
}

}  // namespace

std::string AttachmentContent(Database& db, int id) {
  const Place place = Locate(db, id);
  if (!place.stored && !place.ranged) return ExtractedContent(db, place);
  std::string content;
  content.reserve(static_cast<size_t>(std::max<int64_t>(place.size, 0)));
  Stream(db, place, [&](const char* data, size_t size) { content.append(data, size); });
  return content;
}

void WriteAttachmentContent(Database& db, int id, int fd) {
  Stream(db, Locate(db, id), [&](const char* data, size_t size) { WriteAll(fd, data, size); });
}

bool StoreAttachmentFile(Database& db, int64_t id, const std::string& path, int64_t size) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  std::unique_ptr<int, void (*)(int*)> closer(&fd, [](int* f) { close(*f); });
  InsertContentRow(db, id, size);
  Blob blob = size > 0 ? OpenBlob(db, "attachment_content", "content", id, true) : Blob();
  std::vector<char> buffer(kChunk);
  int64_t offset = 0;
  for (;;) {
    ssize_t got = read(fd, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) break;
    // The file grew since its size was taken: it is not the file that was
    // measured, and its tail would not fit.
    if (offset + got > size) return false;
    WriteChunk(db, blob.get(), buffer.data(), static_cast<size_t>(got), offset);
    offset += got;
  }
  return offset == size;
}

void CopyAttachmentContent(Database& db, int from, int64_t to) {
  const Place place = Locate(db, from);
  if (!place.stored && !place.ranged) {
    const std::string content = ExtractedContent(db, place);
    InsertContentRow(db, to, static_cast<int64_t>(content.size()));
    if (content.empty()) return;
    Blob blob = OpenBlob(db, "attachment_content", "content", to, true);
    for (size_t at = 0; at < content.size(); at += kChunk) {
      WriteChunk(db, blob.get(), content.data() + at, std::min(kChunk, content.size() - at),
                 static_cast<int64_t>(at));
    }
    return;
  }
  int64_t size = place.size;
  if (place.stored) {
    size = sqlite3_blob_bytes(OpenBlob(db, "attachment_content", "content", from, false).get());
  }
  InsertContentRow(db, to, size);
  Blob blob = size > 0 ? OpenBlob(db, "attachment_content", "content", to, true) : Blob();
  int64_t at = 0;
  Stream(db, place, [&](const char* data, size_t piece) {
    if (piece == 0) return;
    if (at + static_cast<int64_t>(piece) > size) {
      Unreadable(__LINE__, "attachment " + std::to_string(from) + " decodes to more than its " +
                               std::to_string(size) + " bytes");
    }
    WriteChunk(db, blob.get(), data, piece, at);
    at += static_cast<int64_t>(piece);
  });
  if (at != size) {
    Unreadable(__LINE__, "attachment " + std::to_string(from) + " decodes to " +
                             std::to_string(at) + " bytes, not " + std::to_string(size));
  }
}

std::string SafeAttachmentName(const std::string& name) {
  size_t slash = name.find_last_of("/\\");
  std::string base = slash == std::string::npos ? name : name.substr(slash + 1);
  base.erase(std::remove_if(base.begin(), base.end(),
                            [](char c) { return static_cast<unsigned char>(c) < 0x20; }),
             base.end());
  if (base.empty() || base == "." || base == "..") return "attachment";
  return base;
}

int64_t SourceSize(const NewMessage& message) {
  return message.raw_fd >= 0 ? message.raw_size : static_cast<int64_t>(message.raw.size());
}

void StoreSource(Database& db, int64_t message_id, const NewMessage& message) {
  if (message.raw_fd < 0) {
    Statement source(db, "INSERT INTO message_source(message_id, raw) VALUES (?1, ?2)");
    source.Bind(1, message_id).BindBlob(2, message.raw.data(), message.raw.size());
    source.Run();
    return;
  }
  Statement source(db, "INSERT INTO message_source(message_id, raw) VALUES (?1, zeroblob(?2))");
  source.Bind(1, message_id).Bind(2, message.raw_size);
  source.Run();
  if (message.raw_size == 0) return;
  Blob blob = OpenBlob(db, "message_source", "raw", message_id, true);
  std::vector<char> buffer(kChunk);
  for (int64_t at = 0; at < message.raw_size;) {
    size_t want = static_cast<size_t>(std::min<int64_t>(kChunk, message.raw_size - at));
    ssize_t got = pread(message.raw_fd, buffer.data(), want, static_cast<off_t>(at));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      Unreadable(__LINE__, "reading the source of message " + std::to_string(message_id) + ": " +
                               (got < 0 ? strerror(errno) : "the file is shorter"));
    }
    WriteChunk(db, blob.get(), buffer.data(), static_cast<size_t>(got), at);
    at += got;
  }
}

void BindContentRange(Statement& statement, int first, const NewAttachment& attachment) {
  if (attachment.content_offset < 0) {
    statement.BindNull(first).Bind(first + 1, 0).Bind(first + 2, "");
    return;
  }
  statement.Bind(first, attachment.content_offset).Bind(first + 1, attachment.content_length);
  statement.Bind(first + 2, attachment.content_encoding);
}

}  // namespace ornic::larkpost::store
