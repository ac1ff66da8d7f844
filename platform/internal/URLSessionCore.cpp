#include "platform/internal/URLSessionCore.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <system_error>
#include <utility>

#include "platform/OwnerLock.h"
#include "platform/internal/URLSessionErrors.h"

namespace vm {
namespace {

using url_internal::CancelledError;
using url_internal::URLError;

// Big buffers keep the number of system calls per byte low for large files; both are well
// inside what libcurl accepts.
constexpr long kReceiveBufferSize = 512 * 1024;
constexpr long kUploadBufferSize = 512 * 1024;
constexpr long kMaxRedirects = 16;
// How many download files are made in one folder before it is given up, each lost only
// to a reclaimer acting between making the file and locking it.
constexpr int kDownloadFileAttempts = 5;

void EnsureCurlInitialised() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

// A line break in a header would let a value smuggle in headers of its own.
bool SendableHeader(const std::string& field, const std::string& value) {
  if (field.empty() || field.find_first_of(":\r\n") != std::string::npos) return false;
  for (char c : field + value) {
    if (c == '\r' || c == '\n' || c == '\0') return false;
  }
  return true;
}

ErrorRef FileOpenError(int error_number, const std::filesystem::path& path,
                       const std::string& url) {
  ErrorRef posix = PosixError(error_number, path);
  switch (error_number) {
    case ENOENT:
    case ENOTDIR:
      return URLError(kURLErrorFileDoesNotExist, "The file doesn't exist.", url, posix);
    case EISDIR:
      return URLError(kURLErrorFileIsDirectory, "The file is a directory.", url, posix);
    case EACCES:
    case EPERM:
      return URLError(kURLErrorNoPermissionsToReadFile,
                      "You don't have permission to read the file.", url, posix);
    default:
      return URLError(kURLErrorUnknown, "The file couldn't be read.", url, posix);
  }
}

}  // namespace

URLSessionTask::Transfer::~Transfer() {
  if (easy != nullptr) curl_easy_cleanup(easy);
  if (headers != nullptr) curl_slist_free_all(headers);
  if (fd >= 0) ::close(fd);
  if (!temporary.empty()) {
    std::error_code ignored;
    std::filesystem::remove(temporary, ignored);
  }
}

const std::shared_ptr<URLSession::Core>& URLSession::Core::Shared() {
  static auto* shared = new std::shared_ptr<Core>(std::make_shared<Core>());
  return *shared;
}

URLSession::Core::Core() {
  EnsureCurlInitialised();
  multi = curl_multi_init();
}

URLSession::Core::~Core() { curl_multi_cleanup(multi); }

void URLSession::Core::push(Command command) {
  {
    std::lock_guard lock(mu);
    commands.push_back(std::move(command));
    if (!thread.joinable()) thread = std::thread([self = shared_from_this()] { self->run(); });
  }
  curl_multi_wakeup(multi);
}

void URLSession::Core::run() {
  for (;;) {
    std::vector<Command> batch;
    {
      std::lock_guard lock(mu);
      batch.swap(commands);
    }
    for (Command& command : batch) {
      if (command.start) {
        begin(command.task);
      } else {
        cancel(command.task);
      }
    }
    batch.clear();
    int still_running = 0;
    curl_multi_perform(multi, &still_running);
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
      if (message->msg == CURLMSG_DONE) finish(message->easy_handle, message->data.result);
    }
    // Returns early on activity, on libcurl's own timers, and on curl_multi_wakeup().
    curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
  }
}

// libcurl calls this at least once a second while the transfer runs, moving or not.
int URLSession::Core::watchIdle(void* user, curl_off_t, curl_off_t down, curl_off_t,
                                curl_off_t up) {
  URLSessionTask::Transfer& transfer = *static_cast<URLSessionTask*>(user)->transfer_;
  auto now = std::chrono::steady_clock::now();
  if (down != transfer.last_down || up != transfer.last_up) {
    transfer.last_down = down;
    transfer.last_up = up;
    transfer.last_activity = now;
    return 0;
  }
  if (now - transfer.last_activity <= transfer.idle_limit) return 0;
  transfer.idle_expired = true;
  return 1;  // ends the transfer with CURLE_ABORTED_BY_CALLBACK
}

