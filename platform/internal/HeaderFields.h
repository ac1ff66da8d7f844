#ifndef VM_PLATFORM_INTERNAL_HEADERFIELDS_H_
#define VM_PLATFORM_INTERNAL_HEADERFIELDS_H_

// Header-field lookup shared by requests and responses. Not for use outside this folder.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/URLRequest.h"

namespace vm::url_internal {

// Whether two field names are the same, ignoring ASCII case.
inline bool SameField(std::string_view a, std::string_view b) {
  auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; };
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

// The value of the first field named `name`, if any.
inline std::optional<std::string> FindField(const HTTPHeaderFields& fields, std::string_view name) {
  for (const auto& [field, value] : fields) {
    if (SameField(field, name)) return value;
  }
  return std::nullopt;
}

}  // namespace vm::url_internal

#endif  // VM_PLATFORM_INTERNAL_HEADERFIELDS_H_
