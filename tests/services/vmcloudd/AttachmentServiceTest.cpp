// The service in embedded mode, in process on 127.0.0.1, driven over HTTP.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <filesystem>
#include <thread>

#include "platform/Log.h"
#include "platform/UniqueID.h"
#include "services/vmcloudd/AttachmentRecords.h"
#include "services/vmcloudd/AttachmentService.h"
#include "tests/services/vmcloudd/HttpTestClient.h"
#include "tests/services/vmcloudd/ServiceFixture.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

using testing::ApiClient;
using testing::HttpReply;
using testing::Send;
using testing::TestBytes;
using testing::WithQueryParameter;

class EmbeddedServiceTest : public testing::ServiceFixture {
 protected:
  void SetUp() override { Start(); }
  // The service reads skew_ through its clock, so it goes first.
  void TearDown() override { service_.reset(); }

  void Start(int port = 0) {
    AttachmentServiceOptions options;
    options.port = port;
    options.max_json_body = 1024;
    options.max_blob_size = 4 << 20;
    options.url_lifetime = std::chrono::seconds(600);
    options.clock = [this] { return std::chrono::system_clock::now() + skew_.load(); };
    StartService(std::move(options));
  }

  // An attachment that went through start, bytes and confirmation.
  nlohmann::json Uploaded(const std::string& bytes) {
    nlohmann::json started = StartUpload(bytes.size());
    EXPECT_EQ(Send("PUT", started["upload_url"], bytes).status, 200);
    EXPECT_EQ(api_.confirm(started["uuid"], bytes.size()).status, 200);
    return started;
  }

  std::atomic<std::chrono::seconds> skew_{std::chrono::seconds(0)};
};

TEST_F(EmbeddedServiceTest, RoundTrip) {
  for (std::size_t size : {std::size_t{0}, std::size_t{5}, std::size_t{(1 << 20) + 3}}) {
    SCOPED_TRACE(size);
    const std::string bytes = TestBytes(size, static_cast<unsigned>(size));
    nlohmann::json started = StartUpload(size);
    const std::string uuid = started["uuid"];
    EXPECT_EQ(ParseUUID(uuid), uuid);  // canonical upper case
    EXPECT_EQ(started["size"], size);
    EXPECT_EQ(started["state"], "new");
    ASSERT_TRUE(started["upload_url"].is_string());

    EXPECT_EQ(Send("PUT", started["upload_url"], bytes).status, 200);
    // The client may write the UUID in either case.
    HttpReply confirmed = api_.confirm(ToLower(uuid), size);
    ASSERT_EQ(confirmed.status, 200) << confirmed.body;
    EXPECT_EQ(confirmed.json(),
              (nlohmann::json{{"uuid", uuid}, {"size", size}, {"state", "uploaded"}}));

    HttpReply info = api_.info(uuid);
    ASSERT_EQ(info.status, 200) << info.body;
    EXPECT_EQ(info.json()["state"], "uploaded");
    EXPECT_EQ(info.json()["size"], size);
    const std::string download_url = info.json()["download_url"];
    HttpReply downloaded = Send("GET", download_url);
    EXPECT_EQ(downloaded.status, 200);
    EXPECT_TRUE(downloaded.body == bytes) << "downloaded bytes differ";

    HttpReply removed = api_.remove(uuid);
    EXPECT_EQ(removed.status, 204);
    EXPECT_EQ(removed.body, "");
    EXPECT_FALSE(std::filesystem::exists(BlobPath(uuid)));
    EXPECT_EQ(api_.info(uuid).status, 404);
    EXPECT_EQ(Send("GET", download_url).status, 404);
    EXPECT_EQ(api_.remove(uuid).status, 204) << "deleting twice is not an error";
  }
}

