#ifndef VM_PLATFORM_ERROR_H_
#define VM_PLATFORM_ERROR_H_

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace vm {

class Error;

// Errors are shared and immutable, so that "the same error object" handed to a delegate
// and written through an out-pointer is one object that callers can compare by address.
using ErrorRef = std::shared_ptr<const Error>;

// Well-known user-info keys and system domains.
inline constexpr std::string_view NSLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr std::string_view NSLocalizedRecoverySuggestionErrorKey =
    "NSLocalizedRecoverySuggestion";
inline constexpr std::string_view NSUnderlyingErrorKey = "NSUnderlyingError";
inline constexpr std::string_view NSFilePathErrorKey = "NSFilePath";
inline constexpr std::string_view NSURLErrorKey = "NSURL";
inline constexpr std::string_view NSPOSIXErrorDomain = "NSPOSIXErrorDomain";
inline constexpr std::string_view NSOSStatusErrorDomain = "NSOSStatusErrorDomain";
inline constexpr std::string_view NSCocoaErrorDomain = "NSCocoaErrorDomain";
inline constexpr std::string_view NSURLErrorDomain = "NSURLErrorDomain";

// A failure record: a domain, an integer code and a user-info dictionary.
// Thread-safe: an Error never changes after it is made.
class Error {
 public:
  using Numbers = std::vector<std::int64_t>;
  using Value = std::variant<std::string, std::int64_t, Numbers, ErrorRef>;
  using UserInfo = std::map<std::string, Value, std::less<>>;

  static ErrorRef Make(std::string_view domain, std::int64_t code, UserInfo user_info = {});
  // The common shape: a description and, when not null, an underlying error.
  static ErrorRef WithDescription(std::string_view domain, std::int64_t code,
                                  std::string_view description, ErrorRef underlying = nullptr);

  Error(std::string_view domain, std::int64_t code, UserInfo user_info);

  const std::string& domain() const { return domain_; }
  std::int64_t code() const { return code_; }
  const UserInfo& userInfo() const { return user_info_; }

  // The description under NSLocalizedDescriptionKey, or a generic text naming the
  // domain and code when there is none.
  std::string localizedDescription() const;
  std::optional<std::string> localizedRecoverySuggestion() const;
  ErrorRef underlyingError() const;

  // Typed lookups; null when the key is absent or holds another type.
  const std::string* stringForKey(std::string_view key) const;
  const Numbers* numbersForKey(std::string_view key) const;
  const std::int64_t* numberForKey(std::string_view key) const;

  // "description (domain code)", the form the command-line tool and the logs print.
  std::string summary() const;

 private:
  std::string domain_;
  std::int64_t code_;
  UserInfo user_info_;
};

// The out-pointer convention: `out` may be null; it is written only on failure and only
// when it is not null. Returns false so that callers can `return Fail(error, e);`.
inline bool Fail(ErrorRef* out, ErrorRef error) {
  if (out != nullptr) *out = std::move(error);
  return false;
}

// The one place errno becomes an Error: domain NSPOSIXErrorDomain, code errno, the
// description from strerror and the path (when given) as context.
ErrorRef PosixError(int error_number, const std::filesystem::path& context = {});
ErrorRef PosixError(const std::error_code& code, const std::filesystem::path& context = {});

// Raised only for programming errors the system names, never for what a file or a
// server sends.
class InternalInconsistencyException : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

}  // namespace vm

#endif  // VM_PLATFORM_ERROR_H_
