// The cloud scheme end to end: the reference host on SQLite, and a vmcloudd process that
// this test starts on 127.0.0.1 with its embedded store or, with VM_CLOUD_STORAGE=s3, in S3
// mode against an s3rver process. One service per process, because the attachment API's
// base URL is fixed at its first use.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>

#include "BWFoundation/ServerEnvironment.h"
#include "VMAttachments/cloud/VMCAttachment.h"
#include "VMAttachments/schemes/VMAttachmentSchemes.h"
#include "host/HXAttachmentCache.h"
#include "host/HXFileAttachmentSchemeHandler.h"
#include "host/HostConstants.h"
#include "host/VMAttachmentTransferManager.h"
#include "host/sqlite/SqliteAttachmentCache.h"
#include "host/sqlite/SqliteObjectContext.h"
#include "platform/Log.h"
#include "platform/UniqueID.h"
#include "tests/VMAttachments/schemes/ShareTestHost.h"
#include "tests/services/vmcloudd/HttpTestClient.h"
#include "tests/support/ListeningServer.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

namespace fs = std::filesystem;
using testing::ListeningServer;
using testing::ReadFile;
using testing::RecordingDelegate;
using testing::TempDir;
using testing::WriteFile;

constexpr const char* kToken = "cloud-scheme-test-token";
constexpr const char* kBucket = "vmtest";
constexpr auto kTransferLimit = std::chrono::seconds(60);

bool S3Mode() {
  const char* mode = std::getenv("VM_CLOUD_STORAGE");
  return mode != nullptr && std::string(mode) == "s3";
}

// The services, started once for the whole process.
struct Services {
  TempDir dir;
  std::unique_ptr<ListeningServer> s3rver;
  std::unique_ptr<ListeningServer> vmcloudd;
  std::string problem;

  Services() {
    std::vector<std::string> service = {
        VM_VMCLOUDD, "--listen", "127.0.0.1:0", "--data", (dir / "service").string(),
        "--token",   kToken};
    if (S3Mode()) {
      fs::create_directories(dir / "s3rver");
      s3rver = ListeningServer::Start(
          {VM_SOURCE_DIR "/tests/support/node_modules/.bin/s3rver", "--address", "127.0.0.1",
           "--port", "0", "--directory", (dir / "s3rver").string(), "--configure-bucket", kBucket},
          dir / "s3rver.log", &problem);
      if (!s3rver) return;
      service.insert(service.end(),
                     {"--s3-endpoint", s3rver->url(), "--s3-bucket", kBucket, "--s3-access-key",
                      "S3RVER", "--s3-secret", "S3RVER", "--s3-path-style"});
    }
    vmcloudd = ListeningServer::Start(service, dir / "vmcloudd.log", &problem);
    if (vmcloudd) ServerEnvironment::setCurrent(ServerEnvironment(*URL::URLWithString(url())));
  }

  std::string url() const { return vmcloudd->url(); }
  // Where the storage provider keeps the object of `uuid`: the blob file of the embedded
  // store, or s3rver's object file.
  fs::path storedObject(const std::string& uuid) const {
    const std::string key = ToUpper(uuid);
    const fs::path root = S3Mode() ? dir / "s3rver" / kBucket : dir / "service" / "blobs";
    std::error_code ec;
    for (const auto& entry : fs::recursive_directory_iterator(root, ec)) {
      const std::string name = entry.path().filename().string();
      if (entry.is_regular_file() && name.rfind(key, 0) == 0 &&
          (!S3Mode() || name.ends_with("_object"))) {
        return entry.path();
      }
    }
    return {};
  }
};

Services* services = nullptr;

std::string Hex(const unsigned char* bytes, std::size_t size) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (std::size_t i = 0; i < size; ++i) {
    out += kHex[bytes[i] >> 4];
    out += kHex[bytes[i] & 15];
  }
  return out;
}

std::string Sha1Hex(const std::string& bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha1(), nullptr);
  return Hex(digest, length);
}

std::string Hex(const std::optional<KeyedValue>& value) {
  if (!value || !std::holds_alternative<Bytes>(*value)) return "(none)";
  const Bytes& bytes = std::get<Bytes>(*value);
  return Hex(bytes.data(), bytes.size());
}

// Every item under a folder: relative path -> "dir", or the SHA-1 of a file's bytes. The
// mode is left out: unpacking an archive gives files the default mode on purpose.
std::map<std::string, std::string> Snapshot(const fs::path& root) {
  std::map<std::string, std::string> out;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    const std::string relative = entry.path().lexically_relative(root).string();
    out[relative] = entry.is_directory() ? "dir" : Sha1Hex(ReadFile(entry.path()));
  }
  return out;
}

