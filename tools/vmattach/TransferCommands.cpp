#include "tools/vmattach/TransferCommands.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <list>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>
#include <utility>

#include "VMAttachments/cloud/VMCWorkFiles.h"
#include "VMAttachments/schemes/VMFileReferenceAttachment.h"
#include "host/HXAttachmentCache.h"
#include "host/HXFileAttachmentScheme.h"
#include "host/HXFileAttachmentSchemeHandler.h"
#include "host/HostConstants.h"
#include "host/sqlite/SqliteObjectContext.h"
#include "host/sqlite/SqliteTransferManager.h"
#include "platform/DispatchQueue.h"
#include "platform/OwnerLock.h"
#include "platform/Progress.h"
#include "platform/SafeNames.h"
#include "platform/ScopedFd.h"
#include "platform/UniqueID.h"
#include "tools/vmattach/AttachmentIO.h"
#include "tools/vmattach/CopyIntoPlace.h"
#include "tools/vmattach/Host.h"

namespace vm::vmattach {
namespace {

namespace fs = std::filesystem;
using TransferList = std::vector<std::shared_ptr<VMAttachmentTransferObject>>;

constexpr auto kTransferTimeout = std::chrono::seconds(600);
// The partial copies vmattach makes in the cache: a store's staged copy, and an older
// copy a retrieval sets aside; each carries its writer's OwnerLock.
constexpr char kStagingPrefix[] = ".store-";
constexpr char kAsideSuffix[] = ".previous";

void PrintJSON(const nlohmann::json& value) { std::cout << value.dump(2) << "\n"; }

// Reports `what` as ReportFailure does, and returns false.
template <typename What>
bool Refused(const What& what) {
  ReportFailure(what);
  return false;
}

// Reports `what` as ReportFailure does, for a retrieval that made no copy.
template <typename What>
std::nullopt_t NotRetrieved(const What& what) {
  ReportFailure(what);
  return std::nullopt;
}

std::string OperationName(std::uint64_t type) {
  switch (type) {
    case kTransferOperationUpload:
      return "upload";
    case kTransferOperationDownload:
      return "download";
    case kTransferOperationDelete:
      return "delete";
    default:
      return fmt::format("type {}", type);
  }
}

// The attachment id a transfer belongs to; 0 when its record is gone.
std::uint64_t AttachmentKey(const VMAttachmentTransferObject& transfer) {
  return transfer.attachment() ? transfer.attachment()->primaryKeyValue() : 0;
}

SqliteTransferManager& Manager(SqliteObjectContext& context) {
  return *static_cast<SqliteTransferManager*>(context.attachmentTransferManager());
}

// The transfers of attachment `id`, or all of them when `id` is 0.
TransferList TransfersOf(SqliteObjectContext& context, std::uint64_t id) {
  TransferList out;
  for (const auto& transfer : Manager(context).transferObjects()) {
    if (id == 0 || AttachmentKey(*transfer) == id) out.push_back(transfer);
  }
  return out;
}

std::string ResumeHint(std::uint64_t id) {
  return fmt::format("the transfer is kept; resume it with: vmattach transfers resume {}", id);
}

// One outcome per resumed transfer: null error when it finished.
struct Outcome {
  std::shared_ptr<VMAttachmentTransferObject> transfer;
  ErrorRef error;
};

// Resumes `transfers` and drains the main queue (where the schemes report) until each has
// an outcome or the time is up, drawing one bar for the bytes of all of them. A transfer
// still running at the deadline is reported as timed out.
std::vector<Outcome> ResumeAndWait(SqliteObjectContext& context, const TransferList& transfers,
                                   const std::string& label,
                                   std::shared_ptr<HXFileAttachmentTransferDelegate> observer) {
  auto outcomes = std::make_shared<std::map<const VMAttachmentTransferObject*, ErrorRef>>();
  auto mu = std::make_shared<std::mutex>();
  Manager(context).resumeTransfers(
      transfers,
      [outcomes, mu](const auto& transfer, const ErrorRef& error) {
        std::lock_guard lock(*mu);
        outcomes->emplace(transfer.get(), error);
      },
      std::move(observer));
  auto all_reported = [&] {
    std::lock_guard lock(*mu);
    return outcomes->size() == transfers.size();
  };
  ProgressBar bar(label);
  // An upload drops its total to 0 while it confirms; the last real figures stay shown.
  std::int64_t shown_done = 0, shown_total = 0;
  const auto deadline = std::chrono::steady_clock::now() + kTransferTimeout;
  while (!all_reported() && std::chrono::steady_clock::now() < deadline) {
    MainQueue::shared().runUntilCondition(
        all_reported, std::chrono::steady_clock::now() + std::chrono::milliseconds(100));
    std::int64_t done = 0, total = 0;
    for (const auto& transfer : transfers) {
      if (auto progress = transfer->progress(); progress && progress->totalUnitCount() > 0) {
        done += progress->completedUnitCount();
        total += progress->totalUnitCount();
      }
    }
    if (total > 0 && (total != shown_total || done != shown_done)) {
      shown_done = done;
      shown_total = total;
      bar.update(done, total);
    }
  }
  MainQueue::shared().drainPending();
  bar.finish();
  std::vector<Outcome> out;
  std::lock_guard lock(*mu);
  for (const auto& transfer : transfers) {
    auto it = outcomes->find(transfer.get());
    out.push_back({transfer, it != outcomes->end()
                                 ? it->second
                                 : Error::WithDescription(kVMFileAttachmentDomain, ETIMEDOUT,
                                                          "The transfer did not end in time.")});
  }
  return out;
}

// Calls `visit` with a descriptor of each regular file under `root` (a file or a folder),
// never following a link nor waiting on a special file; the first error, of opening or of
// `visit` (an errno value).
template <typename Visit>
std::error_code ForEachFile(const fs::path& root, Visit visit) {
  auto open_and_visit = [&visit](const fs::path& file) {
    int fd = ::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    int failure = fd < 0 ? errno : visit(fd);
    if (fd >= 0) ::close(fd);
    return std::error_code(failure, std::generic_category());
  };
  std::error_code ec;
  if (!fs::is_directory(fs::symlink_status(root, ec))) return open_and_visit(root);
  for (auto it = fs::recursive_directory_iterator(root, ec); !ec && it != fs::end(it);
       it.increment(ec)) {
    if (it->is_regular_file(ec) && !it->is_symlink(ec)) {
      if (std::error_code failure = open_and_visit(it->path())) return failure;
    }
  }
  return ec;
}

// Lets the kernel drop the clean cached pages of the files under `root`. For a large copy
// that is kept but not read soon, so that it does not hold memory a transfer could use.
void ReleaseCachedPages(const fs::path& root) {
  ForEachFile(root, [](int fd) { return ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED); });
}

// Where a retrieval sets aside an attachment's older cached copy.
fs::path AsidePathFor(const fs::path& cached) {
  fs::path aside = cached;
  aside += kAsideSuffix;
  return aside;
}

fs::path CacheFolder(const HXFileAttachment& attachment) {
  auto cache = HXAttachmentCache::sharedCache();
  return cache ? cache->absoluteFilePathForObject(attachment) : fs::path();
}

// Puts back, or removes, an older cached copy that a retrieval set aside and did not live
// to put back or remove.
void ReclaimAside(const fs::path& aside) {
  OwnerLock lock = OwnerLock::Hold(aside, nullptr);
  if (!lock.held()) return;
  std::string name = aside.filename().string();
  name.resize(name.size() - std::strlen(kAsideSuffix));
  const fs::path cached = aside.parent_path() / name;
  std::error_code ec;
  if (fs::exists(fs::symlink_status(cached, ec)) ||
      ::renameat2(AT_FDCWD, aside.c_str(), AT_FDCWD, cached.c_str(), RENAME_NOREPLACE) != 0) {
    fs::remove_all(aside, ec);
  }
}

// Sets an attachment's cached copy aside while a download fills its cache folder, so that
// the download is the only item there and never meets the older copy. A failed download's
// leftovers go and the older copy comes back; a finished one lets the older copy go. The
// copy set aside carries this process's OwnerLock until then, so that no other process
// takes it for abandoned (ReclaimAside puts back one whose process died).
class CachedCopySetAside {
 public:
  // Sets the copy at `cached` aside, if there is one. False with `*error` when an earlier
  // copy set aside is still owned by a live process, or this one cannot be locked.
  bool setAside(const fs::path& cached, ErrorRef* error) {
    cached_ = cached;
    aside_ = AsidePathFor(cached);
    if (!RemoveIfAbandoned(aside_)) return Fail(error, PosixError(EBUSY, aside_));
    std::error_code ec;
    existed_ = fs::exists(fs::symlink_status(cached_, ec));
    if (existed_) {
      lock_ = OwnerLock::Hold(cached_, error);
      if (!lock_.held()) return false;
      set_aside_ = (fs::rename(cached_, aside_, ec), !ec);
      // The older copy only matters if the download fails.
      if (set_aside_) ReleaseCachedPages(aside_);
    }
    active_ = true;
    return true;
  }

