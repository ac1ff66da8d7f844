#include "tests/VMAttachments/archive/ArchiveBytes.h"

namespace vm::testing {

namespace {

bool TakeU64(const std::string& bytes, std::size_t* at, std::uint64_t* value) {
  if (bytes.size() - *at < 8) return false;
  *value = 0;
  for (int i = 7; i >= 0; --i) {
    *value = (*value << 8) | static_cast<unsigned char>(bytes[*at + static_cast<std::size_t>(i)]);
  }
  *at += 8;
  return true;
}

bool Take(const std::string& bytes, std::size_t* at, std::uint64_t length, std::string* out) {
  if (bytes.size() - *at < length) return false;
  *out = bytes.substr(*at, static_cast<std::size_t>(length));
  *at += static_cast<std::size_t>(length);
  return true;
}

}  // namespace

std::optional<std::vector<ParsedEntry>> ParseArchive(const std::string& bytes) {
  if (bytes.compare(0, 14, "BWFILEWRAPPER1") != 0) return std::nullopt;
  std::vector<ParsedEntry> entries;
  std::size_t at = 14;
  while (at < bytes.size()) {
    ParsedEntry entry;
    std::uint64_t length = 0;
    if (!TakeU64(bytes, &at, &length) || !Take(bytes, &at, length, &entry.info)) {
      return std::nullopt;
    }
    if (entry.info.find("\"type\":\"NSFileTypeRegular\"") != std::string::npos) {
      std::string data;
      if (!TakeU64(bytes, &at, &length) || !Take(bytes, &at, length, &data)) return std::nullopt;
      entry.data = std::move(data);
    }
    entries.push_back(std::move(entry));
  }
  return entries;
}

}  // namespace vm::testing
