// 200 concurrent attachment cycles (start, PUT bytes, confirm, GET info, GET bytes,
// DELETE) against vmcloudd in embedded mode on loopback, each with its own content,
// which it verifies after the download. Reference in the same run: the same 200 cycles, the
// same six requests each, against an in-memory server with the same routes (no records,
// no disk, no signatures), so that the ratio prices what vmcloudd does per request.
// Then the same cycles again while 500 slow peers (headers and bodies trickled a byte at a
// time, remade as soon as the service drops them) hang on to the service. Last, the records
// backends: the same cycles on one instance whose records are in a private PostgreSQL
// server (started here, with its durable defaults), and on two such instances sharing the
// database and the blob folder, the cycles spread over both.
// Prints cycles per second for each and their ratios; exits non-zero on any error.
#include <httplib.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include "services/vmcloudd/AttachmentService.h"
#include "tests/services/vmcloudd/SlowPeers.h"
#include "tests/support/TestServers.h"

namespace {

constexpr int kCycles = 200;
constexpr int kRounds = 3;
constexpr int kSlowPeers = 500;
constexpr const char* kToken = "bench";

using Clock = std::chrono::steady_clock;

std::string Content(int round, int cycle) {
  std::size_t size = 4096 + static_cast<std::size_t>(cycle) * 331;
  std::string out(size, '\0');
  std::uint64_t state =
      0x9E3779B97F4A7C15ull * static_cast<std::uint64_t>(round * 1000 + cycle + 1);
  for (char& c : out) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    c = static_cast<char>(state);
  }
  return out;
}

// Splits "http://host:port/path?query" into the origin and the request target.
std::pair<std::string, std::string> Split(const std::string& url) {
  auto slash = url.find('/', url.find("://") + 3);
  return {url.substr(0, slash), url.substr(slash)};
}

httplib::Client MakeClient(const std::string& origin) {
  httplib::Client client(origin);
  client.set_url_encode(false);
  client.set_connection_timeout(30);
  client.set_read_timeout(60);
  return client;
}

// One full cycle through the service; false on any unexpected answer or byte.
bool ServiceCycle(const std::string& base, int round, int cycle) {
  const std::string bytes = Content(round, cycle);
  const std::string api = "/v1/_internal/attachment";
  httplib::Headers auth = {{"Authorization", std::string("Velmora ") + kToken}};
  auto client = MakeClient(base);

  auto started =
      client.Post(api, auth, nlohmann::json{{"size", bytes.size()}}.dump(), "application/json");
  if (!started || started->status != 201) return false;
  auto info = nlohmann::json::parse(started->body, nullptr, false);
  const std::string uuid = info.value("uuid", "");
  auto [upload_origin, upload_target] = Split(info.value("upload_url", ""));
  auto uploaded = MakeClient(upload_origin).Put(upload_target, bytes, "application/octet-stream");
  if (!uploaded || uploaded->status != 200) return false;

  nlohmann::json confirm = {{"uuid", uuid}, {"size", bytes.size()}, {"state", "uploaded"}};
  auto confirmed = client.Put(api + "/" + uuid, auth, confirm.dump(), "application/json");
  if (!confirmed || confirmed->status != 200) return false;

  auto described = client.Get(api + "/" + uuid, auth);
  if (!described || described->status != 200) return false;
  auto download = nlohmann::json::parse(described->body, nullptr, false);
  auto [download_origin, download_target] = Split(download.value("download_url", ""));
  auto fetched = MakeClient(download_origin).Get(download_target);
  if (!fetched || fetched->status != 200 || fetched->body != bytes) return false;

  auto removed = client.Delete(api + "/" + uuid, auth);
  return removed && removed->status == 204;
}

