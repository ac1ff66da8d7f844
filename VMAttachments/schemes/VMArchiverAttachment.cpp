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

namespace vm {
namespace {

namespace fs = std::filesystem;

bool FileExists(const fs::path& path) {
  struct stat st;
  return !path.empty() && stat(path.c_str(), &st) == 0;
}

// Makes `folder` and any missing parents with mode 0775.
ErrorRef CreateFolders(const fs::path& folder) {
  fs::path built;
  for (const fs::path& part : folder) {
    built /= part;
    if (part == "/" || part.empty()) continue;
    struct stat st;
    if (stat(built.c_str(), &st) == 0) {
      if (!S_ISDIR(st.st_mode)) return PosixError(ENOTDIR, built);
      continue;
    }
    if (mkdir(built.c_str(), 0775) != 0 && errno != EEXIST) return PosixError(errno, built);
    // The umask would narrow the mode; the folders are meant for the whole group.
    chmod(built.c_str(), 0775);
  }
  return nullptr;
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
    Error::UserInfo info;
    info.emplace(std::string(NSLocalizedDescriptionKey),
                 "No path set up in the Archiver Scheme preferences");
    info.emplace(std::string(NSLocalizedRecoverySuggestionErrorKey),
                 "Review the preferences for the Archived Attachments storage preferences");
    ErrorRef no_path = Error::Make(kVMArchiverAttachmentDomain, 700, std::move(info));
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
  ErrorRef folder_error;
  if (storage.empty()) {
    // Without a storage folder the path would be relative to wherever the process runs.
    Error::UserInfo info;
    info.emplace(std::string(NSLocalizedDescriptionKey),
                 "No path set up in the Archiver Scheme preferences");
    info.emplace(std::string(NSLocalizedRecoverySuggestionErrorKey),
                 "Review the preferences for the Archived Attachments storage preferences");
    folder_error = Error::Make(kVMArchiverAttachmentDomain, 700, std::move(info));
  } else {
    folder_error = CreateFolders(folder);
  }
  if (folder_error) {
    logLine(fmt::format("Unable to create directory for attachment {} - {}",
                        DescribeRecord(attachment.get()), DescribeError(folder_error)));
    Fail(error, folder_error);
    SendGotError(delegate.get(), this, folder_error);
    return false;
  }

  fs::path target = AppendPathComponent(folder, attachment->name());
  ErrorRef copy_error;
  if (!bwPerformAsyncCopyFromURL(file, target,
                                 MakeCopyContext(delegate, attachment, sharedSelf(), target),
                                 &statusCallback, &copy_error)) {
    logLine(fmt::format("Could not save attachment to share - {}", DescribeError(copy_error)));
    Fail(error, copy_error);
    if (delegate) delegate->gotCriticalError(this, copy_error);
    return false;
  }
  return true;
}

std::optional<Date> VMArchiverAttachment::attachmentModifyDate(
    const std::shared_ptr<HXFileAttachment>& attachment) {
  if (!isVolumeMounted()) return std::nullopt;
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
