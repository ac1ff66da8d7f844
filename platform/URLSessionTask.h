#ifndef VM_PLATFORM_URLSESSIONTASK_H_
#define VM_PLATFORM_URLSESSIONTASK_H_

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/Error.h"
#include "platform/URLRequest.h"
#include "platform/URLResponse.h"

namespace vm {

class URLSession;
class URLSessionDelegate;

// One transfer of a session. Made suspended by the session's task factories; resume()
// starts it. Thread-safe: every method may be called from any thread.
class URLSessionTask : public std::enable_shared_from_this<URLSessionTask> {
 public:
  enum class Kind { kData, kUpload, kDownload };
  enum class State { kRunning, kSuspended, kCanceling, kCompleted };
  using Completion =
      std::function<void(std::optional<std::vector<std::uint8_t>> data,
                         std::shared_ptr<const URLResponse> response, ErrorRef error)>;
  // Takes the body of a streamed answer piece by piece; false stops the transfer.
  using DataConsumer = std::function<bool(const std::uint8_t* bytes, std::size_t length)>;

  ~URLSessionTask();

  std::uint64_t taskIdentifier() const { return identifier_; }
  Kind kind() const { return kind_; }
  const URLRequest& originalRequest() const { return request_; }
  State state() const { return state_.load(); }
  // Set once the task completed (null before, and when no answer came).
  std::shared_ptr<const URLResponse> response() const;
  // Set once the task completed with a failure.
  ErrorRef error() const;
  std::int64_t countOfBytesSent() const { return sent_.load(); }
  std::int64_t countOfBytesExpectedToSend() const { return expected_send_.load(); }
  std::int64_t countOfBytesReceived() const { return received_.load(); }

  // Starts a suspended task; does nothing otherwise. The session and, while the task
  // runs, the session's delegate are kept alive by the task.
  void resume();
  // Stops the task: it completes with NSURLErrorDomain -999 "cancelled". Does nothing once
  // the task has completed.
  void cancel();

 private:
  friend class URLSession;
  struct Transfer;  // the I/O thread's state while the transfer runs

  URLSessionTask(std::shared_ptr<URLSession> session, Kind kind, URLRequest request,
                 std::filesystem::path file, Completion completion);

  const std::uint64_t identifier_;
  const Kind kind_;
  const URLRequest request_;
  const std::filesystem::path file_;  // upload tasks: the file to send
  const std::shared_ptr<URLSession> session_;
  Completion completion_;  // touched on the resuming thread, then on the delegate queue
  DataConsumer consumer_;  // streamed data tasks: set before resume(), then I/O thread only
  // Held from resume() until the completion was delivered (delegate queue).
  std::shared_ptr<URLSessionDelegate> delegate_;

  std::atomic<State> state_{State::kSuspended};
  std::atomic<std::int64_t> sent_{0};
  std::atomic<std::int64_t> expected_send_{0};
  std::atomic<std::int64_t> received_{0};
  std::atomic<std::int64_t> expected_receive_{-1};
  // Progress reports are coalesced: at most one is queued at a time, and it reads the
  // latest counts when it runs.
  std::atomic<bool> progress_queued_{false};
  std::int64_t reported_sent_ = 0;      // delegate queue only
  std::int64_t reported_received_ = 0;  // delegate queue only

  mutable std::mutex mu_;
  std::shared_ptr<const URLResponse> response_;
  ErrorRef error_;
  std::unique_ptr<Transfer> transfer_;  // I/O thread only
};

}  // namespace vm

#endif  // VM_PLATFORM_URLSESSIONTASK_H_
