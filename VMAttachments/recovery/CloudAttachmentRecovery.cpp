#include "VMAttachments/recovery/CloudAttachmentRecovery.h"

#include <fmt/format.h>

#include <chrono>
#include <memory>
#include <system_error>
#include <utility>

#include "VMAttachments/recovery/UploadThrottle.h"
#include "VMAttachments/recovery/internal/RecoverySupport.h"
#include "VMAttachments/schemes/VMAttachmentSchemesBundle.h"
#include "host/Fetch.h"
#include "host/HXAttachmentCache.h"
#include "host/HXFileAttachmentScheme.h"
#include "host/VMAttachmentTransferManager.h"
#include "platform/Operation.h"
#include "platform/SafeNames.h"
#include "platform/UniqueID.h"
#include "platform/UserDefaults.h"

namespace vm {

using recovery_internal::Describe;
using recovery_internal::Log;
using recovery_internal::LogError;

namespace {

// The pass gives the host's cache this many times its size, and leaves it so.
constexpr std::uint64_t kCacheSizeFactor = 3;
constexpr std::chrono::microseconds kPauseBetweenStores{500};
constexpr int kSharedFileCacheType = 1;

std::set<std::string> SplitRecoveryList(const std::string& list) {
  std::set<std::string> components;
  std::size_t start = 0;
  while (true) {
    std::size_t comma = list.find(',', start);
    components.insert(list.substr(start, comma - start));
    if (comma == std::string::npos) return components;
    start = comma + 1;
  }
}

// The cached copy of a record: its cache folder with its name appended. The UUID (which
// names the folder) and the name come from the database: either one that is not one entry
// of a folder names no cached copy, so that the pass never stores a file from elsewhere.
std::optional<std::filesystem::path> CachedCopyPath(HXAttachmentCache& cache,
                                                    const HXFileAttachment& record) {
  const std::string name = record.name();
  if (CheckFileName(record.attachmentUUID().value_or(""), "attachment UUID") ||
      CheckFileName(name, "attachment name")) {
    return std::nullopt;
  }
  const std::filesystem::path folder = cache.absoluteFilePathForObject(record);
  if (folder.empty()) return std::nullopt;
  return folder / name;
}

bool FileExists(const std::filesystem::path& path) {
  std::error_code ec;
  return std::filesystem::exists(path, ec);
}

bool IsLinkedToEmail(HXObjectContext& context, const HXFileAttachment& record) {
  BWPFetchRequest request({std::string(HXEmail::kEntityName), nullptr, {}});
  request.setRawSQLWhere(
      "_rowid IN (SELECT emailID FROM FileAttachmentEmailJoin WHERE fileAttachmentID = ?)",
      {static_cast<std::int64_t>(record.primaryKeyValue())});
  request.setOverridePermissionsSystem(true);
  request.setOverrideTrashSystem(true);
  return !context.resultsForFetchRequest(request).empty();
}

// The state one cloud recovery pass shares between its private queue and the main queue.
struct CachePass {
  HXObjectContext* context;
  RecoveryOptions options;
  CloudAttachmentRecovery::RecoveryCompletion completion;
  std::shared_ptr<HXAttachmentCache> cache;
  AttachmentList records;
  // Written and read on the main queue only.
  AttachmentList still_missing;
  std::uint64_t recovered = 0;

  bool cancelled() const { return options.cancelled && options.cancelled(); }

  // Runs on the main queue: the record is stored anew under a new identity.
  void store(const std::shared_ptr<HXFileAttachment>& record, const std::filesystem::path& copy) {
    if (cancelled()) return;
    record->setUploaded(false);
    record->setTemporaryPath(copy.string());
    record->setAttachmentUUID(MakeUniqueID());
    ErrorRef error;
    if (record->storeAttachmentWithError(&error)) {
      Log(fmt::format("found: {}", record->description()));
      ++recovered;
      std::erase(still_missing, record);
    } else {
      LogError(fmt::format("error storing {}: {}", record->description(), Describe(error)));
    }
  }

