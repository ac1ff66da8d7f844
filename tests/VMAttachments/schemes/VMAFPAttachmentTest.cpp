#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <cerrno>

#include "VMAttachments/schemes/ShareSchemes.h"
#include "VMAttachments/schemes/VMAFPAttachment.h"
#include "VMAttachments/schemes/VMAttachmentConstants.h"
#include "platform/Log.h"
#include "platform/VolumeWatcher.h"
#include "tests/VMAttachments/schemes/ShareTestHost.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

namespace fs = std::filesystem;
using testing::FakeMounter;
using testing::ReadFile;
using testing::RecordingDelegate;
using testing::TempDir;
using testing::WriteFile;
using Kinds = std::vector<std::string>;

std::optional<Date> FileDate(const fs::path& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return std::nullopt;
  return Date(std::chrono::duration_cast<Date::duration>(
      std::chrono::seconds(st.st_mtim.tv_sec) + std::chrono::nanoseconds(st.st_mtim.tv_nsec)));
}

class AFPTest : public ::testing::Test {
 protected:
  AFPTest() : mounter_(std::make_shared<FakeMounter>()), scoped_(mounter_) {
    mounter_->mount_point = dir_ / "mnt";
    fs::create_directories(mounter_->mount_point);
    HXAttachmentCache::setSharedCache(std::make_shared<testing::TestCache>());
  }
  ~AFPTest() override { HXAttachmentCache::setSharedCache(nullptr); }

  std::shared_ptr<VMAFPAttachment> Handler(const std::string& server = "smb://srv/share/Att",
                                           const std::string& user = "anna",
                                           const std::string& password = "secret") {
    auto scheme = std::make_shared<HXFileAttachmentScheme>(&context_);
    scheme->setInfoData(MakeShareSettingsInfoData(server, user, password, ""));
    return std::make_shared<VMAFPAttachment>(scheme);
  }

  std::shared_ptr<testing::TestAttachment> Attachment(const std::string& name) {
    auto attachment = std::make_shared<testing::TestAttachment>(nullptr);
    attachment->setName(name);
    return attachment;
  }

  TempDir dir_;
  testing::TestContext context_;
  std::shared_ptr<FakeMounter> mounter_;
  testing::ScopedMounter scoped_;
};

TEST_F(AFPTest, MountSplitsTheServerURLIntoShareAndSubPath) {
  struct Case {
    std::string server;
    std::string share_url;
    std::optional<std::string> sub_path;
  };
  const Case cases[] = {
      {"smb://srv/share/Attachments/2024", "smb://srv/share", "Attachments/2024"},
      {"smb://srv/share", "smb://srv/share", std::nullopt},
      {"smb://srv:1445/My Share/x", "smb://srv:1445/My%20Share", "x"},
      // The setting is escaped once more, so an escaped name stays escaped.
      {"smb://srv/Shared%20Files/a", "smb://srv/Shared%2520Files", "a"},
      {"smb://srv", "smb://srv/", std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.server);
    auto handler = Handler(c.server);
    ErrorRef error;
    ASSERT_TRUE(handler->mountShareReturningError(&error));
    ShareMountRequest request = mounter_->lastRequest();
    EXPECT_EQ(request.share_url, c.share_url);
    EXPECT_EQ(request.sub_path, c.sub_path);
    EXPECT_EQ(request.user, "anna");
    EXPECT_EQ(request.password, "secret");
    EXPECT_TRUE(handler->isVolumeMounted());
    EXPECT_EQ(handler->volumePath(), mounter_->mount_point);
    EXPECT_EQ(handler->sharePath(),
              c.sub_path ? mounter_->mount_point / *c.sub_path : mounter_->mount_point);
  }
}

