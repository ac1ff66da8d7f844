#ifndef VM_VMATTACHMENTS_CLOUDATTACHMENTOPERATION_H_
#define VM_VMATTACHMENTS_CLOUDATTACHMENTOPERATION_H_

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "CloudClient/AuthToken.h"
#include "VMAttachments/cloud/AttachmentInfo.h"
#include "platform/Error.h"
#include "platform/Log.h"
#include "platform/Operation.h"
#include "platform/Progress.h"
#include "platform/URLSession.h"

namespace vm {

// One cloud transfer (upload, download, deletion) as an asynchronous operation. The cloud
// scheme queues it, watches "executing", "finished" and "ready", and reads failed(),
// error() and progress() once it is finished.
//
// States: new -> authorizing -> (upload: finishing ->) finished, or error from any step.
// Every change announces will-change for "executing", "finished", "ready", then stores
// the state, then announces did-change for the same three keys, whichever flag changed.
// finished and error are final. isReady() is "state is new" and nothing else: dependencies
// are not consulted. Cancelling changes nothing: a started transfer runs on to finished or
// error, and an operation cancelled before it started still runs when started.
//
// Threads: start() runs on the thread that calls it (the queue's); replies of the web API
// arrive on the shared URL session's callback queue; everything of the private session
// (storage-provider completion, progress, download finished) arrives on the main queue,
// except that a download copied across file systems finishes on the background queue.
// Web API replies over 1 MiB fail the operation (105) instead of being buffered.
// The steps of one operation never overlap, each starting from the completion of the one
// before. All accessors are thread-safe. Key-value notices are sent from whichever thread
// makes the change.
//
// Always owned by std::shared_ptr (std::make_shared): the private session's delegate and
// the replies' handlers hold the operation while a request runs.
class CloudAttachmentOperation : public Operation, public URLSessionDelegate {
 public:
  enum class State : std::uint8_t {
    kNew = 0,
    kAuthorizing = 1,
    kTransferring = 2,  // declared, never entered
    kFinishing = 3,
    kFinished = 4,
    kError = 5,
  };
  using TaskStartedHandler = std::function<void(const std::shared_ptr<URLSessionTask>& task)>;

  explicit CloudAttachmentOperation(AuthToken authToken);
  ~CloudAttachmentOperation() override;

  bool isReady() const override;
  bool isExecuting() const override;
  bool isFinished() const override;
  bool isConcurrent() const override { return true; }
  bool failed() const;
  State state() const { return state_.load(); }

  ErrorRef error() const;
  void setError(ErrorRef error);
  // Starts at 0 of 0, pausable. Replaceable from outside.
  std::shared_ptr<Progress> progress() const;
  void setProgress(std::shared_ptr<Progress> progress);
  const AuthToken& authToken() const { return auth_token_; }

  // The HTTP status of the web API's latest answer, or nullopt before the first. The
  // operation's own outcome does not depend on it everywhere (a deletion counts any answer
  // with data as done); a caller that must tell a refusal apart reads it here.
  std::optional<int> apiStatus() const {
    int status = api_status_.load();
    return status > 0 ? std::optional<int>(status) : std::nullopt;
  }

  // Called with the storage-provider task right after it was resumed (on the thread of the
  // step that starts it: the shared session's callback queue).
  void setOnURLTaskStarted(TaskStartedHandler handler);

  // The private session for the storage-provider transfer: ephemeral, this operation as
  // delegate, the main queue as delegate queue. Made on first use and never invalidated
  // by the operation. Replaceable (a test answers through a session of its own).
  std::shared_ptr<URLSession> urlSession();
  void setURLSession(std::shared_ptr<URLSession> session);

 protected:
  void setState(State state);
  // Moves to error, then logs "Error set: " and the error's description.
  void fail();
  // Stores `error`, then fail().
  void failWithError(ErrorRef error);
  // The reply as an HTTP response; anything else fails the operation as an unusable reply
  // and gives null.
  const HTTPURLResponse* httpResponseOrFail(const URLResponse& response);
  // The two headers of every web API request: "Content-Type: application/json" and
  // "Authorization: Velmora <token>", added in that order.
  void addAPIHeaders(URLRequest& request) const;
  void taskStarted(const std::shared_ptr<URLSessionTask>& task);
  // Sends one web API request of type `Request` (answered with `successfulResponseCode`),
  // built from `input`, with the API headers, through apiSession(). A reply that decodes is
  // handed to `onValue` on the session's callback queue; any other reply stores its error and
  // fails the operation. When the request cannot be built nothing is sent and false is
  // returned with `*error` set: the caller decides whether that fails the operation.
  // Both helpers are defined, and so instantiated, in this class's own source file only.
  template <typename Request, typename OnValue>
  bool sendAPIRequest(int successfulResponseCode, const typename Request::RequestDataType& input,
                      OnValue onValue, ErrorRef* error);
  // Sends the request as the operation's last step: a reply that decodes finishes the
  // operation; anything else, a request that cannot be built included, fails it.
  template <typename Request>
  void finishWithAPIRequest(int successfulResponseCode,
                            const typename Request::RequestDataType& input);
  // The session web API requests go through: the shared session.
  virtual std::shared_ptr<URLSession> apiSession() const;
  // Where the private session puts downloads while they run; empty: the system's.
  virtual std::filesystem::path temporaryDirectory() const { return {}; }

  template <typename T>
  std::shared_ptr<T> self() {
    return std::static_pointer_cast<T>(shared_from_this());
  }

