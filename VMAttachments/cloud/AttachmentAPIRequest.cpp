#include "VMAttachments/cloud/AttachmentAPIRequest.h"

#include <fmt/format.h>

#include "BWFoundation/ServerEnvironment.h"
#include "platform/UniqueID.h"

namespace vm {
namespace {

constexpr double kTimeoutInterval = 60.0;

ErrorRef NotAUUIDError(std::string_view uuid) {
  Error::UserInfo info;
  info.emplace(std::string(NSLocalizedDescriptionKey), "bad URL");
  info.emplace("NSDebugDescription", fmt::format("\"{}\" is not an attachment UUID", uuid));
  return Error::Make(NSURLErrorDomain, kURLErrorBadURL, std::move(info));
}

std::optional<URLRequest> ResourceRequest(std::string_view uuid, ErrorRef* error) {
  std::optional<URL> url = AttachmentResourceURL(uuid);
  if (!url) {
    Fail(error, NotAUUIDError(uuid));
    return std::nullopt;
  }
  return URLRequest(*url, URLRequest::kUseProtocolCachePolicy, kTimeoutInterval);
}

}  // namespace

const URL& AttachmentAPIBaseURL() {
  static const URL base = ServerEnvironment::current().velmoraAPI().URLByAppendingPathComponent(
      "v1/_internal/attachment");
  return base;
}

std::optional<URL> AttachmentResourceURL(std::string_view uuid) {
  std::optional<std::string> canonical = ParseUUID(uuid);
  if (!canonical) return std::nullopt;
  return URL::URLWithString(AttachmentAPIBaseURL().absoluteString() + "/" + *canonical);
}

std::optional<URLRequest> StartUploadRequest::makeRequest(const UploadRequestInfo& info,
                                                          ErrorRef* error) const {
  std::optional<JSONData> body = info.encode(error);
  if (!body) return std::nullopt;
  URLRequest request(AttachmentAPIBaseURL(), URLRequest::kUseProtocolCachePolicy, kTimeoutInterval);
  request.setHTTPMethod("POST");
  request.setHTTPBody(std::move(body));
  return request;
}

std::optional<URLRequest> FinishUploadRequest::makeRequest(const AttachmentInfo& info,
                                                           ErrorRef* error) const {
  std::optional<JSONData> body = info.encode(error);
  if (!body) return std::nullopt;
  std::optional<URLRequest> request = ResourceRequest(info.uuid(), error);
  if (!request) return std::nullopt;
  request->setHTTPMethod("PUT");
  request->setHTTPBody(std::move(body));
  return request;
}

std::optional<URLRequest> DownloadRequest::makeRequest(const std::string& uuid,
                                                       ErrorRef* error) const {
  // The method stays the default GET.
  return ResourceRequest(uuid, error);
}

std::optional<URLRequest> DeletionRequest::makeRequest(const std::string& uuid,
                                                       ErrorRef* error) const {
  std::optional<URLRequest> request = ResourceRequest(uuid, error);
  if (request) request->setHTTPMethod("DELETE");
  return request;
}

}  // namespace vm