// The attachment API and blob routes kept in memory: what a cycle costs with nothing but
// HTTP and JSON. Thread-safe.
class ReferenceServer {
 public:
  ReferenceServer() {
    const std::string api = "/v1/_internal/attachment";
    server_.Post(api, [this](const httplib::Request& request, httplib::Response& response) {
      auto body = nlohmann::json::parse(request.body, nullptr, false);
      if (!authorized(request, response) || !body.is_object()) return;
      std::lock_guard lock(mu_);
      const std::string uuid = std::to_string(++next_);
      records_[uuid] = {body.value("size", std::uint64_t{0}), "new"};
      reply(response, 201, uuid, "upload_url");
    });
    server_.Put(
        api + "/(.+)", [this](const httplib::Request& request, httplib::Response& response) {
          auto body = nlohmann::json::parse(request.body, nullptr, false);
          if (!authorized(request, response) || !body.is_object()) return;
          std::lock_guard lock(mu_);
          auto record = records_.find(request.matches[1].str());
          if (record == records_.end() || blobs_[record->first].size() != record->second.size) {
            response.status = 409;
            return;
          }
          record->second.state = "uploaded";
          reply(response, 200, record->first, "");
        });
    server_.Get(api + "/(.+)",
                [this](const httplib::Request& request, httplib::Response& response) {
                  if (!authorized(request, response)) return;
                  std::lock_guard lock(mu_);
                  reply(response, records_.count(request.matches[1].str()) ? 200 : 404,
                        request.matches[1].str(), "download_url");
                });
    server_.Delete(api + "/(.+)",
                   [this](const httplib::Request& request, httplib::Response& response) {
                     if (!authorized(request, response)) return;
                     std::lock_guard lock(mu_);
                     records_.erase(request.matches[1].str());
                     blobs_.erase(request.matches[1].str());
                     response.status = 204;
                   });
    server_.Put("/blobs/(.+)",
                [this](const httplib::Request& request, httplib::Response& response) {
                  std::lock_guard lock(mu_);
                  blobs_[request.matches[1].str()] = request.body;
                  response.status = 200;
                });
    server_.Get(
        "/blobs/(.+)", [this](const httplib::Request& request, httplib::Response& response) {
          std::lock_guard lock(mu_);
          response.set_content(blobs_[request.matches[1].str()], "application/octet-stream");
        });
    // Same listen backlog as the service gives itself, so that only the work differs.
    server_.set_socket_options([this](socket_t socket) {
      httplib::default_socket_options(socket);
      listen_fd_ = socket;
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    ::listen(listen_fd_, SOMAXCONN);
    serving_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ~ReferenceServer() {
    server_.stop();
    serving_.join();
  }

  std::string baseURL() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  struct Record {
    std::uint64_t size;
    std::string state;
  };

  static bool authorized(const httplib::Request& request, httplib::Response& response) {
    if (request.get_header_value("Authorization") == std::string("Velmora ") + kToken) return true;
    response.status = 401;
    return false;
  }
  // Answers with the record `uuid` as JSON, with a URL of the blob under `url_key`.
  void reply(httplib::Response& response, int status, const std::string& uuid,
             const std::string& url_key) {
    response.status = status;
    if (status >= 300) return;
    const Record& record = records_[uuid];
    nlohmann::json body = {{"uuid", uuid}, {"size", record.size}, {"state", record.state}};
    if (!url_key.empty()) body[url_key] = baseURL() + "/blobs/" + uuid;
    response.set_content(body.dump(), "application/json");
  }

  httplib::Server server_;
  int listen_fd_ = -1;
  int port_ = 0;
  std::thread serving_;
  std::mutex mu_;
  std::uint64_t next_ = 0;                    // guarded by mu_
  std::map<std::string, Record> records_;     // guarded by mu_
  std::map<std::string, std::string> blobs_;  // guarded by mu_
};

// Runs kCycles cycles at once, released together; returns cycles per second of the best
// round and adds failures to `errors`.
template <typename Cycle>
double Measure(Cycle cycle, std::atomic<int>* errors) {
  double best = 0;
  for (int round = 0; round < kRounds; ++round) {
    std::barrier start(kCycles + 1);
    std::vector<std::thread> threads;
    for (int i = 0; i < kCycles; ++i) {
      threads.emplace_back([&, i] {
        start.arrive_and_wait();
        if (!cycle(round, i)) ++*errors;
      });
    }
    start.arrive_and_wait();
    auto began = Clock::now();
    for (auto& thread : threads) thread.join();
    double seconds = std::chrono::duration<double>(Clock::now() - began).count();
    best = std::max(best, kCycles / seconds);
  }
  return best;
}

// Half of them never finish their header, half send their body a byte at a time.
std::vector<vm::testing::SlowPeers::Peer> SlowPeerList() {
  std::vector<vm::testing::SlowPeers::Peer> peers;
  for (int i = 0; i < kSlowPeers / 2; ++i) {
    peers.push_back({"POST /v1/_internal/attachment HTTP/1.1\r\nHost: 127.0.0.1\r\n",
                     "X-Slow: " + std::to_string(i) + "\r\n"});
    peers.push_back({std::string("POST /v1/_internal/attachment HTTP/1.1\r\nHost: x\r\n"
                                 "Authorization: Velmora ") +
                         kToken + "\r\nContent-Length: 60000\r\n\r\n",
                     " "});
  }
  return peers;
}

}  // namespace

int main() {
  // Every slow peer costs two descriptors: the peer's and the service's.
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);

  char pattern[] = "/tmp/vmcloudd-bench-XXXXXX";
  if (mkdtemp(pattern) == nullptr) return 1;
  const std::filesystem::path dir = pattern;

  // An instance in embedded mode on `data_dir`, its records in `database` (empty: SQLite).
  auto start_service = [](const std::filesystem::path& data_dir, const std::string& database) {
    vm::AttachmentServiceOptions options;
    options.data_dir = data_dir;
    options.database = database;
    options.tokens = {kToken};
    vm::ErrorRef error;
    auto service = vm::AttachmentService::Create(std::move(options), &error);
    if (!service || !service->start(&error)) {
      std::fprintf(stderr, "cannot start vmcloudd: %s\n", error->summary().c_str());
      std::exit(1);
    }
    return service;
  };
  auto service = start_service(dir, "");

  auto reference = std::make_unique<ReferenceServer>();

  std::atomic<int> service_errors{0};
  std::atomic<int> reference_errors{0};
  const std::string service_base = service->baseURL();
  const std::string reference_base = reference->baseURL();
  double service_rate = Measure(
      [&](int round, int i) { return ServiceCycle(service_base, round, i); }, &service_errors);
  double reference_rate = Measure(
      [&](int round, int i) { return ServiceCycle(reference_base, round, i); }, &reference_errors);
  std::atomic<int> attacked_errors{0};
  double attacked_rate = 0;
  int slow_dropped = 0;
  {
    vm::testing::SlowPeers slow(service->port(), SlowPeerList(), std::chrono::milliseconds(250),
                                /*reopen=*/true);
    attacked_rate = Measure([&](int round, int i) { return ServiceCycle(service_base, round, i); },
                            &attacked_errors);
    slow_dropped = slow.dropped();
  }

  reference.reset();
  service->stop();

  std::atomic<int> postgres_errors{0};
  double postgres_rate = 0;
  double pair_rate = 0;
  {
    vm::testing::PostgresServer postgres(dir / "postgres",
                                         vm::testing::PostgresServer::Durability::kDurable);
    std::string one = postgres.createDatabase("bench_one");
    std::string shared = postgres.createDatabase("bench_two");
    if (!postgres.running() || one.empty() || shared.empty()) {
      std::fprintf(stderr, "cannot start PostgreSQL: %s\n", postgres.problem().c_str());
      return 1;
    }
    auto single = start_service(dir / "pg-one", one);
    const std::string single_base = single->baseURL();
    postgres_rate = Measure([&](int round, int i) { return ServiceCycle(single_base, round, i); },
                            &postgres_errors);
    single->stop();

    auto first = start_service(dir / "pg-two", shared);
    auto second = start_service(dir / "pg-two", shared);
    const std::string bases[2] = {first->baseURL(), second->baseURL()};
    pair_rate = Measure([&](int round, int i) { return ServiceCycle(bases[i % 2], round, i); },
                        &postgres_errors);
  }
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);

