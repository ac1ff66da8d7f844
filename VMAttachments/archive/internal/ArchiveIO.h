#ifndef VM_VMATTACHMENTS_ARCHIVE_INTERNAL_ARCHIVEIO_H_
#define VM_VMATTACHMENTS_ARCHIVE_INTERNAL_ARCHIVEIO_H_

// Helpers shared by the archive writer and reader. Not for use outside this folder.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string_view>

#include "platform/Error.h"
#include "platform/ScopedFd.h"

namespace vm::archive_internal {


// One read(2) of exactly `size` bytes; anything less is a failure in NSPOSIXErrorDomain
// with the errno the call left. errno is cleared first, so a read cut short by the end
// of the file reports code 0 rather than whatever an earlier call left behind.
// `*transferred` (when not null) receives the bytes the call did deliver.
bool ReadOnce(int fd, void* buffer, std::size_t size, const std::filesystem::path& context,
              ErrorRef* error, std::size_t* transferred = nullptr);

// One write(2) of exactly `size` bytes, never retried; same error rules as ReadOnce.
bool WriteOnce(int fd, const void* buffer, std::size_t size, const std::filesystem::path& context,
               ErrorRef* error);

// write(2) until all `size` bytes are out (retrying after EINTR and short counts); a call
// that fails or moves nothing is a failure, with the same error rules as WriteOnce.
bool WriteFully(int fd, const void* buffer, std::size_t size, const std::filesystem::path& context,
                ErrorRef* error);

// The failure a read makes when the file ends first: NSPOSIXErrorDomain with `errno_value`
// (0 when the read simply came up short).
ErrorRef ShortReadError(int errno_value, const std::filesystem::path& context);

// The NSFileType name of a stat mode.
std::string_view FileTypeName(mode_t mode);

// Little-endian 64-bit lengths, independent of the host's byte order.
void EncodeLength(std::uint64_t value, unsigned char out[8]);
std::uint64_t DecodeLength(const unsigned char in[8]);

}  // namespace vm::archive_internal

#endif  // VM_VMATTACHMENTS_ARCHIVE_INTERNAL_ARCHIVEIO_H_
