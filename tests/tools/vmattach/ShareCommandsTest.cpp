#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>

#include "VMAttachments/schemes/VMAFPAttachment.h"
#include "VMAttachments/schemes/VMFileReferenceAttachment.h"
#include "host/HXFileAttachment.h"
#include "host/HostConstants.h"
#include "platform/ShareMounter.h"
#include "tools/vmattach/ShareCommands.h"

namespace vm::vmattach {
namespace {

// Errors that carry no description of their own are told in words; the others keep theirs.
TEST(ShareCommandsTest, ExplainsBareTransferErrorsInWords) {
  HXFileAttachment attachment(nullptr);
  attachment.setName("minutes.txt");
  attachment.setAttachmentPath("/home/anna/minutes.txt");
  struct Case {
    ErrorRef error;
    bool on_share;
    std::string words;  // empty: nothing to add
  };
  const Case cases[] = {
      {Error::Make(kVMFileAttachmentDomain, 600), false,
       "the file \"minutes.txt\" is missing: it was expected at /home/anna/minutes.txt"},
      {Error::Make(NSOSStatusErrorDomain, ENOSPC), true, "no space left on the share"},
      {Error::Make(NSOSStatusErrorDomain, ENAMETOOLONG), true,
       "the name \"minutes.txt\" is too long for the share"},
      {Error::Make(NSOSStatusErrorDomain, ENOSPC), false, "no space left on the storage"},
      {Error::WithDescription(NSPOSIXErrorDomain, ENOSPC, "disk full at /x"), true, ""},
      {Error::Make(NSOSStatusErrorDomain, -36), true, ""},
      {Error::Make("VMArchiverAttachmentDomain", 700), true, ""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(ExplainTransferError(*c.error, c.on_share, attachment), c.words)
        << c.error->summary();
  }
}

class ReasonMounter : public ShareMounter {
 public:
  int mountURLAsync(const ShareMountRequest&, Completion) override { return EIO; }
  std::string lastFailureReason() const override {
    return "cannot mount sftp://h/s: the server's host key is not a known one";
  }
};

// A mount that failed without an error object still tells the user the mounter's reason.
TEST(ShareCommandsTest, AFailedMountReportsTheMountersReason) {
  ShareMounter::setShared(std::make_shared<ReasonMounter>());
  auto handler = std::make_shared<VMAFPAttachment>(nullptr);
  HXFileAttachment attachment(nullptr);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(ReportTransferFailure(nullptr, handler.get(), attachment), 1);
  std::string err = ::testing::internal::GetCapturedStderr();
  ShareMounter::setShared(nullptr);
  EXPECT_NE(err.find("host key is not a known one"), std::string::npos) << err;
  EXPECT_NE(err.find("--accept-host-key"), std::string::npos) << err;

  ::testing::internal::CaptureStderr();
  ReportTransferFailure(Error::Make(NSOSStatusErrorDomain, ENOSPC), handler.get(), attachment);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "vmattach: no space left on the share (NSOSStatusErrorDomain 28)\n");
}

}  // namespace
}  // namespace vm::vmattach
