#include "tests/support/LoopbackServer.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <mutex>
#include <regex>
#include <stdexcept>
#include <thread>

namespace vm::testing {
namespace {

bool SameName(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

}  // namespace

std::size_t ServerRequest::headerCount(std::string_view name) const {
  std::size_t count = 0;
  for (const auto& [field, value] : headers) count += SameName(field, name) ? 1 : 0;
  return count;
}

std::optional<std::string> ServerRequest::header(std::string_view name) const {
  for (const auto& [field, value] : headers) {
    if (SameName(field, name)) return value;
  }
  return std::nullopt;
}

struct LoopbackServer::Impl {
  struct Route {
    std::string method;
    std::regex pattern;
    RouteHandler handler;
  };

  httplib::Server server;
  std::thread thread;
  int port = 0;
  mutable std::mutex mu;
  std::vector<Route> routes;
  std::vector<ServerRequest> requests;

  void handle(const httplib::Request& raw, httplib::Response& response) {
    ServerRequest request;
    request.method = raw.method;
    request.path = raw.path;
    request.body = raw.body;
    for (const auto& [field, value] : raw.headers) {
      // cpp-httplib adds these two itself; they were not sent.
      if (field == "REMOTE_ADDR" || field == "REMOTE_PORT" || field == "LOCAL_ADDR" ||
          field == "LOCAL_PORT") {
        continue;
      }
      request.headers.emplace_back(field, value);
    }
    RouteHandler handler;
    {
      std::lock_guard lock(mu);
      requests.push_back(request);
      for (auto it = routes.rbegin(); it != routes.rend(); ++it) {
        if (it->method == request.method && std::regex_match(request.path, it->pattern)) {
          handler = it->handler;
          break;
        }
      }
    }
    ServerReply reply{404, "", "text/plain"};
    if (handler) reply = handler(request);
    response.status = reply.status;
    if (!reply.body.empty()) response.set_content(reply.body, reply.contentType);
  }
};

LoopbackServer::LoopbackServer() : impl_(std::make_unique<Impl>()) {
  auto handler = [this](const httplib::Request& request, httplib::Response& response) {
    impl_->handle(request, response);
  };
  // Short keep-alive, so that stopping does not wait long for idle client connections.
  impl_->server.set_keep_alive_timeout(1);
  // Without it, a reply written as headers then body waits for the client's delayed ACK.
  impl_->server.set_tcp_nodelay(true);
  impl_->server.Get(".*", handler);
  impl_->server.Post(".*", handler);
  impl_->server.Put(".*", handler);
  impl_->server.Delete(".*", handler);
  impl_->server.Patch(".*", handler);
  impl_->port = impl_->server.bind_to_any_port("127.0.0.1");
  if (impl_->port <= 0) throw std::runtime_error("LoopbackServer: cannot bind 127.0.0.1");
  impl_->thread = std::thread([this] { impl_->server.listen_after_bind(); });
  // The socket listens already; wait for the accept loop so that stop() reaches it.
  while (!impl_->server.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

LoopbackServer::~LoopbackServer() {
  impl_->server.stop();
  if (impl_->thread.joinable()) impl_->thread.join();
}

int LoopbackServer::port() const { return impl_->port; }

std::string LoopbackServer::url(std::string_view path) const {
  return "http://127.0.0.1:" + std::to_string(impl_->port) + std::string(path);
}

void LoopbackServer::on(std::string method, std::string pattern, RouteHandler handler) {
  std::lock_guard lock(impl_->mu);
  impl_->routes.push_back({std::move(method), std::regex(pattern), std::move(handler)});
}

void LoopbackServer::clearRoutes() {
  std::lock_guard lock(impl_->mu);
  impl_->routes.clear();
}

std::vector<ServerRequest> LoopbackServer::requests() const {
  std::lock_guard lock(impl_->mu);
  return impl_->requests;
}

void LoopbackServer::clearRequests() {
  std::lock_guard lock(impl_->mu);
  impl_->requests.clear();
}

int UnusedLoopbackPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  socklen_t length = sizeof(address);
  int port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  ::close(fd);
  return port;
}

}  // namespace vm::testing
