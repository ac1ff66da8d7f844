#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <map>

#include "host/HXFileAttachmentScheme.h"
#include "host/HXFileAttachmentSchemeHandler.h"
#include "host/HXFileAttachmentTransferDelegate.h"
#include "host/HostConstants.h"
#include "host/sqlite/SqliteObjectContext.h"
#include "host/sqlite/SqliteTransferManager.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

using testing::TempDir;

// A handler whose resumeTransfer does what the attachment's name says: "finish" and
// "fail" report to the record's delegate, "refuse" answers no.
class ScriptedHandler : public HXFileAttachmentSchemeHandler,
                        public VMAttachmentTransferHandlerProtocol {
 public:
  static constexpr const char* kClassName = "ScriptedTransferHandler";
  using HXFileAttachmentSchemeHandler::HXFileAttachmentSchemeHandler;

  std::string className() const override { return kClassName; }
  bool retrieveAttachment(const std::shared_ptr<HXFileAttachment>&, const std::filesystem::path&,
                          const std::shared_ptr<HXFileAttachmentTransferDelegate>&,
                          ErrorRef*) override {
    return false;
  }
  bool storeFile(const std::filesystem::path&, const std::string&,
                 const std::shared_ptr<HXFileAttachment>&,
                 const std::shared_ptr<HXFileAttachmentTransferDelegate>&, ErrorRef*) override {
    return false;
  }
  std::optional<Date> attachmentModifyDate(const std::shared_ptr<HXFileAttachment>&) override {
    return std::nullopt;
  }
  std::optional<std::filesystem::path> attachmentURL(
      const std::shared_ptr<HXFileAttachment>&) override {
    return std::nullopt;
  }
  bool suspendTransfer(const std::shared_ptr<VMAttachmentTransferObject>&) override { return true; }
  bool cancelTransfer(const std::shared_ptr<VMAttachmentTransferObject>&) override { return false; }
  bool resumeTransfer(const std::shared_ptr<VMAttachmentTransferObject>& transfer) override {
    ++resumed;
    const auto& attachment = transfer->attachment();
    if (attachment->name() == "refuse") return false;
    if (attachment->name() == "finish") {
      attachment->delegate()->finishedTransferForAttachment(this, attachment);
    } else {
      SendGotError(attachment->delegate().get(), this,
                   Error::WithDescription("test", 7, "the service is down"));
    }
    return true;
  }

  static inline std::atomic<int> resumed{0};
};

std::unique_ptr<SqliteObjectContext> Open(const std::filesystem::path& dir) {
  ErrorRef error;
  auto context = SqliteObjectContext::open(dir, &error);
  EXPECT_TRUE(context) << (error ? error->summary() : "");
  return context;
}

std::shared_ptr<HXFileAttachment> SavedAttachment(SqliteObjectContext& context,
                                                  const std::string& uuid) {
  auto a = context.insertAttachment();
  a->setAttachmentUUID(uuid);
  EXPECT_TRUE(context.saveChanges(nullptr));
  return a;
}

std::shared_ptr<VMAttachmentTransferObject> Register(
    SqliteObjectContext& context, const std::shared_ptr<HXFileAttachment>& a, std::string path,
    bool can_move, std::uint64_t type = kTransferOperationUpload) {
  std::shared_ptr<HXFileAttachmentTransferDelegate> delegate;
  ErrorRef error;
  auto transfer = context.attachmentTransferManager()->registerTransferPath(&path, a, &delegate,
                                                                            type, can_move, &error);
  EXPECT_TRUE(transfer) << (error ? error->summary() : "");
  return transfer;
}

