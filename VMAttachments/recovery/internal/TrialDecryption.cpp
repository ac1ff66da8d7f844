#include "VMAttachments/recovery/internal/TrialDecryption.h"

#include <fcntl.h>
#include <unistd.h>

#include "VMAttachments/cloud/VMCAttachment.h"
#include "host/HXFileAttachmentScheme.h"
#include "host/HostConstants.h"

namespace vm::recovery_internal {

bool DecryptForTrial(const std::shared_ptr<HXFileAttachment>& record,
                     const std::filesystem::path& crypt, const std::filesystem::path& destination,
                     ErrorRef* error) {
  std::shared_ptr<HXFileAttachmentScheme> scheme = record->fileAttachmentScheme();
  auto handler =
      std::dynamic_pointer_cast<VMCAttachment>(scheme ? scheme->schemeHandler() : nullptr);
  if (!handler) {
    return Fail(error, Error::WithDescription(kVMFileAttachmentDomain, 1000,
                                              "The attachment has no cloud scheme handler."));
  }
  return handler->processAttachment(record, crypt, destination, VMCAttachment::kOperationDecrypt,
                                    error);
}

bool CreateEmptyFile(const std::filesystem::path& path) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  ::close(fd);
  return true;
}

}  // namespace vm::recovery_internal