TEST_F(AFPTest, MountFailuresReportTheirErrorOrNone) {
  struct Case {
    std::string name;
    std::string server;
    int refuse_with;
    int complete_with;
    std::string domain;  // empty: no error object
    std::int64_t code;
  };
  const Case cases[] = {
      {"refused at once, positive", "smb://srv/share", EACCES, 0, "NSPOSIXErrorDomain", EACCES},
      {"refused at once, negative", "smb://srv/share", -36, 0, "", 0},
      {"failed mount", "smb://srv/share", 0, EACCES, "", 0},
      {"no server", "", 0, 0, "VMAFPAttachmentDomain", 100},
      {"not a URL", "just words", 0, 0, "VMAFPAttachmentDomain", 100},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    mounter_->refuse_with = c.refuse_with;
    mounter_->complete_with = c.complete_with;
    LogCapture log;
    auto handler = Handler(c.server);
    ErrorRef error = Error::Make("untouched", 1);
    EXPECT_FALSE(handler->mountShareReturningError(&error));
    EXPECT_FALSE(handler->isVolumeMounted());
    if (c.domain.empty()) {
      EXPECT_EQ(error, nullptr);
    } else {
      ASSERT_NE(error, nullptr);
      EXPECT_EQ(error->domain(), c.domain);
      EXPECT_EQ(error->code(), c.code);
    }
    if (c.code == 100) {
      EXPECT_EQ(error->localizedDescription(),
                "Could not mount AFP share. Ensure it is available and that the AFP URL prefix "
                "setting is correct in Velmora Server.");
    }
    if (c.complete_with != 0) {
      EXPECT_TRUE(
          log.contains(handler->description() + " - failed to mount volume (null) - (null)"));
    }
  }
}

TEST_F(AFPTest, MountedVolumeIsReusedUntilItsUnmountIsReported) {
  auto handler = Handler();
  ASSERT_TRUE(handler->mountShareReturningError(nullptr));
  bool called_at_once = false;
  handler->mountShareWithCallback([&](bool success, ErrorRef) { called_at_once = success; });
  EXPECT_TRUE(called_at_once);
  EXPECT_EQ(mounter_->calls, 1);

  Notification other{std::string(NSWorkspaceDidUnmountNotification), {}};
  other.userInfo.emplace(std::string(NSDevicePath), "/media/elsewhere");
  VolumeWatcher::shared().postNotification(other);
  EXPECT_TRUE(handler->isVolumeMounted());

  Notification ours = other;
  ours.userInfo[std::string(NSDevicePath)] = mounter_->mount_point.string();
  VolumeWatcher::shared().postNotification(ours);
  EXPECT_FALSE(handler->isVolumeMounted());
  EXPECT_EQ(handler->volumePath(), std::nullopt);
  EXPECT_EQ(handler->sharePath(), std::nullopt);

  ASSERT_TRUE(handler->mountShareReturningError(nullptr));
  EXPECT_EQ(mounter_->calls, 2);
}

TEST_F(AFPTest, UnreadableSettingsGiveAnEmptyDictionary) {
  auto scheme = std::make_shared<HXFileAttachmentScheme>(&context_);
  scheme->setInfoData(Bytes{'b', 'p', 'l', 'i', 's', 't', '0', '0', 1, 2, 3});
  auto handler = std::make_shared<VMAFPAttachment>(scheme);
  EXPECT_TRUE(handler->connectionInfo().empty());
  EXPECT_EQ(Handler("smb://srv/share")->connectionInfoString(kVMAFPAttachmentServerPath),
            "smb://srv/share");
}

