// The records in one SQLite file: the embedded default, for a service that runs as one
// process. One connection under a mutex; WAL with synchronous=FULL.
#include <fmt/format.h>
#include <sqlite3.h>

#include <algorithm>
#include <limits>
#include <mutex>

#include "services/vmcloudd/ServiceError.h"
#include "services/vmcloudd/internal/RecordsSchema.h"

namespace vm::internal {
namespace {

constexpr int kBusyTimeoutMs = 5000;

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
  std::string text(int column) const {
    const auto* value = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
    return value != nullptr ? value : "";
  }

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

class SqliteRecords : public AttachmentRecords {
 public:
  explicit SqliteRecords(sqlite3* db) : db_(db) {}
  ~SqliteRecords() override { sqlite3_close(db_); }

  bool migrate(ErrorRef* error);

  std::string_view kind() const override { return "sqlite"; }
  bool ping(ErrorRef* error) override {
    std::lock_guard lock(mu_);
    return Execute(db_, "SELECT count(*) FROM sqlite_master", "read", error);
  }
  bool insert(const AttachmentRecord& record, ErrorRef* error) override;
  bool find(std::string_view uuid, std::optional<AttachmentRecord>* found,
            ErrorRef* error) override;
  bool transition(std::string_view uuid, std::initializer_list<AttachmentState> from,
                  AttachmentState to, bool* changed, ErrorRef* error) override;
  bool claimStale(std::chrono::system_clock::time_point cutoff, std::size_t limit,
                  std::vector<AttachmentRecord>* claimed, ErrorRef* error) override;
  bool sharedValue(std::string_view name, std::string_view proposal, std::string* value,
                   ErrorRef* error) override;

 private:
  // Reads a row of (uuid, size, state, created_at) at the statement's current step.
  bool readRecord(const Statement& stmt, AttachmentRecord* record, ErrorRef* error) const;

