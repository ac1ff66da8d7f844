#ifndef VM_HOST_HXFILEATTACHMENTTRANSFERDELEGATE_H_
#define VM_HOST_HXFILEATTACHMENTTRANSFERDELEGATE_H_

#include <cstdint>
#include <memory>

#include "platform/Error.h"

namespace vm {

class HXFileAttachment;
class HXFileAttachmentSchemeHandler;
class Progress;

// Receives the progress and outcome of one transfer. Each scheme says on which thread
// each message arrives. `handler` is the sender, valid for the duration of the call only.
//
// Every message here is required. The one optional message, gotError, lives in
// HXFileAttachmentErrorReceiver: a delegate that wants it derives from both.
class HXFileAttachmentTransferDelegate {
 public:
  virtual ~HXFileAttachmentTransferDelegate() = default;

  virtual void willReceiveAttachment(HXFileAttachmentSchemeHandler* handler,
                                     const std::shared_ptr<HXFileAttachment>& attachment,
                                     const std::shared_ptr<Progress>& progress) = 0;
  virtual void willSendAttachment(HXFileAttachmentSchemeHandler* handler,
                                  const std::shared_ptr<HXFileAttachment>& attachment) = 0;
  // The spelling "transfered" is the host's interface and stays.
  virtual void transferProgressUpdate(double fraction, std::int64_t transfered,
                                      std::int64_t total) = 0;
  virtual void finishedTransferForAttachment(
      HXFileAttachmentSchemeHandler* handler,
      const std::shared_ptr<HXFileAttachment>& attachment) = 0;
  virtual void gotCriticalError(HXFileAttachmentSchemeHandler* handler,
                                const ErrorRef& error) = 0;
};

// The optional gotError message.
class HXFileAttachmentErrorReceiver {
 public:
  virtual ~HXFileAttachmentErrorReceiver() = default;
  virtual void gotError(HXFileAttachmentSchemeHandler* handler, const ErrorRef& error) = 0;
};

// Whether `delegate` implements gotError (the question "responds to selector" asks).
bool RespondsToGotError(const HXFileAttachmentTransferDelegate* delegate);

// Sends gotError when the delegate implements it; returns whether it was sent. A null
// delegate receives nothing.
bool SendGotError(HXFileAttachmentTransferDelegate* delegate,
                  HXFileAttachmentSchemeHandler* handler, const ErrorRef& error);

}  // namespace vm

#endif  // VM_HOST_HXFILEATTACHMENTTRANSFERDELEGATE_H_
