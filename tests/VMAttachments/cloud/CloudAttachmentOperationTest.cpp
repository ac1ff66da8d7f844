#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <nlohmann/json.hpp>

#include "VMAttachments/CloudAttachmentOperation.h"
#include "VMAttachments/cloud/CloudAttachmentErrors.h"
#include "VMAttachments/cloud/VMCAttachment.h"
#include "host/HostConstants.h"
#include "host/VMAttachmentTransferManager.h"
#include "tests/VMAttachments/cloud/CloudTestService.h"
#include "tests/VMAttachments/schemes/ShareTestHost.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

using namespace std::chrono_literals;
using testing::CannedSession;
using testing::CloudTestService;
using testing::ServerReply;
using testing::ServerRequest;
using Op = CloudAttachmentOperation;
using json = nlohmann::json;

constexpr const char* kToken = "tok-123";
constexpr const char* kResourcePath =
    "/api/v1/_internal/attachment/E621E1F8-C36C-495A-93FC-0C247A3E6E5F";

// An operation whose web API requests go through a session of the test's choosing.
template <typename Base>
class WithAPISession : public Base {
 public:
  template <typename... Args>
  explicit WithAPISession(std::shared_ptr<URLSession> session, Args&&... args)
      : Base(AuthToken(kToken), std::forward<Args>(args)...), session_(std::move(session)) {}

 protected:
  std::shared_ptr<URLSession> apiSession() const override {
    return session_ ? session_ : Base::apiSession();
  }

 private:
  std::shared_ptr<URLSession> session_;
};

std::shared_ptr<URLSession> Canned(std::shared_ptr<const URLResponse> response,
                                   std::optional<std::string> data, ErrorRef error) {
  URLSession::Outcome outcome;
  outcome.response = std::move(response);
  if (data) outcome.data = JSONData(data->begin(), data->end());
  outcome.error = std::move(error);
  return std::make_shared<CannedSession>(std::move(outcome));
}

const URL& AnyURL() {
  static const URL url = *URL::URLWithString("http://127.0.0.1/");
  return url;
}

ErrorRef Refused() {
  return Error::WithDescription(NSURLErrorDomain, kURLErrorCannotConnectToHost,
                                "Could not connect to the server.");
}

// The API's transport failures and malformed answers that a live server cannot produce.
std::shared_ptr<URLSession> TransportFailure() { return Canned(nullptr, std::nullopt, Refused()); }
std::shared_ptr<URLSession> NoDataNoError() { return Canned(nullptr, std::nullopt, nullptr); }
std::shared_ptr<URLSession> NotHTTP() {
  return Canned(std::make_shared<URLResponse>(AnyURL()), "{}", nullptr);
}

std::string RefusedURL() {
  return "http://127.0.0.1:" + std::to_string(testing::UnusedLoopbackPort()) + "/storage/x";
}

std::string UploadReply(const std::string& upload_url, const std::string& state = "new") {
  return json{
      {"uuid", CloudTestService::kUUID}, {"size", 5}, {"state", state}, {"upload_url", upload_url}}
      .dump();
}

std::string DownloadReply(const std::string& download_url) {
  return json{{"uuid", CloudTestService::kUUID},
              {"size", 5},
              {"state", "uploaded"},
              {"download_url", download_url}}
      .dump();
}

// A reply as the service would send it, padded past the 1 MiB any reply may have.
std::string OverOneMiB(const std::string& reply) {
  json padded = json::parse(reply);
  padded["padding"] = std::string(1 << 20, 'p');
  return padded.dump();
}

struct Expected {
  std::string domain;  // empty: no error at all
  std::int64_t code = 0;
};

const Expected kNone{};
const Expected kCloud105{std::string(kCloudAttachmentErrorDomain), 105};
const Expected kMissingKey{std::string(NSCocoaErrorDomain), 4865};
const Expected kCorrupt{std::string(NSCocoaErrorDomain), 4864};
const Expected kRefused{std::string(NSURLErrorDomain), kURLErrorCannotConnectToHost};

class CloudAttachmentOperationTest : public ::testing::Test {
 protected:
  void SetUp() override { service_.reset(); }

  // Runs `op` on a queue and drains the main queue until it finished.
  void Run(const std::shared_ptr<Op>& op) {
    queue_.addOperation(op);
    ASSERT_TRUE(MainQueue::shared().runUntilCondition([&] { return op->isFinished(); },
                                                      std::chrono::steady_clock::now() + 20s));
  }

