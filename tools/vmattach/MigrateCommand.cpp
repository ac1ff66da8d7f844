#include "tools/vmattach/MigrateCommand.h"

#include <fmt/format.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <vector>

#include "VMAttachments/cloud/VMCAttachment.h"
#include "VMAttachments/schemes/VMAFPAttachment.h"
#include "VMAttachments/schemes/VMArchiverAttachment.h"
#include "host/HXFileAttachmentScheme.h"
#include "host/VMAttachmentTransferManager.h"
#include "host/sqlite/SqliteObjectContext.h"
#include "platform/OwnerLock.h"
#include "platform/SafeNames.h"
#include "platform/URLSession.h"
#include "tools/vmattach/AttachmentIO.h"
#include "tools/vmattach/AttachmentVerifier.h"
#include "tools/vmattach/Host.h"
#include "tools/vmattach/TransferCommands.h"

namespace vm::vmattach {
namespace {

namespace fs = std::filesystem;
constexpr int kUsageError = 2;

struct MigrateOptions {
  std::vector<std::string> ids;
  std::string from;
  std::string to;
};

// Test hook, for the tests that kill a move at a step no output marks: when
// VMATTACH_TEST_STOP_AT names `point` ("staged": the target copy stored, not yet verified;
// "saved": the row switched, the old copy not yet deleted), the process stops itself
// (SIGSTOP) there, for the test to see and kill.
void StopIfAsked(std::string_view point) {
  const char* at = std::getenv("VMATTACH_TEST_STOP_AT");
  if (at != nullptr && point == at) std::raise(SIGSTOP);
}

// The moves under way, in the host database.
class MigrationJournal {
 public:
  struct Entry {
    std::uint64_t attachment = 0;
    std::uint64_t staging = 0;  // the row the target copy is stored as, its key taken
    std::uint64_t target_scheme = 0;
  };

  explicit MigrationJournal(SqliteObjectContext& context) : context_(context) {}

  bool open(ErrorRef* error) {
    return context_.performTransaction(
        [](SqliteDatabase& db, ErrorRef* e) {
          // A row per move under way, written before its target copy is stored: all a later
          // run needs to find that copy again; the rest is read from the two attachment rows.
          return db.exec(
              "CREATE TABLE IF NOT EXISTS migrations (attachmentID INTEGER PRIMARY KEY, "
              "stagingID INTEGER NOT NULL, targetSchemeID INTEGER NOT NULL)",
              e);
        },
        error);
  }

  std::vector<Entry> entries(ErrorRef* error) {
    std::vector<Entry> out;
    context_.performTransaction(
        [&out](SqliteDatabase& db, ErrorRef* e) {
          auto statement =
              db.prepare("SELECT attachmentID, stagingID, targetSchemeID FROM migrations", e);
          if (!statement) return false;
          while (statement->step(e)) {
            out.push_back({static_cast<std::uint64_t>(statement->columnInt(0)),
                           static_cast<std::uint64_t>(statement->columnInt(1)),
                           static_cast<std::uint64_t>(statement->columnInt(2))});
          }
          return !*e;
        },
        error);
    return out;
  }

  bool add(const Entry& entry, ErrorRef* error) {
    return run("INSERT OR REPLACE INTO migrations VALUES (?1, ?2, ?3)", entry, error);
  }

  bool remove(std::uint64_t attachment, ErrorRef* error) {
    return run("DELETE FROM migrations WHERE attachmentID = ?1", {attachment, 0, 0}, error);
  }

 private:
  bool run(const char* sql, const Entry& entry, ErrorRef* error) {
    return context_.performTransaction(
        [&](SqliteDatabase& db, ErrorRef* e) {
          auto statement = db.prepare(sql, e);
          if (!statement) return false;
          statement->bindInt(1, static_cast<std::int64_t>(entry.attachment));
          if (std::string_view(sql).find("?2") != std::string_view::npos) {
            statement->bindInt(2, static_cast<std::int64_t>(entry.staging));
            statement->bindInt(3, static_cast<std::int64_t>(entry.target_scheme));
          }
          return statement->run(e);
        },
        error);
  }

