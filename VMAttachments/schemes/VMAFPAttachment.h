#ifndef VM_VMATTACHMENTS_SCHEMES_VMAFPATTACHMENT_H_
#define VM_VMATTACHMENTS_SCHEMES_VMAFPATTACHMENT_H_

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "BWFoundation/BWFileManagerAdditions.h"
#include "host/HXFileAttachmentSchemeHandler.h"
#include "platform/Error.h"
#include "platform/KeyedArchive.h"
#include "platform/VolumeWatcher.h"

namespace vm {

class HXFileAttachmentTransferDelegate;

// Keeps attachment files on a file share that it mounts itself (through the process's
// ShareMounter). Stored files live at sharePath / relative folder / attachment name.
//
// Threads: the host calls every operation on its own thread. A store or retrieval returns
// true at once and reports only through the delegate: willSendAttachment and
// willReceiveAttachment on the caller's thread; failures found after the mount and the
// final finishedTransferForAttachment on the main queue; progress and failures of a
// running copy on the copy's background thread. The mount completes on the background
// queue, and the copy is started from there.
//
// The handler must be owned by a std::shared_ptr (the registry's factory makes it so): work
// under way keeps it alive. The mount state (volumePath, sharePath, volumeMounted) is
// written from the background queue; each accessor is atomic on its own, so a reader may
// briefly see a new volumePath with the old sharePath.
class VMAFPAttachment : public HXFileAttachmentSchemeHandler {
 public:
  static constexpr std::string_view kClassName = "VMAFPAttachment";
  // The mount's outcome: success, and an error that may be null even on failure.
  using MountCallback = std::function<void(bool success, ErrorRef error)>;

  explicit VMAFPAttachment(std::shared_ptr<HXFileAttachmentScheme> scheme);
  ~VMAFPAttachment() override;

  static std::string schemeName() { return "Apple File Protocol"; }
  std::string className() const override { return std::string(kClassName); }

  // The settings dictionary, read from the scheme record's infoData on first use (an
  // unreadable archive gives an empty dictionary). Thread-safe.
  ArchivedDictionary connectionInfo();
  std::optional<std::string> connectionInfoString(std::string_view key);
  // Changes the dictionary in memory; nullopt removes the key.
  void setConnectionInfoValue(std::string_view key, std::optional<ArchivedValue> value);

  // Mounts the share named by the "VMAFPAttachmentServerPath" setting, and calls `callback`
  // exactly once: at once on the caller's thread when the volume is already mounted or the
  // request is refused, else on the background queue when the mount completes. A mounted
  // volume that no longer answers (its server process died) counts as unmounted.
  virtual void mountShareWithCallback(MountCallback callback);
  // Waits for mountShareWithCallback in 0.5-second slices of the main queue (see
  // MainQueue::runUntil), with no overall limit: a mount that never completes blocks the
  // caller. On failure writes the mount's error (possibly null) through `error`.
  virtual bool mountShareReturningError(ErrorRef* error);

  bool isVolumeMounted() const { return volume_mounted_.load(); }
  void setVolumeMounted(bool mounted) { volume_mounted_.store(mounted); }
  std::optional<std::filesystem::path> volumePath() const;
  void setVolumePath(std::optional<std::filesystem::path> path);
  std::optional<std::filesystem::path> sharePath() const;
  void setSharePath(std::optional<std::filesystem::path> path);

  // Observer of NSWorkspaceDidUnmountNotification: forgets the mount when its mount point
  // is the one that went away.
  void volumeUnmounted(const Notification& notification);

  bool retrieveAttachment(const std::shared_ptr<HXFileAttachment>& attachment,
                          const std::filesystem::path& to_path,
                          const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate,
                          ErrorRef* error) override;
  bool storeFile(const std::filesystem::path& file, const std::string& at_path,
                 const std::shared_ptr<HXFileAttachment>& attachment,
                 const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate,
                 ErrorRef* error) override;
  std::optional<Date> attachmentModifyDate(
      const std::shared_ptr<HXFileAttachment>& attachment) override;
  // Always nullopt: the share offers no path to open in place.
  std::optional<std::filesystem::path> attachmentURL(
      const std::shared_ptr<HXFileAttachment>& attachment) override;

 protected:
  std::shared_ptr<VMAFPAttachment> sharedSelf();
  // Sends `error` to the delegate's gotError on the main queue; this handler stays alive
  // until it has been delivered.
  void sendGotErrorOnMainQueue(const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate,
                               ErrorRef error);
  // Writes a plain log line: "<description> - <message>".
  void logLine(std::string_view message) const;

 private:
  // Back to the unmounted state: no paths, not mounted, no unmount observer.
  void forgetMount();
  void mountCompleted(int status, const std::vector<std::filesystem::path>& mount_points,
                      const std::optional<std::string>& sub_path, const MountCallback& callback);

  std::mutex info_mu_;
  std::optional<ArchivedDictionary> connection_info_;

  mutable std::mutex state_mu_;
  std::optional<std::filesystem::path> volume_path_;
  std::optional<std::filesystem::path> share_path_;
  std::atomic<bool> volume_mounted_{false};
};

// The status callback of the share schemes' copies: turns the copy's stages into delegate
// messages and, once a copy is complete, finishes it on the main queue (dates and mode of a
// stored file, or the download completion of a retrieved one). `info` is the copy context
// (keys kVMAFPContext...).
void statusCallback(const FSFileOperation& operation, const std::filesystem::path& current_item,
                    int stage, std::int32_t status, const FSOperationStatus* status_dictionary,
                    const BWCopyContext& info);

// The copy context as the schemes build it: delegate, attachment, handler, then the target
// path of a store, or for a retrieval (`target_url` nullopt) the downloading flag. Built
// like a nil-terminated list, it ends at the first absent value: a null delegate gives an
// empty context.
BWCopyContext MakeCopyContext(const std::shared_ptr<HXFileAttachmentTransferDelegate>& delegate,
                              const std::shared_ptr<HXFileAttachment>& attachment,
                              const std::shared_ptr<HXFileAttachmentSchemeHandler>& handler,
                              std::optional<std::filesystem::path> target_url);

// `base` + `relative` the way a URL appends a path: a leading "/" of `relative` does not
// replace `base`, and an empty `relative` adds nothing.
std::filesystem::path AppendPathComponent(const std::filesystem::path& base,
                                          std::string_view relative);

}  // namespace vm

#endif  // VM_VMATTACHMENTS_SCHEMES_VMAFPATTACHMENT_H_
