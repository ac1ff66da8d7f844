#include "platform/URL.h"

#include <curl/curl.h>

#include <memory>

namespace vm {
namespace {

struct URLHandleDeleter {
  void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};
using URLHandle = std::unique_ptr<CURLU, URLHandleDeleter>;

struct CurlStringDeleter {
  void operator()(char* text) const { curl_free(text); }
};
using CurlString = std::unique_ptr<char, CurlStringDeleter>;

// Schemes libcurl was not built for still parse: refusing them is left to the session,
// which then fails with an error the caller can show.
constexpr unsigned int kParseFlags = CURLU_NON_SUPPORT_SCHEME;

URLHandle Parse(const std::string& text) {
  URLHandle handle(curl_url());
  if (!handle ||
      curl_url_set(handle.get(), CURLUPART_URL, text.c_str(), kParseFlags) != CURLUE_OK) {
    return nullptr;
  }
  return handle;
}

std::optional<std::string> Get(CURLU* handle, CURLUPart which) {
  char* raw = nullptr;
  if (curl_url_get(handle, which, &raw, 0) != CURLUE_OK) return std::nullopt;
  CurlString owned(raw);
  return std::string(owned.get());
}

}  // namespace

std::optional<URL> URL::URLWithString(std::string_view text) {
  URLHandle handle = Parse(std::string(text));
  if (!handle) return std::nullopt;
  std::optional<std::string> normalised = Get(handle.get(), CURLUPART_URL);
  if (!normalised) return std::nullopt;
  return URL(std::move(*normalised));
}

std::string URL::part(int which) const {
  URLHandle handle = Parse(text_);
  if (!handle) return {};
  return Get(handle.get(), static_cast<CURLUPart>(which)).value_or(std::string());
}

std::string URL::scheme() const { return part(CURLUPART_SCHEME); }
std::string URL::host() const { return part(CURLUPART_HOST); }
std::string URL::path() const { return part(CURLUPART_PATH); }

bool URL::isHTTP() const {
  std::string s = scheme();
  return s == "http" || s == "https";
}

URL URL::URLByAppendingPathComponent(std::string_view component) const {
  URLHandle handle = Parse(text_);
  if (!handle) return *this;
  std::string path = Get(handle.get(), CURLUPART_PATH).value_or("/");
  if (path.empty() || path.back() != '/') path += '/';
  while (!component.empty() && component.front() == '/') component.remove_prefix(1);
  path += component;
  if (curl_url_set(handle.get(), CURLUPART_PATH, path.c_str(), 0) != CURLUE_OK) return *this;
  std::optional<std::string> text = Get(handle.get(), CURLUPART_URL);
  return text ? URL(std::move(*text)) : *this;
}

}  // namespace vm