TEST(SqliteTransferManagerTest, MovesAFileFromAnotherFileSystem) {
  const std::filesystem::path shm = "/dev/shm";
  TempDir dir;
  struct stat a {
  }, b{};
  if (::stat(shm.c_str(), &a) != 0 || ::stat(dir.path().c_str(), &b) != 0 || a.st_dev == b.st_dev ||
      ::access(shm.c_str(), W_OK) != 0) {
    GTEST_SKIP() << "needs a writable /dev/shm on another file system than the temporary folder";
  }
  std::filesystem::path source = shm / ("vm-transfer-test-" + std::to_string(::getpid()));
  std::string contents(3 * 1024 * 1024 + 17, 'x');
  testing::WriteFile(source, contents);
  auto context = Open(dir / "data");
  auto attachment = SavedAttachment(*context, "uuid-exdev");
  auto transfer = Register(*context, attachment, source.string(), true);
  ASSERT_TRUE(transfer);
  EXPECT_FALSE(std::filesystem::exists(source));
  EXPECT_EQ(testing::ReadFile(transfer->attachmentPath()), contents);
  EXPECT_EQ(transfer->attachmentPath().filename(), source.filename());
  EXPECT_EQ(
      std::distance(std::filesystem::directory_iterator(transfer->attachmentPath().parent_path()),
                    std::filesystem::directory_iterator()),
      1);  // no partial copy left beside it
  std::filesystem::remove(source);
}

TEST(SqliteTransferManagerTest, RowOfAnUnsavedRecordIsWrittenWithItsFirstSave) {
  TempDir dir;
  testing::WriteFile(dir / "crypt-a", "a");
  testing::WriteFile(dir / "crypt-b", "b");
  {
    auto context = Open(dir / "data");
    auto unsaved = context->insertAttachment();
    unsaved->setAttachmentUUID("never-saved");
    ASSERT_TRUE(Register(*context, unsaved, (dir / "crypt-a").string(), true));
  }
  {
    auto context = Open(dir / "data");
    EXPECT_TRUE(context->attachmentTransferManager()->transferObjects().empty())
        << "a transfer row outlived a record that was never saved";
    auto record = context->insertAttachment();
    record->setAttachmentUUID("saved-later");
    ASSERT_TRUE(Register(*context, record, (dir / "crypt-b").string(), true));
    ASSERT_TRUE(context->saveChanges(nullptr));
  }
  auto context = Open(dir / "data");
  auto transfers = context->attachmentTransferManager()->transferObjects();
  ASSERT_EQ(transfers.size(), 1u);
  EXPECT_EQ(transfers[0]->attachmentID(), "saved-later");
  ASSERT_TRUE(transfers[0]->attachment());
  EXPECT_EQ(testing::ReadFile(transfers[0]->attachmentPath()), "b");
}

TEST(SqliteTransferManagerTest, RemovalNeverTakesTheTransfersFolderOrWhatLiesOutside) {
  TempDir dir;
  auto context = Open(dir / "data");
  const std::filesystem::path base = context->attachmentTransferManager()->basepath();
  testing::WriteFile(dir / "outside" / "keep", "user's");
  testing::WriteFile(base / "loose", "loose");
  // Rows as a damaged or hostile database could hold them.
  const std::pair<std::string, std::filesystem::path> rows[] = {
      {"in-base", base / "loose"},
      {"climbs-out", base / ".." / ".." / "outside" / "keep"},
      {"elsewhere", dir / "outside" / "keep"},
      {"base-itself", base / "." / "x"},
  };
  for (const auto& [id, path] : rows) {
    auto attachment = SavedAttachment(*context, id);
    ASSERT_TRUE(Register(*context, attachment, path.string(), false));
  }
  for (const auto& [id, path] : rows) {
    context->attachmentTransferManager()->removeTransferForAttachmentIdentifier(id);
  }
  EXPECT_TRUE(context->attachmentTransferManager()->transferObjects().empty());
  EXPECT_TRUE(std::filesystem::is_directory(base));
  EXPECT_EQ(testing::ReadFile(base / "loose"), "loose");
  EXPECT_EQ(testing::ReadFile(dir / "outside" / "keep"), "user's");
}

