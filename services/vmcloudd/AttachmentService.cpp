#include "services/vmcloudd/AttachmentService.h"

#include <fmt/format.h>
#include <httplib.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <thread>

#include "platform/Log.h"
#include "platform/UniqueID.h"
#include "services/vmcloudd/AttachmentRecords.h"
#include "services/vmcloudd/EmbeddedBlobStorage.h"
#include "services/vmcloudd/S3Storage.h"
#include "services/vmcloudd/ServiceError.h"
#include "services/vmcloudd/StaleUploadSweeper.h"
#include "services/vmcloudd/internal/Crypto.h"
#include "services/vmcloudd/internal/Responses.h"

namespace vm {
namespace {

namespace fs = std::filesystem;
using internal::SendError;
using internal::SendErrorAndClose;
using nlohmann::json;

constexpr std::string_view kApiPrefix = "/v1/";
constexpr std::string_view kAuthScheme = "Velmora ";
constexpr auto kStartWaitLimit = std::chrono::seconds(5);

Log& HttpLog() { return Log::Get("vmcloudd", "http"); }
Log& ServiceLog() { return Log::Get("vmcloudd", "service"); }

ErrorRef BadSetting(std::string_view what) {
  return CloudServiceError(kVMCloudServiceBadSetting, what);
}

std::string HostForURL(const std::string& host) {
  return host.find(':') != std::string::npos ? "[" + host + "]" : host;
}

// Reads a JSON request body of at most `limit` bytes. Sends the refusal and returns
// nullopt when the body is too large, incomplete or not a JSON object.
std::optional<json> ReadJsonObject(const httplib::Request& request, httplib::Response& response,
                                   const httplib::ContentReader& read, std::size_t limit) {
  if (request.has_header("Content-Length") &&
      request.get_header_value<std::uint64_t>("Content-Length") > limit) {
    SendErrorAndClose(response, 413, "too_large", "The request body is too large");
    return std::nullopt;
  }
  std::string body;
  bool too_large = false;
  bool complete = read([&](const char* data, std::size_t size) {
    if (body.size() + size > limit) {
      too_large = true;
      return false;
    }
    body.append(data, size);
    return true;
  });
  if (too_large) {
    SendErrorAndClose(response, 413, "too_large", "The request body is too large");
    return std::nullopt;
  }
  if (!complete) {
    SendErrorAndClose(response, 400, "incomplete", "The request body ended early");
    return std::nullopt;
  }
  json parsed = json::parse(body, nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded() || !parsed.is_object()) {
    SendError(response, 400, "bad_json", "The request body must be a JSON object");
    return std::nullopt;
  }
  return parsed;
}

// The unsigned integer under `key`; nullopt when it is absent, negative, fractional or
// not a number.
std::optional<std::uint64_t> SizeField(const json& object, std::string_view key) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_number_unsigned()) return std::nullopt;
  return it->get<std::uint64_t>();
}

std::optional<std::string> StringField(const json& object, std::string_view key) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

json InfoJson(const AttachmentRecord& record) {
  return json{
      {"uuid", record.uuid}, {"size", record.size}, {"state", AttachmentStateName(record.state)}};
}

void SendJson(httplib::Response& response, int status, const json& body) {
  response.status = status;
  response.set_content(body.dump(), "application/json");
}

}  // namespace

class AttachmentService::Impl {
 public:
  Impl(AttachmentServiceOptions options, std::unique_ptr<AttachmentRecords> records,
       std::unique_ptr<StorageProvider> storage, EmbeddedBlobStorage* embedded)
      : options_(std::move(options)),
        records_(std::move(records)),
        storage_(std::move(storage)),
        embedded_(embedded),
        sweeper_(records_.get(), storage_.get(), options_.clock, options_.stale_upload_age,
                 options_.sweep_interval) {}

  ~Impl() { stop(); }

  bool start(ErrorRef* error);
  void stop();

  AttachmentServiceOptions options_;
  std::unique_ptr<AttachmentRecords> records_;
  std::unique_ptr<StorageProvider> storage_;
  EmbeddedBlobStorage* embedded_;  // storage_ when it is the embedded provider, else null
  StaleUploadSweeper sweeper_;
  std::unique_ptr<httplib::Server> server_;
  std::thread serving_;
  int port_ = 0;
  int listen_fd_ = -1;  // owned by server_
  std::string base_url_;

