#ifndef VM_HOST_HXATTACHMENTCACHE_H_
#define VM_HOST_HXATTACHMENTCACHE_H_

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

namespace vm {

class HXFileAttachment;

// The host's local cache of attachment files. Each attachment has a cache folder; the
// cached file sits in it under the attachment's name.
//
// Implementations are thread-safe. The shared cache is installed by the host; the
// framework only reads it.
class HXAttachmentCache {
 public:
  using Factory = std::function<std::shared_ptr<HXAttachmentCache>(int type)>;

  virtual ~HXAttachmentCache() = default;

  // The shared cache, or null when none has been set up.
  static std::shared_ptr<HXAttachmentCache> sharedCache();
  static void setSharedCache(std::shared_ptr<HXAttachmentCache> cache);
  // Makes a shared cache of `type` with the host's factory when there is none yet, and
  // returns the shared cache (null when the host installed no factory).
  static std::shared_ptr<HXAttachmentCache> setupSharedFileCacheOfType(int type);
  static void setSharedCacheFactory(Factory factory);

  // The folder path, relative to the cache root and to a share's attachment folder, under
  // which the attachment is kept. It is made from the record's values: callers check it
  // (CheckRelativePath) before they join it to a folder.
  virtual std::string relativeFilePathForObject(const HXFileAttachment& attachment) = 0;
  // The attachment's cache folder, absolute, always inside the cache; empty when the
  // record's values name no folder there (a hostile UUID): the record has no cached copy.
  virtual std::filesystem::path absoluteFilePathForObject(const HXFileAttachment& attachment) = 0;

  virtual std::uint64_t maxCacheSize() const = 0;
  virtual void setMaxCacheSize(std::uint64_t bytes) = 0;
};

}  // namespace vm

#endif  // VM_HOST_HXATTACHMENTCACHE_H_
