#ifndef VM_TESTS_VMATTACHMENTS_ARCHIVE_INCHILD_H_
#define VM_TESTS_VMATTACHMENTS_ARCHIVE_INCHILD_H_

#include <cstdint>
#include <functional>
#include <optional>

namespace vm::testing {

// What a forked child reported: whether `body` returned true, and the child's own peak
// resident memory, unmixed with what the test process used before.
struct ChildOutcome {
  bool succeeded = false;
  std::uint64_t peak_rss_bytes = 0;
};

// Runs `body` in a child process of this (single-threaded) test; with `file_size_limit`
// the child cannot grow any file past that many bytes (a write there fails with EFBIG).
ChildOutcome RunInChild(const std::function<bool()>& body,
                        std::optional<std::uint64_t> file_size_limit = std::nullopt);

}  // namespace vm::testing

#endif  // VM_TESTS_VMATTACHMENTS_ARCHIVE_INCHILD_H_
