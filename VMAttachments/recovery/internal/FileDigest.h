#ifndef VM_VMATTACHMENTS_RECOVERY_INTERNAL_FILEDIGEST_H_
#define VM_VMATTACHMENTS_RECOVERY_INTERNAL_FILEDIGEST_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>

#include "platform/Error.h"

namespace vm {

using Sha1Digest = std::array<std::uint8_t, 20>;

// Files are read in pieces of this size, so that a large encrypted file is never loaded
// whole.
inline constexpr std::size_t kDigestReadSize = 1048576;

// The SHA-1 of the file's bytes; nullopt with `*error` set when it cannot be opened or read.
std::optional<Sha1Digest> Sha1OfFile(const std::filesystem::path& path, ErrorRef* error);

}  // namespace vm

#endif  // VM_VMATTACHMENTS_RECOVERY_INTERNAL_FILEDIGEST_H_
