#ifndef VM_PLATFORM_BUNDLE_H_
#define VM_PLATFORM_BUNDLE_H_

#include <memory>
#include <string>
#include <string_view>

namespace vm {

// A localisation bundle: a gettext text domain whose message catalogues live under a
// locale folder. Keys are the English texts, so a missing translation gives back the key.
//
// Thread-safe and immutable after construction.
class Bundle {
 public:
  // Binds `domain` to `locale_dir` (when not empty) and returns the bundle. Each call makes
  // a new object; callers that want one object per process keep it themselves.
  static std::shared_ptr<const Bundle> bundleWithIdentifier(std::string identifier,
                                                            std::string domain,
                                                            std::string locale_dir = {});

  // The translation of `key`; when there is none: `value` when it is not empty, else `key`.
  // `table` names another text domain; empty means the bundle's own.
  std::string localizedStringForKey(std::string_view key, std::string_view value = {},
                                    std::string_view table = {}) const;

  const std::string& bundleIdentifier() const { return identifier_; }
  const std::string& textDomain() const { return domain_; }

  Bundle(std::string identifier, std::string domain);

 private:
  std::string identifier_;
  std::string domain_;
};

}  // namespace vm

#endif  // VM_PLATFORM_BUNDLE_H_