  SqliteObjectContext& context_;
};

// The folder of the data folder's where a move brings an attachment's bytes back, owned
// by the process that moves it (its OwnerLock) so that no other process finishes or starts
// the same move meanwhile; removed when done, or by a later run when its owner was killed.
class WorkFolder {
 public:
  WorkFolder(const fs::path& root, std::uint64_t id) : path_(root / std::to_string(id)) {
    std::error_code ec;
    fs::create_directories(root, ec);
    if (!RemoveIfAbandoned(path_)) {
      problem_ = "another vmattach process is moving it";
      return;
    }
    ErrorRef error;
    lock_ = OwnerLock::CreateFolder(path_, &error);
    if (!lock_.held()) problem_ = error ? error->localizedDescription() : "no work folder";
  }
  ~WorkFolder() {
    if (!lock_.held()) return;
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  WorkFolder(const WorkFolder&) = delete;
  WorkFolder& operator=(const WorkFolder&) = delete;

  bool claimed() const { return lock_.held(); }
  const std::string& problem() const { return problem_; }
  const fs::path& path() const { return path_; }

 private:
  const fs::path path_;
  OwnerLock lock_;
  std::string problem_;
};

enum class Result { kMoved, kSkipped, kFailed };

struct Outcome {
  Result result = Result::kFailed;
  std::string reason;  // for a failure, in words
};

Outcome Failed(std::string reason) { return {Result::kFailed, std::move(reason)}; }

std::shared_ptr<HXFileAttachmentSchemeHandler> HandlerOf(const HXFileAttachment& attachment) {
  auto scheme = attachment.fileAttachmentScheme();
  return scheme ? scheme->schemeHandler() : nullptr;
}

std::string SchemeName(const HXFileAttachment& attachment) {
  auto scheme = attachment.fileAttachmentScheme();
  return scheme ? scheme->name() : "?";
}

// The storage fields of two rows change places: the attachment takes the staged copy's,
// the staging row the old copy's, so that the old copy is deleted as that row is.
void SwapStorage(HXFileAttachment& a, HXFileAttachment& b) {
  auto scheme = a.fileAttachmentScheme();
  a.setFileAttachmentScheme(b.fileAttachmentScheme());
  b.setFileAttachmentScheme(scheme);
  auto path = a.attachmentPath();
  a.setAttachmentPath(b.attachmentPath());
  b.setAttachmentPath(path);
  bool relative = a.isRelativePath();
  a.setIsRelativePath(b.isRelativePath());
  b.setIsRelativePath(relative);
  auto uploaded = a.uploaded();
  a.setUploaded(b.uploaded());
  b.setUploaded(uploaded);
  auto uuid = a.attachmentUUID();
  a.setAttachmentUUID(b.attachmentUUID());
  b.setAttachmentUUID(uuid);
  auto initial = a.initialAttachmentUUID();
  a.setInitialAttachmentUUID(b.initialAttachmentUUID());
  b.setInitialAttachmentUUID(initial);
  auto temporary = a.temporaryPath();
  a.setTemporaryPath(b.temporaryPath());
  b.setTemporaryPath(temporary);
  auto encryption = a.encryptionData();
  a.setEncryptionData(b.encryptionData());
  b.setEncryptionData(encryption);
  auto a_values = a.keyedValues();
  auto b_values = b.keyedValues();
  for (const auto& [key, value] : a_values) {
    if (!b_values.contains(key)) a.setObject(std::nullopt, key);
  }
  for (const auto& [key, value] : b_values) {
    if (!a_values.contains(key)) b.setObject(std::nullopt, key);
  }
  for (const auto& [key, value] : b_values) a.setObject(value, key);
  for (const auto& [key, value] : a_values) b.setObject(value, key);
}

// Moves attachments to other schemes, one at a time, on the main thread.
class Migrator {
 public:
  Migrator(SqliteObjectContext& context, MigrationJournal& journal, fs::path work_root)
      : context_(context), journal_(journal), work_root_(std::move(work_root)) {}

