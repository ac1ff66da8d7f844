#include "host/sqlite/SqliteTransferManager.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <set>

#include "host/HXFileAttachment.h"
#include "host/HXFileAttachmentTransferDelegate.h"
#include "host/HostConstants.h"
#include "host/sqlite/SqliteObjectContext.h"
#include "platform/SafeNames.h"
#include "platform/UniqueID.h"

namespace vm {
namespace {

ErrorRef RefusedError(std::string_view description, ErrorRef underlying = nullptr) {
  return Error::WithDescription(kVMFileAttachmentDomain, kTransferRefusedErrorCode, description,
                                std::move(underlying));
}

bool IsStrictlyInside(const std::filesystem::path& path, const std::filesystem::path& folder) {
  auto relative = path.lexically_normal().lexically_relative(folder.lexically_normal());
  return !relative.empty() && relative != "." && *relative.begin() != "..";
}

// Whether `root` and every folder from it down to `folder` is a real folder (not a link)
// of this user's that nobody else may write to. The temporary folder is shared, so a
// download's path is only acted on when nobody else could have placed or redirected it.
bool IsPrivateFolderChain(const std::filesystem::path& root, const std::filesystem::path& folder) {
  std::filesystem::path current = root.lexically_normal();
  const std::filesystem::path below = folder.lexically_normal().lexically_relative(current);
  auto is_private = [](const std::filesystem::path& path) {
    struct stat info;
    return ::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode) &&
           info.st_uid == ::geteuid() && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  };
  if (!is_private(current)) return false;
  for (const auto& part : below) {
    current /= part;
    if (!is_private(current)) return false;
  }
  return true;
}

// Removes `folder` and the folders above it while they are empty, up to the folders
// directly in the download folder: those are shared by other downloads, so that removing
// one could pull it from under a download being prepared, and they stay.
void RemoveEmptyFoldersBelowShared(const std::filesystem::path& folder) {
  const std::filesystem::path downloads =
      SqliteTransferManager::downloadFolder().lexically_normal();
  for (std::filesystem::path empty = folder.lexically_normal();
       IsStrictlyInside(empty, downloads) && empty.parent_path() != downloads &&
       ::rmdir(empty.c_str()) == 0;
       empty = empty.parent_path()) {
  }
}

bool SyncPath(const std::filesystem::path& path, int flags, ErrorRef* error) {
  int fd = ::open(path.c_str(), flags | O_CLOEXEC);
  if (fd < 0) return Fail(error, PosixError(errno, path));
  int result = ::fsync(fd);
  int saved_errno = errno;
  ::close(fd);
  return result == 0 || Fail(error, PosixError(saved_errno, path));
}

// Moves the file `from` to `to`. Within one file system this is a rename. Across file
// systems the file is copied to a temporary name beside `to`, flushed, renamed into place
// and only then is the source removed: a crash leaves the source or a complete copy.
bool MoveFile(const std::filesystem::path& from, const std::filesystem::path& to, ErrorRef* error) {
  std::error_code ec;
  std::filesystem::rename(from, to, ec);
  if (!ec) return true;
  if (ec != std::errc::cross_device_link) return Fail(error, PosixError(ec, from));
  if (!std::filesystem::is_regular_file(from, ec)) return Fail(error, PosixError(EXDEV, from));
  std::filesystem::path partial = to;
  partial += ".partial";
  bool ok = true;
  std::filesystem::copy_file(from, partial, std::filesystem::copy_options::overwrite_existing, ec);
  if (ec) ok = Fail(error, PosixError(ec, partial));
  ok = ok && SyncPath(partial, O_RDONLY, error);
  if (ok) {
    std::filesystem::rename(partial, to, ec);
    if (ec) ok = Fail(error, PosixError(ec, to));
  }
  ok = ok && SyncPath(to.parent_path(), O_RDONLY | O_DIRECTORY, error);
  if (!ok) {
    std::filesystem::remove(partial, ec);
    return false;
  }
  // The copy is durable; a source that cannot be removed only costs space.
  std::filesystem::remove(from, ec);
  return true;
}

// Stands in as the delegate of one resumed transfer: passes every message on to the
// observer and reports the first outcome once.
class OutcomeDelegate : public HXFileAttachmentTransferDelegate,
                        public HXFileAttachmentErrorReceiver {
 public:
  OutcomeDelegate(std::shared_ptr<VMAttachmentTransferObject> transfer,
                  SqliteTransferManager::OutcomeHandler on_outcome,
                  std::shared_ptr<HXFileAttachmentTransferDelegate> observer,
                  std::shared_ptr<HXFileAttachmentTransferDelegate> attachment_delegate)
      : transfer_(std::move(transfer)),
        on_outcome_(std::move(on_outcome)),
        observer_(std::move(observer)),
        attachment_delegate_(std::move(attachment_delegate)) {}

  void willReceiveAttachment(HXFileAttachmentSchemeHandler* handler,
                             const std::shared_ptr<HXFileAttachment>& attachment,
                             const std::shared_ptr<Progress>& progress) override {
    if (observer_) observer_->willReceiveAttachment(handler, attachment, progress);
  }
  void willSendAttachment(HXFileAttachmentSchemeHandler* handler,
                          const std::shared_ptr<HXFileAttachment>& attachment) override {
    if (observer_) observer_->willSendAttachment(handler, attachment);
  }
  void transferProgressUpdate(double fraction, std::int64_t transfered,
                              std::int64_t total) override {
    if (observer_) observer_->transferProgressUpdate(fraction, transfered, total);
  }
  void finishedTransferForAttachment(HXFileAttachmentSchemeHandler* handler,
                                     const std::shared_ptr<HXFileAttachment>& attachment) override {
    if (observer_) observer_->finishedTransferForAttachment(handler, attachment);
    report(nullptr);
  }
  void gotCriticalError(HXFileAttachmentSchemeHandler* handler, const ErrorRef& error) override {
    if (observer_) observer_->gotCriticalError(handler, error);
    report(error);
  }
  void gotError(HXFileAttachmentSchemeHandler* handler, const ErrorRef& error) override {
    SendGotError(observer_.get(), handler, error);
    report(error);
  }

  // Reports `error` (null: finished) unless an outcome was reported already.
  void report(const ErrorRef& error) {
    if (reported_.exchange(true)) return;
    const std::shared_ptr<HXFileAttachment>& attachment = transfer_->attachment();
    if (attachment && attachment->delegate().get() == this) {
      attachment->setDelegate(attachment_delegate_);
    }
    transfer_->setDelegate(attachment_delegate_);
    on_outcome_(transfer_, error ? error : nullptr);
  }

 private:
  const std::shared_ptr<VMAttachmentTransferObject> transfer_;
  const SqliteTransferManager::OutcomeHandler on_outcome_;
  const std::shared_ptr<HXFileAttachmentTransferDelegate> observer_;
  const std::shared_ptr<HXFileAttachmentTransferDelegate> attachment_delegate_;
  std::atomic<bool> reported_{false};
};

}  // namespace

