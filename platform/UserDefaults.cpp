#include "platform/UserDefaults.h"

namespace vm {
namespace {

std::mutex standard_mu;
std::shared_ptr<UserDefaults>& StandardSlot() {
  static auto* slot = new std::shared_ptr<UserDefaults>(std::make_shared<InMemoryUserDefaults>());
  return *slot;
}

}  // namespace

std::optional<std::string> UserDefaults::stringForKey(std::string_view key) const {
  std::optional<Value> value = objectForKey(key);
  if (!value) return std::nullopt;
  if (const auto* text = std::get_if<std::string>(&*value)) return *text;
  return std::nullopt;
}

bool UserDefaults::boolForKey(std::string_view key) const {
  std::optional<Value> value = objectForKey(key);
  if (!value) return false;
  if (const auto* b = std::get_if<bool>(&*value)) return *b;
  if (const auto* n = std::get_if<std::int64_t>(&*value)) return *n != 0;
  const auto& text = std::get<std::string>(*value);
  return text == "YES" || text == "true" || text == "1";
}

std::shared_ptr<UserDefaults> UserDefaults::standard() {
  std::lock_guard lock(standard_mu);
  return StandardSlot();
}

void UserDefaults::setStandard(std::shared_ptr<UserDefaults> defaults) {
  std::lock_guard lock(standard_mu);
  StandardSlot() = std::move(defaults);
}

std::optional<UserDefaults::Value> InMemoryUserDefaults::objectForKey(std::string_view key) const {
  std::lock_guard lock(mu_);
  auto it = values_.find(key);
  if (it == values_.end()) return std::nullopt;
  return it->second;
}

void InMemoryUserDefaults::setObject(std::string_view key, Value value) {
  std::lock_guard lock(mu_);
  values_.insert_or_assign(std::string(key), std::move(value));
  didChange(values_);
}

void InMemoryUserDefaults::removeObjectForKey(std::string_view key) {
  std::lock_guard lock(mu_);
  auto it = values_.find(key);
  if (it == values_.end()) return;
  values_.erase(it);
  didChange(values_);
}

void InMemoryUserDefaults::didChange(const std::map<std::string, Value, std::less<>>&) {}

}  // namespace vm
