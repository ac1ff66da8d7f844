#ifndef VM_PLATFORM_PARSEDURL_H_
#define VM_PLATFORM_PARSEDURL_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vm {

// The parts of an absolute URL, as libcurl's URL parser splits it. Any scheme is accepted.
struct ParsedURL {
  std::string scheme;  // lower case
  std::string host;    // as written; IPv6 literals keep their brackets
  std::optional<int> port;
  std::string user;  // percent-decoded; empty when absent
  std::string path;  // still percent-encoded; "/" when the URL has none

  // The path's components, percent-decoded, without empty ones ("/a//b/" gives a, b).
  std::vector<std::string> pathComponents() const;
};

// Nullopt when `text` is not an absolute URL with a scheme and a host.
std::optional<ParsedURL> ParseURL(const std::string& text);

std::string PercentDecode(std::string_view text);
// Encodes every byte outside the unreserved characters and `keep`.
std::string PercentEncode(std::string_view text, std::string_view keep = {});

}  // namespace vm

#endif  // VM_PLATFORM_PARSEDURL_H_
