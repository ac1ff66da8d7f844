#include "services/vmcloudd/S3Storage.h"

#include <curl/curl.h>
#include <fmt/format.h>

#include <mutex>

#include "services/vmcloudd/ServiceError.h"

namespace vm {
namespace {

// The service's own requests are signed for this long; they are sent at once.
constexpr std::chrono::seconds kOwnRequestLifetime{300};
constexpr long kRequestTimeoutSeconds = 30;
// Idle handles kept beyond this many are closed: about as many as requests run at once.
constexpr std::size_t kMaxIdleHandles = 8;

// A URL without its query string: presigned queries are credentials and stay out of
// errors and logs.
std::string_view WithoutQuery(std::string_view url) { return url.substr(0, url.find('?')); }

// The one place a libcurl failure or an unexpected S3 status becomes an Error.
ErrorRef StorageError(std::string_view action, std::string_view url, std::string_view detail) {
  return CloudServiceError(
      kVMCloudServiceStorageFailed,
      fmt::format("S3 {} of {} failed: {}", action, WithoutQuery(url), detail));
}

size_t DiscardBody(char*, size_t size, size_t count, void*) { return size * count; }

}  // namespace

std::unique_ptr<S3Storage> S3Storage::Create(const S3Settings& settings, ServiceClock clock,
                                             ErrorRef* error) {
  auto presigner = SigV4Presigner::Make(settings, error);
  if (!presigner) return nullptr;
  // libcurl's global set-up is not thread-safe; do it before any request thread runs.
  static std::once_flag curl_ready;
  std::call_once(curl_ready, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  return std::unique_ptr<S3Storage>(new S3Storage(std::move(*presigner), std::move(clock)));
}

S3Storage::S3Storage(SigV4Presigner presigner, ServiceClock clock)
    : presigner_(std::move(presigner)), clock_(std::move(clock)) {}

void S3Storage::EasyDeleter::operator()(void* handle) const {
  curl_easy_cleanup(static_cast<CURL*>(handle));
}

bool S3Storage::perform(std::string_view method, const std::string& url, long* status,
                        std::int64_t* content_length, ErrorRef* error) const {
  EasyHandle handle;
  {
    std::lock_guard lock(idle_mu_);
    if (!idle_.empty()) {
      handle = std::move(idle_.back());
      idle_.pop_back();
    }
  }
  if (handle) {
    // Forgets the last request's options; its connection stays in the handle's cache.
    curl_easy_reset(static_cast<CURL*>(handle.get()));
  } else {
    handle.reset(curl_easy_init());
  }
  if (!handle) return Fail(error, StorageError(method, url, "cannot create a curl handle"));
  CURL* h = static_cast<CURL*>(handle.get());
  char message[CURL_ERROR_SIZE] = "";
  curl_easy_setopt(h, CURLOPT_URL, url.c_str());
  curl_easy_setopt(h, CURLOPT_ERRORBUFFER, message);
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_TIMEOUT, kRequestTimeoutSeconds);
  curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, DiscardBody);
  if (method == "HEAD") {
    curl_easy_setopt(h, CURLOPT_NOBODY, 1L);
  } else {
    curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, std::string(method).c_str());
  }
  CURLcode code = curl_easy_perform(h);
  // The buffer is this frame's: the handle must not point at it once back in the set.
  curl_easy_setopt(h, CURLOPT_ERRORBUFFER, nullptr);
  if (code != CURLE_OK) {
    // A handle whose request failed is not kept: its connection may be in any state.
    return Fail(error, StorageError(method, url, message[0] ? message : curl_easy_strerror(code)));
  }
  curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, status);
  curl_off_t length = -1;
  curl_easy_getinfo(h, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
  *content_length = length;
  std::lock_guard lock(idle_mu_);
  if (idle_.size() < kMaxIdleHandles) idle_.push_back(std::move(handle));
  return true;
}

std::string S3Storage::uploadURL(std::string_view key, std::chrono::seconds lifetime) const {
  return presigner_.presign("PUT", key, lifetime, clock_());
}

std::string S3Storage::downloadURL(std::string_view key, std::chrono::seconds lifetime) const {
  return presigner_.presign("GET", key, lifetime, clock_());
}

bool S3Storage::statObject(std::string_view key, StoredObject* object, ErrorRef* error) const {
  std::string url = presigner_.presign("HEAD", key, kOwnRequestLifetime, clock_());
  long status = 0;
  std::int64_t length = -1;
  if (!perform("HEAD", url, &status, &length, error)) return false;
  if (status == 404) {
    *object = StoredObject{};
    return true;
  }
  if (status < 200 || status > 299 || length < 0) {
    return Fail(error, StorageError("HEAD", url,
                                    length < 0 && status / 100 == 2
                                        ? std::string("no Content-Length in the answer")
                                        : fmt::format("HTTP status {}", status)));
  }
  *object = StoredObject{true, static_cast<std::uint64_t>(length)};
  return true;
}

bool S3Storage::removeObject(std::string_view key, ErrorRef* error) const {
  std::string url = presigner_.presign("DELETE", key, kOwnRequestLifetime, clock_());
  long status = 0;
  std::int64_t length = -1;
  if (!perform("DELETE", url, &status, &length, error)) return false;
  if ((status >= 200 && status <= 299) || status == 404) return true;
  return Fail(error, StorageError("DELETE", url, fmt::format("HTTP status {}", status)));
}

bool S3Storage::probe(ErrorRef* error) const {
  std::string url = presigner_.presignBucket("HEAD", kOwnRequestLifetime, clock_());
  long status = 0;
  std::int64_t length = -1;
  if (!perform("HEAD", url, &status, &length, error)) return false;
  if (status >= 200 && status <= 299) return true;
  return Fail(error, StorageError("HEAD", url, fmt::format("HTTP status {}", status)));
}

}  // namespace vm