  std::mutex mu_;
  sqlite3* db_;  // owned; guarded by mu_
};

bool SqliteRecords::migrate(ErrorRef* error) {
  std::lock_guard lock(mu_);
  // WAL lets a second process (a backup, the sqlite3 shell) read while we write;
  // synchronous=FULL makes every answered change survive a power cut.
  if (!Execute(db_, "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;", "set up", error) ||
      !Execute(db_, "BEGIN IMMEDIATE", "set up", error)) {
    return false;
  }
  int version = 0;
  {
    Statement stmt(db_, "PRAGMA user_version");
    if (stmt.ok() && sqlite3_step(stmt.get()) == SQLITE_ROW) {
      version = sqlite3_column_int(stmt.get(), 0);
    }
  }
  bool ok = true;
  for (const SchemaStep& step : kSchemaSteps) {
    if (step.version <= version) continue;
    ok = Execute(db_, step.sql, "set up", error) &&
         Execute(db_, fmt::format("PRAGMA user_version={}", step.version), "set up", error);
    if (!ok) break;
  }
  if (!ok) {
    Execute(db_, "ROLLBACK", "set up", nullptr);
    return false;
  }
  return Execute(db_, "COMMIT", "set up", error);
}

bool SqliteRecords::readRecord(const Statement& stmt, AttachmentRecord* record,
                               ErrorRef* error) const {
  auto state = ParseAttachmentState(stmt.text(2));
  std::int64_t size = sqlite3_column_int64(stmt.get(), 1);
  if (!state || size < 0) {
    // The CHECK constraints make this reachable only through a hand-edited database.
    return Fail(error, CloudServiceError(kVMCloudServiceRecordsFailed,
                                         fmt::format("The record of {} is damaged", stmt.text(0))));
  }
  *record = AttachmentRecord{stmt.text(0), static_cast<std::uint64_t>(size), *state,
                             FromEpochSeconds(sqlite3_column_int64(stmt.get(), 3))};
  return true;
}

bool SqliteRecords::insert(const AttachmentRecord& record, ErrorRef* error) {
  if (record.size > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    return Fail(error, CloudServiceError(kVMCloudServiceRecordsFailed,
                                         "An attachment size does not fit the records"));
  }
  std::lock_guard lock(mu_);
  Statement stmt(db_,
                 "INSERT INTO attachments (uuid, size, state, created_at, updated_at) "
                 "VALUES (?1, ?2, ?3, ?4, ?4)");
  if (!stmt.ok()) return Fail(error, SqliteError(db_, stmt.code(), "written"));
  stmt.bind(1, record.uuid);
  stmt.bind(2, static_cast<std::int64_t>(record.size));
  stmt.bind(3, AttachmentStateName(record.state));
  stmt.bind(4, EpochSeconds(record.created));
  int code = sqlite3_step(stmt.get());
  if (code != SQLITE_DONE) return Fail(error, SqliteError(db_, code, "written"));
  return true;
}

bool SqliteRecords::find(std::string_view uuid, std::optional<AttachmentRecord>* found,
                         ErrorRef* error) {
  std::lock_guard lock(mu_);
  Statement stmt(db_, "SELECT uuid, size, state, created_at FROM attachments WHERE uuid = ?1");
  if (!stmt.ok()) return Fail(error, SqliteError(db_, stmt.code(), "read"));
  stmt.bind(1, uuid);
  int code = sqlite3_step(stmt.get());
  if (code == SQLITE_DONE) {
    found->reset();
    return true;
  }
  if (code != SQLITE_ROW) return Fail(error, SqliteError(db_, code, "read"));
  AttachmentRecord record;
  if (!readRecord(stmt, &record, error)) return false;
  *found = std::move(record);
  return true;
}

bool SqliteRecords::transition(std::string_view uuid, std::initializer_list<AttachmentState> from,
                               AttachmentState to, bool* changed, ErrorRef* error) {
  std::lock_guard lock(mu_);
  Statement stmt(db_, fmt::format("UPDATE attachments SET state = ?1, "
                                  "updated_at = strftime('%s','now') "
                                  "WHERE uuid = ?2 AND state IN ({})",
                                  StateListLiteral(from)));
  if (!stmt.ok()) return Fail(error, SqliteError(db_, stmt.code(), "written"));
  stmt.bind(1, AttachmentStateName(to));
  stmt.bind(2, uuid);
  int code = sqlite3_step(stmt.get());
  if (code != SQLITE_DONE) return Fail(error, SqliteError(db_, code, "written"));
  *changed = sqlite3_changes(db_) > 0;
  return true;
}

bool SqliteRecords::claimStale(std::chrono::system_clock::time_point cutoff, std::size_t limit,
                               std::vector<AttachmentRecord>* claimed, ErrorRef* error) {
  claimed->clear();
  std::lock_guard lock(mu_);
  Statement stmt(db_,
                 "UPDATE attachments SET state = 'deleted', updated_at = strftime('%s','now') "
                 "WHERE state = 'new' AND uuid IN (SELECT uuid FROM attachments "
                 "WHERE state = 'new' AND created_at < ?1 ORDER BY created_at LIMIT ?2) "
                 "RETURNING uuid, size, state, created_at");
  if (!stmt.ok()) return Fail(error, SqliteError(db_, stmt.code(), "swept"));
  stmt.bind(1, EpochSeconds(cutoff));
  stmt.bind(2, static_cast<std::int64_t>(std::min<std::size_t>(limit, 1 << 20)));
  int code;
  while ((code = sqlite3_step(stmt.get())) == SQLITE_ROW) {
    AttachmentRecord record;
    if (!readRecord(stmt, &record, error)) return false;
    claimed->push_back(std::move(record));
  }
  if (code != SQLITE_DONE) return Fail(error, SqliteError(db_, code, "swept"));
  std::sort(claimed->begin(), claimed->end(),
            [](const auto& a, const auto& b) { return a.created < b.created; });
  return true;
}

bool SqliteRecords::sharedValue(std::string_view name, std::string_view proposal,
                                std::string* value, ErrorRef* error) {
  std::lock_guard lock(mu_);
  Statement insert(db_,
                   "INSERT INTO service_values (name, value) VALUES (?1, ?2) "
                   "ON CONFLICT (name) DO NOTHING");
  if (!insert.ok()) return Fail(error, SqliteError(db_, insert.code(), "written"));
  insert.bind(1, name);
  insert.bind(2, proposal);
  int code = sqlite3_step(insert.get());
  if (code != SQLITE_DONE) return Fail(error, SqliteError(db_, code, "written"));
  Statement select(db_, "SELECT value FROM service_values WHERE name = ?1");
  if (!select.ok()) return Fail(error, SqliteError(db_, select.code(), "read"));
  select.bind(1, name);
  code = sqlite3_step(select.get());
  if (code != SQLITE_ROW) return Fail(error, SqliteError(db_, code, "read"));
  *value = select.text(0);
  return true;
}

}  // namespace

std::unique_ptr<AttachmentRecords> OpenSqliteRecords(const std::string& file, ErrorRef* error) {
  sqlite3* db = nullptr;
  int code = sqlite3_open_v2(
      file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (code != SQLITE_OK) {
    Fail(error, SqliteError(db, code, fmt::format("opened at {}", file)));
    sqlite3_close(db);
    return nullptr;
  }
  auto records = std::make_unique<SqliteRecords>(db);
  sqlite3_busy_timeout(db, kBusyTimeoutMs);
  if (!records->migrate(error)) return nullptr;
  return records;
}

}  // namespace vm::internal
