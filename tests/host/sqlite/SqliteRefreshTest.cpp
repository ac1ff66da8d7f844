#include <gtest/gtest.h>

#include "host/HostConstants.h"
#include "host/sqlite/SqliteObjectContext.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

using testing::TempDir;

std::unique_ptr<SqliteObjectContext> Open(const TempDir& dir) {
  ErrorRef error;
  auto context = SqliteObjectContext::open(dir.path(), &error);
  EXPECT_TRUE(context) << (error ? error->summary() : "");
  return context;
}

// Two connections on one data folder: what the other one commits reaches a record here
// through refreshIfNeeded, unless the record holds changes of its own not yet saved.
TEST(SqliteRefreshTest, RereadsRowsChangedByAnotherConnection) {
  struct Case {
    const char* name;
    bool localChange;          // the record here has an unsaved change
    bool otherChanges;         // the other connection commits a change
    const char* expectedUUID;  // what the record holds after refreshIfNeeded
    bool expectSourceHash;     // the keyed value survives
  };
  const Case kCases[] = {
      {"changed elsewhere", false, true, "remote", false},
      {"unchanged", false, false, "original", true},
      {"unsaved change here wins", true, true, "local", true},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    auto here = Open(dir);
    auto other = Open(dir);
    ErrorRef error;
    std::uint64_t key = 0;
    {
      auto a = here->insertAttachment();
      a->setAttachmentUUID("original");
      a->setEncryptionData(Bytes{1, 2});
      a->setObject(Bytes(20, 7), kHXFileAttachmentSourceHash);
      key = a->primaryKeyValue();
      ASSERT_TRUE(here->saveChanges(&error)) << error->summary();
    }
    auto record = here->attachmentWithPrimaryKey(key);
    if (c.otherChanges) {
      auto there = other->attachmentWithPrimaryKey(key);
      ASSERT_TRUE(there);
      there->setAttachmentUUID("remote");
      there->setEncryptionData(std::nullopt);
      there->setObject(std::nullopt, kHXFileAttachmentSourceHash);
      ASSERT_TRUE(other->saveChanges(&error)) << error->summary();
    }
    if (c.localChange) record->setAttachmentUUID("local");

    record->refreshIfNeeded();
    EXPECT_EQ(record->attachmentUUID(), c.expectedUUID);
    EXPECT_EQ(record->encryptionData().has_value(), c.expectSourceHash);
    EXPECT_EQ(record->objectForKeyedSubscript(kHXFileAttachmentSourceHash).has_value(),
              c.expectSourceHash);
    EXPECT_EQ(record->hasChanges(), c.localChange);
    EXPECT_EQ(record->attachmentID(), c.expectedUUID);
  }
}

}  // namespace
}  // namespace vm
