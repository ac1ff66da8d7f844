#include "services/vmcloudd/HttpServer.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/asio.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <future>
#include <limits>
#include <regex>
#include <thread>

#include "platform/Log.h"
#include "services/vmcloudd/ServiceError.h"
#include "services/vmcloudd/internal/Responses.h"

namespace vm {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;
using SteadyClock = std::chrono::steady_clock;
using internal::SendError;

constexpr std::size_t kBodyChunk = 32 * 1024;
constexpr std::size_t kHeaderReadChunk = 4096;
constexpr int kNetworkThreads = 2;
// After an answer, unread request bytes are drained for a moment before closing: closing
// with them unread would reset the connection and could destroy the answer in flight.
constexpr auto kLingerTime = std::chrono::seconds(1);
constexpr std::size_t kLingerBytes = 256 * 1024;
constexpr auto kStopGrace = std::chrono::seconds(2);

Log& HttpLog() { return Log::Get("vmcloudd", "http"); }

bool EqualsIgnoreCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

std::string_view Trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

// What makes a request header ambiguous: something that two HTTP implementations could
// read as different requests, which a front proxy and this server must not. `header`
// runs from the request line to the blank line that ends it.
std::optional<std::string_view> AmbiguityIn(std::string_view header) {
  std::optional<std::string_view> content_length;
  bool transfer_encoding = false;
  std::size_t start = header.find("\r\n") + 2;
  while (start < header.size()) {
    std::size_t end = header.find("\r\n", start);
    std::string_view line = header.substr(start, end - start);
    start = end + 2;
    if (line.empty()) break;
    if (line.front() == ' ' || line.front() == '\t') return "a folded header line";
    if (line.find_first_of("\r\n") != std::string_view::npos) return "a stray line break";
    std::size_t colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0) return "a header line without a colon";
    std::string_view name = line.substr(0, colon);
    std::string_view value = Trim(line.substr(colon + 1));
    if (EqualsIgnoreCase(name, "Content-Length")) {
      if (content_length && *content_length != value) return "differing Content-Length headers";
      content_length = value;
    } else if (EqualsIgnoreCase(name, "Transfer-Encoding")) {
      transfer_encoding = true;
    }
  }
  if (content_length && transfer_encoding) return "a Content-Length beside a Transfer-Encoding";
  return std::nullopt;
}

struct Route {
  std::string method;
  std::regex pattern;
  HttpHandler handler;
  std::string name;
};

// What every connection shares. Declared so that `active` outlives the io_context,
// whose destruction frees the connections still queued in it.
struct ServerCore {
  explicit ServerCore(HttpServerOptions server_options)
      : options(std::move(server_options)),
        workers(static_cast<std::size_t>(std::max(1, options.workers))) {}

  HttpServerOptions options;
  std::vector<Route> routes;
  HttpHandler fallback;
  HttpLogger logger;
  std::atomic<std::size_t> active{0};
  // Connections whose answer has not gone out yet: what stopping would cut.
  std::atomic<std::size_t> unanswered{0};
  HttpServer::Stats stats;
  std::optional<asio::ssl::context> ssl;
  asio::io_context io;
  asio::thread_pool workers;
};

// The time a transfer of `bytes` may take at the minimum rate, after the grace time.
std::chrono::milliseconds RateAllowance(const HttpServerOptions& options, std::uint64_t bytes) {
  return options.rate_grace +
         std::chrono::milliseconds(bytes * 1000 / std::max<std::uint64_t>(1, options.min_rate));
}

// One connection, serving one request. Every step runs on the connection's strand except
// the handler and the sink's finish(), which run on a worker; the hand-overs go through
// the executors' queues, which order them.
template <class Stream>
class Connection : public std::enable_shared_from_this<Connection<Stream>> {
  static constexpr bool kTls = !std::is_same_v<Stream, beast::tcp_stream>;

 public:
  Connection(ServerCore& core, Stream stream) : core_(core), stream_(std::move(stream)) {
    ++core_.active;
    ++core_.unanswered;
    ++core_.stats.open;
    request_.accepted = SteadyClock::now();
  }
  ~Connection() {
    answered();
    --core_.stats.open;
    --core_.active;
  }

