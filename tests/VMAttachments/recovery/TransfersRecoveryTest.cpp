#include <fmt/format.h>
#include <gtest/gtest.h>

#include <atomic>

#include "VMAttachments/cloud/VMCAttachment.h"
#include "VMAttachments/recovery/CloudAttachmentRecovery.h"
#include "host/HostConstants.h"
#include "host/VMAttachmentTransferManager.h"
#include "platform/UserDefaults.h"
#include "tests/VMAttachments/recovery/RecoveryTestHost.h"

namespace vm {
namespace {

using testing::RecoveryTestHost;

class TransfersRecoveryTest : public RecoveryTestHost {
 protected:
  void SetUp() override {
    RegisterCloudSchemeClasses();
    RecoveryTestHost::SetUp();
    handler_ = std::dynamic_pointer_cast<VMCAttachment>(cloud_->schemeHandler());
    ASSERT_TRUE(handler_);
  }

  // Encrypts `contents` for `record` (which records its key and digests) into a work
  // folder of the transfer manager's, as a lost upload leaves it.
  std::filesystem::path leaveWorkFile(const std::shared_ptr<HXFileAttachment>& record,
                                      const std::string& folder, std::string_view contents) {
    std::filesystem::path plain = dir_ / (folder + ".plain");
    testing::WriteFile(plain, contents);
    std::filesystem::path crypt = context_->transfersDirectory() / folder / "crypt";
    std::filesystem::create_directories(crypt.parent_path());
    testing::WriteFile(crypt, "");
    ErrorRef error;
    EXPECT_TRUE(
        handler_->processAttachment(record, plain, crypt, VMCAttachment::kOperationEncrypt, &error))
        << (error ? error->summary() : "");
    return crypt;
  }

  std::shared_ptr<AttachmentList> runPass() {
    std::atomic<bool> done{false};
    std::shared_ptr<AttachmentList> remaining;
    CloudAttachmentRecovery::recoverTransfersWithContext(context_.get(),
                                                         [&](std::shared_ptr<AttachmentList> list) {
                                                           EXPECT_TRUE(MainQueue::isMainThread());
                                                           remaining = std::move(list);
                                                           done = true;
                                                         });
    EXPECT_TRUE(runMainQueueUntil([&] { return done.load(); }));
    return remaining;
  }

  std::vector<std::shared_ptr<VMAttachmentTransferObject>> uploads() {
    return context_->attachmentTransferManager()->transfersForOperationType(
        kTransferOperationUpload);
  }

  std::shared_ptr<VMCAttachment> handler_;
};

TEST_F(TransfersRecoveryTest, OnlyAProvenWorkFileIsQueuedAndOnlyForOneRecord) {
  auto first = addAttachment("first");
  auto twin = addAttachment("twin");  // same stored hashes as `first`, fetched after it
  auto wrong_key = addAttachment("wrong-key");
  auto wrong_plain = addAttachment("wrong-plain");
  auto no_hash = addAttachment("no-hash");
  std::filesystem::path crypt = leaveWorkFile(first, "a", "the first file");
  for (const auto& [key, value] : first->keyedValues()) twin->setObject(value, key);
  twin->setEncryptionData(first->encryptionData());
  leaveWorkFile(wrong_key, "b", "encrypted under another key");
  Bytes key = *wrong_key->encryptionData();
  key[key.size() / 2] ^= 0x01;
  wrong_key->setEncryptionData(key);
  leaveWorkFile(wrong_plain, "c", "decrypts, but not to what was stored");
  wrong_plain->setObject(Bytes(20, 0x42), kHXFileAttachmentSourceHash);
  // Entries the pass must pass over: a hidden folder holding a copy of a good work file,
  // a folder without a work file, and a plain file.
  std::filesystem::create_directories(context_->transfersDirectory() / ".hidden");
  std::filesystem::copy_file(crypt, context_->transfersDirectory() / ".hidden" / "crypt");
  std::filesystem::create_directories(context_->transfersDirectory() / "empty");
  testing::WriteFile(context_->transfersDirectory() / "crypt", "stray");
  save();

  std::shared_ptr<AttachmentList> remaining = runPass();

  ASSERT_TRUE(remaining);
  EXPECT_EQ(*remaining, (AttachmentList{twin, wrong_key, wrong_plain, no_hash}));
  auto queued = uploads();
  ASSERT_EQ(queued.size(), 1u);
  EXPECT_EQ(queued[0]->attachment(), first);
  EXPECT_EQ(queued[0]->attachmentID(), "first");
  EXPECT_EQ(queued[0]->attachmentPath(), crypt);
  EXPECT_EQ(first->uploaded(), false);
  EXPECT_EQ(countMessagesStartingWith("Added file://"), 1);
  // The twin meets no candidate once `first` took the file; the two bad files fail their
  // trial decryption.
  EXPECT_EQ(countMessagesStartingWith("Could not process the file for verification: "), 2);
  EXPECT_EQ(countMessagesStartingWith("no stored crypted hash on "), 1);
  EXPECT_EQ(countMessagesStartingWith("Finished transfers recovery pass..."), 1);

  // Saved, the re-queued transfer survives a restart of the host.
  save();
  ErrorRef error;
  auto rows = context_->database().prepare("SELECT path FROM transfers", &error);
  ASSERT_TRUE(rows->step(&error));
  EXPECT_EQ(rows->columnText(0), crypt.string());
}

TEST_F(TransfersRecoveryTest, AnyExceptionFromTheTrialFailsOnlyThatCandidate) {
  // A host whose handler for the record's scheme throws something that is not a standard
  // exception while the pass decrypts for trial.
  HXSchemeHandlerRegistry::shared().registerClass(
      {"ThrowingHandler", "Throwing", false,
       [](std::shared_ptr<HXFileAttachmentScheme>)
           -> std::shared_ptr<HXFileAttachmentSchemeHandler> { throw 42; }});
  auto throwing = context_->insertScheme("throwing", "ThrowingHandler");
  auto record = addAttachment("thrown");
  leaveWorkFile(record, "a", "bytes of a lost upload");
  record->setFileAttachmentScheme(throwing);
  save();
  UserDefaults::standard()->setObject(kVMCloudAttachmentRecoveryList, std::string("thrown"));

  std::shared_ptr<AttachmentList> remaining = runPass();
  UserDefaults::standard()->removeObjectForKey(kVMCloudAttachmentRecoveryList);

  ASSERT_TRUE(remaining);
  EXPECT_EQ(*remaining, AttachmentList{record});
  EXPECT_TRUE(uploads().empty());
  EXPECT_EQ(countMessagesStartingWith("Exception trying to process attachment thrown"), 1);
  EXPECT_EQ(countMessagesStartingWith("Finished transfers recovery pass..."), 1);
}

TEST_F(TransfersRecoveryTest, NothingMissingCompletesAtOnceWithNull) {
  addAttachment("done", true);
  save();
  bool called = false;
  CloudAttachmentRecovery::recoverTransfersWithContext(context_.get(),
                                                       [&](std::shared_ptr<AttachmentList> list) {
                                                         called = true;
                                                         EXPECT_FALSE(list);
                                                       });
  EXPECT_TRUE(called);
  EXPECT_EQ(countMessagesStartingWith("Starting transfers recovery pass..."), 0);
}

}  // namespace
}  // namespace vm
