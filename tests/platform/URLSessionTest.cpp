#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "platform/URLSession.h"
#include "tests/support/LoopbackServer.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

using namespace std::chrono_literals;
using testing::LoopbackServer;
using testing::ServerReply;
using testing::ServerRequest;
using testing::TempDir;

std::shared_ptr<DispatchQueue> MainQueuePointer() {
  return std::shared_ptr<DispatchQueue>(std::shared_ptr<DispatchQueue>(), &MainQueue::shared());
}

bool RunMainUntil(const std::function<bool()>& done) {
  return MainQueue::shared().runUntilCondition(done, std::chrono::steady_clock::now() + 20s);
}

URL Url(const std::string& text) { return *URL::URLWithString(text); }

// Records what a session tells its delegate; every call must arrive on the main queue.
class Recorder : public URLSessionDelegate {
 public:
  void didSendBodyData(URLSession&, URLSessionTask&, std::int64_t, std::int64_t total,
                       std::int64_t expected) override {
    EXPECT_TRUE(MainQueue::isMainThread());
    EXPECT_GE(total, last_sent);
    last_sent = total;
    expected_send = expected;
  }
  void didWriteData(URLSession&, URLSessionTask&, std::int64_t, std::int64_t total,
                    std::int64_t expected) override {
    EXPECT_TRUE(MainQueue::isMainThread());
    EXPECT_GE(total, last_written);
    last_written = total;
    expected_write = expected;
  }
  void didFinishDownloadingToURL(URLSession&, URLSessionTask& task,
                                 const std::filesystem::path& location) override {
    EXPECT_TRUE(MainQueue::isMainThread());
    finished_location = location;
    finished_status = dynamic_cast<const HTTPURLResponse&>(*task.response()).statusCode();
    if (move_to) std::filesystem::rename(location, *move_to);
  }
  void didCompleteWithError(URLSession&, URLSessionTask&, const ErrorRef& e) override {
    EXPECT_TRUE(MainQueue::isMainThread());
    completed = true;
    error = e;
  }

  std::int64_t last_sent = 0, expected_send = 0, last_written = 0, expected_write = 0;
  std::optional<std::filesystem::path> finished_location, move_to;
  int finished_status = 0;
  bool completed = false;
  ErrorRef error;
};

class URLSessionTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { server_ = new LoopbackServer; }
  static void TearDownTestSuite() {
    delete server_;
    server_ = nullptr;
  }
  void SetUp() override {
    server_->clearRoutes();
    server_->clearRequests();
    recorder_ = std::make_shared<Recorder>();
    URLSessionConfiguration configuration =
        URLSessionConfiguration::ephemeralSessionConfiguration();
    configuration.temporaryDirectory = temp_.path();
    session_ = URLSession::sessionWithConfiguration(configuration, recorder_, MainQueuePointer());
  }

  static LoopbackServer* server_;
  TempDir temp_;
  std::shared_ptr<Recorder> recorder_;
  std::shared_ptr<URLSession> session_;
};

LoopbackServer* URLSessionTest::server_ = nullptr;

struct DataCase {
  const char* method;
  std::optional<std::string> body;
};

