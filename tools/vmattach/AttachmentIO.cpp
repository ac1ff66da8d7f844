#include "tools/vmattach/AttachmentIO.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include "VMAttachments/schemes/ShareSchemes.h"
#include "VMAttachments/schemes/VMAFPAttachment.h"
#include "VMAttachments/schemes/VMArchiverAttachment.h"
#include "VMAttachments/schemes/VMFileReferenceAttachment.h"
#include "VMAttachments/telemetry/AttachmentTelemetry.h"
#include "host/HXAttachmentCache.h"
#include "host/HXFileAttachmentScheme.h"
#include "host/HostConstants.h"
#include "host/VMAttachmentTransferManager.h"
#include "host/sqlite/SqliteAttachmentCache.h"
#include "host/sqlite/SqliteObjectContext.h"
#include "platform/SafeNames.h"
#include "platform/UniqueID.h"
#include "tools/vmattach/Host.h"
#include "tools/vmattach/ShareCommands.h"
#include "tools/vmattach/TransferCommands.h"

namespace vm::vmattach {
namespace {

constexpr auto kTransferTimeout = std::chrono::seconds(600);

// Report `what` as ReportFailure does, for a store that gave no record or a retrieval that
// made no copy.
template <typename What>
std::nullptr_t NotStored(const What& what) {
  ReportFailure(what);
  return nullptr;
}
template <typename What>
std::nullopt_t NotRetrieved(const What& what) {
  ReportFailure(what);
  return std::nullopt;
}

}  // namespace

bool IsSynchronousScheme(const std::string& class_name) {
  return class_name == VMFileReferenceAttachment::kClassName ||
         class_name == VMLocalFileReferenceScheme::kClassName;
}

// A file reference records any path; the other schemes copy bytes, which only a regular
// file or a folder has to give (a FIFO would wait for a writer forever, a device never
// ends).
std::string CheckStoreSource(const std::string& file, bool reference) {
  if (file.empty()) return "FILE is empty: name a file to store";
  if (reference) return {};
  struct stat st;
  if (stat(ExpandTildeInPath(file).c_str(), &st) != 0) return {};  // the scheme reports it
  if (S_ISREG(st.st_mode) || S_ISDIR(st.st_mode)) return {};
  return fmt::format("{} is not a regular file or a folder: only those can be stored", file);
}

std::shared_ptr<HXFileAttachment> NewAttachmentForFile(
    SqliteObjectContext& context, const std::shared_ptr<HXFileAttachmentScheme>& scheme,
    const std::string& file, std::filesystem::path* source) {
  ErrorRef error;
  auto attachment = context.insertAttachment(&error);
  if (!attachment) return NotStored(error);
  if (file[0] == '~') {
    // Kept as typed, so that the reference follows the home folder of whoever opens it.
    attachment->setAttachmentPath(file);
    attachment->setIsRelativePath(true);
    *source = ExpandTildeInPath(file);
  } else {
    std::error_code ec;
    *source = std::filesystem::absolute(file, ec).lexically_normal();
    if (ec) {
      ErrorRef ignored;
      context.deleteAttachment(attachment, &ignored);
      return NotStored(PosixError(ec, file));
    }
    attachment->setAttachmentPath(source->string());
  }
  attachment->setName(source->filename().string());
  attachment->setAttachmentUUID(ToLower(MakeUniqueID()));
  attachment->setFileAttachmentScheme(scheme);
  attachment->updateMissingDetailsFromURL(*source);
  return attachment;
}

std::string RelativeStoragePath(const HXFileAttachment& attachment, const std::string& path) {
  if (!path.empty()) return path;
  auto cache = HXAttachmentCache::sharedCache();
  return cache ? cache->relativeFilePathForObject(attachment) : std::string();
}

namespace {

// A record of this command's that no save wrote yet is forgotten, with the transfers
// registered for it, so that no later save of the context writes it. A saved one (a failed
// upload) is kept.
void ForgetIfUnsaved(SqliteObjectContext& context,
                     const std::shared_ptr<HXFileAttachment>& attachment) {
  bool saved = true;
  context.withRecordSaveState(*attachment, [&saved](bool in_database) {
    saved = in_database;
    return true;
  });
  if (saved) return;
  if (std::optional<std::string> uuid = attachment->attachmentUUID()) {
    context.attachmentTransferManager()->removeTransferForAttachmentIdentifier(*uuid);
  }
  ErrorRef ignored;
  context.deleteAttachment(attachment, &ignored);
}

}  // namespace

std::shared_ptr<HXFileAttachment> StoreNewAttachment(
    SqliteObjectContext& context, const std::shared_ptr<HXFileAttachmentScheme>& scheme,
    const std::shared_ptr<HXFileAttachmentSchemeHandler>& handler, const std::string& file,
    const std::string& path, bool quiet) {
  bool reference = IsSynchronousScheme(handler->className());
  if (std::string problem = CheckStoreSource(file, reference); !problem.empty()) {
    return NotStored(problem);
  }
  std::filesystem::path source;
  auto attachment = NewAttachmentForFile(context, scheme, file, &source);
  if (!attachment) return nullptr;
  if (StoreAttachmentBytes(context, attachment, handler, source,
                           RelativeStoragePath(*attachment, path), !path.empty(), quiet)) {
    return attachment;
  }
  ForgetIfUnsaved(context, attachment);
  return nullptr;
}

bool StoreAttachmentBytes(SqliteObjectContext& context,
                          const std::shared_ptr<HXFileAttachment>& attachment,
                          const std::shared_ptr<HXFileAttachmentSchemeHandler>& handler,
                          const std::filesystem::path& source, const std::string& relative,
                          bool chosen_folder, bool quiet) {
  auto delegate = std::make_shared<CommandDelegate>(quiet ? "" : "store");
  attachment->setDelegate(delegate);
  if (QueuesTransfers(*handler)) {
    return StoreThroughTransfer(context, attachment, *handler, source, relative, quiet);
  }
  ErrorRef error;
  if (!handler->storeFile(source, relative, attachment, delegate, &error)) {
    ReportTransferFailure(error ? error : delegate->error(), handler.get(), *attachment);
    return false;
  }
  if (!IsSynchronousScheme(handler->className())) {
    if (!delegate->waitForOutcome(kTransferTimeout)) {
      ReportFailure("the store did not finish in time");
      return false;
    }
    if (!delegate->finished()) {
      ReportTransferFailure(delegate->error(), handler.get(), *attachment);
      return false;
    }
  }
  if (handler->className() == VMAFPAttachment::kClassName && chosen_folder) {
    // The share keeps the file under the folder asked for; retrieval asks the cache.
    SqliteAttachmentCache::RememberShareFolder(*attachment, relative);
  }
  if (handler->className() == VMArchiverAttachment::kClassName) {
    // The archiver finds an attachment by its path relative to the storage folder.
    attachment->setAttachmentPath(AppendPathComponent(relative, attachment->name()).string());
  }
  // Only a stored attachment is written: a failed store leaves the database as it was.
  if (!context.saveChanges(&error)) {
    ReportFailure(error);
    return false;
  }
  return true;
}

namespace {

// Makes `destination`; refuses (reported) a same-named item there unless `force`. The
// schemes that copy replace a same-named entry; a person's file there is kept unless
// they asked. A name that would leave the folder is the scheme's to refuse.
bool AcceptsRetrieval(const HXFileAttachment& attachment,
                      const HXFileAttachmentSchemeHandler& handler,
                      const std::filesystem::path& destination, bool force) {
  std::error_code ec;
  std::filesystem::create_directories(destination, ec);
  if (ec) return ReportFailure(PosixError(ec, destination)), false;
  const std::string& name = attachment.name();
  if (!force && !IsSynchronousScheme(handler.className()) &&
      !CheckFileName(name, "attachment name")) {
    struct stat st;
    if (lstat((destination / name).c_str(), &st) == 0) {
      ErrorRef exists = PosixError(EEXIST, destination / name);
      ReportFailure(Error::WithDescription(
          exists->domain(), exists->code(),
          fmt::format("{}; pass --force to replace it", exists->localizedDescription())));
      return false;
    }
  }
  return true;
}

}  // namespace

std::optional<std::filesystem::path> RetrieveAttachment(
    SqliteObjectContext& context, const std::shared_ptr<HXFileAttachment>& attachment,
    const std::shared_ptr<HXFileAttachmentSchemeHandler>& handler,
    const std::filesystem::path& destination, bool force, bool quiet) {
  if (!AcceptsRetrieval(*attachment, *handler, destination, force)) return std::nullopt;
  if (QueuesTransfers(*handler)) {
    return RetrieveThroughCache(context, attachment, *handler, destination, force, quiet);
  }
  auto delegate = std::make_shared<CommandDelegate>(quiet ? "" : "retrieve");
  attachment->setDelegate(delegate);
  ErrorRef error;
  if (!handler->retrieveAttachment(attachment, destination, delegate, &error)) {
    ReportTransferFailure(error ? error : delegate->error(), handler.get(), *attachment);
    return std::nullopt;
  }
  if (!delegate->done() && !delegate->waitForOutcome(kTransferTimeout)) {
    return NotRetrieved("the retrieval did not finish in time");
  }
  if (!delegate->finished()) {
    ReportTransferFailure(delegate->error(), handler.get(), *attachment);
    return std::nullopt;
  }
  if (!context.saveChanges(&error)) return NotRetrieved(error);
  return destination;
}

std::vector<std::shared_ptr<HXFileAttachment>> StoreNewAttachments(
    SqliteObjectContext& context, const std::shared_ptr<HXFileAttachmentScheme>& scheme,
    const std::shared_ptr<HXFileAttachmentSchemeHandler>& handler,
    const std::vector<std::string>& files, const std::string& path, int jobs) {
  std::vector<std::shared_ptr<HXFileAttachment>> stored(files.size());
  if (QueuesTransfers(*handler)) {
    std::vector<BatchStoreItem> items(files.size());
    for (std::size_t i = 0; i < files.size(); ++i) items[i].file = files[i];
    StoreManyThroughTransfer(context, scheme, *handler, path, items, jobs);
    for (std::size_t i = 0; i < files.size(); ++i) stored[i] = std::move(items[i].attachment);
    return stored;
  }
  // A share or storage folder is written through one mount, and a reference copies
  // nothing: one file after another.
  ProgressBar bar("store", ProgressBar::Unit::kItems);
  for (std::size_t i = 0; i < files.size(); ++i) {
    FailureSubject subject(files[i]);
    stored[i] = StoreNewAttachment(context, scheme, handler, files[i], path, true);
    bar.update(static_cast<std::int64_t>(i + 1), static_cast<std::int64_t>(files.size()));
  }
  bar.finish();
  return stored;
}

std::vector<std::optional<std::filesystem::path>> RetrieveAttachments(
    SqliteObjectContext& context, const std::vector<std::uint64_t>& ids,
    const std::filesystem::path& destination, bool force, int jobs) {
  std::vector<std::optional<std::filesystem::path>> copies(ids.size());
  std::vector<BatchRetrieveItem> queued;
  std::vector<std::size_t> queued_index;
  ProgressBar bar("retrieve", ProgressBar::Unit::kItems);
  // Those of schemes that do not queue transfers go first, one after another; each is
  // checked here, so that a failure is named by its id.
  for (std::size_t i = 0; i < ids.size(); ++i) {
    FailureSubject subject(std::to_string(ids[i]));
    auto attachment = context.attachmentWithPrimaryKey(ids[i]);
    if (!attachment) {
      ReportFailure(fmt::format("no attachment with id {}", ids[i]));
      continue;
    }
    auto scheme = attachment->fileAttachmentScheme();
    auto handler = scheme ? scheme->schemeHandler() : nullptr;
    if (!handler) {
      ErrorRef error = Error::WithDescription(
          kVMFileAttachmentDomain, 500, fmt::format("Attachment {} has no usable scheme.", ids[i]));
      AttachmentTelemetry::logError(error);
      ReportFailure(error);
      continue;
    }
    if (std::string problem = MissingTokenProblem(*scheme); !problem.empty()) {
      ReportFailure(problem);
      continue;
    }
    if (QueuesTransfers(*handler)) {
      if (AcceptsRetrieval(*attachment, *handler, destination, force)) {
        queued.push_back({attachment, handler, std::nullopt});
        queued_index.push_back(i);
      }
      continue;
    }
    copies[i] = RetrieveAttachment(context, attachment, handler, destination, force, true);
    bar.update(static_cast<std::int64_t>(i + 1), static_cast<std::int64_t>(ids.size()));
  }
  bar.finish();
  if (!queued.empty()) RetrieveManyThroughCache(context, queued, destination, force, jobs);
  for (std::size_t k = 0; k < queued.size(); ++k) copies[queued_index[k]] = queued[k].copy;
  return copies;
}

}  // namespace vm::vmattach
