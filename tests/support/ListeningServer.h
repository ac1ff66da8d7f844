#ifndef VM_TESTS_SUPPORT_LISTENINGSERVER_H_
#define VM_TESTS_SUPPORT_LISTENINGSERVER_H_

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/Subprocess.h"

namespace vm::testing {

// A server program started by a test on 127.0.0.1, port 0, that announces its port with a
// line "listening on 127.0.0.1:<port>" (vmcloudd and s3rver both do). Its output goes to
// `log`. Stopped (SIGTERM, then SIGKILL) when the object goes away. Not thread-safe.
class ListeningServer {
 public:
  // Starts `argv` and waits, bounded by `limit`, for the announcement. Null with the reason
  // (the program's output included) in `*problem` when it did not come.
  static std::unique_ptr<ListeningServer> Start(
      const std::vector<std::string>& argv, const std::filesystem::path& log, std::string* problem,
      std::chrono::seconds limit = std::chrono::seconds(30));

  int port() const { return port_; }
  // "http://127.0.0.1:<port>".
  std::string url() const;
  pid_t pid() const { return child_->pid(); }
  void stop() { child_->stop(); }
  // See ChildProcess::waitExit.
  bool waitExit(std::chrono::milliseconds limit, int* exit_status) {
    return child_->waitExit(limit, exit_status);
  }

 private:
  ListeningServer(std::unique_ptr<ChildProcess> child, int port)
      : child_(std::move(child)), port_(port) {}

  std::unique_ptr<ChildProcess> child_;
  int port_;
};

// s3rver (from tests/support/node_modules) with one bucket `bucket`, its objects under
// `dir`. Its fixed credentials are kS3rverKey for both the access key and the secret.
inline constexpr const char* kS3rverKey = "S3RVER";
std::unique_ptr<ListeningServer> StartS3rver(const std::filesystem::path& dir,
                                             const std::string& bucket, std::string* problem);

}  // namespace vm::testing

#endif  // VM_TESTS_SUPPORT_LISTENINGSERVER_H_