  void ExpectError(const Op& op, const Expected& expected) {
    EXPECT_TRUE(op.failed());
    EXPECT_EQ(op.state(), Op::State::kError);
    if (expected.domain.empty()) {
      EXPECT_EQ(op.error(), nullptr);
    } else {
      ASSERT_NE(op.error(), nullptr);
      EXPECT_EQ(op.error()->domain(), expected.domain) << op.error()->summary();
      EXPECT_EQ(op.error()->code(), expected.code) << op.error()->summary();
    }
  }

  // Requests to the API, in order.
  std::vector<ServerRequest> APIRequests() {
    std::vector<ServerRequest> out;
    for (auto& r : service_.server().requests()) {
      if (r.path.rfind("/api/", 0) == 0) out.push_back(r);
    }
    return out;
  }

  void ExpectAPIHeaders(const ServerRequest& request) {
    EXPECT_EQ(request.headerCount("Content-Type"), 1u) << request.method << " " << request.path;
    EXPECT_EQ(request.header("Content-Type"), "application/json");
    EXPECT_EQ(request.headerCount("Authorization"), 1u);
    EXPECT_EQ(request.header("Authorization"), std::string("Velmora ") + kToken);
  }

  CloudTestService& service_ = CloudTestService::shared();
  testing::TempDir temp_;
  OperationQueue queue_;
  LogCapture log_;
};

// Records every key-value notice with the state visible at that moment.
struct NoticeRecorder {
  explicit NoticeRecorder(Op& op) {
    for (const char* key : {"executing", "finished", "ready"}) {
      op.addObserver(key, [this](Operation& o, const KeyValueChange& change) {
        std::lock_guard lock(mu);
        notices.push_back(std::string(change.isPrior ? "will " : "did ") + std::string(change.key) +
                          " " + std::to_string(static_cast<int>(static_cast<Op&>(o).state())));
        grew.notify_all();
      });
    }
  }
  // The last notices of the final state change may still be on their way when the
  // operation already reads as finished, so wait (bounded) for `count` of them.
  std::vector<std::string> take(std::size_t count) {
    std::unique_lock lock(mu);
    grew.wait_for(lock, 5s, [&] { return notices.size() >= count; });
    return notices;
  }
  std::mutex mu;
  std::condition_variable grew;
  std::vector<std::string> notices;
};

std::vector<std::string> NoticesFor(int from, int to) {
  std::vector<std::string> out;
  for (const char* key : {"executing", "finished", "ready"}) {
    out.push_back(std::string("will ") + key + " " + std::to_string(from));
  }
  for (const char* key : {"executing", "finished", "ready"}) {
    out.push_back(std::string("did ") + key + " " + std::to_string(to));
  }
  return out;
}

TEST_F(CloudAttachmentOperationTest, NewOperationIsReadyAndIgnoresDependencies) {
  auto op =
      std::make_shared<DeleteCloudAttachmentOperation>(AuthToken(kToken), CloudTestService::kUUID);
  op->addDependency(std::make_shared<BlockOperation>([] {}));
  EXPECT_TRUE(op->isReady());
  EXPECT_FALSE(op->isExecuting());
  EXPECT_FALSE(op->isFinished());
  EXPECT_FALSE(op->failed());
  EXPECT_TRUE(op->isConcurrent());
  EXPECT_EQ(op->error(), nullptr);
  EXPECT_EQ(op->progress()->totalUnitCount(), 0);
  EXPECT_EQ(op->progress()->completedUnitCount(), 0);
  EXPECT_TRUE(op->progress()->isPausable());

  // Cancelled before it started: still new, and the queue still runs the deletion.
  op->cancel();
  EXPECT_EQ(op->state(), Op::State::kNew);
  Run(op);
  EXPECT_EQ(op->state(), Op::State::kFinished);
  ASSERT_EQ(APIRequests().size(), 1u);
}