  // The download failed: what it left in the cache folder goes (a decrypted copy under a
  // name of its own among it), and the older copy is put back.
  void restore() {
    if (!active_) return;
    active_ = false;
    std::error_code ignored;
    if (set_aside_ || !existed_) fs::remove_all(cached_, ignored);
    if (set_aside_) fs::rename(aside_, cached_, ignored);
  }

  // The download finished: the older copy goes. Freeing a large file's blocks takes a
  // while, so it is done on the thread returned (joined when it goes).
  std::jthread drop() {
    if (!active_ || !set_aside_) return {};
    active_ = false;
    return std::jthread([aside = aside_, lock = std::move(lock_)] {
      std::error_code ignored;
      fs::remove_all(aside, ignored);
    });
  }

 private:
  fs::path cached_;
  fs::path aside_;
  OwnerLock lock_;
  bool existed_ = false;
  bool set_aside_ = false;
  // Set aside, and neither put back nor dropped yet.
  bool active_ = false;
};

int RunList(const GlobalOptions& options) {
  ErrorRef error;
  auto context = OpenHost(options, &error);
  if (!context) return ReportFailure(error);
  nlohmann::json out = nlohmann::json::array();
  for (const auto& transfer : TransfersOf(*context, 0)) {
    std::error_code ec;
    const fs::path path = transfer->attachmentPath();
    std::uintmax_t size = path.empty() ? 0 : fs::file_size(path, ec);
    if (ec) size = 0;
    const std::uint64_t id = AttachmentKey(*transfer);
    if (options.json) {
      out.push_back({{"id", id == 0 ? nlohmann::json(nullptr) : nlohmann::json(id)},
                     {"uuid", transfer->attachmentID()},
                     {"type", OperationName(transfer->operationType())},
                     {"path", path.string()},
                     {"size", size}});
    } else {
      fmt::print("{}\t{}\t{}\t{}\n", id == 0 ? std::string("-") : std::to_string(id),
                 OperationName(transfer->operationType()), size, path.string());
    }
  }
  if (options.json) PrintJSON(out);
  return 0;
}

// After a deletion finished: the row goes, with the attachment's cached copy.
bool ForgetAttachment(SqliteObjectContext& context,
                      const std::shared_ptr<HXFileAttachment>& attachment, ErrorRef* error) {
  if (attachment->attachmentUUID()) {
    context.attachmentTransferManager()->removeTransferForAttachmentIdentifier(
        *attachment->attachmentUUID());
  }
  fs::path cached = CacheFolder(*attachment);
  auto relative = cached.lexically_normal().lexically_relative(context.cacheDirectory());
  if (!cached.empty() && !relative.empty() && relative != "." && *relative.begin() != "..") {
    std::error_code ignored;
    fs::remove_all(cached, ignored);
  }
  return context.deleteAttachment(attachment, error);
}

int RunResume(const GlobalOptions& options, std::uint64_t id) {
  ErrorRef error;
  auto context = OpenHost(options, &error);
  if (!context) return ReportFailure(error);
  ReclaimAbandonedFiles(*context);
  TransferList transfers = TransfersOf(*context, id);
  if (id != 0 && transfers.empty()) {
    return ReportFailure(fmt::format("no transfer for attachment {}", id));
  }
  for (const auto& transfer : transfers) {
    auto scheme = transfer->attachment() ? transfer->attachment()->fileAttachmentScheme() : nullptr;
    if (std::string problem = scheme ? MissingTokenProblem(*scheme) : ""; !problem.empty()) {
      return ReportFailure(problem);
    }
  }
  // A resumed download decrypts into the attachment's cache folder, where an older copy
  // would make it fail; one whose older copy cannot be set aside is not resumed.
  std::map<const VMAttachmentTransferObject*, CachedCopySetAside> set_aside;
  TransferList resumed;
  std::vector<Outcome> refused;
  for (const auto& transfer : transfers) {
    const fs::path cached =
        transfer->operationType() == kTransferOperationDownload && transfer->attachment()
            ? CacheFolder(*transfer->attachment())
            : fs::path();
    ErrorRef aside_error;
    if (!cached.empty() && !set_aside[transfer.get()].setAside(cached, &aside_error)) {
      refused.push_back({transfer, aside_error});
      continue;
    }
    resumed.push_back(transfer);
  }
  std::vector<Outcome> outcomes =
      ResumeAndWait(*context, resumed, fmt::format("{} transfer(s)", resumed.size()), nullptr);
  outcomes.insert(outcomes.end(), refused.begin(), refused.end());
  std::vector<std::jthread> dropping;
  for (const Outcome& outcome : outcomes) {
    auto it = set_aside.find(outcome.transfer.get());
    if (it == set_aside.end()) continue;
    if (outcome.error) {
      it->second.restore();
    } else {
      dropping.push_back(it->second.drop());
    }
  }
  const TransferList still_registered = TransfersOf(*context, 0);
  auto registered = [&](const std::shared_ptr<VMAttachmentTransferObject>& transfer) {
    return std::find(still_registered.begin(), still_registered.end(), transfer) !=
           still_registered.end();
  };
  int exit_code = 0;
  nlohmann::json out = nlohmann::json::array();
  for (const Outcome& outcome : outcomes) {
    const auto& transfer = outcome.transfer;
    const std::uint64_t key = AttachmentKey(*transfer);
    const std::string type = OperationName(transfer->operationType());
    ErrorRef failure = outcome.error;
    if (!failure && transfer->operationType() == kTransferOperationDelete &&
        transfer->attachment()) {
      ForgetAttachment(*context, transfer->attachment(), &failure);
    }
    if (options.json) {
      nlohmann::json item = {
          {"id", key}, {"type", type}, {"status", failure ? "failed" : "finished"}};
      if (failure) item["error"] = failure->localizedDescription();
      out.push_back(item);
    } else if (!failure) {
      fmt::print("{}\t{}\tfinished\n", key, type);
    }
    if (failure) {
      exit_code = ReportFailure(failure);
      // A download whose bytes could not be saved is given up by the scheme.
      if (registered(transfer)) {
        Manager(*context).removeEmptyDownloadFolders(*transfer);
        ReportFailure(ResumeHint(key));
      } else if (key != 0 && transfer->operationType() == kTransferOperationDownload) {
        ReportFailure(
            fmt::format("the transfer is no longer registered; retrieve the attachment again with: "
                        "vmattach retrieve {} --to DIR",
                        key));
      } else {
        ReportFailure("the transfer is no longer registered");
      }
    }
  }
  // A resumed download leaves the scheme's emptied decryption folder behind.
  ReclaimAbandonedWorkFiles(context->databaseUUID());
  if (!context->saveChanges(&error)) return ReportFailure(error);
  if (options.json) PrintJSON(out);
  return exit_code;
}

// `transfers suspend|cancel ID`: asks the scheme and says what it answered.
int RunControl(const GlobalOptions& options, std::uint64_t id, bool cancel) {
  ErrorRef error;
  auto context = OpenHost(options, &error);
  if (!context) return ReportFailure(error);
  TransferList transfers = TransfersOf(*context, id);
  if (transfers.empty()) return ReportFailure(fmt::format("no transfer for attachment {}", id));
  const char* verb = cancel ? "cancel" : "suspend";
  nlohmann::json out = nlohmann::json::array();
  for (const auto& transfer : transfers) {
    ErrorRef failure;
    bool answer = cancel ? VMAttachmentTransferManager::cancelTransfer(transfer, &failure)
                         : VMAttachmentTransferManager::suspendTransfer(transfer, &failure);
    if (failure) return ReportFailure(failure);
    const std::string type = OperationName(transfer->operationType());
    if (options.json) {
      out.push_back({{"id", id}, {"type", type}, {"request", verb}, {"answer", answer}});
    } else {
      fmt::print("{}\t{}\t{}: the scheme answered {}\n", id, type, verb, answer ? "yes" : "no");
    }
  }
  if (options.json) PrintJSON(out);
  return 0;
}

int RunDelete(const GlobalOptions& options, std::uint64_t id) {
  ErrorRef error;
  auto context = OpenHost(options, &error);
  if (!context) return ReportFailure(error);
  auto attachment = context->attachmentWithPrimaryKey(id);
  if (!attachment) return ReportFailure(fmt::format("no attachment with id {}", id));
  if (!DeleteAttachment(*context, attachment)) return 1;
  if (options.json) {
    PrintJSON({{"id", id}, {"status", "deleted"}});
  } else {
    fmt::print("deleted\n");
  }
  return 0;
}

}  // namespace

