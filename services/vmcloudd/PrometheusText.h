#ifndef VM_SERVICES_VMCLOUDD_PROMETHEUSTEXT_H_
#define VM_SERVICES_VMCLOUDD_PROMETHEUSTEXT_H_

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vm {

using MetricLabels = std::vector<std::pair<std::string_view, std::string_view>>;

// Writes metrics in the Prometheus text exposition format (version 0.0.4): each family's
// HELP and TYPE lines, then its samples. The caller writes each family's samples right
// after its header and uses names of [a-zA-Z_:][a-zA-Z0-9_:]*; label values and help
// texts are escaped here. Not thread-safe.
class PrometheusText {
 public:
  // The content type the format is served with.
  static constexpr std::string_view kContentType = "text/plain; version=0.0.4; charset=utf-8";

  // `type`: "counter", "gauge" or "histogram".
  void family(std::string_view name, std::string_view type, std::string_view help);
  void sample(std::string_view name, const MetricLabels& labels, double value);

  const std::string& text() const { return out_; }

 private:
  std::string out_;
};

}  // namespace vm

#endif  // VM_SERVICES_VMCLOUDD_PROMETHEUSTEXT_H_
