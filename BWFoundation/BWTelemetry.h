#ifndef VM_BWFOUNDATION_BWTELEMETRY_H_
#define VM_BWFOUNDATION_BWTELEMETRY_H_

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace vm {

// Telemetry levels, most severe first. A facility made without a level records at
// kTelemetryLevelInfo.
enum class TelemetryLevel : int {
  kFault = 0,
  kError = 1,
  kWarning = 2,
  kInfo = 3,
  kDebug = 4,
};

// A named telemetry channel. Immutable and thread-safe; facilities are compared by
// identity, so users keep the object they made.
class BWTelemetry {
 public:
  // initWithFacility: the default level.
  explicit BWTelemetry(std::string facility, TelemetryLevel level = TelemetryLevel::kInfo);
  static std::shared_ptr<BWTelemetry> telemetryWithFacility(std::string facility, int log_level);

  const std::string& facility() const { return facility_; }
  TelemetryLevel logLevel() const { return level_; }

 private:
  std::string facility_;
  TelemetryLevel level_;
};

using TelemetryExtra = std::map<std::string, std::string>;

// One recorded event.
struct TelemetryEvent {
  TelemetryLevel level;
  std::string message;
  std::shared_ptr<const BWTelemetry> facility;
  TelemetryExtra extra;
  bool skipCache;
};

// Where events go. The default sink writes each event as a log line (subsystem
// "com.brenwick.telemetry", the facility as category). Implementations are thread-safe.
class TelemetrySink {
 public:
  virtual ~TelemetrySink() = default;
  virtual void record(const TelemetryEvent& event) = 0;
};

// Replaces the process's sink; null restores the default. Returns the previous sink.
std::shared_ptr<TelemetrySink> SetTelemetrySink(std::shared_ptr<TelemetrySink> sink);

// Records one event through the current sink.
void telemetry_log(TelemetryLevel level, std::string_view message,
                   const std::shared_ptr<const BWTelemetry>& facility, const TelemetryExtra& extra,
                   bool skip_cache);

// A sink that keeps every event, for tests and hosts that forward events in batches.
class RecordingTelemetrySink : public TelemetrySink {
 public:
  void record(const TelemetryEvent& event) override;
  std::vector<TelemetryEvent> events() const;

 private:
  mutable std::mutex mu_;
  std::vector<TelemetryEvent> events_;
};

}  // namespace vm

#endif  // VM_BWFOUNDATION_BWTELEMETRY_H_