TEST_F(CloudAttachmentOperationTest, UploadAsksStoresAndConfirms) {
  const std::string contents = "encrypted bytes";
  testing::WriteFile(temp_ / "crypt", contents);
  auto op = std::make_shared<UploadCloudAttachmentOperation>(AuthToken(kToken), temp_ / "crypt");
  NoticeRecorder notices(*op);
  std::vector<std::pair<std::int64_t, std::int64_t>> progress;  // main thread only
  op->progress()->addObserver([&](const Progress& p) {
    progress.emplace_back(p.completedUnitCount(), p.totalUnitCount());
  });
  std::shared_ptr<URLSessionTask> started;
  op->setOnURLTaskStarted([&](const std::shared_ptr<URLSessionTask>& task) { started = task; });
  Run(op);

  EXPECT_EQ(op->state(), Op::State::kFinished);
  EXPECT_EQ(op->error(), nullptr);
  EXPECT_EQ(op->attachmentUUID(), CloudTestService::kUUID);
  EXPECT_EQ(service_.blob(CloudTestService::kUUID), contents);
  ASSERT_NE(started, nullptr);
  EXPECT_EQ(started->kind(), URLSessionTask::Kind::kUpload);

  std::vector<ServerRequest> api = APIRequests();
  ASSERT_EQ(api.size(), 2u);
  EXPECT_EQ(api[0].method, "POST");
  EXPECT_EQ(api[0].path, CloudTestService::kCollectionPath);
  EXPECT_EQ(api[0].body, "{\"size\":" + std::to_string(contents.size()) + "}");
  EXPECT_EQ(api[1].method, "PUT");
  EXPECT_EQ(api[1].path, kResourcePath);
  // The confirmation carries the size the service echoed, not the measured one.
  EXPECT_EQ(json::parse(api[1].body), (json{{"uuid", CloudTestService::kUUID},
                                            {"size", contents.size() + CloudTestService::kSizeSkew},
                                            {"state", "uploaded"}}));
  for (const ServerRequest& request : api) ExpectAPIHeaders(request);
  for (const ServerRequest& request : service_.server().requests()) {
    if (request.path.rfind("/storage/", 0) != 0) continue;
    EXPECT_EQ(request.method, "PUT");
    EXPECT_EQ(request.headerCount("Authorization"), 0u);
    EXPECT_EQ(request.headerCount("Content-Type"), 0u);
  }

  // new -> authorizing -> finishing -> finished, each announced in full.
  std::vector<std::string> expected;
  for (auto [from, to] : {std::pair{0, 1}, {1, 3}, {3, 4}}) {
    for (auto& n : NoticesFor(from, to)) expected.push_back(n);
  }
  EXPECT_EQ(notices.take(expected.size()), expected);

  // Progress followed the sent bytes, then the total was dropped for the confirmation.
  ASSERT_FALSE(progress.empty());
  auto sent = static_cast<std::int64_t>(contents.size());
  EXPECT_NE(std::find(progress.begin(), progress.end(), std::pair{sent, sent}), progress.end());
  EXPECT_EQ(progress.back(), (std::pair<std::int64_t, std::int64_t>{sent, 0}));

  EXPECT_TRUE(log_.contains("HTTP Response: 200"));
  EXPECT_TRUE(log_.contains("Notifying VAPI of successful upload"));
  for (const LogRecord& record : log_.records()) {
    EXPECT_EQ(record.subsystem, "com.brenwick.velmora");
    EXPECT_EQ(record.category, "CloudAttachmentOperation");
  }
}

TEST_F(CloudAttachmentOperationTest, ZeroByteFileAndA200StartBothSucceed) {
  testing::WriteFile(temp_ / "empty", "");
  // The status is not compared: a 200 with a valid body is as good as the 201.
  service_.server().on("POST", CloudTestService::kCollectionPath, [&](const ServerRequest&) {
    return ServerReply{200, UploadReply(service_.server().url("/storage/zero"))};
  });
  auto op = std::make_shared<UploadCloudAttachmentOperation>(AuthToken(kToken), temp_ / "empty");
  Run(op);
  EXPECT_EQ(op->state(), Op::State::kFinished);
  EXPECT_EQ(APIRequests().at(0).body, "{\"size\":0}");
}

struct UploadFailure {
  const char* name;
  // Sets the routes up and returns the file to upload.
  std::function<std::string(testing::LoopbackServer&, const testing::TempDir&)> arrange;
  std::function<std::shared_ptr<URLSession>()> api_session;
  Expected error;
  bool uuid_set;
  const char* log_line;
};

