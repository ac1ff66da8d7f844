#include <fmt/format.h>
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <future>
#include <set>

#include "VMAttachments/recovery/CloudAttachmentRecovery.h"
#include "VMAttachments/recovery/UploadThrottle.h"
#include "VMAttachments/telemetry/AttachmentTelemetry.h"
#include "host/HXAttachmentCache.h"
#include "host/HXFileAttachmentSchemeHandler.h"
#include "host/VMAttachmentTransferManager.h"
#include "host/sqlite/SqliteAttachmentCache.h"
#include "platform/UserDefaults.h"
#include "tests/VMAttachments/recovery/RecoveryTestHost.h"

namespace vm {
namespace {

using testing::RecoveryTestHost;

// Stands in for the cloud scheme's store path: registers the file as an upload, as the
// real scheme does, or refuses files named "refuse.txt".
class FakeCloudHandler : public HXFileAttachmentSchemeHandler {
 public:
  using HXFileAttachmentSchemeHandler::HXFileAttachmentSchemeHandler;
  std::string className() const override { return "VMCAttachment"; }
  bool retrieveAttachment(const std::shared_ptr<HXFileAttachment>&, const std::filesystem::path&,
                          const std::shared_ptr<HXFileAttachmentTransferDelegate>&,
                          ErrorRef* error) override {
    return Fail(error, Error::Make("test", 1));
  }
  bool storeFile(const std::filesystem::path& file, const std::string&,
                 const std::shared_ptr<HXFileAttachment>& attachment,
                 const std::shared_ptr<HXFileAttachmentTransferDelegate>&,
                 ErrorRef* error) override {
    if (file.filename() == "refuse.txt") return Fail(error, Error::Make("test", 7));
    stored.push_back(file);
    std::string path = file.string();
    std::shared_ptr<HXFileAttachmentTransferDelegate> delegate;
    return attachment->objectContext()->attachmentTransferManager()->registerTransferPath(
               &path, attachment, &delegate, kTransferOperationUpload, false, error) != nullptr;
  }
  std::optional<Date> attachmentModifyDate(const std::shared_ptr<HXFileAttachment>&) override {
    return std::nullopt;
  }
  std::optional<std::filesystem::path> attachmentURL(
      const std::shared_ptr<HXFileAttachment>&) override {
    return std::nullopt;
  }

  static inline std::vector<std::filesystem::path> stored;
};

class CloudAttachmentRecoveryTest : public RecoveryTestHost {
 protected:
  void SetUp() override {
    RecoveryTestHost::SetUp();
    FakeCloudHandler::stored.clear();
    HXSchemeHandlerRegistry::shared().registerClass(
        {"VMCAttachment", "Cloud", true, [](std::shared_ptr<HXFileAttachmentScheme> scheme) {
           return std::make_shared<FakeCloudHandler>(std::move(scheme));
         }});
  }

  void registerUpload(const std::shared_ptr<HXFileAttachment>& record) {
    std::string path = (dir_ / "pending").string();
    std::shared_ptr<HXFileAttachmentTransferDelegate> delegate;
    ErrorRef error;
    ASSERT_TRUE(context_->attachmentTransferManager()->registerTransferPath(
        &path, record, &delegate, kTransferOperationUpload, false, &error))
        << error->summary();
  }

  std::filesystem::path putInCache(const HXFileAttachment& record, std::string_view contents) {
    std::filesystem::path folder = context_->attachmentCache()->absoluteFilePathForObject(record);
    std::filesystem::create_directories(folder);
    testing::WriteFile(folder / record.name(), contents);
    return folder / record.name();
  }