TEST_F(URLSessionTest, DataTasksSendMethodHeadersAndBodyAsGiven) {
  for (const std::string method : {"GET", "POST", "PUT", "DELETE"}) {
    server_->on(method, "/echo", [](const ServerRequest& r) {
      return ServerReply{202, "got " + r.method + " " + r.body};
    });
  }
  const DataCase cases[] = {
      {"GET", std::nullopt}, {"POST", "{\"size\":1}"}, {"PUT", "x"}, {"DELETE", std::nullopt}};
  for (const DataCase& c : cases) {
    SCOPED_TRACE(c.method);
    server_->clearRequests();
    URLRequest request(Url(server_->url("/echo")));
    request.setHTTPMethod(c.method);
    if (c.body) request.setHTTPBody(std::vector<std::uint8_t>(c.body->begin(), c.body->end()));
    request.addValue("application/json", "Content-Type");
    request.addValue("Velmora abc", "Authorization");
    bool done = false;
    std::string reply;
    int status = 0;
    auto task = session_->dataTaskWithRequest(
        request, [&](std::optional<std::vector<std::uint8_t>> data,
                     std::shared_ptr<const URLResponse> response, ErrorRef error) {
          EXPECT_TRUE(MainQueue::isMainThread());
          EXPECT_EQ(error, nullptr);
          ASSERT_TRUE(data.has_value());
          reply.assign(data->begin(), data->end());
          status = dynamic_cast<const HTTPURLResponse&>(*response).statusCode();
          done = true;
        });
    EXPECT_EQ(task->state(), URLSessionTask::State::kSuspended);
    task->resume();
    ASSERT_TRUE(RunMainUntil([&] { return done; }));
    EXPECT_EQ(status, 202);
    EXPECT_EQ(reply, "got " + std::string(c.method) + " " + c.body.value_or(""));
    EXPECT_EQ(task->state(), URLSessionTask::State::kCompleted);
    EXPECT_FALSE(recorder_->completed) << "a completion handler replaces didCompleteWithError";
    ASSERT_EQ(server_->requests().size(), 1u);
    ServerRequest seen = server_->requests()[0];
    EXPECT_EQ(seen.headerCount("Content-Type"), 1u);
    EXPECT_EQ(seen.header("Content-Type"), "application/json");
    EXPECT_EQ(seen.header("Authorization"), "Velmora abc");
    EXPECT_EQ(seen.headerCount("Expect"), 0u);
  }
}

TEST_F(URLSessionTest, UploadStreamsTheFileAndReportsSentBytes) {
  std::string contents(3 * 1024 * 1024 + 17, '\0');
  for (std::size_t i = 0; i < contents.size(); ++i) contents[i] = static_cast<char>(i * 7);
  testing::WriteFile(temp_ / "upload.bin", contents);
  server_->on("PUT", "/blob", [](const ServerRequest&) { return ServerReply{200, ""}; });

  URLRequest request(Url(server_->url("/blob")));
  request.setHTTPMethod("PUT");
  bool done = false;
  auto task = session_->uploadTaskWithRequest(
      request, temp_ / "upload.bin",
      [&](std::optional<std::vector<std::uint8_t>>, std::shared_ptr<const URLResponse> response,
          ErrorRef error) {
        EXPECT_EQ(error, nullptr);
        EXPECT_EQ(dynamic_cast<const HTTPURLResponse&>(*response).statusCode(), 200);
        done = true;
      });
  task->resume();
  ASSERT_TRUE(RunMainUntil([&] { return done; }));
  EXPECT_EQ(recorder_->last_sent, static_cast<std::int64_t>(contents.size()));
  EXPECT_EQ(recorder_->expected_send, static_cast<std::int64_t>(contents.size()));
  ASSERT_EQ(server_->requests().size(), 1u);
  ServerRequest seen = server_->requests()[0];
  EXPECT_EQ(seen.body, contents);
  EXPECT_EQ(seen.headerCount("Content-Type"), 0u);
  EXPECT_EQ(seen.headerCount("Authorization"), 0u);
}

TEST_F(URLSessionTest, DownloadHandsTheDelegateATemporaryFileWhateverTheStatus) {
  const std::string payload(1024 * 1024 + 3, 'd');
  server_->on("GET", "/blob", [&](const ServerRequest&) {
    return ServerReply{200, payload, "application/octet-stream"};
  });
  server_->on("GET", "/missing", [](const ServerRequest&) { return ServerReply{404, "no"}; });

  // Moved away by the delegate: kept.
  recorder_->move_to = temp_ / "kept.bin";
  session_->downloadTaskWithRequest(URLRequest(Url(server_->url("/blob"))))->resume();
  ASSERT_TRUE(RunMainUntil([&] { return recorder_->completed; }));
  EXPECT_EQ(recorder_->error, nullptr);
  ASSERT_TRUE(recorder_->finished_location);
  EXPECT_EQ(recorder_->finished_location->parent_path(), temp_.path());
  EXPECT_EQ(testing::ReadFile(temp_ / "kept.bin"), payload);
  EXPECT_EQ(recorder_->last_written, static_cast<std::int64_t>(payload.size()));
  EXPECT_EQ(recorder_->expected_write, static_cast<std::int64_t>(payload.size()));

  // Left where it is: removed once the callback returned. An error status still finishes.
  *recorder_ = Recorder();
  session_->downloadTaskWithRequest(URLRequest(Url(server_->url("/missing"))))->resume();
  ASSERT_TRUE(RunMainUntil([&] { return recorder_->completed; }));
  EXPECT_EQ(recorder_->finished_status, 404);
  ASSERT_TRUE(recorder_->finished_location);
  EXPECT_FALSE(std::filesystem::exists(*recorder_->finished_location));
}

