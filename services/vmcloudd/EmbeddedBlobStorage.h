#ifndef VM_SERVICES_VMCLOUDD_EMBEDDEDBLOBSTORAGE_H_
#define VM_SERVICES_VMCLOUDD_EMBEDDEDBLOBSTORAGE_H_

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "services/vmcloudd/StorageProvider.h"

namespace httplib {
class Server;
}

namespace vm {

// The storage provider of a single-machine installation: blobs are files on local disk,
// and vmcloudd itself serves them at /blobs/{key} to whoever holds a URL it signed
// (HMAC-SHA256 over method, path and expiry, with a key kept beside the blobs so that
// URLs survive a restart). A wrong signature or an expired URL is answered with 403.
//
// An upload streams into a temporary file that is renamed into place only when the whole
// body has arrived, so a reader never sees a partial blob and a failed upload leaves the
// previous bytes (if any) alone.
//
// Keys are attachment UUIDs in canonical upper case. Thread-safe once set up: setBaseURL()
// and installRoutes() are called once, before the server serves its first request.
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
  // Serves PUT and GET (HEAD) of signed blob URLs on `server`, which must stop serving
  // before this object goes away.
  void installRoutes(httplib::Server* server);

  std::string_view kind() const override { return "embedded"; }
  std::string uploadURL(std::string_view key, std::chrono::seconds lifetime) const override;
  std::string downloadURL(std::string_view key, std::chrono::seconds lifetime) const override;
  bool statObject(std::string_view key, StoredObject* object, ErrorRef* error) const override;
  bool removeObject(std::string_view key, ErrorRef* error) const override;

 private:
  class Impl;
  explicit EmbeddedBlobStorage(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace vm

#endif  // VM_SERVICES_VMCLOUDD_EMBEDDEDBLOBSTORAGE_H_
