#include "VMAttachments/CloudAttachmentOperation.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "BWFoundation/BWFileManagerAdditions.h"
#include "BWFoundation/HTTPSuccess.h"
#include "VMAttachments/cloud/AttachmentAPILoader.h"
#include "VMAttachments/cloud/AttachmentAPIRequest.h"
#include "VMAttachments/cloud/CloudAttachmentErrors.h"
#include "platform/DispatchQueue.h"

namespace vm {
namespace {

constexpr double kStorageTimeoutInterval = 60.0;

// How the log lines show an error that may be absent: the optional's own description,
// Optional("text") or nil. Readers of the logs know this form.
std::string OptionalDescription(const ErrorRef& error) {
  if (!error) return "nil";
  std::string text = "Optional(\"";
  for (char c : error->localizedDescription()) {
    switch (c) {
      case '"':
        text += "\\\"";
        break;
      case '\\':
        text += "\\\\";
        break;
      case '\n':
        text += "\\n";
        break;
      case '\r':
        text += "\\r";
        break;
      case '\t':
        text += "\\t";
        break;
      default:
        text += c;
    }
  }
  return text + "\")";
}

ErrorRef UnusableReply() { return CloudAttachmentError(CloudAttachmentErrorCode::kUnusableReply); }

// Web API replies are small JSON documents; a longer one is refused, not buffered.
constexpr std::uint64_t kAPIReplyLimit = 1 << 20;

// Copies the open file `in` into a new file at `to`, created exclusively so that nothing
// there is ever replaced; a failed copy removes what it made.
bool CopyInto(int in, const std::filesystem::path& to, ErrorRef* error) {
  int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (out < 0) return Fail(error, PosixError(errno, to));
  int copy_errno = bwCopyRemainingBytes(in, out);
  if (::close(out) != 0 && copy_errno == 0) copy_errno = errno;
  if (copy_errno != 0) {
    ::unlink(to.c_str());
    return Fail(error, PosixError(copy_errno, to));
  }
  return true;
}

}  // namespace

// ---- CloudAttachmentOperation -------------------------------------------------------------

Log& CloudAttachmentOperation::logger() {
  static Log& log = Log::Get("com.brenwick.velmora", "CloudAttachmentOperation");
  return log;
}

CloudAttachmentOperation::CloudAttachmentOperation(AuthToken authToken)
    : auth_token_(std::move(authToken)), progress_(std::make_shared<Progress>()) {
  // Cancelling is watched but, on purpose, ignored: the transfer runs on to its end.
  canceled_observation_ =
      addObserver("cancelled", [](Operation& self, const KeyValueChange& change) {
        if (!change.isPrior) (void)self.isCancelled();
      });
  progress_->setTotalUnitCount(0);
  progress_->setCompletedUnitCount(0);
  progress_->setPausable(true);
}

CloudAttachmentOperation::~CloudAttachmentOperation() {
  if (canceled_observation_ != 0) removeObserver(canceled_observation_);
}

bool CloudAttachmentOperation::isReady() const { return state() == State::kNew; }

bool CloudAttachmentOperation::isExecuting() const {
  State s = state();
  return s == State::kAuthorizing || s == State::kTransferring || s == State::kFinishing;
}

bool CloudAttachmentOperation::isFinished() const {
  State s = state();
  return s == State::kFinished || s == State::kError;
}

bool CloudAttachmentOperation::failed() const { return state() == State::kError; }

ErrorRef CloudAttachmentOperation::error() const {
  std::lock_guard lock(mu_);
  return error_;
}

void CloudAttachmentOperation::setError(ErrorRef error) {
  std::lock_guard lock(mu_);
  error_ = std::move(error);
}

std::shared_ptr<Progress> CloudAttachmentOperation::progress() const {
  std::lock_guard lock(mu_);
  return progress_;
}

void CloudAttachmentOperation::setProgress(std::shared_ptr<Progress> progress) {
  std::lock_guard lock(mu_);
  progress_ = std::move(progress);
}

void CloudAttachmentOperation::setOnURLTaskStarted(TaskStartedHandler handler) {
  std::lock_guard lock(mu_);
  on_url_task_started_ = std::move(handler);
}

std::shared_ptr<URLSession> CloudAttachmentOperation::urlSession() {
  std::lock_guard lock(mu_);
  if (!url_session_) {
    URLSessionConfiguration configuration =
        URLSessionConfiguration::ephemeralSessionConfiguration();
    configuration.temporaryDirectory = temporaryDirectory();
    // The main queue lives for the whole process, so the session need not own it.
    std::shared_ptr<DispatchQueue> main_queue(std::shared_ptr<DispatchQueue>(),
                                              &MainQueue::shared());
    url_session_ = URLSession::sessionWithConfiguration(
        std::move(configuration), self<CloudAttachmentOperation>(), std::move(main_queue));
  }
  return url_session_;
}

void CloudAttachmentOperation::setURLSession(std::shared_ptr<URLSession> session) {
  std::lock_guard lock(mu_);
  url_session_ = std::move(session);
}

std::shared_ptr<URLSession> CloudAttachmentOperation::apiSession() const {
  return URLSession::sharedSession();
}

void CloudAttachmentOperation::setState(State state) {
  // All three are announced on every change: the queue and the scheme rely on the order.
  willChangeValueForKey("executing");
  willChangeValueForKey("finished");
  willChangeValueForKey("ready");
  state_.store(state);
  didChangeValueForKey("executing");
  didChangeValueForKey("finished");
  didChangeValueForKey("ready");
}

void CloudAttachmentOperation::fail() {
  setState(State::kError);
  logger().error("Error set: {}", OptionalDescription(error()));
}

void CloudAttachmentOperation::failWithError(ErrorRef error) {
  setError(std::move(error));
  fail();
}

const HTTPURLResponse* CloudAttachmentOperation::httpResponseOrFail(const URLResponse& response) {
  const auto* http = dynamic_cast<const HTTPURLResponse*>(&response);
  if (http == nullptr) failWithError(UnusableReply());
  return http;
}

void CloudAttachmentOperation::addAPIHeaders(URLRequest& request) const {
  request.addValue("application/json", "Content-Type");
  request.addValue("Velmora " + auth_token_.bearer(), "Authorization");
}

void CloudAttachmentOperation::taskStarted(const std::shared_ptr<URLSessionTask>& task) {
  TaskStartedHandler handler;
  {
    std::lock_guard lock(mu_);
    handler = on_url_task_started_;
  }
  if (handler) handler(task);
}

template <typename Request, typename OnValue>
bool CloudAttachmentOperation::sendAPIRequest(int successfulResponseCode,
                                              const typename Request::RequestDataType& input,
                                              OnValue onValue, ErrorRef* error) {
  auto request = std::make_shared<Request>(successfulResponseCode);
  AttachmentAPILoader<Request> loader(request, apiSession());
  std::optional<URLRequest> url_request = request->makeRequest(input, error);
  if (!url_request) return false;
  addAPIHeaders(*url_request);
  url_request->setMaximumResponseLength(kAPIReplyLimit);
  auto self_ref = self<CloudAttachmentOperation>();
  loader.load(
      *url_request,
      [self = self_ref, onValue = std::move(onValue)](
          std::shared_ptr<typename Request::ResponseDataType> value, ErrorRef reply_error) {
        if (value) {
          onValue(std::move(value));
        } else {
          self->failWithError(std::move(reply_error));
        }
      },
      [self = self_ref](const HTTPURLResponse& response) {
        self->api_status_.store(response.statusCode());
      });
  return true;
}

template <typename Request>
void CloudAttachmentOperation::finishWithAPIRequest(
    int successfulResponseCode, const typename Request::RequestDataType& input) {
  ErrorRef build_error;
  if (!sendAPIRequest<Request>(
          successfulResponseCode, input,
          [self = self<CloudAttachmentOperation>()](
              std::shared_ptr<typename Request::ResponseDataType>) {
            self->setState(State::kFinished);
          },
          &build_error)) {
    failWithError(std::move(build_error));
  }
}

// ---- TransferCloudAttachmentOperation -----------------------------------------------------

void TransferCloudAttachmentOperation::start() {
  // finished and error are final: a second start must not begin the work again.
  if (state() != State::kNew) return;
  ErrorRef error;
  if (!transfer(&error)) {
    failWithError(std::move(error));
  }
}

bool TransferCloudAttachmentOperation::transfer(ErrorRef*) {
  setState(State::kAuthorizing);
  return true;
}

// ---- UploadCloudAttachmentOperation -------------------------------------------------------

UploadCloudAttachmentOperation::UploadCloudAttachmentOperation(AuthToken authToken,
                                                               std::filesystem::path fileURL)
    : TransferCloudAttachmentOperation(std::move(authToken)), file_url_(std::move(fileURL)) {}

std::filesystem::path UploadCloudAttachmentOperation::fileURL() const {
  std::lock_guard lock(upload_mu_);
  return file_url_;
}

void UploadCloudAttachmentOperation::setFileURL(std::filesystem::path fileURL) {
  std::lock_guard lock(upload_mu_);
  file_url_ = std::move(fileURL);
}

std::shared_ptr<const UploadInfo> UploadCloudAttachmentOperation::uploadInfo() const {
  std::lock_guard lock(upload_mu_);
  return upload_info_;
}

std::optional<std::string> UploadCloudAttachmentOperation::attachmentUUID() const {
  std::shared_ptr<const UploadInfo> info = uploadInfo();
  if (!info) return std::nullopt;
  return info->uuid();
}

void UploadCloudAttachmentOperation::didSendBodyData(URLSession&, URLSessionTask&, std::int64_t,
                                                     std::int64_t totalBytesSent,
                                                     std::int64_t totalBytesExpectedToSend) {
  std::shared_ptr<Progress> p = progress();
  p->setCompletedUnitCount(totalBytesSent);
  p->setTotalUnitCount(totalBytesExpectedToSend);
}

bool UploadCloudAttachmentOperation::fileSize(std::uint64_t* size, ErrorRef* error) const {
  std::filesystem::path path = fileURL();
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) {
      return Fail(error, CloudAttachmentError(CloudAttachmentErrorCode::kFileMissing));
    }
    return Fail(error, PosixError(errno, path));  // the attributes cannot be read
  }
  if (S_ISDIR(info.st_mode)) {
    return Fail(error, CloudAttachmentError(CloudAttachmentErrorCode::kPathIsDirectory));
  }
  // Devices, pipes and sockets have no size that means what is stored.
  if (!S_ISREG(info.st_mode) || info.st_size < 0) {
    return Fail(error, CloudAttachmentError(CloudAttachmentErrorCode::kNoFileSize));
  }
  *size = static_cast<std::uint64_t>(info.st_size);
  return true;
}

