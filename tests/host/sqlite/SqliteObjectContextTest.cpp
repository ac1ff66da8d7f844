#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "host/HXFileAttachmentScheme.h"
#include "host/HostConstants.h"
#include "host/sqlite/SqliteAttachmentCache.h"
#include "host/sqlite/SqliteObjectContext.h"
#include "host/sqlite/SqliteTransferManager.h"
#include "platform/UserDefaults.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

using testing::TempDir;

std::unique_ptr<SqliteObjectContext> Open(const TempDir& dir, std::int64_t offset = 345) {
  ErrorRef error;
  SqliteCreateOptions options;
  options.primaryKeyOffset = offset;
  options.customerID = 42;
  options.username = "tester";
  auto context = SqliteObjectContext::open(dir.path(), &error, options);
  EXPECT_TRUE(context) << (error ? error->summary() : "");
  return context;
}

TEST(SqliteObjectContextTest, EveryAttachmentFieldSurvivesReopen) {
  TempDir dir;
  const Date modified = Date(std::chrono::nanoseconds(1'700'000'000'123'456'789));
  std::uint64_t key = 0;
  {
    auto context = Open(dir);
    auto scheme = context->insertScheme("refs", "VMFileReferenceAttachment");
    scheme->setInfoData(Bytes{1, 2, 3});
    auto a = context->insertAttachment();
    a->setName("report.pdf");
    a->setAttachmentPath("~/Documents/report.pdf");
    a->setIsRelativePath(true);
    a->setAttachmentModifyDate(modified);
    a->setUploaded(false);
    a->setAttachmentUUID("abc");
    a->setEncryptionData(Bytes{9, 8});
    a->setFileAttachmentScheme(scheme);
    a->setObject(Bytes(20, 0xAB), kHXFileAttachmentSourceHash);
    a->setObject(std::int64_t{2}, kHXFileAttachmentStorageTypeKey);
    key = a->primaryKeyValue();
    ErrorRef error;
    ASSERT_TRUE(context->saveChanges(&error)) << error->summary();
    EXPECT_FALSE(a->hasChanges());
  }
  auto context = Open(dir, /*offset ignored on reopen*/ 7);
  EXPECT_EQ(context->primaryKeyOffset(), 345);
  EXPECT_EQ(context->databaseIdentifier().customerID, 42u);
  EXPECT_EQ(context->user().username, "tester");
  EXPECT_EQ(key % 1000, 345u);
  auto a = context->attachmentWithPrimaryKey(key);
  ASSERT_TRUE(a);
  EXPECT_EQ(a, context->attachmentWithPrimaryKey(key));  // one object per row
  EXPECT_EQ(a->name(), "report.pdf");
  EXPECT_EQ(a->attachmentPath(), "~/Documents/report.pdf");
  EXPECT_TRUE(a->isRelativePath());
  EXPECT_EQ(a->attachmentModifyDate(), modified);
  EXPECT_EQ(a->attachmentCreateDate(), std::nullopt);
  EXPECT_EQ(a->uploaded(), false);
  EXPECT_EQ(a->attachmentUUID(), "abc");
  EXPECT_EQ(a->encryptionData(), (Bytes{9, 8}));
  ASSERT_TRUE(a->fileAttachmentScheme());
  EXPECT_EQ(a->fileAttachmentScheme()->name(), "refs");
  EXPECT_EQ(a->fileAttachmentScheme()->infoData(), (Bytes{1, 2, 3}));
  EXPECT_EQ(a->objectForKeyedSubscript(kHXFileAttachmentSourceHash), KeyedValue(Bytes(20, 0xAB)));
  EXPECT_EQ(a->objectForKeyedSubscript(kHXFileAttachmentStorageTypeKey),
            KeyedValue(std::int64_t{2}));
}

