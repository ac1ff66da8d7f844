#ifndef VM_TOOLS_VMATTACH_COMMAND_H_
#define VM_TOOLS_VMATTACH_COMMAND_H_

#include <CLI/CLI.hpp>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Error.h"

namespace vm::vmattach {

// Options every command accepts, filled by the top-level parser before a command runs.
struct GlobalOptions {
  std::string data_dir;  // empty: $XDG_DATA_HOME/vmattach (or ~/.local/share/vmattach)
  bool json = false;     // print machine-readable JSON on stdout instead of text
};

// The data folder the options name, with the default applied.
std::filesystem::path DataDirectory(const GlobalOptions& options);

// Shared by the command modules: what the running command ends with.
// A command's callback returns the process exit code: 0 success, 1 failure.
using CommandBody = std::function<int()>;

// Registers `body` as the callback of `command`; the exit code lands in `*exit_code`.
void SetCommandBody(CLI::App* command, int* exit_code, CommandBody body);

// Prints the one-line failure form on stderr: "vmattach: <description> (<domain> <code>)",
// and returns 1. Control characters in the texts are escaped (see EscapeControlCharacters).
int ReportFailure(const Error& error);
int ReportFailure(const ErrorRef& error);
// For failures that have no Error: "vmattach: <message>", returns 1.
int ReportFailure(const std::string& message);

// While alive, the failures reported on this thread name `subject` (a file, an id):
// "vmattach: <subject>: <description>". For commands that work on many items. Nests.
class FailureSubject {
 public:
  explicit FailureSubject(std::string subject);
  ~FailureSubject();
  FailureSubject(const FailureSubject&) = delete;
  FailureSubject& operator=(const FailureSubject&) = delete;

 private:
  friend std::string FailurePrefix();
  std::string prefix_;
  const FailureSubject* outer_;
};

// How a failure line starts on this thread: "vmattach: ", with the subject when there is one.
std::string FailurePrefix();

// A record id as a person types it: plain decimal digits only ("03374" is 3374, not
// octal), within 64 bits. Nullopt for anything else: a sign, spaces, hex, an empty text.
std::optional<std::uint64_t> ParseRecordID(std::string_view text);

// For an option that holds a record id: refuses what ParseRecordID refuses, and hands
// CLI11 the plain number so that its own conversion cannot read it another way.
CLI::Validator RecordIDValidator();
// For an option whose value must not be empty (a folder, a scheme name).
CLI::Validator NonEmptyValidator();

// Whether stderr is a terminal (progress bars are drawn only then).
bool StderrIsTerminal();

// Draws "[#####.....]  42%  1.2 MiB / 2.9 MiB" on stderr, rewriting the line; finish()
// ends the line. Does nothing when stderr is not a terminal, nor with an empty label (the
// items of a batch, which draws one bar of its own). Thread-safe.
class ProgressBar {
 public:
  // What update() counts: bytes (shown in MiB) or items (shown as "3 / 7").
  enum class Unit { kBytes, kItems };
  explicit ProgressBar(std::string label, Unit unit = Unit::kBytes);
  ~ProgressBar();
  void update(std::int64_t done, std::int64_t total);
  void finish();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace vm::vmattach

#endif  // VM_TOOLS_VMATTACH_COMMAND_H_
