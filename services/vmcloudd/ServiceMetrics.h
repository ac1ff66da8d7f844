#ifndef VM_SERVICES_VMCLOUDD_SERVICEMETRICS_H_
#define VM_SERVICES_VMCLOUDD_SERVICEMETRICS_H_

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <tuple>

#include "services/vmcloudd/HttpServer.h"

namespace vm {

// What the service counts for monitoring, rendered in the Prometheus text format with
// the connection counts of its HTTP server and the usual process_* series. Request labels
// are kept to a bounded set (known routes and methods, three-digit codes), so no client
// can grow the output.
//
// Thread-safe: the counters are atomics and the per-request series sit behind a mutex.
class ServiceMetrics {
 public:
  // Counts one answered request of `route` (empty: "other") that took `seconds`.
  void countRequest(std::string_view route, std::string_view method, int code, double seconds);

  std::atomic<std::uint64_t> blob_bytes_received{0};
  std::atomic<std::uint64_t> blob_bytes_sent{0};
  std::atomic<std::uint64_t> stale_uploads_swept{0};
  std::atomic<std::uint64_t> records_errors{0};

  // Everything, with `http`'s connection counts when it is not null.
  std::string render(const HttpServer::Stats* http) const;

 private:
  static constexpr std::array<double, 12> kBuckets = {0.005, 0.01, 0.025, 0.05, 0.1,  0.25,
                                                      0.5,   1.0,  2.5,   5.0,  10.0, 30.0};
  struct Histogram {
    std::array<std::uint64_t, kBuckets.size()> counts{};  // not cumulative
    std::uint64_t count = 0;
    double sum = 0;
  };

  mutable std::mutex mu_;
  std::map<std::tuple<std::string, std::string, int>, std::uint64_t> requests_;  // guarded
  std::map<std::string, Histogram> durations_;                                   // guarded
};

}  // namespace vm

#endif  // VM_SERVICES_VMCLOUDD_SERVICEMETRICS_H_
