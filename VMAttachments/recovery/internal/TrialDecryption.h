#ifndef VM_VMATTACHMENTS_RECOVERY_INTERNAL_TRIALDECRYPTION_H_
#define VM_VMATTACHMENTS_RECOVERY_INTERNAL_TRIALDECRYPTION_H_

#include <filesystem>
#include <memory>

#include "host/HXFileAttachment.h"
#include "platform/Error.h"

namespace vm::recovery_internal {

// Decrypts `crypt` into the existing file `destination` with the record's scheme handler
// (processAttachment, decrypt), so that both stored digests are checked. Returns the
// handler's answer, `*error` as it left it; fails when the record's scheme is not the
// cloud scheme.
bool DecryptForTrial(const std::shared_ptr<HXFileAttachment>& record,
                     const std::filesystem::path& crypt, const std::filesystem::path& destination,
                     ErrorRef* error);

// Creates an empty file (mode 0600); false when it cannot.
bool CreateEmptyFile(const std::filesystem::path& path);

}  // namespace vm::recovery_internal

#endif  // VM_VMATTACHMENTS_RECOVERY_INTERNAL_TRIALDECRYPTION_H_
