// The service in S3 mode against a real S3-compatible server (s3rver from npm, started
// on 127.0.0.1 with its default credentials). s3rver checks the access key, the
// query parameters and the expiry of a presigned URL, but not the signature itself: the
// signature is checked against the published example in SigV4PresignerTest.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "services/vmcloudd/AttachmentService.h"
#include "services/vmcloudd/S3Storage.h"
#include "tests/services/vmcloudd/HttpTestClient.h"
#include "tests/services/vmcloudd/TestDatabase.h"
#include "tests/support/ListeningServer.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

using testing::ApiClient;
using testing::HttpReply;
using testing::Send;
using testing::TestBytes;

constexpr const char* kBucket = "vmtest";

class S3ModeTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new testing::TempDir();
    server_ = testing::StartS3rver(dir_->path() / "s3rver", kBucket, &problem_).release();
  }
  static void TearDownTestSuite() {
    delete server_;
    delete dir_;
    server_ = nullptr;
    dir_ = nullptr;
  }

  void SetUp() override {
    ASSERT_NE(server_, nullptr) << problem_;
    settings_.endpoint = server_->url();
    settings_.region = "us-east-1";
    settings_.bucket = kBucket;
    settings_.access_key = "S3RVER";
    settings_.secret_key = "S3RVER";
    settings_.path_style = true;
    settings_.key_prefix = "attachments/";
  }

  std::unique_ptr<AttachmentService> StartService(const S3Settings& settings) {
    AttachmentServiceOptions options;
    options.data_dir = data_.path();
    options.database = testing::FreshRecordsDatabase();
    options.tokens = {"alpha"};
    options.s3 = settings;
    ErrorRef error;
    auto service = AttachmentService::Create(std::move(options), &error);
    EXPECT_TRUE(service) << error->summary();
    if (service && !service->start(&error)) {
      ADD_FAILURE() << error->summary();
      return nullptr;
    }
    return service;
  }

  static testing::TempDir* dir_;
  static testing::ListeningServer* server_;
  static std::string problem_;
  testing::TempDir data_;
  S3Settings settings_;
};

testing::TempDir* S3ModeTest::dir_ = nullptr;
testing::ListeningServer* S3ModeTest::server_ = nullptr;
std::string S3ModeTest::problem_;

TEST_F(S3ModeTest, RoundTrip) {
  auto service = StartService(settings_);
  ASSERT_TRUE(service);
  ApiClient api{service->baseURL()};
  EXPECT_EQ(Send("GET", service->baseURL() + "/readyz").status, 200) << "a HEAD of the bucket";
  const std::string bytes = TestBytes(200000, 7);

  HttpReply started = api.start(bytes.size());
  ASSERT_EQ(started.status, 201) << started.body;
  const std::string uuid = started.json()["uuid"];
  const std::string upload = started.json()["upload_url"];
  EXPECT_EQ(upload.rfind(server_->url() + "/vmtest/attachments/" + uuid + "?", 0), 0u) << upload;

  EXPECT_EQ(api.confirm(uuid, bytes.size()).status, 409) << "nothing uploaded yet";
  ASSERT_EQ(Send("PUT", upload, bytes.substr(1)).status, 200);
  EXPECT_EQ(api.confirm(uuid, bytes.size()).status, 409) << "one byte short";
  ASSERT_EQ(Send("PUT", upload, bytes).status, 200);
  HttpReply confirmed = api.confirm(uuid, bytes.size());
  ASSERT_EQ(confirmed.status, 200) << confirmed.body;

  HttpReply info = api.info(uuid);
  ASSERT_EQ(info.status, 200) << info.body;
  const std::string download = info.json()["download_url"];
  HttpReply downloaded = Send("GET", download);
  EXPECT_EQ(downloaded.status, 200);
  EXPECT_TRUE(downloaded.body == bytes) << "downloaded bytes differ";

  EXPECT_EQ(api.remove(uuid).status, 204);
  EXPECT_EQ(Send("GET", download).status, 404) << "the object is gone from the bucket";
  EXPECT_EQ(api.info(uuid).status, 404);
}

