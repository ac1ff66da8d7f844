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

}  // namespace vm::bench

#endif  // VM_BENCH_CLOUD_BENCHPROCESS_H_
