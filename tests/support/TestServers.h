#ifndef VM_TESTS_SUPPORT_TESTSERVERS_H_
#define VM_TESTS_SUPPORT_TESTSERVERS_H_

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <string>

namespace vm::testing {

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

}  // namespace vm::testing

#endif  // VM_TESTS_SUPPORT_TESTSERVERS_H_
