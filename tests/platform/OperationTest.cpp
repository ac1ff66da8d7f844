#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "platform/Operation.h"

namespace vm {
namespace {

using namespace std::chrono_literals;

std::vector<std::string> Watch(Operation& operation, std::mutex& mu,
                               std::vector<std::string>& log) {
  for (const char* key : {"executing", "finished", "ready", "cancelled"}) {
    operation.addObserver(key, [&mu, &log](Operation&, const KeyValueChange& change) {
      std::lock_guard lock(mu);
      log.push_back(std::string(change.isPrior ? "will " : "did ") + std::string(change.key));
    });
  }
  return log;
}

TEST(OperationTest, SynchronousStartAnnouncesEachChangeBeforeAndAfter) {
  auto operation = std::make_shared<BlockOperation>([] {});
  std::mutex mu;
  std::vector<std::string> log;
  Watch(*operation, mu, log);
  std::atomic<int> completions{0};
  operation->setCompletionBlock([&] { ++completions; });
  EXPECT_TRUE(operation->isReady());
  operation->start();
  operation->start();  // a second start does nothing
  EXPECT_TRUE(operation->isFinished());
  EXPECT_FALSE(operation->isExecuting());
  EXPECT_EQ(log, (std::vector<std::string>{"will executing", "did executing", "will executing",
                                           "will finished", "did executing", "did finished"}));
  while (completions.load() == 0) std::this_thread::sleep_for(1ms);
  std::this_thread::sleep_for(10ms);
  EXPECT_EQ(completions.load(), 1);
}

TEST(OperationTest, CancelledOperationFinishesWithoutRunning) {
  bool ran = false;
  auto operation = std::make_shared<BlockOperation>([&] { ran = true; });
  auto blocker = std::make_shared<BlockOperation>([] {});
  operation->addDependency(blocker);
  EXPECT_FALSE(operation->isReady());
  operation->cancel();
  EXPECT_TRUE(operation->isReady()) << "a cancelled operation does not wait for dependencies";
  operation->start();
  EXPECT_TRUE(operation->isFinished());
  EXPECT_FALSE(ran);
}

TEST(OperationTest, QueueHonoursDependenciesAndLimit) {
  OperationQueue queue;
  std::mutex mu;
  std::vector<int> order;
  std::atomic<int> running{0};
  std::atomic<int> most{0};
  auto step = [&](int n) {
    return std::make_shared<BlockOperation>([&, n] {
      int now = ++running;
      int seen = most.load();
      while (now > seen && !most.compare_exchange_weak(seen, now)) {
      }
      std::this_thread::sleep_for(2ms);
      {
        std::lock_guard lock(mu);
        order.push_back(n);
      }
      --running;
    });
  };
  auto a = step(1), b = step(2), c = step(3);
  c->addDependency(b);
  b->addDependency(a);
  queue.addOperation(c);
  queue.addOperation(b);
  queue.addOperation(a);
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(queue.operationCount(), 0u);

  queue.setMaxConcurrentOperationCount(1);
  most = 0;
  for (int i = 0; i < 6; ++i) queue.addOperation(step(10 + i));
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(most.load(), 1);
}

// Ends through its own state, later, from another thread.
class LaterOperation : public Operation {
 public:
  bool isConcurrent() const override { return true; }
  bool isExecuting() const override { return state_ == 1; }
  bool isFinished() const override { return state_ == 2; }
  void start() override {
    set(1);
    worker_ = std::thread([this] {
      std::this_thread::sleep_for(5ms);
      set(2);
    });
  }
  ~LaterOperation() override {
    if (worker_.joinable()) worker_.join();
  }

 private:
  void set(int state) {
    willChangeValueForKey("executing");
    willChangeValueForKey("finished");
    state_ = state;
    didChangeValueForKey("executing");
    didChangeValueForKey("finished");
  }
  std::atomic<int> state_{0};
  std::thread worker_;
};

TEST(OperationTest, AsynchronousOperationEndsThroughItsOwnState) {
  OperationQueue queue;
  auto operation = std::make_shared<LaterOperation>();
  std::atomic<bool> completed{false};
  operation->setCompletionBlock([&] { completed = true; });
  queue.addOperation(operation);
  operation->waitUntilFinished();
  queue.waitUntilAllOperationsAreFinished();
  while (!completed.load()) std::this_thread::sleep_for(1ms);
  EXPECT_TRUE(operation->isFinished());
}

TEST(OperationTest, MainOperationQueueRunsBlocksOnTheMainThread) {
  std::atomic<int> on_main{0};
  for (int i = 0; i < 3; ++i) {
    OperationQueue::mainQueue().addOperationWithBlock([&] {
      if (MainQueue::isMainThread()) ++on_main;
    });
  }
  EXPECT_TRUE(MainQueue::shared().runUntilCondition(
      [&] { return OperationQueue::mainQueue().operationCount() == 0; },
      std::chrono::steady_clock::now() + 10s));
  EXPECT_EQ(on_main.load(), 3);
}

}  // namespace
}  // namespace vm