class CloudSchemeTest : public ::testing::Test {
 protected:
  // One fixture, so the services start once and stop (with their processes) at the end.
  static void SetUpTestSuite() {
    services = new Services;
    // The scheme's work and download folders live in the temporary folder and are left
    // there by design; here they go with the suite's own folder.
    fs::create_directories(services->dir / "tmp");
    setenv("TMPDIR", (services->dir / "tmp").c_str(), 1);
  }
  static void TearDownTestSuite() {
    delete services;
    services = nullptr;
  }

  void SetUp() override {
    ASSERT_TRUE(services->vmcloudd) << services->problem;
    RegisterVMAttachmentsSchemeClasses();
    ErrorRef error;
    context_ = SqliteObjectContext::open(dir_ / "data", &error);
    ASSERT_TRUE(context_) << error->summary();
    ASSERT_TRUE(context_->setSetting("cloudToken", kToken, &error)) << error->summary();
    context_->installAsProcessHost();
    scheme_ = context_->insertScheme("cloud", "VMCAttachment", &error);
    ASSERT_TRUE(scheme_) << error->summary();
    ASSERT_TRUE(context_->saveChanges(&error)) << error->summary();
    handler_ = context_->schemeHandlerForScheme(*scheme_);
    ASSERT_TRUE(handler_) << "no handler for the cloud scheme";
    transfers_ = dynamic_cast<VMAttachmentTransferHandlerProtocol*>(handler_.get());
    deletion_ = dynamic_cast<HXFileAttachmentSchemeDeletionProtocol*>(handler_.get());
    ASSERT_TRUE(transfers_ && deletion_);
  }

  void TearDown() override {
    // Operations still running hold the handler; let them end before the context goes.
    MainQueue::shared().runUntil(std::chrono::steady_clock::now() + std::chrono::milliseconds(50));
  }

  std::shared_ptr<HXFileAttachment> NewAttachment(const std::string& name) {
    auto attachment = context_->insertAttachment();
    attachment->setName(name);
    attachment->setAttachmentUUID(ToLower(MakeUniqueID()));
    attachment->setDelegate(record_delegate_);
    return attachment;
  }

  std::shared_ptr<VMAttachmentTransferObject> TransferOf(
      const std::shared_ptr<HXFileAttachment>& attachment, std::uint64_t type) {
    for (const auto& t : context_->attachmentTransferManager()->transfersForOperationType(type)) {
      if (t->attachment() == attachment) return t;
    }
    return nullptr;
  }

  // Prepares and registers `source`, then hands the upload back to the handler as the
  // transfer manager would, and waits for the record's delegate to hear the outcome.
  void Store(const std::shared_ptr<HXFileAttachment>& attachment, const fs::path& source) {
    auto delegate = std::make_shared<RecordingDelegate>();
    ErrorRef error;
    ASSERT_TRUE(handler_->storeFile(source, "", attachment, delegate, &error))
        << (error ? error->summary() : "no error");
    auto transfer = TransferOf(attachment, kTransferOperationUpload);
    ASSERT_TRUE(transfer) << "the upload is registered";
    EXPECT_TRUE(delegate->kinds().empty()) << "nothing is told before the upload starts";
    ASSERT_TRUE(transfers_->resumeTransfer(transfer));
    ASSERT_TRUE(record_delegate_->waitUntilEnded(kTransferLimit));
    ASSERT_EQ(record_delegate_->kinds(), std::vector<std::string>{"finished"})
        << Summary(*record_delegate_);
    EXPECT_EQ(delegate->kinds(), std::vector<std::string>{"willSend"});
    record_delegate_ = std::make_shared<RecordingDelegate>();
    attachment->setDelegate(record_delegate_);
  }

  // Starts a retrieval and waits for its outcome at `delegate`.
  void Retrieve(const std::shared_ptr<HXFileAttachment>& attachment,
                const std::shared_ptr<RecordingDelegate>& delegate) {
    ErrorRef error;
    ASSERT_TRUE(handler_->retrieveAttachment(attachment, dir_ / "unused", delegate, &error))
        << (error ? error->summary() : "no error");
    ASSERT_TRUE(delegate->waitUntilEnded(kTransferLimit));
  }

  fs::path CacheFolder(const HXFileAttachment& attachment) {
    return HXAttachmentCache::sharedCache()->absoluteFilePathForObject(attachment);
  }

  static std::string Summary(const RecordingDelegate& delegate) {
    std::string out;
    for (const auto& e : delegate.events()) {
      out += e.kind + (e.error ? " " + e.error->summary() : "") + "; ";
    }
    return out;
  }

  TempDir dir_;
  std::unique_ptr<SqliteObjectContext> context_;
  std::shared_ptr<HXFileAttachmentScheme> scheme_;
  std::shared_ptr<HXFileAttachmentSchemeHandler> handler_;
  VMAttachmentTransferHandlerProtocol* transfers_ = nullptr;
  HXFileAttachmentSchemeDeletionProtocol* deletion_ = nullptr;
  std::shared_ptr<RecordingDelegate> record_delegate_ = std::make_shared<RecordingDelegate>();
};

