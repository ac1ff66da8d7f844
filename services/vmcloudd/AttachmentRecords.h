#ifndef VM_SERVICES_VMCLOUDD_ATTACHMENTRECORDS_H_
#define VM_SERVICES_VMCLOUDD_ATTACHMENTRECORDS_H_

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

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
  // When the upload was announced, by the service's clock; kept to whole seconds.
  std::chrono::system_clock::time_point created{};
};

// The service's bookkeeping, one row per attachment. Every change is one transaction that
// is durable when the call returns, so a restart keeps everything that was answered, and
// every decision between concurrent requests (two confirmations, a confirmation racing a
// deletion, two sweepers) is a conditional write that the database decides, so several
// service processes may share one database.
//
// Two backends: a SQLite file (one process) and PostgreSQL (any number of processes). Both
// run the same numbered schema steps. Implementations are thread-safe.
class AttachmentRecords {
 public:
  // Opens the records `database` names: a "postgresql://" or "postgres://" connection URI,
  // or else the path of a SQLite file (made when missing). Brings the schema up to date.
  // Null with `*error` when the database cannot be used.
  static std::unique_ptr<AttachmentRecords> Open(const std::string& database, ErrorRef* error);

  virtual ~AttachmentRecords() = default;

  // "sqlite" or "postgresql", for logs.
  virtual std::string_view kind() const = 0;

  // Runs a trivial query: true when the database answers.
  virtual bool ping(ErrorRef* error) = 0;

  // Fails when a record with that UUID exists already.
  virtual bool insert(const AttachmentRecord& record, ErrorRef* error) = 0;

  // Returns false only on failure; `*found` is empty when there is no such record.
  virtual bool find(std::string_view uuid, std::optional<AttachmentRecord>* found,
                    ErrorRef* error) = 0;

  // Moves the record to `to` if its state is one of `from`, atomically. `*changed` says
  // whether it did. Returns false only on failure.
  virtual bool transition(std::string_view uuid, std::initializer_list<AttachmentState> from,
                          AttachmentState to, bool* changed, ErrorRef* error) = 0;

  // Marks up to `limit` records that are still "new" and were announced before `cutoff` as
  // "deleted" and returns them in `*claimed`, oldest first. A record is claimed by exactly
  // one caller, whichever process it runs in. Returns false only on failure.
  virtual bool claimStale(std::chrono::system_clock::time_point cutoff, std::size_t limit,
                          std::vector<AttachmentRecord>* claimed, ErrorRef* error) = 0;

  // The value kept under `name`; when there is none yet, `proposal` is kept and returned.
  // Concurrent callers all receive the one value that was kept first.
  virtual bool sharedValue(std::string_view name, std::string_view proposal, std::string* value,
                           ErrorRef* error) = 0;
};

}  // namespace vm

#endif  // VM_SERVICES_VMCLOUDD_ATTACHMENTRECORDS_H_