// A share attachment stored under a folder of the user's choosing is found there again by
// a later process; its local cache folder stays its own.
TEST(SqliteObjectContextTest, TheCacheGivesBackTheFolderAShareAttachmentWasStoredUnder) {
  TempDir dir;
  SqliteAttachmentCache cache(dir / "cache");
  std::uint64_t filed_key = 0;
  std::uint64_t plain_key = 0;
  {
    auto context = Open(dir);
    auto filed = context->insertAttachment();
    filed->setAttachmentUUID("AB12-filed");
    SqliteAttachmentCache::RememberShareFolder(*filed, "inbox/2024");
    auto plain = context->insertAttachment();
    plain->setAttachmentUUID("CD34-plain");
    filed_key = filed->primaryKeyValue();
    plain_key = plain->primaryKeyValue();
    ASSERT_TRUE(context->saveChanges(nullptr));
  }
  auto context = Open(dir);
  auto filed = context->attachmentWithPrimaryKey(filed_key);
  auto plain = context->attachmentWithPrimaryKey(plain_key);
  ASSERT_TRUE(filed && plain);
  EXPECT_EQ(cache.relativeFilePathForObject(*filed), "inbox/2024");
  EXPECT_EQ(cache.absoluteFilePathForObject(*filed), dir / "cache" / "ab" / "ab12-filed");
  EXPECT_EQ(cache.relativeFilePathForObject(*plain), "cd/cd34-plain");

  // A UUID from a row that is not one folder name names no cache folder at all.
  for (const char* hostile : {"..", "../../elsewhere", "ab/../../x", "a/b"}) {
    SCOPED_TRACE(hostile);
    plain->setAttachmentUUID(hostile);
    EXPECT_EQ(cache.absoluteFilePathForObject(*plain), std::filesystem::path());
    EXPECT_EQ(SqliteAttachmentCache::DefaultRelativePath(*plain), "");
  }
}

TEST(SqliteObjectContextTest, UpgradesAnOlderSchemaKeepingRows) {
  TempDir dir;
  {
    ErrorRef error;
    auto old = SqliteObjectContext::openAtSchemaVersion(dir.path(), 1, &error);
    ASSERT_TRUE(old) << error->summary();
    EXPECT_EQ(old->schemaVersion(), 1);
    auto a = old->insertAttachment();
    a->setName("kept.txt");
    ASSERT_TRUE(old->saveChanges(&error)) << error->summary();
  }
  auto context = Open(dir);
  EXPECT_EQ(context->schemaVersion(), 2);
  auto all = context->allAttachments();
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0]->name(), "kept.txt");
}

TEST(SqliteObjectContextTest, FetchesHonourTrashPermissionsQualifiersAndBoundSQL) {
  TempDir dir;
  auto context = Open(dir);
  auto make = [&](const std::string& uuid) {
    auto a = context->insertAttachment();
    a->setAttachmentUUID(uuid);
    return a;
  };
  auto visible = make("u1");
  auto trashed = make("u2");
  auto hidden = make("u3");
  ErrorRef error;
  ASSERT_TRUE(context->saveChanges(&error));
  ASSERT_TRUE(context->setRowFlags(*trashed, true, false, &error));
  ASSERT_TRUE(context->setRowFlags(*hidden, false, true, &error));

  BWPFetchSpecification spec{std::string(HXFileAttachment::kEntityName), nullptr, {}};
  BWPFetchRequest plain(spec);
  EXPECT_EQ(context->resultsForFetchRequest(plain).size(), 1u);
  BWPFetchRequest everything(spec);
  everything.setOverrideTrashSystem(true);
  everything.setOverridePermissionsSystem(true);
  EXPECT_EQ(context->resultsForFetchRequest(everything).size(), 3u);

  // A UUID list is bound, never spliced: a hostile value matches nothing and runs nothing.
  BWPFetchRequest raw(spec);
  raw.setOverrideTrashSystem(true);
  raw.setRawSQLWhere("attachmentUUID IN (?,?)",
                     {std::string("u2"), std::string("\") OR 1=1; DROP TABLE attachments; --")});
  FetchResults found = context->resultsForFetchRequest(raw, &error);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0], trashed);

  BWPFetchRequest qualified(
      {spec.entityName,
       BDKeyValueQualifier::qualifierWhereValueOfKey("attachmentUUID", std::string("u3")),
       {}});
  qualified.setOverridePermissionsSystem(true);
  EXPECT_EQ(context->resultsForFetchRequest(qualified), FetchResults{hidden});

  BWPFetchRequest bad_key(
      {spec.entityName,
       BDKeyValueQualifier::qualifierWhereValueOfKey("x; DROP", std::int64_t{1}),
       {}});
  ErrorRef bad;
  EXPECT_TRUE(context->resultsForFetchRequest(bad_key, &bad).empty());
  EXPECT_TRUE(bad);
}

