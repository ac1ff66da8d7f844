#include "BWFoundation/BWTelemetry.h"

#include <fmt/format.h>

#include "platform/Log.h"

namespace vm {
namespace {

class LogTelemetrySink : public TelemetrySink {
 public:
  void record(const TelemetryEvent& event) override {
    std::string line = event.message;
    for (const auto& [key, value] : event.extra) line += fmt::format(" {}={}", key, value);
    Log& log = Log::Get("com.brenwick.telemetry", event.facility ? event.facility->facility() : "");
    log.write(event.level <= TelemetryLevel::kError ? LogLevel::kError : LogLevel::kInfo, line);
  }
};

std::mutex sink_mu;
std::shared_ptr<TelemetrySink>& SinkSlot() {
  static auto* slot = new std::shared_ptr<TelemetrySink>(std::make_shared<LogTelemetrySink>());
  return *slot;
}

}  // namespace

BWTelemetry::BWTelemetry(std::string facility, TelemetryLevel level)
    : facility_(std::move(facility)), level_(level) {}

std::shared_ptr<BWTelemetry> BWTelemetry::telemetryWithFacility(std::string facility,
                                                                int log_level) {
  return std::make_shared<BWTelemetry>(std::move(facility), static_cast<TelemetryLevel>(log_level));
}

std::shared_ptr<TelemetrySink> SetTelemetrySink(std::shared_ptr<TelemetrySink> sink) {
  if (!sink) sink = std::make_shared<LogTelemetrySink>();
  std::lock_guard lock(sink_mu);
  std::swap(SinkSlot(), sink);
  return sink;
}

void telemetry_log(TelemetryLevel level, std::string_view message,
                   const std::shared_ptr<const BWTelemetry>& facility, const TelemetryExtra& extra,
                   bool skip_cache) {
  std::shared_ptr<TelemetrySink> sink;
  {
    std::lock_guard lock(sink_mu);
    sink = SinkSlot();
  }
  sink->record(TelemetryEvent{level, std::string(message), facility, extra, skip_cache});
}

void RecordingTelemetrySink::record(const TelemetryEvent& event) {
  std::lock_guard lock(mu_);
  events_.push_back(event);
}

std::vector<TelemetryEvent> RecordingTelemetrySink::events() const {
  std::lock_guard lock(mu_);
  return events_;
}

}  // namespace vm
