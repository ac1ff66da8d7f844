#include "host/sqlite/internal/SqliteFetchCompiler.h"

#include <fmt/format.h>

#include <cctype>
#include <string_view>

#include "host/sqlite/internal/HostError.h"
#include "host/sqlite/internal/SqliteTables.h"

namespace vm::sqlite_internal {
namespace {

bool IsIdentifier(std::string_view key) {
  if (key.empty() || std::isdigit(static_cast<unsigned char>(key[0]))) return false;
  for (char c : key) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_') return false;
  }
  return true;
}

// Turns a qualifier into SQL with "?" placeholders. Keys name columns; values are always
// bound. IS / IS NOT give the in-memory semantics for null.
bool AppendQualifierSQL(const BDQualifier* qualifier, std::string& sql,
                        std::vector<KeyValue>& arguments, ErrorRef* error) {
  if (const auto* kv = dynamic_cast<const BDKeyValueQualifier*>(qualifier)) {
    if (!IsIdentifier(kv->key())) {
      return Fail(error, HostError(fmt::format("invalid qualifier key \"{}\"", kv->key())));
    }
    sql += fmt::format("\"{}\" {} ?", kv->key(),
                       kv->op() == BDKeyValueQualifier::Operator::kEqual ? "IS" : "IS NOT");
    arguments.push_back(kv->value());
    return true;
  }
  if (const auto* conjunction = dynamic_cast<const BDAndQualifier*>(qualifier)) {
    sql += "(1";
    for (const BDQualifierRef& part : conjunction->qualifiers()) {
      if (!part) continue;
      sql += " AND ";
      if (!AppendQualifierSQL(part.get(), sql, arguments, error)) return false;
    }
    sql += ")";
    return true;
  }
  return Fail(error, HostError("unsupported qualifier"));
}

}  // namespace

std::optional<FetchStatement> CompileFetch(const BWPFetchRequest& request, ErrorRef* error) {
  const BWPFetchSpecification& spec = request.fetchSpecification();
  const EntityTable* table = TableForEntity(spec.entityName);
  if (table == nullptr) {
    Fail(error, HostError(fmt::format("unknown entity \"{}\"", spec.entityName)));
    return std::nullopt;
  }
  FetchStatement out;
  out.sql = fmt::format("SELECT * FROM {} WHERE 1", table->table);
  if (spec.qualifier) {
    out.sql += " AND ";
    if (!AppendQualifierSQL(spec.qualifier.get(), out.sql, out.arguments, error)) {
      return std::nullopt;
    }
  }
  if (!request.rawSQLWhere().empty()) {
    out.sql += fmt::format(" AND ({})", request.rawSQLWhere());
    out.arguments.insert(out.arguments.end(), request.rawSQLArguments().begin(),
                         request.rawSQLArguments().end());
  }
  if (table->has_visibility_flags) {
    if (!request.overrideTrashSystem()) out.sql += " AND inTrash = 0";
    if (!request.overridePermissionsSystem()) out.sql += " AND hidden = 0";
  }
  out.sql += " ORDER BY _rowid";
  return out;
}

}  // namespace vm::sqlite_internal