SqliteTransferManager::SqliteTransferManager(SqliteObjectContext* context,
                                             std::filesystem::path basepath)
    : context_(context), basepath_(std::move(basepath)) {}

std::filesystem::path SqliteTransferManager::downloadFolder() {
  std::error_code ignored;
  return std::filesystem::temp_directory_path(ignored) / "HXAttachmentCache";
}

void SqliteTransferManager::removeStoreWorkFolder(const std::string& attachment_uuid) {
  const std::string database = context_->databaseUUID();
  if (CheckFileName(database, "database UUID") ||
      CheckFileName(attachment_uuid, "attachment UUID")) {
    return;
  }
  std::error_code ec;
  const std::filesystem::path temporary = std::filesystem::temp_directory_path(ec);
  if (ec) return;
  const std::filesystem::path folder = temporary / database / attachment_uuid;
  if (IsPrivateFolderChain(temporary / database, folder)) {
    std::filesystem::remove_all(folder, ec);
  }
}

bool SqliteTransferManager::load(ErrorRef* error) {
  auto statement = context_->database().prepare(
      "SELECT attachmentID, attachmentPK, operationType, path, id FROM transfers ORDER BY id",
      error);
  if (!statement) return false;
  struct Row {
    std::string id;
    std::uint64_t key;
    std::uint64_t type;
    std::string path;
    std::int64_t row;
  };
  std::vector<Row> rows;
  ErrorRef failure;
  while (statement->step(&failure)) {
    rows.push_back({statement->columnText(0), static_cast<std::uint64_t>(statement->columnInt(1)),
                    static_cast<std::uint64_t>(statement->columnInt(2)), statement->columnText(3),
                    statement->columnInt(4)});
  }
  if (failure) return Fail(error, failure);
  // An attachment has one download: every later row of the same download (an earlier
  // version registered one per failed retrieval) goes, or resuming them would run them
  // all into the same file.
  std::set<std::string> downloads;
  std::vector<std::int64_t> duplicates;
  std::erase_if(rows, [&](const Row& row) {
    const bool duplicate =
        row.type == kTransferOperationDownload && !downloads.insert(row.id).second;
    if (duplicate) duplicates.push_back(row.row);
    return duplicate;
  });
  if (!duplicates.empty() && !context_->performTransaction(
                                 [&](SqliteDatabase& db, ErrorRef* e) {
                                   for (std::int64_t row : duplicates) {
                                     auto remove =
                                         db.prepare("DELETE FROM transfers WHERE id = ?", e);
                                     if (!remove) return false;
                                     remove->bindInt(1, row);
                                     if (!remove->run(e)) return false;
                                   }
                                   return true;
                                 },
                                 error)) {
    return false;
  }
  std::vector<std::shared_ptr<VMAttachmentTransferObject>> loaded;
  for (const Row& row : rows) {
    std::shared_ptr<HXFileAttachment> attachment = context_->loadAttachment(row.key);
    auto transfer = std::make_shared<VMAttachmentTransferObject>(
        attachment, attachment ? attachment->delegate() : nullptr, row.type, row.id);
    transfer->setAttachmentPath(row.path);
    loaded.push_back(std::move(transfer));
  }
  std::lock_guard lock(mu_);
  transfers_.insert(transfers_.end(), loaded.begin(), loaded.end());
  return true;
}