TEST(SqliteObjectContextTest, TwoContextsOnOneFolderNeverShareAKey) {
  TempDir dir;
  auto first = Open(dir);
  auto second = Open(dir);
  std::set<std::uint64_t> keys;
  for (int i = 0; i < 20; ++i) {
    keys.insert(first->insertAttachment()->primaryKeyValue());
    keys.insert(second->insertAttachment()->primaryKeyValue());
  }
  EXPECT_EQ(keys.size(), 40u);
  for (std::uint64_t key : keys) EXPECT_EQ(key % 1000, 345u);
}

// Keys reserved in one transaction are the next inserts', and another context never gets
// one of them.
TEST(SqliteObjectContextTest, ReservedKeysGoFirstAndAreNeverShared) {
  TempDir dir;
  auto first = Open(dir);
  auto second = Open(dir);
  ErrorRef error;
  ASSERT_TRUE(first->reservePrimaryKeys(5, &error)) << error->summary();
  const std::uint64_t block = std::stoull(*first->setting("nextKeyBlock"));
  std::set<std::uint64_t> keys;
  for (int i = 0; i < 6; ++i) {
    keys.insert(first->insertAttachment()->primaryKeyValue());
    keys.insert(second->insertAttachment()->primaryKeyValue());
  }
  EXPECT_EQ(keys.size(), 12u);
  EXPECT_EQ(*keys.begin(), (block - 5) * 1000 + 345);
  // Six keys of the second and one of the first, past the reserved five.
  EXPECT_EQ(std::stoull(*first->setting("nextKeyBlock")), block + 7);
  ASSERT_TRUE(first->saveChanges(&error)) << error->summary();
  ASSERT_TRUE(second->saveChanges(&error)) << error->summary();
}

// Another process that holds the write lock may be taking the very block this context would
// read: the insert must fail rather than hand out a key from an advance it did not commit.
TEST(SqliteObjectContextTest, AKeyBlockThatCannotBeCommittedIsNeverHandedOut) {
  TempDir dir;
  auto context = Open(dir);
  std::uint64_t before = context->insertAttachment()->primaryKeyValue();
  ErrorRef error;
  ASSERT_TRUE(context->database().exec("PRAGMA busy_timeout = 0", &error));

  auto other = SqliteDatabase::open(context->database().path(), &error);
  ASSERT_TRUE(other) << error->summary();
  std::uint64_t others_key = std::stoull(*context->setting("nextKeyBlock")) * 1000 + 345;
  ASSERT_TRUE(
      other->exec("BEGIN IMMEDIATE; UPDATE meta SET value = CAST(value AS INTEGER) + 1 "
                  "WHERE key = 'nextKeyBlock'",
                  &error));

  EXPECT_FALSE(context->insertAttachment(&error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), kSQLiteErrorDomain);
  EXPECT_EQ(error->code() & 0xff, 5);  // SQLITE_BUSY
  EXPECT_FALSE(context->insertScheme("refs", "VMFileReferenceAttachment"));
  EXPECT_FALSE(context->createObjectForEntityNamed(HXFileAttachment::kEntityName, true));

  ASSERT_TRUE(other->exec("COMMIT", &error));
  std::uint64_t after = context->insertAttachment()->primaryKeyValue();
  EXPECT_NE(after, others_key);
  EXPECT_NE(after, before);
  ASSERT_TRUE(context->saveChanges(&error)) << error->summary();
  EXPECT_EQ(context->allAttachments().size(), 2u);
}