TEST_F(EmbeddedServiceTest, ReadinessFollowsTheBlobFolderAndOrdinaryTrafficLogsAtInfo) {
  LogCapture capture;
  EXPECT_EQ(Send("GET", api_.base_url + "/healthz").body, "ok\n");
  EXPECT_EQ(Send("GET", api_.base_url + "/readyz").status, 200);
  Uploaded(TestBytes(300, 1));
  for (const LogRecord& record : capture.records()) {
    EXPECT_EQ(record.level, LogLevel::kInfo) << record.category << ": " << record.message;
  }

  // Uploads land in the blob folder's ".incoming" folder: without it nothing can be stored.
  const auto incoming = dir_.path() / "data" / "blobs" / ".incoming";
  std::filesystem::rename(incoming, dir_.path() / "moved");
  for (int i = 0; i < 3; ++i) {
    HttpReply unready = Send("GET", api_.base_url + "/readyz");
    EXPECT_EQ(unready.status, 503);
    EXPECT_EQ(unready.body, "not ready: the blob store cannot be used\n");
  }
  std::filesystem::rename(dir_.path() / "moved", incoming);
  EXPECT_EQ(Send("GET", api_.base_url + "/readyz").status, 200);
  std::size_t errors = 0;
  for (const LogRecord& record : capture.records()) errors += record.level == LogLevel::kError;
  EXPECT_EQ(errors, 1u) << "a lasting failure is logged once";
}

TEST_F(EmbeddedServiceTest, RefusesTamperedAndExpiredURLs) {
  const std::string bytes = TestBytes(100, 1);
  nlohmann::json started = StartUpload(bytes.size());
  nlohmann::json other = StartUpload(bytes.size());
  const std::string upload = started["upload_url"];
  const std::string other_upload = other["upload_url"];
  const std::string uuid = started["uuid"];
  const std::string other_uuid = other["uuid"];
  std::string flipped = upload;
  flipped.back() = flipped.back() == '0' ? '1' : '0';
  std::string swapped = other_upload;
  swapped.replace(swapped.find(other_uuid), other_uuid.size(), uuid);

  struct Case {
    const char* name;
    std::string url;
  } cases[] = {
      {"signature changed", flipped},
      {"expiry extended", WithQueryParameter(upload, "expires", "99999999999")},
      {"signature missing", upload.substr(0, upload.find("&signature="))},
      {"signature of another blob", swapped},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Send("PUT", c.url, bytes).status, 403);
  }
  EXPECT_EQ(api_.confirm(uuid, bytes.size()).status, 409) << "no bytes may have been stored";

  ASSERT_EQ(Send("PUT", upload, bytes).status, 200);
  ASSERT_EQ(api_.confirm(uuid, bytes.size()).status, 200);
  const std::string download = api_.info(uuid).json()["download_url"];
  EXPECT_EQ(Send("GET", upload).status, 403) << "an upload URL does not allow reading";
  EXPECT_EQ(Send("PUT", download, "x").status, 403) << "a download URL does not allow writing";

  skew_ = std::chrono::seconds(601);
  EXPECT_EQ(Send("GET", download).status, 403);
  EXPECT_EQ(Send("PUT", other_upload, bytes).status, 403);
  skew_ = std::chrono::seconds(0);
  EXPECT_EQ(Send("GET", download).body, bytes) << "refusals must leave the blob alone";
}

