#ifndef VM_TESTS_SERVICES_VMCLOUDD_SLOWPEERS_H_
#define VM_TESTS_SERVICES_VMCLOUDD_SLOWPEERS_H_

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vm::testing {

// Connections to 127.0.0.1 that send their opening bytes at once and then one byte of
// their trickle text (repeated) per interval: requests whose header never ends, or
// bodies far below any useful rate. A thread of its own sends and notices when the
// server closes a connection. Thread-safe accessors; stops and closes all on destruction.
class SlowPeers {
 public:
  struct Peer {
    std::string opening;
    std::string trickle;
  };

  // With `reopen`, a connection the server closed is made again at once, so that
  // `peers.size()` stay open.
  SlowPeers(int port, std::vector<Peer> peers, std::chrono::milliseconds interval, bool reopen);
  ~SlowPeers();
  SlowPeers(const SlowPeers&) = delete;
  SlowPeers& operator=(const SlowPeers&) = delete;

  int open() const { return open_.load(); }
  int dropped() const { return dropped_.load(); }
  // Waits until every connection has been closed by the server or `limit` passed.
  bool waitAllDropped(std::chrono::milliseconds limit) const;

 private:
  struct Connection;
  void run();
  bool connect(Connection& connection);

  int port_;
  std::chrono::milliseconds interval_;
  bool reopen_;
  std::vector<std::unique_ptr<Connection>> connections_;  // used by the thread only
  std::atomic<int> open_{0};
  std::atomic<int> dropped_{0};
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

// The resident memory of this process, in bytes; 0 when it cannot be read.
std::uint64_t ResidentBytes();

}  // namespace vm::testing

#endif  // VM_TESTS_SERVICES_VMCLOUDD_SLOWPEERS_H_
