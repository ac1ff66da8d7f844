#include "services/vmcloudd/ServiceMetrics.h"

#include <dirent.h>
#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <vector>

#include "services/vmcloudd/PrometheusText.h"

#ifndef VM_PROJECT_VERSION
#define VM_PROJECT_VERSION "unknown"
#endif

namespace vm {
namespace {

constexpr std::string_view kRoutes[] = {"start",    "confirm",  "info",   "delete",
                                        "blob_put", "blob_get", "health", "metrics"};
constexpr std::string_view kMethods[] = {"GET", "PUT", "POST", "DELETE", "HEAD", "OPTIONS"};

std::string_view KnownOr(std::string_view value, const auto& known, std::string_view other) {
  for (std::string_view k : known) {
    if (k == value) return k;
  }
  return other;
}

// The process_* series every Prometheus client library exports, read from /proc.
void RenderProcess(PrometheusText& out) {
  std::ifstream stat_file("/proc/self/stat");
  std::string stat((std::istreambuf_iterator<char>(stat_file)), std::istreambuf_iterator<char>());
  // Fields after the command name, which is in parentheses and may hold spaces.
  std::vector<std::string> fields;
  if (auto close = stat.rfind(')'); close != std::string::npos) {
    std::istringstream rest(stat.substr(close + 2));
    for (std::string field; rest >> field;) fields.push_back(field);
  }
  auto field = [&](std::size_t number) -> double {  // numbered as in proc(5), from 1
    return number >= 3 && number - 3 < fields.size() ? std::stod(fields[number - 3]) : 0.0;
  };
  const double ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
  const double page = static_cast<double>(sysconf(_SC_PAGESIZE));

  double boot_time = 0;
  std::ifstream proc_stat("/proc/stat");
  for (std::string line; std::getline(proc_stat, line);) {
    if (line.rfind("btime ", 0) == 0) boot_time = std::stod(line.substr(6));
  }
  double open_fds = 0;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (dirent* entry = readdir(dir)) open_fds += entry->d_name[0] != '.';
    closedir(dir);
    open_fds -= 1;  // the one opendir holds
  }
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);

  out.family("process_cpu_seconds_total", "counter", "User and system CPU time spent in seconds.");
  out.sample("process_cpu_seconds_total", {}, (field(14) + field(15)) / ticks);
  out.family("process_resident_memory_bytes", "gauge", "Resident memory size in bytes.");
  out.sample("process_resident_memory_bytes", {}, field(24) * page);
  out.family("process_virtual_memory_bytes", "gauge", "Virtual memory size in bytes.");
  out.sample("process_virtual_memory_bytes", {}, field(23));
  out.family("process_open_fds", "gauge", "Number of open file descriptors.");
  out.sample("process_open_fds", {}, open_fds);
  out.family("process_max_fds", "gauge", "Maximum number of open file descriptors.");
  out.sample("process_max_fds", {},
             limit.rlim_cur == RLIM_INFINITY ? -1 : static_cast<double>(limit.rlim_cur));
  out.family("process_start_time_seconds", "gauge",
             "Start time of the process since unix epoch in seconds.");
  out.sample("process_start_time_seconds", {}, boot_time + field(22) / ticks);
}

}  // namespace

void ServiceMetrics::countRequest(std::string_view route, std::string_view method, int code,
                                  double seconds) {
  const std::string route_label(KnownOr(route, kRoutes, "other"));
  const std::string method_label(KnownOr(method, kMethods, "other"));
  std::lock_guard lock(mu_);
  ++requests_[{route_label, method_label, code}];
  Histogram& histogram = durations_[route_label];
  for (std::size_t i = 0; i < kBuckets.size(); ++i) {
    if (seconds <= kBuckets[i]) {
      ++histogram.counts[i];
      break;
    }
  }
  ++histogram.count;
  histogram.sum += seconds;
}

std::string ServiceMetrics::render(const HttpServer::Stats* http) const {
  PrometheusText out;
  {
    std::lock_guard lock(mu_);
    out.family("vmcloudd_http_requests_total", "counter", "HTTP requests answered.");
    for (const auto& [key, count] : requests_) {
      const auto& [route, method, code] = key;
      const std::string code_text = std::to_string(code);
      out.sample("vmcloudd_http_requests_total",
                 {{"route", route}, {"method", method}, {"code", code_text}},
                 static_cast<double>(count));
    }
    out.family("vmcloudd_http_request_duration_seconds", "histogram",
               "Time from a connection's acceptance to its answer having been sent.");
    for (const auto& [route, histogram] : durations_) {
      std::uint64_t cumulative = 0;
      for (std::size_t i = 0; i < kBuckets.size(); ++i) {
        cumulative += histogram.counts[i];
        const std::string le = fmt::format("{}", kBuckets[i]);
        out.sample("vmcloudd_http_request_duration_seconds_bucket", {{"route", route}, {"le", le}},
                   static_cast<double>(cumulative));
      }
      out.sample("vmcloudd_http_request_duration_seconds_bucket",
                 {{"route", route}, {"le", "+Inf"}}, static_cast<double>(histogram.count));
      out.sample("vmcloudd_http_request_duration_seconds_sum", {{"route", route}}, histogram.sum);
      out.sample("vmcloudd_http_request_duration_seconds_count", {{"route", route}},
                 static_cast<double>(histogram.count));
    }
  }
  if (http != nullptr) {
    out.family("vmcloudd_http_connections_open", "gauge", "HTTP connections held now.");
    out.sample("vmcloudd_http_connections_open", {}, static_cast<double>(http->open.load()));
    out.family("vmcloudd_http_connections_dropped_total", "counter",
               "HTTP connections dropped: header too slow, transfer too slow, or over the limit.");
    out.sample("vmcloudd_http_connections_dropped_total", {{"reason", "header_timeout"}},
               static_cast<double>(http->dropped_header_timeout.load()));
    out.sample("vmcloudd_http_connections_dropped_total", {{"reason", "slow_transfer"}},
               static_cast<double>(http->dropped_slow_transfer.load()));
    out.sample("vmcloudd_http_connections_dropped_total", {{"reason", "limit"}},
               static_cast<double>(http->dropped_limit.load()));
  }
  auto counter = [&](std::string_view name, std::string_view help,
                     const std::atomic<std::uint64_t>& value) {
    out.family(name, "counter", help);
    out.sample(name, {}, static_cast<double>(value.load()));
  };
  counter("vmcloudd_blob_bytes_received_total", "Attachment bytes received by the embedded store.",
          blob_bytes_received);
  counter("vmcloudd_blob_bytes_sent_total", "Attachment bytes sent by the embedded store.",
          blob_bytes_sent);
  counter("vmcloudd_stale_uploads_swept_total", "Unconfirmed uploads removed as stale.",
          stale_uploads_swept);
  counter("vmcloudd_records_errors_total", "Failures of the records database.", records_errors);
  out.family("vmcloudd_build_info", "gauge", "The running version; always 1.");
  out.sample("vmcloudd_build_info", {{"version", VM_PROJECT_VERSION}}, 1);
  RenderProcess(out);
  return out.text();
}

}  // namespace vm