 private:
  void installRoutes();
  bool authorized(const httplib::Request& request) const;
  // Sends a 500 for a failure of our own records or disk, and logs what it was.
  void sendInternalError(httplib::Response& response, const ErrorRef& error) const;
  std::optional<std::string> pathUUID(const httplib::Request& request,
                                      httplib::Response& response) const;
  // Looks the record up; sends 404 or 500 and returns false when there is none to use.
  bool findRecord(const std::string& uuid, std::optional<AttachmentRecord>* record,
                  httplib::Response& response) const;

  void startUpload(const httplib::Request& request, httplib::Response& response,
                   const httplib::ContentReader& read);
  void finishUpload(const httplib::Request& request, httplib::Response& response,
                    const httplib::ContentReader& read);
  void download(const httplib::Request& request, httplib::Response& response);
  void remove(const httplib::Request& request, httplib::Response& response);
};

bool AttachmentService::Impl::authorized(const httplib::Request& request) const {
  const std::string header = request.get_header_value("Authorization");
  if (header.size() <= kAuthScheme.size() || header.compare(0, kAuthScheme.size(), kAuthScheme)) {
    return false;
  }
  std::string_view given = std::string_view(header).substr(kAuthScheme.size());
  bool accepted = false;
  // Every token is compared, so the time taken does not tell which one came close.
  for (const std::string& token : options_.tokens) {
    accepted |= internal::ConstantTimeEquals(given, token);
  }
  return accepted;
}

void AttachmentService::Impl::sendInternalError(httplib::Response& response,
                                                const ErrorRef& error) const {
  ServiceLog().error("{}", error ? error->summary() : std::string("unknown failure"));
  SendError(response, 500, "internal", "The service could not complete the request");
}

std::optional<std::string> AttachmentService::Impl::pathUUID(const httplib::Request& request,
                                                             httplib::Response& response) const {
  auto uuid = ParseUUID(request.matches[1].str());
  if (!uuid) SendError(response, 400, "bad_uuid", "The path does not end in an attachment UUID");
  return uuid;
}

bool AttachmentService::Impl::findRecord(const std::string& uuid,
                                         std::optional<AttachmentRecord>* record,
                                         httplib::Response& response) const {
  ErrorRef error;
  if (!records_->find(uuid, record, &error)) {
    sendInternalError(response, error);
    return false;
  }
  if (!*record) {
    SendError(response, 404, "not_found", "There is no attachment with this UUID");
    return false;
  }
  return true;
}

void AttachmentService::Impl::startUpload(const httplib::Request& request,
                                          httplib::Response& response,
                                          const httplib::ContentReader& read) {
  auto body = ReadJsonObject(request, response, read, options_.max_json_body);
  if (!body) return;
  auto size = SizeField(*body, "size");
  if (!size) {
    return SendError(response, 400, "bad_request",
                     "\"size\" must be a non-negative integer number of bytes");
  }
  if (*size > options_.max_blob_size) {
    return SendError(response, 413, "too_large",
                     fmt::format("Attachments may hold at most {} bytes", options_.max_blob_size));
  }
  AttachmentRecord record{MakeUniqueID(), *size, AttachmentState::kNew, options_.clock()};
  ErrorRef error;
  if (!records_->insert(record, &error)) return sendInternalError(response, error);
  json reply = InfoJson(record);
  reply["upload_url"] = storage_->uploadURL(record.uuid, options_.url_lifetime);
  SendJson(response, 201, reply);
}

