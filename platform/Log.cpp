#include "platform/Log.h"

#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>

#include "platform/SafeNames.h"

namespace vm {
namespace {

spdlog::level::level_enum ToSpdlog(LogLevel level) {
  switch (level) {
    case LogLevel::kDebug:
      return spdlog::level::debug;
    case LogLevel::kInfo:
      return spdlog::level::info;
    case LogLevel::kDefault:
      return spdlog::level::warn;
    case LogLevel::kError:
      return spdlog::level::err;
  }
  return spdlog::level::err;
}

spdlog::level::level_enum StderrThreshold() {
  const char* text = std::getenv("VM_LOG_LEVEL");
  std::string_view name = text ? text : "error";
  if (name == "debug") return spdlog::level::debug;
  if (name == "info") return spdlog::level::info;
  if (name == "default") return spdlog::level::warn;
  if (name == "off") return spdlog::level::off;
  return spdlog::level::err;
}

// Process-wide state: the registry of loggers and the live captures. Never destroyed,
// so that logging from static destructors and detached threads stays safe.
struct Registry {
  std::mutex mu;
  std::map<std::pair<std::string, std::string>, std::unique_ptr<Log>, std::less<>> logs;
  std::vector<LogCapture*> captures;
  std::shared_ptr<spdlog::sinks::stderr_sink_mt> stderr_sink =
      std::make_shared<spdlog::sinks::stderr_sink_mt>();
};

std::atomic<bool> json_lines{false};

// Writes the platform's name of a line's level ("default" rather than "warning").
class LevelNameFlag : public spdlog::custom_flag_formatter {
 public:
  void format(const spdlog::details::log_msg& msg, const std::tm&,
              spdlog::memory_buf_t& dest) override {
    std::string_view name = msg.level <= spdlog::level::debug  ? "debug"
                            : msg.level == spdlog::level::info ? "info"
                            : msg.level == spdlog::level::warn ? "default"
                                                               : "error";
    dest.append(name.data(), name.data() + name.size());
  }
  std::unique_ptr<custom_flag_formatter> clone() const override {
    return std::make_unique<LevelNameFlag>();
  }
};

std::string JsonString(std::string_view text) {
  return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

Registry& TheRegistry() {
  static Registry* registry = [] {
    auto* r = new Registry;
    r->stderr_sink->set_level(StderrThreshold());
    r->stderr_sink->set_pattern("%Y-%m-%d %H:%M:%S.%e [%n] %l: %v");
    return r;
  }();
  return *registry;
}

}  // namespace

std::string_view LogLevelName(LogLevel level) {
  switch (level) {
    case LogLevel::kDebug:
      return "debug";
    case LogLevel::kInfo:
      return "info";
    case LogLevel::kDefault:
      return "default";
    case LogLevel::kError:
      return "error";
  }
  return "error";
}

Log& Log::Get(std::string_view subsystem, std::string_view category) {
  Registry& r = TheRegistry();
  std::lock_guard lock(r.mu);
  auto key = std::make_pair(std::string(subsystem), std::string(category));
  auto it = r.logs.find(key);
  if (it == r.logs.end()) {
    it = r.logs.emplace(key, std::make_unique<Log>(key.first, key.second)).first;
  }
  return *it->second;
}

Log& Log::Plain() { return Get("", ""); }

void Log::SetFormat(LogFormat format) {
  Registry& r = TheRegistry();
  json_lines = format == LogFormat::kJson;
  // %v is the message and fields, already written as JSON members.
  auto formatter = std::make_unique<spdlog::pattern_formatter>();
  formatter->add_flag<LevelNameFlag>('*').set_pattern(
      json_lines ? R"({"time":"%Y-%m-%dT%H:%M:%S.%e%z","level":"%*","logger":"%n",%v})"
                 : "%Y-%m-%d %H:%M:%S.%e [%n] %*: %v");
  r.stderr_sink->set_formatter(std::move(formatter));
}

Log::Log(std::string subsystem, std::string category)
    : subsystem_(std::move(subsystem)), category_(std::move(category)) {
  std::string name = subsystem_.empty() ? "-" : subsystem_ + ":" + category_;
  logger_ = std::make_shared<spdlog::logger>(name, TheRegistry().stderr_sink);
  logger_->set_level(spdlog::level::debug);
}

void Log::write(LogLevel level, std::string_view raw_message) { write(level, raw_message, {}); }

void Log::write(LogLevel level, std::string_view raw_message, const LogFields& fields) {
  // Messages carry names and paths from records and servers: escaped, one can never forge
  // a line of its own or drive the terminal.
  std::string message = EscapeControlCharacters(raw_message);
  if (json_lines) {
    std::string members = "\"message\":" + JsonString(message);
    for (const auto& [name, value] : fields) {
      members += "," + JsonString(name) + ":" + JsonString(value);
    }
    logger_->log(ToSpdlog(level), "{}", members);
  } else {
    logger_->log(ToSpdlog(level), "{}", message);
  }
  Registry& r = TheRegistry();
  std::lock_guard lock(r.mu);
  if (r.captures.empty()) return;
  LogRecord record{subsystem_, category_, level, std::move(message)};
  for (LogCapture* capture : r.captures) capture->Add(record);
}

LogCapture::LogCapture() {
  Registry& r = TheRegistry();
  std::lock_guard lock(r.mu);
  r.captures.push_back(this);
}

LogCapture::~LogCapture() {
  Registry& r = TheRegistry();
  std::lock_guard lock(r.mu);
  r.captures.erase(std::remove(r.captures.begin(), r.captures.end(), this), r.captures.end());
}

void LogCapture::Add(const LogRecord& record) {
  std::lock_guard lock(mu_);
  records_.push_back(record);
}

std::vector<LogRecord> LogCapture::records() const {
  std::lock_guard lock(mu_);
  return records_;
}

std::vector<std::string> LogCapture::messages(std::string_view category) const {
  std::lock_guard lock(mu_);
  std::vector<std::string> out;
  for (const LogRecord& r : records_) {
    if (category.empty() || r.category == category) out.push_back(r.message);
  }
  return out;
}

bool LogCapture::contains(std::string_view message_fragment) const {
  std::lock_guard lock(mu_);
  return std::any_of(records_.begin(), records_.end(), [&](const LogRecord& r) {
    return r.message.find(message_fragment) != std::string::npos;
  });
}

}  // namespace vm
