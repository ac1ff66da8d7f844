#include <gtest/gtest.h>
#include <openssl/sha.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>

#include "BWCryptographer/BWCryptographer.h"
#include "VMAttachments/archive/VMArchiver.h"
#include "VMAttachments/cloud/VMCAttachment.h"
#include "host/HXFileAttachmentScheme.h"
#include "host/HostConstants.h"
#include "platform/Log.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

namespace fs = std::filesystem;
using testing::ReadFile;
using testing::TempDir;
using testing::WriteFile;

constexpr std::size_t kMiB = 1 << 20;

std::string RandomText(std::size_t length, unsigned seed) {
  std::mt19937 random(seed);
  std::string text(length, '\0');
  for (auto& c : text) c = static_cast<char>(random());
  return text;
}

Bytes Sha1(const std::string& data) {
  Bytes digest(SHA_DIGEST_LENGTH);
  SHA1(reinterpret_cast<const unsigned char*>(data.data()), data.size(), digest.data());
  return digest;
}

Bytes HashOn(const HXFileAttachment& attachment, std::string_view key) {
  auto value = attachment.objectForKeyedSubscript(key);
  return value ? std::get<Bytes>(*value) : Bytes{};
}

class VMCAttachmentProcessingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Work folders go to the temporary folder; keep them inside this test's own.
    const char* old = getenv("TMPDIR");
    old_tmpdir_ = old ? old : "";
    had_tmpdir_ = old != nullptr;
    fs::create_directories(dir_ / "tmp");
    setenv("TMPDIR", (dir_ / "tmp").c_str(), 1);
    handler_ = std::make_shared<VMCAttachment>(std::make_shared<HXFileAttachmentScheme>(nullptr));
  }
  void TearDown() override {
    if (had_tmpdir_) {
      setenv("TMPDIR", old_tmpdir_.c_str(), 1);
    } else {
      unsetenv("TMPDIR");
    }
  }

  std::shared_ptr<HXFileAttachment> NewAttachment(
      std::string uuid = "0f1e2d3c-aaaa-bbbb-cccc-1234567890ab") {
    auto attachment = std::make_shared<HXFileAttachment>(nullptr);
    attachment->setAttachmentUUID(std::move(uuid));
    attachment->setName("report.pdf");
    return attachment;
  }

  // Encrypts `plain` for `attachment` into a new file and returns its path.
  fs::path Encrypt(const std::shared_ptr<HXFileAttachment>& attachment, const std::string& plain,
                   const std::string& name = "crypted") {
    WriteFile(dir_ / (name + ".plain"), plain);
    WriteFile(dir_ / name, "");
    ErrorRef error;
    EXPECT_TRUE(handler_->processAttachment(attachment, dir_ / (name + ".plain"), dir_ / name,
                                            VMCAttachment::kOperationEncrypt, &error))
        << (error ? error->summary() : "");
    return dir_ / name;
  }

  fs::path EmptyFile(const std::string& name) {
    WriteFile(dir_ / name, "");
    return dir_ / name;
  }

  TempDir dir_;
  std::shared_ptr<VMCAttachment> handler_;
  std::string old_tmpdir_;
  bool had_tmpdir_ = false;
};

TEST_F(VMCAttachmentProcessingTest, RoundTripsAtChunkBoundariesWithBothDigests) {
  for (std::size_t size :
       {std::size_t{0}, std::size_t{1}, kMiB - 1, kMiB, kMiB + 1, 3 * kMiB + 5}) {
    SCOPED_TRACE(size);
    const std::string plain = RandomText(size, static_cast<unsigned>(size));
    auto attachment = NewAttachment();
    const fs::path crypted = Encrypt(attachment, plain);

    const std::string crypted_bytes = ReadFile(crypted);
    EXPECT_EQ(crypted_bytes.size(), size + BWCryptographer::kTagLength);
    EXPECT_EQ(HashOn(*attachment, kHXFileAttachmentSourceHash), Sha1(plain));
    EXPECT_EQ(HashOn(*attachment, kHXFileAttachmentCryptedHash), Sha1(crypted_bytes));
    ASSERT_TRUE(attachment->encryptionData());
    EXPECT_EQ(attachment->encryptionData()->size(), BWCryptographer::kEntropyLength);

    const fs::path out = EmptyFile("out");
    ErrorRef error;
    EXPECT_TRUE(handler_->processAttachment(attachment, crypted, out,
                                            VMCAttachment::kOperationDecrypt, &error))
        << (error ? error->summary() : "");
    EXPECT_EQ(ReadFile(out), plain);
  }
}

