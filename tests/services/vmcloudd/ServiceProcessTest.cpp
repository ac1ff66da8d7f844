// The vmcloudd program as an operator runs it: secrets from files, token rotation on
// SIGHUP, health and metrics endpoints, quiet logs, and a SIGTERM that lets the requests
// in flight finish.
#include <arpa/inet.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <thread>

#include "platform/Subprocess.h"
#include "tests/services/vmcloudd/HttpTestClient.h"
#include "tests/services/vmcloudd/RawConnection.h"
#include "tests/support/ListeningServer.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

namespace fs = std::filesystem;
using testing::ApiClient;
using testing::HttpReply;
using testing::RawConnection;
using testing::ReadFile;
using testing::Send;
using testing::StatusOf;
using testing::TestBytes;
using testing::WriteFile;

void WriteSecret(const fs::path& path, const std::string& text, mode_t mode = 0600) {
  WriteFile(path, text);
  ::chmod(path.c_str(), mode);
}

// Polls `condition` every 20 ms for at most `limit`.
template <class Condition>
bool Eventually(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(30)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

// The first number captured by `pattern` in `text`; -1 when absent.
long long Captured(const std::string& text, const std::string& pattern) {
  std::smatch match;
  if (!std::regex_search(text, match, std::regex(pattern))) return -1;
  return std::stoll(match[1].str());
}

// What arrives on `fd` up to and including `marker`, waiting at most 10 s.
std::string ReadUntil(int fd, std::string_view marker) {
  std::string got;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (got.find(marker) == std::string::npos && std::chrono::steady_clock::now() < deadline) {
    pollfd ready{fd, POLLIN, 0};
    if (::poll(&ready, 1, 100) <= 0) continue;
    char c;  // one byte at a time: nothing after the marker is taken
    if (::recv(fd, &c, 1, 0) != 1) break;
    got += c;
  }
  return got;
}

std::size_t Count(const std::string& text, const std::string& needle) {
  std::size_t count = 0;
  for (auto at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
    ++count;
  }
  return count;
}

std::string UploadTarget(const HttpReply& started) {
  const std::string url = started.json()["upload_url"];
  return url.substr(url.find('/', url.find("://") + 3));
}

class ServiceProcessTest : public ::testing::Test {
 protected:
  void SetUp() override { WriteSecret(token_file_, "# clients move to beta next\nalpha\n"); }

  // vmcloudd on `data` with the token file, metrics on, and `extra` arguments.
  std::unique_ptr<testing::ListeningServer> Start(const std::vector<std::string>& extra = {}) {
    std::vector<std::string> argv = {VMCLOUDD_PATH, "--listen",         "127.0.0.1:0",
                                     "--data",      data_.string(),     "--token-file",
                                     token_file_,   "--metrics-listen", "127.0.0.1:0"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    std::string problem;
    auto server = testing::ListeningServer::Start(argv, log_, &problem);
    EXPECT_TRUE(server) << problem;
    if (server) {
      EXPECT_TRUE(Eventually([&] { return MetricsPort() > 0; })) << ReadFile(log_);
    }
    return server;
  }
  int MetricsPort() const {
    return static_cast<int>(Captured(ReadFile(log_), R"(metrics on 127\.0\.0\.1:(\d+))"));
  }
  std::string Metrics() const {
    return Send("GET", "http://127.0.0.1:" + std::to_string(MetricsPort()) + "/metrics").body;
  }
  long long ConnectionsOpen() const {
    return Captured(Metrics(), R"(vmcloudd_http_connections_open (\d+))");
  }

  testing::TempDir dir_;
  const fs::path data_ = dir_ / "data";
  const fs::path token_file_ = dir_ / "tokens";
  fs::path log_ = dir_ / "vmcloudd.log";
};

TEST_F(ServiceProcessTest, SecretFilesMustBePrivate) {
  WriteSecret(token_file_, "alpha\n", 0640);
  ProcessResult refused = RunProcess({VMCLOUDD_PATH, "--listen", "127.0.0.1:0", "--data",
                                      data_.string(), "--token-file", token_file_.string()});
  EXPECT_NE(refused.exit_status, 0);
  EXPECT_NE(refused.err.find("readable by group or others"), std::string::npos) << refused.err;

  WriteSecret(token_file_, "alpha\n");
  WriteSecret(dir_ / "s3-secret", "S3RVER\n", 0604);
  refused = RunProcess({VMCLOUDD_PATH, "--listen", "127.0.0.1:0", "--data", data_.string(),
                        "--token-file", token_file_.string(), "--s3-endpoint", "http://127.0.0.1:1",
                        "--s3-bucket", "b", "--s3-access-key", "k", "--s3-secret-file",
                        (dir_ / "s3-secret").string()});
  EXPECT_NE(refused.exit_status, 0);
  EXPECT_NE(refused.err.find("readable by group or others"), std::string::npos) << refused.err;
}

TEST_F(ServiceProcessTest, HealthMetricsAndTokenRotation) {
  // Options from a file; the command line wins over it.
  WriteFile(dir_ / "vmcloudd.conf", "drain-timeout = 5\nmax-json-body = 10\n");
  auto service = Start({"--config", (dir_ / "vmcloudd.conf").string(), "--max-json-body", "4096"});
  ASSERT_TRUE(service);
  ApiClient alpha{service->url(), "alpha"};
  ApiClient beta{service->url(), "beta"};

  HttpReply health = Send("GET", service->url() + "/healthz");
  EXPECT_EQ(health.status, 200);
  EXPECT_EQ(health.body, "ok\n");
  EXPECT_EQ(Send("GET", service->url() + "/readyz").status, 200);
  EXPECT_EQ(alpha.start(100).status, 201) << "the file's max-json-body was overridden";
  EXPECT_EQ(beta.start(10).status, 401);

  // A request whose token was checked before the rotation still completes after it: the
  // "100 Continue" says the check is behind it.
  RawConnection in_flight(service->port());
  const std::string body = R"({"size": 7})";
  ASSERT_TRUE(
      in_flight.send("POST /v1/_internal/attachment HTTP/1.1\r\nHost: x\r\n"
                     "Authorization: Velmora alpha\r\nExpect: 100-continue\r\n"
                     "Content-Length: " +
                     std::to_string(body.size()) + "\r\n\r\n"));
  EXPECT_NE(ReadUntil(in_flight.fd(), "\r\n\r\n").find("100 Continue"), std::string::npos);
  WriteSecret(token_file_, "beta\n");
  kill(service->pid(), SIGHUP);
  ASSERT_TRUE(Eventually([&] { return beta.start(10).status == 201; })) << ReadFile(log_);
  EXPECT_EQ(alpha.start(10).status, 401);
  ASSERT_TRUE(in_flight.send(body));
  EXPECT_EQ(StatusOf(in_flight.readAll()), 201);

  // A token file that became unusable leaves the tokens as they were.
  WriteSecret(token_file_, "gamma\n", 0644);
  kill(service->pid(), SIGHUP);
  EXPECT_TRUE(
      Eventually([&] { return ReadFile(log_).find("stay as they were") != std::string::npos; }));
  EXPECT_EQ(beta.start(10).status, 201);

  // A whole cycle, then the counters that moved with it.
  const std::string bytes = TestBytes(5000, 3);
  HttpReply started = beta.start(bytes.size());
  ASSERT_EQ(started.status, 201);
  EXPECT_EQ(Send("PUT", started.json()["upload_url"], bytes).status, 200);
  EXPECT_EQ(beta.confirm(started.json()["uuid"], bytes.size()).status, 200);
  HttpReply info = beta.info(started.json()["uuid"]);
  EXPECT_EQ(Send("GET", info.json()["download_url"]).body, bytes);
  const std::string metrics = Metrics();
  EXPECT_GE(
      Captured(metrics,
               R"(vmcloudd_http_requests_total\{route="start",method="POST",code="401"\} (\d+))"),
      2);
  EXPECT_GE(
      Captured(metrics,
               R"(vmcloudd_http_requests_total\{route="start",method="POST",code="201"\} (\d+))"),
      5);
  EXPECT_EQ(
      Captured(metrics, R"(vmcloudd_http_request_duration_seconds_count\{route="confirm"\} (\d+))"),
      1);
  EXPECT_EQ(Captured(metrics, R"(vmcloudd_blob_bytes_received_total (\d+))"), 5000);
  EXPECT_EQ(Captured(metrics, R"(vmcloudd_blob_bytes_sent_total (\d+))"), 5000);
  EXPECT_GT(Captured(metrics, R"(process_resident_memory_bytes (\d+))"), 0);
  if (fs::exists("/usr/bin/promtool")) {
    ProcessOptions input;
    input.input = metrics;
    ProcessResult lint = RunProcess({"promtool", "check", "metrics"}, input);
    EXPECT_TRUE(lint.succeeded()) << lint.out << lint.err << metrics;
  }

  // Ordinary traffic wrote nothing at the default level: the start-up and SIGHUP lines,
  // and the one refusal of the bad token file.
  const std::string log = ReadFile(log_);
  EXPECT_EQ(log.find("[vmcloudd:http]"), std::string::npos) << log;
  EXPECT_EQ(Count(log, "] error:"), 1) << log;
  EXPECT_EQ(Count(log, "warning"), 0) << log;
  kill(service->pid(), SIGTERM);
  int status = -1;
  ASSERT_TRUE(service->waitExit(std::chrono::seconds(20), &status));
  EXPECT_EQ(status, 0) << "a sanitizer's report fails the exit too\n" << ReadFile(log_);
}

TEST_F(ServiceProcessTest, SigtermLetsAnUploadInFlightFinish) {
  auto service = Start({"--drain-timeout", "20"});
  ASSERT_TRUE(service);
  ApiClient alpha{service->url(), "alpha"};
  const std::string bytes = TestBytes(200000, 8);
  HttpReply started = alpha.start(bytes.size());
  ASSERT_EQ(started.status, 201);
  // The start's connection gone (it lingers after its answer), the one connection open
  // below is the upload's, accepted before the stop.
  ASSERT_TRUE(Eventually([&] { return ConnectionsOpen() == 0; }));
  RawConnection upload(service->port());
  ASSERT_TRUE(
      upload.send("PUT " + UploadTarget(started) + " HTTP/1.1\r\nHost: x\r\nContent-Length: " +
                  std::to_string(bytes.size()) + "\r\n\r\n" + bytes.substr(0, bytes.size() / 2)));
  ASSERT_TRUE(Eventually([&] { return ConnectionsOpen() == 1; }));

  kill(service->pid(), SIGTERM);
  EXPECT_TRUE(Eventually([&] { return !RawConnection(service->port()).connected(); }))
      << "new connections are refused while draining";
  ASSERT_TRUE(upload.send(bytes.substr(bytes.size() / 2)));
  EXPECT_EQ(StatusOf(upload.readAll()), 200);
  int status = -1;
  ASSERT_TRUE(service->waitExit(std::chrono::seconds(20), &status));
  EXPECT_EQ(status, 0);
  EXPECT_NE(ReadFile(log_).find("0 requests in flight were cut"), std::string::npos);

  // The bytes are whole: a new process confirms and serves them.
  log_ = dir_ / "restarted.log";
  service = Start();
  ASSERT_TRUE(service);
  alpha.base_url = service->url();
  EXPECT_EQ(alpha.confirm(started.json()["uuid"], bytes.size()).status, 200);
  EXPECT_EQ(Send("GET", alpha.info(started.json()["uuid"]).json()["download_url"]).body, bytes);
}

TEST_F(ServiceProcessTest, ACutUploadLeavesNothingBehind) {
  setenv("VM_LOG_LEVEL", "info", 1);
  auto service = Start({"--drain-timeout", "0.5", "--log-format", "json"});
  unsetenv("VM_LOG_LEVEL");
  ASSERT_TRUE(service);
  ApiClient alpha{service->url(), "alpha"};
  HttpReply started = alpha.start(100000);
  ASSERT_EQ(started.status, 201);
  ASSERT_TRUE(Eventually([&] { return ConnectionsOpen() == 0; }));
  RawConnection upload(service->port());
  ASSERT_TRUE(upload.send("PUT " + UploadTarget(started) +
                          " HTTP/1.1\r\nHost: x\r\nContent-Length: 100000\r\n\r\n" +
                          std::string(1000, 'x')));
  ASSERT_TRUE(Eventually([&] { return ConnectionsOpen() == 1; }));
  kill(service->pid(), SIGINT);
  int status = -1;
  ASSERT_TRUE(service->waitExit(std::chrono::seconds(20), &status));
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(upload.closedByPeer(std::chrono::seconds(5)));
  const std::string log = ReadFile(log_);
  EXPECT_NE(log.find(R"("message":"stopped; 1 requests in flight were cut")"), std::string::npos)
      << log;
  // Every log line is a JSON object; the access lines carry their fields.
  std::istringstream lines(log);
  int access_lines = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("listening on", 0) == 0 || line.rfind("metrics on", 0) == 0) continue;
    nlohmann::json parsed = nlohmann::json::parse(line, nullptr, false);
    ASSERT_TRUE(parsed.is_object()) << line;
    if (parsed["logger"] == "vmcloudd:http") {
      EXPECT_EQ(parsed["level"], "info");
      EXPECT_EQ(parsed["route"], "start");
      EXPECT_EQ(parsed["status"], "201");
      ++access_lines;
    }
  }
  EXPECT_EQ(access_lines, 1);
  EXPECT_TRUE(fs::is_empty(data_ / "blobs" / ".incoming"));
  EXPECT_FALSE(fs::exists(data_ / "blobs" / started.json()["uuid"].get<std::string>()));
}

