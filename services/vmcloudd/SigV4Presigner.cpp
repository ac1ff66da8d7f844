#include "services/vmcloudd/SigV4Presigner.h"

#include <curl/curl.h>
#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <memory>

#include "services/vmcloudd/ServiceError.h"
#include "services/vmcloudd/internal/Crypto.h"

namespace vm {
namespace {

constexpr std::chrono::seconds kMinExpiry{1};
constexpr std::chrono::seconds kMaxExpiry{7 * 24 * 3600};

// RFC 3986 percent-encoding as SigV4 wants it: unreserved characters stay, everything
// else is %XX in upper-case hex; '/' stays only inside object key paths.
std::string UriEncode(std::string_view text, bool keep_slash) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size() * 3);
  for (unsigned char c : text) {
    bool unreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                      c == '-' || c == '.' || c == '_' || c == '~';
    if (unreserved || (keep_slash && c == '/')) {
      out.push_back(static_cast<char>(c));
    } else {
      out.push_back('%');
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 0xf]);
    }
  }
  return out;
}

ErrorRef BadSetting(std::string_view what) {
  return CloudServiceError(kVMCloudServiceBadSetting, what);
}

struct UrlDeleter {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
struct CurlStringDeleter {
  void operator()(char* text) const { curl_free(text); }
};

std::optional<std::string> UrlPart(CURLU* url, CURLUPart part) {
  char* raw = nullptr;
  if (curl_url_get(url, part, &raw, 0) != CURLUE_OK || raw == nullptr) return std::nullopt;
  std::unique_ptr<char, CurlStringDeleter> owned(raw);
  return std::string(raw);
}

}  // namespace

std::optional<SigV4Presigner> SigV4Presigner::Make(const S3Settings& settings, ErrorRef* error) {
  if (settings.bucket.empty()) {
    Fail(error, BadSetting("The S3 bucket name is empty"));
    return std::nullopt;
  }
  if (settings.region.empty() || settings.access_key.empty()) {
    Fail(error, BadSetting("The S3 region and access key must not be empty"));
    return std::nullopt;
  }
  std::unique_ptr<CURLU, UrlDeleter> url(curl_url());
  if (!url || curl_url_set(url.get(), CURLUPART_URL, settings.endpoint.c_str(), 0) != CURLUE_OK) {
    Fail(error, BadSetting(fmt::format("The S3 endpoint \"{}\" is not a URL", settings.endpoint)));
    return std::nullopt;
  }
  auto scheme = UrlPart(url.get(), CURLUPART_SCHEME);
  auto host = UrlPart(url.get(), CURLUPART_HOST);
  if (!scheme || (*scheme != "http" && *scheme != "https") || !host || host->empty() ||
      UrlPart(url.get(), CURLUPART_QUERY) || UrlPart(url.get(), CURLUPART_USER)) {
    Fail(error, BadSetting(fmt::format("The S3 endpoint \"{}\" must be a plain http or https URL",
                                       settings.endpoint)));
    return std::nullopt;
  }

  SigV4Presigner presigner;
  presigner.scheme_ = *scheme;
  std::string host_name = settings.path_style ? *host : settings.bucket + "." + *host;
  // The client sends the port in "Host" only when it differs from the scheme's default.
  if (auto port = UrlPart(url.get(), CURLUPART_PORT);
      port && !((*port == "80" && *scheme == "http") || (*port == "443" && *scheme == "https"))) {
    presigner.host_header_ = host_name + ":" + *port;
  } else {
    presigner.host_header_ = host_name;
  }
  std::string path = UrlPart(url.get(), CURLUPART_PATH).value_or("");
  while (!path.empty() && path.back() == '/') path.pop_back();
  if (settings.path_style) {
    path.push_back('/');
    path.append(UriEncode(settings.bucket, false));
  }
  presigner.path_prefix_ = path;
  presigner.region_ = settings.region;
  presigner.access_key_ = settings.access_key;
  presigner.secret_key_ = settings.secret_key;
  presigner.key_prefix_ = settings.key_prefix;
  return presigner;
}

std::string SigV4Presigner::presign(std::string_view method, std::string_view key,
                                    std::chrono::seconds expires,
                                    std::chrono::system_clock::time_point now) const {
  return presignPath(method, path_prefix_ + "/" + UriEncode(key_prefix_ + std::string(key), true),
                     expires, now);
}

std::string SigV4Presigner::presignBucket(std::string_view method, std::chrono::seconds expires,
                                          std::chrono::system_clock::time_point now) const {
  return presignPath(method, path_prefix_ + "/", expires, now);
}

std::string SigV4Presigner::presignPath(std::string_view method, const std::string& uri,
                                        std::chrono::seconds expires,
                                        std::chrono::system_clock::time_point now) const {
  expires = std::clamp(expires, kMinExpiry, kMaxExpiry);
  std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &utc);
  const std::string amz_date = stamp;
  const std::string day = amz_date.substr(0, 8);
  const std::string scope = fmt::format("{}/{}/s3/aws4_request", day, region_);

  // Already in the sorted order the canonical query string requires.
  const std::string query = fmt::format(
      "X-Amz-Algorithm=AWS4-HMAC-SHA256&X-Amz-Credential={}&X-Amz-Date={}&X-Amz-Expires={}"
      "&X-Amz-SignedHeaders=host",
      UriEncode(access_key_ + "/" + scope, false), amz_date, expires.count());
  const std::string canonical_request = fmt::format("{}\n{}\n{}\nhost:{}\n\nhost\nUNSIGNED-PAYLOAD",
                                                    method, uri, query, host_header_);
  const std::string string_to_sign =
      fmt::format("AWS4-HMAC-SHA256\n{}\n{}\n{}", amz_date, scope,
                  internal::HexEncode(internal::Sha256(canonical_request)));

  std::string signing_key = internal::HmacSha256("AWS4" + secret_key_, day);
  signing_key = internal::HmacSha256(signing_key, region_);
  signing_key = internal::HmacSha256(signing_key, "s3");
  signing_key = internal::HmacSha256(signing_key, "aws4_request");
  const std::string signature =
      internal::HexEncode(internal::HmacSha256(signing_key, string_to_sign));

  return fmt::format("{}://{}{}?{}&X-Amz-Signature={}", scheme_, host_header_, uri, query,
                     signature);
}

}  // namespace vm
