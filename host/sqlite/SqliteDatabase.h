#ifndef VM_HOST_SQLITE_SQLITEDATABASE_H_
#define VM_HOST_SQLITE_SQLITEDATABASE_H_

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/HXRecord.h"
#include "platform/Error.h"

struct sqlite3;
struct sqlite3_stmt;

namespace vm {

inline constexpr std::string_view kSQLiteErrorDomain = "org.sqlite.SQLite";

// The one place a SQLite result code becomes an Error: domain kSQLiteErrorDomain, the
// extended result code, the connection's message and `context` (a path or a statement).
ErrorRef SqliteError(sqlite3* db, int result_code, std::string_view context);

// A prepared statement. Bind indexes start at 1, column indexes at 0. Owned by the caller;
// must not outlive its database. Not thread-safe.
class SqliteStatement {
 public:
  SqliteStatement(sqlite3* db, sqlite3_stmt* statement) : db_(db), statement_(statement) {}
  ~SqliteStatement();
  SqliteStatement(SqliteStatement&& other) noexcept;
  SqliteStatement(const SqliteStatement&) = delete;
  SqliteStatement& operator=(const SqliteStatement&) = delete;

  void bind(int index, const KeyValue& value);
  void bindNull(int index);
  void bindInt(int index, std::int64_t value);
  void bindText(int index, std::string_view value);
  void bindBlob(int index, const Bytes& value);
  void bindOptionalText(int index, const std::optional<std::string>& value);

  // True while a row is available; false at the end. A failure sets `*error` (when not
  // null) and returns false.
  bool step(ErrorRef* error);
  // Runs to completion; returns whether it succeeded.
  bool run(ErrorRef* error);

  bool isNull(int column) const;
  std::int64_t columnInt(int column) const;
  std::string columnText(int column) const;
  std::optional<std::string> columnOptionalText(int column) const;
  Bytes columnBlob(int column) const;
  std::string columnName(int column) const;
  int columnCount() const;

 private:
  sqlite3* db_;
  sqlite3_stmt* statement_;
};

// One connection, opened in serialized mode so that it may be used from several threads.
// Statements run under the connection's own mutex; a caller that needs several statements
// to be atomic uses a transaction.
class SqliteDatabase {
 public:
  static std::unique_ptr<SqliteDatabase> open(const std::filesystem::path& path, ErrorRef* error);
  ~SqliteDatabase();
  SqliteDatabase(const SqliteDatabase&) = delete;
  SqliteDatabase& operator=(const SqliteDatabase&) = delete;

  bool exec(std::string_view sql, ErrorRef* error);
  // Null with `*error` set when the statement does not compile.
  std::unique_ptr<SqliteStatement> prepare(std::string_view sql, ErrorRef* error);
  std::int64_t lastInsertRowID() const;

  int userVersion();
  bool setUserVersion(int version, ErrorRef* error);

  const std::filesystem::path& path() const { return path_; }
  sqlite3* handle() const { return db_; }

 private:
  SqliteDatabase(sqlite3* db, std::filesystem::path path) : db_(db), path_(std::move(path)) {}

  sqlite3* db_;
  std::filesystem::path path_;
};

}  // namespace vm

#endif  // VM_HOST_SQLITE_SQLITEDATABASE_H_