// Requests reuse each other's handles and connections: a HEAD after a DELETE on the same
// storage must still be a HEAD with its own answer, from several threads at once.
TEST_F(S3ModeTest, ReusedConnectionsKeepEachRequestApart) {
  auto storage = S3Storage::Create(
      settings_, [] { return std::chrono::system_clock::now(); }, nullptr);
  ASSERT_TRUE(storage);
  // s3rver removes a folder left empty, racing with a concurrent PUT into it: one object
  // stays in the bucket's folder throughout.
  ASSERT_EQ(Send("PUT", storage->uploadURL("reuse-keep", std::chrono::seconds(60)), "1").status,
            200);
  std::vector<std::string> failures(4);
  {
    std::vector<std::jthread> threads;
    for (std::size_t t = 0; t < failures.size(); ++t) {
      threads.emplace_back([&storage, &failure = failures[t], t] {
        for (int i = 0; i < 5 && failure.empty(); ++i) {
          const std::string key = "reuse-" + std::to_string(t) + "-" + std::to_string(i);
          const std::string bytes(10 * (t + 1) + i, 'x');
          StoredObject object;
          ErrorRef error;
          if (Send("PUT", storage->uploadURL(key, std::chrono::seconds(60)), bytes).status != 200 ||
              !storage->statObject(key, &object, &error) || !object.exists ||
              object.size != bytes.size() || !storage->removeObject(key, &error) ||
              !storage->statObject(key, &object, &error) || object.exists) {
            failure = key + (error ? ": " + error->summary() : std::string(": wrong answer"));
          }
        }
      });
    }
  }
  for (const std::string& failure : failures) EXPECT_EQ(failure, "");
}

TEST_F(S3ModeTest, StorageFailuresAreReportedNotConfirmed) {
  auto storage = S3Storage::Create(
      settings_, [] { return std::chrono::system_clock::now(); }, nullptr);
  ASSERT_TRUE(storage);
  const std::string key = "probe";
  ASSERT_EQ(Send("PUT", storage->uploadURL(key, std::chrono::seconds(60)), "1234").status, 200);

  auto past = [] { return std::chrono::system_clock::now() - std::chrono::hours(2); };
  auto stale = S3Storage::Create(settings_, past, nullptr);
  EXPECT_EQ(Send("GET", stale->downloadURL(key, std::chrono::hours(1))).status, 403)
      << "an expired URL";
  EXPECT_EQ(Send("GET", storage->downloadURL(key, std::chrono::hours(1))).body, "1234");

  S3Settings wrong_key = settings_;
  wrong_key.access_key = "NOT-S3RVER";
  S3Settings unreachable = settings_;
  unreachable.endpoint = "http://127.0.0.1:1";
  for (const S3Settings& broken : {wrong_key, unreachable}) {
    SCOPED_TRACE(broken.endpoint + " " + broken.access_key);
    auto bad = S3Storage::Create(
        broken, [] { return std::chrono::system_clock::now(); }, nullptr);
    StoredObject object;
    ErrorRef error;
    EXPECT_FALSE(bad->statObject(key, &object, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), "vmcloudd");
    EXPECT_EQ(error->localizedDescription().find("X-Amz-Signature"), std::string::npos)
        << "errors must not carry signed URLs";
  }

  // Through the API: a provider that refuses the service makes it unready, gives 502 and
  // keeps "new".
  auto service = StartService(wrong_key);
  ASSERT_TRUE(service);
  EXPECT_EQ(Send("GET", service->baseURL() + "/readyz").status, 503);
  EXPECT_EQ(Send("GET", service->baseURL() + "/healthz").status, 200);
  ApiClient api{service->baseURL()};
  HttpReply started = api.start(4);
  ASSERT_EQ(started.status, 201);
  EXPECT_EQ(api.confirm(started.json()["uuid"], 4).status, 502);
  EXPECT_EQ(api.info(started.json()["uuid"]).status, 404);
}

}  // namespace
}  // namespace vm
