#ifndef VM_VMATTACHMENTS_CLOUD_ATTACHMENTAPIREQUEST_H_
#define VM_VMATTACHMENTS_CLOUD_ATTACHMENTAPIREQUEST_H_

#include <optional>
#include <string>
#include <string_view>

#include "VMAttachments/cloud/AttachmentInfo.h"
#include "platform/Error.h"
#include "platform/URL.h"
#include "platform/URLSession.h"

// The four requests of the attachment web API. Each builds a URLRequest (default cache
// policy, 60-second timeout) from its input; the sender adds the "Content-Type" and
// "Authorization" headers. Building fails only when a body cannot be encoded or a UUID
// cannot become part of a URL, and then returns nullopt with the error in `*error`.
//
// A request object is used by one operation at a time and is not synchronised.

namespace vm {

// ServerEnvironment::current().velmoraAPI() with "v1/_internal/attachment" appended. Made
// once per process, on first use from any thread, and kept.
const URL& AttachmentAPIBaseURL();
// The base URL, "/", and the UUID in upper case. Null when `uuid` is not a UUID.
std::optional<URL> AttachmentResourceURL(std::string_view uuid);

// What every request type has: the status the service answers on success. The loader does
// not compare it: the service's error answers show up as decoding failures instead.
class AttachmentAPIRequest {
 public:
  explicit AttachmentAPIRequest(int successfulResponseCode)
      : successful_response_code_(successfulResponseCode) {}
  int successfulResponseCode() const { return successful_response_code_; }
  void setSuccessfulResponseCode(int code) { successful_response_code_ = code; }

 private:
  int successful_response_code_;
};

// POST to the base URL with {"size": N}; answered with an UploadInfo (201).
class StartUploadRequest : public AttachmentAPIRequest {
 public:
  using RequestDataType = UploadRequestInfo;
  using ResponseDataType = UploadInfo;
  using AttachmentAPIRequest::AttachmentAPIRequest;
  std::optional<URLRequest> makeRequest(const UploadRequestInfo& info, ErrorRef* error) const;
};

// PUT of the info to the info's resource URL; answered with an AttachmentInfo (200).
class FinishUploadRequest : public AttachmentAPIRequest {
 public:
  using RequestDataType = AttachmentInfo;
  using ResponseDataType = AttachmentInfo;
  using AttachmentAPIRequest::AttachmentAPIRequest;
  std::optional<URLRequest> makeRequest(const AttachmentInfo& info, ErrorRef* error) const;
};

// GET of the resource URL, no body; answered with a DownloadInfo (200).
class DownloadRequest : public AttachmentAPIRequest {
 public:
  using RequestDataType = std::string;  // the attachment UUID
  using ResponseDataType = DownloadInfo;
  using AttachmentAPIRequest::AttachmentAPIRequest;
  std::optional<URLRequest> makeRequest(const std::string& uuid, ErrorRef* error) const;
};

// DELETE of the resource URL, no body; any answer with data counts (204).
class DeletionRequest : public AttachmentAPIRequest {
 public:
  using RequestDataType = std::string;  // the attachment UUID
  using ResponseDataType = Empty;
  using AttachmentAPIRequest::AttachmentAPIRequest;
  std::optional<URLRequest> makeRequest(const std::string& uuid, ErrorRef* error) const;
};

}  // namespace vm

#endif  // VM_VMATTACHMENTS_CLOUD_ATTACHMENTAPIREQUEST_H_
