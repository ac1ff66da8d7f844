#include "platform/Operation.h"

#include <algorithm>
#include <stdexcept>

namespace vm {

// ---- Operation ----------------------------------------------------------------------------

void Operation::start() {
  if (started_.exchange(true)) return;
  if (isCancelled()) {
    willChangeValueForKey("finished");
    finished_.store(true);
    didChangeValueForKey("finished");
    return;
  }
  willChangeValueForKey("executing");
  executing_.store(true);
  didChangeValueForKey("executing");
  main();
  willChangeValueForKey("executing");
  willChangeValueForKey("finished");
  executing_.store(false);
  finished_.store(true);
  didChangeValueForKey("executing");
  didChangeValueForKey("finished");
}

bool Operation::isReady() const {
  if (isCancelled()) return true;
  std::vector<std::shared_ptr<Operation>> dependencies;
  {
    std::lock_guard lock(mu_);
    dependencies = dependencies_;
  }
  return std::all_of(dependencies.begin(), dependencies.end(),
                     [](const auto& dependency) { return dependency->isFinished(); });
}

void Operation::cancel() {
  if (isCancelled()) return;
  willChangeValueForKey("cancelled");
  willChangeValueForKey("ready");
  cancelled_.store(true);
  didChangeValueForKey("cancelled");
  didChangeValueForKey("ready");
}

void Operation::addDependency(std::shared_ptr<Operation> dependency) {
  std::weak_ptr<Operation> weak_self = weak_from_this();
  {
    std::lock_guard lock(mu_);
    dependencies_.push_back(dependency);
  }
  // The dependent's readiness changes when the dependency finishes.
  dependency->addObserver("finished",
                          [weak_self](Operation& finished, const KeyValueChange& change) {
                            if (change.isPrior || !finished.isFinished()) return;
                            if (auto self = weak_self.lock()) {
                              self->willChangeValueForKey("ready");
                              self->didChangeValueForKey("ready");
                            }
                          });
}

std::vector<std::shared_ptr<Operation>> Operation::dependencies() const {
  std::lock_guard lock(mu_);
  return dependencies_;
}

void Operation::setCompletionBlock(std::function<void()> block) {
  std::lock_guard lock(mu_);
  completion_ = std::move(block);
}

int Operation::addObserver(std::string key, Observer observer) {
  std::lock_guard lock(mu_);
  int token = next_token_++;
  observers_.push_back({token, std::move(key), std::make_shared<Observer>(std::move(observer))});
  return token;
}

void Operation::removeObserver(int token) {
  std::lock_guard lock(mu_);
  observers_.erase(std::remove_if(observers_.begin(), observers_.end(),
                                  [token](const Registration& r) { return r.token == token; }),
                   observers_.end());
}

void Operation::waitUntilFinished() {
  std::unique_lock lock(mu_);
  finished_cv_.wait(lock, [this] { return isFinished(); });
}

void Operation::willChangeValueForKey(std::string_view key) { notify(key, true); }

void Operation::didChangeValueForKey(std::string_view key) {
  notify(key, false);
  if (key != "finished" || !isFinished()) return;
  std::function<void()> completion;
  {
    std::lock_guard lock(mu_);
    if (!completion_ran_.exchange(true)) completion = std::move(completion_);
    completion_ = nullptr;
  }
  finished_cv_.notify_all();
  if (completion) BackgroundQueue().async(std::move(completion));
}

void Operation::notify(std::string_view key, bool prior) {
  std::vector<std::shared_ptr<Observer>> observers;
  {
    std::lock_guard lock(mu_);
    for (const Registration& r : observers_) {
      if (r.key == key) observers.push_back(r.observer);
    }
  }
  KeyValueChange change{key, prior};
  for (const auto& observer : observers) (*observer)(*this, change);
}

void BlockOperation::main() {
  if (block_) block_();
}

// ---- OperationQueue -----------------------------------------------------------------------

struct OperationQueue::Core : std::enable_shared_from_this<OperationQueue::Core> {
  struct Entry {
    std::shared_ptr<Operation> operation;
    bool started = false;
    int ready_token = 0;
    int finished_token = 0;
  };

