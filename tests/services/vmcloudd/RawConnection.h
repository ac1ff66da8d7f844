#ifndef VM_TESTS_SERVICES_VMCLOUDD_RAWCONNECTION_H_
#define VM_TESTS_SERVICES_VMCLOUDD_RAWCONNECTION_H_

#include <chrono>
#include <string>
#include <string_view>

namespace vm::testing {

// A plain TCP connection to 127.0.0.1:`port`, for requests that an HTTP client library
// would tidy up or refuse to send. Not thread-safe; closed when it goes away.
class RawConnection {
 public:
  explicit RawConnection(int port);
  ~RawConnection();
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  bool connected() const { return fd_ >= 0; }
  int fd() const { return fd_; }
  // Sends all of `bytes`; false when the peer refused them.
  bool send(std::string_view bytes);
  // Ends our sending side; the peer may still answer.
  void shutdownWrite();
  // Everything the peer sends until it closes or `limit` passes.
  std::string readAll(std::chrono::milliseconds limit = std::chrono::seconds(10));
  // True once the peer has closed or reset the connection, waiting at most `limit`.
  bool closedByPeer(std::chrono::milliseconds limit);

 private:
  int fd_ = -1;
};

// The status code of a raw HTTP answer; 0 when there is none.
int StatusOf(std::string_view answer);

// `request` sent whole on a fresh connection; the answer read until the server closes.
std::string Exchange(int port, std::string_view request);

}  // namespace vm::testing

#endif  // VM_TESTS_SERVICES_VMCLOUDD_RAWCONNECTION_H_
