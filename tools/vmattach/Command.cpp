#include "tools/vmattach/Command.h"

#include <fmt/format.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "platform/SafeNames.h"

namespace vm::vmattach {

std::filesystem::path DataDirectory(const GlobalOptions& options) {
  if (!options.data_dir.empty()) return options.data_dir;
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg) {
    return std::filesystem::path(xdg) / "vmattach";
  }
  const char* home = std::getenv("HOME");
  return std::filesystem::path(home ? home : ".") / ".local" / "share" / "vmattach";
}

void SetCommandBody(CLI::App* command, int* exit_code, CommandBody body) {
  command->callback([exit_code, body = std::move(body)] { *exit_code = body(); });
}

namespace {
thread_local const FailureSubject* current_subject = nullptr;
}  // namespace

FailureSubject::FailureSubject(std::string subject)
    : prefix_(fmt::format("vmattach: {}: ", EscapeControlCharacters(subject))),
      outer_(current_subject) {
  current_subject = this;
}

FailureSubject::~FailureSubject() { current_subject = outer_; }

std::string FailurePrefix() { return current_subject ? current_subject->prefix_ : "vmattach: "; }

int ReportFailure(const Error& error) {
  fmt::print(stderr, "{}{} ({} {})\n", FailurePrefix(),
             EscapeControlCharacters(error.localizedDescription()),
             EscapeControlCharacters(error.domain()), error.code());
  return 1;
}

int ReportFailure(const ErrorRef& error) {
  if (!error) return ReportFailure(std::string("failed with no error"));
  return ReportFailure(*error);
}

int ReportFailure(const std::string& message) {
  fmt::print(stderr, "{}{}\n", FailurePrefix(), EscapeControlCharacters(message));
  return 1;
}

std::optional<std::uint64_t> ParseRecordID(std::string_view text) {
  if (text.empty()) return std::nullopt;
  std::uint64_t value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, 10);
  // from_chars takes no sign, space or prefix; a digit left over means overflow.
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

CLI::Validator RecordIDValidator() {
  return CLI::Validator(
      [](std::string& value) -> std::string {
        std::optional<std::uint64_t> id = ParseRecordID(value);
        if (!id) {
          return fmt::format("\"{}\" is not an attachment id (plain decimal digits)",
                             EscapeControlCharacters(value));
        }
        value = std::to_string(*id);
        return {};
      },
      "ID");
}

CLI::Validator NonEmptyValidator() {
  return CLI::Validator(
      [](std::string& value) -> std::string {
        return value.empty() ? std::string("must not be empty") : std::string();
      },
      "");
}

bool StderrIsTerminal() { return isatty(STDERR_FILENO) == 1; }

struct ProgressBar::State {
  std::mutex mu;
  std::string label;
  Unit unit = Unit::kBytes;
  bool enabled = false;
  bool drawn = false;
};

ProgressBar::ProgressBar(std::string label, Unit unit) : state_(std::make_unique<State>()) {
  state_->label = std::move(label);
  state_->unit = unit;
  state_->enabled = !state_->label.empty() && StderrIsTerminal();
}

ProgressBar::~ProgressBar() { finish(); }

void ProgressBar::update(std::int64_t done, std::int64_t total) {
  std::lock_guard lock(state_->mu);
  if (!state_->enabled) return;
  constexpr int kWidth = 30;
  double fraction = total > 0 ? static_cast<double>(done) / static_cast<double>(total) : 0.0;
  if (fraction > 1.0) fraction = 1.0;
  int filled = static_cast<int>(fraction * kWidth);
  std::string counts =
      state_->unit == Unit::kItems
          ? fmt::format("{} / {}", done, total)
          : fmt::format("{:.1f} / {:.1f} MiB", static_cast<double>(done) / 1048576.0,
                        static_cast<double>(total) / 1048576.0);
  fmt::print(stderr, "\r{} [{}{}] {:3.0f}%  {}", state_->label, std::string(filled, '#'),
             std::string(kWidth - filled, '.'), fraction * 100.0, counts);
  state_->drawn = true;
}

void ProgressBar::finish() {
  std::lock_guard lock(state_->mu);
  if (state_->drawn) fmt::print(stderr, "\n");
  state_->drawn = false;
}

}  // namespace vm::vmattach