TEST_F(CloudAttachmentOperationTest, UploadFailures) {
  auto file = [](testing::LoopbackServer&, const testing::TempDir& temp) {
    testing::WriteFile(temp / "crypt", "bytes");
    return (temp / "crypt").string();
  };
  auto start_reply = [file](int status, std::function<std::string(testing::LoopbackServer&)> body) {
    return [file, status, body](testing::LoopbackServer& s, const testing::TempDir& temp) {
      s.on("POST", CloudTestService::kCollectionPath, [status, body, &s](const ServerRequest&) {
        return ServerReply{status, body(s)};
      });
      return file(s, temp);
    };
  };
  auto route = [file](const char* method, const char* path, int status, std::string body) {
    return [=](testing::LoopbackServer& s, const testing::TempDir& temp) {
      s.on(method, path, [=](const ServerRequest&) { return ServerReply{status, body}; });
      return file(s, temp);
    };
  };
  auto path = [](std::string p) {
    return [p](testing::LoopbackServer&, const testing::TempDir& temp) {
      if (p == "dir") return temp.path().string();
      if (p == "loop") {
        ::symlink((temp / "loop").c_str(), (temp / "loop").c_str());
        return (temp / "loop").string();
      }
      return p == "absent" ? (temp / "absent").string() : p;
    };
  };
  const UploadFailure cases[] = {
      {"file missing",
       path("absent"),
       {},
       {std::string(kCloudAttachmentErrorDomain), 102},
       false,
       nullptr},
      {"directory",
       path("dir"),
       {},
       {std::string(kCloudAttachmentErrorDomain), 103},
       false,
       nullptr},
      {"attributes unreadable",
       path("loop"),
       {},
       {std::string(NSPOSIXErrorDomain), ELOOP},
       false,
       nullptr},
      {"no usable size",
       path("/dev/null"),
       {},
       {std::string(kCloudAttachmentErrorDomain), 104},
       false,
       nullptr},
      {"start refused",
       start_reply(500, [](auto&) { return "{\"error\":\"no\"}"; }),
       {},
       kMissingKey,
       false,
       nullptr},
      {"start lacks upload_url",
       start_reply(
           201,
           [](auto&) {
             return json{{"uuid", CloudTestService::kUUID}, {"size", 5}, {"state", "new"}}.dump();
           }),
       {},
       kMissingKey,
       false,
       nullptr},
      {"start with unknown state",
       start_reply(201, [](auto& s) { return UploadReply(s.url("/storage/x"), "stored"); }),
       {},
       kCorrupt,
       false,
       nullptr},
      {"upload_url not a URL",
       start_reply(201, [](auto&) { return UploadReply("not a url"); }),
       {},
       kCloud105,
       true,
       "Error set: Optional(\"The attachment service returned an unusable reply\")"},
      {"upload_url not http",
       start_reply(201, [](auto&) { return UploadReply("file:///etc/passwd"); }),
       {},
       kCloud105,
       true,
       nullptr},
      {"start transport failure", file, TransportFailure, kRefused, false, nullptr},
      {"start without data or error", file, NoDataNoError, kNone, false, "Error set: nil"},
      {"start answered without HTTP", file, NotHTTP, kCloud105, false, nullptr},
      {"storage refuses",
       route("PUT", "/storage/.*", 403, ""),
       {},
       {std::string(kCloudAttachmentErrorDomain), 106},
       true,
       "Error uploading attachment to S3, HTTP Response: 403"},
      {"storage unreachable",
       start_reply(201, [](auto&) { return UploadReply(RefusedURL()); }),
       {},
       kRefused,
       true,
       "Error uploading attachment to S3: Optional(\"Could not connect to the server.\")"},
      // A reply too long to be one is not buffered: it ends the operation.
      {"start reply over 1 MiB",
       start_reply(201, [](auto& s) { return OverOneMiB(UploadReply(s.url("/storage/x"))); }),
       {},
       kCloud105,
       false,
       nullptr},
      {"storage answers with over 1 MiB",
       route("PUT", "/storage/.*", 200, std::string((1 << 20) + 1, 'x')),
       {},
       kCloud105,
       true,
       nullptr},
      {"confirmation refused",
       route("PUT", CloudTestService::kResourcePattern, 500, "oops"),
       {},
       kCorrupt,
       true,
       nullptr},
  };
  for (const UploadFailure& c : cases) {
    SCOPED_TRACE(c.name);
    service_.reset();
    LogCapture log;
    std::string upload = c.arrange(service_.server(), temp_);
    auto op = std::make_shared<WithAPISession<UploadCloudAttachmentOperation>>(
        c.api_session ? c.api_session() : nullptr, upload);
    Run(op);
    ExpectError(*op, c.error);
    EXPECT_EQ(op->attachmentUUID().has_value(), c.uuid_set);
    if (c.uuid_set) {
      EXPECT_EQ(op->attachmentUUID(), CloudTestService::kUUID);
    }
    // fail() logs right after the state change, possibly on another thread.
    EXPECT_TRUE(MainQueue::shared().runUntilCondition([&] { return log.contains("Error set: "); },
                                                      std::chrono::steady_clock::now() + 5s));
    if (c.log_line) {
      EXPECT_TRUE(log.contains(c.log_line)) << c.log_line;
    }
    std::vector<std::string> lines = log.messages("CloudAttachmentOperation");
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().rfind("Error set: ", 0), 0u) << lines.back();
    std::filesystem::remove(temp_ / "loop");
  }
}

