#ifndef VM_SERVICES_VMCLOUDD_SECRETFILE_H_
#define VM_SERVICES_VMCLOUDD_SECRETFILE_H_

#include <filesystem>
#include <string>
#include <vector>

#include "platform/Error.h"

namespace vm {

// Reads the secrets kept in `path`, one a line; blank lines and lines starting with "#"
// are skipped, and spaces around a secret are not part of it. Refuses (false with
// `*error`) a file that group or others may read or write, since what it holds would then
// not be secret, and a file that holds no secret. Thread-compatible.
bool ReadSecretFile(const std::filesystem::path& path, std::vector<std::string>* secrets,
                    ErrorRef* error);

}  // namespace vm

#endif  // VM_SERVICES_VMCLOUDD_SECRETFILE_H_