TEST_F(CloudSchemeTest, FilesRoundTripEncrypted) {
  struct Case {
    const char* label;
    std::string bytes;
  };
  std::string large(3 * 1024 * 1024 + 17, '\0');
  for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>((i * 7919) >> 5);
  const Case cases[] = {
      {"small", "the quarterly figures, in plain text\n"},
      {"empty", ""},
      {"several chunks", large},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    const fs::path source = dir_ / "source.bin";
    WriteFile(source, c.bytes);
    auto attachment = NewAttachment("report.pdf");
    const std::string local_uuid = *attachment->attachmentUUID();
    Store(attachment, source);

    EXPECT_EQ(attachment->uploaded(), std::optional<bool>(true));
    EXPECT_EQ(attachment->objectForKeyedSubscript(kHXFileAttachmentStorageTypeKey),
              std::optional<KeyedValue>(std::int64_t{1}));
    ASSERT_TRUE(attachment->attachmentUUID());
    const std::string uuid = *attachment->attachmentUUID();
    EXPECT_EQ(uuid, ToLower(uuid)) << "the service's UUID is kept in lower case";
    EXPECT_NE(uuid, local_uuid);
    EXPECT_EQ(attachment->initialAttachmentUUID(), std::optional<std::string>(local_uuid));
    EXPECT_EQ(attachment->temporaryPath(), std::nullopt);
    EXPECT_FALSE(TransferOf(attachment, kTransferOperationUpload)) << "the upload is done";
    EXPECT_FALSE(attachment->hasChanges()) << "the record was saved";

    const fs::path stored = services->storedObject(uuid);
    ASSERT_FALSE(stored.empty()) << "the storage provider holds the object";
    const std::string ciphertext = ReadFile(stored);
    EXPECT_NE(ciphertext, c.bytes);
    if (c.bytes.size() > 64) {
      EXPECT_EQ(ciphertext.find(c.bytes.substr(0, 64)), std::string::npos);
    }
    EXPECT_EQ(Sha1Hex(ciphertext),
              Hex(attachment->objectForKeyedSubscript(kHXFileAttachmentCryptedHash)));
    EXPECT_EQ(Sha1Hex(c.bytes),
              Hex(attachment->objectForKeyedSubscript(kHXFileAttachmentSourceHash)));

    auto delegate = std::make_shared<RecordingDelegate>();
    Retrieve(attachment, delegate);
    ASSERT_EQ(delegate->kinds(), (std::vector<std::string>{"willReceive", "finished"}))
        << Summary(*delegate);
    EXPECT_TRUE(delegate->last("finished")->on_main);
    const fs::path cached = CacheFolder(*attachment) / "report.pdf";
    ASSERT_TRUE(fs::is_regular_file(cached));
    EXPECT_TRUE(ReadFile(cached) == c.bytes) << "the bytes come back as they went";
    EXPECT_FALSE(TransferOf(attachment, kTransferOperationDownload));
    for (const auto& entry :
         fs::recursive_directory_iterator(services->dir / "tmp" / "HXAttachmentCache")) {
      EXPECT_FALSE(entry.is_regular_file()) << entry.path() << ": the ciphertext stays behind";
    }
  }
}

TEST_F(CloudSchemeTest, FolderTreeRoundTrips) {
  const fs::path tree = dir_ / "Project.bundle";
  fs::create_directories(tree / "docs" / "drafts" / "old");
  fs::create_directories(tree / "empty folder");
  WriteFile(tree / "README", "top level\n");
  WriteFile(tree / "docs" / "plan.txt", std::string(200000, 'p'));
  WriteFile(tree / "docs" / "drafts" / "nothing yet", "");
  WriteFile(tree / "docs" / "drafts" / "old" / "v1.txt", "first draft");
  WriteFile(tree / "run.sh", "#!/bin/sh\necho hi\n");
  fs::permissions(tree / "run.sh", fs::perms::owner_exec, fs::perm_options::add);

  auto attachment = NewAttachment("Project.bundle");
  // An earlier store of the same attachment failed after packing and left its archive.
  const fs::path work_folder =
      services->dir / "tmp" / context_->databaseUUID() / *attachment->attachmentUUID();
  fs::create_directories(work_folder);
  WriteFile(work_folder / *attachment->attachmentUUID(), "a half-written archive");
  Store(attachment, tree);
  EXPECT_EQ(attachment->objectForKeyedSubscript(kHXFileAttachmentStorageTypeKey),
            std::optional<KeyedValue>(std::int64_t{2}));
  // Neither the archive's header nor the names inside reach the service readable.
  const std::string stored = ReadFile(services->storedObject(*attachment->attachmentUUID()));
  EXPECT_EQ(stored.find("BWFILEWRAPPER1"), std::string::npos);
  EXPECT_EQ(stored.find("v1.txt"), std::string::npos);

  auto delegate = std::make_shared<RecordingDelegate>();
  Retrieve(attachment, delegate);
  ASSERT_EQ(delegate->kinds(), (std::vector<std::string>{"willReceive", "finished"}))
      << Summary(*delegate);
  // An archive is unpacked into a folder of its own inside the cache folder.
  std::vector<fs::path> unpacked;
  for (const auto& entry : fs::directory_iterator(CacheFolder(*attachment))) {
    unpacked.push_back(entry.path());
  }
  ASSERT_EQ(unpacked.size(), 1u);
  EXPECT_EQ(Snapshot(unpacked[0]), Snapshot(tree));
}

