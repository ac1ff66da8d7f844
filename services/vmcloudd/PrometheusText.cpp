#include "services/vmcloudd/PrometheusText.h"

#include <fmt/format.h>

#include <cmath>

namespace vm {
namespace {

// Backslash and line feed in help texts; label values also escape the double quote.
void AppendEscaped(std::string* out, std::string_view text, bool quote) {
  for (char c : text) {
    if (c == '\\') {
      *out += "\\\\";
    } else if (c == '\n') {
      *out += "\\n";
    } else if (quote && c == '"') {
      *out += "\\\"";
    } else {
      *out += c;
    }
  }
}

}  // namespace

void PrometheusText::family(std::string_view name, std::string_view type, std::string_view help) {
  out_ += fmt::format("# HELP {} ", name);
  AppendEscaped(&out_, help, /*quote=*/false);
  out_ += fmt::format("\n# TYPE {} {}\n", name, type);
}

void PrometheusText::sample(std::string_view name, const MetricLabels& labels, double value) {
  out_ += name;
  if (!labels.empty()) {
    out_ += '{';
    for (std::size_t i = 0; i < labels.size(); ++i) {
      if (i > 0) out_ += ',';
      out_ += labels[i].first;
      out_ += "=\"";
      AppendEscaped(&out_, labels[i].second, /*quote=*/true);
      out_ += '"';
    }
    out_ += '}';
  }
  if (std::isinf(value)) {
    out_ += value > 0 ? " +Inf\n" : " -Inf\n";
  } else if (value == std::floor(value) && std::fabs(value) < 1e15) {
    out_ += fmt::format(" {}\n", static_cast<long long>(value));
  } else {
    out_ += fmt::format(" {}\n", value);
  }
}

}  // namespace vm
