#ifndef VM_SERVICES_VMCLOUDD_HTTPSERVER_H_
#define VM_SERVICES_VMCLOUDD_HTTPSERVER_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Error.h"

namespace vm {

// One request as the server read it. The target is kept as sent: nothing is
// percent-decoded, so what a handler matches is what went over the wire.
struct HttpRequest {
  std::string method;
  std::string target;
  std::string path;   // target up to "?"
  std::string query;  // after "?", empty when there is none
  // The route's match: [0] the whole path, then one entry per capture group.
  std::vector<std::string> matches;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string remote_address;
  // The name the matched route was given; empty for the fallback.
  std::string route;
  // When the request's connection was accepted.
  std::chrono::steady_clock::time_point accepted;
  // Body bytes read so far (all of them once the body is finished).
  std::uint64_t body_bytes = 0;
  std::optional<std::uint64_t> content_length;
  bool chunked = false;
  // The body, when the handler asked for it buffered (BufferedBody).
  std::string body;

  // The first value of the header `name` (any case); empty when absent.
  std::string header(std::string_view name) const;
  bool hasHeader(std::string_view name) const;
  // The raw value of the query parameter `name`; empty when absent.
  std::string queryParameter(std::string_view name) const;
  bool hasBody() const { return chunked || content_length.value_or(0) > 0; }
};

// The answer to one request. Every connection serves one request and is closed after it.
class HttpResponse {
 public:
  HttpResponse() = default;
  ~HttpResponse();
  HttpResponse(const HttpResponse&) = delete;
  HttpResponse& operator=(const HttpResponse&) = delete;

  int status = 0;  // 0 until a handler answers
  std::string content_type;
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;

  // Sends the first `size` bytes of the open file `fd` as the body instead of `body`.
  // Takes ownership of `fd`.
  void setFile(int fd, std::uint64_t size);
  int file() const { return file_; }
  std::uint64_t fileSize() const { return file_size_; }
  // The body's length as it goes out.
  std::uint64_t contentLength() const { return file_ >= 0 ? file_size_ : body.size(); }

 private:
  int file_ = -1;
  std::uint64_t file_size_ = 0;
};

// How a request body ended.
enum class BodyOutcome {
  kComplete,    // every byte arrived and was taken
  kTooLarge,    // it was announced or grew larger than the sink's limit
  kIncomplete,  // the peer stopped, broke the framing or sent too slowly
  kRefused,     // the sink's write() returned false
};

// Takes one request body as it arrives. write() runs on a network thread and must not
// block for long (a local file write is fine); finish() runs on a worker thread.
class BodySink {
 public:
  virtual ~BodySink() = default;
  // The most bytes the body may hold. A larger Content-Length is refused before any byte
  // is read; a body without a length is cut off as soon as it passes the limit.
  virtual std::uint64_t limit() const = 0;
  // One piece of the body, in order. False stops reading (kRefused).
  virtual bool write(const char* data, std::size_t size) = 0;
  // Called once, also when there was no body (kComplete). Sets the answer; a response
  // left without a status becomes a 500.
  virtual void finish(HttpRequest& request, BodyOutcome outcome, HttpResponse& response) = 0;
};

// A sink that keeps up to `limit` bytes in `request.body`, then calls `then`.
std::unique_ptr<BodySink> BufferedBody(
    std::uint64_t limit, std::function<void(HttpRequest&, BodyOutcome, HttpResponse&)> then);

// Called on a worker thread once a request's header is in. Either answers at once (sets
// `response.status`; a body is then not read) or returns the sink that takes the body.
using HttpHandler =
    std::function<std::unique_ptr<BodySink>(HttpRequest& request, HttpResponse& response)>;

// Called on a network thread after each answer went out (or failed to).
using HttpLogger = std::function<void(const HttpRequest&, const HttpResponse&)>;

struct HttpServerOptions {
  std::string host = "127.0.0.1";
  int port = 0;  // 0 picks a free port
  // Serve HTTPS when both are set (PEM files).
  std::filesystem::path tls_cert;
  std::filesystem::path tls_key;
  // Threads that run handlers (which may block on disk or a database). Network I/O runs
  // on its own threads and never waits for a peer.
  int workers = 16;
  // The whole request header (and TLS handshake) must arrive within this time of the
  // connection's acceptance, or the connection is dropped.
  std::chrono::milliseconds header_timeout{10000};
  // Largest request header; 431 above it.
  std::size_t max_header_bytes = 16 * 1024;
  // A body (and an answer) must move at least `min_rate` bytes per second on average
  // after the first `rate_grace`, and no single read or write may wait longer than
  // `idle_timeout`; a slower peer is dropped.
  std::uint64_t min_rate = 4096;
  std::chrono::milliseconds rate_grace{5000};
  std::chrono::milliseconds idle_timeout{30000};
  // Connections held at once; more are closed as soon as they are accepted.
  std::size_t max_connections = 4096;
};

// An HTTP/1.1 server on Boost.Asio: connections are served asynchronously on a few
// network threads, so a peer that sends slowly costs a socket and a small buffer but
// holds no thread; handlers run on a separate pool of workers. Refuses ambiguous
// requests with 400: differing Content-Length headers, a Content-Length beside a
// Transfer-Encoding, a header line without a colon, folded header lines.
//
// Routes are added before start() and are matched in the order added (method and the
// whole path against an ECMAScript regular expression); an unmatched request goes to the
// fallback handler. Thread-safe once started; stop() and the destructor wait for every
// thread to end, so handlers may use objects that outlive the server.
class HttpServer {
 public:
  explicit HttpServer(HttpServerOptions options);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // `name` is copied into HttpRequest::route for what the logger counts.
  void route(std::string method, const std::string& path_pattern, HttpHandler handler,
             std::string name = {});
  void setFallback(HttpHandler handler);
  void setLogger(HttpLogger logger);

  // Binds the listening socket; port() is valid once it returns true.
  bool bind(ErrorRef* error);
  // Starts accepting and serving, after a successful bind().
  void start();
  // Stops accepting at once (new connections are refused), lets the requests in progress
  // end within `drain`, then drops the rest and returns how many requests it cut. Safe to
  // call more than once (later calls return 0).
  std::size_t stop(std::chrono::milliseconds drain = std::chrono::seconds(2));
  int port() const;
  bool tls() const;

  // Counts for monitoring; readable from any thread at any time.
  struct Stats {
    std::atomic<std::uint64_t> open{0};  // connections held now
    std::atomic<std::uint64_t> dropped_header_timeout{0};
    std::atomic<std::uint64_t> dropped_slow_transfer{0};
    std::atomic<std::uint64_t> dropped_limit{0};
  };
  const Stats& stats() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vm

#endif  // VM_SERVICES_VMCLOUDD_HTTPSERVER_H_