bool SqliteTransferManager::writeRow(SqliteDatabase& database,
                                     const VMAttachmentTransferObject& transfer, ErrorRef* error) {
  auto statement = database.prepare(
      "INSERT INTO transfers (attachmentID, attachmentPK, operationType, path) VALUES (?,?,?,?)",
      error);
  if (!statement) return false;
  statement->bindText(1, transfer.attachmentID());
  statement->bindInt(2, transfer.attachment()
                            ? static_cast<std::int64_t>(transfer.attachment()->primaryKeyValue())
                            : 0);
  statement->bindInt(3, static_cast<std::int64_t>(transfer.operationType()));
  statement->bindText(4, transfer.attachmentPath().string());
  return statement->run(error);
}

bool SqliteTransferManager::persistAndAdd(
    const std::shared_ptr<VMAttachmentTransferObject>& transfer, ErrorRef* error) {
  return context_->withRecordSaveState(*transfer->attachment(), [&](bool saved) {
    if (saved &&
        !context_->performTransaction(
            [&](SqliteDatabase& db, ErrorRef* e) { return writeRow(db, *transfer, e); }, error)) {
      return false;
    }
    std::lock_guard lock(mu_);
    transfers_.push_back(transfer);
    if (!saved) pending_rows_.push_back(transfer);
    return true;
  });
}

std::shared_ptr<VMAttachmentTransferObject> SqliteTransferManager::registerTransferPath(
    std::string* transfer_path, const std::shared_ptr<HXFileAttachment>& attachment,
    std::shared_ptr<HXFileAttachmentTransferDelegate>* delegate, std::uint64_t operation_type,
    bool can_move_file, ErrorRef* error) {
  if (!attachment || !attachment->attachmentUUID() || attachment->attachmentUUID()->empty()) {
    Fail(error, RefusedError("A transfer needs an attachment with a UUID."));
    return nullptr;
  }
  if (transfer_path == nullptr || transfer_path->empty()) {
    Fail(error, RefusedError("A transfer needs a file path."));
    return nullptr;
  }
  std::filesystem::path path = *transfer_path;
  std::filesystem::path folder;
  if (can_move_file) {
    folder = basepath_ / ToLower(MakeUniqueID());
    std::error_code ec;
    ErrorRef move_error;
    std::filesystem::create_directories(folder, ec);
    if (ec) {
      move_error = PosixError(ec, folder);
    } else {
      MoveFile(path, folder / path.filename(), &move_error);
    }
    if (move_error) {
      std::filesystem::remove_all(folder, ec);
      Fail(error, RefusedError("Could not move the file into the transfer folder.", move_error));
      return nullptr;
    }
    path = folder / path.filename();
  }
  if (operation_type == kTransferOperationDownload) {
    // One download per attachment: a retrieval that failed before left its registration,
    // which this one takes over.
    if (auto existing = downloadOf(*attachment->attachmentUUID())) {
      if (existing->attachmentPath() != path && !updatePath(*existing, path, error)) {
        return nullptr;
      }
      existing->setDelegate(delegate ? *delegate : nullptr);
      *transfer_path = path.string();
      return existing;
    }
  }
  auto transfer = std::make_shared<VMAttachmentTransferObject>(
      attachment, delegate ? *delegate : nullptr, operation_type, *attachment->attachmentUUID());
  transfer->setAttachmentPath(path);
  if (!persistAndAdd(transfer, error)) {
    if (!folder.empty()) {
      // Put the file back where the caller expects it, so that a refused registration
      // loses nothing.
      std::error_code ignored;
      if (MoveFile(path, *transfer_path, nullptr)) std::filesystem::remove_all(folder, ignored);
    }
    return nullptr;
  }
  *transfer_path = path.string();
  return transfer;
}