TEST_F(AFPTest, StoreAndRetrieveGoThroughTheShareWithTheirMessagesInOrder) {
  std::string contents(3 * 1024 * 1024 + 7, 'x');
  WriteFile(dir_ / "src" / "report.pdf", contents);
  auto attachment = Attachment("report.pdf");
  const Date modified = Date(std::chrono::seconds(1700000000));
  attachment->setAttachmentModifyDate(modified);
  attachment->setAttachmentCreateDate(Date(std::chrono::seconds(1600000000)));
  auto handler = Handler();
  EXPECT_EQ(handler->attachmentModifyDate(attachment), std::nullopt);  // not mounted yet

  LogCapture log;
  auto store = std::make_shared<RecordingDelegate>();
  ErrorRef error;
  ASSERT_TRUE(handler->storeFile(dir_ / "src" / "report.pdf", "cache/report.pdf", attachment, store,
                                 &error));
  ASSERT_TRUE(store->waitUntilEnded());
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(store->kinds(), (Kinds{"willSend", "finished"}));
  EXPECT_TRUE(store->last("finished")->on_main);
  std::vector<double> fractions;
  for (const auto& e : store->events()) {
    if (e.kind != "progress") continue;
    EXPECT_FALSE(e.on_main);
    EXPECT_EQ(e.total, static_cast<std::int64_t>(contents.size()));
    fractions.push_back(e.fraction);
  }
  EXPECT_EQ(fractions, (std::vector<double>{0, 0, 0, 1}));

  fs::path stored = mounter_->mount_point / "Att" / "cache" / "report.pdf" / "report.pdf";
  EXPECT_EQ(ReadFile(stored), contents);
  EXPECT_EQ(attachment->uploaded(), true);
  struct stat st;
  ASSERT_EQ(stat(stored.c_str(), &st), 0);
  EXPECT_EQ(st.st_mtim.tv_sec, 1700000000);
  EXPECT_EQ(st.st_mode & 0777, 0774u);
  // Linux cannot set the creation date; the store still counts as done.
  EXPECT_TRUE(log.contains(handler->description() +
                           " - Failed to modify file cache modify date on share for attachment"));

  // The retrieval takes the stored file's date, and reuses the mount.
  ASSERT_EQ(utime(stored.c_str(), nullptr), 0);
  Date touched = *FileDate(stored);
  fs::create_directories(dir_ / "out");
  auto retrieve = std::make_shared<RecordingDelegate>();
  ASSERT_TRUE(handler->retrieveAttachment(attachment, dir_ / "out", retrieve, &error));
  ASSERT_TRUE(retrieve->waitUntilEnded());
  EXPECT_EQ(retrieve->kinds(), (Kinds{"willReceive", "finished"}));
  EXPECT_FALSE(retrieve->events().front().had_progress_object);
  EXPECT_EQ(ReadFile(dir_ / "out" / "report.pdf"), contents);
  EXPECT_EQ(attachment->attachmentModifyDate(), touched);
  EXPECT_EQ(handler->attachmentURL(attachment), std::nullopt);
  EXPECT_EQ(mounter_->calls, 1);
}

TEST_F(AFPTest, FailuresReachTheDelegateOnTheMainQueue) {
  WriteFile(dir_ / "src" / "a.txt", "a");
  struct Case {
    std::string name;
    bool store;
    int refuse_with;
    int complete_with;
    std::string expected_kind;
    std::string domain;  // empty: no error object
    std::int64_t code;   // -1: any
    std::string logged;
  };
  const Case cases[] = {
      {"mount refused at once", true, EHOSTUNREACH, 0, "gotError", "NSPOSIXErrorDomain",
       EHOSTUNREACH, ""},
      {"password refused", true, 0, EACCES, "gotError", "", 0, "failed to mount volume"},
      {"missing file", false, 0, 0, "gotCriticalError", "NSPOSIXErrorDomain", ENOENT,
       "Failed to copy file on share for retrieval"},
      {"unwritable folder", true, 0, 0, "gotError", "NSPOSIXErrorDomain", -1,
       "Unable to create directory for attachment"},
  };
  // A file where the store wants a folder.
  WriteFile(mounter_->mount_point / "Att" / "blocked", "not a folder");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    mounter_->refuse_with = c.refuse_with;
    mounter_->complete_with = c.complete_with;
    LogCapture log;
    auto handler = Handler();
    auto delegate = std::make_shared<RecordingDelegate>();
    ErrorRef error;
    bool started = c.store ? handler->storeFile(dir_ / "src" / "a.txt", "blocked",
                                                Attachment("a.txt"), delegate, &error)
                           : handler->retrieveAttachment(Attachment("missing.txt"), dir_.path(),
                                                         delegate, &error);
    EXPECT_TRUE(started);
    EXPECT_EQ(error, nullptr);
    ASSERT_TRUE(delegate->waitUntilEnded());
    EXPECT_EQ(delegate->kinds(), (Kinds{c.store ? "willSend" : "willReceive", c.expected_kind}));
    auto failure = delegate->last(c.expected_kind);
    EXPECT_TRUE(failure->on_main);
    if (c.domain.empty()) {
      EXPECT_EQ(failure->error, nullptr);
    } else {
      ASSERT_NE(failure->error, nullptr);
      EXPECT_EQ(failure->error->domain(), c.domain);
      if (c.code != -1) {
        EXPECT_EQ(failure->error->code(), c.code);
      }
    }
    if (!c.logged.empty()) {
      EXPECT_TRUE(log.contains(handler->description() + " - " + c.logged));
    }
    if (c.expected_kind == "gotCriticalError") {
      EXPECT_TRUE(log.contains("file path: "));
    }
  }
}

