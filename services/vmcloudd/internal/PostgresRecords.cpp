// The records in PostgreSQL, shared by any number of service processes. Every decision
// between processes is one conditional statement that the database serialises; nothing is
// decided from a process's memory.
#include <fmt/format.h>
#include <libpq-fe.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <optional>
#include <vector>

#include "services/vmcloudd/ServiceError.h"
#include "services/vmcloudd/internal/RecordsSchema.h"

namespace vm::internal {
namespace {

// Requests served at once per process share this many connections.
constexpr std::size_t kMaxConnections = 8;
// Any constant: the key of the advisory lock that serialises schema steps across processes.
constexpr std::int64_t kSchemaLockKey = 0x766d636c6f7564;

using ResultPtr = std::unique_ptr<PGresult, decltype(&PQclear)>;

// The one place a PostgreSQL failure becomes an Error. The message never holds the
// connection URI, which may carry a password.
ErrorRef PostgresError(std::string_view action, std::string_view message) {
  std::string text(message);
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return CloudServiceError(kVMCloudServiceRecordsFailed,
                           fmt::format("The attachment records could not be {}: {}", action, text),
                           Error::WithDescription("PostgreSQL", 0, text));
}

// Runs `sql` with text parameters; null parameters are SQL NULL. Null with `*error` unless
// the statement succeeded.
ResultPtr Run(PGconn* conn, const char* sql, const std::vector<std::string>& params,
              std::string_view action, ErrorRef* error) {
  std::vector<const char*> values;
  values.reserve(params.size());
  for (const auto& param : params) values.push_back(param.c_str());
  ResultPtr result(PQexecParams(conn, sql, static_cast<int>(values.size()), nullptr, values.data(),
                                nullptr, nullptr, 0),
                   &PQclear);
  ExecStatusType status = result ? PQresultStatus(result.get()) : PGRES_FATAL_ERROR;
  if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
    Fail(error,
         PostgresError(action, result ? PQresultErrorMessage(result.get()) : PQerrorMessage(conn)));
    return ResultPtr(nullptr, &PQclear);
  }
  return result;
}

bool RunScript(PGconn* conn, std::string_view sql, std::string_view action, ErrorRef* error) {
  ResultPtr result(PQexec(conn, std::string(sql).c_str()), &PQclear);
  ExecStatusType status = result ? PQresultStatus(result.get()) : PGRES_FATAL_ERROR;
  if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
    return Fail(error, PostgresError(action, result ? PQresultErrorMessage(result.get())
                                                    : PQerrorMessage(conn)));
  }
  return true;
}

std::optional<std::int64_t> ParseInt(const char* text) {
  if (text == nullptr || *text == '\0') return std::nullopt;
  char* end = nullptr;
  errno = 0;
  long long value = std::strtoll(text, &end, 10);
  if (errno != 0 || *end != '\0') return std::nullopt;
  return value;
}

// Reads row `row` of (uuid, size, state, created_at).
bool ReadRecord(PGresult* result, int row, AttachmentRecord* record, ErrorRef* error) {
  auto size = ParseInt(PQgetvalue(result, row, 1));
  auto state = ParseAttachmentState(PQgetvalue(result, row, 2));
  auto created = ParseInt(PQgetvalue(result, row, 3));
  if (!size || *size < 0 || !state || !created) {
    return Fail(error, CloudServiceError(
                           kVMCloudServiceRecordsFailed,
                           fmt::format("The record of {} is damaged", PQgetvalue(result, row, 0))));
  }
  *record = AttachmentRecord{PQgetvalue(result, row, 0), static_cast<std::uint64_t>(*size), *state,
                             FromEpochSeconds(*created)};
  return true;
}

// A small pool: requests borrow a connection for one statement (or one transaction) and
// give it back; a connection found broken is dropped and a new one made on demand.
class ConnectionPool {
 public:
  explicit ConnectionPool(std::string uri) : uri_(std::move(uri)) {}
  ~ConnectionPool() {
    for (PGconn* conn : idle_) PQfinish(conn);
  }

