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

std::optional<std::vector<std::uint64_t>> TakePrimaryKeys(SqliteDatabase& db, std::int64_t offset,
                                                          std::size_t count, ErrorRef* error) {
  if (count == 0) count = 1;
  if (!db.exec("BEGIN IMMEDIATE", error)) return std::nullopt;
  std::uint64_t block = std::stoull(ReadSetting(db, "nextKeyBlock").value_or("1"));
  if (!WriteSetting(db, "nextKeyBlock", std::to_string(block + count), error) ||
      !db.exec("COMMIT", error)) {
    db.exec("ROLLBACK", nullptr);
    return std::nullopt;
  }
  std::vector<std::uint64_t> keys;
  keys.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    keys.push_back((block + i) * 1000 + static_cast<std::uint64_t>(offset));
  }
  return keys;
}

std::optional<std::uint64_t> TakePrimaryKey(SqliteDatabase& db, std::int64_t offset,
                                            ErrorRef* error) {
  std::optional<std::vector<std::uint64_t>> keys = TakePrimaryKeys(db, offset, 1, error);
  if (!keys) return std::nullopt;
  return keys->front();
}

}  // namespace vm::sqlite_internal
