#ifndef VM_VMATTACHMENTS_ARCHIVE_INTERNAL_SUBPATHRESOLVER_H_
#define VM_VMATTACHMENTS_ARCHIVE_INTERNAL_SUBPATHRESOLVER_H_

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>

#include "platform/Error.h"

namespace vm::archive_internal {

// subPathFromURL() for many items below one parent. The parent is resolved once, and
// the resolved folder of the last item is remembered, so that a tree walked in order
// (where siblings come together) costs one path resolution per folder, not per item.
// Not thread-safe.
class SubPathResolver {
 public:
  explicit SubPathResolver(const std::filesystem::path& parent);

  // As subPathFromURL(item, parent); throws InternalInconsistencyException.
  std::string subPath(const std::filesystem::path& item);

 private:
  [[noreturn]] void raise(const std::filesystem::path& item, const ErrorRef& error) const;

  std::filesystem::path parent_;  // absolute, normalised
  std::size_t parent_component_count_ = 0;
  std::filesystem::path resolved_parent_;  // empty when resolution failed
  ErrorRef parent_error_;                  // why the parent did not resolve
  std::filesystem::path last_folder_;
  std::filesystem::path last_folder_resolved_;
};

// Absolute and lexically normal, without a trailing separator (except for "/").
std::filesystem::path StandardizedPath(const std::filesystem::path& path);

}  // namespace vm::archive_internal

#endif  // VM_VMATTACHMENTS_ARCHIVE_INTERNAL_SUBPATHRESOLVER_H_
