#include "platform/Bundle.h"

#include <libintl.h>

#include <string>

namespace vm {

std::shared_ptr<const Bundle> Bundle::bundleWithIdentifier(std::string identifier,
                                                           std::string domain,
                                                           std::string locale_dir) {
  if (!locale_dir.empty()) bindtextdomain(domain.c_str(), locale_dir.c_str());
  bind_textdomain_codeset(domain.c_str(), "UTF-8");
  return std::make_shared<const Bundle>(std::move(identifier), std::move(domain));
}

Bundle::Bundle(std::string identifier, std::string domain)
    : identifier_(std::move(identifier)), domain_(std::move(domain)) {}

std::string Bundle::localizedStringForKey(std::string_view key, std::string_view value,
                                          std::string_view table) const {
  std::string key_text(key);
  std::string domain = table.empty() ? domain_ : std::string(table);
  // dgettext hands back its argument itself when there is no translation.
  const char* translated = dgettext(domain.c_str(), key_text.c_str());
  if (translated != key_text.c_str() && key_text != translated) return translated;
  return value.empty() ? key_text : std::string(value);
}

}  // namespace vm
