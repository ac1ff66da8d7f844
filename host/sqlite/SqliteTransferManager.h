#ifndef VM_HOST_SQLITE_SQLITETRANSFERMANAGER_H_
#define VM_HOST_SQLITE_SQLITETRANSFERMANAGER_H_

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "host/VMAttachmentTransferManager.h"

namespace vm {

class SqliteDatabase;
class SqliteObjectContext;

// The reference host's transfer manager. Every registration is a row of the "transfers"
// table, so that pending transfers survive a restart; a transfer whose file the manager
// may move gets a folder of its own under basepath(), named by a fresh UUID, and the file
// is moved into it under its own name (copied, flushed and renamed into place when it
// comes from another file system).
//
// An attachment has at most one download: registering another takes over the one there
// (its delegate, and its path when that changed), and load() drops later duplicate rows.
//
// Invariant: a transfer row never names a record that is not in the database. A transfer
// of a record that has not been saved yet is kept in memory and its row is written by the
// context's next saveChanges(), in the same transaction as the record; every other row is
// written at once in a transaction of its own. Rows are written under the context's lock.
//
// Thread-safe. Lock order: the context's lock before this manager's. `context` owns the
// manager and outlives it.
class SqliteTransferManager : public VMAttachmentTransferManager {
 public:
  SqliteTransferManager(SqliteObjectContext* context, std::filesystem::path basepath);

  // Loads the registrations persisted by earlier runs.
  bool load(ErrorRef* error);

  std::shared_ptr<VMAttachmentTransferObject> registerTransferPath(
      std::string* transfer_path, const std::shared_ptr<HXFileAttachment>& attachment,
      std::shared_ptr<HXFileAttachmentTransferDelegate>* delegate, std::uint64_t operation_type,
      bool can_move_file, ErrorRef* error) override;
  bool registerDeleteForAttachment(const std::shared_ptr<HXFileAttachment>& attachment,
                                   ErrorRef* error) override;
  // Forgets every transfer of the identifier and removes the folders the manager made for
  // them. Never removes basepath() itself nor anything outside it.
  void removeTransferForAttachmentIdentifier(const std::string& attachment_id) override;
  std::vector<std::shared_ptr<VMAttachmentTransferObject>> transfersForOperationType(
      std::uint64_t operation_type) override;
  // Removes the folders of the download `transfer` while they are empty, up to the shared
  // first level below the download folder, as for a finished download: a failed download
  // stays registered with nothing on the disk, and the scheme makes its folders again when
  // it is resumed. Only a private folder chain inside the download folder is touched.
  void removeEmptyDownloadFolders(const VMAttachmentTransferObject& transfer);
  std::filesystem::path basepath() const override { return basepath_; }
  std::mutex& transferObjectsMutex() override { return mu_; }
  // The row is written by the context's next saveChanges() (the caller holds mu_, and the
  // context's lock may not be taken after it).
  void addTransferObjectLocked(std::shared_ptr<VMAttachmentTransferObject> transfer) override;
  std::vector<std::shared_ptr<VMAttachmentTransferObject>> transferObjects() override;

  // What one resumed transfer came to: a null error when it finished.
  using OutcomeHandler = std::function<void(
      const std::shared_ptr<VMAttachmentTransferObject>& transfer, const ErrorRef& error)>;

  // Hands each transfer to the handler of its attachment's scheme (resumeTransfer) and
  // reports its outcome exactly once through `on_outcome`: from the thread on which the
  // handler reports (the main queue for the cloud scheme), or within this call when the
  // transfer cannot be handed over (no handler, a handler that says no, an operation type
  // other than upload, download and deletion, or a transfer file outside the folders this
  // host uses for transfers). `observer`, when not null, also
  // receives every delegate message of these transfers. The transfers and the attachments
  // report to a delegate of the manager's until their outcome; the attachment's own
  // delegate is put back then.
  void resumeTransfers(const std::vector<std::shared_ptr<VMAttachmentTransferObject>>& transfers,
                       OutcomeHandler on_outcome,
                       std::shared_ptr<HXFileAttachmentTransferDelegate> observer = nullptr);

  // For the context's saveChanges(), which holds its lock and an open transaction: writes
  // the rows kept back for records being saved now. didCommitPendingRows() is called once
  // that transaction has committed.
  bool writePendingRows(SqliteDatabase& database, ErrorRef* error);
  void didCommitPendingRows();

  // The folder under which downloads are registered (the system temporary folder's
  // "HXAttachmentCache").
  static std::filesystem::path downloadFolder();

  // Removes the work folder a scheme stores from (the system temporary folder / this
  // database's UUID / `attachment_uuid`) once its store call returned: whatever is left
  // there (the archive of a stored folder, a file no registration took) is not needed
  // again. Only a folder chain private to this user is touched.
  void removeStoreWorkFolder(const std::string& attachment_uuid);

 private:
  bool writeRow(SqliteDatabase& database, const VMAttachmentTransferObject& transfer,
                ErrorRef* error);
  // Writes the row at once, or keeps it for the next saveChanges() when the record is not
  // saved yet; then adds the transfer to the collection.
  bool persistAndAdd(const std::shared_ptr<VMAttachmentTransferObject>& transfer, ErrorRef* error);
  // The registered download of `attachment_id`, or null.
  std::shared_ptr<VMAttachmentTransferObject> downloadOf(const std::string& attachment_id);
  // Points the row and the object of `transfer` at `path`.
  bool updatePath(VMAttachmentTransferObject& transfer, const std::filesystem::path& path,
                  ErrorRef* error);
  // Whether `transfer`'s file lies where this host puts the files of its kind.
  bool hasOwnFile(const VMAttachmentTransferObject& transfer) const;

  SqliteObjectContext* const context_;
  const std::filesystem::path basepath_;
  std::mutex mu_;
  std::vector<std::shared_ptr<VMAttachmentTransferObject>> transfers_;
  // Transfers whose row waits for their record's first save; a subset of transfers_.
  std::vector<std::shared_ptr<VMAttachmentTransferObject>> pending_rows_;
  // The pending rows written by a saveChanges() whose transaction has not committed yet.
  std::size_t pending_written_ = 0;
};

}  // namespace vm

#endif  // VM_HOST_SQLITE_SQLITETRANSFERMANAGER_H_