TEST_F(CloudAttachmentOperationTest, DownloadFetchesIntoTheLocation) {
  const std::string contents(300 * 1024, 'z');
  service_.setBlob(CloudTestService::kUUID, contents);
  // Any case in, upper case on the wire.
  auto op = std::make_shared<DownloadCloudAttachmentOperation>(
      AuthToken(kToken), "e621e1f8-c36c-495a-93fc-0c247a3e6e5f", temp_ / "out.bin");
  NoticeRecorder notices(*op);
  bool completed_above_total = false;
  op->progress()->addObserver([&](const Progress& p) {
    if (p.completedUnitCount() > p.totalUnitCount()) completed_above_total = true;
  });
  Run(op);

  EXPECT_EQ(op->state(), Op::State::kFinished);
  EXPECT_EQ(testing::ReadFile(temp_ / "out.bin"), contents);
  EXPECT_EQ(op->progress()->completedUnitCount(), static_cast<std::int64_t>(contents.size()));
  EXPECT_EQ(op->progress()->totalUnitCount(), static_cast<std::int64_t>(contents.size()));
  EXPECT_FALSE(completed_above_total) << "the total is set before the completed count";
  std::vector<std::string> expected = NoticesFor(0, 1);
  for (auto& n : NoticesFor(1, 4)) expected.push_back(n);
  EXPECT_EQ(notices.take(expected.size()), expected);

  std::vector<ServerRequest> requests = service_.server().requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].method, "GET");
  EXPECT_EQ(requests[0].path, kResourcePath);
  EXPECT_TRUE(requests[0].body.empty());
  ExpectAPIHeaders(requests[0]);
  EXPECT_EQ(requests[1].method, "GET");
  EXPECT_EQ(requests[1].headerCount("Authorization"), 0u);
  EXPECT_EQ(requests[1].headerCount("Content-Type"), 0u);
}

struct DownloadFailure {
  const char* name;
  std::function<void(testing::LoopbackServer&)> arrange;
  std::function<std::shared_ptr<URLSession>()> api_session;
  Expected error;
  std::string uuid = CloudTestService::kUUID;
};