  // Borrows a connection, waiting while all are in use. Null with `*error` when a new
  // connection cannot be made.
  PGconn* acquire(ErrorRef* error) {
    std::unique_lock lock(mu_);
    available_.wait(lock, [this] { return !idle_.empty() || open_ < kMaxConnections; });
    if (!idle_.empty()) {
      PGconn* conn = idle_.back();
      idle_.pop_back();
      return conn;
    }
    ++open_;
    lock.unlock();
    PGconn* conn = PQconnectdb(uri_.c_str());
    if (PQstatus(conn) != CONNECTION_OK) {
      Fail(error, PostgresError("reached", PQerrorMessage(conn)));
      PQfinish(conn);
      lock.lock();
      --open_;
      available_.notify_one();
      return nullptr;
    }
    return conn;
  }

  void release(PGconn* conn) {
    std::lock_guard lock(mu_);
    if (PQstatus(conn) == CONNECTION_OK && PQtransactionStatus(conn) == PQTRANS_IDLE) {
      idle_.push_back(conn);
    } else {
      PQfinish(conn);
      --open_;
    }
    available_.notify_one();
  }

 private:
  const std::string uri_;
  std::mutex mu_;
  std::condition_variable available_;
  std::vector<PGconn*> idle_;  // guarded by mu_
  std::size_t open_ = 0;       // connections made and not finished; guarded by mu_
};

// Borrows a connection for the scope.
class Borrowed {
 public:
  Borrowed(ConnectionPool* pool, ErrorRef* error) : pool_(pool), conn_(pool->acquire(error)) {}
  ~Borrowed() {
    if (conn_ != nullptr) pool_->release(conn_);
  }
  Borrowed(const Borrowed&) = delete;
  Borrowed& operator=(const Borrowed&) = delete;
  PGconn* get() const { return conn_; }

 private:
  ConnectionPool* pool_;
  PGconn* conn_;
};

class PostgresRecords : public AttachmentRecords {
 public:
  explicit PostgresRecords(std::string uri) : pool_(std::move(uri)) {}

  bool migrate(ErrorRef* error);