void AttachmentService::Impl::finishUpload(const httplib::Request& request,
                                           httplib::Response& response,
                                           const httplib::ContentReader& read) {
  auto uuid = pathUUID(request, response);
  if (!uuid) return;
  auto body = ReadJsonObject(request, response, read, options_.max_json_body);
  if (!body) return;
  auto body_uuid = StringField(*body, "uuid");
  auto size = SizeField(*body, "size");
  auto state = StringField(*body, "state");
  if (!body_uuid || ParseUUID(*body_uuid) != uuid) {
    return SendError(response, 400, "bad_request", "\"uuid\" must be the UUID of the path");
  }
  if (!size) {
    return SendError(response, 400, "bad_request", "\"size\" must be a non-negative integer");
  }
  if (state != AttachmentStateName(AttachmentState::kUploaded)) {
    return SendError(response, 400, "bad_request", "\"state\" must be \"uploaded\"");
  }

  std::optional<AttachmentRecord> record;
  if (!findRecord(*uuid, &record, response)) return;
  if (record->size != *size) {
    return SendError(
        response, 409, "size_mismatch",
        fmt::format("The attachment was announced with {} bytes, not {}", record->size, *size));
  }
  if (record->state == AttachmentState::kDeleted) {
    return SendError(response, 409, "deleted", "The attachment has been deleted");
  }
  if (record->state == AttachmentState::kUploaded)
    return SendJson(response, 200, InfoJson(*record));

  StoredObject object;
  ErrorRef error;
  if (!storage_->statObject(*uuid, &object, &error)) {
    ServiceLog().error("{}", error->summary());
    return SendError(response, 502, "storage_unavailable",
                     "The storage provider could not be asked for the bytes");
  }
  if (!object.exists) {
    return SendError(response, 409, "not_uploaded",
                     "The storage provider does not hold the attachment's bytes");
  }
  if (object.size != record->size) {
    return SendError(response, 409, "size_mismatch",
                     fmt::format("The storage provider holds {} bytes, the attachment {}",
                                 object.size, record->size));
  }
  bool changed = false;
  if (!records_->transition(*uuid, {AttachmentState::kNew}, AttachmentState::kUploaded, &changed,
                            &error)) {
    return sendInternalError(response, error);
  }
  if (!changed) {
    // A concurrent request confirmed or deleted it in the meantime.
    if (!findRecord(*uuid, &record, response)) return;
    if (record->state != AttachmentState::kUploaded) {
      return SendError(response, 409, "deleted", "The attachment has been deleted");
    }
  }
  record->state = AttachmentState::kUploaded;
  SendJson(response, 200, InfoJson(*record));
}

void AttachmentService::Impl::download(const httplib::Request& request,
                                       httplib::Response& response) {
  auto uuid = pathUUID(request, response);
  if (!uuid) return;
  std::optional<AttachmentRecord> record;
  if (!findRecord(*uuid, &record, response)) return;
  if (record->state != AttachmentState::kUploaded) {
    return SendError(
        response, 404, "not_found",
        fmt::format("The attachment is {}, not uploaded", AttachmentStateName(record->state)));
  }
  json reply = InfoJson(*record);
  reply["download_url"] = storage_->downloadURL(*uuid, options_.url_lifetime);
  SendJson(response, 200, reply);
}

void AttachmentService::Impl::remove(const httplib::Request& request, httplib::Response& response) {
  auto uuid = pathUUID(request, response);
  if (!uuid) return;
  std::optional<AttachmentRecord> record;
  if (!findRecord(*uuid, &record, response)) return;
  if (record->state != AttachmentState::kDeleted) {
    ErrorRef error;
    // Bytes first: a record marked deleted whose bytes stayed behind would never be
    // cleaned up, while a failed removal can simply be asked for again.
    if (!storage_->removeObject(*uuid, &error)) {
      ServiceLog().error("{}", error->summary());
      return SendError(response, 502, "storage_unavailable",
                       "The storage provider could not remove the bytes");
    }
    bool changed = false;
    if (!records_->transition(*uuid, {AttachmentState::kNew, AttachmentState::kUploaded},
                              AttachmentState::kDeleted, &changed, &error)) {
      return sendInternalError(response, error);
    }
  }
  response.status = 204;
}

