// Stores and retrieves a file through the cloud scheme with vmattach against a vmcloudd
// on loopback, and measures in the same run the parts such a round trip is made of: the
// encryption and the decryption pass of the scheme's processing (each in a process of its
// own), and the curl tool's PUT and GET of the same number of bytes to the same service.
// Prints, per round and size, the time ratio (vmattach store + retrieve) / (sum of the
// parts), and per size the median of those ratios, goal at most 1.2 (the two copies the
// host makes on purpose are the difference), and vmattach's peak resident memory, goal
// flat in the size and under 64 MiB at 1 GiB.
//
// Each round measures both sides, taking turns at which goes first, and every timed step
// starts after a sync(2), so that no step pays for the write-back of the one before it.
// One round at each size goes first uncounted, as a warm-up.
// The ratio is taken within a round because a virtual machine's speed drifts between
// rounds: a best-of per part would pair parts and wholes from different states.
// On a virtual machine that hands freed memory back to its host (free page reporting),
// a page written for the first time after that costs a fault in the host, and a step's
// time follows how much memory it fills and when that memory was freed more than what it
// computes; --hold-page-reporting 1 (root) keeps freed memory with the guest for the run.
//
//   cloud_store_bench [--sizes 256,1024] [--rounds 5] [--curl /usr/bin/curl]
//                     [--hold-page-reporting 1]
//   cloud_store_bench --process FILE WORKDIR   (one encryption and one decryption pass)

#include <fmt/format.h>
#include <httplib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "VMAttachments/cloud/VMCAttachment.h"
#include "VMAttachments/schemes/VMAttachmentSchemes.h"
#include "bench/cloud/BenchProcess.h"
#include "bench/support/PageReportingHold.h"
#include "host/HXFileAttachmentScheme.h"
#include "host/HostConstants.h"
#include "host/sqlite/SqliteObjectContext.h"
#include "platform/UniqueID.h"

