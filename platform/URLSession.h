#ifndef VM_PLATFORM_URLSESSION_H_
#define VM_PLATFORM_URLSESSION_H_

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/DispatchQueue.h"
#include "platform/Error.h"
#include "platform/URL.h"

namespace vm {

// Header fields in the order they were added. Names compare without regard to case.
using HTTPHeaderFields = std::vector<std::pair<std::string, std::string>>;

// What to send: URL, method, header fields, body, cache policy and timeout.
// A value type; not synchronised (copy it to hand it to another thread).
class URLRequest {
 public:
  // The protocol's own caching rules: the default policy, and the only one there is (no
  // cache is kept; the value is carried for whoever reads the request).
  static constexpr int kUseProtocolCachePolicy = 0;

  explicit URLRequest(URL url, int cachePolicy = kUseProtocolCachePolicy,
                      double timeoutInterval = 60.0);

  const URL& url() const { return url_; }
  const std::string& httpMethod() const { return method_; }
  void setHTTPMethod(std::string method) { method_ = std::move(method); }
  const std::optional<std::vector<std::uint8_t>>& httpBody() const { return body_; }
  void setHTTPBody(std::optional<std::vector<std::uint8_t>> body) { body_ = std::move(body); }
  int cachePolicy() const { return cache_policy_; }
  // The longest time the transfer may stay idle (connecting, or no byte moving), in seconds.
  double timeoutInterval() const { return timeout_; }
  void setTimeoutInterval(double seconds) { timeout_ = seconds; }

  // The most bytes of answer body the task accepts; a longer answer fails the task with
  // kURLErrorDataLengthExceedsMaximum instead of growing memory or a file. Unset: no limit.
  std::optional<std::uint64_t> maximumResponseLength() const { return maximum_response_; }
  void setMaximumResponseLength(std::optional<std::uint64_t> bytes) { maximum_response_ = bytes; }

  const HTTPHeaderFields& allHTTPHeaderFields() const { return headers_; }
  std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;
  // Adds `value` to `field`; a field that already has a value gets ", value" appended.
  void addValue(std::string_view value, std::string_view field);
  // Replaces the value of `field`.
  void setValue(std::string_view value, std::string_view field);

 private:
  URL url_;
  std::string method_ = "GET";
  std::optional<std::vector<std::uint8_t>> body_;
  int cache_policy_;
  double timeout_;
  std::optional<std::uint64_t> maximum_response_;
  HTTPHeaderFields headers_;
};

// The answer's metadata. Immutable once made, so safe to share between threads.
class URLResponse {
 public:
  explicit URLResponse(URL url, std::int64_t expectedContentLength = -1);
  virtual ~URLResponse() = default;

  const URL& url() const { return url_; }
  // -1 when unknown.
  std::int64_t expectedContentLength() const { return expected_length_; }
  virtual std::string description() const;

 private:
  URL url_;
  std::int64_t expected_length_;
};

class HTTPURLResponse : public URLResponse {
 public:
  HTTPURLResponse(URL url, int statusCode, HTTPHeaderFields headerFields,
                  std::int64_t expectedContentLength = -1);

  int statusCode() const { return status_; }
  const HTTPHeaderFields& allHeaderFields() const { return headers_; }
  std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;
  std::string description() const override;

 private:
  int status_;
  HTTPHeaderFields headers_;
};

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

// The receiver of a session's task events. Every method is called on the session's
// delegate queue, one at a time and in order for a task: progress, then (download tasks)
// didFinishDownloadingToURL, then completion. A task made with a completion handler calls
// that handler instead of didCompleteWithError.
class URLSessionDelegate {
 public:
  virtual ~URLSessionDelegate() = default;
  virtual void didSendBodyData(URLSession& session, URLSessionTask& task, std::int64_t bytesSent,
                               std::int64_t totalBytesSent, std::int64_t totalBytesExpectedToSend);
  // `totalBytesExpectedToWrite` is -1 when the server did not say.
  virtual void didWriteData(URLSession& session, URLSessionTask& downloadTask,
                            std::int64_t bytesWritten, std::int64_t totalBytesWritten,
                            std::int64_t totalBytesExpectedToWrite);
  // Called when a download task received a complete answer, whatever its status. The file
  // at `location` is removed when this returns: move it to keep it. `downloadTask.response()`
  // is set.
  virtual void didFinishDownloadingToURL(URLSession& session, URLSessionTask& downloadTask,
                                         const std::filesystem::path& location);
  virtual void didCompleteWithError(URLSession& session, URLSessionTask& task,
                                    const ErrorRef& error);
};

struct URLSessionConfiguration {
  // Cookies, caches and credentials are never kept by any session, so the two are the same.
  static URLSessionConfiguration defaultSessionConfiguration();
  static URLSessionConfiguration ephemeralSessionConfiguration();

