#ifndef VM_VMATTACHMENTS_RECOVERY_UPLOADTHROTTLE_H_
#define VM_VMATTACHMENTS_RECOVERY_UPLOADTHROTTLE_H_

#include <chrono>
#include <cstddef>
#include <functional>

namespace vm {

class VMAttachmentTransferManager;

// Keeps the cache recovery pass from flooding the transfer manager: before each store it
// waits, in 15-second steps, while more than 10 uploads are pending.
//
// Not thread-safe; one pass uses it from its own queue. `manager` is the host's and must
// outlive the throttle.
class UploadThrottle {
 public:
  static constexpr std::size_t kMaxPendingUploads = 10;
  static constexpr std::chrono::seconds kWaitStep{15};
  // "Limiting upload rate" is logged before every this-many-th wait for one store.
  static constexpr int kWaitsPerLogLine = 10;

  using SleepFunction = std::function<void(std::chrono::microseconds)>;
  using CountFunction = std::function<std::size_t()>;
  using StopFunction = std::function<bool()>;

  // An empty `sleep` sleeps the calling thread. A non-empty `pending` replaces the count of
  // the manager's upload transfers; a non-empty `stop` ends the waiting early when true.
  UploadThrottle(VMAttachmentTransferManager* manager, SleepFunction sleep,
                 CountFunction pending = {}, StopFunction stop = {});

  // Returns once at most kMaxPendingUploads uploads are pending (at once when the manager
  // is null and no count was given), or once `stop` answers true; the result is the number
  // of waits.
  int waitForRoom();

 private:
  std::size_t pendingUploads() const;

  VMAttachmentTransferManager* const manager_;
  const SleepFunction sleep_;
  const CountFunction pending_;
  const StopFunction stop_;
};

}  // namespace vm

#endif  // VM_VMATTACHMENTS_RECOVERY_UPLOADTHROTTLE_H_