// What would leave the share (a climbing or absolute relative folder, a climbing name) is
// refused with EINVAL on the main queue before anything is mounted or written; a
// file already at the target is kept and refuses the store with EEXIST.
TEST_F(AFPTest, HostileNamesAndExistingFilesAreRefusedThroughTheDelegate) {
  WriteFile(dir_ / "src" / "a.txt", "attacker");
  WriteFile(dir_ / "victim", "precious");
  WriteFile(mounter_->mount_point / "Att" / "kept" / "a.txt", "first");
  struct Case {
    std::string name;
    bool store;
    std::string server;
    std::string at_path;
    std::string attachment_name;
    std::int64_t code;
  };
  const Case cases[] = {
      {"store folder climbs", true, "smb://srv/share/Att", "../..", "victim", EINVAL},
      {"store folder is absolute", true, "smb://srv/share/Att", "/x", "victim", EINVAL},
      {"store name climbs", true, "smb://srv/share/Att", "x", "../../../victim", EINVAL},
      {"retrieve name climbs", false, "smb://srv/share/Att", "", "../victim", EINVAL},
      {"same-named file", true, "smb://srv/share/Att", "kept", "a.txt", EEXIST},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto handler = Handler(c.server);
    auto delegate = std::make_shared<RecordingDelegate>();
    auto attachment = Attachment(c.attachment_name);
    EXPECT_TRUE(c.store ? handler->storeFile(dir_ / "src" / "a.txt", c.at_path, attachment,
                                             delegate, nullptr)
                        : handler->retrieveAttachment(attachment, dir_ / "out", delegate, nullptr));
    ASSERT_TRUE(delegate->waitUntilEnded());
    EXPECT_EQ(delegate->kinds(), (Kinds{c.store ? "willSend" : "willReceive", "gotError"}));
    auto failure = delegate->last("gotError");
    EXPECT_TRUE(failure->on_main);
    ASSERT_NE(failure->error, nullptr);
    EXPECT_EQ(failure->error->code(), c.code);
    EXPECT_EQ(ReadFile(dir_ / "victim"), "precious");
    EXPECT_EQ(ReadFile(mounter_->mount_point / "Att" / "kept" / "a.txt"), "first");
    EXPECT_FALSE(fs::exists(dir_ / "out"));
  }
}

TEST_F(AFPTest, StatusCallbackSendsTheCoarseFractionAndCopyFailures) {
  auto handler = Handler();
  auto attachment = Attachment("a.txt");
  auto delegate = std::make_shared<RecordingDelegate>();
  BWCopyContext context = MakeCopyContext(delegate, attachment, handler, dir_ / "a.txt");
  struct Case {
    std::int64_t done, total;
    double fraction;
  };
  for (Case c : {Case{5, 10, 0}, Case{10, 10, 1}, Case{0, 10, 0}, Case{5, 0, 0}}) {
    FSOperationStatus status{c.done, c.total};
    statusCallback({}, {}, kFSOperationStageRunning, 0, &status, context);
    auto progress = delegate->last("progress");
    ASSERT_TRUE(progress);
    EXPECT_EQ(progress->fraction, c.fraction) << c.done << "/" << c.total;
    EXPECT_EQ(progress->done, c.done);
    EXPECT_EQ(progress->total, c.total);
  }
  FSOperationStatus status{1, 2};
  statusCallback({}, {}, kFSOperationStageRunning, EIO, &status, context);
  auto failure = delegate->last("gotError");  // delivered at once, on the copy's thread
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->error->domain(), "NSOSStatusErrorDomain");
  EXPECT_EQ(failure->error->code(), EIO);

  // A null delegate ends the context before anything else goes in.
  EXPECT_TRUE(MakeCopyContext(nullptr, attachment, handler, dir_ / "a.txt").empty());
  EXPECT_EQ(
      MakeCopyContext(delegate, attachment, handler, std::nullopt).count(kVMAFPContextDownloading),
      1u);
}

}  // namespace
}  // namespace vm
