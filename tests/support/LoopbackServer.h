#ifndef VM_TESTS_SUPPORT_LOOPBACKSERVER_H_
#define VM_TESTS_SUPPORT_LOOPBACKSERVER_H_

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vm::testing {

// A request as the server received it.
struct ServerRequest {
  std::string method;
  std::string path;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;

  // How many times the header `name` (any case) was sent, and its first value.
  std::size_t headerCount(std::string_view name) const;
  std::optional<std::string> header(std::string_view name) const;
};

struct ServerReply {
  int status = 200;
  std::string body;
  std::string contentType = "application/json";
  std::vector<std::pair<std::string, std::string>> headers{};  // added to the reply
  // Sent in chunks without a Content-Length; with `stallAfter`, the server sends that many
  // bytes, then waits `stallFor` before the rest.
  bool chunked = false;
  std::optional<std::size_t> stallAfter{};
  int stallForMilliseconds = 0;
};

using RouteHandler = std::function<ServerReply(const ServerRequest& request)>;

// An HTTP server for tests on 127.0.0.1, on a port the system picks. Starts in the
// constructor, stops in the destructor. Requests are matched against the routes, the
// latest added first; an unmatched request gets 404 with an empty body. Every request is
// recorded, in arrival order.
//
// Thread-safe: routes may change while the server runs. Handlers run on the server's
// threads.
class LoopbackServer {
 public:
  LoopbackServer();
  // Serves HTTPS with the given PEM certificate and key; url() then says "https".
  LoopbackServer(const std::string& certificateFile, const std::string& keyFile);
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  int port() const;
  // "http://127.0.0.1:<port>" (or https) followed by `path`.
  std::string url(std::string_view path = "") const;

  // `pattern` is a regular expression for the whole path.
  void on(std::string method, std::string pattern, RouteHandler handler);
  void clearRoutes();

  std::vector<ServerRequest> requests() const;
  void clearRequests();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// A port on 127.0.0.1 that nothing listens on (it was free a moment ago).
int UnusedLoopbackPort();

// Writes a new self-signed certificate for 127.0.0.1 (name and address) and its key, as
// PEM files. False when either cannot be made.
bool WriteSelfSignedCertificate(const std::string& certificateFile, const std::string& keyFile);

}  // namespace vm::testing

#endif  // VM_TESTS_SUPPORT_LOOPBACKSERVER_H_
