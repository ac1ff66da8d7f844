#ifndef VM_SERVICES_VMCLOUDD_SIGV4PRESIGNER_H_
#define VM_SERVICES_VMCLOUDD_SIGV4PRESIGNER_H_

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Error.h"

namespace vm {

// Where an S3-compatible bucket lives and the credentials that may write it.
struct S3Settings {
  std::string endpoint;  // "https://s3.example.com" or "http://127.0.0.1:9000"
  std::string region = "us-east-1";
  std::string bucket;
  std::string access_key;
  std::string secret_key;
  // true: endpoint/bucket/key; false: bucket.endpoint-host/key (virtual-hosted).
  bool path_style = false;
  // Prepended to every object key, so one bucket can serve several installations.
  std::string key_prefix;
};

// Makes Signature Version 4 presigned URLs (query-string authentication, signed header
// "host" only, unsigned payload) for objects of one bucket. A URL signed for a method
// works for that method only; anyone holding it may use it until it expires.
//
// Immutable after Make(); safe to share between threads.
class SigV4Presigner {
 public:
  // Checks the settings: an http or https endpoint without query, and a non-empty bucket,
  // region and access key. Returns nullopt with `*error` otherwise.
  static std::optional<SigV4Presigner> Make(const S3Settings& settings, ErrorRef* error);

  // The URL through which `method` ("GET", "PUT", "HEAD", "DELETE") reaches `key` (the
  // key prefix is added here) between `now` and `now + expires`. S3 accepts expiries of
  // 1 second to 7 days; values outside are clamped.
  std::string presign(std::string_view method, std::string_view key, std::chrono::seconds expires,
                      std::chrono::system_clock::time_point now) const;

  // The URL through which `method` reaches the bucket itself (a HEAD says whether it
  // exists and the credentials may use it).
  std::string presignBucket(std::string_view method, std::chrono::seconds expires,
                            std::chrono::system_clock::time_point now) const;

  // The value the client will send as "Host" (with the port when it is not the scheme's
  // default), which the signature covers.
  const std::string& hostHeader() const { return host_header_; }

 private:
  SigV4Presigner() = default;
  // Signs `method` on the already encoded path `uri`.
  std::string presignPath(std::string_view method, const std::string& uri,
                          std::chrono::seconds expires,
                          std::chrono::system_clock::time_point now) const;

  std::string scheme_;
  std::string host_header_;
  std::string path_prefix_;  // endpoint path, plus "/bucket" when path-style; no final "/"
  std::string region_;
  std::string access_key_;
  std::string secret_key_;
  std::string key_prefix_;
};

}  // namespace vm

#endif  // VM_SERVICES_VMCLOUDD_SIGV4PRESIGNER_H_