  void run() {
    beast::get_lowest_layer(stream_).expires_at(SteadyClock::now() + core_.options.header_timeout);
    if constexpr (kTls) {
      stream_.async_handshake(asio::ssl::stream_base::server,
                              [self = this->shared_from_this()](beast::error_code ec) {
                                if (ec) return self->drop();
                                self->readHeader();
                              });
    } else {
      readHeader();
    }
  }

 private:
  std::string_view buffered() const {
    return {static_cast<const char*>(buffer_.data().data()), buffer_.size()};
  }

  void readHeader() {
    std::size_t end = buffered().find("\r\n\r\n");
    if (end != std::string_view::npos) return parseHeader(end + 4);
    if (buffer_.size() >= core_.options.max_header_bytes) {
      SendError(response_, 431, "header_too_large", "The request header is too large");
      return answer();
    }
    stream_.async_read_some(buffer_.prepare(kHeaderReadChunk),
                            [self = this->shared_from_this()](beast::error_code ec, std::size_t n) {
                              if (ec == beast::error::timeout)
                                ++self->core_.stats.dropped_header_timeout;
                              if (ec) return self->drop();
                              self->buffer_.commit(n);
                              self->readHeader();
                            });
  }

  void parseHeader(std::size_t length) {
    std::string_view header = buffered().substr(0, length);
    if (auto problem = AmbiguityIn(header)) {
      SendError(response_, 400, "bad_request", fmt::format("The request holds {}", *problem));
      return answer();
    }
    parser_.emplace();
    parser_->header_limit(static_cast<std::uint32_t>(core_.options.max_header_bytes));
    parser_->body_limit(std::numeric_limits<std::uint64_t>::max());  // the sink sets the limit
    beast::error_code ec;
    std::size_t used = parser_->put(asio::buffer(header.data(), header.size()), ec);
    if (ec || used != length || !parser_->is_header_done()) {
      SendError(response_, 400, "bad_request", "The request header cannot be read");
      return answer();
    }
    buffer_.consume(used);

    const auto& message = parser_->get();
    request_.method = std::string(message.method_string());
    request_.target = std::string(message.target());
    std::size_t question = request_.target.find('?');
    request_.path = request_.target.substr(0, question);
    if (question != std::string::npos) request_.query = request_.target.substr(question + 1);
    for (const auto& field : message) {
      request_.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
    }
    if (auto declared = parser_->content_length()) request_.content_length = *declared;
    request_.chunked = parser_->chunked();
    beast::error_code ignored;
    request_.remote_address =
        beast::get_lowest_layer(stream_).socket().remote_endpoint(ignored).address().to_string();

    const HttpHandler* handler = &core_.fallback;
    for (const Route& route : core_.routes) {
      std::smatch match;
      if (route.method == request_.method &&
          std::regex_match(request_.path, match, route.pattern)) {
        for (const auto& group : match) request_.matches.push_back(group.str());
        handler = &route.handler;
        request_.route = route.name;
        break;
      }
    }
    asio::post(core_.workers, [self = this->shared_from_this(), handler] {
      try {
        if (*handler) self->sink_ = (*handler)(self->request_, self->response_);
      } catch (const std::exception& e) {
        HttpLog().error("{} failed: {}", self->request_.method, e.what());
        self->sink_.reset();
        self->response_.status = 0;
      }
      asio::post(self->stream_.get_executor(), [self] { self->afterHandler(); });
    });
  }

  void afterHandler() {
    if (response_.status != 0 || !sink_) return answer();
    if (!request_.hasBody()) return finish(BodyOutcome::kComplete);
    if (request_.content_length && *request_.content_length > sink_->limit()) {
      return finish(BodyOutcome::kTooLarge);
    }
    body_start_ = SteadyClock::now();
    chunk_.resize(kBodyChunk);
    // A client that holds its body back until told to send it (Expect: 100-continue) is
    // told now that the body will be read, instead of stalling until its own timeout.
    const auto& message = parser_->get();
    if (message.version() >= 11 && beast::iequals(message[http::field::expect], "100-continue")) {
      return sendContinue();
    }
    readBody();
  }

