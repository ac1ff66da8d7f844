#ifndef VM_VMATTACHMENTS_CLOUD_VMCATTACHMENT_H_
#define VM_VMATTACHMENTS_CLOUD_VMCATTACHMENT_H_

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "CloudClient/AuthToken.h"
#include "host/HXFileAttachment.h"
#include "host/HXFileAttachmentSchemeHandler.h"
#include "platform/Error.h"

namespace vm {

class DownloadCloudAttachmentOperation;
class HXFileAttachmentTransferDelegate;
class Log;
class OperationQueue;
class UploadCloudAttachmentOperation;
class VMAttachmentTransferObject;

// The userInfo key under which a failed decryption lists its hash problems (numbers:
// kVMCHashProblem...).
inline constexpr std::string_view kVMAttachmentHashesErrorKey = "kVMAttachmentHashesErrorKey";

// The key of an attachment's retry counter among its associated objects. Only its
// address matters; its value is that address.
extern const void* const kVMAttachmentUploadRetryContext;

// Per-record scratch counter offered to the host: lives as long as the record object, is
// never persisted, and nothing in the framework reads it. Null on a fresh record object.
std::optional<std::int64_t> retryCount(const HXFileAttachment& attachment);
void setRetryCount(HXFileAttachment& attachment, std::optional<std::int64_t> count);

// The scheme handler that keeps an attachment's bytes on the cloud attachment service:
// encrypted (BWCryptographer) with SHA-1 digests of the plain and the encrypted bytes on
// the record, registered with the host's transfer manager so that transfers survive a
// restart, and moved by the cloud operations on this handler's operation queue.
//
// Threads: the contract's calls run on the host's thread and return before any transfer
// ends; every completion hops to the main queue before it touches a record, the cache,
// the context or a delegate, so all delegate messages after a call returned arrive on the
// main queue. authToken() and operationQueue() are set during construction only;
// deletionAttachments is guarded by a mutex. A handler keeps itself alive
// (shared_from_this) while its operations run, so it must be owned by a shared_ptr.
class VMCAttachment : public HXFileAttachmentSchemeHandler,
                      public HXFileAttachmentSchemeDeletionProtocol,
                      public VMAttachmentTransferHandlerProtocol {
 public:
  static constexpr std::string_view kClassName = "VMCAttachment";

  // Operation codes of processAttachment().
  static constexpr std::int64_t kOperationEncrypt = 0;
  static constexpr std::int64_t kOperationDecrypt = 1;
  // Storage format types kept under kHXFileAttachmentStorageTypeKey.
  static constexpr std::int64_t kStorageTypePlainFile = 1;
  static constexpr std::int64_t kStorageTypeArchive = 2;
  // Hash problems listed under kVMAttachmentHashesErrorKey.
  static constexpr std::int64_t kHashProblemCrypted = 0;  // encrypted input differs
  static constexpr std::int64_t kHashProblemSource = 1;   // decrypted output differs
  static constexpr std::int64_t kHashProblemMissing = 2;  // no hash stored at all

  // The bytes read per step while processing: memory stays bounded by one such chunk and
  // one cipher output chunk.
  static constexpr std::size_t kProcessChunkSize = 1 << 20;

  // Builds the token (configureAuthToken) and the operation queue
  // (configureOperationQueue).
  explicit VMCAttachment(std::shared_ptr<HXFileAttachmentScheme> scheme);
  ~VMCAttachment() override;

  std::string className() const override { return std::string(kClassName); }

  // The class-wide logger: subsystem "com.brenwick.velmora", category "VMCAttachment".
  static Log& logger();

  // Token from VMCloudAuthentication for the context's user and customer ID; left null
  // when the host gives no token text.
  void configureAuthToken();
  // A fresh queue with no concurrency limit.
  void configureOperationQueue();

  // The attachment whose attachmentUUID is `uuid`: from the context's instance cache,
  // else from a fetch that also finds hidden and trashed records, run a second time at
  // once when it finds nothing. The last match wins. Null when there is none.
  std::shared_ptr<HXFileAttachment> attachmentForAttachmentUUID(const std::string& uuid);
  // Removes the attachment's transfer from its context's transfer manager.
  void cleanUpForAttachment(const std::shared_ptr<HXFileAttachment>& attachment);
  bool canRunInBackground() const { return true; }

  // Host-provided map of attachments whose bytes are being deleted, by data identifier.
  // Null until the host sets one; the handler only ever removes entries from it.
  using DeletionAttachments = std::map<DataIdentifier, std::shared_ptr<HXFileAttachment>>;
  std::optional<DeletionAttachments> deletionAttachments() const;
  void setDeletionAttachments(std::optional<DeletionAttachments> attachments);
  // Removes one entry; nothing happens when no map was set.
  void removeDeletionAttachment(const DataIdentifier& data_identifier);

  const std::optional<AuthToken>& authToken() const { return auth_token_; }
  const std::shared_ptr<OperationQueue>& operationQueue() const { return operation_queue_; }

  // --- Processing: encryption and hashes ---

  // Streams `source` through the cipher into `destination` (an existing regular file,
  // written from its start) in 1 MiB reads, hashing input and output in the same pass.
  // Encrypting (kOperationEncrypt) records encryptionData and both digests on the record.
  // Decrypting (kOperationDecrypt) checks both digests; hash problems fail only when
  // `error` is given (the list under kVMAttachmentHashesErrorKey), otherwise the call
  // succeeds. A tag that does not verify always fails. The output stays in `destination`
  // in every case. Errors: domain kVMFileAttachmentDomain, code 1000.
  bool processAttachment(const std::shared_ptr<HXFileAttachment>& attachment,
                         const std::filesystem::path& source_url,
                         const std::filesystem::path& destination_url, std::int64_t operation,
                         ErrorRef* error);
  // Decrypts a downloaded file through a work file in the temporary folder and puts the
  // result at `to_cache_url`: a plain file is moved there and renamed to the record's name
  // ("/" becomes ":") with its dates set; an archive is unpacked into a folder there.
  // Throws InternalInconsistencyException for an unknown storage type.
  bool saveDownloadedAttachment(const std::shared_ptr<HXFileAttachment>& attachment,
                                const std::filesystem::path& downloaded_url,
                                const std::filesystem::path& to_cache_url, ErrorRef* error);

  // --- Storing (upload path) ---

  // Packs a directory or bundle, encrypts into the work file "crypt" and registers it as
  // an upload; YES once registered. Failures go to `error` and, as gotCriticalError, to
  // the delegate.
  bool storeFile(const std::filesystem::path& file, const std::string& at_path,
                 const std::shared_ptr<HXFileAttachment>& attachment,
                 const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate,
                 ErrorRef* error) override;
  // Queues the upload of a registered transfer; its completion (main queue) marks the
  // record uploaded under the service's UUID and moves the cached copy.
  void createUploadOperationForTransferObject(
      const std::shared_ptr<VMAttachmentTransferObject>& transfer,
      const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate);
  // createUploadOperationForTransferObject with the transfer's own delegate; YES.
  bool resumeUpload(const std::shared_ptr<VMAttachmentTransferObject>& transfer);

  // --- Retrieving (download path and cache) ---

  // Registers and starts the download of an uploaded attachment into the host cache;
  // `to_path` is not used.
  bool retrieveAttachment(const std::shared_ptr<HXFileAttachment>& attachment,
                          const std::filesystem::path& to_path,
                          const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate,
                          ErrorRef* error) override;
  void createDownloadOperationForTransferObject(
      const std::shared_ptr<VMAttachmentTransferObject>& transfer,
      const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate);

  // --- Deletion and transfer control ---

  // The record's attachmentUUID (empty when it has none).
  DataIdentifier dataIdentifierForDeletionForAttachment(
      const std::shared_ptr<HXFileAttachment>& attachment) override;
  bool deleteAttachment(const std::shared_ptr<HXFileAttachment>& attachment,
                        const DataIdentifier& data_identifier,
                        const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate,
                        ErrorRef* error) override;
  // Starts the transfer by its operation type (0 upload, 1 download, 2 deletion; others
  // nothing); always YES.
  bool resumeTransfer(const std::shared_ptr<VMAttachmentTransferObject>& transfer) override;
  // Does nothing; YES.
  bool suspendTransfer(const std::shared_ptr<VMAttachmentTransferObject>& transfer) override;
  // Does nothing; NO. Queued or running operations are never cancelled through here.
  bool cancelTransfer(const std::shared_ptr<VMAttachmentTransferObject>& transfer) override;

  // Cloud bytes cannot be opened in place: always nullopt.
  std::optional<std::filesystem::path> attachmentURL(
      const std::shared_ptr<HXFileAttachment>& attachment) override;
  // The record's own modifyDate.
  std::optional<Date> attachmentModifyDate(
      const std::shared_ptr<HXFileAttachment>& attachment) override;

 private:
  // Completions of the transfer operations, on the main operation queue.
  void uploadFinished(const UploadCloudAttachmentOperation& operation,
                      const std::shared_ptr<HXFileAttachment>& attachment);
  void downloadFinished(const DownloadCloudAttachmentOperation& operation,
                        const std::shared_ptr<VMAttachmentTransferObject>& transfer,
                        const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate);
  // A download whose transfer file cannot be made ready: logged, written to `error`, told
  // to the record's own delegate; false.
  bool failPreparingDownload(const std::shared_ptr<HXFileAttachment>& attachment, ErrorRef cause,
                             ErrorRef* error);
  // resumeTransfer() of a registered deletion.
  void resumeDeletion(const std::shared_ptr<VMAttachmentTransferObject>& transfer);

  std::optional<AuthToken> auth_token_;
  std::shared_ptr<OperationQueue> operation_queue_;

  mutable std::mutex deletion_mu_;
  std::optional<DeletionAttachments> deletion_attachments_;
};

// Registers VMCAttachment with HXSchemeHandlerRegistry::shared(). Safe to call more than
// once and from any thread.
void RegisterCloudSchemeClasses();

}  // namespace vm

#endif  // VM_VMATTACHMENTS_CLOUD_VMCATTACHMENT_H_
