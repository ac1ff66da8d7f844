// Several service instances sharing one PostgreSQL database and one S3 bucket (s3rver),
// all real and on 127.0.0.1: what one instance starts, another confirms, serves or deletes,
// and races between instances are settled by the database.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <barrier>
#include <thread>

#include "services/vmcloudd/AttachmentService.h"
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

constexpr const char* kBucket = "shared";

class MultiInstanceTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new testing::TempDir();
    s3_ = testing::StartS3rver(dir_->path() / "s3rver", kBucket, &problem_).release();
  }
  static void TearDownTestSuite() {
    delete s3_;
    delete dir_;
  }

  void SetUp() override {
    ASSERT_NE(s3_, nullptr) << problem_;
    database_ = testing::FreshPostgresDatabase();
    ASSERT_FALSE(database_.empty());
    settings_.endpoint = s3_->url();
    settings_.region = "us-east-1";
    settings_.bucket = kBucket;
    settings_.access_key = testing::kS3rverKey;
    settings_.secret_key = testing::kS3rverKey;
    settings_.path_style = true;
    settings_.key_prefix = "multi/";
  }

  // An in-process instance on the shared records; S3 storage unless `data_dir` is given,
  // which makes it an embedded-storage instance on that blob folder.
  std::unique_ptr<AttachmentService> Instance(const std::filesystem::path& data_dir = {}) {
    AttachmentServiceOptions options;
    options.data_dir =
        data_dir.empty() ? instance_dirs_.path() / std::to_string(instances_++) : data_dir;
    options.database = database_;
    options.tokens = {"alpha"};
    if (data_dir.empty()) options.s3 = settings_;
    options.clock = [this] { return std::chrono::system_clock::now() + skew_.load(); };
    ErrorRef error;
    auto service = AttachmentService::Create(std::move(options), &error);
    EXPECT_TRUE(service) << error->summary();
    if (service) {
      EXPECT_TRUE(service->start(&error)) << error->summary();
    }
    return service;
  }

  // Starts on `on`, PUTs `bytes` to the storage provider; returns the UUID.
  static std::string Started(const ApiClient& on, const std::string& bytes) {
    HttpReply started = on.start(bytes.size());
    EXPECT_EQ(started.status, 201) << started.body;
    EXPECT_EQ(Send("PUT", started.json()["upload_url"], bytes).status, 200);
    return started.json()["uuid"];
  }

  static testing::TempDir* dir_;
  static testing::ListeningServer* s3_;
  static std::string problem_;
  testing::TempDir instance_dirs_;
  int instances_ = 0;
  std::string database_;
  S3Settings settings_;
  std::atomic<std::chrono::seconds> skew_{std::chrono::seconds(0)};
};

testing::TempDir* MultiInstanceTest::dir_ = nullptr;
testing::ListeningServer* MultiInstanceTest::s3_ = nullptr;
std::string MultiInstanceTest::problem_;

TEST_F(MultiInstanceTest, ACycleMovesBetweenInstances) {
  auto first = Instance();
  auto second = Instance();
  ASSERT_TRUE(first && second);
  ApiClient a{first->baseURL()};
  ApiClient b{second->baseURL()};

  const std::string bytes = TestBytes(70000, 9);
  const std::string uuid = Started(a, bytes);
  EXPECT_EQ(b.confirm(uuid, bytes.size()).status, 200);
  HttpReply info = a.info(uuid);
  ASSERT_EQ(info.status, 200);
  EXPECT_EQ(info.json()["state"], "uploaded");
  EXPECT_EQ(Send("GET", info.json()["download_url"]).body, bytes);
  EXPECT_EQ(a.remove(uuid).status, 204);
  EXPECT_EQ(b.info(uuid).status, 404) << "the other instance sees the deletion";
}

TEST_F(MultiInstanceTest, RacingConfirmsAndDeletesEndConsistent) {
  auto first = Instance();
  auto second = Instance();
  ASSERT_TRUE(first && second);
  ApiClient a{first->baseURL()};
  ApiClient b{second->baseURL()};
  constexpr int kRounds = 12;

  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE(round);
    const std::string bytes = TestBytes(1000 + round, round);
    const std::string uuid = Started(a, bytes);
    // Even rounds: the same confirmation on both at once. Odd rounds: a confirmation on
    // one racing a deletion on the other.
    const bool with_delete = round % 2 == 1;
    HttpReply replies[2];
    std::barrier go(2);
    std::thread other([&] {
      go.arrive_and_wait();
      replies[1] = with_delete ? b.remove(uuid) : b.confirm(uuid, bytes.size());
    });
    go.arrive_and_wait();
    replies[0] = a.confirm(uuid, bytes.size());
    other.join();

    for (const HttpReply& reply : replies) EXPECT_LT(reply.status, 500) << reply.body;
    HttpReply info = b.info(uuid);
    if (!with_delete) {
      // Idempotent: both answer as two confirmations one after the other do.
      EXPECT_EQ(replies[0].status, 200);
      EXPECT_EQ(replies[1].status, 200);
      ASSERT_EQ(info.status, 200);
      EXPECT_EQ(Send("GET", info.json()["download_url"]).body, bytes);
    } else {
      EXPECT_EQ(replies[1].status, 204);
      EXPECT_TRUE(replies[0].status == 200 || replies[0].status == 409) << replies[0].body;
      EXPECT_EQ(info.status, 404) << "the deletion wins whatever the order";
      EXPECT_EQ(a.confirm(uuid, bytes.size()).status, 409);
    }
  }
}