  std::string_view kind() const override { return "postgresql"; }
  bool ping(ErrorRef* error) override {
    Borrowed conn(&pool_, error);
    return conn.get() != nullptr && Run(conn.get(), "SELECT 1", {}, "read", error) != nullptr;
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
  ConnectionPool pool_;
};

bool PostgresRecords::migrate(ErrorRef* error) {
  Borrowed conn(&pool_, error);
  if (conn.get() == nullptr) return false;
  // Quiet the NOTICEs of IF NOT EXISTS; errors still come back as results.
  PQsetNoticeProcessor(
      conn.get(), [](void*, const char*) {}, nullptr);
  // Several processes may start at once: the advisory lock lets one of them run the steps
  // while the others wait and then find nothing left to do.
  if (!RunScript(conn.get(), "BEGIN", "set up", error)) return false;
  auto finish = [&](bool ok) {
    if (ok) return RunScript(conn.get(), "COMMIT", "set up", error);
    RunScript(conn.get(), "ROLLBACK", "set up", nullptr);
    return false;
  };
  if (!Run(conn.get(), "SELECT pg_advisory_xact_lock($1::bigint)", {std::to_string(kSchemaLockKey)},
           "set up", error) ||
      !RunScript(conn.get(), "CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL)",
                 "set up", error)) {
    return finish(false);
  }
  auto current = Run(conn.get(), "SELECT max(version) FROM schema_version", {}, "set up", error);
  if (!current) return finish(false);
  int version = static_cast<int>(ParseInt(PQgetvalue(current.get(), 0, 0)).value_or(0));
  for (const SchemaStep& step : kSchemaSteps) {
    if (step.version <= version) continue;
    if (!RunScript(conn.get(), step.sql, "set up", error) ||
        !Run(conn.get(), "INSERT INTO schema_version (version) VALUES ($1::integer)",
             {std::to_string(step.version)}, "set up", error)) {
      return finish(false);
    }
  }
  return finish(true);
}

bool PostgresRecords::insert(const AttachmentRecord& record, ErrorRef* error) {
  if (record.size > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    return Fail(error, CloudServiceError(kVMCloudServiceRecordsFailed,
                                         "An attachment size does not fit the records"));
  }
  Borrowed conn(&pool_, error);
  if (conn.get() == nullptr) return false;
  return Run(conn.get(),
             "INSERT INTO attachments (uuid, size, state, created_at, updated_at) "
             "VALUES ($1, $2::bigint, $3, $4::bigint, $4::bigint)",
             {record.uuid, std::to_string(record.size),
              std::string(AttachmentStateName(record.state)),
              std::to_string(EpochSeconds(record.created))},
             "written", error) != nullptr;
}

bool PostgresRecords::find(std::string_view uuid, std::optional<AttachmentRecord>* found,
                           ErrorRef* error) {
  Borrowed conn(&pool_, error);
  if (conn.get() == nullptr) return false;
  auto result =
      Run(conn.get(), "SELECT uuid, size, state, created_at FROM attachments WHERE uuid = $1",
          {std::string(uuid)}, "read", error);
  if (!result) return false;
  if (PQntuples(result.get()) == 0) {
    found->reset();
    return true;
  }
  AttachmentRecord record;
  if (!ReadRecord(result.get(), 0, &record, error)) return false;
  *found = std::move(record);
  return true;
}

bool PostgresRecords::transition(std::string_view uuid, std::initializer_list<AttachmentState> from,
                                 AttachmentState to, bool* changed, ErrorRef* error) {
  Borrowed conn(&pool_, error);
  if (conn.get() == nullptr) return false;
  auto result =
      Run(conn.get(),
          "UPDATE attachments SET state = $1, "
          "updated_at = extract(epoch from now())::bigint "
          "WHERE uuid = $2 AND state = ANY($3::text[])",
          {std::string(AttachmentStateName(to)), std::string(uuid), StateArrayLiteral(from)},
          "written", error);
  if (!result) return false;
  *changed = std::string_view(PQcmdTuples(result.get())) != "0";
  return true;
}

bool PostgresRecords::claimStale(std::chrono::system_clock::time_point cutoff, std::size_t limit,
                                 std::vector<AttachmentRecord>* claimed, ErrorRef* error) {
  claimed->clear();
  Borrowed conn(&pool_, error);
  if (conn.get() == nullptr) return false;
  // SKIP LOCKED: a sweeper in another process passes over the rows this one is taking
  // instead of waiting for them, so no record is claimed twice.
  auto result = Run(
      conn.get(),
      "UPDATE attachments SET state = 'deleted', "
      "updated_at = extract(epoch from now())::bigint "
      "WHERE state = 'new' AND uuid IN (SELECT uuid FROM attachments "
      "WHERE state = 'new' AND created_at < $1::bigint ORDER BY created_at "
      "LIMIT $2::bigint FOR UPDATE SKIP LOCKED) "
      "RETURNING uuid, size, state, created_at",
      {std::to_string(EpochSeconds(cutoff)), std::to_string(std::min<std::size_t>(limit, 1 << 20))},
      "swept", error);
  if (!result) return false;
  for (int row = 0; row < PQntuples(result.get()); ++row) {
    AttachmentRecord record;
    if (!ReadRecord(result.get(), row, &record, error)) return false;
    claimed->push_back(std::move(record));
  }
  std::sort(claimed->begin(), claimed->end(),
            [](const auto& a, const auto& b) { return a.created < b.created; });
  return true;
}

bool PostgresRecords::sharedValue(std::string_view name, std::string_view proposal,
                                  std::string* value, ErrorRef* error) {
  Borrowed conn(&pool_, error);
  if (conn.get() == nullptr) return false;
  if (!Run(conn.get(),
           "INSERT INTO service_values (name, value) VALUES ($1, $2) "
           "ON CONFLICT (name) DO NOTHING",
           {std::string(name), std::string(proposal)}, "written", error)) {
    return false;
  }
  auto result = Run(conn.get(), "SELECT value FROM service_values WHERE name = $1",
                    {std::string(name)}, "read", error);
  if (!result) return false;
  if (PQntuples(result.get()) != 1) {
    return Fail(error, PostgresError("read", fmt::format("no value named {}", name)));
  }
  *value = PQgetvalue(result.get(), 0, 0);
  return true;
}

}  // namespace

std::unique_ptr<AttachmentRecords> OpenPostgresRecords(const std::string& uri, ErrorRef* error) {
  auto records = std::make_unique<PostgresRecords>(uri);
  if (!records->migrate(error)) return nullptr;
  return records;
}

}  // namespace vm::internal
