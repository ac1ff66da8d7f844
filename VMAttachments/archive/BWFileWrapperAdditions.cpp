#include "VMAttachments/archive/BWFileWrapperAdditions.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "VMAttachments/archive/internal/SubPathResolver.h"

namespace vm {

namespace archive_internal {

std::filesystem::path StandardizedPath(const std::filesystem::path& path) {
  std::filesystem::path absolute = path;
  if (!absolute.is_absolute()) {
    std::error_code ec;
    absolute = std::filesystem::absolute(path, ec);
    if (ec) absolute = path;
  }
  absolute = absolute.lexically_normal();
  if (!absolute.has_filename() && absolute.has_relative_path()) absolute = absolute.parent_path();
  return absolute;
}

SubPathResolver::SubPathResolver(const std::filesystem::path& parent)
    : parent_(StandardizedPath(parent)) {
  parent_component_count_ = static_cast<std::size_t>(std::distance(parent_.begin(), parent_.end()));
  std::error_code ec;
  std::filesystem::path resolved = std::filesystem::canonical(parent_, ec);
  if (ec) {
    parent_error_ = PosixError(ec, parent_);
  } else if (!std::filesystem::is_directory(resolved, ec)) {
    parent_error_ = PosixError(ENOTDIR, parent_);
  } else {
    resolved_parent_ = std::move(resolved);
  }
}

std::string SubPathResolver::subPath(const std::filesystem::path& item) {
  if (parent_error_) raise(item, parent_error_);
  const std::filesystem::path standardized = StandardizedPath(item);
  if (!standardized.has_filename()) raise(item, nullptr);  // the root lies below nothing

  // Resolve the item's folder but not the item, so a symbolic link stays an item of its own.
  std::filesystem::path folder = standardized.parent_path();
  if (folder != last_folder_ || last_folder_resolved_.empty()) {
    std::error_code ec;
    std::filesystem::path resolved = std::filesystem::weakly_canonical(folder, ec);
    if (ec) raise(item, PosixError(ec, folder));
    last_folder_ = std::move(folder);
    last_folder_resolved_ = std::move(resolved);
  }
  const std::filesystem::path resolved_item = last_folder_resolved_ / standardized.filename();
  auto [parent_end, item_rest] = std::mismatch(resolved_parent_.begin(), resolved_parent_.end(),
                                               resolved_item.begin(), resolved_item.end());
  if (parent_end != resolved_parent_.end() || item_rest == resolved_item.end()) {
    raise(item, nullptr);
  }

  // The text is lexical: the parent's components are dropped without comparing them, so
  // a parent reached through a link still yields the path below it.
  std::string result;
  std::size_t index = 0;
  for (const auto& component : standardized) {
    if (index++ < parent_component_count_) continue;
    if (!result.empty()) result += '/';
    result += component.string();
  }
  return result;
}

void SubPathResolver::raise(const std::filesystem::path& item, const ErrorRef& error) const {
  throw InternalInconsistencyException(fmt::format(
      "Base path components do not match - '{}' is not a direct subpath of the passed in "
      "parent path ('{}') {}",
      FileURLString(StandardizedPath(item)), FileURLString(parent_),
      error ? error->summary() : std::string()));
}

}  // namespace archive_internal

std::string subPathFromURL(const std::filesystem::path& url, const std::filesystem::path& parent) {
  return archive_internal::SubPathResolver(parent).subPath(url);
}

std::string FileURLString(const std::filesystem::path& path) {
  static constexpr char kKept[] = "-._~/!$&'()*+,;=:@";
  std::string result = "file://";
  for (unsigned char c : archive_internal::StandardizedPath(path).string()) {
    bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                 (c != '\0' && std::strchr(kKept, c) != nullptr);
    if (plain) {
      result += static_cast<char>(c);
    } else {
      result += fmt::format("%{:02X}", c);
    }
  }
  return result;
}

}  // namespace vm
