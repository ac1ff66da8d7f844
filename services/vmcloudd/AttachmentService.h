#ifndef VM_SERVICES_VMCLOUDD_ATTACHMENTSERVICE_H_
#define VM_SERVICES_VMCLOUDD_ATTACHMENTSERVICE_H_

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "services/vmcloudd/SigV4Presigner.h"
#include "services/vmcloudd/StorageProvider.h"

namespace vm {

struct AttachmentServiceOptions {
  // Address to listen on; port 0 picks a free one (see AttachmentService::port()).
  std::string host = "127.0.0.1";
  int port = 0;
  // Holds the records database and, in embedded mode, the blobs and their signing key.
  std::filesystem::path data_dir;
  // Where the records live: empty for data_dir/attachments.sqlite, or a "postgresql://"
  // URI. Service processes that share a PostgreSQL database (and a bucket) serve the same
  // attachments, and share the signing key of embedded blob URLs through it.
  std::string database;
  // Uploads announced and not confirmed within this age are removed, checked every
  // sweep_interval; zero turns the sweep off.
  std::chrono::seconds stale_upload_age{24 * 3600};
  std::chrono::seconds sweep_interval{600};
  // The texts accepted after "Authorization: Velmora ". At least one is required.
  std::vector<std::string> tokens;
  // Serve HTTPS with this certificate chain and key (PEM) when both are set.
  std::filesystem::path tls_cert;
  std::filesystem::path tls_key;
  // Keep the bytes in this bucket instead of on local disk.
  std::optional<S3Settings> s3;
  // Base of the embedded blob URLs handed to clients, for a service behind a proxy or
  // listening on a wildcard address; by default the scheme and bound address.
  std::string public_url;
  // How long handed-out upload and download URLs stay valid.
  std::chrono::seconds url_lifetime{3600};
  // Largest JSON request body accepted (413 above it).
  std::size_t max_json_body = 64 * 1024;
  // Largest attachment accepted, announced or uploaded (413 above it).
  std::uint64_t max_blob_size = std::uint64_t{64} << 30;
  // Threads that run request handlers (records, disk). Connections do not hold them
  // while their peers send or read.
  int threads = 16;
  // A request header must arrive whole within this time of the connection's acceptance.
  std::chrono::milliseconds header_timeout{10000};
  // Bodies and answers must move at least this many bytes per second on average once
  // `transfer_grace` has passed; slower peers are dropped.
  std::uint64_t min_transfer_rate = 4096;
  std::chrono::milliseconds transfer_grace{5000};
  // Connections held open at once; more are closed on arrival.
  std::size_t max_connections = 4096;
  // Serve metrics (Prometheus text format, GET /metrics, no token) on this address when
  // metrics_port is 0 (a free port) or more.
  std::string metrics_host = "127.0.0.1";
  int metrics_port = -1;
  // Replaced by tests; the system clock otherwise.
  ServiceClock clock;
};

// The reference attachment service: the web API under /v1/_internal/attachment that the
// cloud scheme talks to, backed by SQLite records and a storage provider (blobs on local
// disk served by this service, or an S3 bucket). GET /healthz answers 200 while the
// service runs; GET /readyz 200 when the records and the storage answer, else 503; neither
// needs a token. Writes one access line per request at info level (subsystem "vmcloudd",
// category "http"), never with a URL's query, which may hold a signature.
//
// Upload URLs accept bytes only while their attachment is "new", and at most the size
// announced at the start; a confirmed or deleted attachment's bytes never change.
//
// Thread-safe. Connections are served asynchronously; handlers run on a pool of
// `threads` threads. stop() and the destructor wait for every thread to end.
class AttachmentService {
 public:
  // Opens the records and the storage provider. Null with `*error` when a setting is
  // unusable or the data folder cannot be used.
  static std::unique_ptr<AttachmentService> Create(AttachmentServiceOptions options,
                                                   ErrorRef* error);
  ~AttachmentService();
  AttachmentService(const AttachmentService&) = delete;
  AttachmentService& operator=(const AttachmentService&) = delete;

  // Binds the listening socket and starts serving on a background thread. Once it
  // returns true, port() and baseURL() are valid and requests are accepted.
  bool start(ErrorRef* error);
  // Stops accepting at once, lets the requests in progress finish within `drain`, cuts
  // the rest and ends the serving threads; returns how many requests it cut. Safe to call
  // more than once.
  std::size_t stop(std::chrono::milliseconds drain = std::chrono::seconds(2));

  // Replaces the accepted tokens; requests already past their token check are not
  // affected. False with `*error` (and nothing changed) when a token is unusable.
  bool setTokens(std::vector<std::string> tokens, ErrorRef* error);

  // Removes the stale uploads now (see stale_upload_age); returns how many.
  std::size_t sweepStaleUploads();

  int port() const;
  // The metrics listener's port once started; 0 when metrics are off.
  int metricsPort() const;
  // "http://127.0.0.1:PORT" (or https), the address clients should use.
  std::string baseURL() const;

  // What Create() tightened (a data folder or records file others could read), one
  // sentence each, for the operator.
  const std::vector<std::string>& openNotices() const { return notices_; }

 private:
  class Impl;
  explicit AttachmentService(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
  std::vector<std::string> notices_;
};

}  // namespace vm

#endif  // VM_SERVICES_VMCLOUDD_ATTACHMENTSERVICE_H_
