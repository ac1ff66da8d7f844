#ifndef VM_HOST_VMATTACHMENTTRANSFERMANAGER_H_
#define VM_HOST_VMATTACHMENTTRANSFERMANAGER_H_

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Error.h"

namespace vm {

class HXFileAttachment;
class HXFileAttachmentTransferDelegate;
class Progress;
class VMAttachmentTransferHandlerProtocol;

// Operation types of a registered transfer.
inline constexpr std::uint64_t kTransferOperationUpload = 0;
inline constexpr std::uint64_t kTransferOperationDownload = 1;
inline constexpr std::uint64_t kTransferOperationDelete = 2;

// One registered transfer: the attachment, the transfer's file, the delegate, the
// operation type, the attachment identifier (the attachment UUID) and a progress object.
// Thread-safe accessors.
class VMAttachmentTransferObject {
 public:
  static std::shared_ptr<VMAttachmentTransferObject> attachmentObjectWithAttachment(
      std::shared_ptr<HXFileAttachment> attachment,
      std::shared_ptr<HXFileAttachmentTransferDelegate> delegate, std::uint64_t operation_type);

  VMAttachmentTransferObject(std::shared_ptr<HXFileAttachment> attachment,
                             std::shared_ptr<HXFileAttachmentTransferDelegate> delegate,
                             std::uint64_t operation_type, std::string attachment_id);

  const std::shared_ptr<HXFileAttachment>& attachment() const { return attachment_; }
  std::uint64_t operationType() const { return operation_type_; }

  std::filesystem::path attachmentPath() const;
  void setAttachmentPath(std::filesystem::path path);
  std::shared_ptr<HXFileAttachmentTransferDelegate> delegate() const;
  void setDelegate(std::shared_ptr<HXFileAttachmentTransferDelegate> delegate);
  std::string attachmentID() const;
  void setAttachmentID(std::string id);
  std::shared_ptr<Progress> progress() const;
  void setProgress(std::shared_ptr<Progress> progress);

 private:
  const std::shared_ptr<HXFileAttachment> attachment_;
  const std::uint64_t operation_type_;
  mutable std::mutex mu_;
  std::filesystem::path attachment_path_;
  std::shared_ptr<HXFileAttachmentTransferDelegate> delegate_;
  std::string attachment_id_;
  std::shared_ptr<Progress> progress_;
};

// The host's queue of transfers that must survive a restart. Implementations are
// thread-safe; the manager may use its collection from threads of its own, which is why
// adding to it directly takes transferObjectsMutex().
class VMAttachmentTransferManager {
 public:
  virtual ~VMAttachmentTransferManager() = default;

  // Registers the file at `*transfer_path` for `attachment`. The manager may replace the
  // path and the delegate (both in-out) and, with `can_move_file`, take the file into its
  // own folder. Returns the new transfer object, or null with `*error` set when refused.
  virtual std::shared_ptr<VMAttachmentTransferObject> registerTransferPath(
      std::string* transfer_path, const std::shared_ptr<HXFileAttachment>& attachment,
      std::shared_ptr<HXFileAttachmentTransferDelegate>* delegate, std::uint64_t operation_type,
      bool can_move_file, ErrorRef* error) = 0;
  virtual bool registerDeleteForAttachment(const std::shared_ptr<HXFileAttachment>& attachment,
                                           ErrorRef* error) = 0;
  virtual void removeTransferForAttachmentIdentifier(const std::string& attachment_id) = 0;
  virtual std::vector<std::shared_ptr<VMAttachmentTransferObject>> transfersForOperationType(
      std::uint64_t operation_type) = 0;

  // The folder under which each pending transfer has a subfolder of its own.
  virtual std::filesystem::path basepath() const = 0;

  // The queued-transfers collection. Callers that add directly hold this mutex around
  // addTransferObjectLocked().
  virtual std::mutex& transferObjectsMutex() = 0;
  virtual void addTransferObjectLocked(std::shared_ptr<VMAttachmentTransferObject> transfer) = 0;
  virtual std::vector<std::shared_ptr<VMAttachmentTransferObject>> transferObjects() = 0;

  // The handler that controls `transfer`: the handler of the scheme of the transfer's
  // attachment, when it adopts VMAttachmentTransferHandlerProtocol. Null with `*error`
  // set when the attachment, its scheme or such a handler is missing. The result stays
  // valid while the handler's scheme record is alive (the context owns both).
  static VMAttachmentTransferHandlerProtocol* transferHandlerForTransfer(
      const VMAttachmentTransferObject& transfer, ErrorRef* error);

  // Hand `transfer` to its handler's resumeTransfer, suspendTransfer or cancelTransfer and
  // return the handler's answer; false with `*error` set when there is no handler (the
  // handler's own "no" leaves `*error` alone).
  static bool resumeTransfer(const std::shared_ptr<VMAttachmentTransferObject>& transfer,
                             ErrorRef* error);
  static bool suspendTransfer(const std::shared_ptr<VMAttachmentTransferObject>& transfer,
                              ErrorRef* error);
  static bool cancelTransfer(const std::shared_ptr<VMAttachmentTransferObject>& transfer,
                             ErrorRef* error);
};

}  // namespace vm

#endif  // VM_HOST_VMATTACHMENTTRANSFERMANAGER_H_