  // Where download tasks write their temporary files; empty or unusable: the system's
  // temporary folder. Putting it on the destination's file system makes the final move a
  // rename.
  std::filesystem::path temporaryDirectory;
  // A PEM file of trusted certificate authorities; empty: the system's. The default comes
  // from $VM_CA_BUNDLE.
  std::string caBundle;
};

// An HTTP client session on libcurl's multi interface. All sessions of the process share
// one multi handle and one I/O thread, started when the first task is resumed and kept for
// the life of the process: a thousand sessions with transfers in flight cost a thousand
// connections, not a thousand threads. Only http and https are spoken, with TLS
// verification on; a redirect to another host never carries the Authorization header. Upload
// tasks stream from their file and download tasks stream into a temporary file, so memory
// use does not grow with the size of what is sent.
//
// Thread-safe. Task callbacks (delegate methods and completion handlers) run on the
// session's delegate queue, never on the I/O thread. The session holds its delegate weakly;
// a running task holds it strongly, so a delegate lives at least until its tasks completed.
class URLSession : public std::enable_shared_from_this<URLSession> {
 public:
  // The process-wide session without a delegate; completion handlers run on a serial
  // callback queue of its own (not the main queue). Lives for the whole process.
  static std::shared_ptr<URLSession> sharedSession();
  // `delegateQueue` must stay usable as long as the session; pass a non-owning pointer for
  // the main queue, which lives for the whole process.
  static std::shared_ptr<URLSession> sessionWithConfiguration(
      URLSessionConfiguration configuration, std::weak_ptr<URLSessionDelegate> delegate,
      std::shared_ptr<DispatchQueue> delegateQueue);

  virtual ~URLSession();
  URLSession(const URLSession&) = delete;
  URLSession& operator=(const URLSession&) = delete;

  std::shared_ptr<URLSessionTask> dataTaskWithRequest(URLRequest request,
                                                      URLSessionTask::Completion completion = {});
  // Sends the file as the body (the request's own body is ignored); the method is the
  // request's (PUT when it names none other than the default GET).
  std::shared_ptr<URLSessionTask> uploadTaskWithRequest(URLRequest request,
                                                        std::filesystem::path fromFile,
                                                        URLSessionTask::Completion completion = {});
  // Results arrive through the delegate only.
  std::shared_ptr<URLSessionTask> downloadTaskWithRequest(URLRequest request);

  const URLSessionConfiguration& configuration() const { return configuration_; }
  DispatchQueue& delegateQueue() const { return *delegate_queue_; }

  // What a finished task delivers. For tests that answer without the network, and the
  // session's own I/O thread.
  struct Outcome {
    std::shared_ptr<const URLResponse> response;
    std::optional<std::vector<std::uint8_t>> data;
    std::optional<std::filesystem::path> location;  // download tasks: the temporary file
    ErrorRef error;
  };

 protected:
  URLSession(URLSessionConfiguration configuration, std::weak_ptr<URLSessionDelegate> delegate,
             std::shared_ptr<DispatchQueue> delegateQueue);

  // Starts the transfer of a task that was just resumed. A test session overrides this to
  // answer by calling complete() (from any thread).
  virtual void resumeTask(const std::shared_ptr<URLSessionTask>& task);
  virtual void cancelTask(const std::shared_ptr<URLSessionTask>& task);
  // Queues the delivery of `outcome` to the task's handler or the delegate.
  void complete(const std::shared_ptr<URLSessionTask>& task, Outcome outcome);

 private:
  friend class URLSessionTask;
  struct Core;

  std::shared_ptr<URLSessionTask> makeTask(URLSessionTask::Kind kind, URLRequest request,
                                           std::filesystem::path file,
                                           URLSessionTask::Completion completion);
  void queueProgress(const std::shared_ptr<URLSessionTask>& task);
  void deliverProgress(URLSessionTask& task);

  const URLSessionConfiguration configuration_;
  const std::weak_ptr<URLSessionDelegate> delegate_;
  const std::shared_ptr<DispatchQueue> delegate_queue_;
  std::shared_ptr<Core> core_;
};

// The one place a libcurl failure becomes an Error: NSURLErrorDomain with the matching
// code and text, the URL under NSURLErrorKey and libcurl's own words under
// "NSDebugDescription".
ErrorRef URLSessionError(int curlCode, const std::string& url, const std::string& detail);

// NSURLErrorDomain codes this session reports.
enum URLErrorCode : std::int64_t {
  kURLErrorUnknown = -1,
  kURLErrorCancelled = -999,
  kURLErrorBadURL = -1000,
  kURLErrorTimedOut = -1001,
  kURLErrorUnsupportedURL = -1002,
  kURLErrorCannotFindHost = -1003,
  kURLErrorCannotConnectToHost = -1004,
  kURLErrorNetworkConnectionLost = -1005,
  kURLErrorHTTPTooManyRedirects = -1007,
  kURLErrorBadServerResponse = -1011,
  kURLErrorFileDoesNotExist = -1100,
  kURLErrorFileIsDirectory = -1101,
  kURLErrorNoPermissionsToReadFile = -1102,
  kURLErrorDataLengthExceedsMaximum = -1103,
  kURLErrorSecureConnectionFailed = -1200,
  kURLErrorServerCertificateUntrusted = -1202,
  kURLErrorCannotCreateFile = -3000,
  kURLErrorCannotWriteToFile = -3003,
};

}  // namespace vm

#endif  // VM_PLATFORM_URLSESSION_H_
