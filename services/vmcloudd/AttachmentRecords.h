#ifndef VM_SERVICES_VMCLOUDD_ATTACHMENTRECORDS_H_
#define VM_SERVICES_VMCLOUDD_ATTACHMENTRECORDS_H_

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Error.h"

namespace vm {

// An attachment's state as the web API reports it. "new": announced, bytes not yet
// confirmed; "uploaded": bytes confirmed at the storage provider; "deleted": gone.
enum class AttachmentState { kNew, kUploaded, kDeleted };

std::string_view AttachmentStateName(AttachmentState state);
std::optional<AttachmentState> ParseAttachmentState(std::string_view name);

struct AttachmentRecord {
  std::string uuid;  // canonical upper case
  std::uint64_t size = 0;
  AttachmentState state = AttachmentState::kNew;
};

// The service's bookkeeping, one record per attachment. Every change is durable when
// the call returns, so a restart keeps everything that was answered. Implementations
// (SqliteAttachmentRecords) are safe for concurrent use from the request workers.
class AttachmentRecords {
 public:
  virtual ~AttachmentRecords() = default;

  // Fails when a record with that UUID exists already.
  virtual bool insert(const AttachmentRecord& record, ErrorRef* error) = 0;

  // Returns false only on failure; `*found` is empty when there is no such record.
  virtual bool find(std::string_view uuid, std::optional<AttachmentRecord>* found,
                    ErrorRef* error) = 0;

  // Moves the record to `to` if its state is one of `from`, atomically. `*changed` says
  // whether it did. Returns false only on failure.
  virtual bool transition(std::string_view uuid, std::initializer_list<AttachmentState> from,
                          AttachmentState to, bool* changed, ErrorRef* error) = 0;
};

}  // namespace vm

#endif  // VM_SERVICES_VMCLOUDD_ATTACHMENTRECORDS_H_
