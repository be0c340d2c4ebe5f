#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "appliance/mailcore/attachment_content.h"
#include "appliance/mailcore/controller_impl.h"
#include "appliance/mailcore/store_records.h"
#include "appliance/system/appliance.h"
#include "platform/mailcore/control.h"
#include "platform/mailcore/error.h"

namespace ornic::larkpost::control {
namespace {

using store::Database;
using store::Statement;

// Content ids are random, so that an HTML body of one draft cannot guess
// another's; the domain part keeps them in the form that mail expects.
constexpr int kContentIdLength = 16;
constexpr char kContentIdDomain[] = "@larkpost";

// An upload that no draft took within this time was abandoned (a closed
// composer, a browser gone); it is dropped when the user uploads next.
constexpr int64_t kTempAttachmentLifetime = 7 * 24 * 3600;

// What the webmail names its copies in the upload folder.
constexpr char kUploadPrefix[] = "attachment_";

// The copies in the user's upload folder that no upload refers to and that
// nobody has touched within the grace period: never an upload in flight.
void AddStrayCopies(Database& db, uint32_t uid, std::vector<std::string>& files) {
  const std::string folder = ::larkpost::appliance::UserDir(uid) + store::kUploadFolder;
  DIR* listing = opendir(folder.c_str());
  if (listing == nullptr) return;
  // By name too: the names are random, and a path written another way must
  // never cost a user an upload.
  Statement known(db,
                  "SELECT EXISTS (SELECT 1 FROM attachment_temp WHERE path = ?1 "
                  "OR substr(path, -length(?2) - 1) = '/' || ?2)");
  const int64_t touched_before = store::Now() - store::kStrayCopyGrace;
  while (const dirent* entry = readdir(listing)) {
    if (std::strncmp(entry->d_name, kUploadPrefix, sizeof(kUploadPrefix) - 1) != 0) continue;
    struct stat info;
    if (fstatat(dirfd(listing), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(info.st_mode) || info.st_mtime >= touched_before) {
      continue;
    }
    const std::string path = folder + "/" + entry->d_name;
    known.Reset();
    known.Bind(1, path).Bind(2, std::string(entry->d_name));
    if (known.Step() && known.Int(0) == 0) files.push_back(path);
  }
  closedir(listing);
}

// Deletes the records of abandoned uploads; returns their files and the
// stray copies beside them, which go once the change is committed.
std::vector<std::string> DropAbandonedUploads(Database& db, uint32_t uid) {
  std::vector<std::string> files;
  Statement drop(db, "DELETE FROM attachment_temp WHERE created < ?1 RETURNING path");
  drop.Bind(1, store::Now() - kTempAttachmentLifetime);
  while (drop.Step()) files.push_back(drop.Text(0));
  AddStrayCopies(db, uid, files);
  return files;
}

}  // namespace

AttachmentControl::AttachmentControl(Controller& controller) : controller_(controller) {}

int AttachmentControl::AddAttachmentTemp(const AttachmentConfig& config, std::string& content_id) {
  if (!config.name.IsSet() || config.name.Get().empty() || !config.path.IsSet() ||
      config.path.Get().empty()) {
    return 0;
  }
  Database& db = controller_.impl().db();
  return store::Guard("registering a temporary attachment", [&] {
    store::Transaction transaction(db);
    std::string name = store::SafeAttachmentName(config.name.Get());
    Statement taken(
        db,
        "SELECT EXISTS (SELECT 1 FROM attachment_temp WHERE content_id = ?1) "
        "OR EXISTS (SELECT 1 FROM attachment WHERE content_id = ?1 AND content_id <> '')");
    std::string id_text;
    do {
      id_text = RandomString("", kContentIdLength) + kContentIdDomain;
      taken.Reset();
      taken.Bind(1, id_text);
    } while (taken.Step() && taken.Int(0) != 0);
    Statement insert(db,
                     "INSERT INTO attachment_temp(path, name, mimetype, content_id, is_inline, "
                     "created) VALUES (?1, ?2, ?3, ?4, ?5, ?6)");
    insert.Bind(1, config.path.Get()).Bind(2, name).Bind(3, GetMimeType(name)).Bind(4, id_text);
    insert.Bind(5, config.is_inline.IsSet() && config.is_inline.Get()).Bind(6, store::Now());
    insert.Run();
    int id = static_cast<int>(db.LastInsertRowid());
    const std::vector<std::string> abandoned = DropAbandonedUploads(db, controller_.uid());
    transaction.Commit();
    for (const std::string& file : abandoned) unlink(file.c_str());
    content_id = id_text;
    return id;
  });
}

record::AttachmentTemp AttachmentControl::GetTemp(int id) {
  Database& db = controller_.impl().db();
  return store::Guard("reading a temporary attachment", [&] {
    Statement row(db,
                  "SELECT path, name, mimetype, content_id, is_inline FROM attachment_temp "
                  "WHERE id = ?1");
    row.Bind(1, id);
    record::AttachmentTemp temp;
    if (!row.Step()) return temp;
    temp.id = id;
    temp.path = row.Text(0);
    temp.name = row.Text(1);
    temp.mimetype = row.Text(2);
    temp.content_id = row.Text(3);
    temp.is_inline = row.Int(4) != 0;
    return temp;
  });
}

record::Attachment AttachmentControl::Get(int id) {
  Database& db = controller_.impl().db();
  return store::Guard("reading an attachment", [&] {
    Statement row(db,
                  "SELECT size, mimetype, name, content_id, is_inline, preview_path "
                  "FROM attachment WHERE id = ?1");
    row.Bind(1, id);
    record::Attachment attachment;
    if (!row.Step()) return attachment;
    attachment.id = id;
    attachment.size = row.Int(0);
    attachment.mimetype = row.Text(1);
    attachment.name = row.Text(2);
    attachment.content_id = row.Text(3);
    attachment.is_inline = row.Int(4) != 0;
    attachment.preview_path = row.Text(5);
    return attachment;
  });
}

std::string AttachmentControl::GetContentByRecord(const record::Attachment& attachment) {
  if (!attachment.IsValid()) return std::string();
  Database& db = controller_.impl().db();
  try {
    return store::Guard("reading the content of attachment " + std::to_string(attachment.id), [&] {
      store::ReadTransaction read(db);
      return store::AttachmentContent(db, attachment.id);
    });
  } catch (const Error& e) {
    // The caller reads "" as "cannot be read"; why has been logged.
    if (e.ErrorCode() == kErrorDatabase) throw;
    return std::string();
  }
}

bool AttachmentControl::SetPreviewPath(int id, const std::string& path) {
  Database& db = controller_.impl().db();
  return store::Guard("remembering a preview", [&] {
    store::Transaction transaction(db);
    Statement update(db, "UPDATE attachment SET preview_path = ?2 WHERE id = ?1");
    update.Bind(1, id).Bind(2, path);
    update.Run();
    if (db.Changes() == 0) return false;
    transaction.Commit();
    return true;
  });
}

}  // namespace ornic::larkpost::control
