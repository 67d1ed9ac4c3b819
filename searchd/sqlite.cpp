#include "searchd/sqlite.h"

#include <exception>

namespace kx::searchd {
namespace {

[[noreturn]] void Fail(sqlite3* db, int code) {
  throw SqliteError(code, db ? sqlite3_errmsg(db) : sqlite3_errstr(code));
}

}  // namespace

Statement& Statement::bind(int index, int64_t value) {
  sqlite3_bind_int64(statement_, index, value);
  return *this;
}

Statement& Statement::bind(int index, double value) {
  sqlite3_bind_double(statement_, index, value);
  return *this;
}

Statement& Statement::bind(int index, std::string_view value) {
  sqlite3_bind_text(statement_, index, value.data(), static_cast<int>(value.size()),
                    SQLITE_TRANSIENT);
  return *this;
}

Statement& Statement::bindNull(int index) {
  sqlite3_bind_null(statement_, index);
  return *this;
}

bool Statement::step() {
  const int rc = sqlite3_step(statement_);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  sqlite3* db = sqlite3_db_handle(statement_);
  const int code = sqlite3_extended_errcode(db) & 0xff;
  reset();
  Fail(db, code == SQLITE_OK ? rc : code);
}

void Statement::run() {
  while (step()) {
  }
}

std::string Statement::text(int column) const {
  const auto* bytes = sqlite3_column_text(statement_, column);
  return bytes ? std::string(reinterpret_cast<const char*>(bytes),
                             static_cast<size_t>(sqlite3_column_bytes(statement_, column)))
               : std::string();
}

void Statement::reset() {
  if (!statement_) return;
  sqlite3_reset(statement_);
  sqlite3_clear_bindings(statement_);
}

Database::Database(const std::string& path, bool readOnly) {
  const int flags = (readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) |
                    SQLITE_OPEN_NOMUTEX;
  const int rc = sqlite3_open_v2(path.c_str(), &db_, flags, nullptr);
  if (rc != SQLITE_OK) {
    const std::string message = db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
    sqlite3_close(db_);
    db_ = nullptr;
    throw SqliteError(rc, path + ": " + message);
  }
  // Readers wait for a writer's checkpoint instead of failing at once.
  sqlite3_busy_timeout(db_, 5000);
}

Database::~Database() {
  for (auto& [sql, statement] : statements_) sqlite3_finalize(statement);
  sqlite3_close(db_);
}

void Database::exec(const char* sql) {
  char* message = nullptr;
  const int rc = sqlite3_exec(db_, sql, nullptr, nullptr, &message);
  if (rc != SQLITE_OK) {
    const std::string text = message ? message : sqlite3_errstr(rc);
    sqlite3_free(message);
    throw SqliteError(rc, text);
  }
}

Statement Database::prepare(const char* sql) {
  auto found = statements_.find(std::string_view(sql));
  if (found != statements_.end()) return Statement(found->second);
  sqlite3_stmt* statement = nullptr;
  const int rc = sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
  if (rc != SQLITE_OK) Fail(db_, rc);
  statements_.emplace(sql, statement);
  return Statement(statement);
}

Transaction::~Transaction() {
  if (done_) return;
  try {
    db_.exec("ROLLBACK");
  } catch (const SqliteError&) {
    // Nothing more to undo: SQLite rolled back on its own.
  }
}

void Transaction::commit() {
  db_.exec("COMMIT");
  done_ = true;
}

}  // namespace kx::searchd
