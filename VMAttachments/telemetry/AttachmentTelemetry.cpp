#include "VMAttachments/telemetry/AttachmentTelemetry.h"

namespace vm {
namespace {

constexpr char kAttachmentsFacility[] = "com.brenwick.attachments";
constexpr char kRecoveryFacility[] = "com.brenwick.AttachmentRecovery";
// The error channels record at this explicit level; the log channels keep the default.
constexpr int kErrorFacilityLevel = 2;

}  // namespace

std::shared_ptr<const BWTelemetry> AttachmentTelemetry::logFacility() {
  static const auto facility = std::make_shared<const BWTelemetry>(kAttachmentsFacility);
  return facility;
}

std::shared_ptr<const BWTelemetry> AttachmentTelemetry::errorFacility() {
  static const std::shared_ptr<const BWTelemetry> facility =
      BWTelemetry::telemetryWithFacility(kAttachmentsFacility, kErrorFacilityLevel);
  return facility;
}

void AttachmentTelemetry::logError(const ErrorRef& error) {
  // The test is on the code alone, whatever the domain.
  if (!error || error->code() != 500) return;
  telemetry_log(TelemetryLevel::kError, "Scheme not found error", logFacility(),
                {{"error", error->localizedDescription()}}, false);
}

std::shared_ptr<const BWTelemetry> AttachmentRecoveryTelemetry::logFacility() {
  static const auto facility = std::make_shared<const BWTelemetry>(kRecoveryFacility);
  return facility;
}

std::shared_ptr<const BWTelemetry> AttachmentRecoveryTelemetry::errorFacility() {
  static const std::shared_ptr<const BWTelemetry> facility =
      BWTelemetry::telemetryWithFacility(kRecoveryFacility, kErrorFacilityLevel);
  return facility;
}

}  // namespace vm
