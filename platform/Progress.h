#ifndef VM_PLATFORM_PROGRESS_H_
#define VM_PLATFORM_PROGRESS_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace vm {

// How much of a piece of work is done: total and completed unit counts, pausable,
// cancellable, observable.
//
// Thread-safe. Observers are called on the thread that changed the value, after the
// change, without the progress's lock held; they must not remove themselves while called.
class Progress {
 public:
  using Observer = std::function<void(const Progress&)>;

  static std::shared_ptr<Progress> progressWithTotalUnitCount(std::int64_t total);

  std::int64_t totalUnitCount() const { return total_.load(); }
  std::int64_t completedUnitCount() const { return completed_.load(); }
  void setTotalUnitCount(std::int64_t total);
  void setCompletedUnitCount(std::int64_t completed);
  // completed / total, or 0 while the total is not positive.
  double fractionCompleted() const;

  bool isPausable() const { return pausable_.load(); }
  void setPausable(bool pausable) { pausable_.store(pausable); }
  bool isPaused() const { return paused_.load(); }
  void pause();
  void resume();
  bool isCancelled() const { return cancelled_.load(); }
  void cancel();

  // Returns a token for removeObserver().
  int addObserver(Observer observer);
  void removeObserver(int token);

 private:
  void notify();

  std::atomic<std::int64_t> total_{0};
  std::atomic<std::int64_t> completed_{0};
  std::atomic<bool> pausable_{false};
  std::atomic<bool> paused_{false};
  std::atomic<bool> cancelled_{false};
  std::mutex mu_;
  int next_token_ = 1;
  std::vector<std::pair<int, std::shared_ptr<Observer>>> observers_;
};

}  // namespace vm

#endif  // VM_PLATFORM_PROGRESS_H_