TEST_F(EmbeddedServiceTest, RequiresAKnownToken) {
  const std::string uuid = Uploaded("abc")["uuid"];
  struct Case {
    const char* name;
    testing::HttpHeaders headers;
  } cases[] = {
      {"no header", {}},
      {"unknown token", {{"Authorization", "Velmora gamma"}}},
      {"empty token", {{"Authorization", "Velmora "}}},
      {"other scheme", {{"Authorization", "Bearer alpha"}}},
      {"scheme in lower case", {{"Authorization", "velmora alpha"}}},
      {"token prefix", {{"Authorization", "Velmora alph"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Send("POST", api_.url(), R"({"size":1})", c.headers).status, 401);
    EXPECT_EQ(Send("GET", api_.url(uuid), {}, c.headers).status, 401);
    EXPECT_EQ(Send("DELETE", api_.url(uuid), {}, c.headers).status, 401);
    EXPECT_EQ(
        Send("PUT", api_.url(uuid), R"({"uuid":")" + uuid + R"(","size":3})", c.headers).status,
        401);
  }
  ApiClient second = api_;
  second.token = "beta";
  EXPECT_EQ(second.info(uuid).status, 200) << "every configured token is accepted";
}

TEST_F(EmbeddedServiceTest, ConfirmationNeedsTheAnnouncedBytes) {
  const std::string bytes = TestBytes(64, 2);
  nlohmann::json started = StartUpload(bytes.size());
  const std::string uuid = started["uuid"];

  EXPECT_EQ(api_.confirm(uuid, bytes.size()).status, 409) << "nothing uploaded yet";
  ASSERT_EQ(Send("PUT", started["upload_url"], bytes.substr(0, 63)).status, 200);
  HttpReply short_bytes = api_.confirm(uuid, bytes.size());
  EXPECT_EQ(short_bytes.status, 409);
  EXPECT_EQ(short_bytes.json()["error"], "size_mismatch");
  EXPECT_EQ(api_.confirm(uuid, 63).status, 409) << "the size was fixed when it was announced";
  EXPECT_EQ(api_.info(uuid).status, 404) << "still not uploaded";

  struct Case {
    const char* name;
    std::string body;
    int status;
  } bad_bodies[] = {
      {"another uuid",
       nlohmann::json{{"uuid", MakeUniqueID()}, {"size", 64}, {"state", "uploaded"}}.dump(), 400},
      {"state new", nlohmann::json{{"uuid", uuid}, {"size", 64}, {"state", "new"}}.dump(), 400},
      {"size missing", nlohmann::json{{"uuid", uuid}, {"state", "uploaded"}}.dump(), 400},
      {"not json", "{uuid", 400},
  };
  for (const Case& c : bad_bodies) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(api_.call("PUT", uuid, c.body).status, c.status);
  }

  // The state stayed "new": the right bytes can still be confirmed.
  ASSERT_EQ(Send("PUT", started["upload_url"], bytes).status, 200);
  EXPECT_EQ(api_.confirm(uuid, bytes.size()).status, 200);
  EXPECT_EQ(api_.confirm(uuid, bytes.size()).status, 200) << "confirming again is harmless";
  EXPECT_EQ(api_.confirm(MakeUniqueID(), 1).status, 404);
  ASSERT_EQ(api_.remove(uuid).status, 204);
  EXPECT_EQ(api_.confirm(uuid, bytes.size()).status, 409) << "a deleted attachment stays deleted";
}

TEST_F(EmbeddedServiceTest, RefusesMalformedRequests) {
  struct Case {
    const char* name;
    std::string body;
    int status;
  } cases[] = {
      {"empty body", "", 400},
      {"not json", "size=5", 400},
      {"array", "[5]", 400},
      {"negative size", R"({"size":-1})", 400},
      {"fractional size", R"({"size":1.5})", 400},
      {"size as text", R"({"size":"5"})", 400},
      {"no size", R"({"length":5})", 400},
      {"larger than allowed", R"({"size":4194305})", 413},
      {"body over the limit", R"({"size":5,"pad":")" + std::string(2000, 'x') + "\"}", 413},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    HttpReply reply = api_.call("POST", {}, c.body);
    EXPECT_EQ(reply.status, c.status);
    EXPECT_TRUE(reply.json().contains("error")) << reply.body;
  }
  EXPECT_EQ(api_.call("GET", "not-a-uuid").status, 400);
  EXPECT_EQ(api_.info(MakeUniqueID()).status, 404);
  EXPECT_EQ(api_.remove(MakeUniqueID()).status, 404);
}

TEST_F(EmbeddedServiceTest, RestartKeepsRecordsAndURLs) {
  const std::string bytes = TestBytes(300, 3);
  const std::string kept = Uploaded(bytes)["uuid"];
  const std::string download = api_.info(kept).json()["download_url"];
  nlohmann::json pending = StartUpload(10);
  const std::string old_base = service_->baseURL();

  service_.reset();
  Start();
  auto moved = [&](std::string url) { return url.replace(0, old_base.size(), api_.base_url); };

  HttpReply info = api_.info(kept);
  ASSERT_EQ(info.status, 200);
  EXPECT_EQ(info.json()["size"], bytes.size());
  EXPECT_EQ(Send("GET", info.json()["download_url"]).body, bytes);
  EXPECT_EQ(Send("GET", moved(download)).body, bytes) << "signed URLs outlive a restart";
  ASSERT_EQ(Send("PUT", moved(pending["upload_url"]), TestBytes(10, 4)).status, 200);
  EXPECT_EQ(api_.confirm(pending["uuid"], 10).status, 200) << "a pending upload stays pending";
}

