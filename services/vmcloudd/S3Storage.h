#ifndef VM_SERVICES_VMCLOUDD_S3STORAGE_H_
#define VM_SERVICES_VMCLOUDD_S3STORAGE_H_

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "services/vmcloudd/SigV4Presigner.h"
#include "services/vmcloudd/StorageProvider.h"

namespace vm {

// A bucket on any S3-compatible store. Clients get SigV4-presigned PUT and GET URLs; the
// service itself checks an object with a presigned HEAD and removes it with a presigned
// DELETE, over libcurl with TLS verification on and a 30-second limit per request.
//
// Thread-safe: each request takes a curl handle of its own from a small set of idle ones
// and puts it back after, so that the next request reuses its connection to the store.
class S3Storage : public StorageProvider {
 public:
  // Null with `*error` when the settings are unusable (see SigV4Presigner::Make).
  static std::unique_ptr<S3Storage> Create(const S3Settings& settings, ServiceClock clock,
                                           ErrorRef* error);

  std::string_view kind() const override { return "s3"; }
  std::string uploadURL(std::string_view key, std::chrono::seconds lifetime) const override;
  std::string downloadURL(std::string_view key, std::chrono::seconds lifetime) const override;
  bool statObject(std::string_view key, StoredObject* object, ErrorRef* error) const override;
  bool removeObject(std::string_view key, ErrorRef* error) const override;
  // A HEAD of the bucket.
  bool probe(ErrorRef* error) const override;

 private:
  S3Storage(SigV4Presigner presigner, ServiceClock clock);

  // Sends one bodiless request; on success stores the HTTP status and the announced
  // Content-Length (-1 when none).
  bool perform(std::string_view method, const std::string& url, long* status,
               std::int64_t* content_length, ErrorRef* error) const;

  struct EasyDeleter {
    void operator()(void* handle) const;
  };
  using EasyHandle = std::unique_ptr<void, EasyDeleter>;

  SigV4Presigner presigner_;
  ServiceClock clock_;
  mutable std::mutex idle_mu_;
  // Handles whose request ended, with their connections kept open; a few at most.
  mutable std::vector<EasyHandle> idle_;
};

}  // namespace vm

#endif  // VM_SERVICES_VMCLOUDD_S3STORAGE_H_
