#ifndef VM_BENCH_SUPPORT_PAGEREPORTINGHOLD_H_
#define VM_BENCH_SUPPORT_PAGEREPORTINGHOLD_H_

namespace vm::bench {

// While alive, a virtual machine's free page reporting only hands blocks of the largest
// order back to the host, so that freed memory stays with the guest as it would on a
// machine of its own; restores the previous order on destruction. Does nothing where the
// kernel has no such reporting or the order cannot be written (not root). The order is
// also restored when the benchmark exits early through std::exit. One at a time; not
// thread-safe.
class PageReportingHold {
 public:
  PageReportingHold();
  PageReportingHold(const PageReportingHold&) = delete;
  PageReportingHold& operator=(const PageReportingHold&) = delete;
  ~PageReportingHold();

  // True while the order is held.
  static bool active();
};

}  // namespace vm::bench

#endif  // VM_BENCH_SUPPORT_PAGEREPORTINGHOLD_H_
