#include <gtest/gtest.h>

#include <fstream>
#include <thread>
#include <vector>

#include "VMAttachments/schemes/VMAttachmentSchemes.h"
#include "VMAttachments/schemes/VMAttachmentSchemesBundle.h"
#include "VMAttachments/schemes/VMFileReferenceAttachment.h"
#include "host/HXFileAttachmentScheme.h"
#include "host/HXFileAttachmentTransferDelegate.h"
#include "host/HostConstants.h"
#include "platform/Progress.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

using testing::TempDir;

// Counts the messages it receives; optionally also implements gotError.
class CountingDelegate : public HXFileAttachmentTransferDelegate {
 public:
  void willReceiveAttachment(HXFileAttachmentSchemeHandler*,
                             const std::shared_ptr<HXFileAttachment>&,
                             const std::shared_ptr<Progress>&) override {
    ++other;
  }
  void willSendAttachment(HXFileAttachmentSchemeHandler*,
                          const std::shared_ptr<HXFileAttachment>&) override {
    ++other;
  }
  void transferProgressUpdate(double, std::int64_t, std::int64_t) override { ++other; }
  void finishedTransferForAttachment(HXFileAttachmentSchemeHandler* handler,
                                     const std::shared_ptr<HXFileAttachment>&) override {
    ++finished;
    last_handler = handler;
  }
  void gotCriticalError(HXFileAttachmentSchemeHandler*, const ErrorRef&) override { ++other; }

  int finished = 0;
  int other = 0;
  HXFileAttachmentSchemeHandler* last_handler = nullptr;
};

class ErrorReceivingDelegate : public CountingDelegate, public HXFileAttachmentErrorReceiver {
 public:
  void gotError(HXFileAttachmentSchemeHandler*, const ErrorRef& error) override {
    errors.push_back(error);
  }
  std::vector<ErrorRef> errors;
};

std::shared_ptr<HXFileAttachment> AttachmentAt(std::string path, bool relative) {
  auto attachment = std::make_shared<HXFileAttachment>(nullptr);
  attachment->setAttachmentPath(std::move(path));
  attachment->setIsRelativePath(relative);
  return attachment;
}

TEST(FileReferenceTest, RetrievingAnExistingFileFinishesOnceAndTouchesNothing) {
  TempDir dir;
  testing::WriteFile(dir / "a.pdf", "pdf");
  std::filesystem::path destination = dir / "destination";
  VMFileReferenceAttachment handler(nullptr);
  auto delegate = std::make_shared<ErrorReceivingDelegate>();
  ErrorRef error;
  EXPECT_TRUE(handler.retrieveAttachment(AttachmentAt((dir / "a.pdf").string(), false), destination,
                                         delegate, &error));
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(delegate->finished, 1);
  EXPECT_EQ(delegate->last_handler, &handler);
  EXPECT_EQ(delegate->other, 0);
  EXPECT_TRUE(delegate->errors.empty());
  EXPECT_FALSE(std::filesystem::exists(destination));
}

TEST(FileReferenceTest, MissingFileFailsWith600ThroughEveryChannelGiven) {
  VMFileReferenceAttachment handler(nullptr);
  auto missing = AttachmentAt("/no/such/file.pdf", false);

  auto receiving = std::make_shared<ErrorReceivingDelegate>();
  ErrorRef error;
  EXPECT_FALSE(handler.retrieveAttachment(missing, "/tmp", receiving, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), kVMFileAttachmentDomain);
  EXPECT_EQ(error->code(), 600);
  EXPECT_TRUE(error->userInfo().empty());
  ASSERT_EQ(receiving->errors.size(), 1u);
  EXPECT_EQ(receiving->errors[0], error);  // the same object both ways
  EXPECT_EQ(receiving->finished, 0);

  // A delegate without gotError still sees NO and a filled out-pointer.
  auto plain = std::make_shared<CountingDelegate>();
  ErrorRef plain_error;
  EXPECT_FALSE(handler.retrieveAttachment(missing, "/tmp", plain, &plain_error));
  ASSERT_TRUE(plain_error);
  EXPECT_EQ(plain_error->code(), 600);
  EXPECT_EQ(plain->finished + plain->other, 0);

  // A null out-pointer is never written.
  EXPECT_FALSE(handler.retrieveAttachment(missing, "/tmp", receiving, nullptr));
  EXPECT_EQ(receiving->errors.size(), 2u);
}

