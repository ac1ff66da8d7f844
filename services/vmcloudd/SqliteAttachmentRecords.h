#ifndef VM_SERVICES_VMCLOUDD_SQLITEATTACHMENTRECORDS_H_
#define VM_SERVICES_VMCLOUDD_SQLITEATTACHMENTRECORDS_H_

#include <filesystem>
#include <memory>
#include <mutex>

#include "services/vmcloudd/AttachmentRecords.h"

struct sqlite3;

namespace vm {

// The records in one SQLite database file; each change is one transaction.
//
// Thread-safe: one connection, used under a mutex.
class SqliteAttachmentRecords : public AttachmentRecords {
 public:
  // Opens or creates the database. Null with `*error` when the file cannot be used.
  static std::unique_ptr<SqliteAttachmentRecords> Open(const std::filesystem::path& file,
                                                       ErrorRef* error);
  ~SqliteAttachmentRecords() override;
  SqliteAttachmentRecords(const SqliteAttachmentRecords&) = delete;
  SqliteAttachmentRecords& operator=(const SqliteAttachmentRecords&) = delete;

  bool insert(const AttachmentRecord& record, ErrorRef* error) override;
  bool find(std::string_view uuid, std::optional<AttachmentRecord>* found,
            ErrorRef* error) override;
  bool transition(std::string_view uuid, std::initializer_list<AttachmentState> from,
                  AttachmentState to, bool* changed, ErrorRef* error) override;

 private:
  explicit SqliteAttachmentRecords(sqlite3* db);

  std::mutex mu_;
  sqlite3* db_;  // owned; guarded by mu_
};

}  // namespace vm

#endif  // VM_SERVICES_VMCLOUDD_SQLITEATTACHMENTRECORDS_H_
