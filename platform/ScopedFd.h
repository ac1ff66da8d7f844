#ifndef VM_PLATFORM_SCOPEDFD_H_
#define VM_PLATFORM_SCOPEDFD_H_

#include <unistd.h>

#include <utility>

namespace vm {

// Owns one open file descriptor (or none, -1) and closes it when it goes away. Movable,
// not copyable. Like any value, not for use from two threads at once.
class ScopedFd {
 public:
  ScopedFd() = default;
  explicit ScopedFd(int fd) : fd_(fd) {}
  ScopedFd(ScopedFd&& other) noexcept : fd_(other.release()) {}
  ScopedFd& operator=(ScopedFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  ~ScopedFd() { reset(); }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }

  // Closes the descriptor held, if any, and takes `fd` instead.
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

  // Gives up the descriptor without closing it; the caller owns it from then on.
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;
};

}  // namespace vm

#endif  // VM_PLATFORM_SCOPEDFD_H_
