#include "platform/Progress.h"

#include <algorithm>

namespace vm {

std::shared_ptr<Progress> Progress::progressWithTotalUnitCount(std::int64_t total) {
  auto progress = std::make_shared<Progress>();
  progress->total_.store(total);
  return progress;
}

void Progress::setTotalUnitCount(std::int64_t total) {
  total_.store(total);
  notify();
}

void Progress::setCompletedUnitCount(std::int64_t completed) {
  completed_.store(completed);
  notify();
}

double Progress::fractionCompleted() const {
  std::int64_t total = total_.load();
  if (total <= 0) return 0.0;
  return static_cast<double>(completed_.load()) / static_cast<double>(total);
}

void Progress::pause() {
  paused_.store(true);
  notify();
}

void Progress::resume() {
  paused_.store(false);
  notify();
}

void Progress::cancel() {
  cancelled_.store(true);
  notify();
}

int Progress::addObserver(Observer observer) {
  std::lock_guard lock(mu_);
  int token = next_token_++;
  observers_.emplace_back(token, std::make_shared<Observer>(std::move(observer)));
  return token;
}

void Progress::removeObserver(int token) {
  std::lock_guard lock(mu_);
  observers_.erase(std::remove_if(observers_.begin(), observers_.end(),
                                  [token](const auto& entry) { return entry.first == token; }),
                   observers_.end());
}

void Progress::notify() {
  std::vector<std::shared_ptr<Observer>> observers;
  {
    std::lock_guard lock(mu_);
    for (const auto& entry : observers_) observers.push_back(entry.second);
  }
  for (const auto& observer : observers) (*observer)(*this);
}

}  // namespace vm
