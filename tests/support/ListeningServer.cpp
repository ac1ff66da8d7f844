#include "tests/support/ListeningServer.h"

#include <regex>
#include <thread>

#include "tests/support/TempDir.h"

namespace vm::testing {

std::unique_ptr<ListeningServer> ListeningServer::Start(const std::vector<std::string>& argv,
                                                        const std::filesystem::path& log,
                                                        std::string* problem,
                                                        std::chrono::seconds limit) {
  ErrorRef error;
  std::unique_ptr<ChildProcess> child = ChildProcess::Start(argv, log, {}, &error);
  if (!child) {
    *problem = "cannot start " + argv.at(0) + ": " + (error ? error->summary() : "");
    return nullptr;
  }
  const std::regex listening(R"(listening on 127\.0\.0\.1:(\d+))");
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < deadline) {
    std::string text = ReadFile(log);
    std::smatch match;
    if (std::regex_search(text, match, listening)) {
      return std::unique_ptr<ListeningServer>(
          new ListeningServer(std::move(child), std::stoi(match[1].str())));
    }
    if (!child->running()) {
      *problem = argv.at(0) + " exited: " + text;
      return nullptr;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  *problem = argv.at(0) + " did not announce its port in time: " + ReadFile(log);
  return nullptr;
}

std::string ListeningServer::url() const { return "http://127.0.0.1:" + std::to_string(port_); }

}  // namespace vm::testing