TEST(SqliteTransferManagerTest, ADownloadsFileGoesWithItsTransferButNothingElse) {
  TempDir dir;
  const char* saved_tmpdir = std::getenv("TMPDIR");
  const std::string restore = saved_tmpdir ? saved_tmpdir : "";
  std::filesystem::create_directories(dir / "tmp");
  setenv("TMPDIR", (dir / "tmp").c_str(), 1);
  auto context = Open(dir / "data");
  const std::filesystem::path downloads = SqliteTransferManager::downloadFolder();
  // As the cloud scheme lays them out: <cache path (bucket/record)>/<UUID>/<file>.
  const std::filesystem::path own = downloads / "ab" / "ab12-own" / "own";
  std::filesystem::create_directories(own);
  std::filesystem::create_directories(downloads / "ab" / "ab34-other");
  for (const auto& folder : {downloads, downloads / "ab", own.parent_path(), own}) {
    std::filesystem::permissions(folder, std::filesystem::perms::owner_all);
  }
  testing::WriteFile(own / "vmattachmentdownload", "ciphertext");
  testing::WriteFile(dir / "outside" / "vmattachmentdownload", "user's");
  // A link inside the download folder must not lead the removal to the user's file.
  std::filesystem::create_directory_symlink(dir / "outside", downloads / "ab" / "linked");
  const std::pair<std::string, std::filesystem::path> rows[] = {
      {"own", own / "vmattachmentdownload"},
      {"linked", downloads / "ab" / "linked" / "vmattachmentdownload"},
      {"elsewhere", dir / "outside" / "vmattachmentdownload"},
  };
  for (const auto& [id, path] : rows) {
    auto attachment = SavedAttachment(*context, id);
    ASSERT_TRUE(Register(*context, attachment, path.string(), false, kTransferOperationDownload));
    context->attachmentTransferManager()->removeTransferForAttachmentIdentifier(id);
  }
  EXPECT_FALSE(std::filesystem::exists(own.parent_path())) << "file and its folders are gone";
  EXPECT_TRUE(std::filesystem::is_directory(downloads / "ab" / "ab34-other"))
      << "another download's folder stays";
  EXPECT_TRUE(std::filesystem::is_directory(downloads / "ab")) << "shared folders stay";
  EXPECT_EQ(testing::ReadFile(dir / "outside" / "vmattachmentdownload"), "user's");
  if (saved_tmpdir) {
    setenv("TMPDIR", restore.c_str(), 1);
  } else {
    unsetenv("TMPDIR");
  }
}

TEST(SqliteTransferManagerTest, ResumeReportsEachTransfersOutcome) {
  HXSchemeHandlerRegistry::shared().registerClass(
      {ScriptedHandler::kClassName, "Scripted", false,
       [](std::shared_ptr<HXFileAttachmentScheme> scheme) {
         return std::make_shared<ScriptedHandler>(std::move(scheme));
       }});
  TempDir dir;
  auto context = Open(dir / "data");
  auto scheme = context->insertScheme("scripted", ScriptedHandler::kClassName);
  auto no_control = context->insertScheme("plain", "NoSuchHandlerClass");
  struct Case {
    const char* name;
    std::shared_ptr<HXFileAttachmentScheme> scheme;
    bool own_file;  // the upload's file lies in the transfers folder
    bool reaches_handler;
    bool finishes;
  };
  const Case cases[] = {
      {"finish", scheme, true, true, true},    {"fail", scheme, true, true, false},
      {"refuse", scheme, true, true, false},   {"finish", no_control, true, false, false},
      {"finish", scheme, false, false, false},
  };
  std::vector<std::shared_ptr<VMAttachmentTransferObject>> transfers;
  int n = 0;
  for (const Case& c : cases) {
    auto attachment = SavedAttachment(*context, "uuid-" + std::to_string(n));
    attachment->setName(c.name);
    attachment->setFileAttachmentScheme(c.scheme);
    std::filesystem::path file = dir / ("file-" + std::to_string(n++));
    testing::WriteFile(file, "bytes");
    transfers.push_back(Register(*context, attachment, file.string(), c.own_file));
  }
  std::map<std::string, ErrorRef> outcomes;
  int reports = 0;
  ScriptedHandler::resumed = 0;
  static_cast<SqliteTransferManager*>(context->attachmentTransferManager())
      ->resumeTransfers(transfers, [&](const auto& transfer, const ErrorRef& error) {
        ++reports;
        outcomes[transfer->attachmentID()] = error;
      });
  EXPECT_EQ(reports, static_cast<int>(std::size(cases)));
  int reaching = 0;
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(i);
    const ErrorRef& error = outcomes.at("uuid-" + std::to_string(i));
    EXPECT_EQ(error == nullptr, cases[i].finishes);
    reaching += cases[i].reaches_handler ? 1 : 0;
    // The record's own delegate is given back once the outcome is in.
    EXPECT_EQ(transfers[i]->attachment()->delegate(), nullptr);
  }
  EXPECT_EQ(ScriptedHandler::resumed.load(), reaching);
  EXPECT_EQ(outcomes.at("uuid-4")->code(), EINVAL);
}

