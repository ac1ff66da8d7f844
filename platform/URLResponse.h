#ifndef VM_PLATFORM_URLRESPONSE_H_
#define VM_PLATFORM_URLRESPONSE_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/URL.h"
#include "platform/URLRequest.h"

namespace vm {

// The answer's metadata. Immutable once made, so safe to share between threads.
class URLResponse {
 public:
  explicit URLResponse(URL url, std::int64_t expectedContentLength = -1);
  virtual ~URLResponse() = default;

  const URL& url() const { return url_; }
  // -1 when unknown.
  std::int64_t expectedContentLength() const { return expected_length_; }
  virtual std::string description() const;

 private:
  URL url_;
  std::int64_t expected_length_;
};

class HTTPURLResponse : public URLResponse {
 public:
  HTTPURLResponse(URL url, int statusCode, HTTPHeaderFields headerFields,
                  std::int64_t expectedContentLength = -1);

  int statusCode() const { return status_; }
  const HTTPHeaderFields& allHeaderFields() const { return headers_; }
  std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;
  std::string description() const override;

 private:
  int status_;
  HTTPHeaderFields headers_;
};

}  // namespace vm

#endif  // VM_PLATFORM_URLRESPONSE_H_
