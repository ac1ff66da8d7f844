// Full attachment cycles against the service while 500 slow peers hang on to it.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

#include "services/vmcloudd/AttachmentService.h"
#include "tests/services/vmcloudd/HttpTestClient.h"
#include "tests/services/vmcloudd/SlowPeers.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

using namespace std::chrono_literals;
using testing::ApiClient;
using testing::HttpReply;
using testing::Send;
using testing::SlowPeers;
using testing::TestBytes;

constexpr int kSlowPeers = 500;
constexpr int kCycles = 50;
constexpr int kCycleThreads = 5;
constexpr auto kHeaderTimeout = 8s;
constexpr auto kTransferGrace = 8s;
constexpr auto kCycleLimit = 2s;
// What the service may add to this process's memory while it holds the slow peers.
constexpr std::uint64_t kMemoryAllowance = 64u << 20;

bool FullCycle(const ApiClient& api, int seed) {
  const std::string bytes = TestBytes(2000 + seed, static_cast<unsigned>(seed));
  HttpReply started = api.start(bytes.size());
  if (started.status != 201) return false;
  const std::string uuid = started.json()["uuid"];
  if (Send("PUT", started.json()["upload_url"], bytes).status != 200) return false;
  if (api.confirm(uuid, bytes.size()).status != 200) return false;
  HttpReply info = api.info(uuid);
  return info.status == 200 && Send("GET", info.json()["download_url"]).body == bytes &&
         api.remove(uuid).status == 204;
}

TEST(AttachmentServiceLoad, FullCyclesGoOnWhileSlowPeersAreHeldAndThenDropped) {
  // Each slow peer costs two descriptors here: ours and the service's.
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
  ASSERT_GT(files.rlim_cur, rlim_t{3 * kSlowPeers});

  testing::TempDir dir;
  AttachmentServiceOptions options;
  options.data_dir = dir / "data";
  options.tokens = {"alpha"};
  options.header_timeout = kHeaderTimeout;
  options.transfer_grace = kTransferGrace;
  options.min_transfer_rate = 1024;
  ErrorRef error;
  auto service = AttachmentService::Create(std::move(options), &error);
  ASSERT_TRUE(service && service->start(&error)) << error->summary();
  ApiClient api{service->baseURL()};
  HttpReply uploading = api.start(1 << 20);
  ASSERT_EQ(uploading.status, 201);
  std::string upload_url = uploading.json()["upload_url"];
  const std::string upload_target = upload_url.substr(upload_url.find('/', 8));

  const std::uint64_t memory_before = testing::ResidentBytes();
  std::vector<SlowPeers::Peer> peers;
  for (int i = 0; i < kSlowPeers / 2; ++i) {
    peers.push_back({"POST /v1/_internal/attachment HTTP/1.1\r\nHost: 127.0.0.1\r\n",
                     "X-Slow: " + std::to_string(i) + "\r\n"});
    // Half the bodies go to the web API, half to the blob store.
    peers.push_back({i % 2 == 0 ? "POST /v1/_internal/attachment HTTP/1.1\r\nHost: x\r\n"
                                  "Authorization: Velmora alpha\r\nContent-Length: 60000\r\n\r\n"
                                : "PUT " + upload_target +
                                      " HTTP/1.1\r\nHost: x\r\nContent-Length: 1048576\r\n\r\n",
                     " "});
  }
  const auto held_since = std::chrono::steady_clock::now();
  SlowPeers slow(service->port(), std::move(peers), 250ms, /*reopen=*/false);
  ASSERT_EQ(slow.open(), kSlowPeers);

  std::atomic<int> failures{0};
  std::atomic<long> longest_ms{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kCycleThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = t; i < kCycles; i += kCycleThreads) {
        const auto began = std::chrono::steady_clock::now();
        if (!FullCycle(api, i)) ++failures;
        long took = std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::steady_clock::now() - began)
                        .count();
        long seen = longest_ms.load();
        while (took > seen && !longest_ms.compare_exchange_weak(seen, took)) {
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  const std::uint64_t memory_held = testing::ResidentBytes();
  std::printf("%d cycles beside %d slow peers: longest %ld ms; memory %+lld KiB\n", kCycles,
              kSlowPeers, longest_ms.load(),
              (static_cast<long long>(memory_held) - static_cast<long long>(memory_before)) / 1024);
  EXPECT_EQ(failures.load(), 0);
  EXPECT_LE(longest_ms.load(), std::chrono::milliseconds(kCycleLimit).count());
  ASSERT_LT(std::chrono::steady_clock::now() - held_since, kHeaderTimeout)
      << "the cycles took so long that the slow peers were no longer held";
  EXPECT_EQ(slow.open(), kSlowPeers) << "slow peers were dropped before their bounds";
  EXPECT_LT(memory_held, memory_before + kMemoryAllowance)
      << "held " << (memory_held - memory_before) / 1024 << " KiB more";

  // Headers: dropped at the header bound. Bodies: a byte every 250 ms is far below the
  // minimum rate, so they go when the grace time ends.
  EXPECT_TRUE(slow.waitAllDropped(std::chrono::duration_cast<std::chrono::milliseconds>(
      std::max(kHeaderTimeout, kTransferGrace) + 3s -
      (std::chrono::steady_clock::now() - held_since))))
      << slow.open() << " slow peers still open";
  EXPECT_EQ(FullCycle(api, 99), true) << "the service still serves afterwards";
}

}  // namespace
}  // namespace vm