bool DeleteAttachment(SqliteObjectContext& context,
                      const std::shared_ptr<HXFileAttachment>& attachment) {
  const std::uint64_t id = attachment->primaryKeyValue();
  ErrorRef error;
  auto scheme = attachment->fileAttachmentScheme();
  auto handler = scheme ? scheme->schemeHandler() : nullptr;
  auto* deletion = dynamic_cast<HXFileAttachmentSchemeDeletionProtocol*>(handler.get());
  // Bytes that never reached the storage are not there to delete: the upload's transfer
  // and the row are enough.
  if (deletion != nullptr && attachment->uploaded().value_or(false)) {
    if (std::string problem = MissingTokenProblem(*scheme); !problem.empty()) {
      return ReportFailure(problem) == 0;
    }
    auto delegate = std::make_shared<CommandDelegate>("delete");
    attachment->setDelegate(delegate);
    DataIdentifier identifier = deletion->dataIdentifierForDeletionForAttachment(attachment);
    if (!deletion->deleteAttachment(attachment, identifier, delegate, &error)) {
      return ReportFailure(error ? error : delegate->error()) == 0;
    }
    // A scheme that started work says so with willSendAttachment; one that had nothing to
    // delete answered at once.
    if (delegate->started()) {
      if (!delegate->waitForOutcome(kTransferTimeout)) {
        return ReportFailure("the deletion did not finish in time") == 0;
      }
      if (!delegate->finished()) {
        ReportFailure(delegate->error());
        return ReportFailure(ResumeHint(id)) == 0;
      }
    }
  }
  if (!ForgetAttachment(context, attachment, &error) || !context.saveChanges(&error)) {
    return ReportFailure(error) == 0;
  }
  return true;
}

