#ifndef VM_PLATFORM_OPERATION_H_
#define VM_PLATFORM_OPERATION_H_

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/DispatchQueue.h"

namespace vm {

class Operation;

// A key-value change notice: the key name ("executing", "finished", "ready", "cancelled")
// and whether it comes before the change (will) or after it (did).
struct KeyValueChange {
  std::string_view key;
  bool isPrior;
};

// One unit of work, run once by an OperationQueue (or by calling start()).
//
// A synchronous operation overrides main(); the default start() runs it and moves the
// operation through executing to finished. An asynchronous operation overrides start(),
// isExecuting(), isFinished() (and, if it likes, isReady()) and announces every change of
// those with willChangeValueForKey() / didChangeValueForKey(); it ends through its own
// state.
//
// Thread-safe. Observers are called on the thread that makes the change, without any lock
// of the operation held; they may add and remove observers. The completion block runs once,
// on a background thread, after the operation became finished. Operations are always owned
// by std::shared_ptr.
class Operation : public std::enable_shared_from_this<Operation> {
 public:
  using Observer = std::function<void(Operation& operation, const KeyValueChange& change)>;

  Operation() = default;
  virtual ~Operation() = default;
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;

  virtual void start();
  virtual void main() {}

  // Default: cancelled, or every dependency finished.
  virtual bool isReady() const;
  virtual bool isExecuting() const { return executing_.load(); }
  virtual bool isFinished() const { return finished_.load(); }
  // True for operations that run their own asynchronous work from start().
  virtual bool isConcurrent() const { return false; }
  bool isCancelled() const { return cancelled_.load(); }
  // Sets the cancelled flag, announced as "cancelled" (and "ready", which it may change).
  // What that means for the work is the operation's business.
  virtual void cancel();

  // `dependency` must finish before this operation is ready (for the default isReady()).
  void addDependency(std::shared_ptr<Operation> dependency);
  std::vector<std::shared_ptr<Operation>> dependencies() const;

  void setCompletionBlock(std::function<void()> block);

  // Returns a token for removeObserver(). `key` is the key name, e.g. "finished".
  int addObserver(std::string key, Observer observer);
  void removeObserver(int token);

  // Blocks until the operation is finished. Must not be called from the thread that
  // would finish it.
  void waitUntilFinished();

 protected:
  void willChangeValueForKey(std::string_view key);
  void didChangeValueForKey(std::string_view key);

 private:
  void notify(std::string_view key, bool prior);

  std::atomic<bool> started_{false};
  std::atomic<bool> executing_{false};
  std::atomic<bool> finished_{false};
  std::atomic<bool> cancelled_{false};
  std::atomic<bool> completion_ran_{false};

  mutable std::mutex mu_;
  std::condition_variable finished_cv_;
  std::vector<std::shared_ptr<Operation>> dependencies_;
  std::function<void()> completion_;
  int next_token_ = 1;
  struct Registration {
    int token;
    std::string key;
    std::shared_ptr<Observer> observer;
  };
  std::vector<Registration> observers_;
};

// A synchronous operation that runs one block.
class BlockOperation : public Operation {
 public:
  explicit BlockOperation(std::function<void()> block) : block_(std::move(block)) {}
  void main() override;

 private:
  std::function<void()> block_;
};

// Runs operations when they are ready, watching their "ready" and "finished" changes.
// A queue holds each operation until it finished. There is no concurrency limit unless one
// is set; operations start in the order they were added, among those that are ready.
//
// Thread-safe. A queue may go away while its operations run; they then run on without it.
class OperationQueue {
 public:
  static constexpr int kDefaultMaxConcurrentOperationCount = -1;  // no limit

  // Starts operations on the background pool.
  OperationQueue();
  ~OperationQueue();
  OperationQueue(const OperationQueue&) = delete;
  OperationQueue& operator=(const OperationQueue&) = delete;

  // The main operation queue: starts its operations on the main queue, one at a time.
  // Lives for the whole process.
  static OperationQueue& mainQueue();

  void addOperation(std::shared_ptr<Operation> operation);
  void addOperationWithBlock(std::function<void()> block);

  int maxConcurrentOperationCount() const;
  void setMaxConcurrentOperationCount(int count);

  std::vector<std::shared_ptr<Operation>> operations() const;
  std::size_t operationCount() const;
  void cancelAllOperations();
  // Blocks until every operation added so far has finished. Not on the thread that has to
  // finish them (the main thread, for the main operation queue).
  void waitUntilAllOperationsAreFinished();

 private:
  struct Core;
  explicit OperationQueue(DispatchQueue* starter, int maxConcurrent);
  std::shared_ptr<Core> core_;
};

}  // namespace vm

#endif  // VM_PLATFORM_OPERATION_H_