bool UploadCloudAttachmentOperation::transfer(ErrorRef* error) {
  setState(State::kAuthorizing);
  std::uint64_t size = 0;
  if (!fileSize(&size, error)) return false;
  // A request that cannot be built fails the operation here, unlike a missing file above.
  ErrorRef build_error;
  if (!sendAPIRequest<StartUploadRequest>(
          201, UploadRequestInfo(size),
          [self = self<UploadCloudAttachmentOperation>()](std::shared_ptr<UploadInfo> info) {
            {
              std::lock_guard lock(self->upload_mu_);
              self->upload_info_ = std::move(info);
            }
            self->uploadToStorageProvider();
          },
          &build_error)) {
    failWithError(std::move(build_error));
  }
  return true;
}

void UploadCloudAttachmentOperation::uploadToStorageProvider() {
  std::shared_ptr<const UploadInfo> info = uploadInfo();
  const std::optional<URL>& url = info->uploadURL();
  if (!url || !url->isHTTP()) {
    failWithError(UnusableReply());
    return;
  }
  // A presigned address carries its own authorisation: no header is added.
  URLRequest request(*url, URLRequest::kUseProtocolCachePolicy, kStorageTimeoutInterval);
  request.setHTTPMethod("PUT");
  request.setMaximumResponseLength(kAPIReplyLimit);  // the provider's answer is only looked at
  std::shared_ptr<URLSessionTask> task = urlSession()->uploadTaskWithRequest(
      std::move(request), fileURL(),
      [self = self<UploadCloudAttachmentOperation>()](
          std::optional<JSONData>, std::shared_ptr<const URLResponse> response, ErrorRef error) {
        self->storageProviderDidComplete(response, error);
      });
  task->resume();
  taskStarted(task);
}