TEST_F(CloudSchemeTest, SameFileTwiceGivesTwoCiphertexts) {
  const fs::path source = dir_ / "same.txt";
  WriteFile(source, "identical content stored twice");
  auto first = NewAttachment("same.txt");
  Store(first, source);
  auto second = NewAttachment("same.txt");
  Store(second, source);

  const std::string a = ReadFile(services->storedObject(*first->attachmentUUID()));
  const std::string b = ReadFile(services->storedObject(*second->attachmentUUID()));
  EXPECT_EQ(a.size(), b.size());
  EXPECT_NE(a, b) << "a fresh key and nonce for every store";
  EXPECT_EQ(Hex(first->objectForKeyedSubscript(kHXFileAttachmentSourceHash)),
            Hex(second->objectForKeyedSubscript(kHXFileAttachmentSourceHash)));
  EXPECT_NE(first->encryptionData(), second->encryptionData());
}

TEST_F(CloudSchemeTest, TamperedObjectIsRefusedAndNothingIsCached) {
  const fs::path source = dir_ / "ledger.csv";
  WriteFile(source, std::string(5000, 'l'));
  auto attachment = NewAttachment("ledger.csv");
  Store(attachment, source);

  const fs::path stored = services->storedObject(*attachment->attachmentUUID());
  std::string bytes = ReadFile(stored);
  ASSERT_GT(bytes.size(), 100u);
  bytes[100] = static_cast<char>(bytes[100] ^ 0x01);
  WriteFile(stored, bytes);

  auto delegate = std::make_shared<RecordingDelegate>();
  Retrieve(attachment, delegate);
  ASSERT_EQ(delegate->kinds(), (std::vector<std::string>{"willReceive", "gotError"}))
      << Summary(*delegate);
  ErrorRef error = delegate->last("gotError")->error;
  EXPECT_EQ(error->domain(), kVMFileAttachmentDomain);
  EXPECT_EQ(error->code(), 300);
  EXPECT_EQ(error->localizedDescription(), "Failed to save downloaded file.");
  ASSERT_TRUE(error->underlyingError());
  EXPECT_EQ(error->underlyingError()->localizedDescription(),
            "Failed to extract attachment to cache folder");
  const fs::path cache = CacheFolder(*attachment);
  EXPECT_TRUE(!fs::exists(cache) || fs::is_empty(cache)) << "nothing reaches the cache";
  EXPECT_FALSE(TransferOf(attachment, kTransferOperationDownload))
      << "a download that arrived is cleaned up whatever the save did";
}