struct FailureCase {
  const char* name;
  URLSessionTask::Kind kind;
  std::string url;
  std::string header_value;
  std::int64_t code;
};

TEST_F(URLSessionTest, FailuresCompleteWithAnErrorAndNoResponse) {
  server_->on("GET", "/ok", [](const ServerRequest&) { return ServerReply{200, "fine"}; });
  std::string refused = "http://127.0.0.1:" + std::to_string(testing::UnusedLoopbackPort()) + "/x";
  const FailureCase cases[] = {
      {"refused data", URLSessionTask::Kind::kData, refused, "", kURLErrorCannotConnectToHost},
      {"refused download", URLSessionTask::Kind::kDownload, refused, "",
       kURLErrorCannotConnectToHost},
      {"refused upload", URLSessionTask::Kind::kUpload, refused, "", kURLErrorCannotConnectToHost},
      {"not http", URLSessionTask::Kind::kData, "ftp://127.0.0.1/x", "", kURLErrorUnsupportedURL},
      {"file url", URLSessionTask::Kind::kDownload, "file:///etc/hostname", "",
       kURLErrorUnsupportedURL},
      {"header injection", URLSessionTask::Kind::kData, server_->url("/ok"), "a\r\nX-Evil: 1",
       kURLErrorBadURL},
      {"missing upload file", URLSessionTask::Kind::kUpload, server_->url("/ok"), "",
       kURLErrorFileDoesNotExist},
  };
  testing::WriteFile(temp_ / "small", "abc");
  for (const FailureCase& c : cases) {
    SCOPED_TRACE(c.name);
    *recorder_ = Recorder();
    URLRequest request(Url(c.url));
    if (!c.header_value.empty()) request.addValue(c.header_value, "X-Test");
    std::shared_ptr<URLSessionTask> task;
    switch (c.kind) {
      case URLSessionTask::Kind::kData:
        task = session_->dataTaskWithRequest(request);
        break;
      case URLSessionTask::Kind::kUpload:
        request.setHTTPMethod("PUT");
        task = session_->uploadTaskWithRequest(
            request, c.code == kURLErrorFileDoesNotExist ? temp_ / "absent" : temp_ / "small");
        break;
      case URLSessionTask::Kind::kDownload:
        task = session_->downloadTaskWithRequest(request);
        break;
    }
    task->resume();
    ASSERT_TRUE(RunMainUntil([&] { return recorder_->completed; }));
    ASSERT_NE(recorder_->error, nullptr);
    EXPECT_EQ(recorder_->error->domain(), NSURLErrorDomain);
    EXPECT_EQ(recorder_->error->code(), c.code);
    EXPECT_EQ(task->response(), nullptr);
    EXPECT_FALSE(recorder_->finished_location) << "no did-finish without a complete answer";
  }
  for (const ServerRequest& seen : server_->requests()) EXPECT_EQ(seen.headerCount("X-Evil"), 0u);
}

TEST_F(URLSessionTest, IdleTimeoutEndsAStalledRequest) {
  server_->on("GET", "/slow", [](const ServerRequest&) {
    std::this_thread::sleep_for(3s);
    return ServerReply{200, "late"};
  });
  URLRequest request(Url(server_->url("/slow")), URLRequest::kUseProtocolCachePolicy, 1.0);
  session_->dataTaskWithRequest(request)->resume();
  ASSERT_TRUE(RunMainUntil([&] { return recorder_->completed; }));
  ASSERT_NE(recorder_->error, nullptr);
  EXPECT_EQ(recorder_->error->code(), kURLErrorTimedOut);
}