  std::set<std::string> missing() {
    return CloudAttachmentRecovery::getMissingAttachmentUUIDsForContext(*context_);
  }
};

TEST_F(CloudAttachmentRecoveryTest, MissingAreThisCopysUnuploadedCloudAttachmentsWithoutUpload) {
  addAttachment("plain", false);
  addAttachment("never-set", std::nullopt);
  addAttachment("uploaded", true);
  addAttachment("other-scheme")->setFileAttachmentScheme(other_);
  auto trashed = addAttachment("trash");
  auto hidden = addAttachment("hidden");
  auto queued = addAttachment("queued");
  auto other_copy = addAttachment("other-copy");
  addAttachment("")->setAttachmentUUID(std::nullopt);
  save();
  ErrorRef error;
  ASSERT_TRUE(context_->setRowFlags(*trashed, true, false, &error));
  ASSERT_TRUE(context_->setRowFlags(*hidden, false, true, &error));
  registerUpload(queued);
  // A key whose remainder is 346 was handed out by another copy of the database.
  ASSERT_TRUE(context_->database().exec(
      fmt::format("UPDATE attachments SET _rowid = {} WHERE attachmentUUID = 'other-copy'",
                  other_copy->primaryKeyValue() + 1),
      &error));

  const std::set<std::string> this_copy = {"plain", "never-set", "trash", "hidden"};
  EXPECT_EQ(missing(), this_copy);

  UserDefaults::standard()->setObject(kVMAttachmentRecoveryIgnoreReplicant, true);
  std::set<std::string> every_copy = this_copy;
  every_copy.insert("other-copy");
  EXPECT_EQ(missing(), every_copy);
}

TEST_F(CloudAttachmentRecoveryTest, RecoveryListReplacesTheComputationAsWritten) {
  addAttachment("in-database");
  save();
  struct Case {
    const char* list;
    std::set<std::string> expected;
  };
  const Case cases[] = {
      {"A,B,A", {"A", "B"}},
      {"", {""}},
      {" a , b,,", {" a ", " b", ""}},
      {"not-a-uuid", {"not-a-uuid"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.list);
    UserDefaults::standard()->setObject(kVMCloudAttachmentRecoveryList, std::string(c.list));
    EXPECT_EQ(missing(), c.expected);
  }
  UserDefaults::standard()->removeObjectForKey(kVMCloudAttachmentRecoveryList);
  EXPECT_EQ(missing(), std::set<std::string>{"in-database"});
}

TEST_F(CloudAttachmentRecoveryTest, UUIDListsAreBoundNeverRunAndSplitPastTheParameterLimit) {
  // Far more UUIDs than older SQLite builds accept as parameters of one statement.
  std::string list;
  std::set<std::string> expected;
  for (int i = 0; i < 1200; ++i) {
    std::string uuid = fmt::format("uuid-{:04}", i);
    // Rows in every chunk, the last one included.
    if (i % 60 == 0 || i == 1199) {
      addAttachment(uuid);
      expected.insert(uuid);
    }
    list += uuid + ",";
  }
  addAttachment("q\"uote");
  addAttachment("plain'one");
  expected.insert("q\"uote");
  save();
  list += "q\"uote,\") OR 1=1 --,\"; DROP TABLE attachments; --,x\" OR \"1\"=\"1";
  UserDefaults::standard()->setObject(kVMCloudAttachmentRecoveryList, list);

  std::atomic<bool> done{false};
  std::set<std::string> found;
  CloudAttachmentRecovery::recoverTransfersWithContext(
      context_.get(), [&](std::shared_ptr<AttachmentList> remaining) {
        ASSERT_TRUE(remaining);
        for (const auto& record : *remaining) found.insert(*record->attachmentUUID());
        done = true;
      });
  ASSERT_TRUE(runMainQueueUntil([&] { return done.load(); }));
  EXPECT_EQ(found, expected);
  EXPECT_EQ(countMessagesStartingWith("no stored crypted hash on"), 22);
  // The table is still there and whole.
  EXPECT_EQ(context_->allAttachments().size(), 23u);
}

TEST(UploadThrottleTest, WaitsInStepsWhileMoreThanTenUploadsArePending) {
  struct Case {
    int pending;
    int waits;
    int log_lines;
  };
  const Case cases[] = {{10, 0, 0}, {11, 1, 0}, {25, 15, 1}, {31, 21, 2}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.pending);
    testing::TempDir dir;
    ErrorRef error;
    auto context = SqliteObjectContext::open(dir.path(), &error);
    ASSERT_TRUE(context);
    VMAttachmentTransferManager* manager = context->attachmentTransferManager();
    for (int i = 0; i < c.pending; ++i) {
      auto record = context->insertAttachment();
      record->setAttachmentUUID(fmt::format("u{}", i));
      std::string path = (dir / "pending").string();
      std::shared_ptr<HXFileAttachmentTransferDelegate> delegate;
      ASSERT_TRUE(manager->registerTransferPath(&path, record, &delegate, kTransferOperationUpload,
                                                false, &error));
    }
    auto sink = std::make_shared<RecordingTelemetrySink>();
    auto previous = SetTelemetrySink(sink);
    // Each wait sees one upload finish; the log line must come before its wait.
    std::vector<std::string> timeline;
    int next = 0;
    UploadThrottle throttle(manager, [&](std::chrono::microseconds step) {
      EXPECT_EQ(step, std::chrono::seconds(15));
      timeline.push_back(fmt::format("wait, {} log lines", sink->events().size()));
      manager->removeTransferForAttachmentIdentifier(fmt::format("u{}", next++));
    });
    EXPECT_EQ(throttle.waitForRoom(), c.waits);
    SetTelemetrySink(previous);
    std::vector<TelemetryEvent> events = sink->events();
    ASSERT_EQ(static_cast<int>(events.size()), c.log_lines);
    for (const TelemetryEvent& event : events) EXPECT_EQ(event.message, "Limiting upload rate");
    if (c.waits >= 10) {
      EXPECT_EQ(timeline[8], "wait, 0 log lines");
      EXPECT_EQ(timeline[9], "wait, 1 log lines");
    }
  }
}

TEST(UploadThrottleTest, AHostsOwnCountReplacesTheManagersAndStopEndsTheWait) {
  // Without a manager: only the count given says anything is pending.
  std::size_t pending = 12;
  int waits = 0;
  UploadThrottle counted(
      nullptr, [&](std::chrono::microseconds) { ++waits, --pending; }, [&] { return pending; });
  EXPECT_EQ(counted.waitForRoom(), 2);
  bool stop = false;
  pending = 50;
  UploadThrottle stopped(
      nullptr, [&](std::chrono::microseconds) { stop = ++waits == 5; }, [&] { return pending; },
      [&] { return stop; });
  EXPECT_EQ(stopped.waitForRoom(), 3) << "no wait after stop said so";
}

TEST_F(CloudAttachmentRecoveryTest, ACancelledPassStoresNothingMoreAndEndsAbandoned) {
  for (const char* uuid : {"one", "two", "three"}) {
    auto record = addAttachment(uuid, false, "file.txt");
    save();
    putInCache(*record, "bytes");
  }
  std::atomic<bool> cancelled{false};
  std::atomic<bool> abandoned{false};
  ErrorRef reason;
  bool completed = false;
  std::promise<void> gave_up;
  RecoveryOptions options;
  // The first store's pause is where the host gives up.
  options.sleep = [&](std::chrono::microseconds) {
    if (!cancelled.exchange(true)) gave_up.set_value();
  };
  options.cancelled = [&] { return cancelled.load(); };
  options.abandoned = [&](const ErrorRef& e) {
    reason = e;
    abandoned = true;
  };
  CloudAttachmentRecovery::recoverCloudAttachmentsWithContext(
      context_.get(),
      [&](std::uint64_t, std::uint64_t, std::shared_ptr<AttachmentList>,
          std::shared_ptr<AttachmentList>) { completed = true; },
      options);
  // Only this thread runs the main queue: the first store, queued before the host gave up,
  // runs after it did.
  ASSERT_EQ(gave_up.get_future().wait_for(std::chrono::seconds(120)), std::future_status::ready);
  ASSERT_TRUE(runMainQueueUntil([&] { return abandoned.load(); }));
  MainQueue::shared().drainPending();
  EXPECT_FALSE(completed);
  ASSERT_TRUE(reason);
  EXPECT_EQ(reason->code(), ECANCELED);
  EXPECT_TRUE(FakeCloudHandler::stored.empty()) << "the store queued before the stop is skipped";
  EXPECT_EQ(countMessagesStartingWith("Starting transfers recovery pass"), 0);
}

TEST_F(CloudAttachmentRecoveryTest, NothingMissingCompletesAtOnceWithNothing) {
  addAttachment("done", true);
  save();
  bool called = false;
  CloudAttachmentRecovery::recoverCloudAttachmentsWithContext(
      context_.get(),
      [&](std::uint64_t recovered, std::uint64_t unrecovered, std::shared_ptr<AttachmentList> list,
          std::shared_ptr<AttachmentList> emails) {
        called = true;
        EXPECT_EQ(recovered, 0u);
        EXPECT_EQ(unrecovered, 0u);
        EXPECT_FALSE(list);
        EXPECT_FALSE(emails);
      });
  EXPECT_TRUE(called);
  EXPECT_EQ(context_->attachmentCache()->maxCacheSize(),
            SqliteAttachmentCache::kDefaultMaxCacheSize);
}

TEST_F(CloudAttachmentRecoveryTest, CachedCopiesAreStoredAgainAndTheRestReported) {
  auto cached = addAttachment("cached", false, "report.pdf");
  auto uncached = addAttachment("uncached");
  auto refused = addAttachment("refused", false, "refuse.txt");
  auto climbing = addAttachment("climbing", false, "../report.pdf");
  auto trashed = addAttachment("trashed", false, "old.txt");
  // A row whose UUID, as the cache folder's name, climbs out of the cache to a private
  // file of the user's.
  const std::string hostile_uuid = "x/../../../private";
  auto hostile = addAttachment(hostile_uuid, false, "secret.txt");
  save();
  ErrorRef error;
  ASSERT_TRUE(context_->setRowFlags(*trashed, true, false, &error));
  std::filesystem::path copy = putInCache(*cached, "bytes");
  std::filesystem::path trashed_copy = putInCache(*trashed, "old");
  putInCache(*refused, "no");
  // The "../report.pdf" of the climbing record would be the cached record's neighbour.
  std::filesystem::create_directories(
      context_->attachmentCache()->absoluteFilePathForObject(*climbing));
  testing::WriteFile(
      context_->attachmentCache()->absoluteFilePathForObject(*climbing).parent_path() /
          "report.pdf",
      "not yours");
  const std::filesystem::path secret = (context_->attachmentCache()->root() /
                                        hostile_uuid.substr(0, 2) / hostile_uuid / "secret.txt")
                                           .lexically_normal();
  ASSERT_EQ(secret, dir_ / "private" / "secret.txt");
  // The folders the climb passes through exist, so that the path resolves.
  std::filesystem::create_directories(context_->attachmentCache()->root() / "x" / "x");
  std::filesystem::create_directories(secret.parent_path());
  testing::WriteFile(secret, "private");
  for (const char* subject : {"first", "second"}) {
    auto email = context_->createObjectForEntityNamed(HXEmail::kEntityName, true);
    ASSERT_TRUE(context_->saveChanges(&error));
    ASSERT_TRUE(context_->linkEmailToAttachment(*email, *uncached, &error)) << subject;
  }
  const std::uint64_t cache_size = context_->attachmentCache()->maxCacheSize();

  std::vector<std::chrono::microseconds> sleeps;
  RecoveryOptions options;
  options.sleep = [&](std::chrono::microseconds d) { sleeps.push_back(d); };
  std::atomic<bool> done{false};
  std::uint64_t recovered = 0, unrecovered_count = 0;
  std::shared_ptr<AttachmentList> unrecovered, with_emails;
  CloudAttachmentRecovery::recoverCloudAttachmentsWithContext(
      context_.get(),
      [&](std::uint64_t r, std::uint64_t u, std::shared_ptr<AttachmentList> list,
          std::shared_ptr<AttachmentList> emails) {
        EXPECT_TRUE(MainQueue::isMainThread());
        recovered = r;
        unrecovered_count = u;
        unrecovered = list;
        with_emails = emails;
        done = true;
      },
      options);
  ASSERT_TRUE(runMainQueueUntil([&] { return done.load(); }));

  EXPECT_EQ(recovered, 2u);
  for (const auto& record : {cached, trashed}) {
    EXPECT_NE(record->attachmentUUID(), "cached");
    EXPECT_NE(record->attachmentUUID(), "trashed");
    EXPECT_EQ(record->uploaded(), false);
  }
  EXPECT_EQ(cached->temporaryPath(), copy.string());
  EXPECT_EQ(trashed->temporaryPath(), trashed_copy.string());
  EXPECT_EQ(FakeCloudHandler::stored, (std::vector<std::filesystem::path>{copy, trashed_copy}));
  // One 500-microsecond pause after each queued store, no throttle waits.
  EXPECT_EQ(sleeps, (std::vector<std::chrono::microseconds>(3, std::chrono::microseconds(500))));

  ASSERT_TRUE(unrecovered);
  EXPECT_EQ(unrecovered_count, unrecovered->size());
  std::set<std::string> left;
  for (const auto& record : *unrecovered) left.insert(*record->attachmentUUID());
  EXPECT_EQ(left, (std::set<std::string>{"uncached", "climbing", hostile_uuid}));
  EXPECT_EQ(hostile->temporaryPath(), std::nullopt);
  ASSERT_TRUE(with_emails);
  ASSERT_EQ(with_emails->size(), 1u);
  EXPECT_EQ(with_emails->front(), uncached);

  EXPECT_EQ(countMessagesStartingWith("not in file attachments cache: "), 3);
  EXPECT_EQ(countMessagesStartingWith("error storing "), 1);
  EXPECT_EQ(countMessagesStartingWith("found: "), 2);
  EXPECT_EQ(countMessagesStartingWith("Found 6 missing attachment UUID's"), 1);
  std::vector<std::string> all = messages();
  auto at = [&](std::string_view m) { return std::find(all.begin(), all.end(), m) - all.begin(); };
  EXPECT_LT(at("Beginning file attachments recovery pass..."),
            at("Finished file attachments recovery pass..."));
  EXPECT_LT(at("Finished file attachments recovery pass..."),
            at("Starting transfers recovery pass..."));
  EXPECT_EQ(context_->attachmentCache()->maxCacheSize(), 3 * cache_size);
  for (const TelemetryEvent& event : sink_->events()) {
    SCOPED_TRACE(event.message);
    bool on_error_facility = event.message.starts_with("not in file attachments cache") ||
                             event.message.starts_with("error storing");
    EXPECT_EQ(event.facility, on_error_facility ? AttachmentRecoveryTelemetry::errorFacility()
                                                : AttachmentRecoveryTelemetry::logFacility());
    EXPECT_EQ(event.level, event.facility->logLevel());
    EXPECT_TRUE(event.extra.empty());
    EXPECT_TRUE(event.skipCache);
  }
}

TEST_F(CloudAttachmentRecoveryTest, AFailedFetchNeverCallsTheCompletion) {
  addAttachment("row");
  save();
  UserDefaults::standard()->setObject(kVMCloudAttachmentRecoveryList, std::string("row"));
  ErrorRef error;
  ASSERT_TRUE(context_->database().exec("ALTER TABLE attachments RENAME TO gone", &error));

  std::atomic<bool> abandoned{false};
  bool completed = false;
  RecoveryOptions options;
  options.abandoned = [&](const ErrorRef& e) {
    EXPECT_TRUE(e);
    abandoned = true;
  };
  CloudAttachmentRecovery::recoverCloudAttachmentsWithContext(
      context_.get(),
      [&](std::uint64_t, std::uint64_t, std::shared_ptr<AttachmentList>,
          std::shared_ptr<AttachmentList>) { completed = true; },
      options);
  ASSERT_TRUE(runMainQueueUntil([&] { return abandoned.load(); }));
  MainQueue::shared().drainPending();
  EXPECT_FALSE(completed);
  EXPECT_EQ(countMessagesStartingWith("Error performing req:"), 1);
}

TEST_F(CloudAttachmentRecoveryTest, TaskExplainsAndLinksEveryUnrecoveredAttachment) {
  for (std::size_t count : {3u, 0u}) {
    SCOPED_TRACE(count);
    AttachmentList attachments;
    for (std::size_t i = 0; i < count; ++i) {
      attachments.push_back(addAttachment(fmt::format("lost-{}-{}", count, i)));
    }
    save();
    std::shared_ptr<HXTask> task =
        CloudAttachmentRecovery::recoveryTaskForUnrecoveredAttachments(attachments, *context_);
    ASSERT_TRUE(task);
    EXPECT_EQ(task->title(), "Re-add Files to Velmora");
    EXPECT_TRUE(task->details().starts_with(fmt::format("{} files could not be found", count)));
    EXPECT_NE(task->details().find("re-added to Velmora."), std::string::npos);
    EXPECT_NE(task->details().find("\n\nIf you need any help"), std::string::npos);
    EXPECT_NEAR(static_cast<double>(task->dueDate()),
                static_cast<double>(std::chrono::duration_cast<std::chrono::seconds>(
                                        std::chrono::system_clock::now().time_since_epoch())
                                        .count()),
                5.0);
    save();
    ErrorRef error;
    auto links = context_->database().prepare(
        "SELECT toID FROM links WHERE fromEntity = 'HXTask' AND fromID = ? ORDER BY rowid", &error);
    links->bindInt(1, static_cast<std::int64_t>(task->primaryKeyValue()));
    std::vector<std::uint64_t> linked;
    while (links->step(&error)) linked.push_back(static_cast<std::uint64_t>(links->columnInt(0)));
    std::vector<std::uint64_t> expected;
    for (const auto& a : attachments) expected.push_back(a->primaryKeyValue());
    EXPECT_EQ(linked, expected);
    auto list = context_->database().prepare("SELECT list FROM tasks WHERE _rowid = ?", &error);
    list->bindInt(1, static_cast<std::int64_t>(task->primaryKeyValue()));
    ASSERT_TRUE(list->step(&error));
    EXPECT_EQ(list->columnText(0), "worklist");
  }
}

TEST(RecoveryListURLTest, NamesTheHiddenSystemWideFileOfOneDatabaseCopy) {
  testing::TempDir dir;
  ErrorRef error;
  SqliteCreateOptions options;
  options.primaryKeyOffset = 7;
  options.customerID = 42;
  auto context = SqliteObjectContext::open(dir.path(), &error, options);
  ASSERT_TRUE(context);
  EXPECT_EQ(CloudAttachmentRecovery::qrxAttachmentRecoveryURLForObjectContext(*context),
            "/Library/Mail/Velmora/.QRXAttachmentRecoveryMar2020-42-7.plist");
}

}  // namespace
}  // namespace vm