TEST_F(CloudAttachmentOperationTest, DownloadFailures) {
  auto api = [](int status, std::function<std::string(testing::LoopbackServer&)> body) {
    return [=](testing::LoopbackServer& s) {
      s.on("GET", CloudTestService::kResourcePattern, [=, &s](const ServerRequest&) {
        return ServerReply{status, body(s)};
      });
    };
  };
  auto nothing = [](testing::LoopbackServer&) {};
  const DownloadFailure cases[] = {
      {"API refuses",
       api(404, [](auto&) { return "{\"error\":\"no such attachment\"}"; }),
       {},
       kMissingKey},
      {"download_url unusable",
       api(200, [](auto&) { return DownloadReply("ftp://h/x"); }),
       {},
       kCloud105},
      {"storage forbids",
       [](testing::LoopbackServer& s) {
         s.on("GET", "/storage/.*", [](const ServerRequest&) { return ServerReply{403, "no"}; });
       },
       {},
       {std::string(kCloudAttachmentErrorDomain), 107}},
      {"API reply over 1 MiB",
       api(200, [](auto& s) { return OverOneMiB(DownloadReply(s.url("/storage/x"))); }),
       {},
       kCloud105},
      // The service announced 6 bytes ("stored").
      {"storage sends more than announced, chunked",
       [](testing::LoopbackServer& s) {
         s.on("GET", "/storage/.*", [](const ServerRequest&) {
           ServerReply reply{200, std::string(64 * 1024, 'x'), "application/octet-stream"};
           reply.chunked = true;
           return reply;
         });
       },
       {},
       kCloud105},
      {"storage sends more than announced, said so",
       [](testing::LoopbackServer& s) {
         s.on("GET", "/storage/.*", [](const ServerRequest&) {
           return ServerReply{200, "stored and more", "application/octet-stream"};
         });
       },
       {},
       kCloud105},
      {"storage refuses at length",
       [](testing::LoopbackServer& s) {
         s.on("GET", "/storage/.*", [](const ServerRequest&) {
           return ServerReply{403, std::string(4096, 'e'), "application/xml"};
         });
       },
       {},
       {std::string(kCloudAttachmentErrorDomain), 107}},
      {"API transport failure", nothing, TransportFailure, kRefused},
      {"API without data or error", nothing, NoDataNoError, kNone},
      {"API answered without HTTP", nothing, NotHTTP, kCloud105},
      {"not a UUID", nothing, {}, {std::string(NSURLErrorDomain), kURLErrorBadURL}, "../x"},
  };
  for (const DownloadFailure& c : cases) {
    SCOPED_TRACE(c.name);
    service_.reset();
    service_.setBlob(CloudTestService::kUUID, "stored");
    c.arrange(service_.server());
    auto op = std::make_shared<WithAPISession<DownloadCloudAttachmentOperation>>(
        c.api_session ? c.api_session() : nullptr, c.uuid, temp_ / c.name);
    Run(op);
    ExpectError(*op, c.error);
    EXPECT_FALSE(std::filesystem::exists(temp_ / c.name));
  }
  // Nothing in the destination's folder but what was there: temporary files are gone.
  EXPECT_TRUE(std::filesystem::is_empty(temp_.path()));
}

TEST_F(CloudAttachmentOperationTest, DownloadNeverReplacesAnExistingFile) {
  service_.setBlob(CloudTestService::kUUID, "new bytes");
  testing::WriteFile(temp_ / "existing", "keep me");
  auto op = std::make_shared<DownloadCloudAttachmentOperation>(
      AuthToken(kToken), CloudTestService::kUUID, temp_ / "existing");
  Run(op);
  ExpectError(*op, {std::string(NSPOSIXErrorDomain), EEXIST});
  EXPECT_EQ(testing::ReadFile(temp_ / "existing"), "keep me");
}

// Hands the delegate a finished download at `location`, as a session whose temporary
// folder lies on another file system would.
class HandOverSession : public URLSession {
 public:
  HandOverSession(std::weak_ptr<URLSessionDelegate> delegate, std::filesystem::path location)
      : URLSession(
            URLSessionConfiguration::ephemeralSessionConfiguration(), std::move(delegate),
            std::shared_ptr<DispatchQueue>(std::shared_ptr<DispatchQueue>(), &MainQueue::shared())),
        location_(std::move(location)) {}

 protected:
  void resumeTask(const std::shared_ptr<URLSessionTask>& task) override {
    Outcome outcome;
    outcome.response = std::make_shared<HTTPURLResponse>(AnyURL(), 200, HTTPHeaderFields{});
    outcome.location = location_;
    complete(task, std::move(outcome));
  }

 private:
  std::filesystem::path location_;
};

