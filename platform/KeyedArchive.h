#ifndef VM_PLATFORM_KEYEDARCHIVE_H_
#define VM_PLATFORM_KEYEDARCHIVE_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace vm {

// A value of an archived settings dictionary: a string, a number, a boolean or data.
using ArchivedValue =
    std::variant<std::string, std::int64_t, double, bool, std::vector<std::uint8_t>>;
using ArchivedDictionary = std::map<std::string, ArchivedValue, std::less<>>;

// Keyed archives of a settings dictionary: a binary property list laid out the way the
// platform's keyed archiver lays out an NSDictionary ("$archiver", "$version" 100000,
// "$top" with a "root" UID, "$objects" starting with "$null"), so that scheme rows written
// by other clients of the same database read back here and the other way round.
//
// Only string keys and values of the ArchivedValue kinds are understood; an entry whose key
// or value is anything else (a nested collection, a date) is left out.
//
// Thread-safe: plain functions without shared state.

// The dictionary archived in `data`; nullopt when `data` is not a keyed archive whose root
// object is a dictionary. Never throws and never crashes on malformed input.
std::optional<ArchivedDictionary> UnarchiveDictionary(const std::vector<std::uint8_t>& data);

// The keyed archive of `dictionary`, as an NSMutableDictionary.
std::vector<std::uint8_t> ArchiveDictionary(const ArchivedDictionary& dictionary);

// The string under `key`; nullopt when it is absent or not a string.
std::optional<std::string> ArchivedString(const ArchivedDictionary& dictionary,
                                          std::string_view key);

}  // namespace vm

#endif  // VM_PLATFORM_KEYEDARCHIVE_H_