  void sendContinue() {
    static constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
    beast::get_lowest_layer(stream_).expires_after(core_.options.idle_timeout);
    asio::async_write(stream_, asio::buffer(kContinue.data(), kContinue.size()),
                      [self = this->shared_from_this()](beast::error_code ec, std::size_t) {
                        if (ec) return self->drop();
                        self->readBody();
                      });
  }

  void readBody() {
    if (parser_->is_done()) return finish(BodyOutcome::kComplete);
    auto& body = parser_->get().body();
    body.data = chunk_.data();
    body.size = chunk_.size();
    const auto now = SteadyClock::now();
    beast::get_lowest_layer(stream_).expires_at(std::min(
        body_start_ + RateAllowance(core_.options, received_), now + core_.options.idle_timeout));
    http::async_read_some(stream_, buffer_, *parser_,
                          [self = this->shared_from_this()](beast::error_code ec, std::size_t) {
                            const std::size_t got =
                                self->chunk_.size() - self->parser_->get().body().size;
                            if (ec == http::error::need_buffer) ec = {};
                            self->received_ += got;
                            self->request_.body_bytes = self->received_;
                            if (self->received_ > self->sink_->limit())
                              return self->finish(BodyOutcome::kTooLarge);
                            if (got > 0 && !self->sink_->write(self->chunk_.data(), got)) {
                              return self->finish(BodyOutcome::kRefused);
                            }
                            if (ec) {
                              // A peer too slow for the deadline has lost its socket already.
                              self->dropped_ = ec == beast::error::timeout;
                              if (self->dropped_) ++self->core_.stats.dropped_slow_transfer;
                              return self->finish(BodyOutcome::kIncomplete);
                            }
                            self->readBody();
                          });
  }

  void finish(BodyOutcome outcome) {
    chunk_ = {};
    asio::post(core_.workers, [self = this->shared_from_this(), outcome] {
      try {
        self->sink_->finish(self->request_, outcome, self->response_);
      } catch (const std::exception& e) {
        HttpLog().error("{} failed: {}", self->request_.method, e.what());
        self->response_.status = 0;
      }
      self->sink_.reset();
      asio::post(self->stream_.get_executor(), [self] {
        if (self->dropped_) return self->drop();
        self->answer();
      });
    });
  }

  void answer() {
    if (response_.status == 0) {
      SendError(response_, 500, "internal", "The service could not complete the request");
    }
    beast::get_lowest_layer(stream_).expires_at(
        SteadyClock::now() + RateAllowance(core_.options, response_.contentLength()));
    if (response_.file() >= 0) {
      auto message = std::make_shared<http::response<http::file_body>>();
      beast::file_posix file;
      file.native_handle(::dup(response_.file()));
      beast::error_code ec;
      message->body().reset(std::move(file), ec);
      if (ec) return drop();
      send(std::move(message));
    } else {
      auto message = std::make_shared<http::response<http::string_body>>();
      message->body() = response_.body;
      send(std::move(message));
    }
  }

  template <class Body>
  void send(std::shared_ptr<http::response<Body>> message) {
    message->version(11);
    message->result(static_cast<unsigned>(response_.status));
    for (const auto& [name, value] : response_.headers) message->insert(name, value);
    if (!response_.content_type.empty()) {
      message->set(http::field::content_type, response_.content_type);
    }
    message->keep_alive(false);
    message->prepare_payload();
    http::async_write(
        stream_, *message,
        [self = this->shared_from_this(), message](beast::error_code ec, std::size_t) {
          if (ec == beast::error::timeout) ++self->core_.stats.dropped_slow_transfer;
          self->answered();
          if (self->core_.logger) self->core_.logger(self->request_, self->response_);
          self->close();
        });
  }

  void close() {
    auto& lowest = beast::get_lowest_layer(stream_);
    lowest.expires_after(kLingerTime);
    if constexpr (kTls) {
      stream_.async_shutdown(
          [self = this->shared_from_this()](beast::error_code) { self->drop(); });
    } else {
      beast::error_code ignored;
      lowest.socket().shutdown(tcp::socket::shutdown_send, ignored);
      linger();
    }
  }