  // Moves `attachment` to `target`.
  Outcome move(const std::shared_ptr<HXFileAttachment>& attachment,
               const std::shared_ptr<HXFileAttachmentScheme>& target);

  // Finishes the move a killed run left in `entry`: the outcome when the attachment ended
  // on its target, or nullopt when nothing of the move was kept (it starts over).
  std::optional<Outcome> finish(const MigrationJournal::Entry& entry);

 private:
  // Verifies the staged copy, switches the rows, deletes the old copy.
  Outcome complete(const std::shared_ptr<HXFileAttachment>& attachment,
                   const std::shared_ptr<HXFileAttachment>& staged);
  // Where a share keeps `record`'s bytes (a staging row not stored yet: where it would);
  // nullopt when that cannot be told.
  std::optional<fs::path> SharedCopyPath(HXFileAttachment& record, VMAFPAttachment& share);
  // Removes the bytes `record` stands for through its scheme, then the row.
  bool dropCopy(const std::shared_ptr<HXFileAttachment>& record);
  VerifyOutcome verify(const std::shared_ptr<HXFileAttachment>& staged);
  void forget(std::uint64_t attachment) {
    ErrorRef error;
    if (!journal_.remove(attachment, &error)) ReportFailure(error);
  }

  SqliteObjectContext& context_;
  MigrationJournal& journal_;
  const fs::path work_root_;
};

std::optional<fs::path> Migrator::SharedCopyPath(HXFileAttachment& record, VMAFPAttachment& share) {
  auto* archiver = dynamic_cast<VMArchiverAttachment*>(&share);
  ErrorRef error;
  if (!(archiver && archiver->isShareAlreadyAvailable()) &&
      !share.mountShareReturningError(&error)) {
    return std::nullopt;
  }
  const std::string relative = RelativeStoragePath(record, "");
  if (archiver) {
    // A staging row whose store did not end still names the work copy.
    if (fs::path(record.attachmentPath()).is_absolute()) {
      record.setAttachmentPath(AppendPathComponent(relative, record.name()).string());
    }
    if (CheckRelativePath(record.attachmentPath(), "attachment path")) return std::nullopt;
    auto shared = context_.attachmentWithPrimaryKey(record.primaryKeyValue());
    return shared ? archiver->attachmentURL(shared) : std::nullopt;
  }
  std::optional<fs::path> root = share.sharePath();
  if (!root || CheckFileName(record.name(), "attachment name") ||
      CheckRelativePath(relative, "attachment folder")) {
    return std::nullopt;
  }
  return AppendPathComponent(AppendPathComponent(*root, relative), record.name());
}

bool Migrator::dropCopy(const std::shared_ptr<HXFileAttachment>& record) {
  auto handler = HandlerOf(*record);
  if (auto* share = dynamic_cast<VMAFPAttachment*>(handler.get())) {
    // Shares have no deletion of their own: the stored item goes here, with the folders
    // made for it alone once empty.
    if (std::optional<fs::path> path = SharedCopyPath(*record, *share)) {
      std::error_code ec;
      fs::remove_all(*path, ec);
      if (ec) return ReportFailure(PosixError(ec, *path)) == 0;
      // The folders between the stored item and the share's root, never the root itself.
      const fs::path between = dynamic_cast<VMArchiverAttachment*>(share)
                                   ? fs::path(record->attachmentPath()).parent_path()
                                   : fs::path(RelativeStoragePath(*record, ""));
      fs::path folder = path->parent_path();
      for (auto it = between.begin(); it != between.end() && fs::remove(folder, ec); ++it) {
        folder = folder.parent_path();
      }
    }
  }
  // The cloud deletes through its scheme; a file reference keeps the user's file.
  return DeleteAttachment(context_, record);
}

VerifyOutcome Migrator::verify(const std::shared_ptr<HXFileAttachment>& staged) {
  auto handler = HandlerOf(*staged);
  if (auto* cloud = dynamic_cast<VMCAttachment*>(handler.get())) {
    return VerifyCloudAttachment(CloudVerifyTargetOf(*staged, *cloud), true,
                                 URLSession::sharedSession());
  }
  if (auto* share = dynamic_cast<VMAFPAttachment*>(handler.get())) {
    std::optional<fs::path> path = SharedCopyPath(*staged, *share);
    if (!path) return {VerifyStatus::kMissing, "the stored copy cannot be found"};
    return VerifyStoredPath(*path, true);
  }
  return {VerifyStatus::kCorrupt, "the target scheme cannot be verified"};
}

Outcome Migrator::complete(const std::shared_ptr<HXFileAttachment>& attachment,
                           const std::shared_ptr<HXFileAttachment>& staged) {
  const std::uint64_t id = attachment->primaryKeyValue();
  const std::string target = SchemeName(*staged);
  VerifyOutcome checked = verify(staged);
  if (checked.status != VerifyStatus::kOK) {
    // The old copy stays the attachment's; the new one goes, so that nothing is kept twice.
    if (dropCopy(staged)) forget(id);
    return Failed(fmt::format("the copy on \"{}\" did not verify ({}: {})", target,
                              VerifyStatusName(checked.status), checked.detail));
  }
  SwapStorage(*attachment, *staged);
  ErrorRef error;
  if (!context_.saveChanges(&error)) {
    ReportFailure(error);
    return Failed("the row could not be saved; run the command again");
  }
  StopIfAsked("saved");
  if (!dropCopy(staged)) {
    return Failed(
        fmt::format("moved to \"{}\", but the old copy could not be deleted; run the command "
                    "again to delete it",
                    target));
  }
  forget(id);
  return {Result::kMoved, {}};
}

Outcome Migrator::move(const std::shared_ptr<HXFileAttachment>& attachment,
                       const std::shared_ptr<HXFileAttachmentScheme>& target) {
  const std::uint64_t id = attachment->primaryKeyValue();
  auto source = HandlerOf(*attachment);
  if (!source) return Failed("the row names no usable scheme");
  if (attachment->fileAttachmentSchemeID() == target->primaryKeyValue()) {
    return {Result::kSkipped, {}};
  }
  if (dynamic_cast<VMCAttachment*>(source.get()) && !attachment->uploaded().value_or(false)) {
    return Failed(fmt::format(
        "its upload is not finished; resume transfers first: vmattach transfers resume {}", id));
  }
  auto target_handler = target->schemeHandler();
  if (!target_handler) return Failed(fmt::format("scheme \"{}\" has no handler", target->name()));
  for (HXFileAttachmentScheme* scheme : {attachment->fileAttachmentScheme().get(), target.get()}) {
    if (std::string problem = MissingTokenProblem(*scheme); !problem.empty()) {
      return Failed(problem);
    }
  }

  WorkFolder work(work_root_, id);
  if (!work.claimed()) return Failed(work.problem());
  ErrorRef error;
  std::error_code ec;
  fs::path bytes;
  if (IsSynchronousScheme(source->className())) {
    // A reference: the user's own file is read where it is.
    std::optional<fs::path> url = source->attachmentURL(attachment);
    if (!url || !fs::exists(*url, ec)) return Failed("the referenced file is missing");
    bytes = *url;
  } else {
    if (!RetrieveAttachment(context_, attachment, source, work.path(), false)) {
      return Failed(
          fmt::format("its bytes could not be brought back from \"{}\"", SchemeName(*attachment)));
    }
    bytes = work.path() / attachment->name();
  }

  fs::path staged_source;
  auto staged = NewAttachmentForFile(context_, target, bytes.string(), &staged_source);
  if (!staged) return Failed("no staging row could be made");
  if (!journal_.add({id, staged->primaryKeyValue(), target->primaryKeyValue()}, &error)) {
    ReportFailure(error);
    return Failed("the move could not be journaled");
  }
  // A copying scheme's row is saved before its bytes land, so that a killed run's partial
  // copy is found and removed by the next.
  if (!QueuesTransfers(*target_handler) && !context_.saveChanges(&error)) {
    ReportFailure(error);
    forget(id);
    return Failed("the staging row could not be saved");
  }
  if (!StoreAttachmentBytes(context_, staged, target_handler, staged_source,
                            RelativeStoragePath(*staged, ""), false)) {
    if (dropCopy(staged)) forget(id);
    return Failed(fmt::format("the store through \"{}\" failed", target->name()));
  }
  StopIfAsked("staged");
  return complete(attachment, staged);
}

std::optional<Outcome> Migrator::finish(const MigrationJournal::Entry& entry) {
  WorkFolder work(work_root_, entry.attachment);
  if (!work.claimed()) return Failed(work.problem());
  auto attachment = context_.attachmentWithPrimaryKey(entry.attachment);
  auto staged = context_.attachmentWithPrimaryKey(entry.staging);
  if (!staged) {
    // The staging row was never saved (nothing stored) or is gone with the old copy.
    forget(entry.attachment);
    if (attachment && attachment->fileAttachmentSchemeID() == entry.target_scheme) {
      return Outcome{Result::kMoved, {}};
    }
    return std::nullopt;
  }
  if (!attachment) {
    if (dropCopy(staged)) forget(entry.attachment);
    return std::nullopt;
  }
  const bool switched = attachment->fileAttachmentSchemeID() == entry.target_scheme &&
                        staged->fileAttachmentSchemeID() != entry.target_scheme;
  if (switched) {
    if (!dropCopy(staged))
      return Failed("the old copy could not be deleted; run the command again");
    forget(entry.attachment);
    return Outcome{Result::kMoved, {}};
  }
  auto handler = HandlerOf(*staged);
  if (handler && QueuesTransfers(*handler) && !staged->uploaded().value_or(false)) {
    // The upload of the staged copy goes on where it stopped.
    if (!ResumeTransfersOf(context_, staged->primaryKeyValue())) {
      return Failed("the staged upload could not be finished; run the command again");
    }
  }
  if (handler && QueuesTransfers(*handler) && staged->uploaded().value_or(false) &&
      staged->initialAttachmentUUID()) {
    // An upload saves its row before it gives up its registration: one killed in between
    // is done, and its registration goes.
    context_.attachmentTransferManager()->removeTransferForAttachmentIdentifier(
        *staged->initialAttachmentUUID());
  }
  if (!staged->uploaded().value_or(false)) {
    // A copy that never finished landing is not worth keeping: it goes, and the move
    // starts over.
    if (dropCopy(staged)) forget(entry.attachment);
    return std::nullopt;
  }
  return complete(attachment, staged);
}

int RunMigrate(const GlobalOptions& options, const MigrateOptions& migrate) {
  if (migrate.ids.empty() == migrate.from.empty()) {
    ReportFailure("name the attachments: either IDs or --from SCHEME");
    return kUsageError;
  }
  ErrorRef error;
  auto context = OpenHost(options, &error);
  if (!context) return ReportFailure(error);
  auto target = context->schemeNamed(migrate.to);
  if (!target) {
    ReportFailure(fmt::format("no scheme named \"{}\"", migrate.to));
    return kUsageError;
  }
  auto target_handler = target->schemeHandler();
  if (target_handler && IsSynchronousScheme(target_handler->className())) {
    ReportFailure(fmt::format(
        "scheme \"{}\" is a file reference: it holds no bytes to move an attachment into",
        migrate.to));
    return kUsageError;
  }
  std::shared_ptr<HXFileAttachmentScheme> from;
  if (!migrate.from.empty() && !(from = context->schemeNamed(migrate.from))) {
    ReportFailure(fmt::format("no scheme named \"{}\"", migrate.from));
    return kUsageError;
  }
  std::vector<std::shared_ptr<HXFileAttachment>> chosen;
  for (const std::string& text : migrate.ids) {
    auto attachment = context->attachmentWithPrimaryKey(ParseRecordID(text).value_or(0));
    if (!attachment) {
      ReportFailure(fmt::format("no attachment with id {}", text));
      return kUsageError;
    }
    chosen.push_back(std::move(attachment));
  }

  MigrationJournal journal(*context);
  if (!journal.open(&error)) return ReportFailure(error);
  ReclaimAbandonedFiles(*context);
  const fs::path work_root = context->dataDirectory() / "migrating";
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(work_root, ec)) RemoveIfAbandoned(entry.path());

