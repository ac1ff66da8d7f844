#include "host/sqlite/SqliteTransferManager.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/HXFileAttachment.h"
#include "host/HostConstants.h"
#include "host/sqlite/SqliteObjectContext.h"
#include "platform/UniqueID.h"

namespace vm {
namespace {

ErrorRef RefusedError(std::string_view description, ErrorRef underlying = nullptr) {
  return Error::WithDescription(kVMFileAttachmentDomain, 2, description, std::move(underlying));
}

bool IsInside(const std::filesystem::path& path, const std::filesystem::path& folder) {
  auto relative = path.lexically_normal().lexically_relative(folder.lexically_normal());
  return !relative.empty() && *relative.begin() != "..";
}

}  // namespace

SqliteTransferManager::SqliteTransferManager(SqliteObjectContext* context,
                                             std::filesystem::path basepath)
    : context_(context), basepath_(std::move(basepath)) {}

bool SqliteTransferManager::load(ErrorRef* error) {
  auto statement = context_->database().prepare(
      "SELECT attachmentID, attachmentPK, operationType, path FROM transfers ORDER BY id", error);
  if (!statement) return false;
  struct Row {
    std::string id;
    std::uint64_t key;
    std::uint64_t type;
    std::string path;
  };
  std::vector<Row> rows;
  ErrorRef failure;
  while (statement->step(&failure)) {
    rows.push_back({statement->columnText(0), static_cast<std::uint64_t>(statement->columnInt(1)),
                    static_cast<std::uint64_t>(statement->columnInt(2)), statement->columnText(3)});
  }
  if (failure) return Fail(error, failure);
  std::lock_guard lock(mu_);
  for (const Row& row : rows) {
    std::shared_ptr<HXFileAttachment> attachment = context_->loadAttachment(row.key);
    auto transfer = std::make_shared<VMAttachmentTransferObject>(
        attachment, attachment ? attachment->delegate() : nullptr, row.type, row.id);
    transfer->setAttachmentPath(row.path);
    transfers_.push_back(std::move(transfer));
  }
  return true;
}

bool SqliteTransferManager::persist(const VMAttachmentTransferObject& transfer, ErrorRef* error) {
  auto statement = context_->database().prepare(
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
  if (can_move_file) {
    std::filesystem::path folder = basepath_ / ToLower(MakeUniqueID());
    std::error_code ec;
    std::filesystem::create_directories(folder, ec);
    if (!ec) std::filesystem::rename(path, folder / path.filename(), ec);
    if (ec) {
      Fail(error,
           RefusedError("Could not move the file into the transfer folder.", PosixError(ec, path)));
      return nullptr;
    }
    path = folder / path.filename();
    *transfer_path = path.string();
  }
  auto transfer = std::make_shared<VMAttachmentTransferObject>(
      attachment, delegate ? *delegate : nullptr, operation_type, *attachment->attachmentUUID());
  transfer->setAttachmentPath(path);
  if (!persist(*transfer, error)) return nullptr;
  std::lock_guard lock(mu_);
  transfers_.push_back(transfer);
  return transfer;
}

bool SqliteTransferManager::registerDeleteForAttachment(
    const std::shared_ptr<HXFileAttachment>& attachment, ErrorRef* error) {
  if (!attachment || !attachment->attachmentUUID()) {
    return Fail(error, RefusedError("A deletion needs an attachment with a UUID."));
  }
  auto transfer = std::make_shared<VMAttachmentTransferObject>(
      attachment, attachment->delegate(), kTransferOperationDelete, *attachment->attachmentUUID());
  if (!persist(*transfer, error)) return false;
  std::lock_guard lock(mu_);
  transfers_.push_back(std::move(transfer));
  return true;
}

void SqliteTransferManager::removeTransferForAttachmentIdentifier(
    const std::string& attachment_id) {
  auto statement =
      context_->database().prepare("DELETE FROM transfers WHERE attachmentID = ?", nullptr);
  if (statement) {
    statement->bindText(1, attachment_id);
    statement->run(nullptr);
  }
  std::lock_guard lock(mu_);
  auto removed = std::stable_partition(transfers_.begin(), transfers_.end(), [&](const auto& t) {
    return t->attachmentID() != attachment_id;
  });
  for (auto it = removed; it != transfers_.end(); ++it) {
    std::filesystem::path folder = (*it)->attachmentPath().parent_path();
    // Only folders this manager made are removed; a download's file elsewhere stays.
    if (IsInside(folder, basepath_)) {
      std::error_code ignored;
      std::filesystem::remove_all(folder, ignored);
    }
  }
  transfers_.erase(removed, transfers_.end());
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
  // The caller holds mu_. Persisting keeps the re-queued transfer across a restart.
  persist(*transfer, nullptr);
  transfers_.push_back(std::move(transfer));
}

std::vector<std::shared_ptr<VMAttachmentTransferObject>> SqliteTransferManager::transferObjects() {
  std::lock_guard lock(mu_);
  return transfers_;
}

}  // namespace vm
