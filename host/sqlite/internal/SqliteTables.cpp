#include "host/sqlite/internal/SqliteTables.h"

#include "host/HXFileAttachment.h"
#include "host/HXFileAttachmentScheme.h"
#include "host/HXRecord.h"

namespace vm::sqlite_internal {
namespace {

constexpr EntityTable kEntityTables[] = {
    {HXFileAttachment::kEntityName, "attachments", true},
    {HXFileAttachmentScheme::kEntityName, "schemes", false},
    {HXTask::kEntityName, "tasks", true},
    {HXEmail::kEntityName, "emails", true},
};

}  // namespace

const EntityTable* TableForEntity(std::string_view entity) {
  for (const EntityTable& t : kEntityTables) {
    if (t.entity == entity) return &t;
  }
  return nullptr;
}

std::optional<std::string> ReadSetting(SqliteDatabase& db, const std::string& key) {
  auto statement = db.prepare("SELECT value FROM meta WHERE key = ?", nullptr);
  if (!statement) return std::nullopt;
  statement->bindText(1, key);
  if (!statement->step(nullptr)) return std::nullopt;
  return statement->columnText(0);
}

bool WriteSetting(SqliteDatabase& db, const std::string& key, const std::string& value,
                  ErrorRef* error) {
  auto statement = db.prepare("INSERT OR REPLACE INTO meta(key, value) VALUES (?, ?)", error);
  if (!statement) return false;
  statement->bindText(1, key);
  statement->bindText(2, value);
  return statement->run(error);
}

}  // namespace vm::sqlite_internal