bool ResumeTransfersOf(SqliteObjectContext& context, std::uint64_t id) {
  TransferList transfers = TransfersOf(context, id);
  if (transfers.empty()) return true;
  bool all = true;
  for (const Outcome& outcome : ResumeAndWait(context, transfers, "resume", nullptr)) {
    if (outcome.error) all = ReportFailure(outcome.error) == 0;
  }
  ReclaimAbandonedWorkFiles(context.databaseUUID());
  ErrorRef error;
  if (!context.saveChanges(&error)) all = ReportFailure(error) == 0;
  return all;
}

void ReclaimAbandonedFiles(SqliteObjectContext& context) {
  ReclaimAbandonedWorkFiles(context.databaseUUID());
  std::error_code ec;
  for (const fs::directory_entry& entry : fs::directory_iterator(context.cacheDirectory(), ec)) {
    if (entry.path().filename().string().starts_with(kStagingPrefix)) {
      RemoveIfAbandoned(entry.path());
    } else if (entry.is_directory(ec) && !entry.is_symlink(ec)) {
      // The cache folders of attachments without a share folder: <two letters>/<UUID>.
      for (const fs::directory_entry& inner : fs::directory_iterator(entry.path(), ec)) {
        if (inner.path().filename().string().ends_with(kAsideSuffix)) ReclaimAside(inner.path());
      }
    }
  }
}

bool QueuesTransfers(const HXFileAttachmentSchemeHandler& handler) {
  return dynamic_cast<const VMAttachmentTransferHandlerProtocol*>(&handler) != nullptr;
}

