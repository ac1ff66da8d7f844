#ifndef VM_TESTS_VMATTACHMENTS_RECOVERY_RECOVERYTESTHOST_H_
#define VM_TESTS_VMATTACHMENTS_RECOVERY_RECOVERYTESTHOST_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "BWFoundation/BWTelemetry.h"
#include "host/HXFileAttachmentScheme.h"
#include "host/sqlite/JsonFileUserDefaults.h"
#include "host/sqlite/SqliteObjectContext.h"
#include "platform/DispatchQueue.h"
#include "tests/support/TempDir.h"

namespace vm::testing {

// A reference host in a fresh data folder (offset 345, customer 42) installed as the
// process's host, with a cloud scheme row and the recovery telemetry recorded.
class RecoveryTestHost : public ::testing::Test {
 protected:
  static constexpr std::int64_t kOffset = 345;

  void SetUp() override {
    previous_sink_ = SetTelemetrySink(sink_);
    ErrorRef error;
    SqliteCreateOptions options;
    options.primaryKeyOffset = kOffset;
    options.customerID = 42;
    context_ = SqliteObjectContext::open(dir_.path(), &error, options);
    ASSERT_TRUE(context_) << error->summary();
    context_->installAsProcessHost();
    cloud_ = context_->insertScheme("cloud", "VMCAttachment");
    other_ = context_->insertScheme("refs", "VMFileReferenceAttachment");
    ASSERT_TRUE(context_->saveChanges(&error)) << error->summary();
  }

  void TearDown() override {
    context_.reset();
    SetTelemetrySink(previous_sink_);
  }

  std::shared_ptr<HXFileAttachment> addAttachment(const std::string& uuid,
                                                  std::optional<bool> uploaded = false,
                                                  std::string name = "file.txt") {
    auto record = context_->insertAttachment();
    record->setName(std::move(name));
    record->setAttachmentUUID(uuid);
    record->setUploaded(uploaded);
    record->setFileAttachmentScheme(cloud_);
    return record;
  }

  void save() {
    ErrorRef error;
    ASSERT_TRUE(context_->saveChanges(&error)) << error->summary();
  }

  // The messages recorded so far, in order.
  std::vector<std::string> messages() const {
    std::vector<std::string> out;
    for (const TelemetryEvent& event : sink_->events()) out.push_back(event.message);
    return out;
  }
  int countMessagesStartingWith(std::string_view prefix) const {
    auto all = messages();
    return static_cast<int>(std::count_if(
        all.begin(), all.end(), [&](const std::string& m) { return m.starts_with(prefix); }));
  }

  // Drains the main queue until `done` or 20 seconds passed.
  bool runMainQueueUntil(const std::function<bool()>& done) {
    return MainQueue::shared().runUntilCondition(
        done, std::chrono::steady_clock::now() + std::chrono::seconds(60));
  }

  TempDir dir_;
  std::unique_ptr<SqliteObjectContext> context_;
  std::shared_ptr<HXFileAttachmentScheme> cloud_;
  std::shared_ptr<HXFileAttachmentScheme> other_;
  std::shared_ptr<RecordingTelemetrySink> sink_ = std::make_shared<RecordingTelemetrySink>();
  std::shared_ptr<TelemetrySink> previous_sink_;
};

}  // namespace vm::testing

#endif  // VM_TESTS_VMATTACHMENTS_RECOVERY_RECOVERYTESTHOST_H_
