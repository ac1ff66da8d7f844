#include "platform/ParsedURL.h"

#include <curl/curl.h>
#include <fmt/format.h>

#include <cctype>
#include <cstdlib>
#include <memory>

namespace vm {
namespace {

struct UrlDeleter {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

std::optional<std::string> Part(CURLU* url, CURLUPart part, unsigned flags = 0) {
  char* value = nullptr;
  if (curl_url_get(url, part, &value, flags) != CURLUE_OK || value == nullptr) {
    return std::nullopt;
  }
  std::string out(value);
  curl_free(value);
  return out;
}

bool IsUnreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~';
}

}  // namespace

std::optional<ParsedURL> ParseURL(const std::string& text) {
  std::unique_ptr<CURLU, UrlDeleter> url(curl_url());
  if (!url) return std::nullopt;
  if (curl_url_set(url.get(), CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK) {
    return std::nullopt;
  }
  ParsedURL parsed;
  std::optional<std::string> scheme = Part(url.get(), CURLUPART_SCHEME);
  std::optional<std::string> host = Part(url.get(), CURLUPART_HOST);
  if (!scheme || !host || host->empty()) return std::nullopt;
  parsed.scheme = *scheme;
  for (char& c : parsed.scheme) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  parsed.host = *host;
  if (std::optional<std::string> port = Part(url.get(), CURLUPART_PORT)) {
    parsed.port = std::atoi(port->c_str());
  }
  parsed.user = Part(url.get(), CURLUPART_USER, CURLU_URLDECODE).value_or("");
  parsed.path = Part(url.get(), CURLUPART_PATH).value_or(std::string());
  if (parsed.path.empty()) parsed.path.push_back('/');
  return parsed;
}

std::vector<std::string> ParsedURL::pathComponents() const {
  std::vector<std::string> components;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    if (end > start) components.push_back(PercentDecode(path.substr(start, end - start)));
    start = end + 1;
  }
  return components;
}

std::string PercentDecode(std::string_view text) {
  int length = 0;
  char* decoded = curl_easy_unescape(nullptr, text.data(), static_cast<int>(text.size()), &length);
  if (decoded == nullptr) return std::string(text);
  std::string out(decoded, static_cast<size_t>(length));
  curl_free(decoded);
  return out;
}

std::string PercentEncode(std::string_view text, std::string_view keep) {
  std::string out;
  for (char ch : text) {
    auto c = static_cast<unsigned char>(ch);
    if (IsUnreserved(c) || keep.find(ch) != std::string_view::npos) {
      out.push_back(ch);
    } else {
      out += fmt::format("%{:02X}", c);
    }
  }
  return out;
}

}  // namespace vm