TEST_F(MultiInstanceTest, EmbeddedInstancesShareTheirURLSigningKey) {
  // Two instances on one machine, one blob folder and one database: a URL signed by one is
  // accepted by the other.
  const auto blobs = instance_dirs_.path() / "shared-data";
  auto first = Instance(blobs);
  auto second = Instance(blobs);
  ASSERT_TRUE(first && second);
  ApiClient a{first->baseURL()};
  ApiClient b{second->baseURL()};
  auto moved = [&](std::string url) {
    return url.replace(0, first->baseURL().size(), second->baseURL());
  };

  const std::string bytes = TestBytes(500, 5);
  HttpReply started = a.start(bytes.size());
  ASSERT_EQ(started.status, 201);
  EXPECT_EQ(Send("PUT", moved(started.json()["upload_url"]), bytes).status, 200);
  EXPECT_EQ(b.confirm(started.json()["uuid"], bytes.size()).status, 200);
}

TEST_F(MultiInstanceTest, StaleUploadsAreSweptOnce) {
  auto first = Instance();
  auto second = Instance();
  ASSERT_TRUE(first && second);
  ApiClient a{first->baseURL()};
  constexpr int kStale = 30;
  skew_ = -std::chrono::hours(48);  // announced two days ago; no bytes ever arrived
  for (int i = 0; i < kStale; ++i) ASSERT_EQ(a.start(10).status, 201);
  skew_ = std::chrono::seconds(0);

  std::atomic<std::size_t> removed{0};
  std::barrier go(2);
  std::thread other([&] {
    go.arrive_and_wait();
    removed += second->sweepStaleUploads();
  });
  go.arrive_and_wait();
  removed += first->sweepStaleUploads();
  other.join();
  EXPECT_EQ(removed.load(), static_cast<std::size_t>(kStale)) << "each swept exactly once";
}

// A real vmcloudd process on the shared records and bucket; null (with the reason in
// `*problem`) when it did not start.
std::unique_ptr<testing::ListeningServer> ServiceProcess(const std::filesystem::path& dir,
                                                         const std::string& database,
                                                         const S3Settings& s3,
                                                         std::string* problem) {
  std::filesystem::create_directories(dir);
  return testing::ListeningServer::Start(
      {VMCLOUDD_PATH, "--listen",    "127.0.0.1:0",     "--data",          dir.string(),
       "--db",        database,      "--token",         "alpha",           "--s3-endpoint",
       s3.endpoint,   "--s3-bucket", s3.bucket,         "--s3-access-key", s3.access_key,
       "--s3-secret", s3.secret_key, "--s3-path-style", "--s3-prefix",     s3.key_prefix},
      dir / "vmcloudd.log", problem);
}

TEST_F(MultiInstanceTest, AKilledInstanceLosesNothingConfirmed) {
  std::string problem;
  auto doomed = ServiceProcess(instance_dirs_.path() / "doomed", database_, settings_, &problem);
  ASSERT_TRUE(doomed) << problem;
  auto survivor =
      ServiceProcess(instance_dirs_.path() / "survivor", database_, settings_, &problem);
  ASSERT_TRUE(survivor) << problem;
  ApiClient a{doomed->url()};
  ApiClient b{survivor->url()};

  // Cycles on the doomed instance until it is killed in the middle of one.
  std::mutex mu;
  std::vector<std::pair<std::string, std::string>> confirmed;  // uuid, bytes
  std::atomic<bool> stop{false};
  std::thread cycles([&] {
    for (int i = 0; i < 2000 && !stop; ++i) {
      const std::string bytes = TestBytes(2000 + i, 1000 + i);
      HttpReply started = a.start(bytes.size());
      if (started.status != 201) break;
      const std::string uuid = started.json()["uuid"];
      if (Send("PUT", started.json()["upload_url"], bytes).status != 200) break;
      if (a.confirm(uuid, bytes.size()).status != 200) break;
      std::lock_guard lock(mu);
      confirmed.emplace_back(uuid, bytes);
    }
  });
  for (int i = 0; i < 200; ++i) {
    {
      std::lock_guard lock(mu);
      if (confirmed.size() >= 10) break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  kill(doomed->pid(), SIGKILL);
  doomed->stop();  // reaps it
  stop = true;
  cycles.join();

  ASSERT_GE(confirmed.size(), 10u);
  for (const auto& [uuid, bytes] : confirmed) {
    HttpReply info = b.info(uuid);
    ASSERT_EQ(info.status, 200) << uuid;
    EXPECT_EQ(Send("GET", info.json()["download_url"]).body, bytes) << uuid;
  }
}

}  // namespace
}  // namespace vm
