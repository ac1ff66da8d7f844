#include "tools/vmattach/DirectWrite.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace vm::vmattach {
namespace {

// Covers the logical block sizes of the disks in use.
constexpr std::size_t kAlignment = 4096;

}  // namespace

void DirectBufferDeleter::operator()(std::uint8_t* bytes) const { std::free(bytes); }

DirectBuffer NewDirectBuffer() {
  return DirectBuffer(static_cast<std::uint8_t*>(std::aligned_alloc(kAlignment, kDirectChunk)));
}

bool WriteDirect(int fd, const std::uint8_t* bytes, std::size_t length) {
  if (length % kAlignment != 0) {
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags & ~O_DIRECT) != 0) return false;
  }
  while (length > 0) {
    const ssize_t put = ::write(fd, bytes, length);
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return false;
    if (put == 0) {
      errno = EIO;
      return false;
    }
    bytes += put;
    length -= static_cast<std::size_t>(put);
  }
  return true;
}

}  // namespace vm::vmattach
