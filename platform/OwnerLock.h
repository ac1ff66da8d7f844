#ifndef VM_PLATFORM_OWNERLOCK_H_
#define VM_PLATFORM_OWNERLOCK_H_

#include <sys/types.h>

#include <filesystem>

#include "platform/Error.h"
#include "platform/ScopedFd.h"

namespace vm {

// Items a process writes and may die writing (work files, partial downloads, partial
// copies) carry an advisory lock (flock(2)) on the item itself, held by their writer for
// as long as it writes. The kernel drops the lock with the writer, even one killed with
// SIGKILL, so an item found unlocked has no owner left and may be removed. The lock goes
// with the item through a rename. Advisory: it orders only the writers and reclaimers
// that use this unit.
//
// An OwnerLock owns the descriptor that holds the lock; dropping it lets go. Movable, not
// copyable; like any value, not for use from two threads at once.
class OwnerLock {
 public:
  OwnerLock() = default;

  // Creates `path` as a new, empty file with `mode` (exactly, whatever the umask) and
  // holds its lock; the descriptor is open for writing. An existing item is refused
  // (EEXIST). A reclaimer never finds the new file unowned: one that took it in the
  // moment before the lock is noticed and the file made again.
  static OwnerLock CreateFile(const std::filesystem::path& path, mode_t mode, ErrorRef* error);

  // The same for a new folder (made 0700), whose lock stands for everything put in it.
  static OwnerLock CreateFolder(const std::filesystem::path& path, ErrorRef* error);

  // Makes the folder `path` (0700) unless it is there, and holds its lock, waiting while
  // another process holds it: for a work folder with a fixed name, which two writers must
  // not share. A link, or a folder another user owns, is refused (EACCES).
  static OwnerLock HoldFolder(const std::filesystem::path& path, ErrorRef* error);

  // Holds the lock of the existing file or folder `path` (never through a link), for an
  // item that becomes a partial one by being renamed. EWOULDBLOCK when another process
  // holds it.
  static OwnerLock Hold(const std::filesystem::path& path, ErrorRef* error);

  bool held() const { return fd_.valid(); }
  // The descriptor holding the lock: the file's, opened for writing, or the folder's.
  int fd() const { return fd_.get(); }

 private:
  explicit OwnerLock(ScopedFd fd) : fd_(std::move(fd)) {}

  ScopedFd fd_;
};

// Takes the lock of the item just made at `path` and open as `fd` (e.g. by mkostemp),
// for writers that make their items themselves. False when a reclaimer removed the item
// in the moment before: the caller makes another.
bool LockAsOwner(int fd, const std::filesystem::path& path);

// Removes the item at `path` (a file, a link, or a folder with all it holds) unless a live
// process holds its lock. True when nothing is left at `path`; false when the item is
// owned or could not be removed.
bool RemoveIfAbandoned(const std::filesystem::path& path);

}  // namespace vm

#endif  // VM_PLATFORM_OWNERLOCK_H_