std::shared_ptr<VMAttachmentTransferObject> SqliteTransferManager::downloadOf(
    const std::string& attachment_id) {
  std::lock_guard lock(mu_);
  for (const auto& transfer : transfers_) {
    if (transfer->operationType() == kTransferOperationDownload &&
        transfer->attachmentID() == attachment_id) {
      return transfer;
    }
  }
  return nullptr;
}

bool SqliteTransferManager::updatePath(VMAttachmentTransferObject& transfer,
                                       const std::filesystem::path& path, ErrorRef* error) {
  if (!context_->performTransaction(
          [&](SqliteDatabase& db, ErrorRef* e) {
            auto update = db.prepare(
                "UPDATE transfers SET path = ? WHERE attachmentID = ? AND operationType = ?", e);
            if (!update) return false;
            update->bindText(1, path.string());
            update->bindText(2, transfer.attachmentID());
            update->bindInt(3, static_cast<std::int64_t>(transfer.operationType()));
            return update->run(e);
          },
          error)) {
    return false;
  }
  transfer.setAttachmentPath(path);
  return true;
}

bool SqliteTransferManager::registerDeleteForAttachment(
    const std::shared_ptr<HXFileAttachment>& attachment, ErrorRef* error) {
  if (!attachment || !attachment->attachmentUUID()) {
    return Fail(error, RefusedError("A deletion needs an attachment with a UUID."));
  }
  auto transfer = std::make_shared<VMAttachmentTransferObject>(
      attachment, attachment->delegate(), kTransferOperationDelete, *attachment->attachmentUUID());
  return persistAndAdd(transfer, error);
}

void SqliteTransferManager::removeTransferForAttachmentIdentifier(
    const std::string& attachment_id) {
  std::vector<std::shared_ptr<VMAttachmentTransferObject>> removed;
  context_->performTransaction(
      [&](SqliteDatabase& db, ErrorRef* error) {
        auto statement = db.prepare("DELETE FROM transfers WHERE attachmentID = ?", error);
        if (!statement) return false;
        statement->bindText(1, attachment_id);
        if (!statement->run(error)) return false;
        std::lock_guard lock(mu_);
        auto matches = [&](const auto& t) { return t->attachmentID() == attachment_id; };
        auto first = std::stable_partition(transfers_.begin(), transfers_.end(),
                                           [&](const auto& t) { return !matches(t); });
        removed.assign(first, transfers_.end());
        transfers_.erase(first, transfers_.end());
        std::erase_if(pending_rows_, matches);
        pending_written_ = 0;
        return true;
      },
      nullptr);
  for (const auto& transfer : removed) {
    std::filesystem::path folder = transfer->attachmentPath().lexically_normal().parent_path();
    std::error_code ignored;
    // Only a folder this manager made is removed: a direct subfolder of basepath. A row
    // naming basepath itself, or a path outside it, stays.
    if (IsStrictlyInside(folder, basepath_) &&
        folder.parent_path() == basepath_.lexically_normal()) {
      std::filesystem::remove_all(folder, ignored);
    } else if (transfer->operationType() == kTransferOperationDownload &&
               IsStrictlyInside(folder, downloadFolder())) {
      // The encrypted bytes of a download are worth nothing once it is saved (or given up),
      // and can be as large as the attachment. Only the one file goes, then its own folders
      // while they are empty (the record's cache path below the download folder): the
      // folders directly in the download folder are shared by other downloads, so that
      // removing one could pull it from under a download being prepared, and they stay.
      if (IsPrivateFolderChain(downloadFolder(), folder)) {
        std::filesystem::remove(transfer->attachmentPath(), ignored);
        RemoveEmptyFoldersBelowShared(folder);
      }
    }
  }
}