  void linger() {
    buffer_.clear();
    beast::get_lowest_layer(stream_).async_read_some(
        buffer_.prepare(kBodyChunk),
        [self = this->shared_from_this()](beast::error_code ec, std::size_t n) {
          self->lingered_ += n;
          if (ec || self->lingered_ > kLingerBytes) return self->drop();
          self->linger();
        });
  }

  // The answer went out, or the connection is gone: stopping no longer waits for it.
  void answered() {
    if (!answered_) {
      answered_ = true;
      --core_.unanswered;
    }
  }

  void drop() {
    beast::error_code ignored;
    beast::get_lowest_layer(stream_).socket().close(ignored);
  }

  ServerCore& core_;
  Stream stream_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::buffer_body>> parser_;
  HttpRequest request_;
  HttpResponse response_;
  std::unique_ptr<BodySink> sink_;
  std::vector<char> chunk_;
  SteadyClock::time_point body_start_;
  std::uint64_t received_ = 0;
  std::size_t lingered_ = 0;
  bool dropped_ = false;
  bool answered_ = false;
};

class BufferedSink : public BodySink {
 public:
  BufferedSink(std::uint64_t limit,
               std::function<void(HttpRequest&, BodyOutcome, HttpResponse&)> then)
      : limit_(limit), then_(std::move(then)) {}
  std::uint64_t limit() const override { return limit_; }
  bool write(const char* data, std::size_t size) override {
    body_.append(data, size);
    return true;
  }
  void finish(HttpRequest& request, BodyOutcome outcome, HttpResponse& response) override {
    request.body = std::move(body_);
    then_(request, outcome, response);
  }

 private:
  std::uint64_t limit_;
  std::function<void(HttpRequest&, BodyOutcome, HttpResponse&)> then_;
  std::string body_;
};

}  // namespace

std::string HttpRequest::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (EqualsIgnoreCase(key, name)) return value;
  }
  return {};
}

bool HttpRequest::hasHeader(std::string_view name) const {
  return std::any_of(headers.begin(), headers.end(),
                     [&](const auto& field) { return EqualsIgnoreCase(field.first, name); });
}

std::string HttpRequest::queryParameter(std::string_view name) const {
  std::string_view rest = query;
  while (!rest.empty()) {
    std::size_t end = rest.find('&');
    std::string_view part = rest.substr(0, end);
    if (part.size() > name.size() && part.substr(0, name.size()) == name &&
        part[name.size()] == '=') {
      return std::string(part.substr(name.size() + 1));
    }
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
  }
  return {};
}

HttpResponse::~HttpResponse() {
  if (file_ >= 0) ::close(file_);
}

void HttpResponse::setFile(int fd, std::uint64_t size) {
  if (file_ >= 0) ::close(file_);
  file_ = fd;
  file_size_ = size;
}

std::unique_ptr<BodySink> BufferedBody(
    std::uint64_t limit, std::function<void(HttpRequest&, BodyOutcome, HttpResponse&)> then) {
  return std::make_unique<BufferedSink>(limit, std::move(then));
}

class HttpServer::Impl : public ServerCore {
 public:
  using ServerCore::ServerCore;

  void accept() {
    acceptor_->async_accept(
        asio::make_strand(io), [this](beast::error_code ec, tcp::socket socket) {
          if (ec == asio::error::operation_aborted || !acceptor_->is_open()) return;
          if (!ec) {
            if (active.load() >= options.max_connections) {
              ++stats.dropped_limit;
              beast::error_code ignored;
              socket.close(ignored);
            } else if (ssl) {
              std::make_shared<Connection<beast::ssl_stream<beast::tcp_stream>>>(
                  *this, beast::ssl_stream<beast::tcp_stream>(std::move(socket), *ssl))
                  ->run();
            } else {
              std::make_shared<Connection<beast::tcp_stream>>(*this,
                                                              beast::tcp_stream(std::move(socket)))
                  ->run();
            }
          }
          accept();
        });
  }

  std::optional<tcp::acceptor> acceptor_;
  // Keeps the network threads running while no operation is pending (a request whose
  // handler runs on a worker, once the acceptor is closed); stop() ends them.
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> keep_running_;
  std::vector<std::thread> threads_;
  int port_ = 0;
  bool stopped_ = false;
};

HttpServer::HttpServer(HttpServerOptions options)
    : impl_(std::make_unique<Impl>(std::move(options))) {}