TEST_F(URLSessionTest, CancelledTasksCompleteWithCancelled) {
  server_->on("GET", "/slow", [](const ServerRequest&) {
    std::this_thread::sleep_for(1s);
    return ServerReply{200, "late"};
  });
  auto suspended = session_->dataTaskWithRequest(URLRequest(Url(server_->url("/slow"))));
  suspended->cancel();
  ASSERT_TRUE(RunMainUntil([&] { return recorder_->completed; }));
  EXPECT_EQ(recorder_->error->code(), kURLErrorCancelled);

  *recorder_ = Recorder();
  auto running = session_->downloadTaskWithRequest(URLRequest(Url(server_->url("/slow"))));
  running->resume();
  running->cancel();
  ASSERT_TRUE(RunMainUntil([&] { return recorder_->completed; }));
  EXPECT_EQ(recorder_->error->code(), kURLErrorCancelled);
  EXPECT_FALSE(recorder_->finished_location);
}

TEST_F(URLSessionTest, SharedSessionAnswersOnItsOwnQueue) {
  server_->on("GET", "/ok", [](const ServerRequest&) { return ServerReply{200, "fine"}; });
  std::atomic<bool> done{false};
  std::atomic<bool> on_main{true};
  URLSession::sharedSession()
      ->dataTaskWithRequest(URLRequest(Url(server_->url("/ok"))),
                            [&](auto data, auto, ErrorRef) {
                              on_main = MainQueue::isMainThread();
                              EXPECT_EQ(std::string(data->begin(), data->end()), "fine");
                              done = true;
                            })
      ->resume();
  ASSERT_TRUE(RunMainUntil([&] { return done.load(); }));
  EXPECT_FALSE(on_main.load());
}

// A streamed answer reaches the consumer whole and in order and is never collected; a
// consumer that says stop ends the transfer with an error; a refusal's body is collected
// as a data task's so that the caller can read it.
TEST_F(URLSessionTest, StreamingTasksHandTheBodyOverAsItArrives) {
  std::string body(3 * 1024 * 1024 + 17, '\0');
  for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i * 7 % 251);
  server_->on("GET", "/big", [&](const ServerRequest&) {
    ServerReply reply{200, body, "application/octet-stream"};
    reply.chunked = true;
    return reply;
  });
  server_->on("GET", "/refused", [](const ServerRequest&) { return ServerReply{404, "nope"}; });
  struct Case {
    const char* path;
    std::size_t stop_after;  // bytes the consumer takes before it says stop
    bool fails;
    std::string collected;
  };
  const Case cases[] = {{"/big", SIZE_MAX, false, ""},
                        {"/big", 100000, true, ""},
                        {"/refused", SIZE_MAX, false, "nope"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.path) + " " + std::to_string(c.stop_after));
    std::string streamed;  // written on the I/O thread, read after completion
    std::optional<std::vector<std::uint8_t>> data;
    ErrorRef error;
    std::atomic<bool> done{false};
    auto task = session_->streamingDataTaskWithRequest(
        URLRequest(Url(server_->url(c.path))),
        [&](const std::uint8_t* bytes, std::size_t length) {
          streamed.append(reinterpret_cast<const char*>(bytes), length);
          return streamed.size() < c.stop_after;
        },
        [&](auto got, auto, ErrorRef e) {
          data = std::move(got);
          error = e;
          done = true;
        });
    task->resume();
    ASSERT_TRUE(RunMainUntil([&] { return done.load(); }));
    EXPECT_EQ(error != nullptr, c.fails);
    if (c.fails) {
      EXPECT_LT(streamed.size(), body.size());
    } else if (c.collected.empty()) {
      EXPECT_TRUE(streamed == body) << "streamed " << streamed.size() << " bytes";
      EXPECT_TRUE(!data || data->empty());
    } else {
      EXPECT_TRUE(streamed.empty());
      ASSERT_TRUE(data);
      EXPECT_EQ(std::string(data->begin(), data->end()), c.collected);
    }
  }
}

struct LimitCase {
  const char* name;
  URLSessionTask::Kind kind;
  std::size_t body;
  bool chunked;  // no Content-Length: only counting the bytes can tell
  bool fails;
};

