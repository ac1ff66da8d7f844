#ifndef VM_HOST_SQLITE_SQLITEOBJECTCONTEXT_H_
#define VM_HOST_SQLITE_SQLITEOBJECTCONTEXT_H_

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/HXFileAttachment.h"
#include "host/HXFileAttachmentScheme.h"
#include "host/HXObjectContext.h"
#include "host/sqlite/SqliteDatabase.h"

namespace vm {

class JsonFileUserDefaults;
class SqliteAttachmentCache;
class SqliteTransferManager;

// Choices made when a data folder is created; ignored when it already exists.
struct SqliteCreateOptions {
  std::optional<std::int64_t> primaryKeyOffset;  // default: random in [0, 999]
  std::uint64_t customerID = 1;
  std::string username;  // default: $USER
};

// The reference host: one data folder holding the SQLite database ("attachments.sqlite"),
// the attachment cache ("cache/"), the transfer manager's folder ("transfers/") and the
// user defaults ("defaults.json").
//
// Records are unique per context: fetching a row that is already loaded returns the same
// object. The context keeps every record it handed out until it is destroyed, so changes
// are never lost before saveChanges(), which writes all changed records in one
// transaction. Thread-safe; the destructor waits for asynchronous fetches still running.
class SqliteObjectContext : public HXObjectContext, public HXInstanceCache {
 public:
  static std::unique_ptr<SqliteObjectContext> open(const std::filesystem::path& data_dir,
                                                   ErrorRef* error,
                                                   const SqliteCreateOptions& options = {});
  // Only for tests of schema upgrades: opens and migrates no further than `version`.
  static std::unique_ptr<SqliteObjectContext> openAtSchemaVersion(
      const std::filesystem::path& data_dir, int version, ErrorRef* error);
  ~SqliteObjectContext() override;

  // Makes this context's cache and defaults the process's shared ones, and its settings
  // the source of cloud tokens.
  void installAsProcessHost();

  const std::filesystem::path& dataDirectory() const { return data_dir_; }
  // What opening changed to keep the data folder private (permissions it tightened), for
  // the host to tell its user; also logged.
  const std::vector<std::string>& openNotices() const { return open_notices_; }
  std::filesystem::path cacheDirectory() const { return data_dir_ / "cache"; }
  std::filesystem::path transfersDirectory() const { return data_dir_ / "transfers"; }
  SqliteDatabase& database() { return *db_; }
  const std::shared_ptr<SqliteAttachmentCache>& attachmentCache() const { return cache_; }
  const std::shared_ptr<JsonFileUserDefaults>& userDefaults() const { return defaults_; }
  int schemaVersion();

  // Settings of the data folder (meta table): "velmoraAPI", "cloudToken" and the like.
  std::optional<std::string> setting(const std::string& key);
  bool setSetting(const std::string& key, const std::string& value, ErrorRef* error);

  // Typed creation and lookup. New records get their primary key at once and are written
  // by the next saveChanges(). Null with `*error` set when no key could be taken (another
  // process holds the database's write lock past the busy timeout, or it cannot be written).
  std::shared_ptr<HXFileAttachment> insertAttachment(ErrorRef* error = nullptr);
  std::shared_ptr<HXFileAttachmentScheme> insertScheme(std::string name,
                                                       std::string handler_class_name,
                                                       ErrorRef* error = nullptr);
  // Takes `count` primary keys in one transaction for the inserts that follow, which use
  // them first, in order: a command that makes many records pays one commit for their keys,
  // not one each. Keys not used by the time the context goes are skipped, never reused.
  // False with `*error` as for an insert.
  bool reservePrimaryKeys(std::size_t count, ErrorRef* error);
  std::shared_ptr<HXFileAttachmentScheme> schemeNamed(const std::string& name);
  std::shared_ptr<HXFileAttachmentScheme> schemeWithPrimaryKey(std::uint64_t key);
  std::vector<std::shared_ptr<HXFileAttachmentScheme>> allSchemes(ErrorRef* error = nullptr);
  std::shared_ptr<HXFileAttachment> attachmentWithPrimaryKey(std::uint64_t key,
                                                             bool include_hidden_and_trash = true);
  std::vector<std::shared_ptr<HXFileAttachment>> allAttachments(ErrorRef* error = nullptr);
  // Trash and permission flags of a stored row, and e-mail links (used by tests and tools).
  bool setRowFlags(const HXRecord& record, bool in_trash, bool hidden, ErrorRef* error);
  bool linkEmailToAttachment(const HXRecord& email, const HXRecord& attachment, ErrorRef* error);

