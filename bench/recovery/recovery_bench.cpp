// Runs the transfers recovery pass over a transfer folder of encrypted work files and
// sha1sum over the same files in the same run, and prints the time ratio.
//
//   recovery_bench [--mib N] [--folders N] [--rounds N] [--dir PATH]
//
// Defaults: 2048 MiB of work files in 200 folders, 5 counted rounds after one that is not
// counted (it brings the files into the page cache for both sides). The sides take turns
// going first; the figure is the median of the per-round ratios (pass / sha1sum), with the
// ratio of the best times beside it. Goal: at most 1.05.
//
// One attachment is missing and its stored hash matches no file, so the pass hashes every
// work file and proves none: what is measured is the hash index, the part of the pass
// whose cost grows with the folder.

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "VMAttachments/recovery/CloudAttachmentRecovery.h"
#include "host/HostConstants.h"
#include "host/sqlite/SqliteObjectContext.h"
#include "platform/DispatchQueue.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

struct Options {
  std::uint64_t mib = 2048;
  int folders = 200;
  int rounds = 5;
  fs::path dir;
};

Options ParseOptions(int argc, char** argv) {
  Options options;
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string flag = argv[i];
    const char* value = argv[i + 1];
    if (flag == "--mib") {
      options.mib = std::strtoull(value, nullptr, 10);
    } else if (flag == "--folders") {
      options.folders = std::atoi(value);
    } else if (flag == "--rounds") {
      options.rounds = std::atoi(value);
    } else if (flag == "--dir") {
      options.dir = value;
    } else {
      fmt::print(stderr, "unknown option {}\n", flag);
      std::exit(2);
    }
  }
  if (options.folders < 1 || options.rounds < 1 || options.mib < 1) {
    fmt::print(stderr, "--mib, --folders and --rounds must be positive\n");
    std::exit(2);
  }
  return options;
}

void WriteRandomFile(const fs::path& path, std::uint64_t size, std::uint64_t& state) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) {
    std::perror(path.c_str());
    std::exit(1);
  }
  std::vector<std::uint64_t> block(131072);
  while (size > 0) {
    for (auto& word : block) {
      state ^= state << 13;
      state ^= state >> 7;
      state ^= state << 17;
      word = state;
    }
    std::uint64_t chunk = std::min<std::uint64_t>(size, block.size() * sizeof(std::uint64_t));
    if (::write(fd, block.data(), chunk) != static_cast<ssize_t>(chunk)) {
      std::perror("write");
      std::exit(1);
    }
    size -= chunk;
  }
  ::close(fd);
}

double RunPass(vm::SqliteObjectContext& context) {
  std::atomic<bool> done{false};
  Clock::time_point start = Clock::now();
  vm::CloudAttachmentRecovery::recoverTransfersWithContext(
      &context, [&](std::shared_ptr<vm::AttachmentList> remaining) {
        if (!remaining || remaining->size() != 1) {
          fmt::print(stderr, "the pass did not leave the one missing attachment\n");
          std::exit(1);
        }
        done = true;
      });
  if (!vm::MainQueue::shared().runUntilCondition([&] { return done.load(); },
                                                 Clock::now() + std::chrono::hours(1))) {
    fmt::print(stderr, "the pass did not finish\n");
    std::exit(1);
  }
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double RunSha1sum(const std::vector<fs::path>& files) {
  std::vector<std::string> arguments = {"sha1sum"};
  for (const fs::path& file : files) arguments.push_back(file.string());
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  Clock::time_point start = Clock::now();
  pid_t pid = ::fork();
  if (pid == 0) {
    int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, STDOUT_FILENO);
    ::execvp("sha1sum", argv.data());
    _exit(127);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    fmt::print(stderr, "sha1sum failed\n");
    std::exit(1);
  }
  return seconds;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  std::size_t n = values.size();
  return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

}  // namespace

int main(int argc, char** argv) {
  Options options = ParseOptions(argc, argv);
  bool own_dir = options.dir.empty();
  if (own_dir) {
    std::string pattern = (fs::temp_directory_path() / "recovery_bench.XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      std::perror("mkdtemp");
      return 1;
    }
    options.dir = pattern;
  }

  vm::ErrorRef error;
  auto context = vm::SqliteObjectContext::open(options.dir / "data", &error);
  if (!context) {
    fmt::print(stderr, "{}\n", error->summary());
    return 1;
  }
  context->installAsProcessHost();
  auto scheme = context->insertScheme("cloud", "VMCAttachment", &error);
  auto record = context->insertAttachment(&error);
  if (!scheme || !record) {
    fmt::print(stderr, "{}\n", error->summary());
    return 1;
  }
  record->setName("missing.bin");
  record->setAttachmentUUID("bench-missing");
  record->setUploaded(false);
  record->setFileAttachmentScheme(scheme);
  record->setObject(vm::Bytes(20, 0), vm::kHXFileAttachmentCryptedHash);
  if (!context->saveChanges(&error)) {
    fmt::print(stderr, "{}\n", error->summary());
    return 1;
  }

  const std::uint64_t total = options.mib << 20;
  const std::uint64_t per_file = total / static_cast<std::uint64_t>(options.folders);
  std::vector<fs::path> files;
  std::uint64_t state = 0x9E3779B97F4A7C15ull;
  for (int i = 0; i < options.folders; ++i) {
    fs::path folder = context->transfersDirectory() / fmt::format("transfer-{:04}", i);
    fs::create_directories(folder);
    files.push_back(folder / "crypt");
    WriteRandomFile(files.back(), per_file, state);
  }
  fmt::print("{} work files of {:.1f} MiB in {} folders\n", files.size(),
             static_cast<double>(per_file) / (1 << 20), options.folders);

  // Not counted: brings the files into the page cache for both sides.
  RunPass(*context);
  RunSha1sum(files);

  std::vector<double> pass_times, sha_times, ratios;
  for (int round = 0; round < options.rounds; ++round) {
    double pass = 0, sha = 0;
    if (round % 2 == 0) {
      pass = RunPass(*context);
      sha = RunSha1sum(files);
    } else {
      sha = RunSha1sum(files);
      pass = RunPass(*context);
    }
    pass_times.push_back(pass);
    sha_times.push_back(sha);
    ratios.push_back(pass / sha);
    fmt::print("round {}: pass {:.3f} s, sha1sum {:.3f} s, ratio {:.3f}\n", round + 1, pass, sha,
               pass / sha);
  }
  double best_pass = *std::min_element(pass_times.begin(), pass_times.end());
  double best_sha = *std::min_element(sha_times.begin(), sha_times.end());
  fmt::print(
      "transfers pass / sha1sum: median ratio {:.3f} (range {:.3f} to {:.3f}), best-time ratio "
      "{:.3f}; {:.0f} MiB/s against {:.0f} MiB/s (goal: at most 1.05)\n",
      Median(ratios), *std::min_element(ratios.begin(), ratios.end()),
      *std::max_element(ratios.begin(), ratios.end()), best_pass / best_sha,
      static_cast<double>(options.mib) / best_pass, static_cast<double>(options.mib) / best_sha);

  context.reset();
  if (own_dir) fs::remove_all(options.dir);
  return 0;
}
