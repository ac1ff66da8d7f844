// Storing, retrieving, deletion and transfer control of the cloud scheme. The contract's
// calls prepare and register work and queue cloud operations; every completion moves to
// the main operation queue before it touches a record, the cache, the context or a
// delegate.
//
// Who hears what is kept as the host expects it, asymmetries included ("given" is the
// delegate passed to the call, or the one the transfer manager put in its place; "record"
// is the attachment's own delegate):
//   store:    every failure -> given, gotCriticalError, and the out-pointer
//   upload:   start -> given; success and failure -> record
//   retrieve: not uploaded -> given, later on the main queue, out-pointer untouched;
//             registration refused -> record, out-pointer untouched; stale transfer file
//             not removable -> record and the out-pointer; start, outcome -> given
//   delete:   registration refused -> given, gotCriticalError, and the out-pointer;
//             start -> given; outcome -> record (a resumed deletion: start -> the
//             transfer's delegate, outcome -> record)
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

#include "BWFoundation/BWFileManagerAdditions.h"
#include "VMAttachments/CloudAttachmentOperation.h"
#include "VMAttachments/archive/VMArchiver.h"
#include "VMAttachments/cloud/VMCAttachment.h"
#include "VMAttachments/schemes/VMAttachmentSchemesBundle.h"
#include "host/HXAttachmentCache.h"
#include "host/HXFileAttachmentScheme.h"
#include "host/HXFileAttachmentTransferDelegate.h"
#include "host/HXObjectContext.h"
#include "host/HostConstants.h"
#include "host/VMAttachmentTransferManager.h"
#include "platform/DispatchQueue.h"
#include "platform/Log.h"
#include "platform/Operation.h"
#include "platform/OwnerLock.h"
#include "platform/SafeNames.h"
#include "platform/UniqueID.h"

