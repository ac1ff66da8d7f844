// Uploads and downloads a file through presigned addresses on a loopback attachment
// service with the cloud operations, and runs the curl tool on the same PUT and GET in the
// same run. Prints the time ratio (ours / curl; goal: at most 1.1) and the peak resident
// memory of each client process, for two file sizes, so that growth with the size shows.
//
//   cloud_transfer_bench [--sizes 32,256] [--rounds 3] [--curl /usr/bin/curl]
//   cloud_transfer_bench --serve FOLDER   (just the service; prints its port on stdout)
//
// The service runs in a child process, each measured client in a fresh process of its
// own, so that every peak is the client's alone.

#include <fcntl.h>
#include <fmt/format.h>
#include <httplib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "BWFoundation/ServerEnvironment.h"
#include "VMAttachments/CloudAttachmentOperation.h"
#include "bench/cloud/BenchProcess.h"
#include "platform/DispatchQueue.h"
#include "platform/Operation.h"
#include "platform/UniqueID.h"

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

constexpr const char* kAPIPath = "/api/v1/_internal/attachment";

// ---- The service: API routes and a streaming storage provider on local disk --------------

int Serve(const fs::path& folder, int port_pipe) {
  httplib::Server server;
  // As a real service would: small JSON replies are not held back waiting for an ACK.
  server.set_tcp_nodelay(true);
  auto base = std::make_shared<std::string>();
  server.Post(kAPIPath, [&](const httplib::Request& request, httplib::Response& response) {
    auto body = nlohmann::json::parse(request.body);
    std::string uuid = vm::MakeUniqueID();
    response.status = 201;
    response.set_content(nlohmann::json{{"uuid", uuid},
                                        {"size", body.at("size")},
                                        {"state", "new"},
                                        {"upload_url", *base + "/storage/" + uuid}}
                             .dump(),
                         "application/json");
  });
  server.Put(std::string(kAPIPath) + "/.*",
             [](const httplib::Request& request, httplib::Response& response) {
               response.set_content(request.body, "application/json");
             });
  server.Get(std::string(kAPIPath) + "/(.*)",
             [&](const httplib::Request& request, httplib::Response& response) {
               std::string uuid = request.matches[1];
               std::error_code ignored;
               response.set_content(nlohmann::json{{"uuid", uuid},
                                                   {"size", fs::file_size(folder / uuid, ignored)},
                                                   {"state", "uploaded"},
                                                   {"download_url", *base + "/storage/" + uuid}}
                                        .dump(),
                                    "application/json");
             });
  // Streams the body to disk: the service's memory does not grow with the file either.
  server.Put("/storage/(.*)", [&](const httplib::Request& request, httplib::Response& response,
                                  const httplib::ContentReader& reader) {
    int fd = ::open((folder / request.matches[1].str()).c_str(),
                    O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    bool ok = fd >= 0 && reader([fd](const char* data, size_t length) {
                return ::write(fd, data, length) == static_cast<ssize_t>(length);
              });
    if (fd >= 0) ::close(fd);
    response.status = ok ? 200 : 500;
  });
  server.Get("/storage/(.*)", [&](const httplib::Request& request, httplib::Response& response) {
    fs::path path = folder / request.matches[1].str();
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      response.status = 404;
      return;
    }
    struct stat info {};
    ::fstat(fd, &info);
    response.set_content_provider(
        static_cast<size_t>(info.st_size), "application/octet-stream",
        [fd](size_t offset, size_t length, httplib::DataSink& sink) {
          static thread_local std::vector<char> buffer(1 << 20);
          ssize_t got = ::pread(fd, buffer.data(), std::min(length, buffer.size()),
                                static_cast<off_t>(offset));
          return got > 0 && sink.write(buffer.data(), static_cast<size_t>(got));
        },
        [fd](bool) { ::close(fd); });
  });
  int port = server.bind_to_any_port("127.0.0.1");
  *base = "http://127.0.0.1:" + std::to_string(port);
  if (port_pipe == STDOUT_FILENO) {
    fmt::print("{}\n", port);
    std::fflush(stdout);
  } else if (::write(port_pipe, &port, sizeof(port)) != sizeof(port)) {
    return 1;
  } else {
    ::close(port_pipe);
  }
  server.listen_after_bind();
  return 0;
}

// ---- One measured client -----------------------------------------------------------------

long PeakResidentKiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

bool RunToEnd(const std::shared_ptr<vm::CloudAttachmentOperation>& operation) {
  vm::OperationQueue queue;
  queue.addOperation(operation);
  return vm::MainQueue::shared().runUntilCondition([&] { return operation->isFinished(); },
                                                   Clock::now() + std::chrono::minutes(10)) &&
         !operation->failed();
}

// Prints "<uuid> <upload seconds> <download seconds> <peak KiB>".
int Client(const std::string& api, const fs::path& file, const fs::path& out) {
  vm::ServerEnvironment::setCurrent(vm::ServerEnvironment(*vm::URL::URLWithString(api)));
  vm::AuthToken token("bench");
  auto upload = std::make_shared<vm::UploadCloudAttachmentOperation>(token, file);
  auto start = Clock::now();
  if (!RunToEnd(upload)) {
    fmt::print(stderr, "upload failed: {}\n", upload->error() ? upload->error()->summary() : "?");
    return 1;
  }
  double up = std::chrono::duration<double>(Clock::now() - start).count();
  std::string uuid = *upload->attachmentUUID();
  auto download = std::make_shared<vm::DownloadCloudAttachmentOperation>(token, uuid, out);
  start = Clock::now();
  if (!RunToEnd(download)) {
    fmt::print(stderr, "download failed: {}\n",
               download->error() ? download->error()->summary() : "?");
    return 1;
  }
  double down = std::chrono::duration<double>(Clock::now() - start).count();
  if (fs::file_size(out) != fs::file_size(file)) {
    fmt::print(stderr, "download has the wrong size\n");
    return 1;
  }
  fmt::print("{} {:.6f} {:.6f} {}\n", uuid, up, down, PeakResidentKiB());
  return 0;
}

