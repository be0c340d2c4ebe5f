#include "appliance/mailcore/attachment_content.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "appliance/mailcore/lazy_library.h"
#include "appliance/mailcore/mime/mime_exports.h"
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

// The whole value of a blob column, read into one string of its size.
std::string ReadBlob(Database& db, const char* table, const char* column, int64_t rowid) {
  Blob blob = OpenBlob(db, table, column, rowid, false);
  std::string data(static_cast<size_t>(sqlite3_blob_bytes(blob.get())), '\0');
  if (!data.empty() &&
      sqlite3_blob_read(blob.get(), data.data(), static_cast<int>(data.size()), 0) != SQLITE_OK) {
    throw db.LastError(std::string("reading ") + table + "." + column);
  }
  return data;
}

void WriteChunk(Database& db, sqlite3_blob* blob, const char* data, size_t size, int64_t offset) {
  if (sqlite3_blob_write(blob, data, static_cast<int>(size), static_cast<int>(offset)) !=
      SQLITE_OK) {
    throw db.LastError("writing an attachment's content");
  }
}

}  // namespace

std::string AttachmentContent(Database& db, int id) {
  Statement row(db,
                "SELECT message_id, part_path, content IS NOT NULL FROM attachment WHERE id = ?1");
  row.Bind(1, id);
  if (!row.Step()) throw Error(kErrorNotFound);
  if (row.Int(2) != 0) return ReadBlob(db, "attachment", "content", id);
  int message_id = row.Int(0);
  std::string part_path = row.Text(1);
  Statement source(db, "SELECT 1 FROM message_source WHERE message_id = ?1");
  source.Bind(1, message_id);
  if (part_path.empty() || !source.Step()) {
    LogError("attachment", __LINE__,
             "attachment " + std::to_string(id) + " has neither content nor a source part");
    throw Error(kErrorStorage);
  }
  std::string raw = ReadBlob(db, "message_source", "raw", message_id);
  auto* extract =
      LazyFunction<LarkpostMimeExtractPart>("liblarkpost_mime.so", LARKPOST_MIME_EXTRACT_PART);
  std::string content;
  if (!extract(&raw, part_path.c_str(), &content)) {
    LogError(
        "attachment", __LINE__,
        "part " + part_path + " of message " + std::to_string(message_id) + " cannot be decoded");
    throw Error(kErrorStorage);
  }
  return content;
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

void WriteAttachmentContent(Database& db, int64_t id, const std::string& content) {
  if (content.empty()) return;
  Blob blob = OpenBlob(db, "attachment", "content", id, true);
  for (size_t offset = 0; offset < content.size(); offset += kChunk) {
    WriteChunk(db, blob.get(), content.data() + offset, std::min(kChunk, content.size() - offset),
               static_cast<int64_t>(offset));
  }
}

bool WriteAttachmentFile(Database& db, int64_t id, const std::string& path, int64_t size) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  std::unique_ptr<int, void (*)(int*)> closer(&fd, [](int* f) { close(*f); });
  Blob blob = size > 0 ? OpenBlob(db, "attachment", "content", id, true) : Blob();
  std::vector<char> buffer(kChunk);
  int64_t offset = 0;
  for (;;) {
    ssize_t got = read(fd, buffer.data(), buffer.size());
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

}  // namespace ornic::larkpost::store
