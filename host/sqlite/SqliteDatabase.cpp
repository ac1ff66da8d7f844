#include "host/sqlite/SqliteDatabase.h"

#include <fmt/format.h>
#include <sqlite3.h>

namespace vm {

ErrorRef SqliteError(sqlite3* db, int result_code, std::string_view context) {
  const char* message = db ? sqlite3_errmsg(db) : sqlite3_errstr(result_code);
  int code = db ? sqlite3_extended_errcode(db) : result_code;
  return Error::WithDescription(kSQLiteErrorDomain, code,
                                fmt::format("{}: {}", context, message ? message : "error"));
}

SqliteStatement::~SqliteStatement() {
  if (statement_ != nullptr) sqlite3_finalize(statement_);
}

SqliteStatement::SqliteStatement(SqliteStatement&& other) noexcept
    : db_(other.db_), statement_(other.statement_) {
  other.statement_ = nullptr;
}

void SqliteStatement::bind(int index, const KeyValue& value) {
  if (const auto* number = std::get_if<std::int64_t>(&value)) {
    bindInt(index, *number);
  } else if (const auto* text = std::get_if<std::string>(&value)) {
    bindText(index, *text);
  } else {
    bindNull(index);
  }
}

void SqliteStatement::bindNull(int index) { sqlite3_bind_null(statement_, index); }

void SqliteStatement::bindInt(int index, std::int64_t value) {
  sqlite3_bind_int64(statement_, index, value);
}

void SqliteStatement::bindText(int index, std::string_view value) {
  sqlite3_bind_text(statement_, index, value.data(), static_cast<int>(value.size()),
                    SQLITE_TRANSIENT);
}

void SqliteStatement::bindBlob(int index, const Bytes& value) {
  // A zero-length blob is still a blob, not null.
  sqlite3_bind_blob(statement_, index, value.empty() ? "" : static_cast<const void*>(value.data()),
                    static_cast<int>(value.size()), SQLITE_TRANSIENT);
}

void SqliteStatement::bindOptionalText(int index, const std::optional<std::string>& value) {
  if (value) {
    bindText(index, *value);
  } else {
    bindNull(index);
  }
}

bool SqliteStatement::step(ErrorRef* error) {
  int rc = sqlite3_step(statement_);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  Fail(error, SqliteError(db_, rc, sqlite3_sql(statement_)));
  return false;
}

bool SqliteStatement::run(ErrorRef* error) {
  ErrorRef failure;
  while (step(&failure)) {
  }
  if (failure) return Fail(error, failure);
  return true;
}

bool SqliteStatement::isNull(int column) const {
  return sqlite3_column_type(statement_, column) == SQLITE_NULL;
}

std::int64_t SqliteStatement::columnInt(int column) const {
  return sqlite3_column_int64(statement_, column);
}

std::string SqliteStatement::columnText(int column) const {
  const auto* text = sqlite3_column_text(statement_, column);
  if (text == nullptr) return {};
  return std::string(reinterpret_cast<const char*>(text),
                     static_cast<std::size_t>(sqlite3_column_bytes(statement_, column)));
}

std::optional<std::string> SqliteStatement::columnOptionalText(int column) const {
  if (isNull(column)) return std::nullopt;
  return columnText(column);
}

Bytes SqliteStatement::columnBlob(int column) const {
  const auto* data = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement_, column));
  int size = sqlite3_column_bytes(statement_, column);
  if (data == nullptr || size <= 0) return {};
  return Bytes(data, data + size);
}

std::string SqliteStatement::columnName(int column) const {
  const char* name = sqlite3_column_name(statement_, column);
  return name ? name : "";
}

int SqliteStatement::columnCount() const { return sqlite3_column_count(statement_); }

std::unique_ptr<SqliteDatabase> SqliteDatabase::open(const std::filesystem::path& path,
                                                     ErrorRef* error) {
  sqlite3* db = nullptr;
  int rc =
      sqlite3_open_v2(path.c_str(), &db,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    Fail(error, SqliteError(db, rc, path.string()));
    sqlite3_close(db);
    return nullptr;
  }
  // Another process (a second vmattach) may hold the write lock for a moment.
  sqlite3_busy_timeout(db, 5000);
  std::unique_ptr<SqliteDatabase> database(new SqliteDatabase(db, path));
  if (!database->exec("PRAGMA foreign_keys = ON; PRAGMA journal_mode = WAL;", error)) {
    return nullptr;
  }
  return database;
}

SqliteDatabase::~SqliteDatabase() { sqlite3_close_v2(db_); }

bool SqliteDatabase::exec(std::string_view sql, ErrorRef* error) {
  std::string text(sql);
  char* message = nullptr;
  int rc = sqlite3_exec(db_, text.c_str(), nullptr, nullptr, &message);
  sqlite3_free(message);
  if (rc != SQLITE_OK) return Fail(error, SqliteError(db_, rc, text));
  return true;
}

std::unique_ptr<SqliteStatement> SqliteDatabase::prepare(std::string_view sql, ErrorRef* error) {
  sqlite3_stmt* statement = nullptr;
  int rc = sqlite3_prepare_v2(db_, sql.data(), static_cast<int>(sql.size()), &statement, nullptr);
  if (rc != SQLITE_OK) {
    Fail(error, SqliteError(db_, rc, sql));
    return nullptr;
  }
  return std::make_unique<SqliteStatement>(db_, statement);
}

std::int64_t SqliteDatabase::lastInsertRowID() const { return sqlite3_last_insert_rowid(db_); }

int SqliteDatabase::userVersion() {
  auto statement = prepare("PRAGMA user_version", nullptr);
  if (!statement || !statement->step(nullptr)) return 0;
  return static_cast<int>(statement->columnInt(0));
}

bool SqliteDatabase::setUserVersion(int version, ErrorRef* error) {
  return exec(fmt::format("PRAGMA user_version = {}", version), error);
}

}  // namespace vm
