// Packs and unpacks one generated tree with VMArchiver and with GNU tar (-cf, -xf), and
// prints the time ratios and peak memory. Both sides run as child processes (this
// program re-executes itself for its own side), so start-up costs and peak resident
// sizes compare like with like.
//
//   archive_bench [--small N] [--large N] [--rounds N] [--dir PATH] [--keep 1]
//                 [--isolate 1]
//
// Goal: ratio (VMArchiver / tar) at most 1.0 for pack and for unpack.
//
// Both sides spend nearly all their time in the kernel, so the file system's state moves
// the times more than either program does: on ext4 without a journal, for one, creating
// files within minutes of deleting thousands scans the freed inodes on every create. Hence
// the measures taken here: a first round that is not counted, sides that take turns going
// first, a ratio per round (the two runs of a round meet nearly the same state) whose
// median is the figure, and --isolate (root only), which runs everything on a new
// journaled ext4 file system on a loop device, for figures that do not depend on what the
// machine did before, and holds back free page reporting (below) for the run. The ratio of the two
// best times is printed too: the noise only ever adds time, so the best run is the closest to what
// each program itself costs.
//
// One such noise is the writer's own doing: its single write per file lets the kernel
// cache the archive in 2 MiB folios, and in a virtual machine that hands free memory back
// to its host (free page reporting) such blocks must be backed anew on first touch. Pack
// rounds then take up to twice as long, in bursts; tar's small writes do not meet it.
// --isolate raises the reporting order to its maximum while it runs, so that freed 2 MiB
// blocks stay with the guest as they would on a machine of its own.

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "VMAttachments/archive/VMArchiver.h"
#include "bench/support/PageReportingHold.h"

namespace {

namespace fs = std::filesystem;

struct Sample {
  double seconds = 0;
  double cpu_seconds = 0;
  long max_rss_kib = 0;
};

class Random {
 public:
  std::uint64_t next() {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 7;
    state_ ^= state_ << 17;
    return state_;
  }

 private:
  std::uint64_t state_ = 0x9E3779B97F4A7C15ull;
};

void WriteRandomFile(const fs::path& path, std::size_t size, Random& random) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    std::perror(path.c_str());
    std::exit(1);
  }
  std::vector<std::uint64_t> block(8192);
  while (size > 0) {
    for (auto& word : block) word = random.next();
    std::size_t chunk = std::min(size, block.size() * sizeof(std::uint64_t));
    if (::write(fd, block.data(), chunk) != static_cast<ssize_t>(chunk)) std::exit(1);
    size -= chunk;
  }
  ::close(fd);
}

struct TreeStats {
  int files = 0;
  int folders = 0;
  std::uint64_t bytes = 0;
};

// Folders two levels deep, small files of up to 32 KiB (a few empty and hidden), and a
// handful of files of several MiB.
TreeStats BuildTree(const fs::path& root, int small_files, int large_files) {
  Random random;
  TreeStats stats;
  std::vector<fs::path> folders;
  for (int i = 0; folders.size() * 15 < static_cast<std::size_t>(small_files); ++i) {
    fs::path folder = root / fmt::format("group{:02}", i % 20) / fmt::format("folder{:03}", i);
    fs::create_directories(folder);
    folders.push_back(folder);
  }
  stats.folders = static_cast<int>(folders.size()) + std::min(20, static_cast<int>(folders.size()));
  for (int i = 0; i < small_files; ++i) {
    std::size_t size = i % 50 == 0 ? 0 : random.next() % (32 * 1024);
    std::string name = fmt::format("{}file{:05}.dat", i % 37 == 0 ? "." : "", i);
    WriteRandomFile(folders[static_cast<std::size_t>(i) % folders.size()] / name, size, random);
    stats.bytes += size;
  }
  for (int i = 0; i < large_files; ++i) {
    std::size_t size = (3 + random.next() % 6) << 20;
    WriteRandomFile(root / fmt::format("large{:02}.bin", i), size, random);
    stats.bytes += size;
  }
  stats.files = small_files + large_files;
  return stats;
}

