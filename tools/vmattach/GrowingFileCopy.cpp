#include "tools/vmattach/GrowingFileCopy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <utility>

#include "tools/vmattach/DirectWrite.h"

namespace vm::vmattach {
namespace {

// How long the thread sleeps when there is nothing to do: while waiting for the file to
// appear, and when it has caught up with the writer.
constexpr auto kWaitingPause = std::chrono::milliseconds(5);
constexpr auto kCaughtUpPause = std::chrono::milliseconds(2);

}  // namespace

GrowingFileCopy::GrowingFileCopy(std::filesystem::path source, std::filesystem::path destination)
    : source_(std::move(source)),
      destination_(std::move(destination)),
      thread_([this] { follow(); }) {}

GrowingFileCopy::~GrowingFileCopy() {
  if (thread_.joinable() || in_.valid() || out_.valid()) abandon();
}

void GrowingFileCopy::follow() {
  while (!in_.valid()) {
    if (stop_) return;
    // Read before trying: a file that is not there once the writer is done never comes.
    const bool writer_done = writer_done_;
    ScopedFd fd(::open(source_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (fd.valid()) {
      struct stat info {};
      if (::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_uid != ::geteuid()) {
        broken_ = true;
        return;
      }
      in_ = std::move(fd);
      break;
    }
    if (writer_done) return;
    std::this_thread::sleep_for(kWaitingPause);
  }
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  out_.reset(::open(destination_.c_str(), kFlags | O_DIRECT, 0600));
  // A file system without direct writes gets ordinary ones.
  if (!out_.valid() && errno == EINVAL) out_.reset(::open(destination_.c_str(), kFlags, 0600));
  if (!out_.valid()) {
    broken_ = true;
    return;
  }
  DirectBuffer buffer = NewDirectBuffer();
  if (!buffer) {
    broken_ = true;
    return;
  }
  for (;;) {
    // Read before copying, so that the last pass starts after the writer's last byte.
    const bool writer_done = writer_done_;
    const off_t before = copied_;
    if (!copyAvailable(buffer.get(), writer_done)) {
      broken_ = true;
      return;
    }
    if (writer_done) {
      ended_ = true;
      return;
    }
    if (stop_) return;
    if (copied_ == before) std::this_thread::sleep_for(kCaughtUpPause);
  }
}

bool GrowingFileCopy::copyAvailable(std::uint8_t* buffer, bool to_end) {
  struct stat info {};
  if (::fstat(in_.get(), &info) != 0 || info.st_size < copied_) return false;
  for (;;) {
    const off_t left = info.st_size - copied_;
    if (left == 0 || (!to_end && left < static_cast<off_t>(kDirectChunk))) return true;
    const std::size_t want =
        left < static_cast<off_t>(kDirectChunk) ? static_cast<std::size_t>(left) : kDirectChunk;
    std::size_t filled = 0;
    while (filled < want) {
      const ssize_t got = ::pread(in_.get(), buffer + filled, want - filled, copied_ + filled);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return false;  // an error, or shorter than it just was
      filled += static_cast<std::size_t>(got);
    }
    if (!WriteDirect(out_.get(), buffer, filled)) return false;
    copied_ += static_cast<off_t>(filled);
  }
}

bool GrowingFileCopy::finish(const std::filesystem::path& final_path) {
  writer_done_ = true;
  if (thread_.joinable()) thread_.join();
  struct stat followed {};
  struct stat landed {};
  bool whole = ended_ && !broken_ && ::fstat(in_.get(), &followed) == 0 &&
               ::lstat(final_path.c_str(), &landed) == 0 && S_ISREG(landed.st_mode) &&
               landed.st_dev == followed.st_dev && landed.st_ino == followed.st_ino &&
               landed.st_size == copied_ && ::fchmod(out_.get(), landed.st_mode & 07777) == 0 &&
               ::fdatasync(out_.get()) == 0;
  if (whole) {
    // A failed close may have lost written bytes.
    whole = ::close(out_.release()) == 0;
    if (!whole) ::unlink(destination_.c_str());
  }
  if (!whole) {
    abandon();
    return false;
  }
  in_.reset();
  return true;
}

void GrowingFileCopy::abandon() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  in_.reset();
  if (out_.valid()) {
    out_.reset();
    ::unlink(destination_.c_str());
  }
}

}  // namespace vm::vmattach
