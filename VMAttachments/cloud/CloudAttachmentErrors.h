#ifndef VM_VMATTACHMENTS_CLOUD_CLOUDATTACHMENTERRORS_H_
#define VM_VMATTACHMENTS_CLOUD_CLOUDATTACHMENTERRORS_H_

#include <string_view>

#include "platform/Error.h"

namespace vm {

inline constexpr std::string_view kCloudAttachmentErrorDomain = "com.brenwick.cloudattachment";

// The failures the cloud transfer operations make themselves.
enum class CloudAttachmentErrorCode : std::int64_t {
  kFileMissing = 102,      // the file to upload does not exist
  kPathIsDirectory = 103,  // the path to upload names a directory
  kNoFileSize = 104,       // the file's attributes hold no usable size
  kUnusableReply = 105,    // "The attachment service returned an unusable reply"
  kUploadFailed = 106,     // "Upload to the storage provider failed"
  kDownloadFailed = 107,   // "Download from the storage provider failed"
};

// The error of `code` in kCloudAttachmentErrorDomain. Each is made once per process, on
// first use from any thread, and the same object is returned every time. 102 to 104 carry
// no user info; the others carry their localised description.
ErrorRef CloudAttachmentError(CloudAttachmentErrorCode code);

// Whether a URL session ended a transfer because the answer was longer than the request
// allowed: to the cloud operations, an unusable reply.
bool IsOverlongReply(const ErrorRef& error);

}  // namespace vm

#endif  // VM_VMATTACHMENTS_CLOUD_CLOUDATTACHMENTERRORS_H_
