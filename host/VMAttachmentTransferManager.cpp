#include "host/VMAttachmentTransferManager.h"

#include <fmt/format.h>

#include "host/HXFileAttachment.h"
#include "host/HXFileAttachmentScheme.h"
#include "host/HXFileAttachmentSchemeHandler.h"
#include "host/HostConstants.h"

namespace vm {

std::shared_ptr<VMAttachmentTransferObject>
VMAttachmentTransferObject::attachmentObjectWithAttachment(
    std::shared_ptr<HXFileAttachment> attachment,
    std::shared_ptr<HXFileAttachmentTransferDelegate> delegate, std::uint64_t operation_type) {
  std::string id = attachment ? attachment->attachmentID() : "";
  return std::make_shared<VMAttachmentTransferObject>(std::move(attachment), std::move(delegate),
                                                      operation_type, std::move(id));
}

VMAttachmentTransferObject::VMAttachmentTransferObject(
    std::shared_ptr<HXFileAttachment> attachment,
    std::shared_ptr<HXFileAttachmentTransferDelegate> delegate, std::uint64_t operation_type,
    std::string attachment_id)
    : attachment_(std::move(attachment)),
      operation_type_(operation_type),
      delegate_(std::move(delegate)),
      attachment_id_(std::move(attachment_id)) {}

std::filesystem::path VMAttachmentTransferObject::attachmentPath() const {
  std::lock_guard lock(mu_);
  return attachment_path_;
}

void VMAttachmentTransferObject::setAttachmentPath(std::filesystem::path path) {
  std::lock_guard lock(mu_);
  attachment_path_ = std::move(path);
}

std::shared_ptr<HXFileAttachmentTransferDelegate> VMAttachmentTransferObject::delegate() const {
  std::lock_guard lock(mu_);
  return delegate_;
}

void VMAttachmentTransferObject::setDelegate(
    std::shared_ptr<HXFileAttachmentTransferDelegate> delegate) {
  std::lock_guard lock(mu_);
  delegate_ = std::move(delegate);
}

std::string VMAttachmentTransferObject::attachmentID() const {
  std::lock_guard lock(mu_);
  return attachment_id_;
}

void VMAttachmentTransferObject::setAttachmentID(std::string id) {
  std::lock_guard lock(mu_);
  attachment_id_ = std::move(id);
}

std::shared_ptr<Progress> VMAttachmentTransferObject::progress() const {
  std::lock_guard lock(mu_);
  return progress_;
}

void VMAttachmentTransferObject::setProgress(std::shared_ptr<Progress> progress) {
  std::lock_guard lock(mu_);
  progress_ = std::move(progress);
}

VMAttachmentTransferHandlerProtocol* VMAttachmentTransferManager::transferHandlerForTransfer(
    const VMAttachmentTransferObject& transfer, ErrorRef* error) {
  auto refuse = [&](std::string description) -> VMAttachmentTransferHandlerProtocol* {
    Fail(error,
         Error::WithDescription(kVMFileAttachmentDomain, kTransferNoHandlerErrorCode, description));
    return nullptr;
  };
  const std::shared_ptr<HXFileAttachment>& attachment = transfer.attachment();
  if (!attachment) {
    return refuse(
        fmt::format("The attachment of transfer {} no longer exists.", transfer.attachmentID()));
  }
  std::shared_ptr<HXFileAttachmentScheme> scheme = attachment->fileAttachmentScheme();
  std::shared_ptr<HXFileAttachmentSchemeHandler> handler =
      scheme ? scheme->schemeHandler() : nullptr;
  auto* control = dynamic_cast<VMAttachmentTransferHandlerProtocol*>(handler.get());
  if (control == nullptr) {
    return refuse(fmt::format("The scheme of transfer {} cannot control transfers.",
                              transfer.attachmentID()));
  }
  return control;
}

bool VMAttachmentTransferManager::resumeTransfer(
    const std::shared_ptr<VMAttachmentTransferObject>& transfer, ErrorRef* error) {
  VMAttachmentTransferHandlerProtocol* handler = transferHandlerForTransfer(*transfer, error);
  return handler != nullptr && handler->resumeTransfer(transfer);
}

bool VMAttachmentTransferManager::suspendTransfer(
    const std::shared_ptr<VMAttachmentTransferObject>& transfer, ErrorRef* error) {
  VMAttachmentTransferHandlerProtocol* handler = transferHandlerForTransfer(*transfer, error);
  return handler != nullptr && handler->suspendTransfer(transfer);
}

bool VMAttachmentTransferManager::cancelTransfer(
    const std::shared_ptr<VMAttachmentTransferObject>& transfer, ErrorRef* error) {
  VMAttachmentTransferHandlerProtocol* handler = transferHandlerForTransfer(*transfer, error);
  return handler != nullptr && handler->cancelTransfer(transfer);
}

}  // namespace vm
