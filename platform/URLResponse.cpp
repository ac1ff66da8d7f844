#include "platform/URLResponse.h"

#include <fmt/format.h>

#include <utility>

#include "platform/internal/HeaderFields.h"

namespace vm {

URLResponse::URLResponse(URL url, std::int64_t expectedContentLength)
    : url_(std::move(url)), expected_length_(expectedContentLength) {}

std::string URLResponse::description() const {
  return fmt::format("<URLResponse: {}>", url_.absoluteString());
}

HTTPURLResponse::HTTPURLResponse(URL url, int statusCode, HTTPHeaderFields headerFields,
                                 std::int64_t expectedContentLength)
    : URLResponse(std::move(url), expectedContentLength),
      status_(statusCode),
      headers_(std::move(headerFields)) {}

std::optional<std::string> HTTPURLResponse::valueForHTTPHeaderField(std::string_view field) const {
  return url_internal::FindField(headers_, field);
}

std::string HTTPURLResponse::description() const {
  return fmt::format("<HTTPURLResponse: {}> {{ Status Code: {} }}", url().absoluteString(),
                     status_);
}

}  // namespace vm
