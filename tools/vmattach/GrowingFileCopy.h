#ifndef VM_TOOLS_VMATTACH_GROWINGFILECOPY_H_
#define VM_TOOLS_VMATTACH_GROWINGFILECOPY_H_

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <thread>

#include "platform/ScopedFd.h"

namespace vm::vmattach {

// Copies a file while another party is still writing it, so that the copy is done soon
// after the writer is. Made for a writer that creates `source` fresh, only appends to it,
// and then renames or links it elsewhere: the copy follows the file (the inode), not the
// name.
//
// A background thread waits for `source` to appear (a regular file of this user's, never
// through a link), then copies what has been written into `destination`, which it creates
// (mode 0600, never over an existing item). The bytes go straight to the disk: the copy
// costs the disk's time, not memory, and so overlaps well with a writer that is busy
// computing. finish() keeps the copy only when the file now at the writer's final name is
// the one followed, it was never seen shorter than what was copied, and every byte of it
// was copied and flushed; anything else leaves no destination behind. A writer that
// rewrites bytes already copied, without first cutting the file below them, is beyond
// what these checks can tell.
//
// Not thread-safe: one owner calls finish() or abandon() once; the destructor abandons a
// copy that was not finished.
class GrowingFileCopy {
 public:
  GrowingFileCopy(std::filesystem::path source, std::filesystem::path destination);
  ~GrowingFileCopy();

  GrowingFileCopy(const GrowingFileCopy&) = delete;
  GrowingFileCopy& operator=(const GrowingFileCopy&) = delete;

  // Called once the writer is done and its file is at `final_path`: copies the rest and
  // checks the copy as above. True when `destination` holds the whole file, on the disk,
  // with the final file's mode; otherwise `destination` is removed.
  bool finish(const std::filesystem::path& final_path);
  // Stops following and removes `destination`.
  void abandon();

 private:
  void follow();
  // Copies the whole chunks written so far through `buffer` (one aligned chunk), and with
  // `to_end` the rest too; false on an error or when the file shrank.
  bool copyAvailable(std::uint8_t* buffer, bool to_end);

  const std::filesystem::path source_;
  const std::filesystem::path destination_;
  std::atomic<bool> stop_{false};
  // Set by finish() before it joins the thread: copy to the end, then leave.
  std::atomic<bool> writer_done_{false};
  // Written by the thread only, read after it is joined.
  ScopedFd in_;
  ScopedFd out_;  // valid once this object created `destination`
  off_t copied_ = 0;
  bool broken_ = false;
  bool ended_ = false;
  std::thread thread_;  // last: starts once the state above exists
};

}  // namespace vm::vmattach

#endif  // VM_TOOLS_VMATTACH_GROWINGFILECOPY_H_
