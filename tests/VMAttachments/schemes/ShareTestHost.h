#ifndef VM_TESTS_VMATTACHMENTS_SCHEMES_SHARETESTHOST_H_
#define VM_TESTS_VMATTACHMENTS_SCHEMES_SHARETESTHOST_H_

// A small host for the share-scheme tests: a recording delegate, a mounter that mounts
// nothing, an object context that counts saves, and an attachment cache with a fixed rule.

#include <atomic>
#include <chrono>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/HXAttachmentCache.h"
#include "host/HXFileAttachment.h"
#include "host/HXFileAttachmentScheme.h"
#include "host/HXFileAttachmentTransferDelegate.h"
#include "host/HXObjectContext.h"
#include "platform/DispatchQueue.h"
#include "platform/ShareMounter.h"

namespace vm::testing {

// Every message a delegate received, in order, with the thread it arrived on.
class RecordingDelegate : public HXFileAttachmentTransferDelegate,
                          public HXFileAttachmentErrorReceiver {
 public:
  struct Event {
    std::string kind;  // willReceive, willSend, progress, finished, gotError, gotCriticalError
    bool on_main = false;
    ErrorRef error;
    double fraction = 0;
    std::int64_t done = 0;
    std::int64_t total = 0;
    bool had_progress_object = false;
  };

  void willReceiveAttachment(HXFileAttachmentSchemeHandler*,
                             const std::shared_ptr<HXFileAttachment>&,
                             const std::shared_ptr<Progress>& progress) override {
    Event event = Make("willReceive");
    event.had_progress_object = progress != nullptr;
    add(std::move(event));
  }
  void willSendAttachment(HXFileAttachmentSchemeHandler*,
                          const std::shared_ptr<HXFileAttachment>&) override {
    add(Make("willSend"));
  }
  void transferProgressUpdate(double fraction, std::int64_t done, std::int64_t total) override {
    Event event = Make("progress");
    event.fraction = fraction;
    event.done = done;
    event.total = total;
    add(std::move(event));
  }
  void finishedTransferForAttachment(HXFileAttachmentSchemeHandler*,
                                     const std::shared_ptr<HXFileAttachment>&) override {
    add(Make("finished"));
  }
  void gotCriticalError(HXFileAttachmentSchemeHandler*, const ErrorRef& error) override {
    add(Make("gotCriticalError", error));
  }
  void gotError(HXFileAttachmentSchemeHandler*, const ErrorRef& error) override {
    add(Make("gotError", error));
  }

  std::vector<Event> events() const {
    std::lock_guard lock(mu_);
    return events_;
  }
  // The kinds, progress left out.
  std::vector<std::string> kinds() const {
    std::vector<std::string> out;
    for (const Event& e : events()) {
      if (e.kind != "progress") out.push_back(e.kind);
    }
    return out;
  }
  bool ended() const {
    for (const Event& e : events()) {
      if (e.kind == "finished" || e.kind == "gotError" || e.kind == "gotCriticalError") {
        return true;
      }
    }
    return false;
  }
  // Drains the main queue until the transfer ended; false after `limit`.
  bool waitUntilEnded(std::chrono::seconds limit = std::chrono::seconds(20)) const {
    return MainQueue::shared().runUntilCondition([this] { return ended(); },
                                                 std::chrono::steady_clock::now() + limit);
  }
  std::optional<Event> last(std::string_view kind) const {
    std::lock_guard lock(mu_);
    for (auto it = events_.rbegin(); it != events_.rend(); ++it) {
      if (it->kind == kind) return *it;
    }
    return std::nullopt;
  }

 private:
  static Event Make(std::string kind, ErrorRef error = nullptr) {
    Event event;
    event.kind = std::move(kind);
    event.on_main = MainQueue::isMainThread();
    event.error = std::move(error);
    return event;
  }
  void add(Event event) {
    std::lock_guard lock(mu_);
    events_.push_back(std::move(event));
  }
  mutable std::mutex mu_;
  std::vector<Event> events_;
};

// Mounts nothing: reports `mount_point` (a plain folder) or the configured failure, on the
// background queue as the real mounter does.
class FakeMounter : public ShareMounter {
 public:
  int mountURLAsync(const ShareMountRequest& request, Completion completion) override {
    {
      std::lock_guard lock(mu_);
      requests_.push_back(request);
    }
    ++calls;
    if (refuse_with != 0) return refuse_with;
    int status = complete_with;
    std::filesystem::path point = mount_point;
    BackgroundQueue().async([status, point, completion = std::move(completion)] {
      std::vector<std::filesystem::path> points;
      if (status == 0) points.push_back(point);
      completion(status, points);
    });
    return 0;
  }
  ShareMountRequest lastRequest() const {
    std::lock_guard lock(mu_);
    return requests_.empty() ? ShareMountRequest{} : requests_.back();
  }

