#ifndef VM_TESTS_VMATTACHMENTS_SCHEMES_SHARESERVERSUPPORT_H_
#define VM_TESTS_VMATTACHMENTS_SCHEMES_SHARESERVERSUPPORT_H_

// What the tests against real share servers (smbd, sshd) share: ports on loopback, the
// check that the machine can run them, the vmattach tool as a child process, and the
// rclone process behind a mount.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/ShareMounter.h"
#include "platform/Subprocess.h"
#include "platform/VolumeWatcher.h"

namespace vm::testing {

inline int FreeLoopbackPort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  int port = -1;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  close(fd);
  return port;
}

inline bool Accepts(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return ok;
}

// Waits (at most `limit`) until `process` accepts connections on `port`.
inline bool WaitUntilListening(ChildProcess& process, int port,
                               std::chrono::seconds limit = std::chrono::seconds(20)) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (!Accepts(port) && process.running() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return Accepts(port);
}

inline std::string Program(const std::string& name) {
  for (const char* dir : {"/usr/sbin", "/usr/bin", "/sbin", "/bin"}) {
    std::filesystem::path candidate = std::filesystem::path(dir) / name;
    if (access(candidate.c_str(), X_OK) == 0) return candidate.string();
  }
  return {};
}

// VM_SKIP_SHARE_TESTS=1 lets a machine without FUSE or root skip these tests; anywhere
// else a missing piece fails them, so that CI never passes them silently.
inline bool SkipShareTests() {
  const char* skip = std::getenv("VM_SKIP_SHARE_TESTS");
  return skip != nullptr && std::string(skip) == "1";
}

// Why these tests cannot run here, or nullopt: FUSE, root and the named programs.
inline std::optional<std::string> MissingForShareTests(const std::vector<std::string>& programs) {
  if (access("/dev/fuse", R_OK | W_OK) != 0) {
    return "/dev/fuse is absent or not usable here, so no share can be mounted";
  }
  if (geteuid() != 0) return "the share servers are started as root, and this is not root";
  for (const std::string& program : programs) {
    if (Program(program).empty()) {
      return program + " is not installed (scripts/install-deps.sh installs it)";
    }
  }
  return std::nullopt;
}

// The rclone process that serves `mount_point`, found by its command line; 0 when none.
inline pid_t MountDaemonOf(const std::filesystem::path& mount_point) {
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", ec)) {
    std::ifstream in(entry.path() / "cmdline");
    std::string line((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<std::string> argv;
    for (size_t start = 0; start < line.size();) {
      size_t end = line.find('\0', start);
      if (end == std::string::npos) end = line.size();
      argv.push_back(line.substr(start, end - start));
      start = end + 1;
    }
    if (argv.size() < 4 || argv[0].find("rclone") == std::string::npos || argv[1] != "mount") {
      continue;
    }
    if (argv[3] == mount_point.string())
      return static_cast<pid_t>(std::stoi(entry.path().filename()));
  }
  return 0;
}

// Kills the process behind a mount and waits until the mount stops answering.
inline bool KillMountDaemon(const std::filesystem::path& mount_point) {
  pid_t pid = MountDaemonOf(mount_point);
  if (pid == 0 || kill(pid, SIGKILL) != 0) return false;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (FuseShareMounter::MountPointAnswers(mount_point) &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return !FuseShareMounter::MountPointAnswers(mount_point);
}

// The mount points under `folder` mounted now.
inline std::vector<std::string> MountsUnder(const std::filesystem::path& folder) {
  std::vector<std::string> out;
  std::string prefix = folder.string() + "/";
  for (const std::string& point : VolumeWatcher::CurrentMountPoints()) {
    if (point.rfind(prefix, 0) == 0) out.push_back(point);
  }
  return out;
}

// Unmounts whatever is still mounted under `folder`, whether the test passed or not.
inline void UnmountEverythingUnder(const std::filesystem::path& folder) {
  for (const std::string& point : MountsUnder(folder)) {
    if (!FuseShareMounter::Unmount(point, nullptr)) {
      ProcessOptions options;
      options.timeout = std::chrono::seconds(10);
      RunProcess({"fusermount3", "-u", "-z", point}, options);
    }
  }
}

// vmattach as a user runs it: its own data folder, and a runtime folder of this test run
// (XDG_RUNTIME_DIR) so that its mounts never meet those of tests running beside it.
class VmattachRunner {
 public:
  VmattachRunner(std::filesystem::path data, std::filesystem::path runtime)
      : data_(std::move(data)), runtime_(std::move(runtime)) {
    std::filesystem::create_directories(runtime_);
    const char* tool = std::getenv("VMATTACH");
    if (tool != nullptr) tool_ = tool;
  }
  bool available() const { return !tool_.empty() && access(tool_.c_str(), X_OK) == 0; }
  ProcessResult run(std::vector<std::string> args,
                    std::map<std::string, std::string> environment = {}) const {
    args.insert(args.begin(), tool_);
    args.push_back("--data-dir=" + data_.string());
    ProcessOptions options;
    options.environment = std::move(environment);
    options.environment["XDG_RUNTIME_DIR"] = runtime_.string();
    options.environment["VM_LOG_LEVEL"] = "error";
    options.timeout = std::chrono::seconds(120);
    return RunProcess(args, options);
  }
  // Where its mounts go.
  std::filesystem::path mountFolder() const { return runtime_ / "vmattach"; }

 private:
  std::string tool_;
  std::filesystem::path data_;
  std::filesystem::path runtime_;
};

// The last non-empty line of a program's output.
inline std::string Trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

// Whether a file on a share kept its source's modification date as far as the share can
// carry one: rclone's mounts keep whole seconds and may round either way, so the stored
// second may differ from the source's by one.
inline ::testing::AssertionResult KeptModificationSecond(const struct stat& stored,
                                                         const struct stat& source) {
  long long drift = static_cast<long long>(stored.st_mtim.tv_sec) - source.st_mtim.tv_sec;
  if (drift >= -1 && drift <= 1) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << "stored modification second " << stored.st_mtim.tv_sec << " is " << drift
         << " s from the source's " << source.st_mtim.tv_sec;
}

}  // namespace vm::testing

#endif  // VM_TESTS_VMATTACHMENTS_SCHEMES_SHARESERVERSUPPORT_H_