TEST_F(URLSessionTest, AnswersLongerThanTheLimitFailInsteadOfGrowing) {
  constexpr std::size_t kLimit = 1 << 20;
  const LimitCase cases[] = {
      {"data at the limit", URLSessionTask::Kind::kData, kLimit, false, false},
      {"data over, announced", URLSessionTask::Kind::kData, kLimit + 1, false, true},
      {"data over, chunked", URLSessionTask::Kind::kData, 3 * kLimit, true, true},
      {"download at the limit, chunked", URLSessionTask::Kind::kDownload, kLimit, true, false},
      {"download over, announced", URLSessionTask::Kind::kDownload, kLimit + 1, false, true},
      {"download over, chunked", URLSessionTask::Kind::kDownload, 3 * kLimit, true, true},
  };
  for (const LimitCase& c : cases) {
    SCOPED_TRACE(c.name);
    *recorder_ = Recorder();
    server_->on("GET", "/big", [&](const ServerRequest&) {
      ServerReply reply{200, std::string(c.body, 'b'), "application/octet-stream"};
      reply.chunked = c.chunked;
      return reply;
    });
    URLRequest request(Url(server_->url("/big")));
    request.setMaximumResponseLength(kLimit);
    auto task = c.kind == URLSessionTask::Kind::kData ? session_->dataTaskWithRequest(request)
                                                      : session_->downloadTaskWithRequest(request);
    task->resume();
    ASSERT_TRUE(RunMainUntil([&] { return recorder_->completed; }));
    if (!c.fails) {
      EXPECT_EQ(recorder_->error, nullptr);
      continue;
    }
    ASSERT_NE(recorder_->error, nullptr);
    EXPECT_EQ(recorder_->error->code(), kURLErrorDataLengthExceedsMaximum);
    EXPECT_LE(task->countOfBytesReceived(), static_cast<std::int64_t>(kLimit));
    EXPECT_FALSE(recorder_->finished_location) << "no did-finish for a refused answer";
  }
}

TEST_F(URLSessionTest, IdleTimeoutEndsATransferStalledHalfWay) {
  server_->on("GET", "/stalls", [](const ServerRequest&) {
    ServerReply reply{200, std::string(64 * 1024, 's'), "application/octet-stream"};
    reply.chunked = true;
    reply.stallAfter = 1024;
    reply.stallForMilliseconds = 3000;
    return reply;
  });
  for (auto kind : {URLSessionTask::Kind::kData, URLSessionTask::Kind::kDownload}) {
    *recorder_ = Recorder();
    URLRequest request(Url(server_->url("/stalls")), URLRequest::kUseProtocolCachePolicy, 1.0);
    auto started = std::chrono::steady_clock::now();
    (kind == URLSessionTask::Kind::kData ? session_->dataTaskWithRequest(request)
                                         : session_->downloadTaskWithRequest(request))
        ->resume();
    ASSERT_TRUE(RunMainUntil([&] { return recorder_->completed; }));
    ASSERT_NE(recorder_->error, nullptr);
    EXPECT_EQ(recorder_->error->code(), kURLErrorTimedOut);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 2900ms)
        << "ended before the server went on";
  }
}

TEST_F(URLSessionTest, RefusesAServerWhoseCertificateIsNotTrusted) {
  ASSERT_TRUE(testing::WriteSelfSignedCertificate(temp_ / "cert.pem", temp_ / "key.pem"));
  LoopbackServer tls(temp_ / "cert.pem", temp_ / "key.pem");
  tls.on("GET", "/ok", [](const ServerRequest&) { return ServerReply{200, "secret"}; });

  URLSessionConfiguration trusting = URLSessionConfiguration::ephemeralSessionConfiguration();
  trusting.caBundle = temp_ / "cert.pem";
  URLSessionConfiguration system = URLSessionConfiguration::ephemeralSessionConfiguration();
  system.caBundle.clear();
  const std::pair<const char*, URLSessionConfiguration> cases[] = {{"system trust", system},
                                                                   {"told to trust it", trusting}};
  for (const auto& [name, configuration] : cases) {
    SCOPED_TRACE(name);
    *recorder_ = Recorder();
    auto session =
        URLSession::sessionWithConfiguration(configuration, recorder_, MainQueuePointer());
    session->dataTaskWithRequest(URLRequest(Url(tls.url("/ok"))))->resume();
    ASSERT_TRUE(RunMainUntil([&] { return recorder_->completed; }));
    if (configuration.caBundle.empty()) {
      ASSERT_NE(recorder_->error, nullptr);
      EXPECT_EQ(recorder_->error->code(), kURLErrorServerCertificateUntrusted);
    } else {
      EXPECT_EQ(recorder_->error, nullptr) << recorder_->error->summary();
    }
  }
  EXPECT_EQ(tls.requests().size(), 1u) << "nothing reached the untrusted server";
}

