#include "services/vmcloudd/AttachmentRecords.h"

#include "services/vmcloudd/internal/RecordsSchema.h"

namespace vm {

std::string_view AttachmentStateName(AttachmentState state) {
  switch (state) {
    case AttachmentState::kNew:
      return "new";
    case AttachmentState::kUploaded:
      return "uploaded";
    case AttachmentState::kDeleted:
      return "deleted";
  }
  return "new";
}

std::optional<AttachmentState> ParseAttachmentState(std::string_view name) {
  for (AttachmentState state :
       {AttachmentState::kNew, AttachmentState::kUploaded, AttachmentState::kDeleted}) {
    if (AttachmentStateName(state) == name) return state;
  }
  return std::nullopt;
}

std::unique_ptr<AttachmentRecords> AttachmentRecords::Open(const std::string& database,
                                                           ErrorRef* error) {
  if (database.starts_with("postgresql://") || database.starts_with("postgres://")) {
    return internal::OpenPostgresRecords(database, error);
  }
  return internal::OpenSqliteRecords(database, error);
}

namespace internal {

std::string StateArrayLiteral(std::initializer_list<AttachmentState> from) {
  std::string literal = "{";
  for (AttachmentState state : from) {
    if (literal.size() > 1) literal += ",";
    literal += AttachmentStateName(state);
  }
  return literal + "}";
}

std::string StateListLiteral(std::initializer_list<AttachmentState> from) {
  std::string literal;
  for (AttachmentState state : from) {
    if (!literal.empty()) literal += ",";
    literal += "'";
    literal += AttachmentStateName(state);
    literal += "'";
  }
  return literal;
}

}  // namespace internal
}  // namespace vm
