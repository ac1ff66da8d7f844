#include "tools/vmattach/CopyIntoPlace.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <vector>

#include "platform/OwnerLock.h"
#include "platform/ScopedFd.h"

namespace vm::vmattach {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kPartialSuffix = ".vmattach-partial";

// The most one kernel copy call is asked for; the call may do less.
constexpr std::size_t kCopyChunk = std::size_t{1} << 30;

std::error_code LastError() { return {errno, std::generic_category()}; }

// Copies what is left of `in` into `out` with `copy` (copy_file_range or sendfile, both
// at the descriptors' positions).
template <typename Copy>
std::error_code CopyWith(Copy copy, int in, int out) {
  for (;;) {
    const ssize_t done = copy(in, out);
    if (done == 0) return {};
    if (done < 0 && errno != EINTR) return LastError();
  }
}

// Copies the bytes of `in` into the empty file `out`: a reflink where the file system
// has them, else a copy in the kernel; across file systems that copy_file_range does not
// bridge, sendfile.
std::error_code CopyBytes(int in, int out) {
  if (::ioctl(out, FICLONE, in) == 0) return {};
  bool started = false;
  std::error_code ec = CopyWith(
      [&started](int from, int to) {
        const ssize_t done = ::copy_file_range(from, nullptr, to, nullptr, kCopyChunk, 0);
        started = started || done > 0;
        return done;
      },
      in, out);
  const bool unsupported =
      ec == std::errc::cross_device_link || ec == std::errc::invalid_argument ||
      ec == std::errc::operation_not_supported || ec == std::errc::function_not_supported;
  if (!ec || started || !unsupported) return ec;
  return CopyWith([](int from, int to) { return ::sendfile(to, from, nullptr, kCopyChunk); }, in,
                  out);
}

// Copies the regular file open as `in` into the new, empty file open as `out`, with its
// mode, and flushes it. The copy's clean cached pages are let go of: a copy made to be
// kept is not read again soon, and the memory serves a transfer better.
std::error_code CopyFileContents(int in, int out) {
  struct stat info {};
  if (::fstat(in, &info) != 0) return LastError();
  if (!S_ISREG(info.st_mode)) return std::make_error_code(std::errc::not_supported);
  if (::fchmod(out, info.st_mode & 07777) != 0) return LastError();
  if (std::error_code ec = CopyBytes(in, out)) return ec;
  if (::fdatasync(out) != 0) return LastError();
  ::posix_fadvise(out, 0, 0, POSIX_FADV_DONTNEED);
  return {};
}

std::error_code CopyFile(const fs::path& from, int out) {
  ScopedFd in(::open(from.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!in.valid()) return LastError();
  return CopyFileContents(in.get(), out);
}

std::error_code SyncFolder(const fs::path& folder) {
  ScopedFd fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd.valid() || ::fsync(fd.get()) != 0) return LastError();
  return {};
}

// Copies what the folder `from` holds into the existing, empty folder `to`, then gives
// `to` the mode of `from` and flushes it.
std::error_code CopyTree(const fs::path& from, const fs::path& to) {
  std::error_code ec;
  for (fs::directory_iterator it(from, ec), end; !ec && it != end; it.increment(ec)) {
    const fs::path target = to / it->path().filename();
    const fs::file_status status = it->symlink_status(ec);
    if (ec) break;
    if (fs::is_symlink(status)) {
      fs::copy_symlink(it->path(), target, ec);
    } else if (fs::is_directory(status)) {
      if (::mkdir(target.c_str(), 0700) != 0) return LastError();
      ec = CopyTree(it->path(), target);
    } else {
      ScopedFd out(
          ::open(target.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
      ec = out.valid() ? CopyFile(it->path(), out.get()) : LastError();
    }
    if (ec) return ec;
  }
  if (ec) return ec;
  struct stat info {};
  if (::lstat(from.c_str(), &info) != 0 || ::chmod(to.c_str(), info.st_mode & 07777) != 0) {
    return LastError();
  }
  return SyncFolder(to);
}

// Renames the finished copy `partial` to `to`. An existing `to` is refused (EEXIST), or
// with `replace` swapped out and removed once the copy is in place. The folder's new
// entry is flushed when `flush_name`.
bool PutInPlace(const fs::path& partial, const fs::path& to, bool replace, bool flush_name,
                ErrorRef* error) {
  std::error_code ignored;
  if (replace &&
      ::renameat2(AT_FDCWD, partial.c_str(), AT_FDCWD, to.c_str(), RENAME_EXCHANGE) == 0) {
    // `partial` now holds what was at `to`.
    fs::remove_all(partial, ignored);
  } else if (::renameat2(AT_FDCWD, partial.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) != 0) {
    const int failure = errno;
    fs::remove_all(partial, ignored);
    return Fail(error, PosixError(failure, to));
  }
  if (flush_name) SyncFolder(to.parent_path().empty() ? fs::path(".") : to.parent_path());
  return true;
}

// `shared_folder`: `to`'s folder may hold the partial copies of other writers, and the
// new name must be on the disk when this returns.
bool Copy(const fs::path& from, const fs::path& to, bool replace, bool shared_folder,
          ErrorRef* error) {
  const fs::path partial = PartialPathFor(to);
  if (shared_folder) {
    ReclaimAbandonedPartials(to.parent_path().empty() ? fs::path(".") : to.parent_path());
  }
  if (!RemoveIfAbandoned(partial)) return Fail(error, PosixError(EBUSY, partial));
  struct stat info {};
  if (::lstat(from.c_str(), &info) != 0) return Fail(error, PosixError(errno, from));
  if (!S_ISDIR(info.st_mode) && !S_ISREG(info.st_mode)) {
    return Fail(error, PosixError(ENOTSUP, from));
  }
  // Held until the copy has its name, so no reclaimer takes it for abandoned.
  OwnerLock lock = S_ISDIR(info.st_mode) ? OwnerLock::CreateFolder(partial, error)
                                         : OwnerLock::CreateFile(partial, 0600, error);
  if (!lock.held()) return false;
  const std::error_code ec =
      S_ISDIR(info.st_mode) ? CopyTree(from, partial) : CopyFile(from, lock.fd());
  if (ec) {
    std::error_code ignored;
    fs::remove_all(partial, ignored);
    return Fail(error, PosixError(ec, to));
  }
  return PutInPlace(partial, to, replace, shared_folder, error);
}

}  // namespace

fs::path PartialPathFor(const fs::path& to) {
  return to.parent_path() / ("." + to.filename().string() + std::string(kPartialSuffix));
}

void ReclaimAbandonedPartials(const fs::path& folder) {
  std::vector<fs::path> partials;
  std::error_code ec;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (name.size() > kPartialSuffix.size() + 1 && name.front() == '.' &&
        name.ends_with(kPartialSuffix)) {
      partials.push_back(it->path());
    }
  }
  for (const fs::path& partial : partials) {
    // The folder may be shared: only what this user's copies make is looked at.
    struct stat info {};
    if (::lstat(partial.c_str(), &info) == 0 && info.st_uid == ::geteuid() &&
        (S_ISREG(info.st_mode) || S_ISDIR(info.st_mode))) {
      RemoveIfAbandoned(partial);
    }
  }
}

bool CopyIntoPlace(const fs::path& from, const fs::path& to, bool replace, ErrorRef* error) {
  return Copy(from, to, replace, true, error);
}

bool CopyIntoOwnFolder(const fs::path& from, const fs::path& to, ErrorRef* error) {
  return Copy(from, to, false, false, error);
}

}  // namespace vm::vmattach
