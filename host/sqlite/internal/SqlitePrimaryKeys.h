#ifndef VM_HOST_SQLITE_INTERNAL_SQLITEPRIMARYKEYS_H_
#define VM_HOST_SQLITE_INTERNAL_SQLITEPRIMARYKEYS_H_

#include <cstdint>
#include <optional>
#include <vector>

#include "host/sqlite/SqliteDatabase.h"

namespace vm::sqlite_internal {

// Primary keys in blocks of 1000: block n gives the key n * 1000 + offset, so every key a
// copy of the database hands out leaves its offset (0-999, chosen when the data folder is
// made) as remainder. The block counter is shared by every entity and kept in the meta
// table ("nextKeyBlock"), advanced in a transaction of its own so that two processes never
// take the same block. Free functions over a connection the caller serialises. Part of the
// SQLite host; not for use outside this folder.

// Records a new data folder's offset ("primaryKeyOffset"; random when unset) and its first
// block. Runs inside the caller's transaction.
bool StartPrimaryKeys(SqliteDatabase& db, std::optional<std::int64_t> offset, ErrorRef* error);

// Takes the next `count` (at least 1) blocks' keys in one transaction, in increasing
// order; nullopt when the counter's advance did not commit (a block whose advance was not
// committed may be another process's, so it is not used).
std::optional<std::vector<std::uint64_t>> TakePrimaryKeys(SqliteDatabase& db, std::int64_t offset,
                                                          std::size_t count, ErrorRef* error);

// TakePrimaryKeys of one key.
std::optional<std::uint64_t> TakePrimaryKey(SqliteDatabase& db, std::int64_t offset,
                                            ErrorRef* error);

}  // namespace vm::sqlite_internal

#endif  // VM_HOST_SQLITE_INTERNAL_SQLITEPRIMARYKEYS_H_
