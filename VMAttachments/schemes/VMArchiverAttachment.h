#ifndef VM_VMATTACHMENTS_SCHEMES_VMARCHIVERATTACHMENT_H_
#define VM_VMATTACHMENTS_SCHEMES_VMARCHIVERATTACHMENT_H_

#include <filesystem>
#include <optional>
#include <string>

#include "VMAttachments/schemes/VMAFPAttachment.h"

namespace vm {

// Keeps attachment files in a storage folder that is reachable on this machine already (a
// local folder or a volume someone else mounted), or failing that, on the share named by
// the server setting, which it mounts through its base class. A stored file lives at
// storage folder / relative folder / name; a retrieval looks for the attachment's own
// attachmentPath under the folder, then under "/Volumes" + folder, then on the share.
//
// Threads: as VMAFPAttachment, except that a store, and a retrieval from a folder that is
// reachable, start their copy on the caller's thread and report a failure to start
// directly there (and through the return value). The setters save the scheme record at
// once and belong on the host's thread.
class VMArchiverAttachment : public VMAFPAttachment {
 public:
  static constexpr std::string_view kClassName = "VMArchiverAttachment";

  using VMAFPAttachment::VMAFPAttachment;

  static std::string schemeName() { return "Archived Attachment"; }
  static bool shouldDisplay() { return false; }
  std::string className() const override { return std::string(kClassName); }

  // Whether the storage location is reachable without mounting: a mount point is known,
  // or the storage folder exists (it then becomes the volumePath).
  bool isShareAlreadyAvailable();

  void mountShareWithCallback(MountCallback callback) override;
  bool mountShareReturningError(ErrorRef* error) override;

  bool retrieveAttachment(const std::shared_ptr<HXFileAttachment>& attachment,
                          const std::filesystem::path& to_path,
                          const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate,
                          ErrorRef* error) override;
  bool storeFile(const std::filesystem::path& file, const std::string& at_path,
                 const std::shared_ptr<HXFileAttachment>& attachment,
                 const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate,
                 ErrorRef* error) override;
  // Nullopt unless a share is mounted: a storage folder that is merely reachable does not
  // count, so for a local folder there is no date.
  std::optional<Date> attachmentModifyDate(
      const std::shared_ptr<HXFileAttachment>& attachment) override;
  std::optional<std::filesystem::path> attachmentURL(
      const std::shared_ptr<HXFileAttachment>& attachment) override;

  // Archives the settings into the scheme record's infoData and saves the record's context.
  void save();
  // The storage folder, possibly percent-encoded; empty when unset.
  std::string shareFolderPath();
  void setShareFolderPath(const std::string& path);
  // The share URL; empty when unset.
  std::string shareServerURL();
  void setShareServerURL(const std::string& url);

 private:
  bool copyFoundSource(const std::filesystem::path& source,
                       const std::shared_ptr<HXFileAttachment>& attachment,
                       const std::filesystem::path& to_path,
                       const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate,
                       ErrorRef* error);
};

}  // namespace vm

#endif  // VM_VMATTACHMENTS_SCHEMES_VMARCHIVERATTACHMENT_H_
