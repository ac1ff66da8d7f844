#include "platform/DispatchQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <vector>

namespace vm {
namespace {

using namespace std::chrono_literals;

TEST(DispatchQueueTest, MainQueueRunsTasksInOrderOnTheMainThreadOnly) {
  ASSERT_TRUE(MainQueue::isMainThread());
  std::vector<int> order;
  std::atomic<bool> done{false};
  BackgroundQueue().async([&] {
    for (int i = 0; i < 5; ++i) MainQueue::shared().async([&order, i] { order.push_back(i); });
    MainQueue::shared().async([&] {
      EXPECT_TRUE(MainQueue::isMainThread());
      done = true;
    });
  });
  EXPECT_TRUE(MainQueue::shared().runUntilCondition([&] { return done.load(); },
                                                    std::chrono::steady_clock::now() + 5s));
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST(DispatchQueueTest, RunUntilOffTheMainThreadOnlyWaits) {
  std::atomic<bool> ran{false};
  MainQueue::shared().async([&] { ran = true; });
  auto waited = std::async(std::launch::async, [] {
    auto start = std::chrono::steady_clock::now();
    int count = MainQueue::shared().runUntil(start + 50ms);
    EXPECT_EQ(count, 0);
    return std::chrono::steady_clock::now() - start;
  });
  EXPECT_GE(waited.get(), 50ms);
  EXPECT_FALSE(ran.load());
  EXPECT_EQ(MainQueue::shared().drainPending(), 1);
  EXPECT_TRUE(ran.load());
}

TEST(DispatchQueueTest, SerialQueueKeepsOrder) {
  auto queue = MakeSerialQueue();
  std::vector<int> order;
  std::promise<void> finished;
  for (int i = 0; i < 100; ++i) queue->async([&order, i] { order.push_back(i); });
  queue->async([&] { finished.set_value(); });
  ASSERT_EQ(finished.get_future().wait_for(5s), std::future_status::ready);
  ASSERT_EQ(order.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
}

}  // namespace
}  // namespace vm