size_t URLSession::Core::collectData(char* bytes, size_t size, size_t count, void* user) {
  auto* task = static_cast<URLSessionTask*>(user);
  size_t n = size * count;
  if (task->consumer_) {
    long status = 0;
    curl_easy_getinfo(task->transfer_->easy, CURLINFO_RESPONSE_CODE, &status);
    if (status >= 200 && status < 300) {
      if (!task->transfer_->accept(task->transfer_->streamed, n)) return 0;
      task->transfer_->streamed += n;
      task->received_.fetch_add(static_cast<std::int64_t>(n));
      return task->consumer_(reinterpret_cast<const std::uint8_t*>(bytes), n) ? n : 0;
    }
  }
  if (!task->transfer_->accept(task->transfer_->data.size(), n)) return 0;
  task->transfer_->data.insert(task->transfer_->data.end(), bytes, bytes + n);
  task->received_.fetch_add(static_cast<std::int64_t>(n));
  return n;
}

size_t URLSession::Core::writeFile(char* bytes, size_t size, size_t count, void* user) {
  auto* task = static_cast<URLSessionTask*>(user);
  size_t n = size * count;
  if (!task->transfer_->accept(static_cast<std::uint64_t>(task->received_.load()), n)) return 0;
  size_t done = 0;
  while (done < n) {
    ssize_t written = ::write(task->transfer_->fd, bytes + done, n - done);
    if (written < 0) {
      if (errno == EINTR) continue;
      return 0;  // libcurl ends the transfer with CURLE_WRITE_ERROR
    }
    done += static_cast<size_t>(written);
  }
  curl_off_t expected = -1;
  if (curl_easy_getinfo(task->transfer_->easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &expected) ==
      CURLE_OK) {
    task->expected_receive_.store(expected);
  }
  task->received_.fetch_add(static_cast<std::int64_t>(n));
  task->session_->queueProgress(task->shared_from_this());
  return n;
}

size_t URLSession::Core::readFile(char* buffer, size_t size, size_t count, void* user) {
  auto* task = static_cast<URLSessionTask*>(user);
  for (;;) {
    ssize_t got = ::read(task->transfer_->fd, buffer, size * count);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return CURL_READFUNC_ABORT;
    task->sent_.fetch_add(got);
    if (got > 0) task->session_->queueProgress(task->shared_from_this());
    return static_cast<size_t>(got);
  }
}

// A redirect that keeps the body (307, 308) sends the file again from the start.
int URLSession::Core::seekFile(void* user, curl_off_t offset, int origin) {
  auto* task = static_cast<URLSessionTask*>(user);
  off_t position = ::lseek(task->transfer_->fd, static_cast<off_t>(offset), origin);
  if (position < 0) return CURL_SEEKFUNC_FAIL;
  task->sent_.store(static_cast<std::int64_t>(position));
  return CURL_SEEKFUNC_OK;
}

