#include "bench/cloud/BenchProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>
#include <thread>

namespace vm::bench {

Finished Run(const std::vector<std::string>& argv) {
  int out[2];
  if (::pipe(out) != 0) return {};
  auto start = std::chrono::steady_clock::now();
  pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(out[1], STDOUT_FILENO);
    ::close(out[0]);
    ::close(out[1]);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  ::close(out[1]);
  Finished finished;
  char buffer[4096];
  ssize_t got;
  while ((got = ::read(out[0], buffer, sizeof(buffer))) > 0) finished.output.append(buffer, got);
  ::close(out[0]);
  int status = 0;
  struct rusage usage {};
  ::wait4(pid, &status, 0, &usage);
  finished.seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  finished.peak_kib = usage.ru_maxrss;
  finished.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return finished;
}

Server StartServer(const std::vector<std::string>& argv, const std::filesystem::path& log) {
  Server server;
  server.pid = ::fork();
  if (server.pid == 0) {
    int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out >= 0) {
      ::dup2(out, STDOUT_FILENO);
      ::dup2(out, STDERR_FILENO);
    }
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  const std::regex listening(R"(listening on 127\.0\.0\.1:(\d+))");
  for (int i = 0; i < 400 && server.port == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::ifstream in(log);
    std::stringstream text;
    text << in.rdbuf();
    std::smatch match;
    std::string s = text.str();
    if (std::regex_search(s, match, listening)) server.port = std::stoi(match[1].str());
    if (::waitpid(server.pid, nullptr, WNOHANG) == server.pid) break;
  }
  return server;
}

void StopServer(Server* server) {
  if (server->pid <= 0) return;
  ::kill(server->pid, SIGTERM);
  ::waitpid(server->pid, nullptr, 0);
  server->pid = -1;
}

void ParseSizeOptions(const std::vector<std::string>& args, SizeOptions* options) {
  for (std::size_t i = 0; i + 1 < args.size(); i += 2) {
    if (args[i] == "--rounds") options->rounds = std::max(1, std::atoi(args[i + 1].c_str()));
    if (args[i] == "--curl") options->curl = args[i + 1];
    if (args[i] == "--sizes") {
      options->sizes.clear();
      std::istringstream list(args[i + 1]);
      std::string item;
      while (std::getline(list, item, ',')) options->sizes.push_back(std::stoul(item));
    }
  }
}

void MakeFile(const std::filesystem::path& path, std::size_t mib) {
  std::vector<char> chunk(1 << 20);
  std::mt19937_64 random(42);
  std::ofstream file(path, std::ios::binary);
  for (std::size_t i = 0; i < mib; ++i) {
    for (auto& c : chunk) c = static_cast<char>(random());
    file.write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
  }
}

std::filesystem::path MakeWorkFolder(const std::string& prefix, const std::string& dir) {
  std::string pattern = dir + "/" + prefix + "-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) return {};
  return pattern;
}

void RemoveWorkFolder(const std::filesystem::path& work) {
  std::error_code ignored;
  std::filesystem::remove_all(work, ignored);
}

Server StartCloudService(const std::string& vmcloudd, const std::filesystem::path& work,
                         const std::string& token, const std::vector<std::string>& extra) {
  std::vector<std::string> argv = {
      vmcloudd, "--listen", "127.0.0.1:0", "--data", (work / "service").string(), "--token", token};
  argv.insert(argv.end(), extra.begin(), extra.end());
  Server service = StartServer(argv, work / "vmcloudd.log");
  if (service.port == 0) std::fprintf(stderr, "vmcloudd did not start\n");
  return service;
}

bool AddCloudScheme(const std::string& vmattach, const std::string& data, const std::string& api,
                    const std::string& token) {
  return Run({vmattach, "--data-dir", data, "scheme", "add", "cloud", "--type", "cloud", "--api",
              api, "--token", token})
             .status == 0;
}

std::string Spread::describe() const {
  char text[96];
  std::snprintf(text, sizeof(text), "median ratio %.3f (range %.3f to %.3f)", median, least,
                greatest);
  return text;
}

Spread SpreadOf(std::vector<double> ratios) {
  std::sort(ratios.begin(), ratios.end());
  const std::size_t n = ratios.size();
  Spread spread;
  spread.median = n % 2 == 1 ? ratios[n / 2] : (ratios[n / 2 - 1] + ratios[n / 2]) / 2;
  spread.least = ratios.front();
  spread.greatest = ratios.back();
  return spread;
}

}  // namespace vm::bench