std::string PercentEncoded(std::string_view text) {
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '_' || c == '.' || c == '-') {
      out += static_cast<char>(c);
    } else {
      out += fmt::format("%{:02X}", c);
    }
  }
  return out;
}

TEST_F(ServiceProcessTest, PrometheusScrapesIt) {
  if (!fs::exists("/usr/bin/prometheus")) GTEST_SKIP() << "prometheus is missing";
  auto service = Start();
  ASSERT_TRUE(service);
  ApiClient alpha{service->url(), "alpha"};
  for (int i = 0; i < 3; ++i) ASSERT_EQ(alpha.start(10).status, 201);

  WriteFile(dir_ / "prometheus.yml", fmt::format("global:\n  scrape_interval: 1s\nscrape_configs:\n"
                                                 "  - job_name: vmcloudd\n    static_configs:\n"
                                                 "      - targets: ['127.0.0.1:{}']\n",
                                                 MetricsPort()));
  // Prometheus binds port 0 and logs the port it got, so no other process can take it
  // between a pick and the bind.
  ErrorRef error;
  auto prometheus =
      ChildProcess::Start({"prometheus", "--config.file=" + (dir_ / "prometheus.yml").string(),
                           "--storage.tsdb.path=" + (dir_ / "tsdb").string(),
                           "--web.listen-address=127.0.0.1:0", "--log.level=info"},
                          dir_ / "prometheus.log", {}, &error);
  ASSERT_TRUE(prometheus) << error->summary();
  long long port = -1;
  ASSERT_TRUE(Eventually(
      [&] {
        port = Captured(ReadFile(dir_ / "prometheus.log"),
                        R"(msg="Listening on" address=127\.0\.0\.1:(\d+))");
        return port > 0;
      },
      std::chrono::seconds(60)))
      << ReadFile(dir_ / "prometheus.log");
  // The value of the first series `query` finds; -1 while there is none.
  auto value = [&](const std::string& query) {
    HttpReply reply = Send("GET", fmt::format("http://127.0.0.1:{}/api/v1/query?query={}", port,
                                              PercentEncoded(query)));
    const nlohmann::json parsed = reply.json();
    if (reply.status != 200 || !parsed.contains("data") || parsed["data"]["result"].empty()) {
      return -1.0;
    }
    return std::stod(parsed["data"]["result"][0]["value"][1].get<std::string>());
  };
  EXPECT_TRUE(
      Eventually([&] { return value(R"(up{job="vmcloudd"})") == 1; }, std::chrono::seconds(60)))
      << ReadFile(dir_ / "prometheus.log");
  const std::string started =
      R"(sum(vmcloudd_http_requests_total{job="vmcloudd",route="start",code="201"}))";
  EXPECT_TRUE(Eventually([&] { return value(started) == 3; }, std::chrono::seconds(30)));
  ASSERT_EQ(alpha.start(10).status, 201);
  EXPECT_TRUE(Eventually([&] { return value(started) == 4; }, std::chrono::seconds(30)))
      << "the counter moves with traffic";
}

TEST(ServiceUnitTest, SystemdAcceptsTheUnit) {
  if (!fs::exists("/usr/bin/systemd-analyze")) GTEST_SKIP() << "systemd-analyze is missing";
  // The unit as installed, with the program where this build put it.
  testing::TempDir dir;
  std::string unit = ReadFile(VMCLOUDD_UNIT);
  const std::string installed = "ExecStart=/usr/bin/vmcloudd";
  const auto at = unit.find(installed);
  ASSERT_NE(at, std::string::npos);
  unit.replace(at, installed.size(), std::string("ExecStart=") + VMCLOUDD_PATH);
  WriteFile(dir / "vmcloudd.service", unit);
  ProcessResult verify =
      RunProcess({"systemd-analyze", "verify", (dir / "vmcloudd.service").string()});
  EXPECT_TRUE(verify.succeeded()) << verify.out << verify.err;
  EXPECT_EQ(verify.err.find("vmcloudd.service"), std::string::npos) << verify.err;
}

}  // namespace
}  // namespace vm