ErrorRef URLSession::Core::configure(URLSessionTask& task,
                                     const URLSessionConfiguration& configuration) {
  URLSessionTask::Transfer& transfer = *task.transfer_;
  const URLRequest& request = task.request_;
  transfer.url = request.url().absoluteString();
  if (!request.url().isHTTP())
    return URLError(kURLErrorUnsupportedURL, "unsupported URL", transfer.url);
  for (const auto& [field, value] : request.allHTTPHeaderFields()) {
    if (!SendableHeader(field, value)) {
      return URLError(kURLErrorBadURL, "The request has a header field that cannot be sent.",
                      transfer.url);
    }
  }

  CURL* easy = transfer.easy = curl_easy_init();
  if (easy == nullptr)
    return URLError(kURLErrorUnknown, "An unknown error occurred.", transfer.url);
  curl_easy_setopt(easy, CURLOPT_URL, transfer.url.c_str());
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy, CURLOPT_MAXREDIRS, kMaxRedirects);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  if (!configuration.caBundle.empty()) {
    curl_easy_setopt(easy, CURLOPT_CAINFO, configuration.caBundle.c_str());
  }
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer.error_text);
  curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, kReceiveBufferSize);
  curl_easy_setopt(easy, CURLOPT_UPLOAD_BUFFERSIZE, kUploadBufferSize);
  curl_easy_setopt(easy, CURLOPT_PRIVATE, &task);
  // Set explicitly: the Authorization header stays with the host it was meant for.
  curl_easy_setopt(easy, CURLOPT_UNRESTRICTED_AUTH, 0L);
  if ((transfer.limit = request.maximumResponseLength())) {
    // An answer that announces more is refused before its body is read.
    curl_easy_setopt(
        easy, CURLOPT_MAXFILESIZE_LARGE,
        static_cast<curl_off_t>(std::min<std::uint64_t>(
            *transfer.limit, static_cast<std::uint64_t>(std::numeric_limits<curl_off_t>::max()))));
  }

  // The timeout is an idle timeout, as the platform's sessions have it: a transfer fails
  // when connecting takes longer, or when no byte moves for that long, however long the
  // whole transfer takes. libcurl's low-speed check averages over several seconds, so a
  // burst followed by silence would outlast the timeout; the transfer is watched here.
  if (request.timeoutInterval() > 0) {
    double seconds = request.timeoutInterval();
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(seconds * 1000.0));
    transfer.idle_limit = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(seconds));
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &Core::watchIdle);
    curl_easy_setopt(easy, CURLOPT_XFERINFODATA, &task);
  }

  const std::string& method = request.httpMethod();
  bool custom_expect = request.valueForHTTPHeaderField("Expect").has_value();
  switch (task.kind_) {
    case URLSessionTask::Kind::kUpload: {
      int fd = ::open(task.file_.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0) return FileOpenError(errno, task.file_, transfer.url);
      transfer.fd = fd;
      struct stat info {};
      if (::fstat(fd, &info) != 0) return FileOpenError(errno, task.file_, transfer.url);
      if (S_ISDIR(info.st_mode)) return FileOpenError(EISDIR, task.file_, transfer.url);
      task.expected_send_.store(static_cast<std::int64_t>(info.st_size));
      curl_easy_setopt(easy, CURLOPT_UPLOAD, 1L);
      curl_easy_setopt(easy, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(info.st_size));
      curl_easy_setopt(easy, CURLOPT_READFUNCTION, &Core::readFile);
      curl_easy_setopt(easy, CURLOPT_READDATA, &task);
      curl_easy_setopt(easy, CURLOPT_SEEKFUNCTION, &Core::seekFile);
      curl_easy_setopt(easy, CURLOPT_SEEKDATA, &task);
      if (method != "PUT" && method != "GET") {
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
      }
      curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Core::collectData);
      curl_easy_setopt(easy, CURLOPT_WRITEDATA, &task);
      break;
    }
    case URLSessionTask::Kind::kData:
    case URLSessionTask::Kind::kDownload: {
      const auto& body = request.httpBody();
      bool bodiless = method == "GET" || method == "HEAD";
      if (method == "HEAD") {
        curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
      } else if (bodiless) {
        curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
      } else if (body || method == "POST" || method == "PUT" || method == "PATCH") {
        // The body is the request's own bytes, which live as long as the task.
        static const char kEmpty[] = "";
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(body ? body->size() : 0));
        curl_easy_setopt(
            easy, CURLOPT_POSTFIELDS,
            body && !body->empty() ? reinterpret_cast<const char*>(body->data()) : kEmpty);
        task.expected_send_.store(body ? static_cast<std::int64_t>(body->size()) : 0);
        if (method != "POST") curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
      } else {
        curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
      }
      if (task.kind_ == URLSessionTask::Kind::kDownload) {
        std::error_code ignored;
        std::vector<std::filesystem::path> folders;
        if (!configuration.temporaryDirectory.empty())
          folders.push_back(configuration.temporaryDirectory);
        folders.push_back(std::filesystem::temp_directory_path(ignored));
        int saved_errno = ENOENT;
        for (const auto& folder : folders) {
          // Another process's reclaiming may take the new file in the instant before its
          // lock is held (LockAsOwner says so): then another is made, a few times over.
          for (int attempt = 0; attempt < kDownloadFileAttempts && transfer.fd < 0; ++attempt) {
            std::string pattern =
                (folder / (std::string(kURLSessionDownloadPrefix) + "XXXXXX")).string();
            int fd = ::mkostemp(pattern.data(), O_CLOEXEC);
            // Owned from the start, so that no other process takes it for abandoned.
            if (fd >= 0 && !LockAsOwner(fd, pattern)) {
              ::close(fd);
              fd = -1;
              errno = EAGAIN;
            }
            if (fd >= 0) {
              transfer.fd = fd;
              transfer.temporary = pattern;
              break;
            }
            saved_errno = errno;
            if (saved_errno != EAGAIN) break;
          }
          if (transfer.fd >= 0) break;
        }
        if (transfer.fd < 0) {
          return URLError(kURLErrorCannotCreateFile, "The file couldn't be created.", transfer.url,
                          PosixError(saved_errno, folders.back()));
        }
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Core::writeFile);
      } else {
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Core::collectData);
      }
      curl_easy_setopt(easy, CURLOPT_WRITEDATA, &task);
      break;
    }
  }

  for (const auto& [field, value] : request.allHTTPHeaderFields()) {
    transfer.headers =
        curl_slist_append(transfer.headers, fmt::format("{}: {}", field, value).c_str());
  }
  // The platform's sessions never wait for "100 Continue"; neither do we.
  if (!custom_expect) transfer.headers = curl_slist_append(transfer.headers, "Expect:");
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer.headers);
  return nullptr;
}