TEST_F(VMCAttachmentProcessingTest, RefusesBadArgumentsWithTheirOwnErrors) {
  auto encrypted = NewAttachment();
  const fs::path crypted = Encrypt(encrypted, "some bytes");
  const fs::path out = EmptyFile("out");
  fs::create_directories(dir_ / "folder");
  struct Case {
    const char* name;
    std::shared_ptr<HXFileAttachment> attachment;
    fs::path source;
    fs::path destination;
    std::int64_t operation;
    const char* description;
    bool underlying;
  };
  const Case kCases[] = {
      {"no attachment", nullptr, crypted, out, 1, "Must provide an attachment object.", false},
      {"no source", encrypted, "", out, 1, "Must provide a source file path.", false},
      {"no destination", encrypted, crypted, dir_ / "missing", 1,
       "Must provide an existing destination file path", false},
      {"destination folder", encrypted, crypted, dir_ / "folder", 1,
       "Cannot provide a directory as a destination path.", false},
      {"unknown operation", encrypted, crypted, out, 5, "Could not decrypt attachment.", false},
      {"no encryption data", NewAttachment(), crypted, out, 1, "Could not decrypt attachment.",
       false},
      {"encrypt, source missing", encrypted, dir_ / "missing", out, 0,
       "Could not get source file to encrypt attachment.", true},
      {"decrypt, source missing", encrypted, dir_ / "missing", out, 1,
       "Could not decrypt attachment.", true},
      {"decrypt, source unreadable", encrypted, dir_ / "folder", out, 1,
       "Could not decrypt attachment.", true},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    ErrorRef error;
    EXPECT_FALSE(
        handler_->processAttachment(c.attachment, c.source, c.destination, c.operation, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), kVMFileAttachmentDomain);
    EXPECT_EQ(error->code(), 1000);
    EXPECT_EQ(error->localizedDescription(), c.description);
    EXPECT_EQ(error->underlyingError() != nullptr, c.underlying);
    EXPECT_FALSE(
        handler_->processAttachment(c.attachment, c.source, c.destination, c.operation, nullptr));
  }
}

// What a decryption reports when the record's hashes or the bytes are not what was
// stored. Hash problems fail only for callers that ask for an error; a stream that does
// not authenticate fails for every caller.
TEST_F(VMCAttachmentProcessingTest, ReportsHashProblemsInOrder) {
  const std::string plain = RandomText(1000, 3);
  struct Case {
    const char* name;
    std::function<void(HXFileAttachment&, fs::path&)> spoil;
    Error::Numbers problems;
    bool succeedsWithoutErrorPointer;
    std::vector<std::string> logLines;
  };
  const Case kCases[] = {
      {"intact", [](HXFileAttachment&, fs::path&) {}, {}, true, {}},
      {"no hashes",
       [](HXFileAttachment& a, fs::path&) {
         a.setObject(std::nullopt, kHXFileAttachmentSourceHash);
         a.setObject(Bytes{}, kHXFileAttachmentCryptedHash);
       },
       {2},
       true,
       {"Attachment does not have hashes stored: "}},
      {"only the source hash",
       [](HXFileAttachment& a, fs::path&) {
         a.setObject(std::nullopt, kHXFileAttachmentCryptedHash);
       },
       {0},
       true,
       {"Source hash did not match stored hash"}},
      {"short crypted hash",
       [](HXFileAttachment& a, fs::path&) {
         Bytes hash = std::get<Bytes>(*a.objectForKeyedSubscript(kHXFileAttachmentCryptedHash));
         hash.resize(19);
         a.setObject(hash, kHXFileAttachmentCryptedHash);
       },
       {0},
       true,
       {"Source hash did not match stored hash"}},
      {"wrong source hash",
       [](HXFileAttachment& a, fs::path&) {
         a.setObject(Bytes(20, 0), kHXFileAttachmentSourceHash);
       },
       {1},
       true,
       {"Crypted hash did not match stored hash"}},
      {"tampered file",
       [](HXFileAttachment&, fs::path& file) {
         std::string bytes = ReadFile(file);
         bytes[10] ^= 1;
         WriteFile(file, bytes);
       },
       {0, 1},
       false,
       {"Source hash did not match stored hash", "Crypted hash did not match stored hash"}},
      {"truncated file",
       [](HXFileAttachment&, fs::path& file) { fs::resize_file(file, 500); },
       {0, 1},
       false,
       {"Source hash did not match stored hash", "Crypted hash did not match stored hash"}},
      {"entropy of another encryptor",
       [](HXFileAttachment& a, fs::path&) {
         a.setEncryptionData(BWCryptographer::encryptor()->entropy());
       },
       {1},
       false,
       {"Crypted hash did not match stored hash"}},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    auto attachment = NewAttachment();
    fs::path crypted = Encrypt(attachment, plain);
    c.spoil(*attachment, crypted);

    LogCapture capture;
    const fs::path out = EmptyFile("out");
    ErrorRef error;
    const bool ok = handler_->processAttachment(attachment, crypted, out,
                                                VMCAttachment::kOperationDecrypt, &error);
    EXPECT_EQ(capture.messages("VMCAttachment").size(), c.logLines.size());
    for (std::size_t i = 0; i < c.logLines.size() && i < capture.messages("VMCAttachment").size();
         ++i) {
      EXPECT_EQ(capture.messages("VMCAttachment")[i].rfind(c.logLines[i], 0), 0u)
          << capture.messages("VMCAttachment")[i];
    }
    if (c.problems.empty()) {
      EXPECT_TRUE(ok);
      EXPECT_EQ(ReadFile(out), plain);
    } else {
      EXPECT_FALSE(ok);
      ASSERT_TRUE(error);
      EXPECT_EQ(error->code(), 1000);
      ASSERT_TRUE(error->numbersForKey(kVMAttachmentHashesErrorKey));
      EXPECT_EQ(*error->numbersForKey(kVMAttachmentHashesErrorKey), c.problems);
      EXPECT_EQ(error->userInfo().size(), 1u);
    }
    const fs::path again = EmptyFile("again");
    EXPECT_EQ(handler_->processAttachment(attachment, crypted, again,
                                          VMCAttachment::kOperationDecrypt, nullptr),
              c.succeedsWithoutErrorPointer);
  }
}