TEST(SqliteTransferManagerTest, AnAttachmentHasOneDownload) {
  TempDir dir;
  auto context = Open(dir / "data");
  auto attachment = SavedAttachment(*context, "uuid-1");
  const std::string path = (dir / "one" / "vmattachmentdownload").string();
  auto first = Register(*context, attachment, path, false, kTransferOperationDownload);
  auto again = Register(*context, attachment, path, false, kTransferOperationDownload);
  EXPECT_EQ(again, first) << "a failed retrieval's registration is taken over";
  const std::string moved = (dir / "two" / "vmattachmentdownload").string();
  EXPECT_EQ(Register(*context, attachment, moved, false, kTransferOperationDownload), first);
  EXPECT_EQ(first->attachmentPath(), moved);
  ASSERT_TRUE(Register(*context, attachment, path, false, kTransferOperationUpload));
  ErrorRef error;
  // Rows an earlier version left: the same download registered twice more.
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(context->database().exec(
        "INSERT INTO transfers (attachmentID, attachmentPK, operationType, path) "
        "SELECT attachmentID, attachmentPK, operationType, path FROM transfers "
        "WHERE operationType = 1",
        &error));
  }
  context.reset();
  context = Open(dir / "data");
  auto transfers = context->attachmentTransferManager()->transferObjects();
  ASSERT_EQ(transfers.size(), 2u);
  EXPECT_EQ(transfers[0]->operationType(), kTransferOperationDownload);
  EXPECT_EQ(transfers[0]->attachmentPath(), moved);
  auto rows = context->database().prepare("SELECT count(*) FROM transfers", &error);
  ASSERT_TRUE(rows && rows->step(&error));
  EXPECT_EQ(rows->columnInt(0), 2) << "the duplicate rows are gone";
}

TEST(SqliteTransferManagerTest, ResumeRefusesWhatWouldNeverReportAtOnce) {
  HXSchemeHandlerRegistry::shared().registerClass(
      {ScriptedHandler::kClassName, "Scripted", false,
       [](std::shared_ptr<HXFileAttachmentScheme> scheme) {
         return std::make_shared<ScriptedHandler>(std::move(scheme));
       }});
  TempDir dir;
  auto context = Open(dir / "data");
  auto scheme = context->insertScheme("scripted", ScriptedHandler::kClassName);
  std::vector<std::shared_ptr<VMAttachmentTransferObject>> transfers;
  const std::filesystem::path download =
      SqliteTransferManager::downloadFolder() / "sh" / "shared" / "vmattachmentdownload";
  for (const char* uuid : {"first", "second"}) {
    auto attachment = SavedAttachment(*context, uuid);
    attachment->setName("finish");
    attachment->setFileAttachmentScheme(scheme);
    transfers.push_back(std::make_shared<VMAttachmentTransferObject>(
        attachment, nullptr, kTransferOperationDownload, uuid));
    transfers.back()->setAttachmentPath(download);
  }
  auto odd = SavedAttachment(*context, "odd");
  odd->setName("finish");
  odd->setFileAttachmentScheme(scheme);
  transfers.push_back(std::make_shared<VMAttachmentTransferObject>(odd, nullptr, 7, "odd"));
  std::map<std::string, ErrorRef> outcomes;
  ScriptedHandler::resumed = 0;
  static_cast<SqliteTransferManager*>(context->attachmentTransferManager())
      ->resumeTransfers(transfers, [&](const auto& transfer, const ErrorRef& error) {
        outcomes[transfer->attachmentID()] = error;
      });
  ASSERT_EQ(outcomes.size(), 3u) << "every outcome came within the call";
  EXPECT_EQ(outcomes.at("first"), nullptr);
  ASSERT_NE(outcomes.at("second"), nullptr) << "a second download into the same file";
  ASSERT_NE(outcomes.at("odd"), nullptr);
  EXPECT_NE(outcomes.at("odd")->localizedDescription().find(
                "attachment " + std::to_string(odd->primaryKeyValue()) +
                " (odd) has the unknown operation type 7"),
            std::string::npos)
      << outcomes.at("odd")->localizedDescription();
  EXPECT_EQ(ScriptedHandler::resumed.load(), 1);
}

}  // namespace
}  // namespace vm
