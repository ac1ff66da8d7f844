#include "platform/URLRequest.h"

#include "platform/internal/HeaderFields.h"

namespace vm {

using url_internal::FindField;
using url_internal::SameField;

URLRequest::URLRequest(URL url, int cachePolicy, double timeoutInterval)
    : url_(std::move(url)), cache_policy_(cachePolicy), timeout_(timeoutInterval) {}

std::optional<std::string> URLRequest::valueForHTTPHeaderField(std::string_view field) const {
  return FindField(headers_, field);
}

void URLRequest::addValue(std::string_view value, std::string_view field) {
  for (auto& [name, existing] : headers_) {
    if (SameField(name, field)) {
      existing += ", ";
      existing += value;
      return;
    }
  }
  headers_.emplace_back(std::string(field), std::string(value));
}

void URLRequest::setValue(std::string_view value, std::string_view field) {
  for (auto& [name, existing] : headers_) {
    if (SameField(name, field)) {
      existing = std::string(value);
      return;
    }
  }
  headers_.emplace_back(std::string(field), std::string(value));
}

}  // namespace vm