TEST_F(EmbeddedServiceTest, SweepsOnlyStaleUnconfirmedUploads) {
  skew_ = -std::chrono::hours(48);  // announced two days ago
  nlohmann::json stale = StartUpload(10);
  ASSERT_EQ(Send("PUT", stale["upload_url"], TestBytes(10, 1)).status, 200);
  const std::string confirmed = Uploaded(TestBytes(20, 2))["uuid"];
  skew_ = std::chrono::seconds(0);
  nlohmann::json fresh = StartUpload(30);

  EXPECT_EQ(service_->sweepStaleUploads(), 1u);
  EXPECT_FALSE(std::filesystem::exists(BlobPath(stale["uuid"])));
  EXPECT_EQ(api_.confirm(stale["uuid"], 10).status, 409) << "a swept upload cannot be confirmed";
  EXPECT_EQ(api_.info(confirmed).status, 200);
  ASSERT_EQ(Send("PUT", fresh["upload_url"], TestBytes(30, 3)).status, 200);
  EXPECT_EQ(api_.confirm(fresh["uuid"], 30).status, 200);
  EXPECT_EQ(service_->sweepStaleUploads(), 0u) << "nothing is swept twice";
}

TEST_F(EmbeddedServiceTest, SweepTouchesNothingOutsideTheBlobFolderForAHostileRow) {
  // Another process sharing the records wrote a stale row whose UUID climbs out.
  const std::filesystem::path outside = dir_.path() / "data" / "precious";
  testing::WriteFile(outside, "keep me");
  ErrorRef error;
  auto records = AttachmentRecords::Open(
      database_->empty() ? (dir_.path() / "data" / "attachments.sqlite").string() : *database_,
      &error);
  ASSERT_TRUE(records) << error->summary();
  AttachmentRecord hostile{"../precious", 7, AttachmentState::kNew,
                           std::chrono::system_clock::now() - std::chrono::hours(48)};
  ASSERT_TRUE(records->insert(hostile, &error)) << error->summary();

  EXPECT_EQ(service_->sweepStaleUploads(), 0u);
  EXPECT_EQ(testing::ReadFile(outside), "keep me");
}

TEST_F(EmbeddedServiceTest, ConcurrentCyclesKeepTheirOwnBytes) {
  // Enough clients arriving at once to overflow a small listen backlog.
  constexpr int kThreads = 64;
  constexpr int kCyclesPerThread = 2;
  std::atomic<int> failures{0};
  std::barrier start(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      for (int i = 0; i < kCyclesPerThread; ++i) {
        const std::string bytes = TestBytes(1000 + t * 37 + i, t * 100 + i);
        HttpReply started = api_.start(bytes.size());
        if (started.status != 201) {
          ++failures;
          continue;
        }
        const std::string uuid = started.json()["uuid"];
        bool ok = Send("PUT", started.json()["upload_url"], bytes).status == 200 &&
                  api_.confirm(uuid, bytes.size()).status == 200;
        HttpReply info = api_.info(uuid);
        ok = ok && info.status == 200 && Send("GET", info.json()["download_url"]).body == bytes &&
             api_.remove(uuid).status == 204;
        if (!ok) ++failures;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
}

TEST(AttachmentServiceSettings, RefusesUnusableSettings) {
  testing::TempDir dir;
  auto valid = [&] {
    AttachmentServiceOptions options;
    options.data_dir = dir.path();
    options.tokens = {"t"};
    return options;
  };
  struct Case {
    const char* name;
    std::function<void(AttachmentServiceOptions&)> change;
  } cases[] = {
      {"no token", [](auto& o) { o.tokens.clear(); }},
      {"token with a blank", [](auto& o) { o.tokens = {"a b"}; }},
      {"certificate without key", [](auto& o) { o.tls_cert = "/nonexistent.pem"; }},
      {"no data folder", [](auto& o) { o.data_dir.clear(); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    AttachmentServiceOptions options = valid();
    c.change(options);
    ErrorRef error;
    EXPECT_EQ(AttachmentService::Create(std::move(options), &error), nullptr);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), "vmcloudd");
  }
  ErrorRef error;
  EXPECT_NE(AttachmentService::Create(valid(), &error), nullptr);
}

}  // namespace
}  // namespace vm
