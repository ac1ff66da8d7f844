// Two vmcloudd processes on one PostgreSQL database and one bucket (s3rver) behind a real
// haproxy on 127.0.0.1 that checks them through /readyz. One is killed with SIGKILL half-way
// through 100 cycles: a client that retries a failed request once completes every cycle,
// and every confirmed upload comes back byte-identical through the balancer.
#include <arpa/inet.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <thread>

#include "platform/Subprocess.h"
#include "tests/services/vmcloudd/HttpTestClient.h"
#include "tests/services/vmcloudd/TestDatabase.h"
#include "tests/support/ListeningServer.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

namespace fs = std::filesystem;
using testing::ApiClient;
using testing::HttpReply;
using testing::Send;
using testing::TestBytes;

constexpr const char* kBucket = "balanced";
constexpr const char* kHaproxy = "/usr/sbin/haproxy";

// The configuration the README shows, with the ports of this run; the front end listens on
// the socket haproxy inherits as descriptor `front_fd`.
std::string HaproxyConfig(int front_fd, int first, int second) {
  return fmt::format(R"(defaults
  mode http
  timeout connect 2s
  timeout client 30s
  timeout server 30s
  timeout check 5s
  retries 2
  option redispatch
  retry-on conn-failure empty-response

frontend attachments
  bind fd@{}
  default_backend vmcloudd

backend vmcloudd
  balance roundrobin
  option httpchk GET /readyz
  http-check expect status 200
  default-server check inter 300ms fall 3 rise 2
  server first 127.0.0.1:{}
  server second 127.0.0.1:{}
)",
                     front_fd, first, second);
}

// A socket bound to a loopback port of the system's choosing and listening, left open across
// exec so that a child started while it lives inherits it: the port stays taken from the
// moment it is picked, where a port found free and released could be taken by another
// process before the child binds it.
class InheritableListener {
 public:
  InheritableListener() {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd_ >= 0 && ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::listen(fd_, 128) == 0 &&
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
      port_ = ntohs(address.sin_port);
    }
  }
  ~InheritableListener() { close(); }
  InheritableListener(const InheritableListener&) = delete;
  InheritableListener& operator=(const InheritableListener&) = delete;

  int fd() const { return fd_; }
  int port() const { return port_; }  // 0 when the socket could not be set up
  // This process's copy; a child that inherited the socket keeps listening on it.
  void close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
  int port_ = 0;
};

// `call` again once when it got no answer or a 5xx.
template <class Call>
HttpReply Retried(Call call) {
  HttpReply reply = call();
  if (reply.status == 0 || reply.status >= 500) reply = call();
  return reply;
}

TEST(LoadBalancerTest, AKilledInstanceBehindHaproxyLosesNothing) {
  if (!fs::exists(kHaproxy)) GTEST_SKIP() << "haproxy is missing";
  testing::TempDir dir;
  std::string problem;
  auto s3 = testing::StartS3rver(dir / "s3rver", kBucket, &problem);
  ASSERT_TRUE(s3) << problem;
  const std::string database = testing::FreshPostgresDatabase();
  ASSERT_FALSE(database.empty());
  testing::WriteFile(dir / "tokens", "alpha\n");
  testing::WriteFile(dir / "s3-secret", std::string(testing::kS3rverKey) + "\n");
  ::chmod((dir / "tokens").c_str(), 0600);
  ::chmod((dir / "s3-secret").c_str(), 0600);

  std::unique_ptr<testing::ListeningServer> instances[2];
  for (int i = 0; i < 2; ++i) {
    const fs::path data = dir / ("instance" + std::to_string(i));
    fs::create_directories(data);
    instances[i] = testing::ListeningServer::Start(
        {VMCLOUDD_PATH, "--listen", "127.0.0.1:0", "--data", data.string(), "--db", database,
         "--token-file", (dir / "tokens").string(), "--s3-endpoint", s3->url(), "--s3-bucket",
         kBucket, "--s3-access-key", testing::kS3rverKey, "--s3-secret-file",
         (dir / "s3-secret").string(), "--s3-path-style"},
        data / "vmcloudd.log", &problem);
    ASSERT_TRUE(instances[i]) << problem;
  }
  InheritableListener front_socket;
  ASSERT_NE(front_socket.port(), 0) << std::strerror(errno);
  const int front = front_socket.port();
  testing::WriteFile(dir / "haproxy.cfg",
                     HaproxyConfig(front_socket.fd(), instances[0]->port(), instances[1]->port()));
  ErrorRef error;
  auto haproxy = ChildProcess::Start({kHaproxy, "-db", "-f", (dir / "haproxy.cfg").string()},
                                     dir / "haproxy.log", {}, &error);
  ASSERT_TRUE(haproxy) << error->summary();
  front_socket.close();
  const std::string front_url = "http://127.0.0.1:" + std::to_string(front);
  ApiClient api{front_url, "alpha"};
  // Both instances up and checked: two readiness answers in a row through the balancer.
  for (int i = 0; i < 3000 && Send("GET", front_url + "/readyz").status != 200; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ASSERT_EQ(Send("GET", front_url + "/readyz").status, 200)
      << testing::ReadFile(dir / "haproxy.log");

  constexpr int kCycles = 100;
  std::vector<std::pair<std::string, std::string>> confirmed;  // uuid, bytes
  for (int cycle = 0; cycle < kCycles; ++cycle) {
    SCOPED_TRACE(cycle);
    if (cycle == kCycles / 2) {
      ::kill(instances[0]->pid(), SIGKILL);
      instances[0]->stop();  // reaps it
    }
    const std::string bytes = TestBytes(1000 + cycle * 37, 500 + cycle);
    HttpReply started = Retried([&] { return api.start(bytes.size()); });
    ASSERT_EQ(started.status, 201) << started.body;
    const std::string uuid = started.json()["uuid"];
    ASSERT_EQ(Retried([&] { return Send("PUT", started.json()["upload_url"], bytes); }).status,
              200);
    HttpReply confirmation = Retried([&] { return api.confirm(uuid, bytes.size()); });
    ASSERT_EQ(confirmation.status, 200) << confirmation.body;
    confirmed.emplace_back(uuid, bytes);
    HttpReply info = Retried([&] { return api.info(uuid); });
    ASSERT_EQ(info.status, 200) << info.body;
    EXPECT_EQ(Retried([&] { return Send("GET", info.json()["download_url"]); }).body, bytes);
  }

  for (const auto& [uuid, bytes] : confirmed) {
    HttpReply info = api.info(uuid);
    ASSERT_EQ(info.status, 200) << uuid;
    EXPECT_EQ(Send("GET", info.json()["download_url"]).body, bytes) << uuid;
  }
}

}  // namespace
}  // namespace vm