// Runs argv as a child and measures it: wall time, CPU time, peak resident size. Exits
// the benchmark when the child fails.
Sample RunChild(const std::vector<std::string>& args) {
  ::sync();  // write-back of the previous run must not land in this one's time
  std::vector<char*> argv;
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  auto start = std::chrono::steady_clock::now();
  pid_t pid = ::fork();
  if (pid == 0) {
    ::execvp(argv[0], argv.data());
    std::perror(argv[0]);
    ::_exit(127);
  }
  int status = 0;
  struct rusage usage;
  if (pid < 0 || ::wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) ||
      WEXITSTATUS(status) != 0) {
    fmt::print(stderr, "{} failed\n", args[0]);
    std::exit(1);
  }
  Sample sample;
  sample.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  auto tv = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
  sample.cpu_seconds = tv(usage.ru_utime) + tv(usage.ru_stime);
  sample.max_rss_kib = usage.ru_maxrss;
  return sample;
}

Sample Median(std::vector<Sample> samples) {
  std::sort(samples.begin(), samples.end(),
            [](const Sample& a, const Sample& b) { return a.seconds < b.seconds; });
  Sample median = samples[samples.size() / 2];
  for (const Sample& s : samples) median.max_rss_kib = std::max(median.max_rss_kib, s.max_rss_kib);
  return median;
}

// One line: median times, the median of the per-round ratios with their range, the ratio
// of the best times, CPU times and peak resident sizes.
void Report(const char* what, const std::vector<Sample>& ours, const std::vector<Sample>& tar) {
  std::vector<double> ratios;
  for (std::size_t i = 0; i < ours.size(); ++i) ratios.push_back(ours[i].seconds / tar[i].seconds);
  std::sort(ratios.begin(), ratios.end());
  auto best = [](const std::vector<Sample>& samples) {
    double seconds = samples.front().seconds;
    for (const Sample& s : samples) seconds = std::min(seconds, s.seconds);
    return seconds;
  };
  const Sample a = Median(ours), b = Median(tar);
  fmt::print(
      "{:<7} {:>9.3f} s {:>9.3f} s {:>7.2f}  ({:.2f}-{:.2f}) {:>6.2f}   cpu {:.3f} s / {:.3f} s   "
      "peak rss {:.1f} / {:.1f} MiB\n",
      what, a.seconds, b.seconds, ratios[ratios.size() / 2], ratios.front(), ratios.back(),
      best(ours) / best(tar), a.cpu_seconds, b.cpu_seconds, a.max_rss_kib / 1024.0,
      b.max_rss_kib / 1024.0);
}

// A new journaled ext4 file system in an image file, attached to a loop device with direct
// I/O (so its blocks are not cached twice) and mounted at `mount_point`; unmounted,
// detached and deleted again on destruction. Inode tables and journal are initialised up
// front so that no background initialisation runs during the measurements.
class FreshFileSystem {
 public:
  FreshFileSystem(const fs::path& image, const fs::path& mount_point, std::uint64_t bytes)
      : image_(image), mount_point_(mount_point) {
    int fd = ::open(image.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
      std::perror(image.c_str());
      std::exit(1);
    }
    ::close(fd);
    std::string command = "losetup --find --show --direct-io=on '" + image.string() + "'";
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
      char line[256] = {};
      if (std::fgets(line, sizeof line, pipe) != nullptr) device_ = line;
      ::pclose(pipe);
    }
    while (!device_.empty() && device_.back() == '\n') device_.pop_back();
    if (device_.empty()) {
      fmt::print(stderr, "--isolate needs root and a free loop device\n");
      std::exit(1);
    }
    fs::create_directory(mount_point);
    RunChild({"mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0", device_});
    RunChild({"mount", device_, mount_point.string()});
  }
  FreshFileSystem(const FreshFileSystem&) = delete;
  FreshFileSystem& operator=(const FreshFileSystem&) = delete;
  ~FreshFileSystem() {
    RunChild({"umount", mount_point_.string()});
    RunChild({"losetup", "--detach", device_});
    std::error_code ignored;
    fs::remove(image_, ignored);
  }

 private:
  fs::path image_;
  fs::path mount_point_;
  std::string device_;
};