  // Moves a killed run left are finished first, whatever this run names.
  Migrator migrator(*context, journal, work_root);
  // Those of them bound for this run's target are reported with its own.
  std::map<std::uint64_t, Outcome> finished;
  for (const MigrationJournal::Entry& entry : journal.entries(&error)) {
    std::optional<Outcome> outcome = migrator.finish(entry);
    if (!outcome || entry.target_scheme != target->primaryKeyValue()) continue;
    finished[entry.attachment] = *outcome;
    if (auto attachment = context->attachmentWithPrimaryKey(entry.attachment)) {
      chosen.push_back(std::move(attachment));
    }
  }
  if (error) return ReportFailure(error);
  std::set<std::uint64_t> staging;
  for (const MigrationJournal::Entry& entry : journal.entries(nullptr)) {
    staging.insert(entry.staging);
  }
  if (from) {
    for (const auto& attachment : context->allAttachments(&error)) {
      if (attachment->fileAttachmentSchemeID() == from->primaryKeyValue() &&
          !staging.contains(attachment->primaryKeyValue())) {
        chosen.push_back(attachment);
      }
    }
    if (error) return ReportFailure(error);
  }

  nlohmann::json moved = nlohmann::json::array(), skipped = nlohmann::json::array(),
                 failed = nlohmann::json::array();
  std::set<std::uint64_t> seen;
  for (const auto& attachment : chosen) {
    const std::uint64_t id = attachment->primaryKeyValue();
    if (!seen.insert(id).second) continue;
    Outcome outcome;
    if (auto it = finished.find(id); it != finished.end()) {
      outcome = it->second;
    } else if (staging.contains(id)) {
      outcome = Failed("it is the staged copy of a move under way; run the command again");
    } else {
      outcome = migrator.move(attachment, target);
    }
    switch (outcome.result) {
      case Result::kMoved:
        moved.push_back(id);
        if (!options.json) fmt::print("{}\tmoved\n", id);
        break;
      case Result::kSkipped:
        skipped.push_back(id);
        if (!options.json) fmt::print("{}\tskipped\talready on \"{}\"\n", id, target->name());
        break;
      case Result::kFailed:
        failed.push_back({{"id", id}, {"reason", outcome.reason}});
        if (!options.json) {
          fmt::print("{}\tfailed\t{}\n", id, EscapeControlCharacters(outcome.reason));
        }
        break;
    }
  }
  if (options.json) {
    std::cout << nlohmann::json{{"moved", moved}, {"failed", failed}, {"skipped", skipped}}.dump(2)
              << "\n";
  }
  return failed.empty() ? 0 : 1;
}

}  // namespace

void AddMigrateCommand(CLI::App& app, const GlobalOptions& options, int* exit_code) {
  auto migrate_options = std::make_shared<MigrateOptions>();
  CLI::App* migrate =
      app.add_subcommand("migrate", "Move attachments' bytes to another scheme, keeping their ids");
  migrate->add_option("id", migrate_options->ids, "Attachment ids (or --from)")
      ->transform(RecordIDValidator());
  migrate->add_option("--from", migrate_options->from, "Move every attachment of this scheme")
      ->check(NonEmptyValidator());
  migrate->add_option("--to", migrate_options->to, "The scheme to move them to")
      ->required()
      ->check(NonEmptyValidator());
  SetCommandBody(migrate, exit_code,
                 [&options, migrate_options] { return RunMigrate(options, *migrate_options); });
}

}  // namespace vm::vmattach
