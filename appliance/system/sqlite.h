// A thin layer over SQLite for the appliance's own stores (users, sessions)
// and the mail core's per-user store. It owns handles and statements, turns
// every failure into an exception and makes the rollback of an unfinished
// transaction automatic.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <stdexcept>
#include <string>

namespace larkpost::appliance::sqlite {

// A failed SQLite call; code() is SQLite's primary or extended result code
// (SQLITE_BUSY, SQLITE_CONSTRAINT_UNIQUE, ...), what() names the store and
// SQLite's own message.
class Error : public std::runtime_error {
 public:
  Error(int code, const std::string& message) : std::runtime_error(message), code_(code) {}
  int code() const noexcept { return code_; }
  // True for the primary code `primary` (SQLITE_CONSTRAINT matches every
  // kind of constraint failure).
  bool Is(int primary) const noexcept { return (code_ & 0xff) == primary; }

 private:
  int code_;
};

struct OpenOptions {
  bool create = false;         // create the file when it is missing
  bool read_only = false;      // no writes through this connection
  bool wal = true;             // switch the file to write-ahead logging (not read-only)
  bool foreign_keys = false;   // enforce REFERENCES clauses
  int busy_timeout_ms = 5000;  // how long to wait for another process's lock
  // Keep the -wal and -shm files when the last connection closes (the log
  // is emptied instead of deleted), so that the next process to open the
  // store does not create both again. Write-ahead logging only.
  bool keep_wal_files = false;
};

class Database {
 public:
  // Opens `path`. Throws Error when it is missing (and not to be created),
  // is not a database, or the options cannot be applied.
  Database(const std::string& path, const OpenOptions& options);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  // Runs one or more statements that return no rows. Throws Error.
  void Exec(const std::string& sql);
  // The single integer that `sql` yields (PRAGMA user_version, count(*)).
  int64_t QueryInt(const std::string& sql);

  int64_t LastInsertRowid() const;
  int Changes() const;
  const std::string& path() const { return path_; }
  sqlite3* handle() const { return db_; }

  // An Error carrying the connection's last error, prefixed with `what`.
  Error LastError(const std::string& what) const;

 private:
  sqlite3* db_ = nullptr;
  std::string path_;
};

// A prepared statement. Bind indexes start at 1, column indexes at 0.
class Statement {
 public:
  Statement(Database& db, const char* sql);
  ~Statement();
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& Bind(int index, int64_t value);
  Statement& Bind(int index, int value) { return Bind(index, static_cast<int64_t>(value)); }
  Statement& Bind(int index, uint32_t value) { return Bind(index, static_cast<int64_t>(value)); }
  Statement& Bind(int index, bool value) { return Bind(index, static_cast<int64_t>(value)); }
  Statement& Bind(int index, const std::string& value);
  // Without this a string literal would bind as a bool.
  Statement& Bind(int index, const char* value) { return Bind(index, std::string(value)); }
  Statement& BindBlob(int index, const void* data, size_t size);
  Statement& BindNull(int index);

  // Advances to the next row: true when there is one, false when the
  // statement is done. Throws Error.
  bool Step();
  // Steps to the end (statements that return no rows).
  void Run();
  // Makes the statement ready to run again; bindings are kept.
  void Reset();

  bool IsNull(int column) const;
  int64_t Int64(int column) const;
  int Int(int column) const { return static_cast<int>(Int64(column)); }
  std::string Text(int column) const;

 private:
  Database& db_;
  sqlite3_stmt* stmt_ = nullptr;
};

// BEGIN IMMEDIATE on construction (the write lock is taken up front, so two
// writers never deadlock halfway), ROLLBACK on destruction unless Commit()
// ran. Throws Error when the transaction cannot begin or commit.
class Transaction {
 public:
  explicit Transaction(Database& db);
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  void Commit();

 private:
  Database& db_;
  bool open_ = false;
};

}  // namespace larkpost::appliance::sqlite