namespace vm {
namespace {

namespace fs = std::filesystem;

constexpr std::int64_t kNotUploadedCode = 202;
constexpr std::int64_t kDownloadCode = 300;
constexpr std::int64_t kStoreCode = 301;
constexpr std::int64_t kCacheFolderCode = 401;
constexpr std::int64_t kDeletionCode = 950;

constexpr char kCryptFileName[] = "crypt";
constexpr char kDownloadFileName[] = "vmattachmentdownload";
constexpr char kDownloadFolderName[] = "HXAttachmentCache";

ErrorRef SchemeError(std::int64_t code, std::string_view description,
                     ErrorRef underlying = nullptr) {
  return Error::WithDescription(kVMFileAttachmentDomain, code, description, std::move(underlying));
}

std::string DescribeError(const ErrorRef& error) { return error ? error->summary() : "(null)"; }

// How log lines show an operation: its class and address.
std::string DescribeOperation(std::string_view class_name, const void* operation) {
  return fmt::format("<{}: {}>", class_name, operation);
}

// Makes the folders of `below` inside `base` (which must exist), one by one, readable by
// the owner only: work files hold the user's bytes, some of them still plain. The
// temporary folder may be shared with other users, so a folder that is already there must
// be a directory of our own (not a link, not someone else's).
bool MakePrivateFolders(const fs::path& base, const fs::path& below, ErrorRef* error) {
  fs::path made = base;
  for (const fs::path& component : below) {
    made /= component;
    if (::mkdir(made.c_str(), 0700) == 0) continue;
    const int failure = errno;
    if (failure != EEXIST) return Fail(error, PosixError(failure, made));
    struct stat info {};
    if (::lstat(made.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != ::geteuid()) {
      return Fail(error, PosixError(EACCES, made));
    }
  }
  return true;
}

// Tries so many times to make a store's work folder that other processes' reclaiming
// does not pull its parent from under it; each try loses only to a reclaimer acting in
// the instant between making the parent and making the work folder.
constexpr int kWorkFolderAttempts = 5;

// An empty file at `path`, truncated when it exists.
bool MakeEmptyFile(const fs::path& path) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  ::close(fd);
  return true;
}

void RunOnMainOperationQueue(std::function<void()> block) {
  OperationQueue::mainQueue().addOperationWithBlock(std::move(block));
}

VMAttachmentTransferManager* TransferManagerOf(const HXFileAttachment& attachment) {
  HXObjectContext* context = attachment.vmpObjectContext();
  return context ? context->attachmentTransferManager() : nullptr;
}

}  // namespace

// --- Storing ---

bool VMCAttachment::storeFile(const fs::path& file, const std::string& /*at_path*/,
                              const std::shared_ptr<HXFileAttachment>& attachment,
                              const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate,
                              ErrorRef* error) {
  // Every failure goes to the out-pointer and, critically, to the delegate: the one given,
  // or the one the transfer manager put in its place once it has been asked.
  std::shared_ptr<HXFileAttachmentTransferDelegate> told = delegate;
  auto fail = [&](std::string_view description, ErrorRef underlying) {
    ErrorRef failure = SchemeError(kStoreCode, description, std::move(underlying));
    Fail(error, failure);
    if (told) told->gotCriticalError(this, failure);
    return false;
  };

  // The work folder is named after the database and the record's identity, each of which
  // must stay one folder name inside the temporary folder.
  std::error_code ec;
  const fs::path temporary = fs::temp_directory_path(ec);
  // Without a temporary folder the path would be relative to wherever the host runs.
  ErrorRef folder_error = ec ? PosixError(ec) : nullptr;
  HXObjectContext* context = attachment ? attachment->objectContext() : nullptr;
  const std::string database = context ? context->databaseUUID() : "";
  const std::string uuid = attachment ? attachment->attachmentUUID().value_or("") : "";
  if (!folder_error) folder_error = CheckFileName(database, "database UUID");
  if (!folder_error) folder_error = CheckFileName(uuid, "attachment UUID");
  const fs::path below = fs::path(database) / uuid;
  const fs::path work_folder = temporary / below;

  // Held while this call writes there, so that no host reclaims the folder as abandoned.
  // The database's folder is shared and owned by nobody: another process's reclaiming may
  // remove it in the moment it is empty, between making it and making the work folder in
  // it, so both are made again then; a held work folder keeps it.
  OwnerLock work_lock;
  auto prepare_work_folder = [&] {
    if (work_lock.held()) return true;
    if (folder_error) return false;
    for (int attempt = 0; attempt < kWorkFolderAttempts && !work_lock.held(); ++attempt) {
      folder_error = nullptr;
      if (MakePrivateFolders(temporary, below, &folder_error)) {
        work_lock = OwnerLock::HoldFolder(work_folder, &folder_error);
      }
    }
    return work_lock.held();
  };

  std::int64_t storage_type = kStorageTypePlainFile;
  fs::path source = file;
  if (bwIsBundleAtURL(file)) {
    storage_type = kStorageTypeArchive;
    if (!prepare_work_folder()) {
      return fail("Error trying to create temporary directory to archive path", folder_error);
    }
    source = work_folder / uuid;
    // Asked with an out-pointer so that an item that cannot be packed fails the store; the
    // error itself is not passed on. That way of asking refuses an existing archive, so
    // what an earlier failed store of this attachment left goes first (the folder is our
    // own, checked above), or the attachment could never be stored again.
    std::error_code stale_error;
    fs::remove(source, stale_error);
    ErrorRef archive_error;
    if (!VMArchiver::archiveFilesInDirectory(file, source, &archive_error)) {
      return fail("Could not compress directory/bundle for storing attachment", nullptr);
    }
  }
  if (!prepare_work_folder()) {
    return fail("Error trying to create temporary directory to process file", folder_error);
  }
  const fs::path crypt = work_folder / kCryptFileName;
  if (!MakeEmptyFile(crypt)) {
    // The folder step's error, which is null once the folder exists.
    return fail("Error trying to create temporary file to process attachment", folder_error);
  }
  attachment->setObject(KeyedValue(storage_type), kHXFileAttachmentStorageTypeKey);

  ErrorRef process_error;
  if (!processAttachment(attachment, source, crypt, kOperationEncrypt, &process_error)) {
    return fail("Error processing attachment", process_error);
  }
  attachment->setFileAttachmentScheme(fileAttachmentScheme());

  std::string transfer_path = crypt.string();
  ErrorRef manager_error;
  std::shared_ptr<VMAttachmentTransferObject> transfer;
  if (VMAttachmentTransferManager* manager = TransferManagerOf(*attachment)) {
    transfer = manager->registerTransferPath(&transfer_path, attachment, &told,
                                             kTransferOperationUpload, true, &manager_error);
  }
  if (!transfer) return fail("Could not register upload with transfer manager", manager_error);
  return true;
}

void VMCAttachment::createUploadOperationForTransferObject(
    const std::shared_ptr<VMAttachmentTransferObject>& transfer,
    const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate) {
  if (!transfer) return;
  auto operation = std::make_shared<UploadCloudAttachmentOperation>(
      authToken().value_or(AuthToken("")), transfer->attachmentPath());
  transfer->setProgress(operation->progress());
  std::shared_ptr<HXFileAttachment> attachment = transfer->attachment();
  auto self = std::static_pointer_cast<VMCAttachment>(shared_from_this());
  // The completion runs after the queue may have let go of the operation, so it holds the
  // operation itself; the block is released once it ran, which ends that cycle.
  operation->setCompletionBlock([operation, self, attachment] {
    logger().info("Transfer finished: Operation {}",
                  DescribeOperation("UploadCloudAttachmentOperation", operation.get()));
    RunOnMainOperationQueue(
        [operation, self, attachment] { self->uploadFinished(*operation, attachment); });
  });
  operationQueue()->addOperation(operation);
  if (delegate) delegate->willSendAttachment(this, attachment);
}

void VMCAttachment::uploadFinished(const UploadCloudAttachmentOperation& operation,
                                   const std::shared_ptr<HXFileAttachment>& attachment) {
  if (!attachment) return;
  if (operation.failed()) {
    logger().error("Transfer failed. Error {}", DescribeError(operation.error()));
    SendGotError(attachment->delegate().get(), this, operation.error());
    return;
  }
  logger().info("Transfer Successful");
  // What the database holds until the save below: put back when that save fails.
  const std::optional<bool> old_uploaded = attachment->uploaded();
  const std::optional<std::string> old_temporary_path = attachment->temporaryPath();
  const std::optional<std::string> old_initial_uuid = attachment->initialAttachmentUUID();
  const std::optional<std::string> old_uuid = attachment->attachmentUUID();
  attachment->setUploaded(true);
  attachment->setTemporaryPath(std::nullopt);
  attachment->setInitialAttachmentUUID(attachment->attachmentUUID());
  std::shared_ptr<HXAttachmentCache> cache = HXAttachmentCache::sharedCache();
  // Computed while the record still bears its local identity. Empty when that identity
  // names no cache folder (a hostile row): such a record has no cached copy to move.
  const fs::path old_location = cache ? cache->absoluteFilePathForObject(*attachment) : fs::path();
  if (std::optional<std::string> uuid = operation.attachmentUUID()) {
    attachment->setAttachmentUUID(ToLower(*uuid));
  }
  fs::path new_location;
  bool moved = false;
  if (cache && !old_location.empty()) {
    new_location = cache->absoluteFilePathForObject(*attachment);
    // An attachment without a cached copy has nothing to move: both errors are ignored.
    std::error_code ec;
    if (!new_location.empty()) {
      fs::create_directories(new_location.parent_path(), ec);
      fs::rename(old_location, new_location, ec);
      moved = !ec;
    }
  }
  ErrorRef save_error;
  HXObjectContext* context = attachment->vmpObjectContext();
  if (context != nullptr && !context->saveChanges(&save_error)) {
    // The database still knows the record by its earlier identity, not uploaded. The
    // record and its cached copy go back to that identity and the upload stays
    // registered, so that a resume, or recovery once the registration is lost, finds
    // them; the bytes the service took are not referred to by anything.
    logger().error("Could not save attachment {} after its upload. Error {}",
                   attachment->description(), DescribeError(save_error));
    if (moved) {
      std::error_code ignored;
      fs::rename(new_location, old_location, ignored);
    }
    attachment->setAttachmentUUID(old_uuid);
    attachment->setInitialAttachmentUUID(old_initial_uuid);
    attachment->setTemporaryPath(old_temporary_path);
    attachment->setUploaded(old_uploaded);
    SendGotError(
        attachment->delegate().get(), this,
        SchemeError(kStoreCode, "Could not save the attachment after its upload", save_error));
    return;
  }
  // Registered under the identity the record had when it was stored.
  if (VMAttachmentTransferManager* manager = TransferManagerOf(*attachment)) {
    manager->removeTransferForAttachmentIdentifier(old_uuid.value_or(""));
  }
  if (auto record_delegate = attachment->delegate()) {
    record_delegate->finishedTransferForAttachment(this, attachment);
  }
}

bool VMCAttachment::resumeUpload(const std::shared_ptr<VMAttachmentTransferObject>& transfer) {
  if (transfer) createUploadOperationForTransferObject(transfer, transfer->delegate());
  return true;
}

// --- Retrieving ---

bool VMCAttachment::retrieveAttachment(
    const std::shared_ptr<HXFileAttachment>& attachment, const fs::path& /*to_path*/,
    const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate, ErrorRef* error) {
  if (!attachment) return false;
  auto self = std::static_pointer_cast<VMCAttachment>(shared_from_this());
  if (attachment->uploaded() != std::optional<bool>(true)) {
    ErrorRef not_uploaded =
        SchemeError(kNotUploadedCode, VMLocalizedString("File not yet uploaded."));
    MainQueue::shared().async(
        [self, delegate, not_uploaded] { SendGotError(delegate.get(), self.get(), not_uploaded); });
    return false;
  }

  // The record's identity names the download folder; one that is not a plain folder name
  // is refused like a download that cannot be prepared.
  std::shared_ptr<HXAttachmentCache> cache = HXAttachmentCache::sharedCache();
  const std::optional<std::string> uuid = attachment->attachmentUUID();
  std::error_code ec;
  fs::path download_folder = fs::temp_directory_path(ec) / kDownloadFolderName;
  if (ec) return failPreparingDownload(attachment, PosixError(ec), error);
  if (cache) {
    // Made from the record's values too: a folder that climbs out is refused.
    const std::string relative = cache->relativeFilePathForObject(*attachment);
    if (ErrorRef refused = CheckRelativePath(relative, "cache folder")) {
      return failPreparingDownload(attachment, refused, error);
    }
    download_folder /= relative;
  }
  if (uuid) {
    if (ErrorRef refused = CheckFileName(*uuid, "attachment UUID")) {
      return failPreparingDownload(attachment, refused, error);
    }
    download_folder /= *uuid;
  }
  std::string transfer_path = (download_folder / kDownloadFileName).string();

  std::shared_ptr<HXFileAttachmentTransferDelegate> used_delegate = delegate;
  ErrorRef manager_error;
  std::shared_ptr<VMAttachmentTransferObject> transfer;
  if (VMAttachmentTransferManager* manager = TransferManagerOf(*attachment)) {
    transfer = manager->registerTransferPath(&transfer_path, attachment, &used_delegate,
                                             kTransferOperationDownload, false, &manager_error);
  }
  if (!transfer) {
    // Told to the record's own delegate; the out-pointer stays untouched on purpose.
    SendGotError(attachment->delegate().get(), this,
                 SchemeError(kDownloadCode, "Could not register download with transfer manager",
                             manager_error));
    return false;
  }
  if (fs::exists(fs::symlink_status(transfer_path, ec))) {
    fs::remove_all(transfer_path, ec);
    if (ec) return failPreparingDownload(attachment, PosixError(ec, transfer_path), error);
  }
  createDownloadOperationForTransferObject(transfer, used_delegate);
  return true;
}

bool VMCAttachment::failPreparingDownload(const std::shared_ptr<HXFileAttachment>& attachment,
                                          ErrorRef cause, ErrorRef* error) {
  logger().error("failed to prepare attachment for download - {}", DescribeError(cause));
  ErrorRef failure = SchemeError(
      kDownloadCode, VMLocalizedString("failed to prepare attachment for download"), cause);
  Fail(error, failure);
  SendGotError(attachment->delegate().get(), this, failure);
  return false;
}

void VMCAttachment::createDownloadOperationForTransferObject(
    const std::shared_ptr<VMAttachmentTransferObject>& transfer,
    const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate) {
  if (!transfer) return;
  std::shared_ptr<HXFileAttachment> attachment = transfer->attachment();
  auto self = std::static_pointer_cast<VMCAttachment>(shared_from_this());
  std::optional<std::string> uuid = attachment && attachment->attachmentUUID()
                                        ? ParseUUID(*attachment->attachmentUUID())
                                        : std::nullopt;
  if (!uuid) {
    // Nothing to ask the service for: the transfer stays registered, as after any failure.
    ErrorRef failure = PosixError(EINVAL);
    MainQueue::shared().async(
        [self, delegate, failure] { SendGotError(delegate.get(), self.get(), failure); });
    return;
  }
  // The operation writes beside the transfer path, so its folder must be there (again,
  // after a restart that emptied the temporary folder). Inside the temporary folder it must
  // be our own, or the download does not start.
  std::error_code ec;
  const fs::path temporary = fs::temp_directory_path(ec);
  const fs::path folder = transfer->attachmentPath().parent_path();
  const fs::path below = folder.lexically_relative(temporary);
  ErrorRef folder_error;
  const bool in_temporary = !ec && !below.empty() && *below.begin() != "..";
  if (in_temporary && !MakePrivateFolders(temporary, below, &folder_error)) {
    MainQueue::shared().async(
        [self, delegate, folder_error] { SendGotError(delegate.get(), self.get(), folder_error); });
    return;
  }
  // A process that died after its bytes arrived left them at the transfer path, where the
  // new download could not be put. They are fetched again rather than trusted: a copy cut
  // short across file systems looks the same. Only our own folder is cleared this way.
  if (in_temporary && fs::is_regular_file(fs::symlink_status(transfer->attachmentPath(), ec))) {
    fs::remove(transfer->attachmentPath(), ec);
  }
  auto operation = std::make_shared<DownloadCloudAttachmentOperation>(
      authToken().value_or(AuthToken("")), *uuid, transfer->attachmentPath());
  transfer->setProgress(operation->progress());
  operation->setCompletionBlock([operation, self, transfer, delegate] {
    RunOnMainOperationQueue([operation, self, transfer, delegate] {
      self->downloadFinished(*operation, transfer, delegate);
    });
  });
  operationQueue()->addOperation(operation);
  if (delegate) delegate->willReceiveAttachment(this, attachment, operation->progress());
}

void VMCAttachment::downloadFinished(
    const DownloadCloudAttachmentOperation& operation,
    const std::shared_ptr<VMAttachmentTransferObject>& transfer,
    const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate) {
  logger().info("Finished download");
  if (operation.failed()) {
    // The transfer stays registered, so that it can be resumed.
    SendGotError(delegate.get(), this, operation.error());
    return;
  }
  const std::shared_ptr<HXFileAttachment>& attachment = transfer->attachment();
  std::shared_ptr<HXAttachmentCache> cache = HXAttachmentCache::sharedCache();
  const fs::path cache_folder = cache ? cache->absoluteFilePathForObject(*attachment) : fs::path();
  std::error_code ec;
  if (cache_folder.empty()) ec = std::make_error_code(std::errc::invalid_argument);
  if (!ec) fs::create_directories(cache_folder, ec);
  if (ec) {
    if (delegate) {
      delegate->gotCriticalError(
          this,
          SchemeError(kCacheFolderCode, "Unable to create directory for cache file for attachment",
                      PosixError(ec, cache_folder)));
    }
    return;
  }

  ErrorRef save_error;
  bool saved = false;
  try {
    saved = saveDownloadedAttachment(attachment, transfer->attachmentPath(),
                                     cache_folder / MakeUniqueID(), &save_error);
  } catch (const std::exception& exception) {
    logger().error("failed to create download operation - {}", exception.what());
    save_error = SchemeError(kDownloadCode, exception.what());
  } catch (...) {
    cleanUpForAttachment(attachment);
    throw;
  }
  cleanUpForAttachment(attachment);
  if (saved) {
    if (delegate) delegate->finishedTransferForAttachment(this, attachment);
  } else {
    SendGotError(delegate.get(), this,
                 SchemeError(kDownloadCode, "Failed to save downloaded file.", save_error));
  }
}

// --- Deletion and transfer control ---

DataIdentifier VMCAttachment::dataIdentifierForDeletionForAttachment(
    const std::shared_ptr<HXFileAttachment>& attachment) {
  return attachment ? attachment->attachmentUUID().value_or("") : "";
}

bool VMCAttachment::deleteAttachment(
    const std::shared_ptr<HXFileAttachment>& attachment, const DataIdentifier& data_identifier,
    const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate, ErrorRef* error) {
  if (!attachment || !attachment->attachmentUUID()) return true;  // nothing was stored
  auto fail = [&](std::string_view description, ErrorRef underlying) {
    ErrorRef failure = SchemeError(kDeletionCode, description, std::move(underlying));
    Fail(error, failure);
    if (delegate) delegate->gotCriticalError(this, failure);
    return false;
  };
  DataIdentifier identifier = data_identifier;
  if (identifier.empty()) {
    // Unreachable after the first check; kept as the guard it is. The spelling is the
    // host's text.
    if (!attachment) return fail("No attachment and/or data indentifier provided.", nullptr);
    identifier = *attachment->attachmentUUID();
  }
  ErrorRef manager_error;
  VMAttachmentTransferManager* manager = TransferManagerOf(*attachment);
  if (!manager || !manager->registerDeleteForAttachment(attachment, &manager_error)) {
    return fail("Could not register delete with transfer manager", manager_error);
  }

  auto self = std::static_pointer_cast<VMCAttachment>(shared_from_this());
  std::optional<std::string> uuid = ParseUUID(*attachment->attachmentUUID());
  if (!uuid) {
    // Not a UUID the service could know; reported like a failed operation, and the
    // deletion stays registered.
    ErrorRef failure = PosixError(EINVAL);
    RunOnMainOperationQueue([self, attachment, failure] {
      SendGotError(attachment->delegate().get(), self.get(), failure);
    });
    if (delegate) delegate->willSendAttachment(this, attachment);
    return true;
  }
  auto operation =
      std::make_shared<DeleteCloudAttachmentOperation>(authToken().value_or(AuthToken("")), *uuid);
  operation->setCompletionBlock([operation, self, attachment, identifier] {
    logger().info("Delete finished: Operation {}",
                  DescribeOperation("DeleteCloudAttachmentOperation", operation.get()));
    RunOnMainOperationQueue([operation, self, attachment, identifier] {
      if (operation->failed()) {
        logger().error("Deletion failed. Error {}", DescribeError(operation->error()));
        SendGotError(attachment->delegate().get(), self.get(), operation->error());
        return;
      }
      logger().info("Deletion Successful");
      self->cleanUpForAttachment(attachment);
      if (auto record_delegate = attachment->delegate()) {
        record_delegate->finishedTransferForAttachment(self.get(), attachment);
      }
      self->removeDeletionAttachment(identifier);
    });
  });
  if (delegate) delegate->willSendAttachment(this, attachment);
  operationQueue()->addOperation(operation);
  return true;
}

bool VMCAttachment::resumeTransfer(const std::shared_ptr<VMAttachmentTransferObject>& transfer) {
  if (!transfer) return true;
  switch (transfer->operationType()) {
    case kTransferOperationUpload:
      createUploadOperationForTransferObject(transfer, transfer->delegate());
      break;
    case kTransferOperationDownload:
      createDownloadOperationForTransferObject(transfer, transfer->delegate());
      break;
    case kTransferOperationDelete:
      resumeDeletion(transfer);
      break;
    default:
      break;
  }
  return true;
}

void VMCAttachment::resumeDeletion(const std::shared_ptr<VMAttachmentTransferObject>& transfer) {
  auto self = std::static_pointer_cast<VMCAttachment>(shared_from_this());
  std::shared_ptr<HXFileAttachment> attachment = transfer->attachment();
  // A resumed deletion leaves deletionAttachments alone, and tells nothing to the log.
  auto finish = [self, transfer, attachment](bool failed, ErrorRef failure) {
    RunOnMainOperationQueue([self, transfer, attachment, failed, failure] {
      if (failed) {
        if (attachment) SendGotError(attachment->delegate().get(), self.get(), failure);
        return;
      }
      if (attachment) {
        self->cleanUpForAttachment(attachment);
        if (auto record_delegate = attachment->delegate()) {
          record_delegate->finishedTransferForAttachment(self.get(), attachment);
        }
      } else {
        // The record is gone (a deletion outlives it): the registration is found by the
        // identifier it was made with, through the scheme's context.
        const std::shared_ptr<HXFileAttachmentScheme>& scheme = self->fileAttachmentScheme();
        HXObjectContext* context = scheme ? scheme->vmpObjectContext() : nullptr;
        VMAttachmentTransferManager* manager =
            context != nullptr ? context->attachmentTransferManager() : nullptr;
        if (manager != nullptr) {
          manager->removeTransferForAttachmentIdentifier(transfer->attachmentID());
        } else {
          ErrorRef orphaned = SchemeError(
              kDeletionCode,
              fmt::format("The deletion of {} finished, but the handler has no scheme whose "
                          "transfer manager could remove its registration.",
                          transfer->attachmentID()));
          logger().error("{}", orphaned->localizedDescription());
          SendGotError(transfer->delegate().get(), self.get(), orphaned);
        }
      }
    });
  };
  std::optional<std::string> uuid = ParseUUID(transfer->attachmentID());
  if (auto delegate = transfer->delegate()) delegate->willSendAttachment(this, attachment);
  if (!uuid) {
    finish(true, PosixError(EINVAL));
    return;
  }
  auto operation =
      std::make_shared<DeleteCloudAttachmentOperation>(authToken().value_or(AuthToken("")), *uuid);
  operation->setCompletionBlock(
      [operation, finish] { finish(operation->failed(), operation->error()); });
  operationQueue()->addOperation(operation);
}

bool VMCAttachment::suspendTransfer(const std::shared_ptr<VMAttachmentTransferObject>&) {
  return true;
}

bool VMCAttachment::cancelTransfer(const std::shared_ptr<VMAttachmentTransferObject>&) {
  return false;
}

std::optional<fs::path> VMCAttachment::attachmentURL(const std::shared_ptr<HXFileAttachment>&) {
  return std::nullopt;
}

std::optional<Date> VMCAttachment::attachmentModifyDate(
    const std::shared_ptr<HXFileAttachment>& attachment) {
  if (!attachment) return std::nullopt;
  return attachment->modifyDate();
}

}  // namespace vm
