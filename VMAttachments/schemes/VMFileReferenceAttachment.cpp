#include "VMAttachments/schemes/VMFileReferenceAttachment.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <system_error>

#include "host/HXFileAttachment.h"
#include "host/HXFileAttachmentTransferDelegate.h"
#include "host/HostConstants.h"

namespace vm {
namespace {

std::string HomeOfCurrentUser() {
  if (const char* home = std::getenv("HOME"); home && *home) return home;
  if (const passwd* entry = getpwuid(getuid())) return entry->pw_dir;
  return {};
}

}  // namespace

std::string ExpandTildeInPath(const std::string& path) {
  if (path.empty() || path[0] != '~') return path;
  std::size_t slash = path.find('/');
  std::string user = path.substr(1, slash == std::string::npos ? std::string::npos : slash - 1);
  std::string rest = slash == std::string::npos ? std::string() : path.substr(slash);
  std::string home;
  if (user.empty()) {
    home = HomeOfCurrentUser();
  } else if (const passwd* entry = getpwnam(user.c_str())) {
    home = entry->pw_dir;
  }
  if (home.empty()) return path;
  return home + rest;
}

std::filesystem::path VMFileReferenceAttachment::resolvedPathForAttachment(
    const HXFileAttachment& attachment) {
  std::string path = attachment.attachmentPath();
  if (attachment.isRelativePath()) path = ExpandTildeInPath(path);
  return path;
}

bool VMFileReferenceAttachment::retrieveAttachment(
    const std::shared_ptr<HXFileAttachment>& attachment, const std::filesystem::path&,
    const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate, ErrorRef* error) {
  // Files synchronised on demand do not exist on this platform, so existence decides. A
  // missing attachment or delegate is tolerated, as the share schemes tolerate them.
  std::error_code ignored;
  if (attachment && std::filesystem::exists(resolvedPathForAttachment(*attachment), ignored)) {
    if (delegate) delegate->finishedTransferForAttachment(this, attachment);
    return true;
  }
  ErrorRef missing = Error::Make(kVMFileAttachmentDomain, 600);
  if (error != nullptr) *error = missing;
  // Only this message is guarded; the finished message above is sent unconditionally.
  SendGotError(delegate.get(), this, missing);
  return false;
}

bool VMFileReferenceAttachment::storeFile(const std::filesystem::path&, const std::string&,
                                          const std::shared_ptr<HXFileAttachment>& attachment,
                                          const std::shared_ptr<HXFileAttachmentTransferDelegate>&,
                                          ErrorRef*) {
  if (attachment) attachment->setUploaded(true);
  return true;
}

std::optional<Date> VMFileReferenceAttachment::attachmentModifyDate(
    const std::shared_ptr<HXFileAttachment>&) {
  return std::nullopt;
}

std::optional<std::filesystem::path> VMFileReferenceAttachment::attachmentURL(
    const std::shared_ptr<HXFileAttachment>& attachment) {
  if (!attachment) return std::nullopt;
  return resolvedPathForAttachment(*attachment);
}

bool VMFileReferenceAttachment::completeAttachmentDownloadForObject(
    const std::shared_ptr<HXFileAttachment>&, ErrorRef*) {
  return true;
}

}  // namespace vm
