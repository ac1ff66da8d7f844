#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

#include "VMAttachments/schemes/ShareSchemes.h"
#include "VMAttachments/schemes/VMArchiverAttachment.h"
#include "VMAttachments/schemes/VMAttachmentConstants.h"
#include "platform/KeyedArchive.h"
#include "platform/Log.h"
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

class ArchiverTest : public ::testing::Test {
 protected:
  ArchiverTest() : mounter_(std::make_shared<FakeMounter>()), scoped_(mounter_) {
    mounter_->mount_point = dir_ / "mnt";
    fs::create_directories(mounter_->mount_point);
    fs::create_directories(dir_ / "out");
  }

  std::shared_ptr<VMArchiverAttachment> Handler(const std::string& folder,
                                                const std::string& server = "") {
    scheme_ = std::make_shared<HXFileAttachmentScheme>(&context_);
    scheme_->setInfoData(MakeShareSettingsInfoData(server, "", "", folder));
    return std::make_shared<VMArchiverAttachment>(scheme_);
  }

  std::shared_ptr<testing::TestAttachment> Attachment(const std::string& name,
                                                      const std::string& path) {
    auto attachment = std::make_shared<testing::TestAttachment>(nullptr);
    attachment->setName(name);
    attachment->setAttachmentPath(path);
    return attachment;
  }

  TempDir dir_;
  testing::TestContext context_;
  std::shared_ptr<HXFileAttachmentScheme> scheme_;
  std::shared_ptr<FakeMounter> mounter_;
  testing::ScopedMounter scoped_;
};

