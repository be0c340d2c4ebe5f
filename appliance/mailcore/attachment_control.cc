#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
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

// What "download_all" packs in and sends: a folder "<pid>_<time>" and the
// archive beside it. A request killed while packing leaves them behind.
bool IsPackingLeftover(const std::string& name, const struct stat& info) {
  std::string stem = name;
  if (S_ISREG(info.st_mode) && stem.size() > 4 && stem.compare(stem.size() - 4, 4, ".zip") == 0) {
    stem.resize(stem.size() - 4);
  } else if (!S_ISDIR(info.st_mode)) {
    return false;
  }
  const size_t underscore = stem.find('_');
  return underscore != std::string::npos && underscore > 0 && underscore + 1 < stem.size() &&
         stem.find_first_not_of("0123456789_") == std::string::npos &&
         stem.find('_', underscore + 1) == std::string::npos;
}

bool IsUploadLeftover(const std::string& name, const struct stat& info) {
  return (S_ISREG(info.st_mode) &&
          name.compare(0, sizeof(kUploadPrefix) - 1, kUploadPrefix) == 0) ||
         IsPackingLeftover(name, info);
}

bool IsPreview(const std::string&, const struct stat& info) { return S_ISREG(info.st_mode); }

// The entries of one of the user's application folders that `leftover`
// picks, that no record refers to (`referred_sql`: ?1 the full path, ?2 the
// name) and that nobody has touched within the grace period: never an
// upload, a preview or a download in flight (a request ends long before).
// A sweep rather than a removal where records are deleted: a process killed
// between its commit and the removal leaves nothing for good.
void AddStrays(Database& db, const std::string& folder, const char* referred_sql,
               bool (*leftover)(const std::string&, const struct stat&),
               std::vector<std::string>& paths) {
  DIR* listing = opendir(folder.c_str());
  if (listing == nullptr) return;
  Statement known(db, referred_sql);
  const int64_t touched_before = store::Now() - store::kStrayCopyGrace;
  while (const dirent* entry = readdir(listing)) {
    const std::string name = entry->d_name;
    struct stat info;
    if (name == "." || name == ".." ||
        fstatat(dirfd(listing), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0 ||
        info.st_mtime >= touched_before || !leftover(name, info)) {
      continue;
    }
    const std::string path = folder + "/" + name;
    known.Reset();
    known.Bind(1, path).Bind(2, name);
    if (known.Step() && known.Int(0) == 0) paths.push_back(path);
  }
  closedir(listing);
}

// The stray copies and packing leftovers in the upload folder, and the
// previews whose attachment has gone (a deleted message or draft).
// By name too: the names are random, and a path written another way must
// never cost a user an upload or a preview.
void AddStrayCopies(Database& db, uint32_t uid, std::vector<std::string>& paths) {
  const std::string dir = ::larkpost::appliance::UserDir(uid);
  AddStrays(db, dir + store::kUploadFolder,
            "SELECT EXISTS (SELECT 1 FROM attachment_temp WHERE path = ?1 "
            "OR substr(path, -length(?2) - 1) = '/' || ?2)",
            IsUploadLeftover, paths);
  AddStrays(db, dir + store::kPreviewFolder,
            "SELECT EXISTS (SELECT 1 FROM attachment WHERE preview_path = ?1 "
            "OR substr(preview_path, -length(?2) - 1) = '/' || ?2)",
            IsPreview, paths);
}

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
  remove(path);
  return 0;
}

// Removes what the sweep found; a packing folder with what it holds.
void RemoveAll(const std::vector<std::string>& paths) {
  for (const std::string& path : paths) nftw(path.c_str(), RemoveEntry, 4, FTW_DEPTH | FTW_PHYS);
}

// Deletes the records of abandoned uploads; returns their files and the
// leftovers beside them, which go once the change is committed.
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
    RemoveAll(abandoned);
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
    // Making previews is when they pile up: the sweep runs here too.
    std::vector<std::string> strays;
    AddStrayCopies(db, controller_.uid(), strays);
    transaction.Commit();
    RemoveAll(strays);
    return true;
  });
}

}  // namespace ornic::larkpost::control
