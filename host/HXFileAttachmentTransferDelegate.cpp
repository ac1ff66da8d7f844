#include "host/HXFileAttachmentTransferDelegate.h"

namespace vm {

bool RespondsToGotError(const HXFileAttachmentTransferDelegate* delegate) {
  return dynamic_cast<const HXFileAttachmentErrorReceiver*>(delegate) != nullptr;
}

bool SendGotError(HXFileAttachmentTransferDelegate* delegate,
                  HXFileAttachmentSchemeHandler* handler, const ErrorRef& error) {
  auto* receiver = dynamic_cast<HXFileAttachmentErrorReceiver*>(delegate);
  if (receiver == nullptr) return false;
  receiver->gotError(handler, error);
  return true;
}

}  // namespace vm
