#include "host/sqlite/SqliteAttachmentCache.h"

#include <fmt/format.h>

#include "host/HXFileAttachment.h"
#include "platform/UniqueID.h"

namespace vm {

std::string SqliteAttachmentCache::relativeFilePathForObject(const HXFileAttachment& attachment) {
  std::optional<std::string> uuid = attachment.attachmentUUID();
  std::string name =
      uuid && !uuid->empty() ? ToLower(*uuid) : fmt::format("pk-{}", attachment.primaryKeyValue());
  return fmt::format("{}/{}", name.substr(0, 2), name);
}

std::filesystem::path SqliteAttachmentCache::absoluteFilePathForObject(
    const HXFileAttachment& attachment) {
  return root_ / relativeFilePathForObject(attachment);
}

}  // namespace vm