void URLSession::Core::begin(const std::shared_ptr<URLSessionTask>& task) {
  URLSession& session = *task->session_;
  std::string url = task->request_.url().absoluteString();
  // A cancel() that raced with resume() may have arrived before this command.
  if (task->state_.load() == URLSessionTask::State::kCanceling) {
    session.complete(task,
                     Outcome{nullptr, std::nullopt, std::nullopt, CancelledError(url), nullptr});
    return;
  }
  task->transfer_ = std::make_unique<URLSessionTask::Transfer>();
  if (ErrorRef error = configure(*task, session.configuration_)) {
    task->transfer_.reset();
    session.complete(task, Outcome{nullptr, std::nullopt, std::nullopt, std::move(error), nullptr});
    return;
  }
  CURL* easy = task->transfer_->easy;
  running.emplace(easy, task);
  curl_multi_add_handle(multi, easy);
}

void URLSession::Core::cancel(const std::shared_ptr<URLSessionTask>& task) {
  if (!task->transfer_) return;  // finished already, or not begun (begin() sees the state)
  CURL* easy = task->transfer_->easy;
  if (running.erase(easy) == 0) return;
  curl_multi_remove_handle(multi, easy);
  task->transfer_.reset();
  task->session_->complete(task,
                           Outcome{nullptr, std::nullopt, std::nullopt,
                                   CancelledError(task->request_.url().absoluteString()), nullptr});
}

void URLSession::Core::finish(CURL* easy, CURLcode result) {
  auto it = running.find(easy);
  if (it == running.end()) return;
  std::shared_ptr<URLSessionTask> task = std::move(it->second);
  running.erase(it);
  curl_multi_remove_handle(multi, easy);
  URLSessionTask::Transfer& transfer = *task->transfer_;

  Outcome outcome;
  long status = 0;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  if (status > 0) {
    HTTPHeaderFields fields;
    struct curl_header* previous = nullptr;
    while (struct curl_header* header = curl_easy_nextheader(easy, CURLH_HEADER, -1, previous)) {
      fields.emplace_back(header->name, header->value);
      previous = header;
    }
    char* effective = nullptr;
    curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &effective);
    std::optional<URL> url = URL::URLWithString(effective ? effective : transfer.url);
    curl_off_t length = -1;
    curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    outcome.response = std::make_shared<HTTPURLResponse>(
        url.value_or(task->request_.url()), static_cast<int>(status), std::move(fields),
        static_cast<std::int64_t>(length));
  }
  if (result == CURLE_OK) {
    if (task->kind_ == URLSessionTask::Kind::kDownload) {
      outcome.location_lock = std::make_shared<const ScopedFd>(transfer.fd);
      transfer.fd = -1;
      outcome.location = std::move(transfer.temporary);
      transfer.temporary.clear();
    } else {
      outcome.data = std::move(transfer.data);
    }
  } else if (transfer.idle_expired) {
    outcome.error = URLSessionError(CURLE_OPERATION_TIMEDOUT, transfer.url, "no data moved");
  } else if (transfer.over_limit || result == CURLE_FILESIZE_EXCEEDED) {
    outcome.error =
        URLError(kURLErrorDataLengthExceedsMaximum, "resource exceeds maximum size", transfer.url);
  } else {
    outcome.error = URLSessionError(result, transfer.url, transfer.error_text);
  }
  task->transfer_.reset();
  URLSession& session = *task->session_;
  session.queueProgress(task);
  session.complete(task, std::move(outcome));
}

}  // namespace vm