  DispatchQueue* starter;
  mutable std::mutex mu;
  std::condition_variable idle;
  int max_concurrent;
  int started_count = 0;
  std::vector<Entry> entries;

  Core(DispatchQueue* s, int max) : starter(s), max_concurrent(max) {}

  void add(std::shared_ptr<Operation> operation) {
    std::weak_ptr<Core> weak = weak_from_this();
    Entry entry;
    entry.operation = operation;
    entry.ready_token =
        operation->addObserver("ready", [weak](Operation&, const KeyValueChange& change) {
          if (change.isPrior) return;
          if (auto core = weak.lock()) core->startReady();
        });
    entry.finished_token =
        operation->addObserver("finished", [weak](Operation& op, const KeyValueChange& change) {
          if (change.isPrior || !op.isFinished()) return;
          if (auto core = weak.lock()) core->finished(op);
        });
    {
      std::lock_guard lock(mu);
      entries.push_back(std::move(entry));
    }
    startReady();
  }

  void startReady() {
    std::vector<std::shared_ptr<Operation>> to_start;
    {
      std::lock_guard lock(mu);
      for (Entry& entry : entries) {
        if (max_concurrent >= 0 && started_count >= max_concurrent) break;
        if (entry.started || !entry.operation->isReady()) continue;
        entry.started = true;
        ++started_count;
        to_start.push_back(entry.operation);
      }
    }
    for (auto& operation : to_start) starter->async([operation] { operation->start(); });
  }

  void finished(Operation& operation) {
    Entry entry;
    {
      std::lock_guard lock(mu);
      auto it = std::find_if(entries.begin(), entries.end(),
                             [&](const Entry& e) { return e.operation.get() == &operation; });
      if (it == entries.end()) return;
      entry = std::move(*it);
      entries.erase(it);
      if (entry.started) --started_count;
    }
    idle.notify_all();
    entry.operation->removeObserver(entry.ready_token);
    entry.operation->removeObserver(entry.finished_token);
    startReady();
  }
};

OperationQueue::OperationQueue()
    : OperationQueue(&BackgroundQueue(), kDefaultMaxConcurrentOperationCount) {}

OperationQueue::OperationQueue(DispatchQueue* starter, int maxConcurrent)
    : core_(std::make_shared<Core>(starter, maxConcurrent)) {}

OperationQueue::~OperationQueue() = default;

OperationQueue& OperationQueue::mainQueue() {
  static auto* queue = new OperationQueue(&MainQueue::shared(), 1);
  return *queue;
}

void OperationQueue::addOperation(std::shared_ptr<Operation> operation) {
  if (!operation) throw std::invalid_argument("OperationQueue::addOperation: no operation");
  if (operation->isFinished() || operation->isExecuting()) {
    throw std::invalid_argument(
        "OperationQueue::addOperation: operation is finished or executing already");
  }
  core_->add(std::move(operation));
}

void OperationQueue::addOperationWithBlock(std::function<void()> block) {
  addOperation(std::make_shared<BlockOperation>(std::move(block)));
}

int OperationQueue::maxConcurrentOperationCount() const {
  std::lock_guard lock(core_->mu);
  return core_->max_concurrent;
}

void OperationQueue::setMaxConcurrentOperationCount(int count) {
  {
    std::lock_guard lock(core_->mu);
    core_->max_concurrent = count;
  }
  core_->startReady();
}

std::vector<std::shared_ptr<Operation>> OperationQueue::operations() const {
  std::lock_guard lock(core_->mu);
  std::vector<std::shared_ptr<Operation>> result;
  for (const auto& entry : core_->entries) result.push_back(entry.operation);
  return result;
}

std::size_t OperationQueue::operationCount() const {
  std::lock_guard lock(core_->mu);
  return core_->entries.size();
}

void OperationQueue::cancelAllOperations() {
  for (const auto& operation : operations()) operation->cancel();
}

void OperationQueue::waitUntilAllOperationsAreFinished() {
  std::unique_lock lock(core_->mu);
  core_->idle.wait(lock, [this] { return core_->entries.empty(); });
}

}  // namespace vm