  // HXObjectContext.
  bool saveChanges(ErrorRef* error) override;
  FetchResults resultsForFetchRequest(const BWPFetchRequest& request,
                                      ErrorRef* error = nullptr) override;
  void asyncResultsForFetchRequest(std::shared_ptr<BWPAsyncFetchRequest> request) override;
  HXInstanceCache& instanceCache() override { return *this; }
  VMAttachmentTransferManager* attachmentTransferManager() override;
  std::shared_ptr<HXFileAttachmentScheme> cloudStorageScheme() override;
  std::shared_ptr<HXFileAttachmentSchemeHandler> schemeHandlerForScheme(
      HXFileAttachmentScheme& scheme) override;
  std::int64_t primaryKeyOffset() const override { return primary_key_offset_; }
  HXDatabaseIdentifier databaseIdentifier() const override { return {customer_id_}; }
  std::string databaseUUID() const override { return database_uuid_; }
  HXUser user() const override { return {username_}; }
  // Null for an unknown entity, and for an insert when no key could be taken.
  std::shared_ptr<HXRecord> createObjectForEntityNamed(std::string_view entity_name,
                                                       bool insert) override;
  void removeTaskFromInboxList(HXTask& task) override;
  void addTaskToWorklist(HXTask& task) override;
  void linkObject(HXRecord& object, HXRecord& to_object) override;

  // HXInstanceCache: the loaded records of an entity that match.
  FetchResults objectsForEntityNamed(std::string_view entity_name,
                                     const BDQualifierRef& qualifier) override;

  // Removes an attachment's row, its e-mail joins and links, in one transaction; the
  // record object stays valid but is no longer the context's. An insert not yet saved is
  // simply forgotten.
  bool deleteAttachment(const std::shared_ptr<HXFileAttachment>& attachment, ErrorRef* error);

  // For the transfer manager: loads the attachment of a primary key.
  std::shared_ptr<HXFileAttachment> loadAttachment(std::uint64_t key);
  // For the transfer manager: runs `body` under the context's lock with whether `record`
  // is in the database (false for an insert that waits for saveChanges()).
  bool withRecordSaveState(const HXRecord& record, const std::function<bool(bool saved)>& body);
  // Runs `body` in a transaction of its own under the context's lock; rolls back when it
  // fails.
  bool performTransaction(const std::function<bool(SqliteDatabase&, ErrorRef*)>& body,
                          ErrorRef* error);
  // Re-reads a record of this context whose row another connection changed since it was
  // read; a record with unsaved changes is left alone. The records' refreshIfNeeded().
  void refreshAttachment(HXFileAttachment& attachment);

 private:
  SqliteObjectContext(std::filesystem::path data_dir, std::unique_ptr<SqliteDatabase> db);
  static std::unique_ptr<SqliteObjectContext> openImpl(const std::filesystem::path& data_dir,
                                                       int schema_version, ErrorRef* error,
                                                       const SqliteCreateOptions& options);
  bool loadOrCreateMeta(const SqliteCreateOptions& options, ErrorRef* error);
  std::shared_ptr<HXRecord> createObject(std::string_view entity_name, bool insert,
                                         ErrorRef* error);
  std::shared_ptr<HXRecord> makeRecord(std::string_view entity_name, std::uint64_t key);
  // The record of a fetched row: the loaded one when there is one, else a new record.
  std::shared_ptr<HXRecord> recordFromRow(std::string_view entity_name, SqliteStatement& row,
                                          std::int64_t data_version);
  // Sets the record's attributes to the row's and clears its changes.
  void applyRow(HXRecord& record, SqliteStatement& row);
  // PRAGMA data_version: changes whenever another connection commits; -1 on failure.
  std::int64_t dataVersion();
  FetchResults fetch(const BWPFetchRequest& request, ErrorRef* error);

  const std::filesystem::path data_dir_;
  const std::unique_ptr<SqliteDatabase> db_;
  std::shared_ptr<SqliteAttachmentCache> cache_;
  std::shared_ptr<JsonFileUserDefaults> defaults_;
  std::unique_ptr<SqliteTransferManager> transfer_manager_;

  std::vector<std::string> open_notices_;
  std::int64_t primary_key_offset_ = 0;
  std::uint64_t customer_id_ = 1;
  std::string username_;
  std::string database_uuid_;

  std::recursive_mutex mu_;
  // Every record handed out, by (entity, key). Invariant: one object per row.
  std::map<std::pair<std::string, std::uint64_t>, std::shared_ptr<HXRecord>, std::less<>> records_;
  // Keys taken by reservePrimaryKeys() and not used yet, the next first.
  std::deque<std::uint64_t> reserved_keys_;
  // Keys of records created here and not yet written.
  std::set<std::pair<std::string, std::uint64_t>> unsaved_inserts_;
  std::map<std::uint64_t, std::string> pending_task_lists_;
  std::vector<
      std::pair<std::pair<std::string, std::uint64_t>, std::pair<std::string, std::uint64_t>>>
      pending_links_;
  std::map<std::uint64_t, std::shared_ptr<HXFileAttachmentSchemeHandler>> handlers_;

  std::mutex async_mu_;
  std::condition_variable async_cv_;
  int async_fetches_running_ = 0;
};

}  // namespace vm

#endif  // VM_HOST_SQLITE_SQLITEOBJECTCONTEXT_H_