void UploadCloudAttachmentOperation::storageProviderDidComplete(
    const std::shared_ptr<const URLResponse>& response, const ErrorRef& error) {
  if (IsOverlongReply(error)) {
    failWithError(UnusableReply());
    return;
  }
  if (!response) {
    logger().error("Error uploading attachment to S3: {}", OptionalDescription(error));
    failWithError(error);
    return;
  }
  const HTTPURLResponse* http = httpResponseOrFail(*response);
  if (http == nullptr) return;
  logger().info("HTTP Response: {}", http->statusCode());
  if (!isSuccess(*http)) {
    logger().error("Error uploading attachment to S3, HTTP Response: {}", http->statusCode());
    failWithError(CloudAttachmentError(CloudAttachmentErrorCode::kUploadFailed));
    return;
  }
  setState(State::kFinishing);
  // The finished byte count is dropped on purpose: observers see 0 of 0 while the upload
  // is being confirmed.
  progress()->setTotalUnitCount(0);
  confirmUpload();
}

void UploadCloudAttachmentOperation::confirmUpload() {
  std::shared_ptr<const UploadInfo> info = uploadInfo();
  if (!info) {
    // Only reachable through a broken step order in this file.
    logger().error("UploadInfo needs to be set at this point");
    std::abort();
  }
  logger().notice("Notifying VAPI of successful upload");
  // The size is the one the web API echoed, not the one measured here.
  AttachmentInfo uploaded(info->uuid(), info->size(), vm::State::kUploaded);
  finishWithAPIRequest<FinishUploadRequest>(200, uploaded);
}

