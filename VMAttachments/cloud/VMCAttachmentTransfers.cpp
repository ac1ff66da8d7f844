// Storing, retrieving, deletion and transfer control of the cloud scheme. Placeholders
// until the transfer paths land: each refuses with a clear error and starts nothing.
#include "VMAttachments/cloud/VMCAttachment.h"
#include "host/HXFileAttachmentTransferDelegate.h"
#include "host/HostConstants.h"
#include "host/VMAttachmentTransferManager.h"

namespace vm {
namespace {

ErrorRef NotAvailable(std::string_view what) {
  return Error::WithDescription(
      kVMFileAttachmentDomain, 301,
      std::string("Cloud attachment ") + std::string(what) + " is not available in this build.");
}

}  // namespace

bool VMCAttachment::storeFile(const std::filesystem::path& /*file*/, const std::string& /*at_path*/,
                              const std::shared_ptr<HXFileAttachment>& /*attachment*/,
                              const std::shared_ptr<HXFileAttachmentTransferDelegate>& /*delegate*/,
                              ErrorRef* error) {
  return Fail(error, NotAvailable("storing"));
}

void VMCAttachment::createUploadOperationForTransferObject(
    const std::shared_ptr<VMAttachmentTransferObject>& /*transfer*/,
    const std::shared_ptr<HXFileAttachmentTransferDelegate>& /*delegate*/) {}

bool VMCAttachment::resumeUpload(const std::shared_ptr<VMAttachmentTransferObject>& /*transfer*/) {
  return false;
}

bool VMCAttachment::retrieveAttachment(
    const std::shared_ptr<HXFileAttachment>& /*attachment*/,
    const std::filesystem::path& /*to_path*/,
    const std::shared_ptr<HXFileAttachmentTransferDelegate>& /*delegate*/, ErrorRef* error) {
  return Fail(error, NotAvailable("retrieval"));
}

void VMCAttachment::createDownloadOperationForTransferObject(
    const std::shared_ptr<VMAttachmentTransferObject>& /*transfer*/,
    const std::shared_ptr<HXFileAttachmentTransferDelegate>& /*delegate*/) {}

DataIdentifier VMCAttachment::dataIdentifierForDeletionForAttachment(
    const std::shared_ptr<HXFileAttachment>& attachment) {
  return attachment ? attachment->attachmentUUID().value_or("") : "";
}

bool VMCAttachment::deleteAttachment(
    const std::shared_ptr<HXFileAttachment>& /*attachment*/,
    const DataIdentifier& /*data_identifier*/,
    const std::shared_ptr<HXFileAttachmentTransferDelegate>& /*delegate*/, ErrorRef* error) {
  return Fail(error, NotAvailable("deletion"));
}

bool VMCAttachment::resumeTransfer(
    const std::shared_ptr<VMAttachmentTransferObject>& /*transfer*/) {
  return false;
}

bool VMCAttachment::suspendTransfer(
    const std::shared_ptr<VMAttachmentTransferObject>& /*transfer*/) {
  return false;
}

bool VMCAttachment::cancelTransfer(
    const std::shared_ptr<VMAttachmentTransferObject>& /*transfer*/) {
  return false;
}

std::optional<std::filesystem::path> VMCAttachment::attachmentURL(
    const std::shared_ptr<HXFileAttachment>& /*attachment*/) {
  return std::nullopt;
}

std::optional<Date> VMCAttachment::attachmentModifyDate(
    const std::shared_ptr<HXFileAttachment>& /*attachment*/) {
  return std::nullopt;
}

}  // namespace vm
