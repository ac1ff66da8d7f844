#ifndef VM_PLATFORM_SUBPROCESS_H_
#define VM_PLATFORM_SUBPROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/Error.h"

namespace vm {

// How to run a helper program. The program inherits this process's environment with
// `environment` laid over it; secrets belong in `environment` or `input`, never in argv,
// because argv is visible to every user of the machine.
struct ProcessOptions {
  std::map<std::string, std::string> environment;
  // Written to the program's standard input, which is then closed.
  std::string input;
  // The program is killed (SIGKILL) when it has not exited by then.
  std::chrono::milliseconds timeout{std::chrono::seconds(30)};
};

struct ProcessResult {
  // Null when the program ran; otherwise why it could not be started.
  ErrorRef spawn_error;
  // The exit code, or 128 + the signal that ended it.
  int exit_status = -1;
  bool timed_out = false;
  std::string out;
  std::string err;

  bool succeeded() const { return !spawn_error && !timed_out && exit_status == 0; }
};

// Runs argv[0] (looked up in PATH) to completion and collects its output. Output of a
// daemon the program leaves behind is not waited for: collection stops once the program
// itself has exited. Thread-safe; blocks the calling thread for at most the timeout.
ProcessResult RunProcess(const std::vector<std::string>& argv, const ProcessOptions& options = {});

// A long-running child (a server) whose standard output and error go to a file. The child
// runs in a process group of its own. Not thread-safe; the object owns the child and stops it when
// destroyed.
class ChildProcess {
 public:
  // Null on failure, with the reason in *error.
  static std::unique_ptr<ChildProcess> Start(const std::vector<std::string>& argv,
                                             const std::filesystem::path& output_file,
                                             const std::map<std::string, std::string>& environment,
                                             ErrorRef* error);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  bool running();
  // Waits at most `limit` for the child to exit on its own; true with its exit code (or 128
  // + the signal that ended it) in `*exit_status` once it has.
  bool waitExit(std::chrono::milliseconds limit, int* exit_status);
  // SIGTERM, then SIGKILL when the child has not exited within `grace`; reaps it.
  void stop(std::chrono::milliseconds grace = std::chrono::seconds(5));

 private:
  explicit ChildProcess(pid_t pid) : pid_(pid) {}
  pid_t pid_;
  bool reaped_ = false;
  int exit_status_ = -1;
};

}  // namespace vm

#endif  // VM_PLATFORM_SUBPROCESS_H_
