#ifndef VM_VMATTACHMENTS_SCHEMES_VMFILEREFERENCEATTACHMENT_H_
#define VM_VMATTACHMENTS_SCHEMES_VMFILEREFERENCEATTACHMENT_H_

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "host/HXFileAttachmentSchemeHandler.h"

namespace vm {

// The scheme that stores nothing: the attachment points at a file the user keeps in
// place. Storing marks the record uploaded; retrieving checks that the file is there;
// the attachment's URL is the file itself.
//
// Synchronous: every call answers on the caller's thread, and delegate messages are sent
// on that thread before the call returns. No state of its own.
class VMFileReferenceAttachment : public HXFileAttachmentSchemeHandler {
 public:
  static constexpr char kClassName[] = "VMFileReferenceAttachment";
  static std::string schemeName() { return "File Reference"; }
  static bool shouldDisplay() { return false; }

  using HXFileAttachmentSchemeHandler::HXFileAttachmentSchemeHandler;

  std::string className() const override { return kClassName; }

  // Succeeds, with one finished message, when the file exists; `to_path` is ignored.
  // Otherwise fails with code 600 of kVMFileAttachmentDomain, written through `error` and
  // sent as gotError when the delegate implements it.
  bool retrieveAttachment(const std::shared_ptr<HXFileAttachment>& attachment,
                          const std::filesystem::path& to_path,
                          const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate,
                          ErrorRef* error) override;
  // Marks the record uploaded and succeeds; nothing is copied or checked.
  bool storeFile(const std::filesystem::path& file, const std::string& at_path,
                 const std::shared_ptr<HXFileAttachment>& attachment,
                 const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate,
                 ErrorRef* error) override;
  // Always nullopt.
  std::optional<Date> attachmentModifyDate(
      const std::shared_ptr<HXFileAttachment>& attachment) override;
  // The resolved path, whether or not the file exists.
  std::optional<std::filesystem::path> attachmentURL(
      const std::shared_ptr<HXFileAttachment>& attachment) override;
  bool completeAttachmentDownloadForObject(const std::shared_ptr<HXFileAttachment>& attachment,
                                           ErrorRef* error) override;

  // The attachment's path, with a leading "~" expanded only when the path is relative.
  static std::filesystem::path resolvedPathForAttachment(const HXFileAttachment& attachment);
};

// A second class name with exactly the file-reference behaviour.
class VMLocalFileReferenceScheme : public VMFileReferenceAttachment {
 public:
  static constexpr char kClassName[] = "VMLocalFileReferenceScheme";
  using VMFileReferenceAttachment::VMFileReferenceAttachment;
  std::string className() const override { return kClassName; }
};

// "~" → the home folder, "~/x" → home/x, "~user/x" → that user's home/x; anything else,
// and an unknown user, unchanged.
std::string ExpandTildeInPath(const std::string& path);

}  // namespace vm

#endif  // VM_VMATTACHMENTS_SCHEMES_VMFILEREFERENCEATTACHMENT_H_
