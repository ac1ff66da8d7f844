#include "bench/support/PageReportingHold.h"

#include <cstdio>
#include <cstdlib>

namespace vm::bench {
namespace {

constexpr char kOrderPath[] = "/sys/module/page_reporting/parameters/page_reporting_order";
constexpr int kHighestOrder = 10;  // the kernel clamps to its largest order

// The order found before the hold, -1 when nothing is held. A process-wide value because
// the atexit handler that restores it can carry no state of its own.
int previous_order = -1;

bool WriteOrder(int order) {
  FILE* file = std::fopen(kOrderPath, "w");
  if (file == nullptr) return false;
  const bool ok = std::fprintf(file, "%d\n", order) > 0;
  return std::fclose(file) == 0 && ok;
}

void Restore() {
  if (previous_order >= 0) WriteOrder(previous_order);
  previous_order = -1;
}

}  // namespace

PageReportingHold::PageReportingHold() {
  if (FILE* file = std::fopen(kOrderPath, "r")) {
    if (std::fscanf(file, "%d", &previous_order) != 1) previous_order = -1;
    std::fclose(file);
  }
  if (previous_order >= 0 && !WriteOrder(kHighestOrder)) previous_order = -1;
  if (previous_order >= 0) std::atexit(Restore);
}

PageReportingHold::~PageReportingHold() { Restore(); }

bool PageReportingHold::active() { return previous_order >= 0; }

}  // namespace vm::bench
