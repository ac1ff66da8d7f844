#ifndef VM_PLATFORM_DISPATCHQUEUE_H_
#define VM_PLATFORM_DISPATCHQUEUE_H_

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace vm {

using Task = std::function<void()>;

// Somewhere to run work later. Thread-safe: async() may be called from any thread.
class DispatchQueue {
 public:
  virtual ~DispatchQueue() = default;
  virtual void async(Task task) = 0;
};

// The process's main queue: a serial queue that only the main thread drains, by calling
// runUntil() (or drainPending()). The main thread is the thread that started the process
// unless the host names another with adoptCurrentThreadAsMain() before any work is queued.
//
// Thread-safe. The object lives for the whole process.
class MainQueue : public DispatchQueue {
 public:
  static MainQueue& shared();

  void async(Task task) override;

  // On the main thread: runs queued tasks, in order, until `deadline`, sleeping while the
  // queue is empty. Returns the number of tasks run. On any other thread it runs nothing
  // and waits until the deadline (the synchronous waits of the share schemes rely on it).
  int runUntil(std::chrono::steady_clock::time_point deadline);
  // On the main thread: runs the tasks queued so far and those they queue, until the queue
  // is empty. Returns the number of tasks run.
  int drainPending();
  // Runs the queue until `done()` is true or the deadline passes; returns done().
  bool runUntilCondition(const std::function<bool()>& done,
                         std::chrono::steady_clock::time_point deadline);

  static bool isMainThread();
  void adoptCurrentThreadAsMain();

 private:
  MainQueue() = default;
  bool runOne(std::unique_lock<std::mutex>& lock);

  std::mutex mu_;
  std::condition_variable cv_;
  std::deque<Task> tasks_;
};

// The global concurrent queue of background priority, shared by the process: a thread
// pool. Thread-safe; lives for the whole process.
DispatchQueue& BackgroundQueue();

// A serial queue of its own on the background pool: tasks run one at a time, in order.
std::shared_ptr<DispatchQueue> MakeSerialQueue();

}  // namespace vm

#endif  // VM_PLATFORM_DISPATCHQUEUE_H_
