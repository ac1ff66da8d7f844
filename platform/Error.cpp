#include "platform/Error.h"

#include <fmt/format.h>

#include <cstring>
#include <system_error>

namespace vm {

ErrorRef Error::Make(std::string_view domain, std::int64_t code, UserInfo user_info) {
  return std::make_shared<const Error>(domain, code, std::move(user_info));
}

ErrorRef Error::WithDescription(std::string_view domain, std::int64_t code,
                                std::string_view description, ErrorRef underlying) {
  Error::UserInfo info;
  info.emplace(std::string(NSLocalizedDescriptionKey), std::string(description));
  // An absent underlying error is left out rather than stored as an empty value.
  if (underlying) info.emplace(std::string(NSUnderlyingErrorKey), std::move(underlying));
  return Make(domain, code, std::move(info));
}

Error::Error(std::string_view domain, std::int64_t code, UserInfo user_info)
    : domain_(domain), code_(code), user_info_(std::move(user_info)) {}

std::string Error::localizedDescription() const {
  if (const std::string* text = stringForKey(NSLocalizedDescriptionKey)) return *text;
  return fmt::format("The operation couldn't be completed. ({} error {}.)", domain_, code_);
}

std::optional<std::string> Error::localizedRecoverySuggestion() const {
  if (const std::string* text = stringForKey(NSLocalizedRecoverySuggestionErrorKey)) return *text;
  return std::nullopt;
}

ErrorRef Error::underlyingError() const {
  auto it = user_info_.find(NSUnderlyingErrorKey);
  if (it == user_info_.end()) return nullptr;
  if (const ErrorRef* e = std::get_if<ErrorRef>(&it->second)) return *e;
  return nullptr;
}

const std::string* Error::stringForKey(std::string_view key) const {
  auto it = user_info_.find(key);
  return it == user_info_.end() ? nullptr : std::get_if<std::string>(&it->second);
}

const Error::Numbers* Error::numbersForKey(std::string_view key) const {
  auto it = user_info_.find(key);
  return it == user_info_.end() ? nullptr : std::get_if<Numbers>(&it->second);
}

const std::int64_t* Error::numberForKey(std::string_view key) const {
  auto it = user_info_.find(key);
  return it == user_info_.end() ? nullptr : std::get_if<std::int64_t>(&it->second);
}

std::string Error::summary() const {
  return fmt::format("{} ({} {})", localizedDescription(), domain_, code_);
}

ErrorRef PosixError(int error_number, const std::filesystem::path& context) {
  std::string text = std::generic_category().message(error_number);
  Error::UserInfo info;
  if (!context.empty()) {
    text = fmt::format("{}: {}", context.string(), text);
    info.emplace(std::string(NSFilePathErrorKey), context.string());
  }
  info.emplace(std::string(NSLocalizedDescriptionKey), std::move(text));
  return Error::Make(NSPOSIXErrorDomain, error_number, std::move(info));
}

ErrorRef PosixError(const std::error_code& code, const std::filesystem::path& context) {
  return PosixError(code.value(), context);
}

}  // namespace vm
