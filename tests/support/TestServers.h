#ifndef VM_TESTS_SUPPORT_TESTSERVERS_H_
#define VM_TESTS_SUPPORT_TESTSERVERS_H_

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <string>

namespace vm::testing {

// A real S3-compatible server (s3rver from tests/support/node_modules) on 127.0.0.1 at a
// port it picks, with one bucket `bucket`, its objects under `dir`. Stopped on destruction.
// Takes a second or two to start, so suites share one. Check running() before use.
class S3rver {
 public:
  static constexpr const char* kAccessKey = "S3RVER";  // s3rver's fixed credentials
  static constexpr const char* kSecretKey = "S3RVER";

  S3rver(const std::filesystem::path& dir, const std::string& bucket);
  ~S3rver();
  S3rver(const S3rver&) = delete;
  S3rver& operator=(const S3rver&) = delete;

  bool running() const { return port_ > 0; }
  const std::string& problem() const { return problem_; }
  std::string endpoint() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  pid_t pid_ = -1;
  int port_ = 0;
  std::string problem_;
};

// A private PostgreSQL server: a new cluster made with initdb under `dir`, listening on
// 127.0.0.1 only (no Unix socket) at a port it picks, with trust authentication for the
// user "postgres". Run as root, the cluster belongs to the system's postgres account, since
// the server refuses to run as root. Stopped on destruction. Check running() before use.
class PostgresServer {
 public:
  // kNone (for tests) skips fsync; kDurable keeps the server's safe defaults (benchmarks).
  enum class Durability { kNone, kDurable };

  explicit PostgresServer(const std::filesystem::path& dir,
                          Durability durability = Durability::kNone);
  ~PostgresServer();
  PostgresServer(const PostgresServer&) = delete;
  PostgresServer& operator=(const PostgresServer&) = delete;

  bool running() const { return port_ > 0; }
  const std::string& problem() const { return problem_; }

  // Makes an empty database `name` (letters, digits and "_" only) and returns its URI;
  // empty on failure, with problem() saying why.
  std::string createDatabase(const std::string& name);

 private:
  std::string uri(const std::string& database) const;

  pid_t pid_ = -1;
  int port_ = 0;
  std::string problem_;
};

// Stops a child: SIGTERM, then SIGKILL when it has not ended within `grace`.
void StopChild(pid_t pid, std::chrono::milliseconds grace);

}  // namespace vm::testing

#endif  // VM_TESTS_SUPPORT_TESTSERVERS_H_
