#include "VMAttachments/recovery/UploadThrottle.h"

#include "VMAttachments/recovery/internal/RecoverySupport.h"
#include "host/VMAttachmentTransferManager.h"

namespace vm {

UploadThrottle::UploadThrottle(VMAttachmentTransferManager* manager, SleepFunction sleep,
                               CountFunction pending, StopFunction stop)
    : manager_(manager),
      sleep_(std::move(sleep)),
      pending_(std::move(pending)),
      stop_(std::move(stop)) {}

std::size_t UploadThrottle::pendingUploads() const {
  if (pending_) return pending_();
  return manager_ == nullptr ? 0
                             : manager_->transfersForOperationType(kTransferOperationUpload).size();
}

int UploadThrottle::waitForRoom() {
  int waits = 0;
  while ((!stop_ || !stop_()) && pendingUploads() > kMaxPendingUploads) {
    ++waits;
    if (waits % kWaitsPerLogLine == 0) recovery_internal::Log("Limiting upload rate");
    recovery_internal::SleepWith(sleep_, kWaitStep);
  }
  return waits;
}

}  // namespace vm