TEST_F(URLSessionTest, AuthorizationStaysWithItsHostAcrossRedirects) {
  LoopbackServer other;
  other.on("GET", "/landing", [](const ServerRequest&) { return ServerReply{200, "landed"}; });
  server_->on("GET", "/landing", [](const ServerRequest&) { return ServerReply{200, "landed"}; });
  const std::string elsewhere = "http://localhost:" + std::to_string(other.port()) + "/landing";
  const std::pair<std::string, bool> cases[] = {{elsewhere, false},
                                                {server_->url("/landing"), true}};
  for (const auto& [target, kept] : cases) {
    SCOPED_TRACE(target);
    *recorder_ = Recorder();
    server_->clearRequests();
    other.clearRequests();
    server_->on("GET", "/moved", [target = target](const ServerRequest&) {
      ServerReply reply{302, ""};
      reply.headers = {{"Location", target}};
      return reply;
    });
    URLRequest request(Url(server_->url("/moved")));
    request.addValue("Velmora secret-token", "Authorization");
    session_->dataTaskWithRequest(request)->resume();
    ASSERT_TRUE(RunMainUntil([&] { return recorder_->completed; }));
    EXPECT_EQ(recorder_->error, nullptr);
    std::vector<ServerRequest> landed = kept ? server_->requests() : other.requests();
    ASSERT_FALSE(landed.empty());
    EXPECT_EQ(landed.back().path, "/landing");
    EXPECT_EQ(landed.back().headerCount("Authorization"), kept ? 1u : 0u);
  }
}

std::size_t ThreadCount() {
  std::size_t count = 0;
  DIR* dir = ::opendir("/proc/self/task");
  while (dirent* entry = dir ? ::readdir(dir) : nullptr) count += entry->d_name[0] != '.';
  if (dir) ::closedir(dir);
  return count;
}

TEST_F(URLSessionTest, ThousandSessionsInFlightShareTheirIO) {
  // A listener that never accepts: every transfer stays connecting or waiting.
  int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(listener, 1024), 0);
  ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
  const std::string url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";

  constexpr int kSessions = 1000;
  const std::size_t threads_before = ThreadCount();
  std::vector<std::shared_ptr<URLSessionTask>> tasks;
  auto delegate = std::make_shared<URLSessionDelegate>();
  int completed = 0;
  for (int i = 0; i < kSessions; ++i) {
    // As each cloud operation does: a private session of its own.
    auto session = URLSession::sessionWithConfiguration(
        URLSessionConfiguration::ephemeralSessionConfiguration(), delegate, MainQueuePointer());
    auto task = session->dataTaskWithRequest(URLRequest(Url(url)),
                                             [&completed](auto, auto, ErrorRef) { ++completed; });
    task->resume();
    tasks.push_back(std::move(task));
  }
  std::this_thread::sleep_for(200ms);
  EXPECT_LT(ThreadCount(), threads_before + 8) << "threads grow with sessions";
  for (auto& task : tasks) {
    EXPECT_EQ(task->state(), URLSessionTask::State::kRunning);
    task->cancel();
  }
  EXPECT_TRUE(RunMainUntil([&] { return completed == kSessions; }));
  ::close(listener);
}

TEST(URLTest, AppendingAPathComponentPutsExactlyOneSlash) {
  const std::pair<const char*, const char*> cases[] = {
      {"http://h/api", "http://h/api/v1/x"},
      {"http://h/api/", "http://h/api/v1/x"},
      {"http://h", "http://h/v1/x"},
      {"https://h:8443/a/b?q=1", "https://h:8443/a/b/v1/x?q=1"},
  };
  for (const auto& [base, expected] : cases) {
    EXPECT_EQ(Url(base).URLByAppendingPathComponent("v1/x").absoluteString(), expected);
  }
  EXPECT_FALSE(URL::URLWithString("not a url"));
  EXPECT_FALSE(URL::URLWithString("http://h/a\r\nX: y"));
  EXPECT_TRUE(Url("HTTPS://h/").isHTTP());
  EXPECT_FALSE(Url("ftp://h/").isHTTP());
}

}  // namespace
}  // namespace vm
