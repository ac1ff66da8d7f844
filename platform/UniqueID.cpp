#include "platform/UniqueID.h"

#include <uuid/uuid.h>

#include <algorithm>
#include <cctype>

namespace vm {

std::string MakeUniqueID() {
  uuid_t id;
  uuid_generate_random(id);
  char text[37];
  uuid_unparse_upper(id, text);
  return text;
}

std::optional<std::string> ParseUUID(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  std::string copy(text);
  uuid_t id;
  if (uuid_parse(copy.c_str(), id) != 0) return std::nullopt;
  return ToUpper(copy);
}

std::string ToLower(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

std::string ToUpper(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return out;
}

}  // namespace vm
