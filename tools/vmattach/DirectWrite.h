#ifndef VM_TOOLS_VMATTACH_DIRECTWRITE_H_
#define VM_TOOLS_VMATTACH_DIRECTWRITE_H_

#include <cstddef>
#include <cstdint>
#include <memory>

namespace vm::vmattach {

// Writing a file's bytes straight to the disk (a descriptor opened with O_DIRECT), for a
// copy that must reach the disk anyway and would only fill memory on its way there.
// Direct writes need block-aligned memory, offsets and lengths: bytes are written a
// whole chunk at a time from a chunk buffer, and only the file's last piece may be
// ragged.

// The chunk size: a whole number of blocks for the block sizes in use.
inline constexpr std::size_t kDirectChunk = std::size_t{1} << 20;

struct DirectBufferDeleter {
  void operator()(std::uint8_t* bytes) const;
};
using DirectBuffer = std::unique_ptr<std::uint8_t, DirectBufferDeleter>;

// A buffer of kDirectChunk bytes aligned for direct writes; null when out of memory.
DirectBuffer NewDirectBuffer();

// Writes all `length` bytes at `fd`'s position. A length that is not a whole number of
// blocks (the file's ragged end) turns direct writing off for `fd` first, so the rest
// goes through the page cache. False with errno set on failure.
bool WriteDirect(int fd, const std::uint8_t* bytes, std::size_t length);

}  // namespace vm::vmattach

#endif  // VM_TOOLS_VMATTACH_DIRECTWRITE_H_
