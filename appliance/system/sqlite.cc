#include "appliance/system/sqlite.h"

#include <string>

namespace larkpost::appliance::sqlite {
namespace {

// Whether the database file's header marks it as a write-ahead-log database
// (file format versions 2 at offsets 18 and 19). SQLite opens such a file in
// that mode by itself; asking for the mode again would make it parse the
// whole schema, which a request that only reads the header does not need.
//
// Read through SQLite's own descriptor: closing a descriptor of our own on
// the file would drop every lock this process holds on it (POSIX locks
// belong to the process), those of its other connections included, and
// another process could then reset the log under them.
bool HeaderSaysWal(sqlite3* db) {
  sqlite3_file* file = nullptr;
  if (sqlite3_file_control(db, "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK ||
      file == nullptr || file->pMethods == nullptr) {
    return false;
  }
  unsigned char versions[2] = {0, 0};
  return file->pMethods->xRead(file, versions, sizeof(versions), 18) == SQLITE_OK &&
         versions[0] == 2 && versions[1] == 2;
}

}  // namespace

Database::Database(const std::string& path, const OpenOptions& options) : path_(path) {
  int flags = SQLITE_OPEN_NOMUTEX;
  if (options.read_only) {
    flags |= SQLITE_OPEN_READONLY;
  } else {
    flags |= SQLITE_OPEN_READWRITE;
    if (options.create) flags |= SQLITE_OPEN_CREATE;
  }
  int rc = sqlite3_open_v2(path.c_str(), &db_, flags, nullptr);
  if (rc != SQLITE_OK) {
    Error error = db_ ? LastError("cannot open") : Error(rc, "cannot open " + path);
    sqlite3_close(db_);
    db_ = nullptr;
    throw error;
  }
  sqlite3_extended_result_codes(db_, 1);
  sqlite3_busy_timeout(db_, options.busy_timeout_ms);
  try {
    // Opening succeeds on any file; the first read tells whether it is a
    // database at all. Switching to write-ahead logging reads the file
    // header, so it is that read when there is a switch to make; otherwise
    // the schema version is (it reads the header and nothing more).
    if (options.wal && !options.read_only && !HeaderSaysWal(db_)) {
      Statement mode(*this, "PRAGMA journal_mode=WAL");
      if (!mode.Step() || mode.Text(0) != "wal") {
        throw Error(SQLITE_ERROR, path + ": cannot switch to write-ahead logging");
      }
    } else {
      QueryInt("PRAGMA schema_version");
    }
    if (options.foreign_keys) Exec("PRAGMA foreign_keys=ON");
    if (options.keep_wal_files) {
      int keep = 1;
      sqlite3_file_control(db_, "main", SQLITE_FCNTL_PERSIST_WAL, &keep);
      // A kept log is truncated to nothing when the last connection closes
      // (and held to this size otherwise): a process that opens the store
      // next has no old log to read through.
      Exec("PRAGMA journal_size_limit=4194304");
    }
  } catch (...) {
    sqlite3_close(db_);
    db_ = nullptr;
    throw;
  }
}

Database::~Database() { sqlite3_close(db_); }

Error Database::LastError(const std::string& what) const {
  return Error(sqlite3_extended_errcode(db_), path_ + ": " + what + ": " + sqlite3_errmsg(db_));
}

void Database::Exec(const std::string& sql) {
  char* message = nullptr;
  int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message);
  if (rc != SQLITE_OK) {
    std::string text = message ? message : sqlite3_errstr(rc);
    sqlite3_free(message);
    throw Error(sqlite3_extended_errcode(db_), path_ + ": " + text);
  }
}

int64_t Database::QueryInt(const std::string& sql) {
  Statement statement(*this, sql.c_str());
  if (!statement.Step()) throw Error(SQLITE_ERROR, path_ + ": no value from " + sql);
  return statement.Int64(0);
}

int64_t Database::LastInsertRowid() const { return sqlite3_last_insert_rowid(db_); }

int Database::Changes() const { return sqlite3_changes(db_); }

Statement::Statement(Database& db, const char* sql) : db_(db) {
  if (sqlite3_prepare_v2(db.handle(), sql, -1, &stmt_, nullptr) != SQLITE_OK) {
    throw db.LastError("cannot prepare \"" + std::string(sql) + "\"");
  }
}

Statement::~Statement() { sqlite3_finalize(stmt_); }

Statement& Statement::Bind(int index, int64_t value) {
  if (sqlite3_bind_int64(stmt_, index, value) != SQLITE_OK) throw db_.LastError("bind");
  return *this;
}

Statement& Statement::Bind(int index, const std::string& value) {
  if (sqlite3_bind_text(stmt_, index, value.data(), static_cast<int>(value.size()),
                        SQLITE_TRANSIENT) != SQLITE_OK) {
    throw db_.LastError("bind");
  }
  return *this;
}

Statement& Statement::BindBlob(int index, const void* data, size_t size) {
  if (sqlite3_bind_blob(stmt_, index, data, static_cast<int>(size), SQLITE_TRANSIENT) !=
      SQLITE_OK) {
    throw db_.LastError("bind");
  }
  return *this;
}

Statement& Statement::BindNull(int index) {
  if (sqlite3_bind_null(stmt_, index) != SQLITE_OK) throw db_.LastError("bind");
  return *this;
}

bool Statement::Step() {
  int rc = sqlite3_step(stmt_);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  Error error = db_.LastError(sqlite3_sql(stmt_));
  // A failed statement must be reset before the connection can roll back.
  sqlite3_reset(stmt_);
  throw error;
}

void Statement::Run() {
  while (Step()) {
  }
}

void Statement::Reset() { sqlite3_reset(stmt_); }

bool Statement::IsNull(int column) const {
  return sqlite3_column_type(stmt_, column) == SQLITE_NULL;
}

int64_t Statement::Int64(int column) const { return sqlite3_column_int64(stmt_, column); }

std::string Statement::Text(int column) const {
  const unsigned char* text = sqlite3_column_text(stmt_, column);
  if (!text) return std::string();
  return std::string(reinterpret_cast<const char*>(text),
                     static_cast<size_t>(sqlite3_column_bytes(stmt_, column)));
}

Transaction::Transaction(Database& db) : db_(db) {
  db_.Exec("BEGIN IMMEDIATE");
  open_ = true;
}

Transaction::~Transaction() {
  if (open_) sqlite3_exec(db_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
}

void Transaction::Commit() {
  db_.Exec("COMMIT");
  open_ = false;
}

}  // namespace larkpost::appliance::sqlite