TEST_F(CloudSchemeTest, DeletionRemovesTheServiceRecord) {
  const fs::path source = dir_ / "old.txt";
  WriteFile(source, "to be deleted");
  auto attachment = NewAttachment("old.txt");
  Store(attachment, source);
  auto queued = NewAttachment("queued.txt");
  Store(queued, source);
  const std::string uuid = *attachment->attachmentUUID();
  const std::string queued_uuid = *queued->attachmentUUID();
  testing::ApiClient api{services->url(), kToken};
  ASSERT_EQ(api.info(ToUpper(uuid)).status, 200);
  auto& cloud = dynamic_cast<VMCAttachment&>(*handler_);
  cloud.setDeletionAttachments(
      VMCAttachment::DeletionAttachments{{uuid, attachment}, {queued_uuid, queued}});

  // An empty identifier stands for the record's UUID, also as the key that goes.
  attachment->setDelegate(record_delegate_);
  auto delegate = std::make_shared<RecordingDelegate>();
  ErrorRef error;
  ASSERT_TRUE(deletion_->deleteAttachment(attachment, "", delegate, &error));
  ASSERT_TRUE(record_delegate_->waitUntilEnded(kTransferLimit));
  // The start goes to the delegate given; the outcome to the record's own delegate.
  EXPECT_EQ(delegate->kinds(), std::vector<std::string>{"willSend"});
  EXPECT_EQ(record_delegate_->kinds(), std::vector<std::string>{"finished"})
      << Summary(*record_delegate_);
  EXPECT_EQ(api.info(ToUpper(uuid)).status, 404);
  EXPECT_TRUE(services->storedObject(uuid).empty()) << "the bytes are gone too";
  EXPECT_FALSE(TransferOf(attachment, kTransferOperationDelete));
  EXPECT_EQ(cloud.deletionAttachments()->count(uuid), 0u);

  // A deletion the manager hands back runs the same request but leaves the map alone.
  record_delegate_ = std::make_shared<RecordingDelegate>();
  queued->setDelegate(record_delegate_);
  ASSERT_TRUE(context_->attachmentTransferManager()->registerDeleteForAttachment(queued, &error));
  ASSERT_TRUE(transfers_->resumeTransfer(TransferOf(queued, kTransferOperationDelete)));
  ASSERT_TRUE(record_delegate_->waitUntilEnded(kTransferLimit));
  EXPECT_EQ(record_delegate_->kinds(), (std::vector<std::string>{"willSend", "finished"}))
      << "the record's delegate is the transfer's too: " << Summary(*record_delegate_);
  EXPECT_EQ(api.info(ToUpper(queued_uuid)).status, 404);
  EXPECT_FALSE(TransferOf(queued, kTransferOperationDelete));
  EXPECT_EQ(cloud.deletionAttachments()->count(queued_uuid), 1u);

  auto never_uploaded = NewAttachment("never.txt");
  never_uploaded->setAttachmentUUID(std::nullopt);
  EXPECT_TRUE(deletion_->deleteAttachment(never_uploaded, "", delegate, nullptr))
      << "nothing to delete";
  EXPECT_FALSE(TransferOf(never_uploaded, kTransferOperationDelete));
}

TEST_F(CloudSchemeTest, FailedUploadStaysRegisteredAndResumes) {
  // A handler whose token the service refuses: its token is made when it is constructed.
  VMCloudAuthentication::setProvider([](const std::string&, std::uint64_t) { return "wrong"; });
  auto refused_scheme = context_->insertScheme("refused", "VMCAttachment");
  ASSERT_TRUE(refused_scheme);
  auto refused = context_->schemeHandlerForScheme(*refused_scheme);
  context_->installAsProcessHost();
  ASSERT_TRUE(refused);

  const fs::path source = dir_ / "notes.txt";
  WriteFile(source, "kept until the service takes it");
  auto attachment = NewAttachment("notes.txt");
  const std::string local_uuid = *attachment->attachmentUUID();
  // A copy the user already has in the cache moves with the record's new identity.
  const fs::path old_cache = CacheFolder(*attachment);
  fs::create_directories(old_cache);
  WriteFile(old_cache / "notes.txt", "cached copy");

  auto delegate = std::make_shared<RecordingDelegate>();
  ASSERT_TRUE(refused->storeFile(source, "", attachment, delegate, nullptr));
  auto transfer = TransferOf(attachment, kTransferOperationUpload);
  ASSERT_TRUE(transfer);
  ASSERT_TRUE(
      dynamic_cast<VMAttachmentTransferHandlerProtocol&>(*refused).resumeTransfer(transfer));
  ASSERT_TRUE(record_delegate_->waitUntilEnded(kTransferLimit));
  ASSERT_EQ(record_delegate_->kinds(), std::vector<std::string>{"gotError"});
  EXPECT_TRUE(record_delegate_->last("gotError")->error);
  EXPECT_EQ(delegate->kinds(), std::vector<std::string>{"willSend"})
      << "the failure goes to the record's own delegate only";
  EXPECT_EQ(attachment->uploaded(), std::nullopt);
  EXPECT_EQ(attachment->attachmentUUID(), std::optional<std::string>(local_uuid));
  EXPECT_EQ(TransferOf(attachment, kTransferOperationUpload), transfer) << "kept for a resume";
  EXPECT_EQ(ReadFile(old_cache / "notes.txt"), "cached copy");

  record_delegate_ = std::make_shared<RecordingDelegate>();
  attachment->setDelegate(record_delegate_);
  ASSERT_TRUE(transfers_->resumeTransfer(transfer));
  ASSERT_TRUE(record_delegate_->waitUntilEnded(kTransferLimit));
  ASSERT_EQ(record_delegate_->kinds(), std::vector<std::string>{"finished"})
      << Summary(*record_delegate_);
  EXPECT_EQ(attachment->uploaded(), std::optional<bool>(true));
  EXPECT_NE(CacheFolder(*attachment), old_cache);
  EXPECT_EQ(ReadFile(CacheFolder(*attachment) / "notes.txt"), "cached copy");
  EXPECT_FALSE(fs::exists(old_cache / "notes.txt"));

  // What an earlier download left at the transfer path is cleared before the next one.
  const fs::path leftover =
      services->dir / "tmp" / "HXAttachmentCache" /
      HXAttachmentCache::sharedCache()->relativeFilePathForObject(*attachment) /
      *attachment->attachmentUUID() / "vmattachmentdownload";
  fs::create_directories(leftover.parent_path());
  WriteFile(leftover, "an earlier, broken download");
  auto back = std::make_shared<RecordingDelegate>();
  fs::remove(CacheFolder(*attachment) / "notes.txt");
  Retrieve(attachment, back);
  EXPECT_EQ(ReadFile(CacheFolder(*attachment) / "notes.txt"), "kept until the service takes it");

  // A download that failed stays registered. Resumed after a process died with bytes at its
  // path, it fetches them again instead of failing on what is there.
  fs::remove(CacheFolder(*attachment) / "notes.txt");
  auto refused_back = std::make_shared<RecordingDelegate>();
  ASSERT_TRUE(refused->retrieveAttachment(attachment, dir_ / "unused", refused_back, nullptr));
  ASSERT_TRUE(refused_back->waitUntilEnded(kTransferLimit));
  ASSERT_EQ(refused_back->kinds(), (std::vector<std::string>{"willReceive", "gotError"}));
  auto download = TransferOf(attachment, kTransferOperationDownload);
  ASSERT_TRUE(download) << "kept for a resume";
  WriteFile(download->attachmentPath(), "what a killed process left");
  auto resumed = std::make_shared<RecordingDelegate>();
  download->setDelegate(resumed);
  ASSERT_TRUE(transfers_->resumeTransfer(download));
  ASSERT_TRUE(resumed->waitUntilEnded(kTransferLimit));
  ASSERT_EQ(resumed->kinds(), (std::vector<std::string>{"willReceive", "finished"}))
      << Summary(*resumed);
  EXPECT_EQ(ReadFile(CacheFolder(*attachment) / "notes.txt"), "kept until the service takes it");
  EXPECT_FALSE(TransferOf(attachment, kTransferOperationDownload));
}

