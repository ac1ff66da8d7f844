#include "host/sqlite/internal/SqlitePrimaryKeys.h"

#include <random>
#include <string>

#include "host/sqlite/internal/SqliteTables.h"

namespace vm::sqlite_internal {

bool StartPrimaryKeys(SqliteDatabase& db, std::optional<std::int64_t> offset, ErrorRef* error) {
  std::random_device entropy;
  std::int64_t chosen =
      offset.value_or(std::uniform_int_distribution<std::int64_t>(0, 999)(entropy));
  return WriteSetting(db, "primaryKeyOffset", std::to_string(chosen % 1000), error) &&
         WriteSetting(db, "nextKeyBlock", "1", error);
}

std::optional<std::uint64_t> TakePrimaryKey(SqliteDatabase& db, std::int64_t offset,
                                            ErrorRef* error) {
  if (!db.exec("BEGIN IMMEDIATE", error)) return std::nullopt;
  std::uint64_t block = std::stoull(ReadSetting(db, "nextKeyBlock").value_or("1"));
  if (!WriteSetting(db, "nextKeyBlock", std::to_string(block + 1), error) ||
      !db.exec("COMMIT", error)) {
    db.exec("ROLLBACK", nullptr);
    return std::nullopt;
  }
  return block * 1000 + static_cast<std::uint64_t>(offset);
}

}  // namespace vm::sqlite_internal