bool StoreThroughTransfer(SqliteObjectContext& context,
                          const std::shared_ptr<HXFileAttachment>& attachment,
                          HXFileAttachmentSchemeHandler& handler, const fs::path& source,
                          const std::string& relative_path, bool quiet) {
  ReclaimAbandonedFiles(context);
  auto delegate = std::make_shared<CommandDelegate>(quiet ? "" : "store");
  attachment->setDelegate(delegate);
  ErrorRef error;
  const std::string work_uuid = attachment->attachmentUUID().value_or("");
  bool stored = handler.storeFile(source, relative_path, attachment, delegate, &error);
  // The scheme is done with its work folder once the call returned.
  Manager(context).removeStoreWorkFolder(work_uuid);
  if (!stored) return Refused(error ? error : delegate->error());
  // The record and its upload are saved together before anything leaves the machine, so
  // that an interrupted upload can be resumed by a later process.
  if (!context.saveChanges(&error)) return Refused(error);
  const std::uint64_t id = attachment->primaryKeyValue();
  TransferList uploads;
  for (const auto& transfer : TransfersOf(context, id)) {
    if (transfer->operationType() == kTransferOperationUpload) uploads.push_back(transfer);
  }
  if (uploads.empty()) return Refused("the scheme registered no upload");
  // The cache copy is made while the upload runs: one is bound by the disk, the other by
  // the network, so together they take little longer than the upload alone. It is staged
  // under a name of its own, because a finished upload moves the attachment's cache
  // folder to its new identity, and is put in place once both are done. The thread
  // touches only the paths it is given.
  std::string cache_problem;
  std::jthread cache_copy;
  const std::string name = attachment->name();
  const fs::path staging = context.cacheDirectory() / (kStagingPrefix + ToLower(MakeUniqueID()));
  bool cacheable = !CacheFolder(*attachment).empty() && !CheckFileName(name, "attachment name");
  // Owned while the store runs, so that no other process reclaims it as abandoned.
  OwnerLock staging_lock;
  if (cacheable) {
    std::error_code ec;
    fs::create_directories(context.cacheDirectory(), ec);
    ErrorRef lock_error;
    staging_lock = OwnerLock::CreateFolder(staging, &lock_error);
    cacheable = staging_lock.held();
    if (!cacheable) {
      cache_problem = ec ? ec.message() : lock_error ? lock_error->localizedDescription() : "";
    }
  }
  if (cacheable) {
    cache_copy = std::jthread([source, staging, name, &cache_problem] {
      ErrorRef copy_error;
      // The cache copy is opened later as the attachment itself, so it must be whole.
      if (!CopyIntoOwnFolder(source, staging / name, &copy_error)) {
        cache_problem = copy_error->localizedDescription();
      }
    });
  }
  std::vector<Outcome> outcomes = ResumeAndWait(context, uploads, quiet ? "" : "store", delegate);
  if (cache_copy.joinable()) cache_copy.join();
  if (cacheable && cache_problem.empty()) {
    // Under the identity the record has now: the service's after an upload, else its own.
    const fs::path cached = CacheFolder(*attachment);
    std::error_code ec;
    fs::create_directories(cached, ec);
    if (!ec && ::renameat2(AT_FDCWD, (staging / name).c_str(), AT_FDCWD, (cached / name).c_str(),
                           RENAME_NOREPLACE) != 0) {
      ec = std::error_code(errno, std::generic_category());
    }
    if (ec) cache_problem = PosixError(ec, cached / name)->localizedDescription();
  }
  if (cacheable) {
    std::error_code ignored;
    fs::remove_all(staging, ignored);
  }
  // The cache only saves a download later; the store goes on without it.
  if (!cache_problem.empty()) fmt::print(stderr, "vmattach: no cached copy: {}\n", cache_problem);
  for (const Outcome& outcome : outcomes) {
    if (outcome.error) {
      ReportFailure(outcome.error);
      return Refused(ResumeHint(id));
    }
  }
  return context.saveChanges(&error) || Refused(error);
}

namespace {

// One retrieval through the cache: the scheme downloads into the attachment's cache
// folder, and the result is copied out into the destination. Main thread only.
class CacheRetrieval {
 public:
  CacheRetrieval(std::shared_ptr<HXFileAttachment> attachment,
                 HXFileAttachmentSchemeHandler& handler, fs::path destination, bool replace,
                 bool quiet)
      : attachment_(std::move(attachment)),
        handler_(handler),
        destination_(std::move(destination)),
        replace_(replace),
        delegate_(std::make_shared<CommandDelegate>(quiet ? "" : "retrieve")) {}

  // Starts the download. False with the failure reported.
  bool start() {
    const std::string name = attachment_->name();
    if (ErrorRef refused = CheckFileName(name, "attachment name")) return Refused(refused);
    target_ = destination_ / name;
    std::error_code ec;
    ErrorRef error;
    if (!replace_ && fs::exists(fs::symlink_status(target_, ec))) {
      return Refused(PosixError(EEXIST, target_));
    }
    cached_ = CacheFolder(*attachment_);
    if (cached_.empty()) return Refused("no attachment cache");
    // The scheme downloads into the cache folder; an older copy is set aside so that the
    // result is the only item there, and comes back if the download fails.
    if (!set_aside_.setAside(cached_, &error)) return Refused(error);
    attachment_->setDelegate(delegate_);
    if (!handler_.retrieveAttachment(attachment_, destination_, delegate_, &error)) {
      // Some refusals arrive on the main queue after the call returned.
      if (!error) delegate_->waitForOutcome(std::chrono::seconds(5));
      set_aside_.restore();
      return Refused(error ? error : delegate_->error());
    }
    return true;
  }

  bool done() const { return delegate_->done(); }
  CommandDelegate& delegate() { return *delegate_; }

  // Once done() (or given up on): the copy made, or nullopt with the failure reported. The
  // caller saves the context.
  std::optional<fs::path> finish() {
    if (!delegate_->done()) {
      set_aside_.restore();
      return NotRetrieved("the retrieval did not finish in time");
    }
    if (!delegate_->finished()) {
      set_aside_.restore();
      return NotRetrieved(delegate_->error());
    }
    // A plain file ends as cache folder / name; an archive is unpacked into a folder of
    // its own there.
    std::error_code ec;
    fs::path result = cached_ / attachment_->name();
    if (!fs::exists(fs::symlink_status(result, ec))) {
      result.clear();
      for (const auto& entry : fs::directory_iterator(cached_, ec)) {
        if (!result.empty()) return NotRetrieved("the cache holds more than the retrieved copy");
        result = entry.path();
      }
    }
    if (result.empty()) return NotRetrieved("the retrieved copy is not in the cache");
    // The older copy is no longer needed; it goes beside the copy out.
    std::jthread remove_aside = set_aside_.drop();
    // Flushed before it takes its name, so that a crash after "finished" never leaves a
    // short file under the name, nor with --replace a short file in place of the one it
    // replaced.
    ErrorRef error;
    if (!CopyIntoPlace(result, target_, replace_, &error)) return NotRetrieved(error);
    return target_;
  }

