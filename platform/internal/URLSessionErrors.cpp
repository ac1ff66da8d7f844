#include "platform/internal/URLSessionErrors.h"

#include <curl/curl.h>
#include <fmt/format.h>

#include <utility>

#include "platform/URLSession.h"

namespace vm {
namespace url_internal {

ErrorRef URLError(std::int64_t code, std::string_view description, const std::string& url,
                  ErrorRef underlying) {
  Error::UserInfo info;
  info.emplace(std::string(NSLocalizedDescriptionKey), std::string(description));
  if (!url.empty()) info.emplace(std::string(NSURLErrorKey), url);
  if (underlying) info.emplace(std::string(NSUnderlyingErrorKey), std::move(underlying));
  return Error::Make(NSURLErrorDomain, code, std::move(info));
}

ErrorRef CancelledError(const std::string& url) {
  return URLError(kURLErrorCancelled, "cancelled", url);
}

}  // namespace url_internal

ErrorRef URLSessionError(int curlCode, const std::string& url, const std::string& detail) {
  std::int64_t code = kURLErrorUnknown;
  std::string_view text = "An unknown error occurred.";
  switch (static_cast<CURLcode>(curlCode)) {
    case CURLE_OPERATION_TIMEDOUT:
      code = kURLErrorTimedOut;
      text = "The request timed out.";
      break;
    case CURLE_UNSUPPORTED_PROTOCOL:
      code = kURLErrorUnsupportedURL;
      text = "unsupported URL";
      break;
    case CURLE_URL_MALFORMAT:
      code = kURLErrorBadURL;
      text = "bad URL";
      break;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      code = kURLErrorCannotFindHost;
      text = "A server with the specified hostname could not be found.";
      break;
    case CURLE_COULDNT_CONNECT:
      code = kURLErrorCannotConnectToHost;
      text = "Could not connect to the server.";
      break;
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      code = kURLErrorNetworkConnectionLost;
      text = "The network connection was lost.";
      break;
    case CURLE_TOO_MANY_REDIRECTS:
      code = kURLErrorHTTPTooManyRedirects;
      text = "too many HTTP redirects";
      break;
    case CURLE_GOT_NOTHING:
    case CURLE_WEIRD_SERVER_REPLY:
      code = kURLErrorBadServerResponse;
      text = "The server returned a bad response.";
      break;
    case CURLE_PEER_FAILED_VERIFICATION:
      code = kURLErrorServerCertificateUntrusted;
      text = "The certificate for this server is invalid.";
      break;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
      code = kURLErrorSecureConnectionFailed;
      text = "An SSL error has occurred and a secure connection to the server cannot be made.";
      break;
    case CURLE_WRITE_ERROR:
      code = kURLErrorCannotWriteToFile;
      text = "The file couldn't be written.";
      break;
    case CURLE_READ_ERROR:
    case CURLE_ABORTED_BY_CALLBACK:
      code = kURLErrorFileDoesNotExist;
      text = "The file couldn't be read.";
      break;
    default:
      break;
  }
  Error::UserInfo info;
  info.emplace(std::string(NSLocalizedDescriptionKey), std::string(text));
  if (!url.empty()) info.emplace(std::string(NSURLErrorKey), url);
  std::string debug = detail.empty() ? curl_easy_strerror(static_cast<CURLcode>(curlCode)) : detail;
  info.emplace("NSDebugDescription", fmt::format("{} (libcurl {})", debug, curlCode));
  return Error::Make(NSURLErrorDomain, code, std::move(info));
}

}  // namespace vm