// The child side: one pack or unpack through VMArchiver, with an error pointer.
int RunOurs(const std::string& mode, const fs::path& from, const fs::path& to) {
  vm::ErrorRef error;
  bool ok = mode == "--pack" ? vm::VMArchiver::archiveFilesInDirectory(from, to, &error)
                             : vm::VMArchiver::unpackFilesFromArchive(from, to, &error) == 1;
  if (!ok) fmt::print(stderr, "{}\n", error ? error->summary() : "failed without an error");
  return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && (std::strcmp(argv[1], "--pack") == 0 || std::strcmp(argv[1], "--unpack") == 0)) {
    return RunOurs(argv[1], argv[2], argv[3]);
  }
  int small_files = 3000, large_files = 24, rounds = 9;
  bool keep = false, isolate = false;
  fs::path base = fs::temp_directory_path();
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string option = argv[i];
    if (option == "--small")
      small_files = std::atoi(argv[i + 1]);
    else if (option == "--large")
      large_files = std::atoi(argv[i + 1]);
    else if (option == "--rounds")
      rounds = std::max(1, std::atoi(argv[i + 1]));
    else if (option == "--dir")
      base = argv[i + 1];
    else if (option == "--keep")
      keep = std::atoi(argv[i + 1]) != 0;
    else if (option == "--isolate")
      isolate = std::atoi(argv[i + 1]) != 0;
  }

  std::string pattern = (base / "archive-bench-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  fs::path work = pattern;
  std::unique_ptr<FreshFileSystem> file_system;
  std::unique_ptr<vm::bench::PageReportingHold> page_reporting;
  if (isolate) {
    page_reporting = std::make_unique<vm::bench::PageReportingHold>();
    // Room for the tree, two archives and one round's two extracted trees, twice over.
    const std::uint64_t estimate = (static_cast<std::uint64_t>(small_files) * 16 * 1024 +
                                    static_cast<std::uint64_t>(large_files) * (6u << 20)) *
                                   10;
    file_system = std::make_unique<FreshFileSystem>(work / "fs.img", work / "mnt",
                                                    std::max<std::uint64_t>(estimate, 1u << 30));
    work = work / "mnt";
  }
  const fs::path tree = work / "tree";
  const std::string self = fs::read_symlink("/proc/self/exe").string();
  TreeStats stats = BuildTree(tree, small_files, large_files);
  fmt::print("tree: {} files, {} folders, {:.1f} MiB on {}{}; {} rounds after one not counted\n",
             stats.files, stats.folders, stats.bytes / 1048576.0,
             isolate ? "a fresh ext4" : work.parent_path().string(),
             page_reporting && page_reporting->active() ? ", page reporting held" : "", rounds);
  fmt::print("{:<7} {:>11} {:>11} {:>7}  {:<11} {}\n", "", "VMArchiver", "tar", "ratio", "(range)",
             "best");

  std::vector<Sample> pack_ours, pack_tar, unpack_ours, unpack_tar;
  for (int round = 0; round <= rounds; ++round) {
    const fs::path ours_archive = work / "ours.bwfw", tar_archive = work / "tree.tar";
    // On a fresh journaled file system each round deletes what the last one made, so the
    // page cache and the disk stay the same size throughout. Elsewhere extracted trees
    // stay until the end: on ext4 without a journal, creating files right after deleting
    // thousands makes inode allocation skip the recently freed ones, a cost that would
    // land on whichever side happens to run next.
    const fs::path ours_out = work / (isolate ? "ours-out" : fmt::format("ours-out{}", round));
    const fs::path tar_out = work / (isolate ? "tar-out" : fmt::format("tar-out{}", round));
    for (const fs::path& p : {ours_archive, tar_archive, ours_out, tar_out}) fs::remove_all(p);
    fs::create_directory(ours_out);
    fs::create_directory(tar_out);
    // Alternate which side goes first, so neither always meets the colder cache.
    auto pack = [&] {
      pack_ours.push_back(RunChild({self, "--pack", tree.string(), ours_archive.string()}));
    };
    auto pack_gnu = [&] {
      pack_tar.push_back(RunChild({"tar", "-cf", tar_archive.string(), "-C", tree.string(), "."}));
    };
    auto unpack = [&] {
      unpack_ours.push_back(RunChild({self, "--unpack", ours_archive.string(), ours_out.string()}));
    };
    auto unpack_gnu = [&] {
      unpack_tar.push_back(RunChild({"tar", "-xf", tar_archive.string(), "-C", tar_out.string()}));
    };
    if (round % 2 == 0) {
      pack(), pack_gnu(), unpack(), unpack_gnu();
    } else {
      pack_gnu(), pack(), unpack_gnu(), unpack();
    }
    if (round == 0) {  // the warm-up round: first touches of memory and caches
      for (auto* samples : {&pack_ours, &pack_tar, &unpack_ours, &unpack_tar}) samples->clear();
    }
  }
  Report("pack", pack_ours, pack_tar);
  Report("unpack", unpack_ours, unpack_tar);
  if (keep && !isolate) {
    fmt::print("kept {}\n", work.string());
    return 0;
  }
  file_system.reset();
  page_reporting.reset();
  std::error_code ignored;
  fs::remove_all(pattern, ignored);
  return 0;
}