TEST_F(CloudAttachmentOperationTest, DownloadAcrossFileSystemsIsCopiedOffTheMainQueue) {
  // tmpfs and the test's folder: copy_file_range(2) refuses between them (EXDEV).
  const std::filesystem::path shm = "/dev/shm";
  if (!std::filesystem::is_directory(shm)) GTEST_SKIP() << "no /dev/shm";
  const std::filesystem::path location = shm / ("vm-download-" + std::to_string(::getpid()));
  const std::string contents(3 * 1024 * 1024 + 5, 'c');
  testing::WriteFile(location, contents);
  service_.setBlob(CloudTestService::kUUID, contents);

  auto op = std::make_shared<DownloadCloudAttachmentOperation>(
      AuthToken(kToken), CloudTestService::kUUID, temp_ / "out.bin");
  op->setURLSession(std::make_shared<HandOverSession>(op, location));
  std::atomic<bool> finished_on_main{false};
  op->addObserver("finished", [&](Operation& o, const KeyValueChange& change) {
    if (!change.isPrior && o.isFinished()) finished_on_main = MainQueue::isMainThread();
  });
  Run(op);
  EXPECT_EQ(op->state(), Op::State::kFinished) << (op->error() ? op->error()->summary() : "");
  EXPECT_FALSE(finished_on_main.load());
  EXPECT_EQ(testing::ReadFile(temp_ / "out.bin"), contents);
  EXPECT_FALSE(std::filesystem::exists(location)) << "the session removes its temporary file";
}

TEST_F(CloudAttachmentOperationTest, DownloadTransportFailuresFailTheOperationAtOnce) {
  struct Case {
    const char* name;
    std::function<std::string()> download_url;
    std::int64_t code;
  };
  const Case cases[] = {
      {"refused", [] { return RefusedURL(); }, kURLErrorCannotConnectToHost},
      {"redirected to a file",
       [this] {
         service_.server().on("GET", "/storage/away", [](const ServerRequest&) {
           return ServerReply{302, "", "text/plain", {{"Location", "file:///etc/hostname"}}};
         });
         return service_.server().url("/storage/away");
       },
       kURLErrorUnsupportedURL},
      {"redirected in a loop",
       [this] {
         service_.server().on("GET", "/storage/loop", [this](const ServerRequest&) {
           return ServerReply{
               302, "", "text/plain", {{"Location", service_.server().url("/storage/loop")}}};
         });
         return service_.server().url("/storage/loop");
       },
       kURLErrorHTTPTooManyRedirects},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    service_.reset();
    const std::string url = c.download_url();
    service_.server().on("GET", CloudTestService::kResourcePattern, [url](const ServerRequest&) {
      return ServerReply{200, DownloadReply(url)};
    });
    auto op = std::make_shared<DownloadCloudAttachmentOperation>(
        AuthToken(kToken), CloudTestService::kUUID, temp_ / "out");
    Run(op);
    ExpectError(*op, {std::string(NSURLErrorDomain), c.code});
    EXPECT_FALSE(std::filesystem::exists(temp_ / "out"));
  }
  EXPECT_TRUE(std::filesystem::is_empty(temp_.path()));
}

struct DeleteCase {
  const char* name;
  int status;
  std::string body;
  std::function<std::shared_ptr<URLSession>()> api_session;
  Expected error;  // kNone with finished: success
  bool finished;
};

TEST_F(CloudAttachmentOperationTest, DeleteCountsEveryAnswerWithData) {
  const DeleteCase cases[] = {
      {"204 empty", 204, "", {}, kNone, true},
      {"404 with body", 404, "{\"error\":\"gone\"}", {}, kNone, true},
      {"500 with body", 500, "broken", {}, kNone, true},
      {"transport failure", 0, "", TransportFailure, kRefused, false},
      {"no data, no error", 0, "", NoDataNoError, kNone, false},
      {"not HTTP", 0, "", NotHTTP, kCloud105, false},
  };
  for (const DeleteCase& c : cases) {
    SCOPED_TRACE(c.name);
    service_.reset();
    service_.server().on("DELETE", CloudTestService::kResourcePattern, [&](const ServerRequest&) {
      return ServerReply{c.status, c.body};
    });
    auto op = std::make_shared<WithAPISession<DeleteCloudAttachmentOperation>>(
        c.api_session ? c.api_session() : nullptr, "e621e1f8-c36c-495a-93fc-0c247a3e6e5f");
    Run(op);
    if (c.finished) {
      EXPECT_EQ(op->state(), Op::State::kFinished);
      EXPECT_EQ(op->error(), nullptr);
      std::vector<ServerRequest> api = APIRequests();
      ASSERT_EQ(api.size(), 1u);
      EXPECT_EQ(api[0].method, "DELETE");
      EXPECT_EQ(api[0].path, kResourcePath);
      EXPECT_TRUE(api[0].body.empty());
      ExpectAPIHeaders(api[0]);
    } else {
      ExpectError(*op, c.error);
    }
  }
}

