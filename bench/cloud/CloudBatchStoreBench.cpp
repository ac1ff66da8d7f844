// Stores a folder of many small files through the cloud scheme, vmcloudd keeping the bytes
// in an S3-compatible server (s3rver) on loopback, against `rclone copy` of the same folder
// to the same server with the same concurrency, in the same run. vmattach also encrypts
// every file, hashes it twice and records a row; rclone uploads the plain bytes.
// Prints per round both wall times and their ratio, then the median ratio (goal at most 1.2,
// aim 1.0) and vmattach's peak resident memory.
//
// Each round stores into a fresh data folder and copies into a fresh prefix, the sides
// taking turns at going first, after a sync(2); one round goes first uncounted.
// --form batch passes every file to one `vmattach store FILE... --jobs N`; --form single
// runs one `vmattach store FILE` per file, N processes at a time (the tool before batches).
//
//   cloud_batch_store_bench [--files 1000] [--kib 20] [--jobs 4] [--rounds 5]
//                           [--form batch|single] [--rclone /usr/bin/rclone]
//                           [--s3rver PATH] [--dir /tmp]
//
// --dir holds everything the run writes (the files, both stores, s3rver's folder and
// vmattach's TMPDIR); /dev/shm takes the file system's inode allocation out of the figures.

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "bench/cloud/BenchProcess.h"

