#ifndef VM_VMATTACHMENTS_CLOUD_ATTACHMENTAPILOADER_H_
#define VM_VMATTACHMENTS_CLOUD_ATTACHMENTAPILOADER_H_

#include <functional>
#include <memory>
#include <utility>

#include "VMAttachments/cloud/AttachmentAPIRequest.h"
#include "VMAttachments/cloud/CloudAttachmentErrors.h"
#include "platform/URLSession.h"

namespace vm {

// Sends one request of type `Request` and decodes its reply as Request::ResponseDataType.
// Used for exactly one request.
//
// The reply's status is deliberately not compared with the request's successful code: a
// refusal from the service shows only as a decoding failure, and for an Empty reply not at
// all (a DELETE answered with any status and a body counts as done: the service's
// contract).
template <typename Request>
class AttachmentAPILoader {
 public:
  using ResponseDataType = typename Request::ResponseDataType;
  // Exactly one of `value` and `error` is set, except when the session delivered neither
  // data nor an error: then both are null.
  using Completion = std::function<void(std::shared_ptr<ResponseDataType> value, ErrorRef error)>;

  AttachmentAPILoader(std::shared_ptr<Request> request, std::shared_ptr<URLSession> session)
      : request_(std::move(request)), session_(std::move(session)) {}

  const std::shared_ptr<Request>& request() const { return request_; }
  const std::shared_ptr<URLSession>& session() const { return session_; }

  // Starts a data task with `urlRequest` at once. `completion` runs on the session's
  // delegate queue (for the shared session: its own callback queue, not the main queue).
  // `onResponse`, when given, sees every HTTP answer just before `completion` runs, for a
  // caller that wants the status this loader does not judge.
  void load(const URLRequest& urlRequest, Completion completion,
            std::function<void(const HTTPURLResponse&)> onResponse = {}) const {
    auto task = session_->dataTaskWithRequest(
        urlRequest, [completion = std::move(completion), onResponse = std::move(onResponse)](
                        std::optional<JSONData> data, std::shared_ptr<const URLResponse> response,
                        ErrorRef error) {
          if (const auto* http = dynamic_cast<const HTTPURLResponse*>(response.get());
              http != nullptr && onResponse) {
            onResponse(*http);
          }
          // A reply longer than the request allowed is no reply this client can use.
          if (IsOverlongReply(error)) {
            completion(nullptr, CloudAttachmentError(CloudAttachmentErrorCode::kUnusableReply));
            return;
          }
          if (!data || !response) {
            completion(nullptr, std::move(error));
            return;
          }
          // Only HTTP is spoken, so this cannot happen on the wire; a reply this client
          // cannot read still ends the request instead of the process.
          if (dynamic_cast<const HTTPURLResponse*>(response.get()) == nullptr) {
            completion(nullptr, CloudAttachmentError(CloudAttachmentErrorCode::kUnusableReply));
            return;
          }
          ErrorRef decode_error;
          std::shared_ptr<ResponseDataType> value = ResponseDataType::decode(*data, &decode_error);
          if (value) {
            completion(std::move(value), nullptr);
          } else {
            completion(nullptr, std::move(decode_error));
          }
        });
    task->resume();
  }

 private:
  std::shared_ptr<Request> request_;
  std::shared_ptr<URLSession> session_;
};

}  // namespace vm

#endif  // VM_VMATTACHMENTS_CLOUD_ATTACHMENTAPILOADER_H_
