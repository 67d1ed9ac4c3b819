// A thin RAII layer over the SQLite C interface: one connection, prepared
// statements cached by their text, typed binding and reading.
//
// Threads: a Database and its statements belong to one thread at a time;
// only `interrupt` may be called from another thread.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kx::searchd {

class Statement {
 public:
  explicit Statement(sqlite3_stmt* statement) : statement_(statement) {}
  // Resets the statement for its next use (keeps it prepared).
  ~Statement() { reset(); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& bind(int index, int64_t value);
  Statement& bind(int index, double value);
  Statement& bind(int index, std::string_view value);
  Statement& bindNull(int index);

  // True while a row is available; false when done. Throws on error
  // (including an interruption, SQLITE_INTERRUPT).
  bool step();
  // Runs the statement to completion.
  void run();

  int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
  double real(int column) const { return sqlite3_column_double(statement_, column); }
  std::string text(int column) const;
  bool isNull(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }

  void reset();

 private:
  sqlite3_stmt* statement_;
};

// SQLite failure, with the code so that callers can tell an interruption.
class SqliteError : public std::runtime_error {
 public:
  SqliteError(int code, const std::string& message) : std::runtime_error(message), code_(code) {}
  int code() const { return code_; }
  bool interrupted() const { return code_ == SQLITE_INTERRUPT; }

 private:
  int code_;
};

class Database {
 public:
  // Opens (creating when `readOnly` is false) the database at `path`.
  // Throws SqliteError.
  Database(const std::string& path, bool readOnly);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  void exec(const char* sql);
  // The cached statement for `sql`, reset and unbound; one user at a time.
  Statement prepare(const char* sql);

  int64_t lastInsertRowid() const { return sqlite3_last_insert_rowid(db_); }
  sqlite3* handle() const { return db_; }

 private:
  sqlite3* db_ = nullptr;
  std::map<std::string, sqlite3_stmt*, std::less<>> statements_;
};

// Runs `begin`/`commit` around a scope; rolls back when left by an
// exception.
class Transaction {
 public:
  explicit Transaction(Database& db) : db_(db) { db_.exec("BEGIN IMMEDIATE"); }
  ~Transaction();
  void commit();

 private:
  Database& db_;
  bool done_ = false;
};

}  // namespace kx::searchd
