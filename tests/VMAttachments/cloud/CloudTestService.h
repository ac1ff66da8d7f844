#ifndef VM_TESTS_VMATTACHMENTS_CLOUD_CLOUDTESTSERVICE_H_
#define VM_TESTS_VMATTACHMENTS_CLOUD_CLOUDTESTSERVICE_H_

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/URLSession.h"
#include "tests/support/LoopbackServer.h"

namespace vm::testing {

// A stand-in for the attachment web API and its storage provider on one loopback server,
// under http://127.0.0.1:<port>/api and /storage. Made once per test process, because the
// API base URL is computed once per process: it becomes the current server environment.
//
// The default routes answer like a working service. The start of an upload echoes the
// requested size plus kSizeSkew, so tests can tell the echoed size from the measured one.
class CloudTestService {
 public:
  static constexpr const char* kUUID = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
  static constexpr std::uint64_t kSizeSkew = 7;
  // The attachment API paths are matched with upper-case UUIDs only.
  static constexpr const char* kResourcePattern = "/api/v1/_internal/attachment/[0-9A-F-]{36}";
  static constexpr const char* kCollectionPath = "/api/v1/_internal/attachment";

  static CloudTestService& shared();

  LoopbackServer& server() { return server_; }
  // Clears recorded requests and stored blobs and puts the default routes back.
  void reset();
  std::string blob(const std::string& uuid);
  void setBlob(const std::string& uuid, std::string bytes);

 private:
  CloudTestService();

  LoopbackServer server_;
  std::mutex mu_;
  std::map<std::string, std::string> blobs_;
};

// A session that answers every task at once with a fixed outcome, on a serial queue,
// without the network.
class CannedSession : public URLSession {
 public:
  explicit CannedSession(Outcome outcome);

 protected:
  void resumeTask(const std::shared_ptr<URLSessionTask>& task) override;

 private:
  Outcome outcome_;
};

}  // namespace vm::testing

#endif  // VM_TESTS_VMATTACHMENTS_CLOUD_CLOUDTESTSERVICE_H_
