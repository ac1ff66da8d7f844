#ifndef VM_PLATFORM_USERDEFAULTS_H_
#define VM_PLATFORM_USERDEFAULTS_H_

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace vm {

// The user's preferences: a flat map of keys to strings, integers and booleans.
// Implementations are thread-safe.
class UserDefaults {
 public:
  using Value = std::variant<std::string, std::int64_t, bool>;

  virtual ~UserDefaults() = default;

  virtual std::optional<Value> objectForKey(std::string_view key) const = 0;
  virtual void setObject(std::string_view key, Value value) = 0;
  virtual void removeObjectForKey(std::string_view key) = 0;

  // Absent keys and keys of another type give nullopt.
  std::optional<std::string> stringForKey(std::string_view key) const;
  // As the platform reads booleans: true for true, a non-zero integer, or the strings
  // "YES"/"true"/"1"; false otherwise, absent keys included.
  bool boolForKey(std::string_view key) const;

  // The process's standard defaults. The host installs its own with setStandard() before
  // any other use; until then an empty in-memory store answers.
  static std::shared_ptr<UserDefaults> standard();
  static void setStandard(std::shared_ptr<UserDefaults> defaults);
};

// Defaults kept in memory only; also the base of stores that persist elsewhere.
class InMemoryUserDefaults : public UserDefaults {
 public:
  std::optional<Value> objectForKey(std::string_view key) const override;
  void setObject(std::string_view key, Value value) override;
  void removeObjectForKey(std::string_view key) override;

 protected:
  // Called with the lock held after every change.
  virtual void didChange(const std::map<std::string, Value, std::less<>>& values);

  mutable std::mutex mu_;
  std::map<std::string, Value, std::less<>> values_;
};

}  // namespace vm

#endif  // VM_PLATFORM_USERDEFAULTS_H_
