#include "BWFoundation/BWFileManagerAdditions.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

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

struct CopyJob {
  FSFileOperation operation;
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
    fs::path temp;
    Fd out;
    for (int attempt = 0; attempt < 5 && out.get() < 0; ++attempt) {
      temp = folder / ("." + to.filename().string() + ".vmcopy-" + MakeUniqueID().substr(0, 8));
      out.adopt(open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
      if (out.get() < 0 && errno != EEXIST) break;
    }
    if (out.get() < 0) return report(kFSOperationStageComplete, errno);

    int error =
        CopyBytes(source->get(), out.get(), status, [&] { report(kFSOperationStageRunning, 0); });
    if (error == 0 && status.bytesComplete == 0) report(kFSOperationStageRunning, 0);
    if (error == 0 && fsync(out.get()) != 0 && errno != EINVAL && errno != EROFS &&
        errno != ENOTSUP) {
      error = errno;
    }
    if (!out.reset() && error == 0) error = errno;
    source->reset();
    // The placeholder folder, if the caller made one, gives way to the file.
    struct stat st;
    if (error == 0 && lstat(to.c_str(), &st) == 0 && S_ISDIR(st.st_mode) &&
        rmdir(to.c_str()) != 0) {
      error = errno;
    }
    if (error == 0 && rename(temp.c_str(), to.c_str()) != 0) error = errno;
    if (error != 0) {
      unlink(temp.c_str());
      return report(kFSOperationStageComplete, error);
    }
    report(kFSOperationStageComplete, 0);
  }
};

}  // namespace

bool bwPerformAsyncCopyFromURL(const fs::path& from, const fs::path& to, BWCopyContext context,
                               FSFileOperationStatusProcPtr callback, ErrorRef* error) {
  if (callback == nullptr || from.empty() || to.empty()) {
    return Fail(error, PosixError(EINVAL, from.empty() ? to : from));
  }
  auto source = std::make_shared<Fd>(open(from.c_str(), O_RDONLY | O_CLOEXEC));
  if (source->get() < 0) return Fail(error, PosixError(errno, from));
  struct stat st;
  if (fstat(source->get(), &st) != 0) return Fail(error, PosixError(errno, from));
  if (!S_ISREG(st.st_mode))
    return Fail(error, PosixError(S_ISDIR(st.st_mode) ? EISDIR : EINVAL, from));

  fs::path folder = to.parent_path().empty() ? fs::path(".") : to.parent_path();
  struct stat folder_st;
  if (stat(folder.c_str(), &folder_st) != 0) return Fail(error, PosixError(errno, folder));
  if (!S_ISDIR(folder_st.st_mode)) return Fail(error, PosixError(ENOTDIR, folder));
  struct stat to_st;
  if (lstat(to.c_str(), &to_st) == 0 && S_ISDIR(to_st.st_mode) && EmptyFolderState(to) != 1) {
    return Fail(error, PosixError(EISDIR, to));
  }

  auto job =
      std::make_shared<CopyJob>(CopyJob{FSFileOperation{from, to}, std::move(context), callback,
                                        std::move(source), static_cast<std::int64_t>(st.st_size)});
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