TEST_F(CloudSchemeTest, AFailedSaveAfterTheUploadKeepsEverythingFindable) {
  const fs::path source = dir_ / "minutes.txt";
  WriteFile(source, "kept whatever the database says");
  auto attachment = NewAttachment("minutes.txt");
  const std::string local_uuid = *attachment->attachmentUUID();
  ErrorRef error;
  ASSERT_TRUE(context_->saveChanges(&error)) << error->summary();
  const fs::path cache = CacheFolder(*attachment);
  fs::create_directories(cache);
  WriteFile(cache / "minutes.txt", "cached copy");
  // The database refuses every change to the row from here on.
  ASSERT_TRUE(
      context_->database().exec("CREATE TRIGGER refuse BEFORE UPDATE ON attachments BEGIN "
                                "SELECT RAISE(ABORT, 'refused by the test'); END",
                                &error));

  LogCapture capture;
  ASSERT_TRUE(handler_->storeFile(source, "", attachment, nullptr, &error));
  auto transfer = TransferOf(attachment, kTransferOperationUpload);
  ASSERT_TRUE(transfer);
  ASSERT_TRUE(transfers_->resumeTransfer(transfer));
  ASSERT_TRUE(record_delegate_->waitUntilEnded(kTransferLimit));
  ASSERT_EQ(record_delegate_->kinds(), std::vector<std::string>{"gotError"});
  ErrorRef failure = record_delegate_->last("gotError")->error;
  EXPECT_EQ(failure->code(), 301);
  EXPECT_EQ(failure->localizedDescription(), "Could not save the attachment after its upload");
  ASSERT_TRUE(failure->underlyingError());
  EXPECT_TRUE(capture.contains("Could not save attachment"));
  // Record, cached copy and registration are where the database's identity finds them.
  EXPECT_EQ(attachment->attachmentUUID(), std::optional<std::string>(local_uuid));
  EXPECT_EQ(attachment->uploaded(), std::nullopt);
  EXPECT_EQ(CacheFolder(*attachment), cache);
  EXPECT_EQ(ReadFile(cache / "minutes.txt"), "cached copy");
  EXPECT_EQ(TransferOf(attachment, kTransferOperationUpload), transfer);

  ASSERT_TRUE(context_->database().exec("DROP TRIGGER refuse", &error));
  record_delegate_ = std::make_shared<RecordingDelegate>();
  attachment->setDelegate(record_delegate_);
  ASSERT_TRUE(transfers_->resumeTransfer(transfer));
  ASSERT_TRUE(record_delegate_->waitUntilEnded(kTransferLimit));
  ASSERT_EQ(record_delegate_->kinds(), std::vector<std::string>{"finished"})
      << Summary(*record_delegate_);
  EXPECT_EQ(attachment->uploaded(), std::optional<bool>(true));
  EXPECT_EQ(ReadFile(CacheFolder(*attachment) / "minutes.txt"), "cached copy");
  EXPECT_FALSE(TransferOf(attachment, kTransferOperationUpload));
}

