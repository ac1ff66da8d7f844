#include "platform/OwnerLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>

namespace vm {
namespace {

namespace fs = std::filesystem;

// Tries so many times to make an item that a reclaimer does not take first; each try
// loses only to a reclaimer acting in the instant between creating and locking.
constexpr int kCreateAttempts = 5;

bool SameItem(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Waits for the lock on `fd` (a reclaimer holds it only while it removes), then checks
// that `path` still names the item: false when a reclaimer removed it meanwhile.
bool LockAndConfirm(int fd, const fs::path& path) {
  int status;
  do {
    status = ::flock(fd, LOCK_EX);
  } while (status != 0 && errno == EINTR);
  struct stat held {
  }, named{};
  return status == 0 && ::fstat(fd, &held) == 0 && ::lstat(path.c_str(), &named) == 0 &&
         SameItem(held, named);
}

// Opens the item at `path` without following a link nor waiting on a special file; -1
// with errno otherwise (ELOOP for a link).
int OpenItem(const fs::path& path) {
  return ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
}

}  // namespace

OwnerLock OwnerLock::CreateFile(const fs::path& path, mode_t mode, ErrorRef* error) {
  for (int attempt = 0; attempt < kCreateAttempts; ++attempt) {
    ScopedFd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (!fd.valid() || ::fchmod(fd.get(), mode) != 0) {
      const int failure = errno;
      if (fd.valid()) ::unlink(path.c_str());
      Fail(error, PosixError(failure, path));
      return {};
    }
    if (LockAndConfirm(fd.get(), path)) return OwnerLock(std::move(fd));
  }
  Fail(error, PosixError(EAGAIN, path));
  return {};
}

OwnerLock OwnerLock::CreateFolder(const fs::path& path, ErrorRef* error) {
  for (int attempt = 0; attempt < kCreateAttempts; ++attempt) {
    if (::mkdir(path.c_str(), 0700) != 0) {
      Fail(error, PosixError(errno, path));
      return {};
    }
    ScopedFd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    // Gone already: a reclaimer took it before it could be opened.
    if (!fd.valid() && errno == ENOENT) continue;
    if (!fd.valid()) {
      const int failure = errno;
      ::rmdir(path.c_str());
      Fail(error, PosixError(failure, path));
      return {};
    }
    if (LockAndConfirm(fd.get(), path)) return OwnerLock(std::move(fd));
  }
  Fail(error, PosixError(EAGAIN, path));
  return {};
}

OwnerLock OwnerLock::HoldFolder(const fs::path& path, ErrorRef* error) {
  for (int attempt = 0; attempt < kCreateAttempts; ++attempt) {
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
      Fail(error, PosixError(errno, path));
      return {};
    }
    ScopedFd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid() && errno == ENOENT) continue;
    struct stat info {};
    if (!fd.valid() || ::fstat(fd.get(), &info) != 0) {
      Fail(error, PosixError(errno, path));
      return {};
    }
    // Another user's lock is never waited for.
    if (info.st_uid != ::geteuid()) {
      Fail(error, PosixError(EACCES, path));
      return {};
    }
    if (LockAndConfirm(fd.get(), path)) return OwnerLock(std::move(fd));
  }
  Fail(error, PosixError(EAGAIN, path));
  return {};
}

OwnerLock OwnerLock::Hold(const fs::path& path, ErrorRef* error) {
  ScopedFd fd(OpenItem(path));
  if (!fd.valid() || ::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
    Fail(error, PosixError(errno, path));
    return {};
  }
  return OwnerLock(std::move(fd));
}

bool LockAsOwner(int fd, const fs::path& path) { return LockAndConfirm(fd, path); }

bool RemoveIfAbandoned(const fs::path& path) {
  std::error_code ec;
  ScopedFd fd(OpenItem(path));
  if (!fd.valid()) {
    if (errno == ENOENT) return true;
    // A link, or a socket, is nothing a writer of ours makes.
    if (errno != ELOOP && errno != ENXIO) return false;
    return fs::remove(path, ec) && !ec;
  }
  if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) return false;
  // Removed while it is ours, so a writer that made it anew meanwhile is not touched.
  struct stat held {
  }, named{};
  if (::fstat(fd.get(), &held) != 0 || ::lstat(path.c_str(), &named) != 0 ||
      !SameItem(held, named)) {
    return false;
  }
  fs::remove_all(path, ec);
  return !ec;
}

}  // namespace vm
