#ifndef VM_HOST_HOSTCONSTANTS_H_
#define VM_HOST_HOSTCONSTANTS_H_

#include <cstdint>
#include <string_view>

namespace vm {

// The host's error domain for attachment failures. Its text is the host's own.
inline constexpr std::string_view kVMFileAttachmentDomain = "HXFileAttachmentErrorDomain";

// Codes the host's transfer manager uses in kVMFileAttachmentDomain: a registration it
// refused, and a transfer whose attachment has no scheme handler that controls transfers.
inline constexpr std::int64_t kTransferRefusedErrorCode = 2;
inline constexpr std::int64_t kTransferNoHandlerErrorCode = 3;

// Keys of values kept on an attachment record with setObject()/objectForKeyedSubscript().
// kHXFileAttachmentSourceHash: 20-byte SHA-1 of the plain bytes.
// kHXFileAttachmentCryptedHash: 20-byte SHA-1 of the encrypted bytes.
// kHXFileAttachmentStorageTypeKey: 1 plain file, 2 file-wrapper archive.
inline constexpr std::string_view kHXFileAttachmentSourceHash = "sourceHash";
inline constexpr std::string_view kHXFileAttachmentCryptedHash = "cryptedHash";
inline constexpr std::string_view kHXFileAttachmentStorageTypeKey = "storageType";

}  // namespace vm

#endif  // VM_HOST_HOSTCONSTANTS_H_
