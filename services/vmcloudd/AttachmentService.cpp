#include "services/vmcloudd/AttachmentService.h"

#include <fmt/format.h>

#include <mutex>
#include <nlohmann/json.hpp>

#include "platform/Log.h"
#include "platform/PrivateDataFolder.h"
#include "platform/UniqueID.h"
#include "services/vmcloudd/AttachmentRecords.h"
#include "services/vmcloudd/EmbeddedBlobStorage.h"
#include "services/vmcloudd/HttpServer.h"
#include "services/vmcloudd/PrometheusText.h"
#include "services/vmcloudd/S3Storage.h"
#include "services/vmcloudd/ServiceError.h"
#include "services/vmcloudd/ServiceMetrics.h"
#include "services/vmcloudd/StaleUploadSweeper.h"
#include "services/vmcloudd/internal/Crypto.h"
#include "services/vmcloudd/internal/Responses.h"

namespace vm {
namespace {

namespace fs = std::filesystem;
using internal::SendError;
using nlohmann::json;

constexpr std::string_view kApiPrefix = "/v1/";
constexpr std::string_view kAuthScheme = "Velmora ";

Log& AccessLog() { return Log::Get("vmcloudd", "http"); }
Log& ServiceLog() { return Log::Get("vmcloudd", "service"); }

ErrorRef BadSetting(std::string_view what) {
  return CloudServiceError(kVMCloudServiceBadSetting, what);
}

bool CheckTokens(const std::vector<std::string>& tokens, ErrorRef* error) {
  if (tokens.empty()) return Fail(error, BadSetting("At least one access token is required"));
  for (const std::string& token : tokens) {
    if (token.empty() || token.find_first_of(" \t\r\n") != std::string::npos) {
      return Fail(error, BadSetting("An access token must be non-empty and hold no white space"));
    }
  }
  return true;
}

std::string HostForURL(const std::string& host) {
  return host.find(':') != std::string::npos ? "[" + host + "]" : host;
}

// Parses a JSON request body. Sends the refusal and returns nullopt when it is not a JSON
// object.
std::optional<json> ParseJsonObject(const HttpRequest& request, HttpResponse& response) {
  json parsed = json::parse(request.body, nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded() || !parsed.is_object()) {
    SendError(response, 400, "bad_json", "The request body must be a JSON object");
    return std::nullopt;
  }
  return parsed;
}

// `text` with quotes and backslashes written as \xNN, so that what a client sends
// cannot close the quoted request field early and fake the fields after it. Log lines
// escape control characters themselves.
std::string QuoteForLog(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    if (c == '"' || c == '\\') {
      out += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
    } else {
      out += c;
    }
  }
  return out;
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

void SendJson(HttpResponse& response, int status, const json& body) {
  response.status = status;
  response.content_type = "application/json";
  response.body = body.dump();
}

}  // namespace

class AttachmentService::Impl : public UploadGate {
 public:
  Impl(AttachmentServiceOptions options, std::unique_ptr<AttachmentRecords> records,
       std::unique_ptr<StorageProvider> storage, EmbeddedBlobStorage* embedded)
      : options_(std::move(options)),
        records_(std::move(records)),
        storage_(std::move(storage)),
        embedded_(embedded),
        sweeper_(records_.get(), storage_.get(), options_.clock, options_.stale_upload_age,
                 options_.sweep_interval),
        tokens_(std::make_shared<const std::vector<std::string>>(options_.tokens)) {
    if (embedded_ != nullptr) embedded_->setUploadGate(this);
  }

  ~Impl() override { stop(std::chrono::seconds(2)); }

  bool start(ErrorRef* error);
  std::size_t stop(std::chrono::milliseconds drain);
  void setTokens(std::vector<std::string> tokens) {
    auto fresh = std::make_shared<const std::vector<std::string>>(std::move(tokens));
    std::lock_guard lock(tokens_mu_);
    tokens_ = std::move(fresh);
  }

  Decision check(std::string_view key) override;
  Decision commit(std::string_view key, const std::function<bool()>& store) override;