namespace {

using Clock = std::chrono::steady_clock;
using vm::bench::Finished;
using vm::bench::Run;
namespace fs = std::filesystem;

constexpr const char* kToken = "bench-token";
constexpr const char* kCollection = "/v1/_internal/attachment";

double Since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// ---- The processing passes, in a child process: prints "<encrypt s> <decrypt s>" -------

int Process(const fs::path& file, const fs::path& work) {
  vm::RegisterVMAttachmentsSchemeClasses();
  vm::ErrorRef error;
  auto context = vm::SqliteObjectContext::open(work / "data", &error);
  if (!context) return 1;
  auto scheme = context->insertScheme("cloud", std::string(vm::VMCAttachment::kClassName));
  auto handler = std::dynamic_pointer_cast<vm::VMCAttachment>(scheme->schemeHandler());
  auto attachment = context->insertAttachment();
  attachment->setAttachmentUUID(vm::ToLower(vm::MakeUniqueID()));
  attachment->setObject(std::int64_t{vm::VMCAttachment::kStorageTypePlainFile},
                        vm::kHXFileAttachmentStorageTypeKey);
  if (!handler) return 1;
  const fs::path crypt = work / "crypt";
  const fs::path plain = work / "plain";
  std::ofstream(crypt).close();
  std::ofstream(plain).close();
  ::sync();
  auto start = Clock::now();
  bool ok = handler->processAttachment(attachment, file, crypt,
                                       vm::VMCAttachment::kOperationEncrypt, &error);
  double encrypt = Since(start);
  start = Clock::now();
  ok = ok && handler->processAttachment(attachment, crypt, plain,
                                        vm::VMCAttachment::kOperationDecrypt, &error);
  double decrypt = Since(start);
  if (!ok || fs::file_size(plain) != fs::file_size(file)) {
    fmt::print(stderr, "processing failed: {}\n", error ? error->summary() : "wrong size");
    return 1;
  }
  fmt::print("{:.6f} {:.6f}\n", encrypt, decrypt);
  return 0;
}

// ---- The driver ----------------------------------------------------------------------------

// curl's PUT and GET of `file` through the service's presigned addresses, as its own
// figures (-w time_total, without its process start). False when a step fails.
bool CurlRoundTrip(const std::string& curl, int port, const fs::path& file, const fs::path& out,
                   double* put_seconds, double* get_seconds, long* peak_kib) {
  httplib::Client api("127.0.0.1", port);
  httplib::Headers headers = {{"Authorization", std::string("Velmora ") + kToken}};
  const auto size = fs::file_size(file);
  auto started =
      api.Post(kCollection, headers, nlohmann::json{{"size", size}}.dump(), "application/json");
  if (!started || started->status / 100 != 2) return false;
  auto reply = nlohmann::json::parse(started->body, nullptr, false);
  const std::string uuid = reply.value("uuid", "");
  ::sync();
  Finished put = Run({curl, "-sS", "-o", "/dev/null", "-w", "%{time_total}", "-T", file.string(),
                      reply.value("upload_url", "")});
  if (put.status != 0) return false;
  const std::string resource = std::string(kCollection) + "/" + uuid;
  auto confirmed =
      api.Put(resource, headers,
              nlohmann::json{{"uuid", uuid}, {"size", size}, {"state", "uploaded"}}.dump(),
              "application/json");
  auto info = api.Get(resource, headers);
  if (!confirmed || confirmed->status / 100 != 2 || !info || info->status / 100 != 2) {
    return false;
  }
  auto download = nlohmann::json::parse(info->body, nullptr, false);
  ::sync();
  Finished get = Run(
      {curl, "-sS", "-o", out.string(), "-w", "%{time_total}", download.value("download_url", "")});
  // The service's copy goes at once: on this kind of machine every gigabyte left in the page
  // cache slows the next rounds' input and output, and the whole's own copies go too.
  auto deleted = api.Delete(resource, headers);
  std::error_code missing;
  if (get.status != 0 || fs::file_size(out, missing) != size || !deleted ||
      deleted->status / 100 != 2) {
    return false;
  }
  *put_seconds = std::stod(put.output);
  *get_seconds = std::stod(get.output);
  *peak_kib = std::max(put.peak_kib, get.peak_kib);
  return true;
}

// One round's figures, in seconds and KiB.
struct Round {
  double store = 0, retrieve = 0, encrypt = 0, decrypt = 0, put = 0, get = 0;
  long store_peak = 0, retrieve_peak = 0, curl_peak = 0;
  double ratio() const { return (store + retrieve) / (encrypt + decrypt + put + get); }
};

// vmattach stores `file` and retrieves it into `work`/out, each step from a synced disk.
bool MeasureWhole(const std::string& vmattach, const std::string& data, const fs::path& file,
                  const fs::path& work, Round* round) {
  const fs::path out = work / "out";
  fs::remove_all(out);
  fs::create_directories(out);
  ::sync();
  Finished store = Run({vmattach, "--data-dir", data, "store", file.string(), "--scheme", "cloud"});
  std::string id = store.output.substr(0, store.output.find('\n'));
  ::sync();
  Finished retrieve = Run({vmattach, "--data-dir", data, "retrieve", id, "--to", out.string()});
  std::error_code missing;
  const bool ok = store.status == 0 && retrieve.status == 0 &&
                  fs::file_size(out / file.filename(), missing) == fs::file_size(file);
  if (!ok) {
    fmt::print(stderr, "vmattach failed (store {}, retrieve {})\n", store.status, retrieve.status);
  }
  if (store.status == 0) Run({vmattach, "--data-dir", data, "delete", id});
  fs::remove_all(out);
  round->store = store.seconds;
  round->retrieve = retrieve.seconds;
  round->store_peak = store.peak_kib;
  round->retrieve_peak = retrieve.peak_kib;
  return ok;
}

// The reference parts: both processing passes in a child process, then curl's PUT and GET.
bool MeasureParts(const std::string& self, const std::string& curl, int port, const fs::path& file,
                  const fs::path& work, Round* round) {
  fs::create_directories(work / "process");
  Finished passes = Run({self, "--process", file.string(), (work / "process").string()});
  fs::remove_all(work / "process");
  std::istringstream fields(passes.output);
  const bool ok = passes.status == 0 && (fields >> round->encrypt >> round->decrypt) &&
                  CurlRoundTrip(curl, port, file, work / "curl-out", &round->put, &round->get,
                                &round->curl_peak);
  std::error_code ignored;
  fs::remove(work / "curl-out", ignored);
  if (!ok) fmt::print(stderr, "a reference part failed\n");
  return ok;
}

int Drive(const std::string& self, const std::string& vmattach, const std::string& vmcloudd,
          const std::vector<std::size_t>& sizes, int rounds, const std::string& curl) {
  const fs::path work = vm::bench::MakeWorkFolder("vm-cloud-store-bench");
  if (work.empty()) return 1;
  fs::create_directories(work / "service");
  vm::bench::Server service = vm::bench::StartCloudService(vmcloudd, work, kToken);
  if (service.port == 0) return 1;
  const std::string data = (work / "data").string();
  const std::string api = fmt::format("http://127.0.0.1:{}", service.port);
  if (!vm::bench::AddCloudScheme(vmattach, data, api, kToken)) return 1;

  fmt::print("cloud store benchmark: vmattach store + retrieve against vmcloudd {}, {} rounds\n",
             api, rounds);
  fmt::print("{:>8} {:>5} {:>8} {:>8} {:>8} {:>8} {:>8} {:>8} {:>7} {:>10} {:>10} {:>9}\n", "size",
             "round", "store", "retrieve", "encrypt", "decrypt", "curl put", "curl get", "ratio",
             "store pk", "retr. pk", "curl pk");
  int failures = 0;
  for (std::size_t mib : sizes) {
    const fs::path file = work / fmt::format("payload-{}.bin", mib);
    vm::bench::MakeFile(file, mib);
    std::vector<double> ratios;
    long peak = 0;
    // A first round at each size is not counted: whichever side met the fresh payload and
    // the sizes' first allocations first paid for them (the first whole store ran 50% slow).
    Round warm_up;
    if (!MeasureWhole(vmattach, data, file, work, &warm_up) ||
        !MeasureParts(self, curl, service.port, file, work, &warm_up)) {
      ++failures;
      continue;
    }
    for (int index = 0; index < rounds; ++index) {
      Round round;
      // Sides take turns at going first, so neither always meets the disk the other left.
      const bool ok = index % 2 == 0
                          ? MeasureWhole(vmattach, data, file, work, &round) &&
                                MeasureParts(self, curl, service.port, file, work, &round)
                          : MeasureParts(self, curl, service.port, file, work, &round) &&
                                MeasureWhole(vmattach, data, file, work, &round);
      if (!ok) {
        ++failures;
        break;
      }
      ratios.push_back(round.ratio());
      peak = std::max({peak, round.store_peak, round.retrieve_peak});
      fmt::print(
          "{:>4} MiB {:>5} {:>7.3f}s {:>7.3f}s {:>7.3f}s {:>7.3f}s {:>7.3f}s {:>7.3f}s {:>7.3f} "
          "{:>6.1f} MiB {:>6.1f} MiB {:>5.1f} MiB\n",
          mib, index + 1, round.store, round.retrieve, round.encrypt, round.decrypt, round.put,
          round.get, round.ratio(), round.store_peak / 1024.0, round.retrieve_peak / 1024.0,
          round.curl_peak / 1024.0);
      std::fflush(stdout);
    }
    if (!ratios.empty()) {
      fmt::print("{:>4} MiB {}, vmattach peak {:.1f} MiB\n", mib,
                 vm::bench::SpreadOf(ratios).describe(), peak / 1024.0);
    }
    fs::remove(file);
  }
  fmt::print(
      "ratio = (store + retrieve, whole vmattach processes) / (encrypt + decrypt + curl put + "
      "curl get) within a round; goal: median <= 1.2; peaks are resident high-water marks of the "
      "processes\n");
  vm::bench::StopServer(&service);
  vm::bench::RemoveWorkFolder(work);
  return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() == 3 && args[0] == "--process") return Process(args[1], args[2]);
  vm::bench::SizeOptions options;
  options.sizes = {256, 1024};
  options.rounds = 5;
  vm::bench::ParseSizeOptions(args, &options);
  // --hold-page-reporting 1 (root): freed memory stays with this virtual machine for the
  // run, as it would on a machine of its own (see the comment at the top).
  std::optional<vm::bench::PageReportingHold> hold;
  for (std::size_t i = 0; i + 1 < args.size(); i += 2) {
    if (args[i] == "--hold-page-reporting" && std::atoi(args[i + 1].c_str()) != 0) hold.emplace();
  }
  if (hold) {
    fmt::print("free page reporting {}\n",
               vm::bench::PageReportingHold::active() ? "held for the run" : "could not be held");
  }
  return Drive(fs::read_symlink("/proc/self/exe").string(), VM_VMATTACH_PATH, VM_VMCLOUDD_PATH,
               options.sizes, options.rounds, options.curl);
}