TEST_F(CloudAttachmentOperationTest, CancellingARunningDeletionChangesNothing) {
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  service_.server().on("DELETE", CloudTestService::kResourcePattern,
                       [released](const ServerRequest&) {
                         released.wait();
                         return ServerReply{204, ""};
                       });
  auto op =
      std::make_shared<DeleteCloudAttachmentOperation>(AuthToken(kToken), CloudTestService::kUUID);
  op->start();
  op->cancel();
  EXPECT_TRUE(op->isCancelled());
  EXPECT_EQ(op->state(), Op::State::kAuthorizing);
  release.set_value();
  ASSERT_TRUE(MainQueue::shared().runUntilCondition([&] { return op->isFinished(); },
                                                    std::chrono::steady_clock::now() + 20s));
  EXPECT_EQ(op->state(), Op::State::kFinished);
}

TEST_F(CloudAttachmentOperationTest, AResumedDeletionWithoutSchemeOrRecordSaysSo) {
  // A deletion that outlived its record, resumed by a handler made without a scheme: the
  // service deletes, and nothing is left to remove the registration through.
  auto handler = std::make_shared<VMCAttachment>(nullptr);
  auto delegate = std::make_shared<testing::RecordingDelegate>();
  auto transfer = std::make_shared<VMAttachmentTransferObject>(
      nullptr, delegate, kTransferOperationDelete, CloudTestService::kUUID);
  EXPECT_TRUE(handler->resumeTransfer(transfer));
  ASSERT_TRUE(delegate->waitUntilEnded());
  ASSERT_EQ(delegate->kinds(), (std::vector<std::string>{"willSend", "gotError"}));
  ErrorRef error = delegate->last("gotError")->error;
  EXPECT_EQ(error->code(), 950);
  EXPECT_NE(error->localizedDescription().find("has no scheme"), std::string::npos);
  EXPECT_EQ(APIRequests().size(), 1u);
}

class ThrowingTransfer : public TransferCloudAttachmentOperation {
 public:
  using TransferCloudAttachmentOperation::TransferCloudAttachmentOperation;

 protected:
  bool transfer(ErrorRef* error) override {
    return Fail(error, Error::WithDescription("test", 1, "boom \"quoted\""));
  }
};

TEST_F(CloudAttachmentOperationTest, TransferThatCannotBeginFailsTheOperation) {
  auto base = std::make_shared<TransferCloudAttachmentOperation>(AuthToken(kToken));
  base->start();
  EXPECT_EQ(base->state(), Op::State::kAuthorizing);

  auto op = std::make_shared<ThrowingTransfer>(AuthToken(kToken));
  op->start();
  ExpectError(*op, {"test", 1});
  std::vector<LogRecord> records = log_.records();
  ASSERT_FALSE(records.empty());
  EXPECT_EQ(records.back().level, LogLevel::kError);
  EXPECT_EQ(records.back().message, "Error set: Optional(\"boom \\\"quoted\\\"\")");
}

TEST(CloudAttachmentErrorsTest, EachCodedErrorIsMadeOnce) {
  const std::pair<CloudAttachmentErrorCode, const char*> cases[] = {
      {CloudAttachmentErrorCode::kFileMissing, nullptr},
      {CloudAttachmentErrorCode::kPathIsDirectory, nullptr},
      {CloudAttachmentErrorCode::kNoFileSize, nullptr},
      {CloudAttachmentErrorCode::kUnusableReply,
       "The attachment service returned an unusable reply"},
      {CloudAttachmentErrorCode::kUploadFailed, "Upload to the storage provider failed"},
      {CloudAttachmentErrorCode::kDownloadFailed, "Download from the storage provider failed"},
  };
  for (const auto& [code, description] : cases) {
    ErrorRef error = CloudAttachmentError(code);
    EXPECT_EQ(error, CloudAttachmentError(code)) << "the same object every time";
    EXPECT_EQ(error->domain(), "com.brenwick.cloudattachment");
    EXPECT_EQ(error->code(), static_cast<std::int64_t>(code));
    if (description) {
      EXPECT_EQ(error->localizedDescription(), description);
    } else {
      EXPECT_TRUE(error->userInfo().empty());
    }
  }
}

}  // namespace
}  // namespace vm
