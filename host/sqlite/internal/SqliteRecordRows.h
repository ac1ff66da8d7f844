#ifndef VM_HOST_SQLITE_INTERNAL_SQLITERECORDROWS_H_
#define VM_HOST_SQLITE_INTERNAL_SQLITERECORDROWS_H_

#include <cstdint>
#include <functional>
#include <memory>

#include "host/HXFileAttachment.h"
#include "host/HXFileAttachmentScheme.h"
#include "host/HXRecord.h"
#include "host/sqlite/SqliteDatabase.h"

namespace vm::sqlite_internal {

// How the host's records map to rows of their tables: dates are nanoseconds since the
// epoch, an attachment's keyed values one JSON text. Free functions without state of their
// own; the caller serialises use of the connection and of the record. Part of the SQLite
// host; not for use outside this folder.

// Looks up an attachment's scheme by primary key while a row is applied; null when there is
// none (the attachment then keeps the bare ID).
using SchemeLookup = std::function<std::shared_ptr<HXFileAttachmentScheme>(std::uint64_t)>;

// Writes `record` to its table: a new row, or an update of the row with its key.
bool WriteRecordRow(SqliteDatabase& db, HXRecord& record, ErrorRef* error);

// Sets the record's attributes to those of `row` (all columns of its table) and clears its
// changes. Keyed values the row no longer has are dropped.
void ApplyRecordRow(SqliteStatement& row, HXRecord& record, const SchemeLookup& scheme_for_key);

// The date of a stored count of nanoseconds since the epoch.
Date DateFromNanoseconds(std::int64_t ns);

}  // namespace vm::sqlite_internal

#endif  // VM_HOST_SQLITE_INTERNAL_SQLITERECORDROWS_H_
