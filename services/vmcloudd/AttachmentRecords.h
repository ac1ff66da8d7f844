#ifndef VM_SERVICES_VMCLOUDD_ATTACHMENTRECORDS_H_
#define VM_SERVICES_VMCLOUDD_ATTACHMENTRECORDS_H_

#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Error.h"

struct sqlite3;

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

// The service's bookkeeping, one row per attachment, in a SQLite database file.
// Every change is one transaction that is on disk when the call returns, so a restart
// keeps everything that was answered.
//
// Thread-safe: one connection, used under a mutex.
class AttachmentRecords {
 public:
  // Opens or creates the database. Null with `*error` when the file cannot be used.
  static std::unique_ptr<AttachmentRecords> Open(const std::filesystem::path& file,
                                                 ErrorRef* error);
  ~AttachmentRecords();
  AttachmentRecords(const AttachmentRecords&) = delete;
  AttachmentRecords& operator=(const AttachmentRecords&) = delete;

  // Fails when a record with that UUID exists already.
  bool insert(const AttachmentRecord& record, ErrorRef* error);

  // Returns false only on failure; `*found` is empty when there is no such record.
  bool find(std::string_view uuid, std::optional<AttachmentRecord>* found, ErrorRef* error);

  // Moves the record to `to` if its state is one of `from`, atomically. `*changed` says
  // whether it did. Returns false only on failure.
  bool transition(std::string_view uuid, std::initializer_list<AttachmentState> from,
                  AttachmentState to, bool* changed, ErrorRef* error);

 private:
  explicit AttachmentRecords(sqlite3* db);

  std::mutex mu_;
  sqlite3* db_;  // owned; guarded by mu_
};

}  // namespace vm

#endif  // VM_SERVICES_VMCLOUDD_ATTACHMENTRECORDS_H_
