#include "platform/URLSessionTask.h"

#include <utility>

#include "platform/URLSession.h"
#include "platform/internal/URLSessionCore.h"
#include "platform/internal/URLSessionErrors.h"

namespace vm {
namespace {

std::atomic<std::uint64_t> next_task_identifier{1};

}  // namespace

URLSessionTask::URLSessionTask(std::shared_ptr<URLSession> session, Kind kind, URLRequest request,
                               std::filesystem::path file, Completion completion)
    : identifier_(next_task_identifier.fetch_add(1)),
      kind_(kind),
      request_(std::move(request)),
      file_(std::move(file)),
      session_(std::move(session)),
      completion_(std::move(completion)) {}

URLSessionTask::~URLSessionTask() = default;

std::shared_ptr<const URLResponse> URLSessionTask::response() const {
  std::lock_guard lock(mu_);
  return response_;
}

ErrorRef URLSessionTask::error() const {
  std::lock_guard lock(mu_);
  return error_;
}

void URLSessionTask::resume() {
  State expected = State::kSuspended;
  if (!state_.compare_exchange_strong(expected, State::kRunning)) return;
  delegate_ = session_->delegate_.lock();
  session_->resumeTask(shared_from_this());
}

void URLSessionTask::cancel() {
  State state = state_.load();
  while (state == State::kSuspended || state == State::kRunning) {
    if (state_.compare_exchange_weak(state, State::kCanceling)) break;
  }
  if (state == State::kSuspended) {
    delegate_ = session_->delegate_.lock();
    session_->complete(shared_from_this(),
                       URLSession::Outcome{
                           nullptr, std::nullopt, std::nullopt,
                           url_internal::CancelledError(request_.url().absoluteString()), nullptr});
  } else if (state == State::kRunning) {
    session_->cancelTask(shared_from_this());
  }
}

}  // namespace vm
