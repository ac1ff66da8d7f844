#include "VMAttachments/recovery/internal/FileDigest.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <vector>

namespace vm {

std::optional<Sha1Digest> Sha1OfFile(const std::filesystem::path& path, ErrorRef* error) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    Fail(error, PosixError(errno, path));
    return std::nullopt;
  }
  // The file is read once, front to back.
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                  &EVP_MD_CTX_free);
  std::vector<std::uint8_t> buffer(kDigestReadSize);
  bool ok = context && EVP_DigestInit_ex(context.get(), EVP_sha1(), nullptr) == 1;
  int read_errno = 0;
  while (ok) {
    ssize_t n = ::read(fd, buffer.data(), buffer.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      read_errno = errno;
      break;
    }
    if (n == 0) break;
    ok = EVP_DigestUpdate(context.get(), buffer.data(), static_cast<std::size_t>(n)) == 1;
  }
  ::close(fd);
  Sha1Digest digest{};
  unsigned int length = 0;
  if (read_errno != 0) {
    Fail(error, PosixError(read_errno, path));
    return std::nullopt;
  }
  if (!ok || EVP_DigestFinal_ex(context.get(), digest.data(), &length) != 1 ||
      length != digest.size()) {
    Fail(error, Error::WithDescription(NSPOSIXErrorDomain, EIO, "SHA-1 digest failed"));
    return std::nullopt;
  }
  return digest;
}

}  // namespace vm