TEST(FileReferenceTest, TildeIsExpandedOnlyForRelativePaths) {
  TempDir home;
  testing::WriteFile(home / "Documents" / "a.pdf", "x");
  std::string saved_home = std::getenv("HOME") ? std::getenv("HOME") : "";
  setenv("HOME", home.path().c_str(), 1);
  VMFileReferenceAttachment handler(nullptr);
  auto relative = AttachmentAt("~/Documents/a.pdf", true);
  auto literal = AttachmentAt("~/Documents/a.pdf", false);
  EXPECT_EQ(handler.attachmentURL(relative), home / "Documents" / "a.pdf");
  EXPECT_EQ(handler.attachmentURL(literal), std::filesystem::path("~/Documents/a.pdf"));
  auto delegate = std::make_shared<ErrorReceivingDelegate>();
  EXPECT_TRUE(handler.retrieveAttachment(relative, {}, delegate, nullptr));
  EXPECT_FALSE(handler.retrieveAttachment(literal, {}, delegate, nullptr));
  setenv("HOME", saved_home.c_str(), 1);
}

TEST(FileReferenceTest, StoreMarksUploadedWithoutLookingAtTheFile) {
  VMLocalFileReferenceScheme handler(nullptr);
  auto attachment = AttachmentAt("/no/such/file", false);
  auto delegate = std::make_shared<ErrorReceivingDelegate>();
  EXPECT_TRUE(handler.storeFile("/no/such/file", "rel", attachment, delegate, nullptr));
  EXPECT_EQ(attachment->uploaded(), true);
  EXPECT_EQ(delegate->finished + delegate->other, 0);
  EXPECT_EQ(handler.attachmentModifyDate(attachment), std::nullopt);
  EXPECT_TRUE(handler.completeAttachmentDownloadForObject(attachment, nullptr));
}

// A host may pass no delegate or no attachment, as it may to the share schemes: every
// entry point answers without crashing.
TEST(FileReferenceTest, NullDelegateOrAttachmentIsTolerated) {
  TempDir dir;
  VMFileReferenceAttachment handler(nullptr);
  std::filesystem::path file = dir / "here.txt";
  { std::ofstream(file) << "x"; }
  ErrorRef error;
  EXPECT_TRUE(handler.retrieveAttachment(AttachmentAt(file.string(), false), {}, nullptr, &error));
  EXPECT_FALSE(handler.retrieveAttachment(nullptr, {}, nullptr, &error));
  EXPECT_TRUE(handler.storeFile(file, "", nullptr, nullptr, nullptr));
  EXPECT_EQ(handler.attachmentURL(nullptr), std::nullopt);
}

TEST(FileReferenceTest, BothClassNamesAreRegisteredWithTheSameAnswers) {
  RegisterVMAttachmentsSchemeClasses();
  for (const char* name : {"VMFileReferenceAttachment", "VMLocalFileReferenceScheme"}) {
    SCOPED_TRACE(name);
    auto info = HXSchemeHandlerRegistry::shared().classNamed(name);
    ASSERT_TRUE(info);
    EXPECT_EQ(info->schemeName, "File Reference");
    EXPECT_FALSE(info->shouldDisplay);
    auto scheme = std::make_shared<HXFileAttachmentScheme>(nullptr);
    scheme->setHandlerClassName(name);
    auto handler = HXSchemeHandlerRegistry::shared().makeHandler(scheme);
    ASSERT_TRUE(handler);
    EXPECT_EQ(handler->className(), name);
    EXPECT_EQ(handler->fileAttachmentScheme(), scheme);
  }
}

TEST(SchemesBundleTest, ConcurrentFirstUseLooksUpOnceAndSharesTheObject) {
  constexpr int kThreads = 16;
  std::vector<std::shared_ptr<const Bundle>> seen(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&seen, i] { seen[i] = VMAttachmentSchemesBundle(); });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(VMAttachmentSchemesBundleLookupCount(), 1);
  for (const auto& bundle : seen) EXPECT_EQ(bundle, seen[0]);
  EXPECT_EQ(seen[0]->bundleIdentifier(), "com.brenwick.VMAttachments");
  EXPECT_EQ(VMLocalizedString("File not yet uploaded."), "File not yet uploaded.");
}

}  // namespace
}  // namespace vm