  std::filesystem::path mount_point;
  int refuse_with = 0;
  int complete_with = 0;
  std::atomic<int> calls{0};

 private:
  mutable std::mutex mu_;
  std::vector<ShareMountRequest> requests_;
};

// Installs a mounter for the life of the object, then puts the default back.
class ScopedMounter {
 public:
  explicit ScopedMounter(std::shared_ptr<ShareMounter> mounter) {
    ShareMounter::setShared(std::move(mounter));
  }
  ~ScopedMounter() { ShareMounter::setShared(nullptr); }
};

// The share's relative folder of an attachment is "cache/<name>".
class TestCache : public HXAttachmentCache {
 public:
  std::string relativeFilePathForObject(const HXFileAttachment& attachment) override {
    return "cache/" + attachment.name();
  }
  std::filesystem::path absoluteFilePathForObject(const HXFileAttachment& attachment) override {
    return std::filesystem::path("/nonexistent") / attachment.name();
  }
  std::uint64_t maxCacheSize() const override { return 0; }
  void setMaxCacheSize(std::uint64_t) override {}
};

// Only saves are of interest; the rest answers with nothing.
class TestContext : public HXObjectContext, public HXInstanceCache {
 public:
  bool saveChanges(ErrorRef*) override {
    ++saves;
    return true;
  }
  FetchResults resultsForFetchRequest(const BWPFetchRequest&, ErrorRef*) override { return {}; }
  void asyncResultsForFetchRequest(std::shared_ptr<BWPAsyncFetchRequest>) override {}
  HXInstanceCache& instanceCache() override { return *this; }
  FetchResults objectsForEntityNamed(std::string_view, const BDQualifierRef&) override {
    return {};
  }
  VMAttachmentTransferManager* attachmentTransferManager() override { return nullptr; }
  std::shared_ptr<HXFileAttachmentScheme> cloudStorageScheme() override { return nullptr; }
  std::shared_ptr<HXFileAttachmentSchemeHandler> schemeHandlerForScheme(
      HXFileAttachmentScheme&) override {
    return nullptr;
  }
  std::int64_t primaryKeyOffset() const override { return 0; }
  HXDatabaseIdentifier databaseIdentifier() const override { return {}; }
  std::string databaseUUID() const override { return {}; }
  HXUser user() const override { return {}; }
  std::shared_ptr<HXRecord> createObjectForEntityNamed(std::string_view, bool) override {
    return nullptr;
  }
  void removeTaskFromInboxList(HXTask&) override {}
  void addTaskToWorklist(HXTask&) override {}
  void linkObject(HXRecord&, HXRecord&) override {}

  std::atomic<int> saves{0};
};

// An attachment that remembers what updateMissingDetailsFromURL was given.
class TestAttachment : public HXFileAttachment {
 public:
  using HXFileAttachment::HXFileAttachment;
  void updateMissingDetailsFromURL(const std::filesystem::path& url) override {
    std::lock_guard lock(details_mu_);
    details_urls_.push_back(url);
  }
  std::vector<std::filesystem::path> detailsURLs() const {
    std::lock_guard lock(details_mu_);
    return details_urls_;
  }

 private:
  mutable std::mutex details_mu_;
  std::vector<std::filesystem::path> details_urls_;
};

}  // namespace vm::testing

#endif  // VM_TESTS_VMATTACHMENTS_SCHEMES_SHARETESTHOST_H_
