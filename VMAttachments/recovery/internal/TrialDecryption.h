#ifndef VM_VMATTACHMENTS_RECOVERY_INTERNAL_TRIALDECRYPTION_H_
#define VM_VMATTACHMENTS_RECOVERY_INTERNAL_TRIALDECRYPTION_H_

#include <filesystem>
#include <string_view>

#include "host/HXFileAttachment.h"
#include "platform/Error.h"

namespace vm {
// TEMPORARY until the cloud scheme's header lands.
inline constexpr std::string_view kVMAttachmentHashesErrorKey = "VMAttachmentHashesErrorKey";
}  // namespace vm

namespace vm::recovery_internal {

// Decrypts `crypt` into the existing file `destination` through the record's scheme
// handler, as a retrieval would. Returns the handler's answer; `*error` as it left it.
bool DecryptForTrial(HXFileAttachment& record, const std::filesystem::path& crypt,
                     const std::filesystem::path& destination, ErrorRef* error);

// Creates an empty file (mode 0600); false when it cannot.
bool CreateEmptyFile(const std::filesystem::path& path);

}  // namespace vm::recovery_internal

#endif  // VM_VMATTACHMENTS_RECOVERY_INTERNAL_TRIALDECRYPTION_H_