// ---- DownloadCloudAttachmentOperation -----------------------------------------------------

DownloadCloudAttachmentOperation::DownloadCloudAttachmentOperation(
    AuthToken authToken, std::string attachmentUUID, std::filesystem::path downloadLocation)
    : TransferCloudAttachmentOperation(std::move(authToken)),
      attachment_uuid_(std::move(attachmentUUID)),
      download_location_(std::move(downloadLocation)) {}

std::filesystem::path DownloadCloudAttachmentOperation::temporaryDirectory() const {
  return download_location_.parent_path();
}

void DownloadCloudAttachmentOperation::didWriteData(URLSession&, URLSessionTask&, std::int64_t,
                                                    std::int64_t totalBytesWritten,
                                                    std::int64_t totalBytesExpectedToWrite) {
  std::shared_ptr<Progress> p = progress();
  p->setTotalUnitCount(totalBytesExpectedToWrite);
  p->setCompletedUnitCount(totalBytesWritten);
}

void DownloadCloudAttachmentOperation::didFinishDownloadingToURL(
    URLSession&, URLSessionTask& downloadTask, const std::filesystem::path& location) {
  bytes_arrived_.store(true);
  completeDownload(location, downloadTask.response(), error());
}

bool DownloadCloudAttachmentOperation::transfer(ErrorRef* error) {
  setState(State::kAuthorizing);
  // A request that cannot be built is reported through `error`: start() stores it and fails.
  return sendAPIRequest<DownloadRequest>(
      200, attachment_uuid_,
      [self = self<DownloadCloudAttachmentOperation>()](std::shared_ptr<DownloadInfo> info) {
        self->downloadFromStorageProvider(*info);
      },
      error);
}

