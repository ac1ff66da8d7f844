#ifndef VM_PLATFORM_URLSESSION_H_
#define VM_PLATFORM_URLSESSION_H_

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/DispatchQueue.h"
#include "platform/Error.h"
#include "platform/ScopedFd.h"
#include "platform/URL.h"
#include "platform/URLRequest.h"
#include "platform/URLResponse.h"
#include "platform/URLSessionTask.h"

namespace vm {

class URLSession;

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

// Download tasks write into hidden files named with this prefix, each carrying the task's
// OwnerLock while it exists; a process that reclaims work files looks for them by it.
inline constexpr char kURLSessionDownloadPrefix[] = ".vm-download-";

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
  // A data task whose body, when the answer's status is 2xx, goes to `consumer` as it
  // arrives instead of being collected: nothing is kept in memory or written to disk, and
  // the completion's data is empty. `consumer` runs on the session's I/O thread, in order,
  // with pieces of at most a few tens of KiB: it must be quick and must not wait for
  // another task of the process. When it returns false the transfer stops and the task
  // completes with an error. Any other status's body is collected as a data task's.
  std::shared_ptr<URLSessionTask> streamingDataTaskWithRequest(
      URLRequest request, URLSessionTask::DataConsumer consumer,
      URLSessionTask::Completion completion);
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
    // Holds the temporary file's OwnerLock until the delegate has moved it away.
    std::shared_ptr<const ScopedFd> location_lock;
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