namespace {

using Clock = std::chrono::steady_clock;
using vm::bench::Finished;
using vm::bench::Run;
namespace fs = std::filesystem;

constexpr const char* kToken = "bench-token";
constexpr const char* kKey = "S3RVER";  // s3rver's fixed credentials

struct Options {
  int files = 1000;
  int kib = 20;
  int jobs = 4;
  int rounds = 5;
  std::string form = "batch";
  std::string rclone = "/usr/bin/rclone";
  std::string s3rver = VM_S3RVER_PATH;
  std::string dir = "/tmp";
};

Options Parse(const std::vector<std::string>& args) {
  Options options;
  for (std::size_t i = 0; i + 1 < args.size(); i += 2) {
    const std::string& value = args[i + 1];
    if (args[i] == "--files") options.files = std::max(1, std::atoi(value.c_str()));
    if (args[i] == "--kib") options.kib = std::max(1, std::atoi(value.c_str()));
    if (args[i] == "--jobs") options.jobs = std::max(1, std::atoi(value.c_str()));
    if (args[i] == "--rounds") options.rounds = std::max(1, std::atoi(value.c_str()));
    if (args[i] == "--form") options.form = value;
    if (args[i] == "--rclone") options.rclone = value;
    if (args[i] == "--s3rver") options.s3rver = value;
    if (args[i] == "--dir") options.dir = value;
  }
  return options;
}

// `count` files of `kib` KiB of distinct pseudo-random bytes.
std::vector<std::string> MakeFolder(const fs::path& folder, int count, int kib) {
  fs::create_directories(folder);
  std::mt19937_64 random(7);
  std::vector<char> bytes(static_cast<std::size_t>(kib) * 1024);
  std::vector<std::string> paths;
  for (int i = 0; i < count; ++i) {
    for (char& c : bytes) c = static_cast<char>(random());
    paths.push_back((folder / fmt::format("file-{:04}.bin", i)).string());
    std::ofstream(paths.back(), std::ios::binary)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
  return paths;
}

// Runs every command, at most `jobs` at a time; the wall time of the whole and the
// largest peak. False when one failed.
bool RunPool(const std::vector<std::vector<std::string>>& commands, int jobs, Finished* whole) {
  const auto start = Clock::now();
  std::map<pid_t, std::size_t> running;
  std::size_t next = 0;
  bool ok = true;
  while (next < commands.size() || !running.empty()) {
    while (next < commands.size() && static_cast<int>(running.size()) < jobs) {
      pid_t pid = ::fork();
      if (pid == 0) {
        std::vector<char*> args;
        for (const auto& a : commands[next]) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        int null = ::open("/dev/null", O_WRONLY);
        if (null < 0 || ::dup2(null, STDOUT_FILENO) < 0) ::_exit(127);
        ::execv(args[0], args.data());
        ::_exit(127);
      }
      running[pid] = next++;
    }
    int status = 0;
    struct rusage usage {};
    pid_t done = ::wait4(-1, &status, 0, &usage);
    if (done <= 0) break;
    running.erase(done);
    ok = ok && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    whole->peak_kib = std::max(whole->peak_kib, usage.ru_maxrss);
  }
  whole->seconds = std::chrono::duration<double>(Clock::now() - start).count();
  whole->status = ok ? 0 : 1;
  return ok;
}

struct Round {
  double store = 0, copy = 0;
  long store_peak = 0, copy_peak = 0;
  double ratio() const { return store / copy; }
};

class Bench {
 public:
  Bench(Options options, fs::path work, int service_port, int s3_port)
      : options_(std::move(options)),
        work_(std::move(work)),
        api_(fmt::format("http://127.0.0.1:{}", service_port)),
        s3_(fmt::format("http://127.0.0.1:{}", s3_port)) {
    // rclone's remote comes from its environment alone, with an empty configuration file.
    std::ofstream(work_ / "rclone.conf").close();
    ::setenv("RCLONE_CONFIG", (work_ / "rclone.conf").c_str(), 1);
    ::setenv("RCLONE_CONFIG_BENCH_TYPE", "s3", 1);
    ::setenv("RCLONE_CONFIG_BENCH_PROVIDER", "Other", 1);
    ::setenv("RCLONE_CONFIG_BENCH_ENDPOINT", s3_.c_str(), 1);
    ::setenv("RCLONE_CONFIG_BENCH_ACCESS_KEY_ID", kKey, 1);
    ::setenv("RCLONE_CONFIG_BENCH_SECRET_ACCESS_KEY", kKey, 1);
    ::setenv("RCLONE_CONFIG_BENCH_FORCE_PATH_STYLE", "true", 1);
    // The endpoint is plain HTTP; a CA bundle named for the AWS SDK would only make
    // rclone's S3 client refuse its own transport.
    ::unsetenv("AWS_CA_BUNDLE");
  }

  bool prepare() {
    files_ = MakeFolder(work_ / "in", options_.files, options_.kib);
    return true;
  }

  bool store(int round_index, Round* round) {
    const std::string data = (work_ / fmt::format("data-{}", round_index)).string();
    if (!vm::bench::AddCloudScheme(VM_VMATTACH_PATH, data, api_, kToken)) return false;
    ::sync();
    Finished whole;
    if (options_.form == "single") {
      std::vector<std::vector<std::string>> commands;
      for (const std::string& file : files_) {
        commands.push_back(
            {VM_VMATTACH_PATH, "--data-dir", data, "store", file, "--scheme", "cloud"});
      }
      RunPool(commands, options_.jobs, &whole);
    } else {
      std::vector<std::string> argv = {VM_VMATTACH_PATH, "--data-dir", data, "store"};
      argv.insert(argv.end(), files_.begin(), files_.end());
      for (const char* extra : {"--scheme", "cloud", "--jobs"}) argv.push_back(extra);
      argv.push_back(std::to_string(options_.jobs));
      whole = Run(argv);
      const auto ids = std::count(whole.output.begin(), whole.output.end(), '\n');
      if (whole.status == 0 && ids != options_.files) whole.status = 1;
    }
    if (whole.status != 0) {
      fmt::print(stderr, "vmattach store failed (status {})\n", whole.status);
      return false;
    }
    round->store = whole.seconds;
    round->store_peak = whole.peak_kib;
    return true;
  }

  bool copy(int round_index, Round* round) {
    ::sync();
    const std::string jobs = std::to_string(options_.jobs);
    Finished whole = Run({options_.rclone, "copy", (work_ / "in").string(),
                          fmt::format("bench:rclonebench/round-{}", round_index), "--transfers",
                          jobs, "--checkers", jobs, "--retries", "1"});
    if (whole.status != 0) {
      fmt::print(stderr, "rclone copy failed (status {})\n", whole.status);
      return false;
    }
    round->copy = whole.seconds;
    round->copy_peak = whole.peak_kib;
    return true;
  }

 private:
  Options options_;
  fs::path work_;
  std::string api_;
  std::string s3_;
  std::vector<std::string> files_;
};

int Drive(const Options& options) {
  const fs::path work = vm::bench::MakeWorkFolder("vm-cloud-batch-bench", options.dir);
  if (work.empty()) return 1;
  fs::create_directories(work / "s3");
  // vmattach's work files go beside everything else the run writes.
  fs::create_directories(work / "tmp");
  ::setenv("TMPDIR", (work / "tmp").c_str(), 1);
  vm::bench::Server s3 =
      vm::bench::StartServer({options.s3rver, "--address", "127.0.0.1", "--port", "0",
                              "--directory", (work / "s3").string(), "--configure-bucket",
                              "vmbench", "--configure-bucket", "rclonebench"},
                             work / "s3rver.log");
  vm::bench::Server service;
  if (s3.port != 0) {
    service = vm::bench::StartCloudService(
        VM_VMCLOUDD_PATH, work, kToken,
        {"--s3-endpoint", fmt::format("http://127.0.0.1:{}", s3.port), "--s3-bucket", "vmbench",
         "--s3-access-key", kKey, "--s3-secret", kKey, "--s3-path-style"});
  }
  int failures = 0;
  if (service.port == 0) {
    fmt::print(stderr, "s3rver or vmcloudd did not start (see {})\n", work.string());
    vm::bench::StopServer(&s3);
    return 1;
  }
  Bench bench(options, work, service.port, s3.port);
  bench.prepare();
  fmt::print(
      "cloud batch store benchmark: {} files of {} KiB, {} at a time, vmattach store ({}) "
      "through vmcloudd on s3rver against rclone copy to the same s3rver, {} rounds\n",
      options.files, options.kib, options.jobs, options.form, options.rounds);
  fmt::print("{:>5} {:>9} {:>9} {:>7} {:>10} {:>10}\n", "round", "vmattach", "rclone", "ratio",
             "vmattach pk", "rclone pk");
  std::vector<double> ratios;
  long peak = 0;
  Round warm_up;
  bool ok = bench.store(0, &warm_up) && bench.copy(0, &warm_up);
  for (int index = 1; ok && index <= options.rounds; ++index) {
    Round round;
    ok = index % 2 == 1 ? bench.store(index, &round) && bench.copy(index, &round)
                        : bench.copy(index, &round) && bench.store(index, &round);
    if (!ok) break;
    ratios.push_back(round.ratio());
    peak = std::max(peak, round.store_peak);
    fmt::print("{:>5} {:>8.3f}s {:>8.3f}s {:>7.3f} {:>7.1f} MiB {:>6.1f} MiB\n", index, round.store,
               round.copy, round.ratio(), round.store_peak / 1024.0, round.copy_peak / 1024.0);
    std::fflush(stdout);
  }
  if (!ok) ++failures;
  if (!ratios.empty()) {
    fmt::print("{}, vmattach peak {:.1f} MiB\n", vm::bench::SpreadOf(ratios).describe(),
               peak / 1024.0);
  }
  fmt::print(
      "ratio = vmattach store of every file (whole processes) / rclone copy of the folder "
      "(whole process) within a round; goal: median <= 1.2, aim 1.0\n");
  vm::bench::StopServer(&service);
  vm::bench::StopServer(&s3);
  if (failures == 0) vm::bench::RemoveWorkFolder(work);
  return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  return Drive(Parse(std::vector<std::string>(argv + 1, argv + argc)));
}