HttpServer::~HttpServer() { stop(); }

void HttpServer::route(std::string method, const std::string& path_pattern, HttpHandler handler,
                       std::string name) {
  impl_->routes.push_back(
      Route{std::move(method), std::regex(path_pattern), std::move(handler), std::move(name)});
}

void HttpServer::setFallback(HttpHandler handler) { impl_->fallback = std::move(handler); }
void HttpServer::setLogger(HttpLogger logger) { impl_->logger = std::move(logger); }

bool HttpServer::bind(ErrorRef* error) {
  Impl& impl = *impl_;
  const HttpServerOptions& options = impl.options;
  auto bad = [&](std::string what) {
    return Fail(error, CloudServiceError(kVMCloudServiceBadSetting, what));
  };
  if (!options.tls_cert.empty()) {
    impl.ssl.emplace(asio::ssl::context::tls_server);
    beast::error_code ec;
    impl.ssl->use_certificate_chain_file(options.tls_cert.string(), ec);
    if (!ec) impl.ssl->use_private_key_file(options.tls_key.string(), asio::ssl::context::pem, ec);
    if (ec) {
      impl.ssl.reset();
      return bad(fmt::format("The TLS certificate {} or key {} cannot be used: {}",
                             options.tls_cert.string(), options.tls_key.string(), ec.message()));
    }
  }
  beast::error_code ec;
  tcp::resolver resolver(impl.io);
  auto endpoints = resolver.resolve(options.host, std::to_string(options.port),
                                    tcp::resolver::passive | tcp::resolver::numeric_service, ec);
  if (!ec && endpoints.empty()) ec = asio::error::host_not_found;
  if (!ec) {
    tcp::endpoint endpoint = *endpoints.begin();
    // The accept loop and stop() meet on the acceptor's strand.
    impl.acceptor_.emplace(asio::make_strand(impl.io));
    impl.acceptor_->open(endpoint.protocol(), ec);
    if (!ec) impl.acceptor_->set_option(asio::socket_base::reuse_address(true), ec);
    if (!ec) impl.acceptor_->bind(endpoint, ec);
    if (!ec) impl.acceptor_->listen(asio::socket_base::max_listen_connections, ec);
    if (!ec) impl.port_ = impl.acceptor_->local_endpoint(ec).port();
  }
  if (ec) {
    impl.acceptor_.reset();
    return Fail(error, CloudServiceError(kVMCloudServiceListenFailed,
                                         fmt::format("Cannot listen on {}:{}: {}", options.host,
                                                     options.port, ec.message())));
  }
  return true;
}

void HttpServer::start() {
  Impl& impl = *impl_;
  impl.keep_running_.emplace(impl.io.get_executor());
  impl.accept();
  for (int i = 0; i < kNetworkThreads; ++i) {
    impl.threads_.emplace_back([&impl] { impl.io.run(); });
  }
}

std::size_t HttpServer::stop(std::chrono::milliseconds drain) {
  Impl& impl = *impl_;
  if (!impl.acceptor_ || impl.stopped_) return 0;
  impl.stopped_ = true;
  // Closed on its strand and waited for, so that no connection is accepted after this.
  std::promise<void> closed;
  asio::post(impl.acceptor_->get_executor(), [&impl, &closed] {
    beast::error_code ignored;
    impl.acceptor_->close(ignored);
    closed.set_value();
  });
  if (!impl.threads_.empty()) closed.get_future().wait();
  const auto deadline = SteadyClock::now() + drain;
  while (impl.unanswered.load() > 0 && SteadyClock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  const std::size_t cut = impl.unanswered.load();
  // Answers already sent get a moment to be read before their sockets close.
  const auto linger_deadline = std::min(deadline, SteadyClock::now() + kStopGrace);
  while (cut == 0 && impl.active.load() > 0 && SteadyClock::now() < linger_deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  impl.io.stop();
  for (auto& thread : impl.threads_) thread.join();
  impl.workers.join();
  return cut;
}

const HttpServer::Stats& HttpServer::stats() const { return impl_->stats; }

int HttpServer::port() const { return impl_->port_; }
bool HttpServer::tls() const { return impl_->ssl.has_value(); }

}  // namespace vm
