#ifndef VM_HOST_SQLITE_INTERNAL_SQLITEFETCHCOMPILER_H_
#define VM_HOST_SQLITE_INTERNAL_SQLITEFETCHCOMPILER_H_

#include <optional>
#include <string>
#include <vector>

#include "host/Fetch.h"
#include "host/HXRecord.h"
#include "platform/Error.h"

namespace vm::sqlite_internal {

// A fetch request as one SELECT of its entity's table, rows in primary-key order. Part of
// the SQLite host; not for use outside this folder.
struct FetchStatement {
  std::string sql;  // "?" placeholders, bound in order
  std::vector<KeyValue> arguments;
};

// Turns the request's qualifier and raw SQL condition into the statement's WHERE clause,
// and leaves out rows in the trash or hidden unless the request overrides that. Qualifier
// keys name columns and must be plain identifiers; values are always bound, never spliced
// in. Nullopt with `*error` set for an unknown entity or a qualifier SQL cannot express.
// A pure function: thread-safe.
std::optional<FetchStatement> CompileFetch(const BWPFetchRequest& request, ErrorRef* error);

}  // namespace vm::sqlite_internal

#endif  // VM_HOST_SQLITE_INTERNAL_SQLITEFETCHCOMPILER_H_
