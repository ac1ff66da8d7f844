#include "tests/VMAttachments/archive/InChild.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

namespace vm::testing {

ChildOutcome RunInChild(const std::function<bool()>& body,
                        std::optional<std::uint64_t> file_size_limit) {
  pid_t pid = ::fork();
  if (pid < 0) std::abort();
  if (pid == 0) {
    if (file_size_limit) {
      std::signal(SIGXFSZ, SIG_IGN);  // report EFBIG instead of ending the child
      rlimit limit{*file_size_limit, *file_size_limit};
      ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ::_exit(body() ? 0 : 1);
  }
  int status = 0;
  rusage usage{};
  ::wait4(pid, &status, 0, &usage);
  ChildOutcome outcome;
  outcome.succeeded = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  outcome.peak_rss_bytes = static_cast<std::uint64_t>(usage.ru_maxrss) * 1024;
  return outcome;
}

}  // namespace vm::testing
