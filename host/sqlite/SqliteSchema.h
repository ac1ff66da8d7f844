#ifndef VM_HOST_SQLITE_SQLITESCHEMA_H_
#define VM_HOST_SQLITE_SQLITESCHEMA_H_

#include "host/sqlite/SqliteDatabase.h"

namespace vm {

// The reference host's schema. Every entity table keeps its primary key in a column named
// "_rowid" and its attributes in columns named as the record attributes, so that
// qualifiers and raw SQL conditions name them directly.
//
// Version history (PRAGMA user_version):
//   1: meta, schemes, attachments.
//   2: tasks, emails, the e-mail join table, links, transfers; trash and permission flags.
inline constexpr int kSqliteSchemaVersion = 2;

// Brings the database up to `target_version` (at most kSqliteSchemaVersion), each step in
// its own transaction. A database newer than this code is refused.
bool MigrateSqliteSchema(SqliteDatabase& db, int target_version, ErrorRef* error);

}  // namespace vm

#endif  // VM_HOST_SQLITE_SQLITESCHEMA_H_
