#include "VMAttachments/recovery/internal/TrialDecryption.h"

#include <fcntl.h>
#include <unistd.h>

#include "host/HostConstants.h"

namespace vm::recovery_internal {

bool DecryptForTrial(HXFileAttachment&, const std::filesystem::path&, const std::filesystem::path&,
                     ErrorRef* error) {
  return Fail(error, Error::WithDescription(kVMFileAttachmentDomain, 1000,
                                            "No cloud scheme handler to decrypt with"));
}

bool CreateEmptyFile(const std::filesystem::path& path) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  ::close(fd);
  return true;
}

}  // namespace vm::recovery_internal
