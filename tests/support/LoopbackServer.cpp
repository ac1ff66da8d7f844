#include "tests/support/LoopbackServer.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
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

  std::unique_ptr<httplib::Server> server;
  bool tls = false;
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
    for (const auto& [field, value] : reply.headers) response.set_header(field, value);
    if (reply.chunked) {
      response.set_chunked_content_provider(
          reply.contentType, [reply](std::size_t, httplib::DataSink& sink) {
            std::size_t first = std::min(reply.stallAfter.value_or(0), reply.body.size());
            if (first > 0 && !sink.write(reply.body.data(), first)) return false;
            if (reply.stallAfter) {
              std::this_thread::sleep_for(std::chrono::milliseconds(reply.stallForMilliseconds));
            }
            if (first < reply.body.size() &&
                !sink.write(reply.body.data() + first, reply.body.size() - first)) {
              return false;
            }
            sink.done();
            return true;
          });
    } else if (!reply.body.empty()) {
      response.set_content(reply.body, reply.contentType);
    }
  }

  void start() {
    auto handler = [this](const httplib::Request& request, httplib::Response& response) {
      handle(request, response);
    };
    // Short keep-alive, so that stopping does not wait long for idle client connections.
    server->set_keep_alive_timeout(1);
    // Without it, a reply written as headers then body waits for the client's delayed ACK.
    server->set_tcp_nodelay(true);
    server->Get(".*", handler);
    server->Post(".*", handler);
    server->Put(".*", handler);
    server->Delete(".*", handler);
    server->Patch(".*", handler);
    port = server->bind_to_any_port("127.0.0.1");
    if (port <= 0) throw std::runtime_error("LoopbackServer: cannot bind 127.0.0.1");
    thread = std::thread([this] { server->listen_after_bind(); });
    // The socket listens already; wait for the accept loop so that stop() reaches it.
    while (!server->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
};

LoopbackServer::LoopbackServer() : impl_(std::make_unique<Impl>()) {
  impl_->server = std::make_unique<httplib::Server>();
  impl_->start();
}

LoopbackServer::LoopbackServer(const std::string& certificateFile, const std::string& keyFile)
    : impl_(std::make_unique<Impl>()) {
  auto server = std::make_unique<httplib::SSLServer>(certificateFile.c_str(), keyFile.c_str());
  if (!server->is_valid()) throw std::runtime_error("LoopbackServer: unusable certificate");
  impl_->server = std::move(server);
  impl_->tls = true;
  impl_->start();
}

LoopbackServer::~LoopbackServer() {
  impl_->server->stop();
  if (impl_->thread.joinable()) impl_->thread.join();
}

int LoopbackServer::port() const { return impl_->port; }

std::string LoopbackServer::url(std::string_view path) const {
  return std::string(impl_->tls ? "https" : "http") +
         "://127.0.0.1:" + std::to_string(impl_->port) + std::string(path);
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

bool WriteSelfSignedCertificate(const std::string& certificateFile, const std::string& keyFile) {
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  std::unique_ptr<X509, decltype(&X509_free)> cert(X509_new(), X509_free);
  if (!key || !cert) return false;
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 3600);
  X509_set_pubkey(cert.get(), key.get());
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
  X509_set_issuer_name(cert.get(), name);
  std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> address(
      X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, "IP:127.0.0.1"),
      X509_EXTENSION_free);
  if (!address || X509_add_ext(cert.get(), address.get(), -1) != 1) return false;
  if (X509_sign(cert.get(), key.get(), EVP_sha256()) == 0) return false;
  std::unique_ptr<BIO, decltype(&BIO_free)> cert_out(BIO_new_file(certificateFile.c_str(), "w"),
                                                     BIO_free);
  std::unique_ptr<BIO, decltype(&BIO_free)> key_out(BIO_new_file(keyFile.c_str(), "w"), BIO_free);
  return cert_out && key_out && PEM_write_bio_X509(cert_out.get(), cert.get()) == 1 &&
         PEM_write_bio_PrivateKey(key_out.get(), key.get(), nullptr, nullptr, 0, nullptr,
                                  nullptr) == 1;
}

}  // namespace vm::testing