void SqliteTransferManager::removeEmptyDownloadFolders(const VMAttachmentTransferObject& transfer) {
  if (transfer.operationType() != kTransferOperationDownload) return;
  const std::filesystem::path folder = transfer.attachmentPath().lexically_normal().parent_path();
  if (IsStrictlyInside(folder, downloadFolder()) &&
      IsPrivateFolderChain(downloadFolder(), folder)) {
    RemoveEmptyFoldersBelowShared(folder);
  }
}

std::vector<std::shared_ptr<VMAttachmentTransferObject>>
SqliteTransferManager::transfersForOperationType(std::uint64_t operation_type) {
  std::lock_guard lock(mu_);
  std::vector<std::shared_ptr<VMAttachmentTransferObject>> out;
  for (const auto& t : transfers_) {
    if (t->operationType() == operation_type) out.push_back(t);
  }
  return out;
}

void SqliteTransferManager::addTransferObjectLocked(
    std::shared_ptr<VMAttachmentTransferObject> transfer) {
  if (transfer->attachment()) pending_rows_.push_back(transfer);
  transfers_.push_back(std::move(transfer));
}

std::vector<std::shared_ptr<VMAttachmentTransferObject>> SqliteTransferManager::transferObjects() {
  std::lock_guard lock(mu_);
  return transfers_;
}

bool SqliteTransferManager::writePendingRows(SqliteDatabase& database, ErrorRef* error) {
  std::lock_guard lock(mu_);
  pending_written_ = 0;
  for (const auto& transfer : pending_rows_) {
    if (!writeRow(database, *transfer, error)) return false;
    ++pending_written_;
  }
  return true;
}

void SqliteTransferManager::didCommitPendingRows() {
  std::lock_guard lock(mu_);
  pending_rows_.erase(pending_rows_.begin(),
                      pending_rows_.begin() + static_cast<std::ptrdiff_t>(std::min(
                                                  pending_written_, pending_rows_.size())));
  pending_written_ = 0;
}

bool SqliteTransferManager::hasOwnFile(const VMAttachmentTransferObject& transfer) const {
  switch (transfer.operationType()) {
    case kTransferOperationUpload:
      return IsStrictlyInside(transfer.attachmentPath(), basepath_);
    case kTransferOperationDownload:
      return IsStrictlyInside(transfer.attachmentPath(), downloadFolder());
    default:
      return true;  // a deletion has no file
  }
}

void SqliteTransferManager::resumeTransfers(
    const std::vector<std::shared_ptr<VMAttachmentTransferObject>>& transfers,
    OutcomeHandler on_outcome, std::shared_ptr<HXFileAttachmentTransferDelegate> observer) {
  std::set<std::filesystem::path> download_paths;
  for (const auto& transfer : transfers) {
    // A scheme starts nothing for a type it does not know, so no outcome would ever come.
    if (const std::uint64_t type = transfer->operationType(); type > kTransferOperationDelete) {
      const auto& attachment = transfer->attachment();
      on_outcome(transfer, RefusedError(fmt::format(
                               "The transfer row of attachment {} ({}) has the unknown "
                               "operation type {}.",
                               attachment ? std::to_string(attachment->primaryKeyValue()) : "-",
                               transfer->attachmentID(), type)));
      continue;
    }
    // A row from the database could name any file; a resumed upload would send it away
    // and a resumed download would write there.
    if (!hasOwnFile(*transfer)) {
      on_outcome(transfer, PosixError(EINVAL, transfer->attachmentPath()));
      continue;
    }
    // Two downloads into one file would each remove and replace the other's bytes.
    if (transfer->operationType() == kTransferOperationDownload &&
        !download_paths.insert(transfer->attachmentPath().lexically_normal()).second) {
      on_outcome(transfer, RefusedError(fmt::format("Another download of this run writes to {}.",
                                                    transfer->attachmentPath().string())));
      continue;
    }
    ErrorRef error;
    if (!transferHandlerForTransfer(*transfer, &error)) {
      on_outcome(transfer, error);
      continue;
    }
    const std::shared_ptr<HXFileAttachment>& attachment = transfer->attachment();
    auto delegate =
        std::make_shared<OutcomeDelegate>(transfer, on_outcome, observer, attachment->delegate());
    transfer->setDelegate(delegate);
    attachment->setDelegate(delegate);
    if (!resumeTransfer(transfer, &error)) {
      delegate->report(error ? error
                             : RefusedError(fmt::format("The scheme would not resume transfer {}.",
                                                        transfer->attachmentID())));
    }
  }
}

}  // namespace vm