 private:
  const std::shared_ptr<HXFileAttachment> attachment_;
  HXFileAttachmentSchemeHandler& handler_;
  const fs::path destination_;
  const bool replace_;
  const std::shared_ptr<CommandDelegate> delegate_;
  fs::path target_;
  fs::path cached_;
  CachedCopySetAside set_aside_;
};

// A failed download stays registered, with nothing of it left on the disk.
void ClearFailedDownload(SqliteObjectContext& context, const HXFileAttachment& attachment) {
  for (const auto& transfer : TransfersOf(context, attachment.primaryKeyValue())) {
    Manager(context).removeEmptyDownloadFolders(*transfer);
  }
}

}  // namespace

std::optional<fs::path> RetrieveThroughCache(SqliteObjectContext& context,
                                             const std::shared_ptr<HXFileAttachment>& attachment,
                                             HXFileAttachmentSchemeHandler& handler,
                                             const fs::path& destination, bool replace,
                                             bool quiet) {
  ReclaimAbandonedFiles(context);
  CacheRetrieval retrieval(attachment, handler, destination, replace, quiet);
  std::optional<fs::path> copy;
  if (retrieval.start()) {
    if (!retrieval.done()) retrieval.delegate().waitForOutcome(kTransferTimeout);
    copy = retrieval.finish();
    ErrorRef error;
    if (copy && !context.saveChanges(&error)) copy = NotRetrieved(error);
  }
  if (!copy) ClearFailedDownload(context, *attachment);
  // The scheme leaves its emptied decryption folder behind.
  ReclaimAbandonedWorkFiles(context.databaseUUID());
  return copy;
}

namespace {

// Collects the outcomes of resumed transfers, which arrive on the main queue or within
// resumeTransfers; taken on the main thread.
class OutcomeInbox {
 public:
  SqliteTransferManager::OutcomeHandler handler() {
    return [state = state_](const std::shared_ptr<VMAttachmentTransferObject>& transfer,
                            const ErrorRef& error) {
      std::lock_guard lock(state->mu);
      state->arrived.push_back({transfer, error});
    };
  }
  bool any() const {
    std::lock_guard lock(state_->mu);
    return !state_->arrived.empty();
  }
  std::vector<Outcome> take() {
    std::lock_guard lock(state_->mu);
    return std::exchange(state_->arrived, {});
  }

