#include "services/vmcloudd/AttachmentRecords.h"

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

}  // namespace vm
