#ifndef VM_VMATTACHMENTS_TELEMETRY_ATTACHMENTTELEMETRY_H_
#define VM_VMATTACHMENTS_TELEMETRY_ATTACHMENTTELEMETRY_H_

#include <memory>

#include "BWFoundation/BWTelemetry.h"
#include "platform/Error.h"

namespace vm {

// Telemetry channels for attachment events, offered to the host; the framework itself
// does not use them. Both facilities are made once, on first use from any thread, and are
// the same objects on every read.
class AttachmentTelemetry {
 public:
  static std::shared_ptr<const BWTelemetry> logFacility();
  static std::shared_ptr<const BWTelemetry> errorFacility();

  // Reports an error of code 500, of any domain, as one "Scheme not found error" event
  // with the single extra "error" (its description). Anything else, and null, is ignored.
  static void logError(const ErrorRef& error);
};

// The channels the recovery passes write to.
class AttachmentRecoveryTelemetry {
 public:
  static std::shared_ptr<const BWTelemetry> logFacility();
  static std::shared_ptr<const BWTelemetry> errorFacility();
};

}  // namespace vm

#endif  // VM_VMATTACHMENTS_TELEMETRY_ATTACHMENTTELEMETRY_H_
