#ifndef VM_PLATFORM_URLREQUEST_H_
#define VM_PLATFORM_URLREQUEST_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/URL.h"

namespace vm {

// Header fields in the order they were added. Names compare without regard to case.
using HTTPHeaderFields = std::vector<std::pair<std::string, std::string>>;

// What to send: URL, method, header fields, body, cache policy and timeout.
// A value type; not synchronised (copy it to hand it to another thread).
class URLRequest {
 public:
  // The protocol's own caching rules: the default policy, and the only one there is (no
  // cache is kept; the value is carried for whoever reads the request).
  static constexpr int kUseProtocolCachePolicy = 0;

  explicit URLRequest(URL url, int cachePolicy = kUseProtocolCachePolicy,
                      double timeoutInterval = 60.0);

  const URL& url() const { return url_; }
  const std::string& httpMethod() const { return method_; }
  void setHTTPMethod(std::string method) { method_ = std::move(method); }
  const std::optional<std::vector<std::uint8_t>>& httpBody() const { return body_; }
  void setHTTPBody(std::optional<std::vector<std::uint8_t>> body) { body_ = std::move(body); }
  int cachePolicy() const { return cache_policy_; }
  // The longest time the transfer may stay idle (connecting, or no byte moving), in seconds.
  double timeoutInterval() const { return timeout_; }
  void setTimeoutInterval(double seconds) { timeout_ = seconds; }

  // The most bytes of answer body the task accepts; a longer answer fails the task with
  // kURLErrorDataLengthExceedsMaximum instead of growing memory or a file. Unset: no limit.
  std::optional<std::uint64_t> maximumResponseLength() const { return maximum_response_; }
  void setMaximumResponseLength(std::optional<std::uint64_t> bytes) { maximum_response_ = bytes; }

  const HTTPHeaderFields& allHTTPHeaderFields() const { return headers_; }
  std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;
  // Adds `value` to `field`; a field that already has a value gets ", value" appended.
  void addValue(std::string_view value, std::string_view field);
  // Replaces the value of `field`.
  void setValue(std::string_view value, std::string_view field);

 private:
  URL url_;
  std::string method_ = "GET";
  std::optional<std::vector<std::uint8_t>> body_;
  int cache_policy_;
  double timeout_;
  std::optional<std::uint64_t> maximum_response_;
  HTTPHeaderFields headers_;
};

}  // namespace vm

#endif  // VM_PLATFORM_URLREQUEST_H_
