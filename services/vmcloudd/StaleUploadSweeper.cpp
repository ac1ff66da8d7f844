#include "services/vmcloudd/StaleUploadSweeper.h"

#include <vector>

#include "platform/Log.h"

namespace vm {
namespace {

// Records claimed per statement: bounds one sweep's transaction and memory.
constexpr std::size_t kBatch = 100;

Log& SweepLog() { return Log::Get("vmcloudd", "sweep"); }

}  // namespace

StaleUploadSweeper::StaleUploadSweeper(AttachmentRecords* records, const StorageProvider* storage,
                                       ServiceClock clock, std::chrono::seconds max_age,
                                       std::chrono::seconds interval)
    : records_(records),
      storage_(storage),
      clock_(std::move(clock)),
      max_age_(max_age),
      interval_(interval) {}

StaleUploadSweeper::~StaleUploadSweeper() { stop(); }

void StaleUploadSweeper::start() {
  if (max_age_.count() <= 0 || interval_.count() <= 0 || thread_.joinable()) return;
  thread_ = std::thread([this] { run(); });
}

void StaleUploadSweeper::stop() {
  {
    std::lock_guard lock(mu_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void StaleUploadSweeper::run() {
  std::unique_lock lock(mu_);
  while (!wake_.wait_for(lock, interval_, [this] { return stopping_; })) {
    lock.unlock();
    sweepOnce();
    lock.lock();
  }
}

std::size_t StaleUploadSweeper::sweepOnce() {
  const auto cutoff = clock_() - max_age_;
  std::size_t removed = 0;
  std::vector<AttachmentRecord> claimed;
  do {
    ErrorRef error;
    if (!records_->claimStale(cutoff, kBatch, &claimed, &error)) {
      SweepLog().error("{}", error->summary());
      break;
    }
    for (const AttachmentRecord& record : claimed) {
      // The record is already "deleted", so nothing can confirm it any more; bytes that
      // cannot be removed now are logged and left behind.
      if (!storage_->removeObject(record.uuid, &error)) {
        SweepLog().error("stale upload {}: {}", record.uuid, error->summary());
        continue;
      }
      ++removed;
    }
  } while (claimed.size() == kBatch);
  swept_total_ += removed;
  if (removed > 0) SweepLog().info("removed {} stale uploads", removed);
  return removed;
}

}  // namespace vm
