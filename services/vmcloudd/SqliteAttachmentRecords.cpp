#include "services/vmcloudd/SqliteAttachmentRecords.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <limits>

#include "services/vmcloudd/ServiceError.h"

namespace vm {
namespace {

constexpr int kSchemaVersion = 1;
constexpr int kBusyTimeoutMs = 5000;

constexpr std::string_view kSchema = R"sql(
CREATE TABLE IF NOT EXISTS attachments (
  uuid TEXT PRIMARY KEY NOT NULL,
  size INTEGER NOT NULL CHECK (size >= 0),
  state TEXT NOT NULL CHECK (state IN ('new', 'uploaded', 'deleted')),
  created_at INTEGER NOT NULL,
  updated_at INTEGER NOT NULL
) WITHOUT ROWID;
)sql";

// The one place a SQLite failure becomes an Error.
ErrorRef SqliteError(sqlite3* db, int code, std::string_view action) {
  const char* message = db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(code);
  return CloudServiceError(
      kVMCloudServiceRecordsFailed,
      fmt::format("The attachment records could not be {}: {}", action, message),
      Error::WithDescription("SQLite", code, message));
}

class Statement {
 public:
  Statement(sqlite3* db, std::string_view sql) {
    code_ = sqlite3_prepare_v2(db, sql.data(), static_cast<int>(sql.size()), &stmt_, nullptr);
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  bool ok() const { return code_ == SQLITE_OK; }
  int code() const { return code_; }
  sqlite3_stmt* get() const { return stmt_; }
  void bind(int index, std::string_view text) {
    sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
  }
  void bind(int index, std::int64_t value) { sqlite3_bind_int64(stmt_, index, value); }

 private:
  sqlite3_stmt* stmt_ = nullptr;
  int code_;
};

bool Execute(sqlite3* db, std::string_view sql, std::string_view action, ErrorRef* error) {
  char* message = nullptr;
  int code = sqlite3_exec(db, std::string(sql).c_str(), nullptr, nullptr, &message);
  sqlite3_free(message);
  if (code != SQLITE_OK) return Fail(error, SqliteError(db, code, action));
  return true;
}

}  // namespace

std::unique_ptr<SqliteAttachmentRecords> SqliteAttachmentRecords::Open(
    const std::filesystem::path& file, ErrorRef* error) {
  sqlite3* db = nullptr;
  int code = sqlite3_open_v2(
      file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (code != SQLITE_OK) {
    Fail(error, SqliteError(db, code, fmt::format("opened at {}", file.string())));
    sqlite3_close(db);
    return nullptr;
  }
  std::unique_ptr<SqliteAttachmentRecords> records(new SqliteAttachmentRecords(db));
  sqlite3_busy_timeout(db, kBusyTimeoutMs);
  // WAL lets a second process (a backup, the sqlite3 shell) read while we write;
  // synchronous=FULL makes every answered change survive a power cut.
  if (!Execute(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;", "set up", error) ||
      !Execute(db, kSchema, "set up", error) ||
      !Execute(db, fmt::format("PRAGMA user_version={};", kSchemaVersion), "set up", error)) {
    return nullptr;
  }
  return records;
}

SqliteAttachmentRecords::SqliteAttachmentRecords(sqlite3* db) : db_(db) {}

SqliteAttachmentRecords::~SqliteAttachmentRecords() { sqlite3_close(db_); }

bool SqliteAttachmentRecords::insert(const AttachmentRecord& record, ErrorRef* error) {
  if (record.size > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    return Fail(error, CloudServiceError(kVMCloudServiceRecordsFailed,
                                         "An attachment size does not fit the records"));
  }
  std::lock_guard lock(mu_);
  Statement stmt(db_,
                 "INSERT INTO attachments (uuid, size, state, created_at, updated_at) "
                 "VALUES (?1, ?2, ?3, strftime('%s','now'), strftime('%s','now'))");
  if (!stmt.ok()) return Fail(error, SqliteError(db_, stmt.code(), "written"));
  stmt.bind(1, record.uuid);
  stmt.bind(2, static_cast<std::int64_t>(record.size));
  stmt.bind(3, AttachmentStateName(record.state));
  int code = sqlite3_step(stmt.get());
  if (code != SQLITE_DONE) return Fail(error, SqliteError(db_, code, "written"));
  return true;
}

bool SqliteAttachmentRecords::find(std::string_view uuid, std::optional<AttachmentRecord>* found,
                                   ErrorRef* error) {
  std::lock_guard lock(mu_);
  Statement stmt(db_, "SELECT size, state FROM attachments WHERE uuid = ?1");
  if (!stmt.ok()) return Fail(error, SqliteError(db_, stmt.code(), "read"));
  stmt.bind(1, uuid);
  int code = sqlite3_step(stmt.get());
  if (code == SQLITE_DONE) {
    found->reset();
    return true;
  }
  if (code != SQLITE_ROW) return Fail(error, SqliteError(db_, code, "read"));
  const auto* state_text = reinterpret_cast<const char*>(sqlite3_column_text(stmt.get(), 1));
  auto state = ParseAttachmentState(state_text != nullptr ? state_text : "");
  std::int64_t size = sqlite3_column_int64(stmt.get(), 0);
  if (!state || size < 0) {
    // The CHECK constraints make this reachable only through a hand-edited database.
    return Fail(error, CloudServiceError(kVMCloudServiceRecordsFailed,
                                         fmt::format("The record of {} is damaged", uuid)));
  }
  *found = AttachmentRecord{std::string(uuid), static_cast<std::uint64_t>(size), *state};
  return true;
}

bool SqliteAttachmentRecords::transition(std::string_view uuid,
                                         std::initializer_list<AttachmentState> from,
                                         AttachmentState to, bool* changed, ErrorRef* error) {
  std::string allowed;
  for (AttachmentState state : from) {
    if (!allowed.empty()) allowed += ",";
    allowed += fmt::format("'{}'", AttachmentStateName(state));
  }
  std::lock_guard lock(mu_);
  Statement stmt(db_, fmt::format("UPDATE attachments SET state = ?1, "
                                  "updated_at = strftime('%s','now') "
                                  "WHERE uuid = ?2 AND state IN ({})",
                                  allowed));
  if (!stmt.ok()) return Fail(error, SqliteError(db_, stmt.code(), "written"));
  stmt.bind(1, AttachmentStateName(to));
  stmt.bind(2, uuid);
  int code = sqlite3_step(stmt.get());
  if (code != SQLITE_DONE) return Fail(error, SqliteError(db_, code, "written"));
  *changed = sqlite3_changes(db_) > 0;
  return true;
}

}  // namespace vm
