#ifndef VM_SERVICES_VMCLOUDD_EMBEDDEDBLOBSTORAGE_H_
#define VM_SERVICES_VMCLOUDD_EMBEDDEDBLOBSTORAGE_H_

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "services/vmcloudd/StorageProvider.h"

namespace vm {

class HttpServer;

// Decides whether the blob of a key may receive bytes. An upload URL stays signed for its
// whole lifetime, but the bytes behind a confirmed or deleted attachment must not change.
class UploadGate {
 public:
  struct Decision {
    int status = 0;  // 0: the upload may go on; else the HTTP status that refuses it
    std::string code;
    std::string message;
    std::uint64_t size = 0;  // when allowed: the most bytes the blob may hold
  };

  virtual ~UploadGate() = default;
  virtual Decision check(std::string_view key) = 0;
  // Decides again and, when still allowed, runs `store` (which puts the complete bytes
  // in place) before any confirmation or deletion of `key` can look at them.
  virtual Decision commit(std::string_view key, const std::function<bool()>& store) = 0;
};

// The storage provider of a single-machine installation: blobs are files on local disk,
// and vmcloudd itself serves them at /blobs/{key} to whoever holds a URL it signed
// (HMAC-SHA256 over method, path and expiry, with a key kept beside the blobs so that
// URLs survive a restart). A wrong signature or an expired URL is answered with 403.
//
// An upload streams into a temporary file that is renamed into place only when the whole
// body has arrived, so a reader never sees a partial blob and a failed upload leaves the
// previous bytes (if any) alone.
//
// Keys are attachment UUIDs in canonical upper case. Thread-safe once set up: setBaseURL(),
// setUploadGate() and installRoutes() are called once, before the server serves its first
// request.
class EmbeddedBlobStorage : public StorageProvider {
 public:
  static constexpr std::string_view kRoutePrefix = "/blobs/";

  // Opens the blob folder `directory` (made when missing) and its signing key (made on
  // first use); removes uploads that a crash left unfinished. Uploads larger than
  // `max_blob_size` are refused with 413.
  static std::unique_ptr<EmbeddedBlobStorage> Open(const std::filesystem::path& directory,
                                                   std::uint64_t max_blob_size, ServiceClock clock,
                                                   ErrorRef* error);
  ~EmbeddedBlobStorage() override;

  // Replaces the key that signs and checks blob URLs, for processes that share one; called
  // before the first request is served.
  void setSigningKey(std::string key);
  // "scheme://host:port" under which clients reach this service.
  void setBaseURL(std::string base_url);
  // Asked before and after every upload; without one, any signed upload is taken up to
  // the size limit. Not owned; must outlive the serving.
  void setUploadGate(UploadGate* gate);
  // Serves PUT and GET of signed blob URLs on `server`, which must stop serving before
  // this object goes away.
  void installRoutes(HttpServer* server);

  std::string_view kind() const override { return "embedded"; }
  std::string uploadURL(std::string_view key, std::chrono::seconds lifetime) const override;
  std::string downloadURL(std::string_view key, std::chrono::seconds lifetime) const override;
  bool statObject(std::string_view key, StoredObject* object, ErrorRef* error) const override;
  bool removeObject(std::string_view key, ErrorRef* error) const override;
  // Writes and removes a small file where uploads land.
  bool probe(ErrorRef* error) const override;

 private:
  class Impl;
  explicit EmbeddedBlobStorage(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace vm

#endif  // VM_SERVICES_VMCLOUDD_EMBEDDEDBLOBSTORAGE_H_