  // Subsystem "com.brenwick.velmora", category "CloudAttachmentOperation".
  static Log& logger();

 private:
  std::atomic<State> state_{State::kNew};
  std::atomic<int> api_status_{0};  // 0: no answer yet
  const AuthToken auth_token_;
  int canceled_observation_ = 0;

  mutable std::mutex mu_;
  ErrorRef error_;
  std::shared_ptr<Progress> progress_;
  std::shared_ptr<URLSession> url_session_;
  TaskStartedHandler on_url_task_started_;
};

// The base of the two operations that move bytes. start() calls transfer() and nothing
// else; when transfer() fails, the error is stored and the operation fails.
class TransferCloudAttachmentOperation : public CloudAttachmentOperation {
 public:
  using CloudAttachmentOperation::CloudAttachmentOperation;
  void start() override;

 protected:
  // Begins the work; the base only moves to authorizing. Returns false with `*error` set
  // when the work cannot begin.
  virtual bool transfer(ErrorRef* error);
};

// Stores one prepared file in the cloud: asks the web API for a presigned address (POST
// {"size": N}), PUTs the file there, and confirms (PUT {"uuid", "size", "state":
// "uploaded"}). The cloud identity is the one the web API chose in its first reply.
class UploadCloudAttachmentOperation : public TransferCloudAttachmentOperation {
 public:
  UploadCloudAttachmentOperation(AuthToken authToken, std::filesystem::path fileURL);

  std::filesystem::path fileURL() const;
  void setFileURL(std::filesystem::path fileURL);
  // Set when the first reply arrived; kept after the operation ended.
  std::shared_ptr<const UploadInfo> uploadInfo() const;
  // The web API's UUID (upper case), or nullopt before its first reply.
  std::optional<std::string> attachmentUUID() const;

  // Progress follows the bytes sent (completed count first, then total).
  void didSendBodyData(URLSession& session, URLSessionTask& task, std::int64_t bytesSent,
                       std::int64_t totalBytesSent, std::int64_t totalBytesExpectedToSend) override;

 protected:
  bool transfer(ErrorRef* error) override;

 private:
  bool fileSize(std::uint64_t* size, ErrorRef* error) const;
  void uploadToStorageProvider();
  void storageProviderDidComplete(const std::shared_ptr<const URLResponse>& response,
                                  const ErrorRef& error);
  void confirmUpload();

  mutable std::mutex upload_mu_;
  std::filesystem::path file_url_;
  std::shared_ptr<const UploadInfo> upload_info_;
};

// Fetches one attachment's stored bytes into a local file: asks the web API for a presigned
// address (GET), downloads from there and moves the file to `downloadLocation`, which must
// not exist yet.
//
// A storage-provider download that fails in transport (no connection, cut short, a
// redirect it may not follow, a full disk) fails the operation with the transport's error,
// so that whoever waits hears of it at once. An answer longer than the web API announced
// fails it as 105 (107 when the answer was a refusal) rather than fill the disk.
class DownloadCloudAttachmentOperation : public TransferCloudAttachmentOperation {
 public:
  DownloadCloudAttachmentOperation(AuthToken authToken, std::string attachmentUUID,
                                   std::filesystem::path downloadLocation);

  const std::string& attachmentUUID() const { return attachment_uuid_; }
  const std::filesystem::path& downloadLocation() const { return download_location_; }

  // Progress follows the bytes written (total first, then completed count).
  void didWriteData(URLSession& session, URLSessionTask& downloadTask, std::int64_t bytesWritten,
                    std::int64_t totalBytesWritten,
                    std::int64_t totalBytesExpectedToWrite) override;
  // Moves the file into place: a rename on the same file system (on the main queue);
  // across file systems a copy, made on the background queue, after which the operation
  // finishes or fails from there.
  void didFinishDownloadingToURL(URLSession& session, URLSessionTask& downloadTask,
                                 const std::filesystem::path& location) override;
  // A transport failure before the bytes arrived fails the operation, as above.
  void didCompleteWithError(URLSession& session, URLSessionTask& task,
                            const ErrorRef& error) override;

 protected:
  bool transfer(ErrorRef* error) override;
  // Beside the destination, so that placing the file is a rename.
  std::filesystem::path temporaryDirectory() const override;

 private:
  void downloadFromStorageProvider(const DownloadInfo& info);
  void completeDownload(const std::optional<std::filesystem::path>& location,
                        const std::shared_ptr<const URLResponse>& response, const ErrorRef& error);

  const std::string attachment_uuid_;
  const std::filesystem::path download_location_;
  // Set once the session handed over the downloaded file: the outcome is completeDownload's.
  std::atomic<bool> bytes_arrived_{false};
};

// Removes one attachment from the cloud with a DELETE to the web API. Any answer that
// comes with data counts as done, whatever its status (the service's contract); only a
// transport failure, or an answer without data, fails it.
class DeleteCloudAttachmentOperation : public CloudAttachmentOperation {
 public:
  DeleteCloudAttachmentOperation(AuthToken authToken, std::string attachmentUUID);

  const std::string& attachmentUUID() const { return attachment_uuid_; }
  // Sends the deletion at once, on the calling thread, whatever the cancelled flag says.
  void start() override;

 private:
  const std::string attachment_uuid_;
};

}  // namespace vm

#endif  // VM_VMATTACHMENTS_CLOUDATTACHMENTOPERATION_H_
