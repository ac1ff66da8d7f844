#ifndef VM_PLATFORM_LOG_H_
#define VM_PLATFORM_LOG_H_

#include <fmt/format.h>

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace spdlog {
class logger;
}

namespace vm {

// The platform log's levels, in increasing severity.
enum class LogLevel { kDebug, kInfo, kDefault, kError };

std::string_view LogLevelName(LogLevel level);

// How lines look on stderr: "TIME [subsystem:category] level: message", or one JSON
// object per line with the keys time, level, logger, message and the line's fields.
enum class LogFormat { kText, kJson };

// Named values of one line that JSON lines carry as keys of their own; text lines show
// the message only, so it should hold them too.
using LogFields = std::vector<std::pair<std::string_view, std::string>>;

// A named logger: subsystem and category, as the system log has them. Lines go to
// stderr at or above the level set by VM_LOG_LEVEL (debug, info, default, error, off;
// default: error) and to every LogCapture alive at the time.
//
// Thread-safe. Loggers are made once per (subsystem, category) and live for the whole
// process; the reference returned by Get() stays valid until exit.
class Log {
 public:
  static Log& Get(std::string_view subsystem, std::string_view category);
  // The logger for plain formatted lines with no subsystem (what NSLog writes).
  static Log& Plain();
  // Sets the format of every line written from now on, with the level names above
  // ("default", not spdlog's "warning"). Until called, text with spdlog's level names.
  static void SetFormat(LogFormat format);

  const std::string& subsystem() const { return subsystem_; }
  const std::string& category() const { return category_; }

  void write(LogLevel level, std::string_view message);
  void write(LogLevel level, std::string_view message, const LogFields& fields);

  template <typename... Args>
  void debug(fmt::format_string<Args...> format, Args&&... args) {
    write(LogLevel::kDebug, fmt::format(format, std::forward<Args>(args)...));
  }
  template <typename... Args>
  void info(fmt::format_string<Args...> format, Args&&... args) {
    write(LogLevel::kInfo, fmt::format(format, std::forward<Args>(args)...));
  }
  template <typename... Args>
  void notice(fmt::format_string<Args...> format, Args&&... args) {
    write(LogLevel::kDefault, fmt::format(format, std::forward<Args>(args)...));
  }
  template <typename... Args>
  void error(fmt::format_string<Args...> format, Args&&... args) {
    write(LogLevel::kError, fmt::format(format, std::forward<Args>(args)...));
  }

  Log(std::string subsystem, std::string category);

 private:
  std::string subsystem_;
  std::string category_;
  std::shared_ptr<spdlog::logger> logger_;
};

// One line as a capture saw it.
struct LogRecord {
  std::string subsystem;
  std::string category;
  LogLevel level;
  std::string message;
};

// Records every line written by any Log while it is alive, in order. For tests.
// Thread-safe; captures may nest, each sees every line.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogRecord> records() const;
  // The messages of one category (all categories when empty), in order.
  std::vector<std::string> messages(std::string_view category = {}) const;
  bool contains(std::string_view message_fragment) const;

  void Add(const LogRecord& record);

 private:
  mutable std::mutex mu_;
  std::vector<LogRecord> records_;
};

}  // namespace vm

#endif  // VM_PLATFORM_LOG_H_
