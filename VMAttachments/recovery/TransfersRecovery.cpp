// The transfers recovery pass: encrypted work files that a lost upload left in the
// transfer manager's folder are matched to missing records by hash, proven by a trial
// decryption and queued as uploads again.

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

#include "VMAttachments/archive/BWFileWrapperAdditions.h"
#include "VMAttachments/cloud/VMCAttachment.h"
#include "VMAttachments/cloud/VMCWorkFiles.h"
#include "VMAttachments/recovery/CloudAttachmentRecovery.h"
#include "VMAttachments/recovery/internal/FileDigest.h"
#include "VMAttachments/recovery/internal/RecoverySupport.h"
#include "VMAttachments/recovery/internal/TrialDecryption.h"
#include "host/HostConstants.h"
#include "host/VMAttachmentTransferManager.h"
#include "platform/Operation.h"
#include "platform/OwnerLock.h"
#include "platform/UniqueID.h"

namespace vm {

using recovery_internal::Describe;
using recovery_internal::Log;
using recovery_internal::LogError;

namespace {

constexpr char kCryptFileName[] = "crypt";

// Crypt file URL -> SHA-1 of its bytes. Ordered, so that a record meets the candidates
// in the same order on every run.
using HashIndex = std::map<std::filesystem::path, Sha1Digest>;

// Every non-hidden folder directly below `basepath` that holds a regular file "crypt".
// The crypt file must be the folder's own: a symbolic link could make the pass read, and
// queue, a file that lies elsewhere.
HashIndex BuildHashIndex(const std::filesystem::path& basepath) {
  HashIndex index;
  std::error_code ec;
  std::filesystem::directory_iterator entries(basepath, ec);
  if (ec) return index;
  for (const std::filesystem::directory_entry& entry : entries) {
    const std::string name = entry.path().filename().string();
    if (name.empty() || name.front() == '.') continue;
    if (!entry.is_directory(ec) || entry.is_symlink(ec)) continue;
    std::filesystem::path crypt = entry.path() / kCryptFileName;
    if (!std::filesystem::is_regular_file(std::filesystem::symlink_status(crypt, ec))) continue;
    ErrorRef error;
    std::optional<Sha1Digest> digest = Sha1OfFile(crypt, &error);
    if (!digest) {
      LogError(fmt::format("Could not open {} for reading the hash - {}",
                           FileURLString(entry.path()), Describe(error)));
      continue;
    }
    index.emplace(std::move(crypt), *digest);
  }
  return index;
}

bool DigestMatches(const Sha1Digest& digest, const Bytes& stored) {
  return stored.size() >= digest.size() && std::equal(digest.begin(), digest.end(), stored.begin());
}

std::string DescribeUserInfo(const Error::UserInfo& user_info) {
  std::string text = "{";
  for (const auto& [key, value] : user_info) {
    text += fmt::format(" {} = ", key);
    if (const auto* s = std::get_if<std::string>(&value)) {
      text += fmt::format("\"{}\";", *s);
    } else if (const auto* n = std::get_if<std::int64_t>(&value)) {
      text += fmt::format("{};", *n);
    } else if (const auto* list = std::get_if<Error::Numbers>(&value)) {
      text += fmt::format("({});", fmt::join(*list, ", "));
    } else if (const auto* e = std::get_if<ErrorRef>(&value)) {
      text += fmt::format("{};", Describe(*e));
    }
  }
  return text + " }";
}

// Decrypts `crypt` into a scratch file with the record's scheme handler. True when the
// decryption answered YES without an error: the file is the record's.
bool ProveByTrialDecryption(const std::shared_ptr<HXFileAttachment>& record,
                            const std::filesystem::path& crypt) {
  std::error_code ec;
  std::filesystem::path folder = std::filesystem::temp_directory_path(ec) / MakeUniqueID();
  // Held until the folder is gone, so that a process killed while it decrypts leaves the
  // folder to the next one's reclaiming (ReclaimAbandonedWorkFiles).
  ErrorRef lock_error;
  OwnerLock owner = ec ? OwnerLock() : OwnerLock::CreateFolder(folder, &lock_error);
  if (!owner.held()) {
    Log(fmt::format("Could not create test decrypt path at {}", FileURLString(folder)));
    return false;
  }
  std::filesystem::path scratch = folder / kTrialDecryptionFileName;
  if (!recovery_internal::CreateEmptyFile(scratch)) {
    Log(fmt::format("Could not create test decrypt file at {}", FileURLString(scratch)));
    std::filesystem::remove(folder, ec);
    return false;
  }

  ErrorRef error;
  bool decrypted = false;
  bool threw = false;
  try {
    decrypted = recovery_internal::DecryptForTrial(record, crypt, scratch, &error);
  } catch (const std::exception& exception) {
    threw = true;
    Log(fmt::format("Exception trying to process attachment {} - {}",
                    record->attachmentUUID().value_or("(null)"), exception.what()));
  } catch (...) {
    // Whatever a scheme handler throws fails this candidate only, never the whole pass.
    threw = true;
    Log(fmt::format("Exception trying to process attachment {} - (unknown exception)",
                    record->attachmentUUID().value_or("(null)")));
  }
  std::filesystem::remove(scratch, ec);
  // Left behind it would be an empty folder per candidate in the temporary directory.
  std::filesystem::remove(folder, ec);

  if (decrypted && !threw) {
    if (!error) return true;
    const Error::Numbers* problems = error->numbersForKey(kVMAttachmentHashesErrorKey);
    if (problems != nullptr && !problems->empty()) {
      Log(fmt::format("Hashes did not match for {} - {}",
                      record->attachmentUUID().value_or("(null)"),
                      DescribeUserInfo(error->userInfo())));
    } else {
      Log(fmt::format("Got unknown error verifying hashes: {}", Describe(error)));
    }
    return false;
  }
  Log(fmt::format("Could not process the file for verification: {}",
                  threw ? std::string("(null)") : Describe(error)));
  return false;
}

// Puts a proven crypt file back on the upload queue for `record`.
void Requeue(VMAttachmentTransferManager& manager, const std::shared_ptr<HXFileAttachment>& record,
             const std::filesystem::path& crypt) {
  auto transfer = VMAttachmentTransferObject::attachmentObjectWithAttachment(
      record, nullptr, kTransferOperationUpload);
  transfer->setAttachmentPath(crypt);
  // The manager uses its collection from threads of its own.
  std::lock_guard lock(manager.transferObjectsMutex());
  Log(fmt::format("Added {} to upload queue", FileURLString(crypt)));
  manager.addTransferObjectLocked(std::move(transfer));
}

void RunTransfersPass(HXObjectContext* context, FetchResults results, const ErrorRef& error,
                      const CloudAttachmentRecovery::TransfersCompletion& completion,
                      const RecoveryOptions& options) {
  if (results.empty() && error) {
    LogError(fmt::format("Error Fetch Request for missing attachments:{}", Describe(error)));
    if (options.abandoned) options.abandoned(error);
    return;
  }
  VMAttachmentTransferManager* manager = context->attachmentTransferManager();
  HashIndex index = manager ? BuildHashIndex(manager->basepath()) : HashIndex();

  auto remaining = std::make_shared<AttachmentList>();
  AttachmentList records;
  for (std::shared_ptr<HXRecord>& record : results) {
    if (auto attachment = std::dynamic_pointer_cast<HXFileAttachment>(record)) {
      records.push_back(std::move(attachment));
    }
  }
  *remaining = records;

  for (const std::shared_ptr<HXFileAttachment>& record : records) {
    if (options.cancelled && options.cancelled()) {
      Log("Transfers recovery pass cancelled");
      if (options.abandoned) options.abandoned(PosixError(ECANCELED));
      return;
    }
    std::optional<KeyedValue> stored =
        record->objectForKeyedSubscript(kHXFileAttachmentCryptedHash);
    const Bytes* stored_hash = stored ? std::get_if<Bytes>(&*stored) : nullptr;
    if (stored_hash == nullptr || stored_hash->empty()) {
      Log(fmt::format("no stored crypted hash on {}", record->description()));
      continue;
    }
    std::vector<std::filesystem::path> candidates;
    for (const auto& [crypt, digest] : index) {
      if (DigestMatches(digest, *stored_hash)) candidates.push_back(crypt);
    }
    for (const std::filesystem::path& crypt : candidates) {
      if (!ProveByTrialDecryption(record, crypt)) continue;
      Requeue(*manager, record, crypt);
      record->setUploaded(false);
      std::erase(*remaining, record);
      // One encrypted file is never given to two records.
      index.erase(crypt);
      break;
    }
  }
  Log("Finished transfers recovery pass...");
  if (completion) completion(remaining);
}

}  // namespace

void CloudAttachmentRecovery::recoverTransfersWithContext(HXObjectContext* context,
                                                          TransfersCompletion completion,
                                                          RecoveryOptions options) {
  // Asked again: the cache pass's stores have been made by now.
  std::set<std::string> missing = getMissingAttachmentUUIDsForContext(*context);
  if (missing.empty()) {
    if (completion) completion(nullptr);
    return;
  }
  Log("Starting transfers recovery pass...");
  Log("Fetching FileAttachments from Database");
  recovery_internal::FetchAttachmentsWithUUIDs(
      *context, missing, {},
      [context, completion = std::move(completion), options = std::move(options)](
          FetchResults results, ErrorRef error) mutable {
        // The whole pass, hashing included, runs on the main queue.
        OperationQueue::mainQueue().addOperationWithBlock(
            [context, completion = std::move(completion), options = std::move(options),
             results = std::move(results), error = std::move(error)]() mutable {
              RunTransfersPass(context, std::move(results), error, completion, options);
            });
      });
}

}  // namespace vm
