#ifndef VM_PLATFORM_URL_H_
#define VM_PLATFORM_URL_H_

#include <optional>
#include <string>
#include <string_view>

namespace vm {

// An absolute URL (scheme, authority, path, query), parsed and normalised by libcurl's URL
// API. Only the parse is strict; which schemes may be spoken is the URL session's business
// (it speaks http and https only).
//
// A value type; immutable, so safe to share between threads.
class URL {
 public:
  // Null when `text` is not an absolute URL (no scheme, white space, control characters,
  // an empty host for schemes that need one).
  static std::optional<URL> URLWithString(std::string_view text);

  // The normalised text ("http://h" becomes "http://h/").
  const std::string& absoluteString() const { return text_; }
  // Lower case, as libcurl reports it.
  std::string scheme() const;
  std::string host() const;
  std::string path() const;
  // http or https: the only schemes this system ever speaks.
  bool isHTTP() const;

  // A copy with `component` appended to the path, with exactly one slash in between; the
  // query, if any, is kept.
  URL URLByAppendingPathComponent(std::string_view component) const;

  friend bool operator==(const URL& a, const URL& b) { return a.text_ == b.text_; }

 private:
  explicit URL(std::string text) : text_(std::move(text)) {}
  std::string part(int which) const;

  std::string text_;
};

}  // namespace vm

#endif  // VM_PLATFORM_URL_H_