TEST_F(ArchiverTest, StoresIntoTheFolderAndRetrievesFromIt) {
  fs::path folder = dir_ / "archive";
  fs::create_directories(folder);
  WriteFile(dir_ / "src" / "n.txt", "note");
  auto handler = Handler(folder.string());
  auto attachment = Attachment("n.txt", "2024/05/n.txt");
  attachment->setAttachmentModifyDate(Date(std::chrono::seconds(1700000000)));

  auto store = std::make_shared<RecordingDelegate>();
  ErrorRef error;
  ASSERT_TRUE(handler->storeFile(dir_ / "src" / "n.txt", "2024/05", attachment, store, &error));
  ASSERT_TRUE(store->waitUntilEnded());
  EXPECT_EQ(store->kinds(), (Kinds{"willSend", "finished"}));
  fs::path stored = folder / "2024" / "05" / "n.txt";
  EXPECT_EQ(ReadFile(stored), "note");
  struct stat st;
  ASSERT_EQ(stat((folder / "2024").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0775u);
  ASSERT_EQ(stat(stored.c_str(), &st), 0);
  EXPECT_EQ(st.st_mtim.tv_sec, 1700000000);
  EXPECT_EQ(attachment->uploaded(), true);
  EXPECT_EQ(handler->attachmentURL(attachment), stored);

  auto retrieve = std::make_shared<RecordingDelegate>();
  ASSERT_TRUE(handler->retrieveAttachment(attachment, dir_ / "out", retrieve, &error));
  ASSERT_TRUE(retrieve->waitUntilEnded());
  EXPECT_EQ(retrieve->kinds(), (Kinds{"willReceive", "finished"}));
  EXPECT_EQ(ReadFile(dir_ / "out" / "n.txt"), "note");
  EXPECT_EQ(attachment->detailsURLs(), std::vector<fs::path>{stored});
  // A folder that is merely reachable is not a mounted share: no date.
  EXPECT_EQ(attachment->attachmentModifyDate(), std::nullopt);
  EXPECT_EQ(mounter_->calls, 0);
}

TEST_F(ArchiverTest, EncodedFolderIsDecodedForLookupsButNotForStores) {
  std::string folder = (dir_ / "Shared%20Files" / "Archive").string();
  WriteFile(dir_ / "src" / "a.txt", "a");
  auto handler = Handler(folder);
  auto attachment = Attachment("a.txt", "x/a.txt");
  auto store = std::make_shared<RecordingDelegate>();
  ASSERT_TRUE(handler->storeFile(dir_ / "src" / "a.txt", "x", attachment, store, nullptr));
  ASSERT_TRUE(store->waitUntilEnded());
  EXPECT_TRUE(fs::exists(dir_ / "Shared%20Files" / "Archive" / "x" / "a.txt"));

  WriteFile(dir_ / "Shared Files" / "Archive" / "x" / "a.txt", "decoded");
  auto retrieve = std::make_shared<RecordingDelegate>();
  ASSERT_TRUE(handler->retrieveAttachment(attachment, dir_ / "out", retrieve, nullptr));
  ASSERT_TRUE(retrieve->waitUntilEnded());
  EXPECT_EQ(ReadFile(dir_ / "out" / "a.txt"), "decoded");
}

TEST_F(ArchiverTest, FallsBackToTheServerShareWhenTheFolderLacksTheFile) {
  WriteFile(mounter_->mount_point / "Att" / "x" / "a.txt", "from the share");
  auto handler = Handler((dir_ / "not-there").string(), "smb://srv/share/Att");
  auto attachment = Attachment("a.txt", "x/a.txt");
  EXPECT_EQ(handler->attachmentURL(attachment), std::nullopt);  // not mounted yet

  auto delegate = std::make_shared<RecordingDelegate>();
  ASSERT_TRUE(handler->retrieveAttachment(attachment, dir_ / "out", delegate, nullptr));
  ASSERT_TRUE(delegate->waitUntilEnded());
  EXPECT_EQ(delegate->kinds(), (Kinds{"willReceive", "finished"}));
  EXPECT_EQ(ReadFile(dir_ / "out" / "a.txt"), "from the share");
  EXPECT_EQ(mounter_->calls, 1);
  EXPECT_TRUE(attachment->attachmentModifyDate().has_value());
  // Once mounted, the URL is the volume's, not the share path's.
  EXPECT_EQ(handler->attachmentURL(attachment), mounter_->mount_point / "x" / "a.txt");
}

TEST_F(ArchiverTest, RetrievalFailuresAsTheyReachTheCaller) {
  fs::path folder = dir_ / "archive";
  fs::create_directories(folder);
  struct Case {
    std::string name;
    std::string folder;
    std::string server;
    bool result;
    std::string domain;
    std::int64_t code;
    bool reported_before_return;
    std::string logged;
  };
  const Case cases[] = {
      {"nothing set up", "", "", false, "VMArchiverAttachmentDomain", 700, true,
       "Cannot find attachment - no URL path setup in preferences"},
      // The folder is reachable, so nothing is mounted and there is no share to copy from.
      {"reachable folder without the file", folder.string(), "smb://srv/share", true,
       "NSPOSIXErrorDomain", EINVAL, false, "Failed to copy file from share for retrieval"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    auto handler = Handler(c.folder, c.server);
    auto delegate = std::make_shared<RecordingDelegate>();
    ErrorRef error;
    EXPECT_EQ(
        handler->retrieveAttachment(Attachment("a.txt", "a.txt"), dir_ / "out", delegate, &error),
        c.result);
    EXPECT_EQ(delegate->ended(), c.reported_before_return);
    ASSERT_TRUE(delegate->waitUntilEnded());
    EXPECT_EQ(delegate->kinds(), (Kinds{"willReceive", "gotError"}));
    auto failure = delegate->last("gotError");
    ASSERT_NE(failure->error, nullptr);
    EXPECT_EQ(failure->error->domain(), c.domain);
    EXPECT_EQ(failure->error->code(), c.code);
    EXPECT_EQ(error, c.result ? nullptr : failure->error);
    EXPECT_TRUE(log.contains(handler->description() + " - " + c.logged));
    EXPECT_EQ(mounter_->calls, 0);
  }
  ErrorRef error;
  Handler("")->retrieveAttachment(Attachment("a.txt", "a.txt"), dir_.path(), nullptr, &error);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->localizedDescription(), "No path set up in the Archiver Scheme preferences");
  EXPECT_EQ(error->localizedRecoverySuggestion(),
            "Review the preferences for the Archived Attachments storage preferences");
}

TEST_F(ArchiverTest, StoreFailuresReturnNoAndTellTheDelegateAtOnce) {
  WriteFile(dir_ / "blocked", "a file, not a folder");
  WriteFile(dir_ / "src" / "a.txt", "a");
  struct Case {
    std::string name;
    std::string folder;
    fs::path source;
    std::string kind;
  };
  const Case cases[] = {
      {"folder cannot be made", (dir_ / "blocked").string(), dir_ / "src" / "a.txt", "gotError"},
      {"no storage folder", "", dir_ / "src" / "a.txt", "gotError"},
      {"source missing", (dir_ / "archive").string(), dir_ / "src" / "gone.txt",
       "gotCriticalError"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto handler = Handler(c.folder);
    auto delegate = std::make_shared<RecordingDelegate>();
    ErrorRef error;
    EXPECT_FALSE(
        handler->storeFile(c.source, "x", Attachment("a.txt", "x/a.txt"), delegate, &error));
    EXPECT_EQ(delegate->kinds(), (Kinds{"willSend", c.kind}));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(delegate->last(c.kind)->error, error);
  }
}

// Names, relative paths and folders from records or callers that would reach outside the
// storage folder or the destination are refused with EINVAL through the usual route, and
// nothing outside is read or written.
TEST_F(ArchiverTest, HostileNamesAndPathsAreRefusedAndTouchNothingOutside) {
  fs::path folder = dir_ / "archive";
  fs::create_directories(folder / "in");
  WriteFile(dir_ / "src" / "a.txt", "attacker");
  WriteFile(dir_ / "victim", "precious");
  WriteFile(folder / "in" / "ok.txt", "stored");
  struct Case {
    std::string name;
    bool store;
    std::string storage;
    std::string at_path;  // store: the relative folder; retrieve: the record's path
    std::string attachment_name;
  };
  const std::string base = folder.string();
  const Case cases[] = {
      {"store folder climbs", true, base, "../", "victim"},
      {"store folder is absolute", true, base, dir_.path().string(), "victim"},
      {"store name climbs", true, base, "in", "../../victim"},
      {"store name is a folder", true, base, "in", ".."},
      {"store into a climbing storage folder", true, base + "/../archive/..", "", "victim"},
      {"retrieve path climbs", false, base, "../victim", "victim.txt"},
      {"retrieve name climbs", false, base, "in/ok.txt", "../victim"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto handler = Handler(c.storage);
    auto delegate = std::make_shared<RecordingDelegate>();
    auto attachment = Attachment(c.attachment_name, c.at_path);
    ErrorRef error;
    bool started =
        c.store
            ? handler->storeFile(dir_ / "src" / "a.txt", c.at_path, attachment, delegate, &error)
            : handler->retrieveAttachment(attachment, dir_ / "out", delegate, &error);
    EXPECT_FALSE(started);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(std::make_pair(error->domain(), error->code()),
              std::make_pair(std::string(NSPOSIXErrorDomain), std::int64_t{EINVAL}));
    EXPECT_EQ(delegate->kinds(), (Kinds{c.store ? "willSend" : "willReceive", "gotError"}));
    EXPECT_EQ(delegate->last("gotError")->error, error);
    if (!c.store) {
      EXPECT_EQ(handler->attachmentURL(attachment), std::nullopt);
    }
    EXPECT_EQ(ReadFile(dir_ / "victim"), "precious");
    EXPECT_TRUE(fs::is_empty(dir_ / "out"));
    EXPECT_FALSE(fs::exists(dir_ / "victim.txt"));
  }
}

// A same-named file in the storage folder is never replaced: the store fails with EEXIST,
// the old bytes stay, and the folders this store made are gone again. A name of the
// longest length stores and retrieves.
TEST_F(ArchiverTest, StoreKeepsAnExistingFileAndLeavesNoEmptyFolders) {
  fs::path folder = dir_ / "archive";
  WriteFile(folder / "taken" / "a.txt", "first");
  WriteFile(dir_ / "src" / "a.txt", "second");
  auto handler = Handler(folder.string());
  auto delegate = std::make_shared<RecordingDelegate>();
  ErrorRef error;
  EXPECT_FALSE(handler->storeFile(dir_ / "src" / "a.txt", "taken", Attachment("a.txt", ""),
                                  delegate, &error));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), EEXIST);
  EXPECT_EQ(delegate->kinds(), (Kinds{"willSend", "gotCriticalError"}));
  EXPECT_EQ(ReadFile(folder / "taken" / "a.txt"), "first");

  // Refused after its folders were made: a source that cannot be copied.
  ErrorRef refused;
  EXPECT_FALSE(handler->storeFile(dir_ / "src" / "gone.txt", "new/one/deep", Attachment("g", ""),
                                  std::make_shared<RecordingDelegate>(), &refused));
  EXPECT_FALSE(fs::exists(folder / "new"));

  std::string long_name(255, 'L');
  WriteFile(dir_ / "src" / long_name, "long");
  auto attachment = Attachment(long_name, "deep/" + long_name);
  auto store = std::make_shared<RecordingDelegate>();
  ASSERT_TRUE(handler->storeFile(dir_ / "src" / long_name, "deep", attachment, store, &error));
  ASSERT_TRUE(store->waitUntilEnded());
  EXPECT_EQ(store->kinds(), (Kinds{"willSend", "finished"}));
  auto retrieve = std::make_shared<RecordingDelegate>();
  ASSERT_TRUE(handler->retrieveAttachment(attachment, dir_ / "out", retrieve, &error));
  ASSERT_TRUE(retrieve->waitUntilEnded());
  EXPECT_EQ(ReadFile(dir_ / "out" / long_name), "long");
}

TEST_F(ArchiverTest, SettersKeepTheSettingsInTheSchemeRecord) {
  auto handler = Handler("/srv/archive", "smb://srv/share");
  EXPECT_EQ(handler->shareFolderPath(), "/srv/archive");
  handler->setShareServerURL("");
  EXPECT_EQ(context_.saves, 1);
  handler->setShareFolderPath("/srv/other");
  EXPECT_EQ(context_.saves, 2);
  std::optional<ArchivedDictionary> saved = UnarchiveDictionary(*scheme_->infoData());
  ASSERT_TRUE(saved);
  EXPECT_EQ(ArchivedString(*saved, kVMAFPAttachmentServerPath), "");
  EXPECT_EQ(ArchivedString(*saved, kVMArchiverAttachmentStorageFolder), "/srv/other");

  // A known volume answers without asking the file system.
  handler->setVolumePath(fs::path("/nowhere"));
  EXPECT_TRUE(handler->isShareAlreadyAvailable());
  EXPECT_FALSE(Handler("/no/such/folder")->isShareAlreadyAvailable());
}

TEST_F(ArchiverTest, RegisteredWithTheirNames) {
  RegisterShareSchemeClasses();
  auto afp = HXSchemeHandlerRegistry::shared().classNamed("VMAFPAttachment");
  auto archiver = HXSchemeHandlerRegistry::shared().classNamed("VMArchiverAttachment");
  ASSERT_TRUE(afp && archiver);
  EXPECT_EQ(std::tie(afp->schemeName, afp->shouldDisplay),
            std::make_tuple("Apple File Protocol", true));
  EXPECT_EQ(std::tie(archiver->schemeName, archiver->shouldDisplay),
            std::make_tuple("Archived Attachment", false));
}

}  // namespace
}  // namespace vm
