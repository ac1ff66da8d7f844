#ifndef VM_HOST_SQLITE_INTERNAL_SQLITETABLES_H_
#define VM_HOST_SQLITE_INTERNAL_SQLITETABLES_H_

// Where the host's data lives in the schema: the table of each entity, and the meta
// table's settings. Not for use outside this folder.

#include <optional>
#include <string>
#include <string_view>

#include "host/sqlite/SqliteDatabase.h"

namespace vm::sqlite_internal {

// The table that holds an entity's records.
struct EntityTable {
  std::string_view entity;
  std::string_view table;
  bool has_visibility_flags;  // inTrash and hidden columns
};

// Null for an entity the host does not store.
const EntityTable* TableForEntity(std::string_view entity);

// The meta table: the data folder's settings, text by key. A read that fails reads as
// unset. Neither opens a transaction; the caller serialises use of the connection.
std::optional<std::string> ReadSetting(SqliteDatabase& db, const std::string& key);
bool WriteSetting(SqliteDatabase& db, const std::string& key, const std::string& value,
                  ErrorRef* error);

}  // namespace vm::sqlite_internal

#endif  // VM_HOST_SQLITE_INTERNAL_SQLITETABLES_H_
