#include "tests/services/vmcloudd/TestDatabase.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string_view>

#include "tests/support/TempDir.h"
#include "tests/support/TestServers.h"

namespace vm::testing {
namespace {

// One server per test process: starting a cluster takes seconds, a database milliseconds.
struct SharedServer {
  TempDir dir;
  PostgresServer server{dir.path() / "postgres"};
};

SharedServer& Shared() {
  static std::once_flag once;
  static std::unique_ptr<SharedServer> shared;
  std::call_once(once, [] { shared = std::make_unique<SharedServer>(); });
  return *shared;
}

}  // namespace

std::string FreshPostgresDatabase() {
  static std::atomic<int> next{0};
  SharedServer& shared = Shared();
  if (!shared.server.running()) {
    ADD_FAILURE() << shared.server.problem();
    return "";
  }
  std::string uri = shared.server.createDatabase("records_" + std::to_string(next++));
  if (uri.empty()) ADD_FAILURE() << shared.server.problem();
  return uri;
}

std::string FreshRecordsDatabase() {
  const char* backend = std::getenv("VMCLOUDD_TEST_BACKEND");
  if (backend == nullptr || std::string_view(backend) != "postgresql") return "";
  return FreshPostgresDatabase();
}

}  // namespace vm::testing
