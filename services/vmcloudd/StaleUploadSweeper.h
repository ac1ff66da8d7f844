#ifndef VM_SERVICES_VMCLOUDD_STALEUPLOADSWEEPER_H_
#define VM_SERVICES_VMCLOUDD_STALEUPLOADSWEEPER_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>

#include "services/vmcloudd/AttachmentRecords.h"
#include "services/vmcloudd/StorageProvider.h"

namespace vm {

// Removes uploads that were announced but never confirmed: a record still "new" after
// `max_age` is marked deleted and whatever part of its bytes reached the storage provider
// is removed. The records hand each stale record to exactly one sweeper, so any number of
// service processes sharing the records may run one without doing the work twice.
//
// Thread-safe. `records` and `storage` are not owned and must outlive the sweeper.
class StaleUploadSweeper {
 public:
  StaleUploadSweeper(AttachmentRecords* records, const StorageProvider* storage, ServiceClock clock,
                     std::chrono::seconds max_age, std::chrono::seconds interval);
  ~StaleUploadSweeper();
  StaleUploadSweeper(const StaleUploadSweeper&) = delete;
  StaleUploadSweeper& operator=(const StaleUploadSweeper&) = delete;

  // Starts sweeping every `interval` on a thread of its own; stop() (or the destructor)
  // ends it. A sweeper with a zero max_age or interval never starts the thread.
  void start();
  void stop();

  // Sweeps once, now; returns the number of uploads removed.
  std::size_t sweepOnce();
  // Uploads removed by every sweep so far.
  std::uint64_t sweptTotal() const { return swept_total_.load(); }

 private:
  void run();

  AttachmentRecords* const records_;
  const StorageProvider* const storage_;
  const ServiceClock clock_;
  const std::chrono::seconds max_age_;
  const std::chrono::seconds interval_;
  std::mutex mu_;
  std::condition_variable wake_;
  bool stopping_ = false;  // guarded by mu_
  std::atomic<std::uint64_t> swept_total_{0};
  std::thread thread_;
};

}  // namespace vm

#endif  // VM_SERVICES_VMCLOUDD_STALEUPLOADSWEEPER_H_
