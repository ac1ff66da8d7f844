#include "platform/Subprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

extern char** environ;

namespace vm {
namespace {

using Clock = std::chrono::steady_clock;

std::vector<std::string> MergedEnvironment(const std::map<std::string, std::string>& overrides) {
  std::vector<std::string> env;
  for (char** e = environ; e != nullptr && *e != nullptr; ++e) {
    std::string_view entry(*e);
    std::string_view name = entry.substr(0, entry.find('='));
    if (overrides.find(std::string(name)) == overrides.end()) env.emplace_back(entry);
  }
  for (const auto& [name, value] : overrides) env.push_back(name + "=" + value);
  return env;
}

std::vector<char*> CStrings(std::vector<std::string>& strings) {
  std::vector<char*> out;
  for (std::string& s : strings) out.push_back(s.data());
  out.push_back(nullptr);
  return out;
}

int ExitStatus(int wait_status) {
  if (WIFEXITED(wait_status)) return WEXITSTATUS(wait_status);
  if (WIFSIGNALED(wait_status)) return 128 + WTERMSIG(wait_status);
  return -1;
}

void CloseFd(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

// Writes to a pipe whose reader may be gone without letting SIGPIPE end this process.
ssize_t WriteNoSigpipe(int fd, const char* data, size_t size) {
  sigset_t pipe_set, old_set;
  sigemptyset(&pipe_set);
  sigaddset(&pipe_set, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_set, &old_set);
  ssize_t written = write(fd, data, size);
  int saved = errno;
  if (written < 0 && saved == EPIPE) {
    timespec zero{0, 0};
    sigtimedwait(&pipe_set, nullptr, &zero);
  }
  pthread_sigmask(SIG_SETMASK, &old_set, nullptr);
  errno = saved;
  return written;
}

// Reads what is available now; false at end of file or on error.
bool ReadAvailable(int fd, std::string& into) {
  char buffer[4096];
  for (;;) {
    ssize_t n = read(fd, buffer, sizeof buffer);
    if (n > 0) {
      into.append(buffer, static_cast<size_t>(n));
      continue;
    }
    if (n < 0 && (errno == EINTR)) continue;
    return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
  }
}

}  // namespace

ProcessResult RunProcess(const std::vector<std::string>& argv, const ProcessOptions& options) {
  ProcessResult result;
  if (argv.empty()) {
    result.spawn_error = PosixError(EINVAL);
    return result;
  }
  int in_pipe[2], out_pipe[2], err_pipe[2];
  if (pipe2(in_pipe, O_CLOEXEC) != 0) {
    result.spawn_error = PosixError(errno, argv[0]);
    return result;
  }
  if (pipe2(out_pipe, O_CLOEXEC) != 0) {
    int saved = errno;
    close(in_pipe[0]);
    close(in_pipe[1]);
    result.spawn_error = PosixError(saved, argv[0]);
    return result;
  }
  if (pipe2(err_pipe, O_CLOEXEC) != 0) {
    int saved = errno;
    for (int fd : {in_pipe[0], in_pipe[1], out_pipe[0], out_pipe[1]}) close(fd);
    result.spawn_error = PosixError(saved, argv[0]);
    return result;
  }

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in_pipe[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out_pipe[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err_pipe[1], 2);

  std::vector<std::string> args = argv;
  std::vector<std::string> env = MergedEnvironment(options.environment);
  std::vector<char*> c_args = CStrings(args);
  std::vector<char*> c_env = CStrings(env);
  pid_t pid = -1;
  int spawned = posix_spawnp(&pid, c_args[0], &actions, nullptr, c_args.data(), c_env.data());
  posix_spawn_file_actions_destroy(&actions);
  close(in_pipe[0]);
  close(out_pipe[1]);
  close(err_pipe[1]);
  int in_fd = in_pipe[1], out_fd = out_pipe[0], err_fd = err_pipe[0];
  if (spawned != 0) {
    CloseFd(in_fd);
    CloseFd(out_fd);
    CloseFd(err_fd);
    result.spawn_error = PosixError(spawned, argv[0]);
    return result;
  }
  for (int fd : {in_fd, out_fd, err_fd}) fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);

  size_t input_written = 0;
  if (options.input.empty()) CloseFd(in_fd);
  const auto deadline = Clock::now() + options.timeout;
  int wait_status = 0;
  bool exited = false;
  while (!exited) {
    std::vector<pollfd> fds;
    if (in_fd >= 0) fds.push_back({in_fd, POLLOUT, 0});
    if (out_fd >= 0) fds.push_back({out_fd, POLLIN, 0});
    if (err_fd >= 0) fds.push_back({err_fd, POLLIN, 0});
    poll(fds.data(), fds.size(), 20);
    if (in_fd >= 0) {
      ssize_t n = WriteNoSigpipe(in_fd, options.input.data() + input_written,
                                 options.input.size() - input_written);
      if (n > 0) input_written += static_cast<size_t>(n);
      if ((n < 0 && errno != EAGAIN) || input_written == options.input.size()) CloseFd(in_fd);
    }
    if (out_fd >= 0 && !ReadAvailable(out_fd, result.out)) CloseFd(out_fd);
    if (err_fd >= 0 && !ReadAvailable(err_fd, result.err)) CloseFd(err_fd);

    pid_t done = waitpid(pid, &wait_status, WNOHANG);
    if (done == pid) {
      exited = true;
    } else if (Clock::now() >= deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &wait_status, 0);
      result.timed_out = true;
      exited = true;
    }
  }
  // Whatever the program wrote before it exited is in the pipes now; a daemon it left
  // behind may hold them open, so read only what is there.
  if (out_fd >= 0) ReadAvailable(out_fd, result.out);
  if (err_fd >= 0) ReadAvailable(err_fd, result.err);
  CloseFd(in_fd);
  CloseFd(out_fd);
  CloseFd(err_fd);
  result.exit_status = ExitStatus(wait_status);
  return result;
}

std::unique_ptr<ChildProcess> ChildProcess::Start(
    const std::vector<std::string>& argv, const std::filesystem::path& output_file,
    const std::map<std::string, std::string>& environment, ErrorRef* error) {
  if (argv.empty()) {
    Fail(error, PosixError(EINVAL));
    return nullptr;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, output_file.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                   0644);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  // A process group of its own: some servers signal their whole group when they stop,
  // which must not reach this process.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);
  std::vector<std::string> args = argv;
  std::vector<std::string> env = MergedEnvironment(environment);
  std::vector<char*> c_args = CStrings(args);
  std::vector<char*> c_env = CStrings(env);
  pid_t pid = -1;
  int spawned = posix_spawnp(&pid, c_args[0], &actions, &attributes, c_args.data(), c_env.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (spawned != 0) {
    Fail(error, PosixError(spawned, argv[0]));
    return nullptr;
  }
  return std::unique_ptr<ChildProcess>(new ChildProcess(pid));
}

ChildProcess::~ChildProcess() { stop(); }

bool ChildProcess::running() {
  if (reaped_) return false;
  int status = 0;
  if (waitpid(pid_, &status, WNOHANG) == pid_) {
    reaped_ = true;
    exit_status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  return !reaped_;
}

bool ChildProcess::waitExit(std::chrono::milliseconds limit, int* exit_status) {
  const auto deadline = Clock::now() + limit;
  while (running() && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (!reaped_) return false;
  *exit_status = exit_status_;
  return true;
}

void ChildProcess::stop(std::chrono::milliseconds grace) {
  if (!running()) return;
  kill(pid_, SIGTERM);
  const auto deadline = Clock::now() + grace;
  while (running() && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  if (running()) {
    kill(pid_, SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
    reaped_ = true;
  }
}

}  // namespace vm
