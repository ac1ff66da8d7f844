#ifndef VM_HOST_SQLITE_SQLITETRANSFERMANAGER_H_
#define VM_HOST_SQLITE_SQLITETRANSFERMANAGER_H_

#include <filesystem>
#include <memory>
#include <mutex>
#include <vector>

#include "host/VMAttachmentTransferManager.h"

namespace vm {

class SqliteObjectContext;

// The reference host's transfer manager. Every registration is a row of the "transfers"
// table, so that pending transfers survive a restart; a transfer whose file the manager
// may move gets a folder of its own under basepath(), named by a fresh UUID, and the file
// is moved into it under its own name.
//
// Thread-safe. `context` owns the manager and outlives it.
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
  // Forgets every transfer of the identifier and removes the folders the manager made.
  void removeTransferForAttachmentIdentifier(const std::string& attachment_id) override;
  std::vector<std::shared_ptr<VMAttachmentTransferObject>> transfersForOperationType(
      std::uint64_t operation_type) override;
  std::filesystem::path basepath() const override { return basepath_; }
  std::mutex& transferObjectsMutex() override { return mu_; }
  void addTransferObjectLocked(std::shared_ptr<VMAttachmentTransferObject> transfer) override;
  std::vector<std::shared_ptr<VMAttachmentTransferObject>> transferObjects() override;

 private:
  bool persist(const VMAttachmentTransferObject& transfer, ErrorRef* error);

  SqliteObjectContext* const context_;
  const std::filesystem::path basepath_;
  std::mutex mu_;
  std::vector<std::shared_ptr<VMAttachmentTransferObject>> transfers_;
};

}  // namespace vm

#endif  // VM_HOST_SQLITE_SQLITETRANSFERMANAGER_H_