TEST(SqliteObjectContextTest, TransfersMoveTheirFilePersistAndCleanUp) {
  TempDir dir;
  std::filesystem::path crypt = dir / "work" / "crypt";
  testing::WriteFile(crypt, "secret");
  std::filesystem::path folder;
  {
    auto context = Open(dir);
    auto a = context->insertAttachment();
    a->setAttachmentUUID("uuid-1");
    ErrorRef error;
    ASSERT_TRUE(context->saveChanges(&error));
    std::string path = crypt.string();
    std::shared_ptr<HXFileAttachmentTransferDelegate> delegate;
    auto transfer = context->attachmentTransferManager()->registerTransferPath(
        &path, a, &delegate, kTransferOperationUpload, true, &error);
    ASSERT_TRUE(transfer) << error->summary();
    EXPECT_FALSE(std::filesystem::exists(crypt));
    EXPECT_EQ(testing::ReadFile(path), "secret");
    EXPECT_EQ(transfer->attachmentPath(), path);
    folder = std::filesystem::path(path).parent_path();
    EXPECT_EQ(folder.parent_path(), context->attachmentTransferManager()->basepath());

    auto no_uuid = context->insertAttachment();
    std::string other = (dir / "other").string();
    EXPECT_FALSE(context->attachmentTransferManager()->registerTransferPath(
        &other, no_uuid, &delegate, kTransferOperationUpload, false, &error));
  }
  auto context = Open(dir);
  auto uploads = context->attachmentTransferManager()->transfersForOperationType(0);
  ASSERT_EQ(uploads.size(), 1u);
  EXPECT_EQ(uploads[0]->attachmentID(), "uuid-1");
  ASSERT_TRUE(uploads[0]->attachment());
  context->attachmentTransferManager()->removeTransferForAttachmentIdentifier("uuid-1");
  EXPECT_TRUE(context->attachmentTransferManager()->transfersForOperationType(0).empty());
  EXPECT_FALSE(std::filesystem::exists(folder));
}

// The data folder holds share passwords and the service token: a new one is private to its
// owner whatever the umask, and an existing wider one (and its files) is tightened with a
// notice the host can show.
TEST(SqliteObjectContextTest, DataFolderAndSecretFilesArePrivateToTheOwner) {
  auto mode = [](const std::filesystem::path& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 0777) : -1;
  };
  TempDir dir;
  mode_t saved_umask = umask(0);
  {
    std::filesystem::path fresh = dir / "fresh" / "data";
    ErrorRef error;
    auto context = SqliteObjectContext::open(fresh, &error);
    ASSERT_TRUE(context);
    ASSERT_TRUE(context->setSetting("cloudToken", "t0ken", &error));
    context->installAsProcessHost();
    UserDefaults::standard()->setObject("key", std::string("value"));
    EXPECT_TRUE(context->openNotices().empty());
    EXPECT_EQ(mode(fresh), 0700);
    EXPECT_EQ(mode(fresh / "attachments.sqlite"), 0600);
    EXPECT_EQ(mode(fresh / "attachments.sqlite-wal"), 0600);
    EXPECT_EQ(mode(fresh / "defaults.json"), 0600);
  }
  umask(saved_umask);

  std::filesystem::path old = dir / "old";
  std::filesystem::create_directories(old);
  chmod(old.c_str(), 0755);
  { std::ofstream(old / "defaults.json") << "{}\n"; }
  chmod((old / "defaults.json").c_str(), 0644);
  ErrorRef error;
  auto context = SqliteObjectContext::open(old, &error);
  ASSERT_TRUE(context);
  EXPECT_EQ(mode(old), 0700);
  EXPECT_EQ(mode(old / "defaults.json"), 0600);
  ASSERT_EQ(context->openNotices().size(), 2u);
  EXPECT_NE(context->openNotices()[0].find("from 0755 to 0700"), std::string::npos);
}

}  // namespace
}  // namespace vm
