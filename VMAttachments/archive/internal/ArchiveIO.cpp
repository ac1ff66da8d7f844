#include "VMAttachments/archive/internal/ArchiveIO.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "VMAttachments/archive/BWFileWrapper.h"

namespace vm::archive_internal {

ErrorRef ShortReadError(int errno_value, const std::filesystem::path& context) {
  if (errno_value != 0) return PosixError(errno_value, context);
  Error::UserInfo info;
  info.emplace(std::string(NSLocalizedDescriptionKey),
               fmt::format("{}: unexpected end of file", context.string()));
  info.emplace(std::string(NSFilePathErrorKey), context.string());
  return Error::Make(NSPOSIXErrorDomain, 0, std::move(info));
}

bool ReadOnce(int fd, void* buffer, std::size_t size, const std::filesystem::path& context,
              ErrorRef* error, std::size_t* transferred) {
  errno = 0;
  ssize_t n = ::read(fd, buffer, size);
  int saved = errno;
  if (transferred != nullptr) *transferred = n > 0 ? static_cast<std::size_t>(n) : 0;
  if (n >= 0 && static_cast<std::size_t>(n) == size) return true;
  return Fail(error, ShortReadError(saved, context));
}

bool WriteOnce(int fd, const void* buffer, std::size_t size, const std::filesystem::path& context,
               ErrorRef* error) {
  errno = 0;
  ssize_t n = ::write(fd, buffer, size);
  int saved = errno;
  if (n >= 0 && static_cast<std::size_t>(n) == size) return true;
  if (saved != 0) return Fail(error, PosixError(saved, context));
  return Fail(error, Error::WithDescription(NSPOSIXErrorDomain, 0,
                                            fmt::format("{}: short write ({} of {} bytes)",
                                                        context.string(), n, size)));
}

bool WriteFully(int fd, const void* buffer, std::size_t size, const std::filesystem::path& context,
                ErrorRef* error) {
  const char* bytes = static_cast<const char*>(buffer);
  std::size_t done = 0;
  while (done < size) {
    errno = 0;
    ssize_t n = ::write(fd, bytes + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n < 0) return Fail(error, PosixError(errno, context));
      return Fail(error, Error::WithDescription(NSPOSIXErrorDomain, 0,
                                                fmt::format("{}: short write ({} of {} bytes)",
                                                            context.string(), done, size)));
    }
    done += static_cast<std::size_t>(n);
  }
  return true;
}

std::string_view FileTypeName(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return NSFileTypeRegular;
    case S_IFDIR:
      return NSFileTypeDirectory;
    case S_IFLNK:
      return NSFileTypeSymbolicLink;
    case S_IFSOCK:
      return NSFileTypeSocket;
    case S_IFCHR:
      return NSFileTypeCharacterSpecial;
    case S_IFBLK:
      return NSFileTypeBlockSpecial;
    default:
      return NSFileTypeUnknown;
  }
}

void EncodeLength(std::uint64_t value, unsigned char out[8]) {
  for (int i = 0; i < 8; ++i) out[i] = static_cast<unsigned char>(value >> (8 * i));
}

std::uint64_t DecodeLength(const unsigned char in[8]) {
  std::uint64_t value = 0;
  for (int i = 7; i >= 0; --i) value = (value << 8) | in[i];
  return value;
}

}  // namespace vm::archive_internal