class SaveDownloadedTest : public VMCAttachmentProcessingTest {
 protected:
  ErrorRef Save(const std::shared_ptr<HXFileAttachment>& attachment, const fs::path& crypted,
                const fs::path& cache_url, bool* ok) {
    ErrorRef error;
    *ok = handler_->saveDownloadedAttachment(attachment, crypted, cache_url, &error);
    return error;
  }
  fs::path WorkFolder(const HXFileAttachment& attachment) {
    return dir_ / "tmp" / *attachment.attachmentUUID();
  }
};

TEST_F(SaveDownloadedTest, PlainFileTakesTheRecordsNameAndDates) {
  const Date modified = Date(std::chrono::seconds(1'600'000'000));
  struct Case {
    const char* name;
    std::optional<std::int64_t> storageType;
    const char* expectedName;
  };
  const Case kCases[] = {
      {"a/b.txt", 1, "a:b.txt"},
      {"report.pdf", std::nullopt, "report.pdf"},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    auto attachment = NewAttachment();
    attachment->setName(c.name);
    attachment->setAttachmentModifyDate(modified);
    if (c.storageType) attachment->setObject(*c.storageType, kHXFileAttachmentStorageTypeKey);
    const fs::path crypted = Encrypt(attachment, "hello");
    const fs::path cache = dir_ / ("cache-" + std::string(c.expectedName));
    fs::create_directories(cache);

    LogCapture capture;
    bool ok = false;
    ErrorRef error = Save(attachment, crypted, cache / "random-name", &ok);
    ASSERT_TRUE(ok) << (error ? error->summary() : "");
    EXPECT_EQ(ReadFile(cache / c.expectedName), "hello");
    EXPECT_FALSE(fs::exists(cache / "random-name"));
    struct stat info {};
    ASSERT_EQ(::stat((cache / c.expectedName).c_str(), &info), 0);
    EXPECT_EQ(info.st_mtim.tv_sec, 1'600'000'000);
    // The work file goes, its folder stays.
    EXPECT_FALSE(fs::exists(WorkFolder(*attachment) / "crypt"));
    EXPECT_TRUE(fs::is_directory(WorkFolder(*attachment)));
    EXPECT_EQ(capture.contains("Attachment format type not found - assuming plain file"),
              !c.storageType);
  }
}

TEST_F(SaveDownloadedTest, LeavesTheDownloadExactlyAsItArrived) {
  // Large enough for many chunks, with a ragged end; the tampered byte sits near the end,
  // so that the failure comes after most of the file was decrypted.
  const std::string plain = RandomText((std::size_t{20} << 20) + 12345, 7);
  for (const bool tampered : {false, true}) {
    SCOPED_TRACE(tampered ? "tampered" : "intact");
    auto attachment = NewAttachment();
    attachment->setName("big.bin");
    const fs::path crypted = Encrypt(attachment, plain);
    if (tampered) {
      std::string bytes = ReadFile(crypted);
      bytes[bytes.size() - 100] ^= 1;
      WriteFile(crypted, bytes);
    }
    const std::string arrived = ReadFile(crypted);
    struct stat before {};
    ASSERT_EQ(::stat(crypted.c_str(), &before), 0);
    const fs::path cache = dir_ / (tampered ? "cache-tampered" : "cache-intact");
    fs::create_directories(cache);

    bool ok = false;
    ErrorRef error = Save(attachment, crypted, cache / "random-name", &ok);
    EXPECT_EQ(ok, !tampered) << (error ? error->summary() : "");
    EXPECT_TRUE(ReadFile(crypted) == arrived) << "the download is the host's, to retry or inspect";
    struct stat after {};
    ASSERT_EQ(::stat(crypted.c_str(), &after), 0);
    EXPECT_EQ(after.st_blocks, before.st_blocks) << "no holes punched into it";
    if (tampered) {
      EXPECT_TRUE(fs::is_empty(cache));
    } else {
      EXPECT_TRUE(ReadFile(cache / "big.bin") == plain);
    }
  }
}

TEST_F(SaveDownloadedTest, AWorkFileThatIsALinkIsNeverWrittenThrough) {
  auto attachment = NewAttachment();
  const fs::path crypted = Encrypt(attachment, "decrypted secret");
  WriteFile(dir_ / "elsewhere", "someone else's file");
  fs::create_directories(WorkFolder(*attachment));
  fs::create_symlink(dir_ / "elsewhere", WorkFolder(*attachment) / "crypt");
  fs::create_directories(dir_ / "cache");

  bool ok = true;
  ErrorRef error = Save(attachment, crypted, dir_ / "cache" / "random-name", &ok);
  EXPECT_FALSE(ok);
  ASSERT_TRUE(error && error->underlyingError());
  EXPECT_EQ(error->localizedDescription(), "Failed to extract attachment to cache folder");
  EXPECT_EQ(error->underlyingError()->domain(), NSPOSIXErrorDomain);
  EXPECT_EQ(ReadFile(dir_ / "elsewhere"), "someone else's file");
  EXPECT_TRUE(fs::is_empty(dir_ / "cache"));
}

TEST_F(SaveDownloadedTest, ArchiveIsUnpackedIntoTheCacheFolder) {
  fs::create_directories(dir_ / "bundle" / "Contents");
  WriteFile(dir_ / "bundle" / "Contents" / "Info.txt", "inside");
  ASSERT_TRUE(
      VMArchiver::archiveFilesInDirectory(dir_ / "bundle", dir_ / "bundle.archive", nullptr));
  auto attachment = NewAttachment();
  attachment->setObject(VMCAttachment::kStorageTypeArchive, kHXFileAttachmentStorageTypeKey);
  const fs::path crypted = Encrypt(attachment, ReadFile(dir_ / "bundle.archive"));

  bool ok = false;
  ErrorRef error = Save(attachment, crypted, dir_ / "cache" / "unpacked", &ok);
  ASSERT_TRUE(ok) << (error ? error->summary() : "");
  EXPECT_EQ(ReadFile(dir_ / "cache" / "unpacked" / "Contents" / "Info.txt"), "inside");
  EXPECT_FALSE(fs::exists(WorkFolder(*attachment) / "crypt"));
}

TEST_F(SaveDownloadedTest, FailuresKeepTheirCodesAndLoseNothing) {
  WriteFile(dir_ / "a-file", "x");
  WriteFile(dir_ / "occupied" / "taken.txt", "the user's");
  struct Case {
    const char* name;
    std::function<void(HXFileAttachment&, fs::path& crypted)> prepare;
    fs::path cacheURL;
    std::int64_t code;
    const char* description;
    // The underlying error's domain and code, or empty when the error is passed as it is.
    std::string underlyingDomain;
  };
  const Case kCases[] = {
      {"hash mismatch",
       [](HXFileAttachment& a, fs::path&) {
         a.setObject(Bytes(20, 1), kHXFileAttachmentSourceHash);
       },
       dir_ / "cache1" / "f", 1000, "Failed to extract attachment to cache folder",
       std::string(kVMFileAttachmentDomain)},
      {"archive folder not creatable",
       [](HXFileAttachment& a, fs::path&) {
         a.setObject(VMCAttachment::kStorageTypeArchive, kHXFileAttachmentStorageTypeKey);
       },
       dir_ / "a-file" / "below", 300,
       "Unable to create destination directory for cache file for attachment",
       std::string(NSPOSIXErrorDomain)},
      {"archive unreadable",
       [](HXFileAttachment& a, fs::path&) {
         a.setObject(VMCAttachment::kStorageTypeArchive, kHXFileAttachmentStorageTypeKey);
       },
       dir_ / "cache2", 1000, "Failed to extract attachment to cache folder", "*"},
      {"move refused", [](HXFileAttachment&, fs::path&) {}, dir_ / "no-such-folder" / "f", 1000,
       "Could not write data into regular file", std::string(NSPOSIXErrorDomain)},
      {"name already taken", [](HXFileAttachment& a, fs::path&) { a.setName("taken.txt"); },
       dir_ / "occupied" / "f", EEXIST, nullptr, ""},
      {"name climbing out", [](HXFileAttachment& a, fs::path&) { a.setName(".."); },
       dir_ / "cache3" / "f", EINVAL, nullptr, ""},
      {"work folder is a file",
       [this](HXFileAttachment& a, fs::path&) {
         a.setAttachmentUUID("taken-uuid");
         WriteFile(dir_ / "tmp" / "taken-uuid", "not ours");
       },
       dir_ / "cache5" / "f", 1000, "Failed to extract attachment to cache folder",
       std::string(NSPOSIXErrorDomain)},
      {"uuid climbing out", [](HXFileAttachment& a, fs::path&) { a.setAttachmentUUID("../up"); },
       dir_ / "cache4" / "f", 1000, "Failed to extract attachment to cache folder",
       std::string(NSPOSIXErrorDomain)},
  };
  fs::create_directories(dir_ / "cache1");
  fs::create_directories(dir_ / "cache3");
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    auto attachment = NewAttachment();
    fs::path crypted = Encrypt(attachment, "plain bytes");
    c.prepare(*attachment, crypted);
    bool ok = true;
    ErrorRef error = Save(attachment, crypted, c.cacheURL, &ok);
    EXPECT_FALSE(ok);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), c.code);
    if (c.description != nullptr) {
      EXPECT_EQ(error->domain(), kVMFileAttachmentDomain);
      EXPECT_EQ(error->localizedDescription(), c.description);
      ASSERT_TRUE(error->underlyingError());
      if (c.underlyingDomain != "*") {
        EXPECT_EQ(error->underlyingError()->domain(), c.underlyingDomain);
      }
    } else {
      EXPECT_EQ(error->domain(), NSPOSIXErrorDomain);
    }
    EXPECT_FALSE(handler_->saveDownloadedAttachment(attachment, crypted, c.cacheURL, nullptr));
  }
  EXPECT_EQ(ReadFile(dir_ / "occupied" / "taken.txt"), "the user's");
  // A refused final name leaves no decrypted copy under the random one.
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_ / "occupied"), fs::directory_iterator()), 1);
  EXPECT_TRUE(fs::is_empty(dir_ / "cache3"));
  EXPECT_FALSE(fs::exists(dir_ / "cache2")) << "a failed unpacking leaves no partial folder";
  EXPECT_FALSE(fs::exists(dir_ / "up"));
  EXPECT_EQ(ReadFile(dir_ / "tmp" / "taken-uuid"), "not ours");
}

TEST_F(SaveDownloadedTest, UnknownStorageTypeIsAProgrammingError) {
  auto attachment = NewAttachment();
  attachment->setObject(std::int64_t{7}, kHXFileAttachmentStorageTypeKey);
  const fs::path crypted = Encrypt(attachment, "secret");
  EXPECT_THROW(handler_->saveDownloadedAttachment(attachment, crypted, dir_ / "c", nullptr),
               InternalInconsistencyException);
  // No decrypted bytes stay behind in the temporary folder.
  EXPECT_FALSE(fs::exists(WorkFolder(*attachment) / "crypt"));
}

}  // namespace
}  // namespace vm
