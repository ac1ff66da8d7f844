#include "VMAttachments/cloud/VMCWorkFiles.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "platform/OwnerLock.h"
#include "platform/SafeNames.h"
#include "platform/ScopedFd.h"
#include "platform/URLSession.h"
#include "platform/UniqueID.h"

namespace vm {
namespace {

namespace fs = std::filesystem;

// Where the scheme's downloads arrive, below the temporary folder (as in the scheme).
constexpr char kDownloadFolderName[] = "HXAttachmentCache";
constexpr char kCryptFileName[] = "crypt";
// Download folders are <first two letters>/<UUID>/ or a share folder's path below it.
constexpr int kDownloadFolderDepth = 6;

// Whether `path` is a folder (not a link) of this user's.
bool IsOwnFolder(const fs::path& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && info.st_uid == ::geteuid();
}

// Whether the folder holds nothing but, at most, the work file a decryption or a trial
// decryption leaves.
bool HoldsOnlyDecryptionWork(const fs::path& folder) {
  std::error_code ec;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder, ec)) {
    const fs::path name = entry.path().filename();
    if (name != kCryptFileName && name != kTrialDecryptionFileName) return false;
  }
  return !ec;
}

// Removes the decryption folder `folder` unless a live process holds its lock: the work
// file it may hold, then the folder itself only while it is empty (rmdir). Never a whole
// tree: a folder named by a UUID may also be a database's, in which a store is making its
// work folder right now, and that one must stay (the store makes the parent again).
void RemoveDecryptionFolderIfAbandoned(const fs::path& folder) {
  ScopedFd fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd.valid() || ::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) return;
  struct stat held {
  }, named{};
  if (::fstat(fd.get(), &held) != 0 || ::lstat(folder.c_str(), &named) != 0 ||
      held.st_dev != named.st_dev || held.st_ino != named.st_ino) {
    return;
  }
  ::unlinkat(fd.get(), kCryptFileName, 0);
  ::unlinkat(fd.get(), kTrialDecryptionFileName, 0);
  ::rmdir(folder.c_str());
}

void ReclaimPartialDownloads(const fs::path& folder, int depth) {
  std::error_code ec;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder, ec)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with(kURLSessionDownloadPrefix)) {
      RemoveIfAbandoned(entry.path());
    } else if (depth > 0 && IsOwnFolder(entry.path())) {
      ReclaimPartialDownloads(entry.path(), depth - 1);
    }
  }
}

}  // namespace

void ReclaimAbandonedWorkFiles(const std::string& database_uuid) {
  std::error_code ec;
  const fs::path temporary = fs::temp_directory_path(ec);
  if (ec) return;
  // A store's: the whole folder of each attachment, owned while storeFile runs.
  if (!CheckFileName(database_uuid, "database UUID") && IsOwnFolder(temporary / database_uuid)) {
    for (const fs::directory_entry& entry : fs::directory_iterator(temporary / database_uuid, ec)) {
      RemoveIfAbandoned(entry.path());
    }
  }
  // A save's and a recovery's: folders named by a UUID, owned while the decryption runs.
  // The temporary folder is shared, so only a folder that looks like nothing else goes.
  for (const fs::directory_entry& entry : fs::directory_iterator(temporary, ec)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with(kURLSessionDownloadPrefix)) {
      RemoveIfAbandoned(entry.path());
    } else if (ParseUUID(name) && IsOwnFolder(entry.path()) &&
               HoldsOnlyDecryptionWork(entry.path())) {
      RemoveDecryptionFolderIfAbandoned(entry.path());
    }
  }
  if (IsOwnFolder(temporary / kDownloadFolderName)) {
    ReclaimPartialDownloads(temporary / kDownloadFolderName, kDownloadFolderDepth);
  }
}

}  // namespace vm
