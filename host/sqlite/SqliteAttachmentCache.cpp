#include "host/sqlite/SqliteAttachmentCache.h"

#include <fmt/format.h>

#include "host/HXFileAttachment.h"
#include "platform/SafeNames.h"
#include "platform/UniqueID.h"

namespace vm {

void SqliteAttachmentCache::RememberShareFolder(HXFileAttachment& attachment,
                                                const std::string& folder) {
  attachment.setObject(KeyedValue(folder), kShareFolderKey);
}

std::string SqliteAttachmentCache::relativeFilePathForObject(const HXFileAttachment& attachment) {
  if (std::optional<KeyedValue> kept = attachment.objectForKeyedSubscript(kShareFolderKey)) {
    if (const auto* folder = std::get_if<std::string>(&*kept)) return *folder;
  }
  return DefaultRelativePath(attachment);
}

std::string SqliteAttachmentCache::DefaultRelativePath(const HXFileAttachment& attachment) {
  std::optional<std::string> uuid = attachment.attachmentUUID();
  std::string name =
      uuid && !uuid->empty() ? ToLower(*uuid) : fmt::format("pk-{}", attachment.primaryKeyValue());
  // The UUID comes from a database row: one that is not a single folder name ("..",
  // "../../elsewhere") names no folder at all rather than one outside the cache.
  if (CheckFileName(name, "attachment UUID")) return {};
  return fmt::format("{}/{}", name.substr(0, 2), name);
}

std::filesystem::path SqliteAttachmentCache::absoluteFilePathForObject(
    const HXFileAttachment& attachment) {
  std::string relative = DefaultRelativePath(attachment);
  if (relative.empty()) return {};
  return root_ / relative;
}

}  // namespace vm