  std::printf(
      "vmcloudd embedded: %d concurrent cycles (start, PUT, confirm, GET info, GET "
      "bytes, DELETE), best of %d rounds: %.1f cycles/s, %d errors\n",
      kCycles, kRounds, service_rate, service_errors.load());
  std::printf(
      "reference (the same cycles on an in-memory httplib server with the same routes): "
      "%.1f cycles/s, %d errors\n",
      reference_rate, reference_errors.load());
  std::printf("ratio vmcloudd/reference: %.3f\n", service_rate / reference_rate);
  std::printf(
      "vmcloudd embedded beside %d slow peers (%d dropped and remade meanwhile): %.1f cycles/s, "
      "%d errors\n",
      kSlowPeers, slow_dropped, attacked_rate, attacked_errors.load());
  std::printf("ratio with/without slow peers: %.3f\n", attacked_rate / service_rate);
  std::printf("records in SQLite, one instance: %.1f cycles/s\n", service_rate);
  std::printf("records in PostgreSQL, one instance: %.1f cycles/s\n", postgres_rate);
  std::printf("records in PostgreSQL, two instances: %.1f cycles/s (%d errors on PostgreSQL)\n",
              pair_rate, postgres_errors.load());
  return service_errors == 0 && reference_errors == 0 && attacked_errors == 0 &&
                 postgres_errors == 0
             ? 0
             : 1;
}