TEST_F(CloudSchemeTest, AnIdentityFromAHostileRowNamesNothingOutsideTheCache) {
  // An upload registered for a row whose UUID climbs out of the cache, as a restart loads
  // it: the folder that UUID would name holds files that are not the cache's.
  const std::string hostile = "x/../../../outside";
  auto attachment = NewAttachment("secret.txt");
  attachment->setAttachmentUUID(hostile);
  const fs::path root = context_->attachmentCache()->root();
  fs::create_directories(root / "x" / "x");
  const fs::path outside = root.parent_path() / "outside";
  WriteFile(outside / "private.txt", "not the cache's");
  const fs::path plain = dir_ / "plain.txt";
  WriteFile(plain, "uploaded bytes");
  std::string crypt = (dir_ / "crypt").string();
  WriteFile(crypt, "");
  ErrorRef error;
  ASSERT_TRUE(dynamic_cast<VMCAttachment&>(*handler_).processAttachment(
      attachment, plain, crypt, VMCAttachment::kOperationEncrypt, &error));
  std::shared_ptr<HXFileAttachmentTransferDelegate> no_delegate;
  auto transfer = context_->attachmentTransferManager()->registerTransferPath(
      &crypt, attachment, &no_delegate, kTransferOperationUpload, false, &error);
  ASSERT_TRUE(transfer) << error->summary();
  ASSERT_TRUE(transfers_->resumeTransfer(transfer));
  ASSERT_TRUE(record_delegate_->waitUntilEnded(kTransferLimit));
  ASSERT_EQ(record_delegate_->kinds(), std::vector<std::string>{"finished"})
      << Summary(*record_delegate_);
  EXPECT_EQ(ReadFile(outside / "private.txt"), "not the cache's") << "not moved into the cache";
  EXPECT_FALSE(fs::exists(CacheFolder(*attachment)));

  // Retrieving with a cache folder that climbs out is refused before any path is made.
  SqliteAttachmentCache::RememberShareFolder(*attachment, "../../outside");
  auto delegate = std::make_shared<RecordingDelegate>();
  error = nullptr;
  EXPECT_FALSE(handler_->retrieveAttachment(attachment, dir_.path(), delegate, &error));
  ASSERT_TRUE(error && error->underlyingError());
  EXPECT_EQ(error->underlyingError()->code(), EINVAL);
  EXPECT_FALSE(TransferOf(attachment, kTransferOperationDownload));
}

TEST_F(CloudSchemeTest, TransferControlAnswers) {
  const fs::path source = dir_ / "slow.bin";
  WriteFile(source, std::string(1 << 20, 's'));
  auto attachment = NewAttachment("slow.bin");
  auto delegate = std::make_shared<RecordingDelegate>();
  ASSERT_TRUE(handler_->storeFile(source, "", attachment, delegate, nullptr));
  auto transfer = TransferOf(attachment, kTransferOperationUpload);
  ASSERT_TRUE(transfer);

  auto unknown = std::make_shared<VMAttachmentTransferObject>(attachment, delegate, 7,
                                                              *attachment->attachmentUUID());
  EXPECT_TRUE(transfers_->resumeTransfer(unknown)) << "an unknown type starts nothing";
  EXPECT_TRUE(delegate->kinds().empty());

  ASSERT_TRUE(transfers_->resumeTransfer(transfer));
  EXPECT_TRUE(transfers_->suspendTransfer(transfer));
  EXPECT_FALSE(transfers_->cancelTransfer(transfer)) << "cloud transfers cannot be cancelled";
  ASSERT_TRUE(record_delegate_->waitUntilEnded(kTransferLimit));
  EXPECT_EQ(record_delegate_->kinds(), std::vector<std::string>{"finished"})
      << "neither answer stopped the upload: " << Summary(*record_delegate_);
  EXPECT_EQ(attachment->uploaded(), std::optional<bool>(true));

  auto* protocol = static_cast<HXFileAttachmentSchemeHandlerProtocol*>(handler_.get());
  EXPECT_EQ(protocol->attachmentURL(attachment), std::nullopt);
  EXPECT_EQ(protocol->attachmentModifyDate(attachment),
            std::optional<Date>(attachment->modifyDate()));
}

