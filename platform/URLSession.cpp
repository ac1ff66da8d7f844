#include "platform/URLSession.h"

#include <cstdlib>
#include <system_error>
#include <utility>

#include "platform/internal/URLSessionCore.h"

namespace vm {

// ---- Delegate defaults ------------------------------------------------------------------

void URLSessionDelegate::didSendBodyData(URLSession&, URLSessionTask&, std::int64_t, std::int64_t,
                                         std::int64_t) {}
void URLSessionDelegate::didWriteData(URLSession&, URLSessionTask&, std::int64_t, std::int64_t,
                                      std::int64_t) {}
void URLSessionDelegate::didFinishDownloadingToURL(URLSession&, URLSessionTask&,
                                                   const std::filesystem::path&) {}
void URLSessionDelegate::didCompleteWithError(URLSession&, URLSessionTask&, const ErrorRef&) {}

URLSessionConfiguration URLSessionConfiguration::defaultSessionConfiguration() {
  URLSessionConfiguration configuration;
  if (const char* bundle = std::getenv("VM_CA_BUNDLE"); bundle && *bundle) {
    configuration.caBundle = bundle;
  }
  return configuration;
}

URLSessionConfiguration URLSessionConfiguration::ephemeralSessionConfiguration() {
  return defaultSessionConfiguration();
}

// ---- URLSession ---------------------------------------------------------------------------

URLSession::URLSession(URLSessionConfiguration configuration,
                       std::weak_ptr<URLSessionDelegate> delegate,
                       std::shared_ptr<DispatchQueue> delegateQueue)
    : configuration_(std::move(configuration)),
      delegate_(std::move(delegate)),
      delegate_queue_(std::move(delegateQueue)),
      core_(Core::Shared()) {}

URLSession::~URLSession() = default;

std::shared_ptr<URLSession> URLSession::sharedSession() {
  // Never destroyed: its thread may be busy when the process exits.
  static auto* shared = new std::shared_ptr<URLSession>(new URLSession(
      URLSessionConfiguration::defaultSessionConfiguration(), {}, MakeSerialQueue()));
  return *shared;
}

std::shared_ptr<URLSession> URLSession::sessionWithConfiguration(
    URLSessionConfiguration configuration, std::weak_ptr<URLSessionDelegate> delegate,
    std::shared_ptr<DispatchQueue> delegateQueue) {
  return std::shared_ptr<URLSession>(
      new URLSession(std::move(configuration), std::move(delegate), std::move(delegateQueue)));
}

std::shared_ptr<URLSessionTask> URLSession::makeTask(URLSessionTask::Kind kind, URLRequest request,
                                                     std::filesystem::path file,
                                                     URLSessionTask::Completion completion) {
  return std::shared_ptr<URLSessionTask>(new URLSessionTask(
      shared_from_this(), kind, std::move(request), std::move(file), std::move(completion)));
}

std::shared_ptr<URLSessionTask> URLSession::dataTaskWithRequest(
    URLRequest request, URLSessionTask::Completion completion) {
  return makeTask(URLSessionTask::Kind::kData, std::move(request), {}, std::move(completion));
}

std::shared_ptr<URLSessionTask> URLSession::streamingDataTaskWithRequest(
    URLRequest request, URLSessionTask::DataConsumer consumer,
    URLSessionTask::Completion completion) {
  std::shared_ptr<URLSessionTask> task =
      makeTask(URLSessionTask::Kind::kData, std::move(request), {}, std::move(completion));
  task->consumer_ = std::move(consumer);
  return task;
}

std::shared_ptr<URLSessionTask> URLSession::uploadTaskWithRequest(
    URLRequest request, std::filesystem::path fromFile, URLSessionTask::Completion completion) {
  return makeTask(URLSessionTask::Kind::kUpload, std::move(request), std::move(fromFile),
                  std::move(completion));
}

std::shared_ptr<URLSessionTask> URLSession::downloadTaskWithRequest(URLRequest request) {
  return makeTask(URLSessionTask::Kind::kDownload, std::move(request), {}, {});
}

void URLSession::resumeTask(const std::shared_ptr<URLSessionTask>& task) {
  core_->push(Core::Command{true, task});
}

void URLSession::cancelTask(const std::shared_ptr<URLSessionTask>& task) {
  core_->push(Core::Command{false, task});
}

void URLSession::queueProgress(const std::shared_ptr<URLSessionTask>& task) {
  if (task->kind_ == URLSessionTask::Kind::kData) return;
  if (task->progress_queued_.exchange(true)) return;
  delegate_queue_->async([task] { task->session_->deliverProgress(*task); });
}

void URLSession::deliverProgress(URLSessionTask& task) {
  // Cleared before the counts are read, so that a change made meanwhile queues a report of
  // its own instead of being lost.
  task.progress_queued_.store(false);
  const std::shared_ptr<URLSessionDelegate>& delegate = task.delegate_;
  if (!delegate) return;
  if (task.kind_ == URLSessionTask::Kind::kUpload) {
    std::int64_t sent = task.sent_.load();
    if (sent == task.reported_sent_) return;
    std::int64_t delta = sent - task.reported_sent_;
    task.reported_sent_ = sent;
    delegate->didSendBodyData(*this, task, delta, sent, task.expected_send_.load());
  } else {
    std::int64_t received = task.received_.load();
    if (received == task.reported_received_) return;
    std::int64_t delta = received - task.reported_received_;
    task.reported_received_ = received;
    delegate->didWriteData(*this, task, delta, received, task.expected_receive_.load());
  }
}

void URLSession::complete(const std::shared_ptr<URLSessionTask>& task, Outcome outcome) {
  delegate_queue_->async([task, outcome = std::move(outcome)]() mutable {
    URLSession& session = *task->session_;
    {
      std::lock_guard lock(task->mu_);
      task->response_ = outcome.response;
    }
    std::shared_ptr<URLSessionDelegate> delegate = std::move(task->delegate_);
    task->delegate_.reset();
    if (outcome.location) {
      if (delegate) delegate->didFinishDownloadingToURL(session, *task, *outcome.location);
      std::error_code ignored;
      std::filesystem::remove(*outcome.location, ignored);
    }
    {
      std::lock_guard lock(task->mu_);
      task->error_ = outcome.error;
    }
    task->state_.store(URLSessionTask::State::kCompleted);
    URLSessionTask::Completion completion = std::move(task->completion_);
    task->completion_ = nullptr;
    if (completion) {
      completion(std::move(outcome.data), outcome.response, outcome.error);
    } else if (delegate) {
      delegate->didCompleteWithError(session, *task, outcome.error);
    }
  });
}

}  // namespace vm