void DownloadCloudAttachmentOperation::downloadFromStorageProvider(const DownloadInfo& info) {
  const std::optional<URL>& url = info.downloadURL();
  if (!url || !url->isHTTP()) {
    failWithError(UnusableReply());
    return;
  }
  URLRequest request(*url, URLRequest::kUseProtocolCachePolicy, kStorageTimeoutInterval);
  request.setHTTPMethod("GET");
  // More than the service announced is refused instead of filling the disk.
  request.setMaximumResponseLength(info.size());
  // No completion handler: the results come through the delegate methods.
  std::shared_ptr<URLSessionTask> task = urlSession()->downloadTaskWithRequest(std::move(request));
  task->resume();
  taskStarted(task);
}

void DownloadCloudAttachmentOperation::completeDownload(
    const std::optional<std::filesystem::path>& location,
    const std::shared_ptr<const URLResponse>& response, const ErrorRef& error) {
  if (!location || !response) {
    failWithError(error);
    return;
  }
  const HTTPURLResponse* http = httpResponseOrFail(*response);
  if (http == nullptr) return;
  if (!isSuccess(*http)) {
    // The temporary file is removed by the session when this returns.
    failWithError(CloudAttachmentError(CloudAttachmentErrorCode::kDownloadFailed));
    return;
  }
  // A hard link never replaces what is at the destination; it fails if anything is there.
  if (::link(location->c_str(), download_location_.c_str()) == 0) {
    ::unlink(location->c_str());
    setState(State::kFinished);
    return;
  }
  int link_errno = errno;
  if (link_errno != EXDEV && link_errno != EPERM && link_errno != ENOTSUP && link_errno != EMLINK) {
    failWithError(PosixError(link_errno, download_location_));
    return;
  }
  // Another file system: the bytes must be copied, which must not hold up the main queue.
  // The open descriptor keeps them after the session removes the temporary file when this
  // callback returns.
  int in = ::open(location->c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) {
    failWithError(PosixError(errno, *location));
    return;
  }
  BackgroundQueue().async([self = self<DownloadCloudAttachmentOperation>(), in] {
    ErrorRef copy_error;
    bool copied = CopyInto(in, self->download_location_, &copy_error);
    ::close(in);
    if (copied) {
      self->setState(State::kFinished);
    } else {
      self->failWithError(std::move(copy_error));
    }
  });
}

void DownloadCloudAttachmentOperation::didCompleteWithError(URLSession&, URLSessionTask& task,
                                                            const ErrorRef& error) {
  // A download whose bytes arrived ends through completeDownload; so does one without error.
  if (!error || bytes_arrived_.load() || isFinished()) return;
  if (IsOverlongReply(error)) {
    const auto* http = dynamic_cast<const HTTPURLResponse*>(task.response().get());
    if (http != nullptr && !isSuccess(*http)) {
      failWithError(CloudAttachmentError(CloudAttachmentErrorCode::kDownloadFailed));
    } else {
      failWithError(UnusableReply());
    }
    return;
  }
  // Cut short, refused, redirected away or out of disk: nothing more will come, and the
  // one waiting for this transfer hears it now rather than at a deadline.
  failWithError(error);
}

// ---- DeleteCloudAttachmentOperation -------------------------------------------------------

DeleteCloudAttachmentOperation::DeleteCloudAttachmentOperation(AuthToken authToken,
                                                               std::string attachmentUUID)
    : CloudAttachmentOperation(std::move(authToken)), attachment_uuid_(std::move(attachmentUUID)) {}

void DeleteCloudAttachmentOperation::start() {
  if (state() != State::kNew) return;
  setState(State::kAuthorizing);
  finishWithAPIRequest<DeletionRequest>(204, attachment_uuid_);
}

}  // namespace vm
