#ifndef VM_VMATTACHMENTS_CLOUD_ATTACHMENTINFO_H_
#define VM_VMATTACHMENTS_CLOUD_ATTACHMENTINFO_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Error.h"
#include "platform/URL.h"

// The JSON models of the attachment web API. Every model is immutable unless a setter says
// otherwise; none is synchronised, and each is handed from one step of an operation to the
// next, never shared by two threads at once.
//
// decode() reads a JSON object (keys it does not know are ignored) and returns null with
// a decoding error (NSCocoaErrorDomain 4864, or 4865 for a missing key) when the payload
// does not fit. encode() gives the compact JSON text.

namespace vm {

using JSONData = std::vector<std::uint8_t>;

// An attachment's state on the service, sent as its raw text.
enum class State : std::uint8_t { kUploaded, kDeleted, kNew };

std::string_view StateRawValue(State state);  // "uploaded", "deleted", "new"
std::optional<State> StateWithRawValue(std::string_view text);

// Marks the models of a transfer. Nothing depends on it.
class TransferInfo {
 public:
  virtual ~TransferInfo() = default;
};

// The service's record of one stored attachment: {"uuid", "size", "state"}.
class AttachmentInfo : public TransferInfo {
 public:
  // `uuid` in either case; kept in canonical upper case when it is a UUID.
  AttachmentInfo(std::string uuid, std::uint64_t size, State state);

  const std::string& uuid() const { return uuid_; }
  std::uint64_t size() const { return size_; }
  State state() const { return state_; }

  static std::shared_ptr<AttachmentInfo> decode(const JSONData& data, ErrorRef* error);
  std::optional<JSONData> encode(ErrorRef* error) const;

 private:
  std::string uuid_;
  std::uint64_t size_;
  State state_;
};

// The service's answer to the start of an upload: an AttachmentInfo plus "upload_url", the
// presigned address to PUT the bytes to. The key must be there and hold a string; a string
// that is not a URL leaves uploadURL() absent.
class UploadInfo : public AttachmentInfo {
 public:
  UploadInfo(std::string uuid, std::uint64_t size, State state, std::optional<URL> uploadURL);

  const std::optional<URL>& uploadURL() const { return upload_url_; }
  void setUploadURL(std::optional<URL> url) { upload_url_ = std::move(url); }

  static std::shared_ptr<UploadInfo> decode(const JSONData& data, ErrorRef* error);

 private:
  std::optional<URL> upload_url_;
};

// The service's answer to a download request: an AttachmentInfo plus "download_url",
// decoded like "upload_url".
class DownloadInfo : public AttachmentInfo {
 public:
  DownloadInfo(std::string uuid, std::uint64_t size, State state, std::optional<URL> downloadURL);

  const std::optional<URL>& downloadURL() const { return download_url_; }
  void setDownloadURL(std::optional<URL> url) { download_url_ = std::move(url); }

  static std::shared_ptr<DownloadInfo> decode(const JSONData& data, ErrorRef* error);

 private:
  std::optional<URL> download_url_;
};

// The body of the start-of-upload request: {"size": N}.
class UploadRequestInfo : public TransferInfo {
 public:
  explicit UploadRequestInfo(std::uint64_t size) : size_(size) {}
  std::uint64_t size() const { return size_; }
  std::optional<JSONData> encode(ErrorRef* error) const;

 private:
  std::uint64_t size_;
};

// The reply of a request whose answer carries nothing: decoding reads nothing and always
// succeeds.
class Empty {
 public:
  static std::shared_ptr<Empty> decode(const JSONData& data, ErrorRef* error);
};

}  // namespace vm

#endif  // VM_VMATTACHMENTS_CLOUD_ATTACHMENTINFO_H_