  AttachmentServiceOptions options_;
  std::unique_ptr<AttachmentRecords> records_;
  std::unique_ptr<StorageProvider> storage_;
  EmbeddedBlobStorage* embedded_;  // storage_ when it is the embedded provider, else null
  StaleUploadSweeper sweeper_;
  mutable ServiceMetrics metrics_;  // counted from const handlers too
  // Declared after what its handlers use, so that it is gone before they are.
  std::unique_ptr<HttpServer> server_;
  std::unique_ptr<HttpServer> metrics_server_;
  int port_ = 0;
  int metrics_port_ = 0;
  std::string base_url_;
  // Held while the bytes behind a record are put in place, looked at for a confirmation,
  // or removed, each together with the record's state: an upload can then never change
  // bytes that were confirmed or deleted.
  std::mutex bytes_mu_;

 private:
  std::shared_ptr<const std::vector<std::string>> tokens() const {
    std::lock_guard lock(tokens_mu_);
    return tokens_;
  }

  mutable std::mutex tokens_mu_;
  std::shared_ptr<const std::vector<std::string>> tokens_;  // guarded by tokens_mu_
  // Whether the last readiness check failed, so that a lasting failure is logged once.
  std::atomic<bool> unready_{false};

  using ApiHandler = void (Impl::*)(const HttpRequest&, HttpResponse&);

  void installRoutes();
  void logAccess(const HttpRequest& request, const HttpResponse& response);
  void ready(HttpResponse& response);
  // The handler of an API route: checks the token before anything else, then reads the
  // body within the JSON limit and calls `handler`.
  HttpHandler api(ApiHandler handler);
  bool authorized(const HttpRequest& request) const;
  void refuseUnauthorized(HttpResponse& response) const;
  // Sends a 500 for a failure of our own records or disk, and logs what it was.
  void sendInternalError(HttpResponse& response, const ErrorRef& error) const;
  std::optional<std::string> pathUUID(const HttpRequest& request, HttpResponse& response) const;
  // Looks the record up; sends 404 or 500 and returns false when there is none to use.
  bool findRecord(const std::string& uuid, std::optional<AttachmentRecord>* record,
                  HttpResponse& response) const;

