#include "platform/DispatchQueue.h"

#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>

#include <atomic>

namespace vm {
namespace {

// Static initialisation runs on the thread that starts the process.
std::atomic<std::thread::id> main_thread_id{std::this_thread::get_id()};

boost::asio::thread_pool& Pool() {
  // Never destroyed: tasks may still be queued when the process exits.
  static auto* pool = new boost::asio::thread_pool(
      std::max(4u, std::thread::hardware_concurrency()));
  return *pool;
}

class PoolQueue : public DispatchQueue {
 public:
  void async(Task task) override { boost::asio::post(Pool(), std::move(task)); }
};

class StrandQueue : public DispatchQueue {
 public:
  StrandQueue() : strand_(Pool().get_executor()) {}
  void async(Task task) override { boost::asio::post(strand_, std::move(task)); }

 private:
  boost::asio::strand<boost::asio::thread_pool::executor_type> strand_;
};

}  // namespace

MainQueue& MainQueue::shared() {
  static auto* queue = new MainQueue;
  return *queue;
}

bool MainQueue::isMainThread() { return std::this_thread::get_id() == main_thread_id.load(); }

void MainQueue::adoptCurrentThreadAsMain() { main_thread_id.store(std::this_thread::get_id()); }

void MainQueue::async(Task task) {
  {
    std::lock_guard lock(mu_);
    tasks_.push_back(std::move(task));
  }
  cv_.notify_all();
}

bool MainQueue::runOne(std::unique_lock<std::mutex>& lock) {
  if (tasks_.empty()) return false;
  Task task = std::move(tasks_.front());
  tasks_.pop_front();
  lock.unlock();
  task();
  lock.lock();
  return true;
}

int MainQueue::runUntil(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock lock(mu_);
  if (!isMainThread()) {
    // Not ours to drain: wait out the slice so that callers polling a flag keep their pace.
    lock.unlock();
    std::this_thread::sleep_until(deadline);
    return 0;
  }
  int ran = 0;
  while (std::chrono::steady_clock::now() < deadline) {
    if (runOne(lock)) {
      ++ran;
      continue;
    }
    cv_.wait_until(lock, deadline, [this] { return !tasks_.empty(); });
  }
  return ran;
}

int MainQueue::drainPending() {
  if (!isMainThread()) return 0;
  std::unique_lock lock(mu_);
  int ran = 0;
  while (runOne(lock)) ++ran;
  return ran;
}

bool MainQueue::runUntilCondition(const std::function<bool()>& done,
                                  std::chrono::steady_clock::time_point deadline) {
  using namespace std::chrono_literals;
  while (!done()) {
    auto now = std::chrono::steady_clock::now();
    if (now >= deadline) break;
    runUntil(std::min(deadline, now + 10ms));
  }
  return done();
}

DispatchQueue& BackgroundQueue() {
  static auto* queue = new PoolQueue;
  return *queue;
}

std::shared_ptr<DispatchQueue> MakeSerialQueue() { return std::make_shared<StrandQueue>(); }

}  // namespace vm