  // Runs on the pass's private queue.
  void run(const std::shared_ptr<CachePass>& self, std::shared_ptr<Operation> final_operation) {
    Log("Beginning file attachments recovery pass...");
    UploadThrottle throttle(context->attachmentTransferManager(), options.sleep,
                            options.pending_uploads, options.cancelled);
    for (const std::shared_ptr<HXFileAttachment>& record : records) {
      throttle.waitForRoom();
      if (cancelled()) break;
      std::optional<std::filesystem::path> copy =
          cache ? CachedCopyPath(*cache, *record) : std::nullopt;
      if (!copy || !FileExists(*copy)) {
        LogError(fmt::format("not in file attachments cache: {}", record->description()));
        continue;
      }
      OperationQueue::mainQueue().addOperationWithBlock(
          [self, record, path = *copy] { self->store(record, path); });
      recovery_internal::SleepWith(options.sleep, kPauseBetweenStores);
    }
    Log("Finished file attachments recovery pass...");
    OperationQueue::mainQueue().addOperation(std::move(final_operation));
  }

  // Runs on the main queue, behind every store: the transfers pass, then the report.
  void finish(const std::shared_ptr<CachePass>& self) {
    if (cancelled()) {
      Log("Recovery pass cancelled");
      if (options.abandoned) options.abandoned(PosixError(ECANCELED));
      return;
    }
    CloudAttachmentRecovery::recoverTransfersWithContext(
        context,
        [self](std::shared_ptr<AttachmentList> remaining) {
          auto with_emails = std::make_shared<AttachmentList>();
          if (remaining) {
            for (const std::shared_ptr<HXFileAttachment>& record : *remaining) {
              if (IsLinkedToEmail(*self->context, *record)) with_emails->push_back(record);
            }
          }
          if (self->completion) {
            self->completion(self->recovered, remaining ? remaining->size() : 0, remaining,
                             with_emails);
          }
        },
        options);
  }
};

}  // namespace

std::set<std::string> CloudAttachmentRecovery::getMissingAttachmentUUIDsForContext(
    HXObjectContext& context) {
  std::shared_ptr<UserDefaults> defaults = UserDefaults::standard();
  // A hand-made list replaces the computation and is taken exactly as written.
  if (std::optional<std::string> list = defaults->stringForKey(kVMCloudAttachmentRecoveryList)) {
    return SplitRecoveryList(*list);
  }

  std::shared_ptr<HXFileAttachmentScheme> cloud_scheme = context.cloudStorageScheme();
  if (!cloud_scheme) return {};
  BDQualifierRef qualifier = BDAndQualifier::andQualifierWithQualifiers({
      BDKeyValueQualifier::qualifierWhereValueOfKeyIsNotEqualTo("uploaded", std::int64_t{1}),
      BDKeyValueQualifier::qualifierWhereValueOfKey(
          "fileAttachmentSchemeID", static_cast<std::int64_t>(cloud_scheme->primaryKeyValue())),
  });
  BWPFetchRequest request({std::string(HXFileAttachment::kEntityName), qualifier, {}});
  request.setOverridePermissionsSystem(true);
  request.setOverrideTrashSystem(true);
  FetchResults records = context.resultsForFetchRequest(request);

  // Each copy of a shared database hands out keys whose remainder by 1000 is its offset;
  // a copy recovers only what it created itself.
  const bool every_copy = defaults->boolForKey(kVMAttachmentRecoveryIgnoreReplicant);
  const std::int64_t offset = context.primaryKeyOffset();

  std::set<std::string> queued;
  if (VMAttachmentTransferManager* manager = context.attachmentTransferManager()) {
    for (const auto& transfer : manager->transfersForOperationType(kTransferOperationUpload)) {
      queued.insert(transfer->attachmentID());
    }
  }

  std::set<std::string> missing;
  for (const std::shared_ptr<HXRecord>& record : records) {
    if (!every_copy && static_cast<std::int64_t>(record->primaryKeyValue() % 1000) != offset) {
      continue;
    }
    const auto* attachment = dynamic_cast<const HXFileAttachment*>(record.get());
    std::optional<std::string> uuid = attachment ? attachment->attachmentUUID() : std::nullopt;
    // A record without a UUID cannot be fetched by one, nor stored again.
    if (!uuid || queued.contains(*uuid)) continue;
    missing.insert(*uuid);
  }
  return missing;
}

void CloudAttachmentRecovery::recoverCloudAttachmentsWithContext(HXObjectContext* context,
                                                                 RecoveryCompletion completion,
                                                                 RecoveryOptions options) {
  Log("Starting transfer and file attachment caches recovery pass...");
  std::set<std::string> missing = getMissingAttachmentUUIDsForContext(*context);
  Log(fmt::format("Found {} missing attachment UUID's", missing.size()));
  if (missing.empty()) {
    if (completion) completion(0, 0, nullptr, nullptr);
    return;
  }

  std::shared_ptr<HXAttachmentCache> cache = HXAttachmentCache::sharedCache();
  if (!cache) cache = HXAttachmentCache::setupSharedFileCacheOfType(kSharedFileCacheType);
  // Stored copies come out of the cache; a larger cache keeps them from being evicted
  // while the pass runs. Deliberately left raised afterwards.
  if (cache) cache->setMaxCacheSize(cache->maxCacheSize() * kCacheSizeFactor);

  recovery_internal::FetchAttachmentsWithUUIDs(
      *context, missing, {"name", "attachmentUUID"},
      [context, completion = std::move(completion), options = std::move(options), cache](
          FetchResults results, ErrorRef error) mutable {
        if (results.empty() && error) {
          LogError(fmt::format("Error performing req:{}", Describe(error)));
          if (options.abandoned) options.abandoned(error);
          return;
        }
        auto pass = std::make_shared<CachePass>();
        pass->context = context;
        pass->options = std::move(options);
        pass->completion = std::move(completion);
        pass->cache = std::move(cache);
        for (std::shared_ptr<HXRecord>& record : results) {
          if (auto attachment = std::dynamic_pointer_cast<HXFileAttachment>(record)) {
            pass->records.push_back(std::move(attachment));
          }
        }
        pass->still_missing = pass->records;

        auto final_operation = std::make_shared<BlockOperation>([pass] { pass->finish(pass); });
        auto cache_operation = std::make_shared<BlockOperation>(
            [pass, final_operation] { pass->run(pass, final_operation); });
        // The queue may go away at once: its operation runs on without it.
        OperationQueue private_queue;
        private_queue.addOperation(std::move(cache_operation));
      });
}

std::shared_ptr<HXTask> CloudAttachmentRecovery::recoveryTaskForUnrecoveredAttachments(
    const AttachmentList& attachments, HXObjectContext& context) {
  auto task = std::dynamic_pointer_cast<HXTask>(
      context.createObjectForEntityNamed(HXTask::kEntityName, true));
  if (!task) return nullptr;
  task->setTitle(VMLocalizedString("Re-add Files to Velmora"));
  std::string details = VMLocalizedString(
      "%@ files could not be found and will need to be re-added to Velmora. The affected "
      "files have been linked to this task. For each affected file, navigate to the linked "
      "item and re-add the file to Velmora. You may then remove the missing version of the "
      "file.\n\nIf you need any help, you can contact us using the menu item Help > Contact "
      "Support.");
  if (std::size_t at = details.find("%@"); at != std::string::npos) {
    details.replace(at, 2, std::to_string(attachments.size()));
  }
  task->setDetails(std::move(details));
  task->setDueDate(std::chrono::duration_cast<std::chrono::seconds>(
                       std::chrono::system_clock::now().time_since_epoch())
                       .count());
  context.removeTaskFromInboxList(*task);
  context.addTaskToWorklist(*task);
  for (const std::shared_ptr<HXFileAttachment>& attachment : attachments) {
    context.linkObject(*task, *attachment);
  }
  return task;
}

std::filesystem::path CloudAttachmentRecovery::qrxAttachmentRecoveryURLForObjectContext(
    HXObjectContext& context) {
  return fmt::format("/Library/Mail/Velmora/.QRXAttachmentRecoveryMar2020-{}-{}.plist",
                     context.databaseIdentifier().customerID, context.primaryKeyOffset());
}

}  // namespace vm