void AttachmentService::Impl::installRoutes() {
  httplib::Server& server = *server_;
  server.new_task_queue = [threads = options_.threads] {
    return new httplib::ThreadPool(static_cast<std::size_t>(threads));
  };
  server.set_payload_max_length(static_cast<std::size_t>(options_.max_blob_size));
  // One request per connection. This server cannot drop a connection whose body it
  // refused unread: kept alive, the rest of the body would be parsed as further requests.
  // It also keeps idle clients from holding the request threads.
  server.set_keep_alive_max_count(1);

  server.set_pre_routing_handler(
      [this](const httplib::Request& request, httplib::Response& response) {
        if (request.path.rfind(kApiPrefix, 0) == 0 && !authorized(request)) {
          response.set_header("WWW-Authenticate", "Velmora");
          SendErrorAndClose(response, 401, "unauthorized",
                            "An \"Authorization: Velmora <token>\" header with a known token is "
                            "required");
          return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
      });

  const std::string collection = R"(/v1/_internal/attachment/?)";
  const std::string resource = R"(/v1/_internal/attachment/([^/]+))";
  server.Post(collection,
              [this](const httplib::Request& request, httplib::Response& response,
                     const httplib::ContentReader& read) { startUpload(request, response, read); });
  server.Put(resource,
             [this](const httplib::Request& request, httplib::Response& response,
                    const httplib::ContentReader& read) { finishUpload(request, response, read); });
  server.Get(resource, [this](const httplib::Request& request, httplib::Response& response) {
    download(request, response);
  });
  server.Delete(resource, [this](const httplib::Request& request, httplib::Response& response) {
    remove(request, response);
  });
  // A DELETE that announces a body (even an empty one) is routed to handlers that read
  // it; the body carries nothing, so it is read within the JSON limit and dropped.
  server.Delete(resource, [this](const httplib::Request& request, httplib::Response& response,
                                 const httplib::ContentReader& read) {
    bool too_large = false;
    std::size_t received = 0;
    bool complete = read([&](const char*, std::size_t size) {
      received += size;
      too_large = received > options_.max_json_body;
      return !too_large;
    });
    if (!complete) {
      return SendErrorAndClose(response, too_large ? 413 : 400, "bad_request",
                               "A DELETE takes no body");
    }
    remove(request, response);
  });

  if (embedded_ != nullptr) embedded_->installRoutes(&server);

  // Without these, a body sent to an unknown path would be read into memory whole before
  // the 404; refusing before reading keeps that bounded.
  auto refuse = [](const httplib::Request&, httplib::Response& response,
                   const httplib::ContentReader&) {
    SendErrorAndClose(response, 404, "not_found", "There is nothing at this path");
  };
  server.Post(".*", refuse);
  server.Put(".*", refuse);
  server.Patch(".*", refuse);
  server.Delete(".*", refuse);

  server.set_error_handler(httplib::Server::HandlerWithResponse([](const httplib::Request&,
                                                                   httplib::Response& response) {
    if (response.body.empty() && response.content_length_ == 0) {
      const bool missing = response.status == 404;
      SendError(response, response.status, missing ? "not_found" : "error",
                missing ? "There is nothing at this path"
                        : fmt::format("The request failed with HTTP status {}", response.status));
    }
    return httplib::Server::HandlerResponse::Handled;
  }));
  server.set_exception_handler(
      [](const httplib::Request& request, httplib::Response& response, std::exception_ptr thrown) {
        std::string what = "unknown exception";
        try {
          std::rethrow_exception(thrown);
        } catch (const std::exception& e) {
          what = e.what();
        } catch (...) {
        }
        ServiceLog().error("{} {} failed: {}", request.method, request.path, what);
        SendError(response, 500, "internal", "The service could not complete the request");
      });
  server.set_logger([](const httplib::Request& request, const httplib::Response& response) {
    std::size_t bytes = response.content_length_ ? response.content_length_ : response.body.size();
    HttpLog().notice("{} \"{} {}\" {} {}", request.remote_addr, request.method, request.path,
                     response.status, bytes);
  });
}

bool AttachmentService::Impl::start(ErrorRef* error) {
  if (server_) return Fail(error, BadSetting("The service has been started already"));
  const bool tls = !options_.tls_cert.empty();
  if (tls) {
    auto server =
        std::make_unique<httplib::SSLServer>(options_.tls_cert.c_str(), options_.tls_key.c_str());
    if (!server->is_valid()) {
      return Fail(error,
                  BadSetting(fmt::format("The TLS certificate {} or key {} cannot be used",
                                         options_.tls_cert.string(), options_.tls_key.string())));
    }
    server_ = std::move(server);
  } else {
    server_ = std::make_unique<httplib::Server>();
  }
  installRoutes();

  // cpp-httplib listens with a backlog of 5; a burst of clients beyond that gets its
  // handshakes dropped and its requests lost. Listening again on the bound socket raises
  // the backlog, so the socket is kept when it is made.
  server_->set_socket_options([this](socket_t socket) {
    httplib::default_socket_options(socket);
    listen_fd_ = socket;
  });
  if (options_.port == 0) {
    port_ = server_->bind_to_any_port(options_.host);
  } else {
    port_ = server_->bind_to_port(options_.host, options_.port) ? options_.port : -1;
  }
  if (port_ <= 0) {
    server_.reset();
    return Fail(error, CloudServiceError(
                           kVMCloudServiceListenFailed,
                           fmt::format("Cannot listen on {}:{}", options_.host, options_.port)));
  }
  if (listen_fd_ >= 0 && ::listen(listen_fd_, SOMAXCONN) != 0) {
    ServiceLog().error("cannot raise the listen backlog: {}", std::strerror(errno));
  }
  base_url_ = fmt::format("{}://{}:{}", tls ? "https" : "http", HostForURL(options_.host), port_);
  if (embedded_ != nullptr) {
    embedded_->setBaseURL(options_.public_url.empty() ? base_url_ : options_.public_url);
  }
  serving_ = std::thread([server = server_.get()] { server->listen_after_bind(); });
  // stop() only takes effect once the loop runs, so wait for it (briefly) here.
  auto deadline = std::chrono::steady_clock::now() + kStartWaitLimit;
  while (!server_->is_running() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (!server_->is_running()) {
    serving_.join();
    server_.reset();
    return Fail(error,
                CloudServiceError(kVMCloudServiceListenFailed, "The server did not start serving"));
  }
  ServiceLog().notice("serving {} with {} records and {} storage", base_url_, records_->kind(),
                      storage_->kind());
  sweeper_.start();
  return true;
}

void AttachmentService::Impl::stop() {
  sweeper_.stop();
  if (!server_) return;
  server_->stop();
  if (serving_.joinable()) serving_.join();
}

std::unique_ptr<AttachmentService> AttachmentService::Create(AttachmentServiceOptions options,
                                                             ErrorRef* error) {
  if (options.tokens.empty()) {
    Fail(error, BadSetting("At least one access token is required"));
    return nullptr;
  }
  for (const std::string& token : options.tokens) {
    if (token.empty() || token.find_first_of(" \t\r\n") != std::string::npos) {
      Fail(error, BadSetting("An access token must be non-empty and hold no white space"));
      return nullptr;
    }
  }
  if (options.tls_cert.empty() != options.tls_key.empty()) {
    Fail(error, BadSetting("TLS needs both a certificate and a key"));
    return nullptr;
  }
  if (options.url_lifetime <= std::chrono::seconds(0) || options.threads < 1 ||
      options.max_json_body == 0) {
    Fail(error, BadSetting("URL lifetime, thread count and JSON body limit must be positive"));
    return nullptr;
  }
  if (options.data_dir.empty()) {
    Fail(error, BadSetting("A data folder is required"));
    return nullptr;
  }
  if (!options.clock) options.clock = [] { return std::chrono::system_clock::now(); };

  std::error_code ec;
  fs::create_directories(options.data_dir, ec);
  if (ec) {
    Fail(error, BadSetting(fmt::format("Cannot make the data folder {}: {}",
                                       options.data_dir.string(), ec.message())));
    return nullptr;
  }
  auto records = AttachmentRecords::Open(options.database.empty()
                                             ? (options.data_dir / "attachments.sqlite").string()
                                             : options.database,
                                         error);
  if (!records) return nullptr;

  std::unique_ptr<StorageProvider> storage;
  EmbeddedBlobStorage* embedded = nullptr;
  if (options.s3) {
    storage = S3Storage::Create(*options.s3, options.clock, error);
  } else {
    auto blobs = EmbeddedBlobStorage::Open(options.data_dir / "blobs", options.max_blob_size,
                                           options.clock, error);
    embedded = blobs.get();
    storage = std::move(blobs);
  }
  if (!storage) return nullptr;
  // Processes that share the records must accept each other's blob URLs: the first one to
  // start keeps its key in the records and every other one takes that key.
  if (embedded != nullptr && records->kind() != "sqlite") {
    auto proposal = internal::RandomBytes(32);
    std::string key;
    if (!proposal || !records->sharedValue("blob-url-signing-key", internal::HexEncode(*proposal),
                                           &key, error)) {
      if (!proposal) Fail(error, BadSetting("No random bytes for the URL signing key"));
      return nullptr;
    }
    embedded->setSigningKey(std::move(key));
  }
  return std::unique_ptr<AttachmentService>(new AttachmentService(std::make_unique<Impl>(
      std::move(options), std::move(records), std::move(storage), embedded)));
}

AttachmentService::AttachmentService(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
AttachmentService::~AttachmentService() = default;

bool AttachmentService::start(ErrorRef* error) { return impl_->start(error); }
void AttachmentService::stop() { impl_->stop(); }
std::size_t AttachmentService::sweepStaleUploads() { return impl_->sweeper_.sweepOnce(); }
int AttachmentService::port() const { return impl_->port_; }
std::string AttachmentService::baseURL() const { return impl_->base_url_; }

}  // namespace vm
