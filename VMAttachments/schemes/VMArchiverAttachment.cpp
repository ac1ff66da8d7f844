#include "VMAttachments/schemes/VMArchiverAttachment.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>

#include "VMAttachments/schemes/VMAttachmentConstants.h"
#include "VMAttachments/schemes/internal/ShareSchemeSupport.h"
#include "host/HXFileAttachment.h"
#include "host/HXFileAttachmentScheme.h"
#include "host/HXFileAttachmentTransferDelegate.h"
#include "host/HXObjectContext.h"
#include "platform/DispatchQueue.h"
#include "platform/ParsedURL.h"
#include "platform/SafeNames.h"

namespace vm {
namespace {

namespace fs = std::filesystem;

bool FileExists(const fs::path& path) {
  struct stat st;
  return !path.empty() && stat(path.c_str(), &st) == 0;
}

ErrorRef NoStorageFolderError() {
  Error::UserInfo info;
  info.emplace(std::string(NSLocalizedDescriptionKey),
               "No path set up in the Archiver Scheme preferences");
  info.emplace(std::string(NSLocalizedRecoverySuggestionErrorKey),
               "Review the preferences for the Archived Attachments storage preferences");
  return Error::Make(kVMArchiverAttachmentDomain, 700, std::move(info));
}

// A storage folder setting that climbs with ".." is refused like a hostile name: it is
// meant to be the one folder everything stays inside.
ErrorRef CheckStorageFolder(const std::string& folder) {
  std::string_view relative = folder;
  while (!relative.empty() && relative.front() == '/') relative.remove_prefix(1);
  return CheckRelativePath(relative, "storage folder");
}

// Where the attachment's record says it lives, relative to the storage folder; null when
// that stays inside, else the refusal.
ErrorRef CheckStoredLocation(const HXFileAttachment* attachment) {
  if (!attachment) return PosixError(EINVAL);
  if (ErrorRef error = CheckFileName(attachment->name(), "attachment name")) return error;
  return CheckRelativePath(attachment->attachmentPath(), "attachment path");
}

}  // namespace

bool VMArchiverAttachment::isShareAlreadyAvailable() {
  if (volumePath()) return true;
  std::optional<fs::path> local = bwLocalPathForSharepointFile(fs::path(shareFolderPath()));
  if (!local) return false;
  setVolumePath(*local);
  return true;
}

void VMArchiverAttachment::mountShareWithCallback(MountCallback callback) {
  if (isShareAlreadyAvailable()) {
    callback(true, nullptr);
    return;
  }
  VMAFPAttachment::mountShareWithCallback(std::move(callback));
}

bool VMArchiverAttachment::mountShareReturningError(ErrorRef* error) {
  if (isShareAlreadyAvailable()) return true;
  return VMAFPAttachment::mountShareReturningError(error);
}

std::optional<fs::path> VMArchiverAttachment::attachmentURL(
    const std::shared_ptr<HXFileAttachment>& attachment) {
  std::string folder = shareFolderPath();
  if (CheckStoredLocation(attachment.get()) || CheckStorageFolder(folder)) return std::nullopt;
  if (!folder.empty()) {
    fs::path path = StandardizePath(
        AppendPathComponent(PercentDecode(folder), attachment->attachmentPath()).string());
    if (FileExists(path)) return path;
  }
  if (isVolumeMounted()) {
    if (std::optional<fs::path> volume = volumePath()) {
      return AppendPathComponent(*volume, attachment->attachmentPath());
    }
  }
  return std::nullopt;
}

bool VMArchiverAttachment::retrieveAttachment(
    const std::shared_ptr<HXFileAttachment>& attachment, const fs::path& to_path,
    const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate, ErrorRef* error) {
  if (delegate) delegate->willReceiveAttachment(this, attachment, nullptr);

  std::string folder = shareFolderPath();
  ErrorRef location_error = CheckStoredLocation(attachment.get());
  if (!location_error) location_error = CheckStorageFolder(folder);
  if (location_error) {
    logLine(fmt::format("Refusing to retrieve attachment {} - {}", DescribeRecord(attachment.get()),
                        DescribeError(location_error)));
    Fail(error, location_error);
    SendGotError(delegate.get(), this, location_error);
    return false;
  }
  if (!folder.empty()) {
    std::string path = StandardizePath(
        AppendPathComponent(PercentDecode(folder), attachment->attachmentPath()).string());
    if (FileExists(path)) return copyFoundSource(path, attachment, to_path, delegate, error);
    // The folder may name a volume by its path under /Volumes without that prefix.
    std::string volumes_path = "/Volumes" + path;
    if (FileExists(volumes_path)) {
      return copyFoundSource(volumes_path, attachment, to_path, delegate, error);
    }
  }

  std::string server = connectionInfoString(kVMAFPAttachmentServerPath).value_or("");
  if (server.empty()) {
    logLine("Cannot find attachment - no URL path setup in preferences");
    ErrorRef no_path = NoStorageFolderError();
    Fail(error, no_path);
    SendGotError(delegate.get(), this, no_path);
    return false;
  }

  auto self = std::static_pointer_cast<VMArchiverAttachment>(sharedSelf());
  mountShareWithCallback([self, attachment, to_path, delegate](bool success, ErrorRef mount_error) {
    if (!success) {
      self->sendGotErrorOnMainQueue(delegate, mount_error);
      return;
    }
    // With a storage folder that is reachable no share was mounted, so there may be no
    // share path and so no source: the copy's refusal then tells the delegate.
    fs::path source;
    if (std::optional<fs::path> share = self->sharePath()) {
      source = AppendPathComponent(*share, attachment->attachmentPath());
    }
    fs::path destination = AppendPathComponent(to_path, attachment->name());
    ErrorRef copy_error;
    if (bwPerformAsyncCopyFromURL(source, destination,
                                  MakeCopyContext(delegate, attachment, self, std::nullopt),
                                  &statusCallback, &copy_error)) {
      attachment->updateMissingDetailsFromURL(source);
      return;
    }
    self->logLine(fmt::format("Failed to copy file from share for retrieval - {}",
                              DescribeError(copy_error)));
    self->sendGotErrorOnMainQueue(delegate, copy_error);
    PlainLog(fmt::format("file path: {}", DescribePath(source)));
  });
  return true;
}

bool VMArchiverAttachment::copyFoundSource(
    const fs::path& source, const std::shared_ptr<HXFileAttachment>& attachment,
    const fs::path& to_path, const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate,
    ErrorRef* error) {
  fs::path destination = AppendPathComponent(to_path, attachment->name());
  ErrorRef copy_error;
  if (bwPerformAsyncCopyFromURL(source, destination,
                                MakeCopyContext(delegate, attachment, sharedSelf(), std::nullopt),
                                &statusCallback, &copy_error)) {
    attachment->updateMissingDetailsFromURL(source);
    return true;
  }
  logLine(
      fmt::format("Failed to copy file from share for retrieval - {}", DescribeError(copy_error)));
  Fail(error, copy_error);
  SendGotError(delegate.get(), this, copy_error);
  PlainLog(fmt::format("file path: {}", DescribePath(source)));
  return false;
}

bool VMArchiverAttachment::storeFile(
    const fs::path& file, const std::string& at_path,
    const std::shared_ptr<HXFileAttachment>& attachment,
    const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate, ErrorRef* error) {
  if (delegate) delegate->willSendAttachment(this, attachment);

  // The folder setting is used as stored, percent-encoding and all, unlike the lookups.
  std::string storage = shareFolderPath();
  fs::path folder = AppendPathComponent(storage, at_path);
  std::vector<fs::path> created;
  ErrorRef folder_error;
  if (!attachment) {
    folder_error = PosixError(EINVAL);
  } else if (storage.empty()) {
    // Without a storage folder the path would be relative to wherever the process runs.
    folder_error = NoStorageFolderError();
  } else {
    folder_error = CheckAttachmentLocation(attachment->name(), at_path);
    if (!folder_error) folder_error = CheckStorageFolder(storage);
    if (!folder_error) folder_error = CreateMissingFolders(folder, 0775, &created);
    // The umask would narrow the mode; the folders are meant for the whole group.
    for (const fs::path& made : created) chmod(made.c_str(), 0775);
  }
  if (folder_error) {
    RemoveCreatedFolders(created);
    logLine(fmt::format("Unable to create directory for attachment {} - {}",
                        DescribeRecord(attachment.get()), DescribeError(folder_error)));
    Fail(error, folder_error);
    SendGotError(delegate.get(), this, folder_error);
    return false;
  }

  fs::path target = AppendPathComponent(folder, attachment->name());
  ErrorRef copy_error;
  // A same-named file in the folder is someone's data: the store fails rather than replace it.
  if (!bwPerformAsyncCopyFromURL(file, target, BWCopyExisting::kKeep,
                                 MakeCopyContext(delegate, attachment, sharedSelf(), target),
                                 &statusCallback, &copy_error)) {
    RemoveCreatedFolders(created);
    logLine(fmt::format("Could not save attachment to share - {}", DescribeError(copy_error)));
    Fail(error, copy_error);
    if (delegate) delegate->gotCriticalError(this, copy_error);
    return false;
  }
  return true;
}

std::optional<Date> VMArchiverAttachment::attachmentModifyDate(
    const std::shared_ptr<HXFileAttachment>& attachment) {
  if (!isVolumeMounted() || CheckStoredLocation(attachment.get())) return std::nullopt;
  fs::path path;
  if (std::optional<fs::path> share = sharePath()) {
    path = AppendPathComponent(*share, attachment->attachmentPath());
  }
  ErrorRef error;
  std::optional<Date> date = FileModificationDate(path, &error);
  if (!date) {
    logLine(fmt::format("Couldn't get attributes for attachment on AFP share - {}",
                        DescribeError(error)));
  }
  return date;
}

void VMArchiverAttachment::save() {
  std::shared_ptr<HXFileAttachmentScheme> scheme = fileAttachmentScheme();
  if (!scheme) return;
  scheme->setInfoData(ArchiveDictionary(connectionInfo()));
  if (HXObjectContext* context = scheme->objectContext()) context->saveChanges(nullptr);
}

std::string VMArchiverAttachment::shareFolderPath() {
  return connectionInfoString(kVMArchiverAttachmentStorageFolder).value_or("");
}

void VMArchiverAttachment::setShareFolderPath(const std::string& path) {
  setConnectionInfoValue(kVMArchiverAttachmentStorageFolder, ArchivedValue(path));
  save();
}

std::string VMArchiverAttachment::shareServerURL() {
  return connectionInfoString(kVMAFPAttachmentServerPath).value_or("");
}

void VMArchiverAttachment::setShareServerURL(const std::string& url) {
  setConnectionInfoValue(kVMAFPAttachmentServerPath, ArchivedValue(url));
  save();
}

}  // namespace vm
