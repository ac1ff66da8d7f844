#ifndef VM_BENCH_CLOUD_BENCHPROCESS_H_
#define VM_BENCH_CLOUD_BENCHPROCESS_H_

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace vm::bench {

// What a child process left behind.
struct Finished {
  std::string output;  // its standard output
  double seconds = 0;  // wall time from fork to exit
  long peak_kib = 0;   // its peak resident size
  int status = -1;     // exit status, -1 when it did not exit normally
};

// Runs `argv` (argv[0] a path) to its end in a child process.
Finished Run(const std::vector<std::string>& argv);

// A server started by a benchmark, which prints "listening on 127.0.0.1:PORT" once ready.
struct Server {
  pid_t pid = -1;
  int port = 0;  // 0 when it did not start
};

// Starts `argv` (argv[0] a path) with its standard output and error in `log`, and waits up
// to 20 s for the line that names its port.
Server StartServer(const std::vector<std::string>& argv, const std::filesystem::path& log);

// Sends SIGTERM and waits for the exit.
void StopServer(Server* server);

// The options both cloud benchmarks take: --sizes MIB,MIB... --rounds N --curl PATH. Fields
// not named in `args` keep the values they came with.
struct SizeOptions {
  std::vector<std::size_t> sizes;
  int rounds = 1;
  std::string curl = "/usr/bin/curl";
};
void ParseSizeOptions(const std::vector<std::string>& args, SizeOptions* options);

// Writes `mib` MiB of reproducible pseudo-random bytes to `path`.
void MakeFile(const std::filesystem::path& path, std::size_t mib);

// A fresh folder for one run, `dir`/`prefix`-XXXXXX; empty when it could not be made.
std::filesystem::path MakeWorkFolder(const std::string& prefix, const std::string& dir = "/tmp");

// Removes the run's folder and everything in it, ignoring what cannot be removed.
void RemoveWorkFolder(const std::filesystem::path& work);

// Starts `vmcloudd` on a free loopback port with its data in work/service, accepting
// `token`, with `extra` arguments after those; its output goes to work/vmcloudd.log. When
// it did not start, says so on standard error and the port is 0.
Server StartCloudService(const std::string& vmcloudd, const std::filesystem::path& work,
                         const std::string& token, const std::vector<std::string>& extra = {});

// Adds the scheme "cloud" of type cloud at `api` with `token` to the data folder `data`
// with `vmattach`; false when that failed.
bool AddCloudScheme(const std::string& vmattach, const std::string& data, const std::string& api,
                    const std::string& token);

// The median and the range of a benchmark's per-round ratios.
struct Spread {
  double median = 0;
  double least = 0;
  double greatest = 0;
  // "median ratio M (range L to G)", each to three decimals.
  std::string describe() const;
};

// The spread of `ratios`, which must not be empty.
Spread SpreadOf(std::vector<double> ratios);

}  // namespace vm::bench

#endif  // VM_BENCH_CLOUD_BENCHPROCESS_H_
