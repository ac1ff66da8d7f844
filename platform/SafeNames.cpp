#include "platform/SafeNames.h"

#include <fmt/format.h>

#include <cerrno>

namespace vm {
namespace {

ErrorRef Refuse(std::string_view what, std::string_view value, std::string_view reason) {
  return Error::WithDescription(
      NSPOSIXErrorDomain, EINVAL,
      fmt::format("The {} \"{}\" is refused: {}.", what, EscapeControlCharacters(value), reason));
}

}  // namespace

ErrorRef CheckFileName(std::string_view name, std::string_view what) {
  if (name.empty()) return Refuse(what, name, "it is empty");
  if (name == "." || name == "..") return Refuse(what, name, "it names a folder, not a file");
  if (name.find('/') != std::string_view::npos) return Refuse(what, name, "it holds a \"/\"");
  if (name.find('\0') != std::string_view::npos) return Refuse(what, name, "it holds a NUL");
  if (name.size() > kMaxFileNameBytes) {
    return Refuse(what, name, fmt::format("it is longer than {} bytes", kMaxFileNameBytes));
  }
  return nullptr;
}

ErrorRef CheckRelativePath(std::string_view path, std::string_view what) {
  if (!path.empty() && path.front() == '/') return Refuse(what, path, "it is absolute");
  if (path.find('\0') != std::string_view::npos) return Refuse(what, path, "it holds a NUL");
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string_view::npos) end = path.size();
    if (path.substr(start, end - start) == "..") {
      return Refuse(what, path, "it climbs out of its folder with \"..\"");
    }
    start = end + 1;
  }
  return nullptr;
}

std::string EscapeControlCharacters(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    auto c = static_cast<unsigned char>(text[i]);
    if (c == 0xC2 && i + 1 < text.size()) {
      auto next = static_cast<unsigned char>(text[i + 1]);
      if (next >= 0x80 && next <= 0x9F) {
        out += fmt::format("\\u{:04x}", next);
        ++i;
        continue;
      }
    }
    if (c >= 0x20 && c != 0x7F) {
      out += static_cast<char>(c);
      continue;
    }
    switch (c) {
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        out += fmt::format("\\x{:02x}", c);
    }
  }
  return out;
}

}  // namespace vm
