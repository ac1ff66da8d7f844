#ifndef VM_HOST_SQLITE_SQLITEATTACHMENTCACHE_H_
#define VM_HOST_SQLITE_SQLITEATTACHMENTCACHE_H_

#include <atomic>
#include <filesystem>
#include <string>
#include <string_view>

#include "host/HXAttachmentCache.h"

namespace vm {

// The reference host's file cache: each attachment's cache folder is
// root/<first two characters of its UUID>/<UUID>, the UUID in lower case ("pk-<key>" for a
// record without a UUID), so the folder follows the record when its UUID changes.
//
// An attachment stored on a share under a folder of the user's choosing keeps that folder
// in the record (RememberShareFolder), and relativeFilePathForObject gives it back, so the
// share schemes find the file again; its local cache folder stays the UUID one, so that
// two attachments of the same folder never share a cache folder. A UUID that is not one
// folder name (a hostile row) gives an empty folder path: such a record has no cache
// folder, and nothing outside the root is ever named. Thread-safe.
class SqliteAttachmentCache : public HXAttachmentCache {
 public:
  static constexpr std::uint64_t kDefaultMaxCacheSize = 1ull << 30;

  explicit SqliteAttachmentCache(std::filesystem::path root) : root_(std::move(root)) {}

  // The record's keyed value that holds the folder a share-scheme attachment was stored
  // under, relative to the share's root.
  static constexpr std::string_view kShareFolderKey = "shareRelativeFolder";
  static void RememberShareFolder(HXFileAttachment& attachment, const std::string& folder);
  // The folder the attachment's UUID gives, whatever folder was remembered; empty for a
  // UUID that is not one folder name.
  static std::string DefaultRelativePath(const HXFileAttachment& attachment);

  std::string relativeFilePathForObject(const HXFileAttachment& attachment) override;
  std::filesystem::path absoluteFilePathForObject(const HXFileAttachment& attachment) override;
  std::uint64_t maxCacheSize() const override { return max_size_.load(); }
  void setMaxCacheSize(std::uint64_t bytes) override { max_size_.store(bytes); }

  const std::filesystem::path& root() const { return root_; }

 private:
  const std::filesystem::path root_;
  std::atomic<std::uint64_t> max_size_{kDefaultMaxCacheSize};
};

}  // namespace vm

#endif  // VM_HOST_SQLITE_SQLITEATTACHMENTCACHE_H_
