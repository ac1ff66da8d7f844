#ifndef VM_PLATFORM_UNIQUEID_H_
#define VM_PLATFORM_UNIQUEID_H_

#include <optional>
#include <string>
#include <string_view>

namespace vm {

// A fresh random UUID in its canonical upper-case text form, as the platform's UUID
// class prints it.
std::string MakeUniqueID();

// Parses a UUID in either case; nullopt when `text` is not one. The result is upper case.
std::optional<std::string> ParseUUID(std::string_view text);

std::string ToLower(std::string_view text);
std::string ToUpper(std::string_view text);

}  // namespace vm

#endif  // VM_PLATFORM_UNIQUEID_H_
