#ifndef VM_HOST_SQLITE_SQLITEATTACHMENTCACHE_H_
#define VM_HOST_SQLITE_SQLITEATTACHMENTCACHE_H_

#include <atomic>
#include <filesystem>

#include "host/HXAttachmentCache.h"

namespace vm {

// The reference host's file cache: each attachment's cache folder is
// root/<first two characters of its UUID>/<UUID>, the UUID in lower case ("pk-<key>" for a
// record without a UUID), so the folder follows the record when its UUID changes.
// Thread-safe.
class SqliteAttachmentCache : public HXAttachmentCache {
 public:
  static constexpr std::uint64_t kDefaultMaxCacheSize = 1ull << 30;

  explicit SqliteAttachmentCache(std::filesystem::path root) : root_(std::move(root)) {}

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