  void startUpload(const HttpRequest& request, HttpResponse& response);
  void finishUpload(const HttpRequest& request, HttpResponse& response);
  void download(const HttpRequest& request, HttpResponse& response);
  void remove(const HttpRequest& request, HttpResponse& response);
};

bool AttachmentService::Impl::authorized(const HttpRequest& request) const {
  // The whole value counts: whatever follows the token (a NUL byte and more) refuses it.
  const std::string header = request.header("Authorization");
  if (header.size() <= kAuthScheme.size() || header.compare(0, kAuthScheme.size(), kAuthScheme)) {
    return false;
  }
  std::string_view given = std::string_view(header).substr(kAuthScheme.size());
  bool accepted = false;
  // Every token is compared, so the time taken does not tell which one came close.
  // Held for the loop: a SIGHUP may replace the set meanwhile.
  const auto accepted_tokens = tokens();
  for (const std::string& token : *accepted_tokens) {
    accepted |= internal::ConstantTimeEquals(given, token);
  }
  return accepted;
}

void AttachmentService::Impl::refuseUnauthorized(HttpResponse& response) const {
  response.headers.emplace_back("WWW-Authenticate", "Velmora");
  SendError(response, 401, "unauthorized",
            "An \"Authorization: Velmora <token>\" header with a known token is required");
}

void AttachmentService::Impl::sendInternalError(HttpResponse& response,
                                                const ErrorRef& error) const {
  ++metrics_.records_errors;
  ServiceLog().error("{}", error ? error->summary() : std::string("unknown failure"));
  SendError(response, 500, "internal", "The service could not complete the request");
}

std::optional<std::string> AttachmentService::Impl::pathUUID(const HttpRequest& request,
                                                             HttpResponse& response) const {
  auto uuid = ParseUUID(request.matches[1]);
  if (!uuid) SendError(response, 400, "bad_uuid", "The path does not end in an attachment UUID");
  return uuid;
}

bool AttachmentService::Impl::findRecord(const std::string& uuid,
                                         std::optional<AttachmentRecord>* record,
                                         HttpResponse& response) const {
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

UploadGate::Decision AttachmentService::Impl::check(std::string_view key) {
  std::optional<AttachmentRecord> record;
  ErrorRef error;
  if (!records_->find(key, &record, &error)) {
    ++metrics_.records_errors;
    ServiceLog().error("{}", error->summary());
    return {500, "internal", "The service could not complete the request"};
  }
  if (!record || record->state == AttachmentState::kDeleted) {
    return {404, "not_found", "The attachment has been deleted"};
  }
  if (record->state == AttachmentState::kUploaded) {
    return {409, "confirmed", "The attachment's bytes have been confirmed and cannot change"};
  }
  return {0, {}, {}, record->size};
}

UploadGate::Decision AttachmentService::Impl::commit(std::string_view key,
                                                     const std::function<bool()>& store) {
  std::lock_guard lock(bytes_mu_);
  Decision decision = check(key);
  if (decision.status == 0) store();
  return decision;
}

void AttachmentService::Impl::startUpload(const HttpRequest& request, HttpResponse& response) {
  auto body = ParseJsonObject(request, response);
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

void AttachmentService::Impl::finishUpload(const HttpRequest& request, HttpResponse& response) {
  auto uuid = pathUUID(request, response);
  if (!uuid) return;
  auto body = ParseJsonObject(request, response);
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

  // Only the embedded provider's uploads pass the gate that takes this lock.
  std::unique_lock lock(bytes_mu_, std::defer_lock);
  if (embedded_ != nullptr) lock.lock();
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

void AttachmentService::Impl::download(const HttpRequest& request, HttpResponse& response) {
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

void AttachmentService::Impl::remove(const HttpRequest& request, HttpResponse& response) {
  auto uuid = pathUUID(request, response);
  if (!uuid) return;
  std::optional<AttachmentRecord> record;
  if (!findRecord(*uuid, &record, response)) return;
  if (record->state != AttachmentState::kDeleted) {
    std::unique_lock lock(bytes_mu_, std::defer_lock);
    if (embedded_ != nullptr) lock.lock();
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

HttpHandler AttachmentService::Impl::api(ApiHandler handler) {
  return
      [this, handler](HttpRequest& request, HttpResponse& response) -> std::unique_ptr<BodySink> {
        if (!authorized(request)) {
          refuseUnauthorized(response);
          return nullptr;
        }
        return BufferedBody(
            options_.max_json_body,
            [this, handler](HttpRequest& buffered, BodyOutcome outcome, HttpResponse& answer) {
              if (outcome == BodyOutcome::kTooLarge) {
                return SendError(answer, 413, "too_large", "The request body is too large");
              }
              if (outcome != BodyOutcome::kComplete) {
                return SendError(answer, 400, "incomplete", "The request body ended early");
              }
              (this->*handler)(buffered, answer);
            });
      };
}

void AttachmentService::Impl::installRoutes() {
  HttpServer& server = *server_;
  const std::string collection = R"(/v1/_internal/attachment/?)";
  const std::string resource = R"(/v1/_internal/attachment/([^/]+))";
  server.route(
      "GET", "/healthz",
      [](HttpRequest&, HttpResponse& response) {
        response.status = 200;
        response.content_type = "text/plain";
        response.body = "ok\n";
        return std::unique_ptr<BodySink>();
      },
      "health");
  server.route(
      "GET", "/readyz",
      [this](HttpRequest&, HttpResponse& response) {
        ready(response);
        return std::unique_ptr<BodySink>();
      },
      "health");
  server.route("POST", collection, api(&Impl::startUpload), "start");
  server.route("PUT", resource, api(&Impl::finishUpload), "confirm");
  server.route("GET", resource, api(&Impl::download), "info");
  // A DELETE may announce a body; it carries nothing, so it is read within the JSON
  // limit and dropped.
  server.route("DELETE", resource, api(&Impl::remove), "delete");
  if (embedded_ != nullptr) embedded_->installRoutes(&server);

  // Refused before any body is read, so that what is sent to an unknown path costs
  // nothing to hold.
  server.setFallback([this](HttpRequest& request, HttpResponse& response) {
    if (request.path.rfind(kApiPrefix, 0) == 0 && !authorized(request)) {
      refuseUnauthorized(response);
    } else {
      SendError(response, 404, "not_found", "There is nothing at this path");
    }
    return std::unique_ptr<BodySink>();
  });
  server.setLogger([this](const HttpRequest& request, const HttpResponse& response) {
    logAccess(request, response);
  });
}

void AttachmentService::Impl::logAccess(const HttpRequest& request, const HttpResponse& response) {
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - request.accepted).count();
  const std::string route = request.route.empty() ? "other" : request.route;
  metrics_.countRequest(route, request.method, response.status, seconds);
  if (route == "blob_put" && response.status / 100 == 2) {
    metrics_.blob_bytes_received += request.body_bytes;
  } else if (route == "blob_get" && response.status == 200) {
    metrics_.blob_bytes_sent += response.contentLength();
  }
  const std::string method = QuoteForLog(request.method);
  const std::string path = QuoteForLog(request.path);
  const std::string millis = fmt::format("{:.1f}", seconds * 1000);
  AccessLog().write(
      LogLevel::kInfo,
      fmt::format("{} \"{} {}\" {} {} {} {}ms {}", request.remote_address, method, path,
                  response.status, request.body_bytes, response.contentLength(), millis, route),
      {{"remote", request.remote_address},
       {"method", method},
       {"path", path},
       {"status", std::to_string(response.status)},
       {"bytes_in", std::to_string(request.body_bytes)},
       {"bytes_out", std::to_string(response.contentLength())},
       {"ms", millis},
       {"route", route}});
}

void AttachmentService::Impl::ready(HttpResponse& response) {
  ErrorRef error;
  std::string_view problem;
  if (!records_->ping(&error)) {
    ++metrics_.records_errors;
    problem = "the records database does not answer";
  } else if (!storage_->probe(&error)) {
    problem = "the blob store cannot be used";
  }
  response.content_type = "text/plain";
  if (problem.empty()) {
    if (unready_.exchange(false)) ServiceLog().notice("ready again");
    response.status = 200;
    response.body = "ready\n";
    return;
  }
  // The details stay in the log: this answer goes to anyone who asks.
  if (!unready_.exchange(true)) ServiceLog().error("not ready: {}", error->summary());
  response.status = 503;
  response.body = fmt::format("not ready: {}\n", problem);
}

bool AttachmentService::Impl::start(ErrorRef* error) {
  if (server_) return Fail(error, BadSetting("The service has been started already"));
  HttpServerOptions http;
  http.host = options_.host;
  http.port = options_.port;
  http.tls_cert = options_.tls_cert;
  http.tls_key = options_.tls_key;
  http.workers = options_.threads;
  http.header_timeout = options_.header_timeout;
  http.min_rate = options_.min_transfer_rate;
  http.rate_grace = options_.transfer_grace;
  http.max_connections = options_.max_connections;
  server_ = std::make_unique<HttpServer>(std::move(http));
  installRoutes();
  if (!server_->bind(error)) {
    server_.reset();
    return false;
  }
  port_ = server_->port();
  base_url_ = fmt::format("{}://{}:{}", server_->tls() ? "https" : "http",
                          HostForURL(options_.host), port_);
  if (embedded_ != nullptr) {
    embedded_->setBaseURL(options_.public_url.empty() ? base_url_ : options_.public_url);
  }
  if (options_.metrics_port >= 0) {
    HttpServerOptions metrics;
    metrics.host = options_.metrics_host;
    metrics.port = options_.metrics_port;
    metrics.workers = 1;
    metrics_server_ = std::make_unique<HttpServer>(std::move(metrics));
    metrics_server_->route("GET", "/metrics", [this](HttpRequest&, HttpResponse& response) {
      metrics_.stale_uploads_swept = sweeper_.sweptTotal();
      response.status = 200;
      response.content_type = std::string(PrometheusText::kContentType);
      response.body = metrics_.render(&server_->stats());
      return std::unique_ptr<BodySink>();
    });
    metrics_server_->setFallback([](HttpRequest&, HttpResponse& response) {
      SendError(response, 404, "not_found", "Metrics are at /metrics");
      return std::unique_ptr<BodySink>();
    });
    if (!metrics_server_->bind(error)) {
      metrics_server_.reset();
      server_.reset();
      return false;
    }
    metrics_port_ = metrics_server_->port();
    metrics_server_->start();
  }
  server_->start();
  ServiceLog().notice("serving {} with {} records and {} storage", base_url_, records_->kind(),
                      storage_->kind());
  sweeper_.start();
  return true;
}

std::size_t AttachmentService::Impl::stop(std::chrono::milliseconds drain) {
  sweeper_.stop();
  std::size_t cut = server_ ? server_->stop(drain) : 0;
  // Last, so that the end of a drain can still be watched.
  if (metrics_server_) metrics_server_->stop(std::chrono::milliseconds(0));
  return cut;
}

std::unique_ptr<AttachmentService> AttachmentService::Create(AttachmentServiceOptions options,
                                                             ErrorRef* error) {
  if (!CheckTokens(options.tokens, error)) return nullptr;
  if (options.tls_cert.empty() != options.tls_key.empty()) {
    Fail(error, BadSetting("TLS needs both a certificate and a key"));
    return nullptr;
  }
  if (options.url_lifetime <= std::chrono::seconds(0) || options.threads < 1 ||
      options.max_json_body == 0 || options.header_timeout <= std::chrono::milliseconds(0) ||
      options.min_transfer_rate == 0 || options.max_connections == 0) {
    Fail(error, BadSetting("URL lifetime, thread count, JSON body limit, header timeout, "
                           "transfer rate and connection limit must be positive"));
    return nullptr;
  }
  if (options.data_dir.empty()) {
    Fail(error, BadSetting("A data folder is required"));
    return nullptr;
  }
  if (!options.clock) options.clock = [] { return std::chrono::system_clock::now(); };

  // The records name every attachment of every user: the data folder is the owner's
  // alone, and a records file is created 0600 before SQLite opens it, so that its
  // journals get the same mode. Wider ones left by an older version are tightened.
  const std::string database = options.database.empty()
                                   ? (options.data_dir / "attachments.sqlite").string()
                                   : options.database;
  const bool in_file =
      !database.starts_with("postgresql://") && !database.starts_with("postgres://");
  std::vector<fs::path> private_files;
  if (in_file) private_files.emplace_back(database);
  std::vector<std::string> notices;
  if (ErrorRef refused = MakeDataFolderPrivate(options.data_dir, private_files, &notices,
                                               "the attachments' records")) {
    Fail(error, BadSetting(fmt::format("Cannot make the data folder {} private: {}",
                                       options.data_dir.string(), refused->summary())));
    return nullptr;
  }
  if (in_file) {
    for (const char* journal : {"-wal", "-shm", "-journal"}) {
      TightenPrivateFile(database + journal, &notices, "the attachments' records");
    }
  }
  auto records = AttachmentRecords::Open(database, error);
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
  std::unique_ptr<AttachmentService> service(new AttachmentService(std::make_unique<Impl>(
      std::move(options), std::move(records), std::move(storage), embedded)));
  service->notices_ = std::move(notices);
  return service;
}

AttachmentService::AttachmentService(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
AttachmentService::~AttachmentService() = default;

bool AttachmentService::start(ErrorRef* error) { return impl_->start(error); }
std::size_t AttachmentService::stop(std::chrono::milliseconds drain) { return impl_->stop(drain); }
bool AttachmentService::setTokens(std::vector<std::string> tokens, ErrorRef* error) {
  if (!CheckTokens(tokens, error)) return false;
  impl_->setTokens(std::move(tokens));
  return true;
}
int AttachmentService::metricsPort() const { return impl_->metrics_port_; }
std::size_t AttachmentService::sweepStaleUploads() { return impl_->sweeper_.sweepOnce(); }
int AttachmentService::port() const { return impl_->port_; }
std::string AttachmentService::baseURL() const { return impl_->base_url_; }

}  // namespace vm
