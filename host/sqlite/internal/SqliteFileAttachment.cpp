#include "host/sqlite/internal/SqliteFileAttachment.h"

#include <sys/stat.h>

#include <memory>
#include <string>

#include "host/HXAttachmentCache.h"
#include "host/HXFileAttachmentScheme.h"
#include "host/HXFileAttachmentSchemeHandler.h"
#include "host/HostConstants.h"
#include "host/sqlite/SqliteObjectContext.h"
#include "host/sqlite/SqliteTransferManager.h"
#include "host/sqlite/internal/SqliteRecordRows.h"

namespace vm::sqlite_internal {

SqliteFileAttachment::SqliteFileAttachment(SqliteObjectContext* context)
    : HXFileAttachment(context), host_(context) {}

bool SqliteFileAttachment::storeAttachmentWithError(ErrorRef* error) {
  std::shared_ptr<HXFileAttachmentScheme> scheme = fileAttachmentScheme();
  std::shared_ptr<HXFileAttachmentSchemeHandler> handler =
      scheme ? scheme->schemeHandler() : nullptr;
  if (!handler) {
    return Fail(error, Error::WithDescription(kVMFileAttachmentDomain, 500,
                                              "The attachment's scheme was not found."));
  }
  std::string source = temporaryPath().value_or(attachmentPath());
  auto self = std::static_pointer_cast<HXFileAttachment>(
      host_->attachmentWithPrimaryKey(primaryKeyValue()));
  std::shared_ptr<HXAttachmentCache> cache = HXAttachmentCache::sharedCache();
  std::string relative = cache ? cache->relativeFilePathForObject(*this) : std::string();
  const std::string uuid = attachmentUUID().value_or("");
  bool stored = handler->storeFile(source, relative, self, delegate(), error);
  // The scheme is done with its work folder once the call returned.
  static_cast<SqliteTransferManager*>(host_->attachmentTransferManager())
      ->removeStoreWorkFolder(uuid);
  return stored;
}

void SqliteFileAttachment::updateMissingDetailsFromURL(const std::filesystem::path& url) {
  struct stat info {};
  if (::stat(url.c_str(), &info) != 0) return;
  Date modified = DateFromNanoseconds(static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1000000000 +
                                      info.st_mtim.tv_nsec);
  if (!attachmentModifyDate()) setAttachmentModifyDate(modified);
  if (!attachmentCreateDate()) setAttachmentCreateDate(modified);
  if (name().empty()) setName(url.filename().string());
}

void SqliteFileAttachment::refreshIfNeeded() { host_->refreshAttachment(*this); }

}  // namespace vm::sqlite_internal