 private:
  struct State {
    std::mutex mu;
    std::vector<Outcome> arrived;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

// Runs the main queue until `ready` or a tenth of a second passed, so that a bar moves.
template <typename Ready>
void DrainAWhile(Ready ready) {
  MainQueue::shared().runUntilCondition(
      ready, std::chrono::steady_clock::now() + std::chrono::milliseconds(100));
}

// One file of a batch whose upload runs.
struct RunningUpload {
  BatchStoreItem* item = nullptr;
  std::shared_ptr<HXFileAttachment> attachment;
  TransferList uploads;
  std::size_t reported = 0;
  ErrorRef failure;
  std::chrono::steady_clock::time_point deadline;
  fs::path staged;            // the cache copy being made; empty when none is
  std::string cache_problem;  // written by `copy` until joined
  std::jthread copy;
};

// The record of one file of a batch, with its upload prepared and registered by
// storeFile (`*source`: the file's absolute path). Null with the failure reported; the
// record is then forgotten, so that no later save writes it.
std::shared_ptr<HXFileAttachment> PrepareUpload(
    SqliteObjectContext& context, const std::shared_ptr<HXFileAttachmentScheme>& scheme,
    HXFileAttachmentSchemeHandler& handler, const std::string& file, const std::string& path,
    fs::path* source) {
  if (std::string problem = CheckStoreSource(file, false); !problem.empty()) {
    ReportFailure(problem);
    return nullptr;
  }
  // Said in the system's words here, before a record is made for it.
  std::error_code ec;
  if (!file.empty() && !fs::exists(ExpandTildeInPath(file), ec)) {
    ReportFailure(PosixError(ec ? ec.value() : ENOENT, file));
    return nullptr;
  }
  auto attachment = NewAttachmentForFile(context, scheme, file, source);
  if (!attachment) return nullptr;
  auto delegate = std::make_shared<CommandDelegate>("");
  attachment->setDelegate(delegate);
  ErrorRef error;
  const std::string work_uuid = attachment->attachmentUUID().value_or("");
  const bool stored = handler.storeFile(*source, RelativeStoragePath(*attachment, path), attachment,
                                        delegate, &error);
  Manager(context).removeStoreWorkFolder(work_uuid);
  if (stored) return attachment;
  ReportFailure(error ? error : delegate->error());
  ErrorRef ignored;
  ForgetAttachment(context, attachment, &ignored);
  return nullptr;
}

// Once all of a file's uploads reported: its cache copy is put in place under the
// identity the record has now (the service's after an upload, else its own), as for one
// file. False with the failure reported.
bool FinishUpload(RunningUpload& upload) {
  if (upload.copy.joinable()) upload.copy.join();
  HXFileAttachment& attachment = *upload.attachment;
  if (!upload.staged.empty() && upload.cache_problem.empty()) {
    const fs::path cached = CacheFolder(attachment);
    const fs::path target = cached / attachment.name();
    std::error_code ec;
    fs::create_directories(cached, ec);
    if (!ec && ::renameat2(AT_FDCWD, upload.staged.c_str(), AT_FDCWD, target.c_str(),
                           RENAME_NOREPLACE) != 0) {
      ec = std::error_code(errno, std::generic_category());
    }
    if (ec) upload.cache_problem = PosixError(ec, target)->localizedDescription();
  }
  if (!upload.staged.empty()) {
    std::error_code ignored;
    fs::remove_all(upload.staged, ignored);
  }
  if (!upload.cache_problem.empty()) {
    fmt::print(stderr, "{}no cached copy: {}\n", FailurePrefix(),
               EscapeControlCharacters(upload.cache_problem));
  }
  if (!upload.failure) return true;
  ReportFailure(upload.failure);
  return Refused(ResumeHint(attachment.primaryKeyValue()));
}

}  // namespace

void StoreManyThroughTransfer(SqliteObjectContext& context,
                              const std::shared_ptr<HXFileAttachmentScheme>& scheme,
                              HXFileAttachmentSchemeHandler& handler, const std::string& path,
                              std::vector<BatchStoreItem>& items, int jobs) {
  // Once per command rather than per file: it walks the whole cache.
  ReclaimAbandonedFiles(context);
  // The keys of all the records in one commit rather than one each; when that fails, each
  // insert takes its own and reports what failed.
  ErrorRef reserve_error;
  context.reservePrimaryKeys(items.size(), &reserve_error);
  // One staging folder for the batch's cache copies, owned while the command runs.
  const fs::path staging = context.cacheDirectory() / (kStagingPrefix + ToLower(MakeUniqueID()));
  std::error_code ec;
  fs::create_directories(context.cacheDirectory(), ec);
  ErrorRef lock_error;
  OwnerLock staging_lock = OwnerLock::CreateFolder(staging, &lock_error);
  if (!staging_lock.held()) {
    fmt::print(stderr, "vmattach: no cached copies: {}\n",
               ec           ? ec.message()
               : lock_error ? lock_error->localizedDescription()
                            : "");
  }

  ProgressBar bar("store", ProgressBar::Unit::kItems);
  const auto total = static_cast<std::int64_t>(items.size());
  std::int64_t ended = 0;
  OutcomeInbox inbox;
  std::map<const VMAttachmentTransferObject*, RunningUpload*> by_transfer;
  std::list<RunningUpload> running;
  std::size_t next = 0;
  bool database_failed = false;
  // Each round: the uploads that ended are finished, the next files are prepared to fill
  // their places, and one transaction saves both; then the new uploads start.
  while (true) {
    std::vector<BatchStoreItem*> uploaded;
    const auto now = std::chrono::steady_clock::now();
    for (auto it = running.begin(); it != running.end();) {
      if (it->reported < it->uploads.size() && now < it->deadline) {
        ++it;
        continue;
      }
      if (it->reported < it->uploads.size()) {
        it->failure = Error::WithDescription(kVMFileAttachmentDomain, ETIMEDOUT,
                                             "The transfer did not end in time.");
        for (const auto& transfer : it->uploads) by_transfer.erase(transfer.get());
      }
      FailureSubject subject(it->item->file);
      if (FinishUpload(*it)) {
        it->item->attachment = it->attachment;
        uploaded.push_back(it->item);
      }
      ++ended;
      it = running.erase(it);
    }

    struct Prepared {
      BatchStoreItem* item;
      std::shared_ptr<HXFileAttachment> attachment;
      fs::path source;
    };
    std::vector<Prepared> prepared;
    while (!database_failed && next < items.size() &&
           running.size() + prepared.size() < static_cast<std::size_t>(jobs)) {
      BatchStoreItem& item = items[next++];
      FailureSubject subject(item.file);
      fs::path source;
      if (auto attachment = PrepareUpload(context, scheme, handler, item.file, path, &source)) {
        prepared.push_back({&item, std::move(attachment), std::move(source)});
      } else {
        ++ended;
      }
    }

    ErrorRef error;
    // New records and their uploads are saved before any byte leaves the machine, so that
    // an interrupted command is finished by `transfers resume`.
    if ((!uploaded.empty() || !prepared.empty()) && !context.saveChanges(&error)) {
      for (BatchStoreItem* item : uploaded) {
        FailureSubject subject(item->file);
        ReportFailure(error);
        item->attachment = nullptr;
      }
      for (const Prepared& entry : prepared) {
        FailureSubject subject(entry.item->file);
        ReportFailure(error);
        ErrorRef ignored;
        ForgetAttachment(context, entry.attachment, &ignored);
        ++ended;
      }
      prepared.clear();
      database_failed = true;  // the files not prepared yet would fail the same way
    }
    for (Prepared& entry : prepared) {
      FailureSubject subject(entry.item->file);
      const std::uint64_t id = entry.attachment->primaryKeyValue();
      TransferList uploads;
      for (const auto& transfer : TransfersOf(context, id)) {
        if (transfer->operationType() == kTransferOperationUpload) uploads.push_back(transfer);
      }
      if (uploads.empty()) {
        ReportFailure("the scheme registered no upload");
        ++ended;
        continue;
      }
      RunningUpload& upload = running.emplace_back();
      upload.item = entry.item;
      upload.attachment = entry.attachment;
      upload.uploads = uploads;
      upload.deadline = std::chrono::steady_clock::now() + kTransferTimeout;
      // The cache copy is made while the upload runs, as for one file.
      const std::string name = entry.attachment->name();
      if (staging_lock.held() && !CacheFolder(*entry.attachment).empty() &&
          !CheckFileName(name, "attachment name")) {
        upload.staged = staging / std::to_string(id);
        upload.copy = std::jthread(
            [source = entry.source, staged = upload.staged, problem = &upload.cache_problem] {
              ErrorRef copy_error;
              if (!CopyIntoOwnFolder(source, staged, &copy_error)) {
                *problem = copy_error->localizedDescription();
              }
            });
      }
      for (const auto& transfer : uploads) by_transfer[transfer.get()] = &upload;
      Manager(context).resumeTransfers(uploads, inbox.handler());
    }
    bar.update(ended, total);
    if (running.empty()) {
      if (database_failed || next >= items.size()) break;
      continue;
    }

    DrainAWhile([&inbox] { return inbox.any(); });
    for (const Outcome& outcome : inbox.take()) {
      auto found = by_transfer.find(outcome.transfer.get());
      if (found == by_transfer.end()) continue;  // given up on already
      RunningUpload& upload = *found->second;
      by_transfer.erase(found);
      ++upload.reported;
      if (outcome.error && !upload.failure) upload.failure = outcome.error;
    }
  }
  MainQueue::shared().drainPending();
  bar.finish();
  fs::remove_all(staging, ec);
}

void RetrieveManyThroughCache(SqliteObjectContext& context, std::vector<BatchRetrieveItem>& items,
                              const fs::path& destination, bool replace, int jobs) {
  // Once per command rather than per attachment: it walks the whole cache.
  ReclaimAbandonedFiles(context);
  struct Running {
    BatchRetrieveItem* item;
    std::unique_ptr<CacheRetrieval> retrieval;
    std::chrono::steady_clock::time_point deadline;
  };
  ProgressBar bar("retrieve", ProgressBar::Unit::kItems);
  const auto total = static_cast<std::int64_t>(items.size());
  std::int64_t ended = 0;
  std::list<Running> running;
  std::size_t next = 0;
  auto any_done = [&running] {
    return std::any_of(running.begin(), running.end(),
                       [](const Running& entry) { return entry.retrieval->done(); });
  };
  while (next < items.size() || !running.empty()) {
    while (next < items.size() && running.size() < static_cast<std::size_t>(jobs)) {
      BatchRetrieveItem& item = items[next++];
      FailureSubject subject(std::to_string(item.attachment->primaryKeyValue()));
      auto retrieval = std::make_unique<CacheRetrieval>(item.attachment, *item.handler, destination,
                                                        replace, true);
      if (retrieval->start()) {
        running.push_back(
            {&item, std::move(retrieval), std::chrono::steady_clock::now() + kTransferTimeout});
      } else {
        ClearFailedDownload(context, *item.attachment);
        ++ended;
      }
    }
    if (running.empty()) continue;
    DrainAWhile(any_done);
    std::vector<BatchRetrieveItem*> copied;
    const auto now = std::chrono::steady_clock::now();
    for (auto it = running.begin(); it != running.end();) {
      if (!it->retrieval->done() && now < it->deadline) {
        ++it;
        continue;
      }
      FailureSubject subject(std::to_string(it->item->attachment->primaryKeyValue()));
      it->item->copy = it->retrieval->finish();
      if (it->item->copy) {
        copied.push_back(it->item);
      } else {
        ClearFailedDownload(context, *it->item->attachment);
      }
      ++ended;
      it = running.erase(it);
    }
    ErrorRef error;
    // What the downloads changed in the records is saved once per round, not per item.
    if (!copied.empty() && !context.saveChanges(&error)) {
      for (BatchRetrieveItem* item : copied) {
        FailureSubject subject(std::to_string(item->attachment->primaryKeyValue()));
        ReportFailure(error);
        item->copy.reset();
      }
    }
    bar.update(ended, total);
  }
  MainQueue::shared().drainPending();
  bar.finish();
  // The scheme leaves its emptied decryption folders behind.
  ReclaimAbandonedWorkFiles(context.databaseUUID());
}

void AddTransferCommands(CLI::App& app, const GlobalOptions& options, int* exit_code) {
  auto delete_id = std::make_shared<std::uint64_t>(0);
  CLI::App* remove = app.add_subcommand(
      "delete", "Delete an attachment: its row and, through its scheme, the stored bytes");
  remove->add_option("id", *delete_id, "Attachment id")->required()->transform(RecordIDValidator());
  SetCommandBody(remove, exit_code,
                 [&options, delete_id] { return RunDelete(options, *delete_id); });

  CLI::App* transfers = app.add_subcommand(
      "transfers", "List the registered transfers, or resume, suspend or cancel them");
  transfers->require_subcommand(0, 1);
  auto resume_id = std::make_shared<std::uint64_t>(0);
  CLI::App* resume =
      transfers->add_subcommand("resume", "Resume every transfer, or those of one attachment");
  resume->add_option("id", *resume_id, "Attachment id")->transform(RecordIDValidator());
  SetCommandBody(resume, exit_code,
                 [&options, resume_id] { return RunResume(options, *resume_id); });
  for (bool cancel : {false, true}) {
    auto id = std::make_shared<std::uint64_t>(0);
    CLI::App* control =
        transfers->add_subcommand(cancel ? "cancel" : "suspend",
                                  cancel ? "Ask the scheme to cancel an attachment's transfers"
                                         : "Ask the scheme to suspend an attachment's transfers");
    control->add_option("id", *id, "Attachment id")->required()->transform(RecordIDValidator());
    SetCommandBody(control, exit_code,
                   [&options, id, cancel] { return RunControl(options, *id, cancel); });
  }
  // Runs after a subcommand's callback too; only the bare command lists.
  transfers->callback([transfers, exit_code, &options] {
    if (transfers->get_subcommands().empty()) *exit_code = RunList(options);
  });
}

}  // namespace vm::vmattach
