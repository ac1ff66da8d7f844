#include "BWFoundation/BWFileManagerAdditions.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "platform/DispatchQueue.h"
#include "platform/UniqueID.h"

namespace vm {
namespace {

namespace fs = std::filesystem;

constexpr size_t kChunkSize = 1 << 20;

class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  // Takes ownership of `fd`; only called on an empty Fd, so errno survives.
  void adopt(int fd) { fd_ = fd; }
  // Closes now and says whether the close succeeded: on network file systems a close is
  // where a failed write shows.
  bool reset() {
    bool ok = fd_ < 0 || close(fd_) == 0;
    fd_ = -1;
    return ok;
  }

 private:
  int fd_;
};

// 1: an empty folder, 0: a non-empty folder, -1: no folder (or unreadable).
int EmptyFolderState(const fs::path& path) {
  DIR* dir = opendir(path.c_str());
  if (dir == nullptr) return -1;
  int state = 1;
  while (dirent* entry = readdir(dir)) {
    std::string_view name = entry->d_name;
    if (name != "." && name != "..") {
      state = 0;
      break;
    }
  }
  closedir(dir);
  return state;
}

// Copies what is left of `in` into `out`, reporting after every chunk. Returns 0 or errno.
int CopyBytes(int in, int out, FSOperationStatus& status,
              const std::function<void()>& report_progress) {
  bool try_copy_range = true;
  std::unique_ptr<char[]> buffer;
  for (;;) {
    ssize_t copied = -1;
    if (try_copy_range) {
      copied = copy_file_range(in, nullptr, out, nullptr, kChunkSize, 0);
      if (copied < 0) {
        // Across file systems, or on one that cannot: copy through memory instead.
        if (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP ||
            errno == EBADF || errno == ETXTBSY || errno == EPERM) {
          try_copy_range = false;
          continue;
        }
        if (errno == EINTR) continue;
        return errno;
      }
    } else {
      if (!buffer) buffer = std::make_unique<char[]>(kChunkSize);
      ssize_t got = read(in, buffer.get(), kChunkSize);
      if (got < 0) {
        if (errno == EINTR) continue;
        return errno;
      }
      ssize_t done = 0;
      while (done < got) {
        ssize_t put = write(out, buffer.get() + done, static_cast<size_t>(got - done));
        if (put < 0) {
          if (errno == EINTR) continue;
          return errno;
        }
        done += put;
      }
      copied = got;
    }
    if (copied == 0) return 0;
    status.bytesComplete += copied;
    if (status.bytesComplete > status.totalBytes) status.totalBytes = status.bytesComplete;
    report_progress();
  }
}

constexpr std::string_view kTemporaryPrefix = ".vmcopy-";
constexpr std::size_t kTemporaryDigits = 16;

std::string TemporaryName() {
  std::string name(kTemporaryPrefix);
  for (char c : MakeUniqueID()) {
    if (c == '-') continue;
    name += c;
    if (name.size() == kTemporaryPrefix.size() + kTemporaryDigits) break;
  }
  return name;
}

bool SameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Whether `path` still names the file open as `fd`.
bool NamesOpenFile(const fs::path& path, int fd) {
  struct stat open_st;
  struct stat path_st;
  return fstat(fd, &open_st) == 0 && lstat(path.c_str(), &path_st) == 0 &&
         SameFile(open_st, path_st);
}

// Removes the temporary files in `folder` whose copy was killed: a running copy holds the
// lock on its own, a dead one holds nothing.
void RemoveAbandonedTemporaries(const fs::path& folder) {
  std::vector<std::string> names;
  if (DIR* dir = opendir(folder.c_str())) {
    while (dirent* entry = readdir(dir)) {
      if (bwIsCopyTemporaryName(entry->d_name)) names.emplace_back(entry->d_name);
    }
    closedir(dir);
  }
  for (const std::string& name : names) {
    fs::path path = folder / name;
    Fd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st;
    if (fd.get() < 0 || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) continue;
    // Only while the name is still that file: a finished copy renames its file away.
    if (NamesOpenFile(path, fd.get())) unlink(path.c_str());
  }
}

// Moves `temp` to `to` unless something other than an empty folder is there. Returns 0 or
// errno (EEXIST when `to` is taken).
int PlaceWithoutReplacing(const fs::path& temp, const fs::path& to) {
  struct stat st;
  if (lstat(to.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && rmdir(to.c_str()) != 0) {
    return errno == ENOTEMPTY ? EISDIR : errno;
  }
  if (renameat2(AT_FDCWD, temp.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP) return errno;
  // A file system without that rename: a hard link refuses an existing name just as surely.
  if (link(temp.c_str(), to.c_str()) == 0) {
    unlink(temp.c_str());
    return 0;
  }
  if (errno == EEXIST) return EEXIST;
  // Neither is offered (some network file systems): look, then rename.
  if (lstat(to.c_str(), &st) == 0) return EEXIST;
  return rename(temp.c_str(), to.c_str()) == 0 ? 0 : errno;
}

int PlaceReplacing(const fs::path& temp, const fs::path& to) {
  // The placeholder folder, if the caller made one, gives way to the file.
  struct stat st;
  if (lstat(to.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && rmdir(to.c_str()) != 0) return errno;
  return rename(temp.c_str(), to.c_str()) == 0 ? 0 : errno;
}

struct CopyJob {
  FSFileOperation operation;
  BWCopyExisting existing;
  BWCopyContext context;
  FSFileOperationStatusProcPtr callback;
  std::shared_ptr<Fd> source;
  std::int64_t size;

  void run() {
    FSOperationStatus status{0, size};
    auto report = [&](int stage, int error) {
      callback(operation, operation.source, stage, static_cast<std::int32_t>(error), &status,
               context);
    };
    const fs::path& to = operation.destination;
    fs::path folder = to.parent_path().empty() ? fs::path(".") : to.parent_path();
    RemoveAbandonedTemporaries(folder);

    fs::path temp;
    Fd out;
    // Holds the temporary file's lock until it has its final name; a dup shares the lock,
    // so closing `out` early (to see a failed write) keeps the file protected.
    Fd lock;
    int open_error = EEXIST;
    for (int attempt = 0; attempt < 5 && out.get() < 0 && open_error == EEXIST; ++attempt) {
      temp = folder / TemporaryName();
      int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
      if (fd < 0) {
        open_error = errno;
        continue;
      }
      out.adopt(fd);
      if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        // A cleaner holds it for a moment and removes it: take another name. A file system
        // without locks gets none, and its cleaners cannot take one either.
        if (errno == EWOULDBLOCK) out.reset();
        continue;
      }
      if (!NamesOpenFile(temp, fd)) {
        out.reset();  // removed by a cleaner between our open and our lock
        continue;
      }
      lock.adopt(dup(fd));
    }
    if (out.get() < 0) return report(kFSOperationStageComplete, open_error);

    int error =
        CopyBytes(source->get(), out.get(), status, [&] { report(kFSOperationStageRunning, 0); });
    if (error == 0 && status.bytesComplete == 0) report(kFSOperationStageRunning, 0);
    if (error == 0 && fsync(out.get()) != 0 && errno != EINVAL && errno != EROFS &&
        errno != ENOTSUP) {
      error = errno;
    }
    if (!out.reset() && error == 0) error = errno;
    source->reset();
    if (error == 0) {
      error = existing == BWCopyExisting::kKeep ? PlaceWithoutReplacing(temp, to)
                                                : PlaceReplacing(temp, to);
    }
    if (error != 0) {
      unlink(temp.c_str());
      lock.reset();
      return report(kFSOperationStageComplete, error);
    }
    lock.reset();
    report(kFSOperationStageComplete, 0);
  }
};

}  // namespace

bool bwIsCopyTemporaryName(std::string_view name) {
  if (name.size() != kTemporaryPrefix.size() + kTemporaryDigits) return false;
  if (name.substr(0, kTemporaryPrefix.size()) != kTemporaryPrefix) return false;
  for (char c : name.substr(kTemporaryPrefix.size())) {
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

bool bwPerformAsyncCopyFromURL(const fs::path& from, const fs::path& to, BWCopyContext context,
                               FSFileOperationStatusProcPtr callback, ErrorRef* error) {
  return bwPerformAsyncCopyFromURL(from, to, BWCopyExisting::kReplace, std::move(context), callback,
                                   error);
}

bool bwPerformAsyncCopyFromURL(const fs::path& from, const fs::path& to, BWCopyExisting existing,
                               BWCopyContext context, FSFileOperationStatusProcPtr callback,
                               ErrorRef* error) {
  if (callback == nullptr || from.empty() || to.empty()) {
    return Fail(error, PosixError(EINVAL, from.empty() ? to : from));
  }
  // Only a regular file is opened: opening a FIFO would wait for a writer, and a device may
  // act on being opened. The open does not wait either, in case `from` changes meanwhile.
  struct stat st;
  if (stat(from.c_str(), &st) != 0) return Fail(error, PosixError(errno, from));
  if (!S_ISREG(st.st_mode)) {
    return Fail(error, PosixError(S_ISDIR(st.st_mode) ? EISDIR : EINVAL, from));
  }
  auto source = std::make_shared<Fd>(open(from.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (source->get() < 0) return Fail(error, PosixError(errno, from));
  if (fstat(source->get(), &st) != 0) return Fail(error, PosixError(errno, from));
  if (!S_ISREG(st.st_mode)) {
    return Fail(error, PosixError(S_ISDIR(st.st_mode) ? EISDIR : EINVAL, from));
  }
  fcntl(source->get(), F_SETFL, fcntl(source->get(), F_GETFL) & ~O_NONBLOCK);

  fs::path folder = to.parent_path().empty() ? fs::path(".") : to.parent_path();
  struct stat folder_st;
  if (stat(folder.c_str(), &folder_st) != 0) return Fail(error, PosixError(errno, folder));
  if (!S_ISDIR(folder_st.st_mode)) return Fail(error, PosixError(ENOTDIR, folder));
  struct stat to_st;
  if (lstat(to.c_str(), &to_st) == 0) {
    bool is_folder = S_ISDIR(to_st.st_mode);
    if (is_folder && EmptyFolderState(to) != 1) return Fail(error, PosixError(EISDIR, to));
    if (!is_folder && existing == BWCopyExisting::kKeep) {
      return Fail(error, PosixError(EEXIST, to));
    }
  }

  auto job = std::make_shared<CopyJob>(CopyJob{FSFileOperation{from, to}, existing,
                                               std::move(context), callback, std::move(source),
                                               static_cast<std::int64_t>(st.st_size)});
  BackgroundQueue().async([job] { job->run(); });
  return true;
}

std::optional<fs::path> bwLocalPathForSharepointFile(const fs::path& file) {
  if (file.empty()) return std::nullopt;
  std::error_code ec;
  if (!fs::exists(file, ec)) return std::nullopt;
  return file;
}

bool bwMoveItemAtURL(const std::filesystem::path& from, const std::filesystem::path& to,
                     ErrorRef* error) {
  if (::link(from.c_str(), to.c_str()) == 0) {
    ::unlink(from.c_str());
    return true;
  }
  int link_errno = errno;
  if (link_errno != EXDEV && link_errno != EPERM && link_errno != ENOTSUP && link_errno != EMLINK) {
    return Fail(error, PosixError(link_errno, to));
  }
  int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) return Fail(error, PosixError(errno, from));
  int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (out < 0) {
    int saved = errno;
    ::close(in);
    return Fail(error, PosixError(saved, to));
  }
  int copy_errno = 0;
  for (;;) {
    ssize_t copied = ::copy_file_range(in, nullptr, out, nullptr, 1 << 30, 0);
    if (copied == 0) break;
    if (copied < 0) {
      if (errno == EINTR) continue;
      copy_errno = errno;
      break;
    }
  }
  ::close(in);
  if (::close(out) != 0 && copy_errno == 0) copy_errno = errno;
  if (copy_errno != 0) {
    ::unlink(to.c_str());
    return Fail(error, PosixError(copy_errno, to));
  }
  ::unlink(from.c_str());
  return true;
}

bool bwIsBundleAtURL(const std::filesystem::path& url) {
  std::error_code ignored;
  return std::filesystem::is_directory(url, ignored);
}

}  // namespace vm
