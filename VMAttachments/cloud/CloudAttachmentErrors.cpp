#include "VMAttachments/cloud/CloudAttachmentErrors.h"

#include "VMAttachments/schemes/VMAttachmentSchemesBundle.h"
#include "platform/URLSession.h"

namespace vm {
namespace {

ErrorRef Bare(CloudAttachmentErrorCode code) {
  return Error::Make(kCloudAttachmentErrorDomain, static_cast<std::int64_t>(code));
}

ErrorRef Described(CloudAttachmentErrorCode code, std::string_view english) {
  return Error::WithDescription(kCloudAttachmentErrorDomain, static_cast<std::int64_t>(code),
                                VMLocalizedString(english));
}

}  // namespace

ErrorRef CloudAttachmentError(CloudAttachmentErrorCode code) {
  // Function-local statics: made once, on first use, safely from any thread.
  switch (code) {
    case CloudAttachmentErrorCode::kFileMissing: {
      static const ErrorRef error = Bare(code);
      return error;
    }
    case CloudAttachmentErrorCode::kPathIsDirectory: {
      static const ErrorRef error = Bare(code);
      return error;
    }
    case CloudAttachmentErrorCode::kNoFileSize: {
      static const ErrorRef error = Bare(code);
      return error;
    }
    case CloudAttachmentErrorCode::kUnusableReply: {
      static const ErrorRef error =
          Described(code, "The attachment service returned an unusable reply");
      return error;
    }
    case CloudAttachmentErrorCode::kUploadFailed: {
      // Error message when an upload to S3 failed.
      static const ErrorRef error = Described(code, "Upload to the storage provider failed");
      return error;
    }
    case CloudAttachmentErrorCode::kDownloadFailed: {
      // Error message when a download from S3 failed.
      static const ErrorRef error = Described(code, "Download from the storage provider failed");
      return error;
    }
  }
  return Bare(code);
}

bool IsOverlongReply(const ErrorRef& error) {
  return error && error->domain() == NSURLErrorDomain &&
         error->code() == kURLErrorDataLengthExceedsMaximum;
}

}  // namespace vm