// ---- The driver ---------------------------------------------------------------------------

using vm::bench::Finished;
using vm::bench::MakeFile;
using vm::bench::Run;

struct Best {
  double ours_up = 1e9, ours_down = 1e9, curl_up = 1e9, curl_down = 1e9;
  long ours_peak = 0, curl_peak = 0;
};

int Drive(const std::string& self, const std::vector<std::size_t>& sizes, int rounds,
          const std::string& curl) {
  const fs::path work = vm::bench::MakeWorkFolder("vm-cloud-bench");
  if (work.empty()) return 1;
  fs::create_directories(work / "service");
  fs::create_directories(work / "client");

  int port_pipe[2];
  if (::pipe(port_pipe) != 0) return 1;
  pid_t service = ::fork();
  if (service == 0) {
    ::close(port_pipe[0]);
    ::_exit(Serve(work / "service", port_pipe[1]));
  }
  ::close(port_pipe[1]);
  int port = 0;
  if (::read(port_pipe[0], &port, sizeof(port)) != sizeof(port) || port <= 0) return 1;
  std::string origin = "http://127.0.0.1:" + std::to_string(port);

  fmt::print("cloud transfer benchmark: loopback service {}, best of {} rounds\n", origin, rounds);
  fmt::print("{:>8} {:>9} {:>9} {:>9} {:>9} {:>7} {:>11} {:>11}\n", "size", "ours up", "ours down",
             "curl up", "curl down", "ratio", "ours peak", "curl peak");
  int failures = 0;
  for (std::size_t mib : sizes) {
    fs::path file = work / fmt::format("payload-{}", mib);
    MakeFile(file, mib);
    Best best;
    for (int round = 0; round < rounds; ++round) {
      fs::path out = work / "client" / fmt::format("ours-{}-{}", mib, round);
      Finished ours = Run({self, "--client", origin + "/api", file.string(), out.string()});
      std::istringstream fields(ours.output);
      std::string uuid;
      double up = 0, down = 0;
      long peak = 0;
      if (ours.status != 0 || !(fields >> uuid >> up >> down >> peak)) {
        fmt::print(stderr, "our client failed (status {})\n", ours.status);
        ++failures;
        continue;
      }
      fs::remove(out);
      best.ours_up = std::min(best.ours_up, up);
      best.ours_down = std::min(best.ours_down, down);
      best.ours_peak = std::max(best.ours_peak, peak);

      // The same PUT and GET with the curl tool: the presigned addresses, no headers added.
      std::string put_url = origin + "/storage/curl-" + uuid;
      // -w reports curl's own transfer time, without its process start, like ours.
      Finished put = Run(
          {curl, "-sS", "-o", "/dev/null", "-w", "%{time_total}", "-T", file.string(), put_url});
      fs::path curl_out = work / "client" / "curl-out";
      Finished get = Run({curl, "-sS", "-o", curl_out.string(), "-w", "%{time_total}",
                          origin + "/storage/" + uuid});
      if (put.status != 0 || get.status != 0 || fs::file_size(curl_out) != fs::file_size(file)) {
        fmt::print(stderr, "curl failed\n");
        ++failures;
        continue;
      }
      fs::remove(curl_out);
      // Both stored copies go at once: gigabytes left in the page cache slow later rounds.
      fs::remove(work / "service" / uuid);
      fs::remove(work / "service" / ("curl-" + uuid));
      best.curl_up = std::min(best.curl_up, std::stod(put.output));
      best.curl_down = std::min(best.curl_down, std::stod(get.output));
      best.curl_peak = std::max({best.curl_peak, put.peak_kib, get.peak_kib});
    }
    double ratio = (best.ours_up + best.ours_down) / (best.curl_up + best.curl_down);
    fmt::print(
        "{:>5} MiB {:>8.3f}s {:>8.3f}s {:>8.3f}s {:>8.3f}s {:>7.3f} {:>7.1f} MiB {:>7.1f} MiB\n",
        mib, best.ours_up, best.ours_down, best.curl_up, best.curl_down, ratio,
        best.ours_peak / 1024.0, best.curl_peak / 1024.0);
    fs::remove(file);
  }
  fmt::print(
      "ratio = (ours up + down) / (curl up + down), goal <= 1.1; peaks are the client "
      "processes' resident high-water marks, curl's the larger of its PUT and GET\n");
  ::kill(service, SIGTERM);
  ::waitpid(service, nullptr, 0);
  vm::bench::RemoveWorkFolder(work);
  return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() == 4 && args[0] == "--client") return Client(args[1], args[2], args[3]);
  if (args.size() == 2 && args[0] == "--serve") return Serve(args[1], STDOUT_FILENO);
  vm::bench::SizeOptions options;
  options.sizes = {32, 256};
  options.rounds = 3;
  vm::bench::ParseSizeOptions(args, &options);
  return Drive(fs::read_symlink("/proc/self/exe").string(), options.sizes, options.rounds,
               options.curl);
}
