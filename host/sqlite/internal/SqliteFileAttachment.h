#ifndef VM_HOST_SQLITE_INTERNAL_SQLITEFILEATTACHMENT_H_
#define VM_HOST_SQLITE_INTERNAL_SQLITEFILEATTACHMENT_H_

#include <atomic>
#include <cstdint>
#include <filesystem>

#include "host/HXFileAttachment.h"

namespace vm {
class SqliteObjectContext;
}  // namespace vm

namespace vm::sqlite_internal {

// The reference host's attachment record: the attributes plus the host operations (store
// through the scheme, fill missing dates from the file, re-read a row another connection
// changed). Made only by its context, which it points to without owning; like every
// record of a context, it is used no longer than the context. The read version is
// atomic; the rest is as thread-safe as HXFileAttachment. Not for use outside this folder.
class SqliteFileAttachment : public HXFileAttachment {
 public:
  explicit SqliteFileAttachment(SqliteObjectContext* context);

  // Stores the record's file through its scheme: the temporary path when set (a file
  // waiting to be stored), else the attachment path.
  bool storeAttachmentWithError(ErrorRef* error) override;
  // Fills the dates the record lacks from the stored file.
  void updateMissingDetailsFromURL(const std::filesystem::path& url) override;
  void refreshIfNeeded() override;

  // The database's data_version when the row was last read; -1 when never read.
  std::int64_t readVersion() const { return read_version_.load(); }
  void setReadVersion(std::int64_t version) { read_version_.store(version); }

 private:
  SqliteObjectContext* host_;
  std::atomic<std::int64_t> read_version_{-1};
};

}  // namespace vm::sqlite_internal

#endif  // VM_HOST_SQLITE_INTERNAL_SQLITEFILEATTACHMENT_H_
