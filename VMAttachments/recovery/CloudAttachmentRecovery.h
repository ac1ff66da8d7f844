#ifndef VM_VMATTACHMENTS_RECOVERY_CLOUDATTACHMENTRECOVERY_H_
#define VM_VMATTACHMENTS_RECOVERY_CLOUDATTACHMENTRECOVERY_H_

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "host/HXFileAttachment.h"
#include "host/HXObjectContext.h"
#include "platform/Error.h"

namespace vm {

// User-defaults keys read by the missing-attachment detection.
// A comma-separated list of attachment UUIDs that, when present, replaces the computed set.
inline constexpr std::string_view kVMCloudAttachmentRecoveryList = "VMCloudAttachmentRecoveryList";
// YES considers the attachments of every database copy, not only this one's.
inline constexpr std::string_view kVMAttachmentRecoveryIgnoreReplicant =
    "VMAttachmentRecoveryIgnoreReplicant";

using AttachmentList = std::vector<std::shared_ptr<HXFileAttachment>>;

// What the recovery passes may be given beyond the host's context. Every member may be
// left empty.
struct RecoveryOptions {
  // How the passes wait (the upload throttle's 15-second steps, the pause between stores).
  // Empty: the calling thread really sleeps. Tests pass a clock that only records.
  std::function<void(std::chrono::microseconds)> sleep;
  // Called once, on any thread, when a pass ends because a fetch failed. The completion is
  // deliberately never called then; this lets a caller that waits for it stop waiting.
  std::function<void(const ErrorRef&)> abandoned;
  // How many uploads the throttle counts as pending. Empty: the transfer manager's upload
  // transfers. A host that keeps failed uploads registered leaves those out here, or the
  // throttle would wait for uploads that are not running. Called on the pass's own thread.
  std::function<std::size_t()> pending_uploads;
  // Asked before each record, between throttle waits and before the transfers pass; once it
  // answers true the pass stores and queues nothing more and ends by calling `abandoned`
  // with ECANCELED (POSIX domain) instead of the completion. A host that gives up on a pass
  // waits for that call before it lets go of the context. Called on any thread.
  std::function<bool()> cancelled;
};

// The recovery operations on attachment records: find cloud attachments whose bytes never
// reached the service, store them again from the local cache or from a lost upload's
// encrypted work file, and report what is left to the user.
//
// The context passed to the asynchronous passes must outlive them: until their completion
// has run, or until `abandoned` was called (RecoveryOptions::cancelled ends a pass early). Records
// are written on the main queue only, so the host must drain the main queue (MainQueue::shared())
// while a pass runs.
class CloudAttachmentRecovery {
 public:
  // The UUIDs of this copy's cloud attachments that are not uploaded and have no upload
  // waiting in the transfer manager; or, when the user defaults hold
  // kVMCloudAttachmentRecoveryList, that list split at "," exactly as written.
  // Synchronous: one fetch on the calling thread. A failed fetch gives an empty set.
  static std::set<std::string> getMissingAttachmentUUIDsForContext(HXObjectContext& context);

  // recovered: attachments stored again from the cache; unrecovered: the records still
  // missing after both passes (null when none were missing); with_emails: those of them
  // linked to at least one e-mail.
  using RecoveryCompletion = std::function<void(
      std::uint64_t recovered, std::uint64_t unrecovered_count,
      std::shared_ptr<AttachmentList> unrecovered, std::shared_ptr<AttachmentList> with_emails)>;

  // The cloud recovery pass, followed by the transfers pass. Returns at once. When nothing
  // is missing the completion runs before this returns, with 0, 0, null, null; otherwise it
  // runs on the main queue. It is never called when a fetch fails.
  static void recoverCloudAttachmentsWithContext(HXObjectContext* context,
                                                 RecoveryCompletion completion,
                                                 RecoveryOptions options = {});

  // The records still missing (null when none were missing to begin with).
  using TransfersCompletion = std::function<void(std::shared_ptr<AttachmentList> remaining)>;

  // The transfers pass: proves the encrypted work files left in the transfer manager's
  // folder against the missing records' crypted hashes by a trial decryption, and queues
  // each proven file as an upload again. Returns at once; the pass runs on the main queue
  // and calls the completion there (or before returning, with null, when nothing is
  // missing). Never calls it when the fetch fails.
  static void recoverTransfersWithContext(HXObjectContext* context, TransfersCompletion completion,
                                          RecoveryOptions options = {});

  // A new task, inserted in `context` but not saved, that asks the user to re-add the
  // files and is linked to every record of `attachments`, in order.
  static std::shared_ptr<HXTask> recoveryTaskForUnrecoveredAttachments(
      const AttachmentList& attachments, HXObjectContext& context);

  // Where the mail assistant keeps its recovery list for this database:
  // /Library/Mail/Velmora/.QRXAttachmentRecoveryMar2020-<customer ID>-<offset>.plist.
  static std::filesystem::path qrxAttachmentRecoveryURLForObjectContext(HXObjectContext& context);
};

}  // namespace vm

#endif  // VM_VMATTACHMENTS_RECOVERY_CLOUDATTACHMENTRECOVERY_H_
