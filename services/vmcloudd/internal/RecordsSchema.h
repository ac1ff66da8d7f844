#ifndef VM_SERVICES_VMCLOUDD_INTERNAL_RECORDSSCHEMA_H_
#define VM_SERVICES_VMCLOUDD_INTERNAL_RECORDSSCHEMA_H_

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "services/vmcloudd/AttachmentRecords.h"

namespace vm::internal {

// One numbered step of the records schema. The text is plain SQL that SQLite and
// PostgreSQL both accept, so the two backends can never drift apart: a database at version
// N has run exactly steps 1..N, whichever backend holds it.
struct SchemaStep {
  int version;
  std::string_view sql;
};

inline constexpr SchemaStep kSchemaSteps[] = {
    {1, R"sql(
CREATE TABLE IF NOT EXISTS attachments (
  uuid TEXT PRIMARY KEY NOT NULL,
  size BIGINT NOT NULL CHECK (size >= 0),
  state TEXT NOT NULL CHECK (state IN ('new', 'uploaded', 'deleted')),
  created_at BIGINT NOT NULL,
  updated_at BIGINT NOT NULL
);
)sql"},
    {2, R"sql(
CREATE TABLE IF NOT EXISTS service_values (
  name TEXT PRIMARY KEY NOT NULL,
  value TEXT NOT NULL
);
CREATE INDEX IF NOT EXISTS attachments_new_by_age ON attachments (created_at)
  WHERE state = 'new';
)sql"},
};

inline constexpr int kSchemaVersion = 2;

// Seconds since the epoch, the form both backends keep times in.
inline std::int64_t EpochSeconds(std::chrono::system_clock::time_point time) {
  return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}
inline std::chrono::system_clock::time_point FromEpochSeconds(std::int64_t seconds) {
  return std::chrono::system_clock::time_point(std::chrono::seconds(seconds));
}

// The states of `from` as a PostgreSQL array literal ("{new,uploaded}") or a list of
// quoted SQLite literals ("'new','uploaded'"). Built from the enum only, never from input.
std::string StateArrayLiteral(std::initializer_list<AttachmentState> from);
std::string StateListLiteral(std::initializer_list<AttachmentState> from);

std::unique_ptr<AttachmentRecords> OpenSqliteRecords(const std::string& file, ErrorRef* error);
std::unique_ptr<AttachmentRecords> OpenPostgresRecords(const std::string& uri, ErrorRef* error);

}  // namespace vm::internal

#endif  // VM_SERVICES_VMCLOUDD_INTERNAL_RECORDSSCHEMA_H_