TEST_F(CloudSchemeTest, FailuresReachTheDelegateTheyBelongTo) {
  // Not uploaded: refused at once, reported later on the main queue, out-pointer untouched.
  auto pending = NewAttachment("pending.txt");
  auto delegate = std::make_shared<RecordingDelegate>();
  ErrorRef error;
  EXPECT_FALSE(handler_->retrieveAttachment(pending, dir_.path(), delegate, &error));
  EXPECT_FALSE(error);
  EXPECT_TRUE(delegate->kinds().empty()) << "told only after the call returned";
  ASSERT_TRUE(delegate->waitUntilEnded());
  EXPECT_EQ(delegate->last("gotError")->error->code(), 202);
  EXPECT_TRUE(record_delegate_->kinds().empty());

  // Uploaded but without an identity: the manager refuses the download; the record's own
  // delegate hears it and the out-pointer stays untouched.
  auto nameless = NewAttachment("nameless.txt");
  nameless->setUploaded(true);
  nameless->setAttachmentUUID(std::nullopt);
  delegate = std::make_shared<RecordingDelegate>();
  EXPECT_FALSE(handler_->retrieveAttachment(nameless, dir_.path(), delegate, &error));
  EXPECT_FALSE(error);
  EXPECT_TRUE(delegate->kinds().empty());
  ASSERT_EQ(record_delegate_->kinds(), std::vector<std::string>{"gotError"});
  ErrorRef refused = record_delegate_->last("gotError")->error;
  EXPECT_EQ(refused->code(), 300);
  EXPECT_EQ(refused->localizedDescription(), "Could not register download with transfer manager");
  EXPECT_TRUE(refused->underlyingError());

  // A store that cannot read its source: out-pointer and the given delegate, critically.
  record_delegate_ = std::make_shared<RecordingDelegate>();
  auto missing = NewAttachment("missing.txt");
  delegate = std::make_shared<RecordingDelegate>();
  EXPECT_FALSE(handler_->storeFile(dir_ / "no such file", "", missing, delegate, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), 301);
  EXPECT_EQ(error->localizedDescription(), "Error processing attachment");
  EXPECT_TRUE(error->underlyingError());
  ASSERT_EQ(delegate->kinds(), std::vector<std::string>{"gotCriticalError"});
  EXPECT_EQ(delegate->last("gotCriticalError")->error, error) << "the same error object";
  EXPECT_TRUE(record_delegate_->kinds().empty());
  EXPECT_FALSE(TransferOf(missing, kTransferOperationUpload));

  // An identity from a row that would climb out of the temporary folder is refused before
  // any path is made from it, whichever way in.
  const fs::path tmp = services->dir / "tmp";
  for (const char* hostile : {"../../escaped", "..", "a/../../escaped"}) {
    SCOPED_TRACE(hostile);
    auto row = NewAttachment("hostile.txt");
    row->setAttachmentUUID(hostile);
    error = nullptr;
    EXPECT_FALSE(handler_->storeFile(dir_ / "source.txt", "", row, nullptr, &error));
    ASSERT_TRUE(error && error->underlyingError());
    EXPECT_EQ(error->code(), 301);
    EXPECT_EQ(error->underlyingError()->code(), EINVAL);
    row->setUploaded(true);
    error = nullptr;
    EXPECT_FALSE(handler_->retrieveAttachment(row, dir_.path(), nullptr, &error));
    ASSERT_TRUE(error && error->underlyingError());
    EXPECT_EQ(error->code(), 300);
    EXPECT_EQ(error->underlyingError()->code(), EINVAL);
    EXPECT_FALSE(TransferOf(row, kTransferOperationDownload));
    // Deleting sends nothing to the service for an identity it could not know.
    record_delegate_ = std::make_shared<RecordingDelegate>();
    row->setDelegate(record_delegate_);
    EXPECT_TRUE(deletion_->deleteAttachment(row, "", nullptr, nullptr));
    ASSERT_TRUE(record_delegate_->waitUntilEnded());
    EXPECT_EQ(record_delegate_->last("gotError")->error->code(), EINVAL);
    EXPECT_FALSE(fs::exists(tmp.parent_path() / "escaped"));
    EXPECT_FALSE(fs::exists(tmp / "escaped"));
  }

  // A work folder that someone else put in the shared temporary folder first (here a link
  // to elsewhere) is never written into.
  auto squatted = NewAttachment("squatted.txt");
  fs::create_directories(tmp / context_->databaseUUID());
  fs::create_directory_symlink(dir_.path(),
                               tmp / context_->databaseUUID() / *squatted->attachmentUUID());
  WriteFile(dir_ / "plain.txt", "plain");
  error = nullptr;
  EXPECT_FALSE(handler_->storeFile(dir_ / "plain.txt", "", squatted, nullptr, &error));
  ASSERT_TRUE(error && error->underlyingError());
  EXPECT_EQ(error->underlyingError()->code(), EACCES);
  EXPECT_FALSE(fs::exists(dir_ / "crypt"));
}

}  // namespace
}  // namespace vm
