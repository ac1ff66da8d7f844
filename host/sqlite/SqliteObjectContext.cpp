#include "host/sqlite/SqliteObjectContext.h"

#include <fmt/format.h>

#include <chrono>
#include <cstdlib>

#include "host/HXAttachmentCache.h"
#include "host/HXFileAttachmentSchemeHandler.h"
#include "host/HXRecord.h"
#include "host/HostConstants.h"
#include "host/sqlite/JsonFileUserDefaults.h"
#include "host/sqlite/SqliteAttachmentCache.h"
#include "host/sqlite/SqliteSchema.h"
#include "host/sqlite/SqliteTransferManager.h"
#include "host/sqlite/internal/HostError.h"
#include "host/sqlite/internal/SqliteFetchCompiler.h"
#include "host/sqlite/internal/SqliteFileAttachment.h"
#include "host/sqlite/internal/SqlitePrimaryKeys.h"
#include "host/sqlite/internal/SqliteRecordRows.h"
#include "host/sqlite/internal/SqliteTables.h"
#include "platform/DispatchQueue.h"
#include "platform/PrivateDataFolder.h"
#include "platform/UniqueID.h"

namespace vm {
namespace {

constexpr char kDatabaseFileName[] = "attachments.sqlite";
constexpr char kDefaultsFileName[] = "defaults.json";
constexpr char kCloudHandlerClassName[] = "VMCAttachment";

using sqlite_internal::ApplyRecordRow;
using sqlite_internal::CompileFetch;
using sqlite_internal::EntityTable;
using sqlite_internal::FetchStatement;
using sqlite_internal::HostError;
using sqlite_internal::ReadSetting;
using sqlite_internal::SqliteFileAttachment;
using sqlite_internal::StartPrimaryKeys;
using sqlite_internal::TableForEntity;
using sqlite_internal::TakePrimaryKey;
using sqlite_internal::TakePrimaryKeys;
using sqlite_internal::WriteRecordRow;
using sqlite_internal::WriteSetting;

}  // namespace

std::unique_ptr<SqliteObjectContext> SqliteObjectContext::open(
    const std::filesystem::path& data_dir, ErrorRef* error, const SqliteCreateOptions& options) {
  return openImpl(data_dir, kSqliteSchemaVersion, error, options);
}

std::unique_ptr<SqliteObjectContext> SqliteObjectContext::openAtSchemaVersion(
    const std::filesystem::path& data_dir, int version, ErrorRef* error) {
  return openImpl(data_dir, version, error, {});
}

std::unique_ptr<SqliteObjectContext> SqliteObjectContext::openImpl(
    const std::filesystem::path& data_dir, int schema_version, ErrorRef* error,
    const SqliteCreateOptions& options) {
  std::vector<std::string> notices;
  const std::filesystem::path db_path = data_dir / kDatabaseFileName;
  // Created 0600 before SQLite opens it: its journals then get the same mode.
  if (ErrorRef refused = MakeDataFolderPrivate(data_dir, {db_path}, &notices)) {
    Fail(error, refused);
    return nullptr;
  }
  for (const char* journal : {"-wal", "-shm", "-journal"}) {
    TightenPrivateFile(db_path.string() + journal, &notices);
  }
  TightenPrivateFile(data_dir / kDefaultsFileName, &notices);
  std::error_code ec;
  for (const char* sub : {"cache", "transfers"}) {
    std::filesystem::create_directories(data_dir / sub, ec);
    if (ec) {
      Fail(error, PosixError(ec, data_dir / sub));
      return nullptr;
    }
  }
  std::unique_ptr<SqliteDatabase> db = SqliteDatabase::open(db_path, error);
  if (!db || !MigrateSqliteSchema(*db, schema_version, error)) return nullptr;
  std::unique_ptr<SqliteObjectContext> context(new SqliteObjectContext(data_dir, std::move(db)));
  context->open_notices_ = std::move(notices);
  if (!context->loadOrCreateMeta(options, error)) return nullptr;
  if (schema_version >= 2 && !context->transfer_manager_->load(error)) return nullptr;
  return context;
}

SqliteObjectContext::SqliteObjectContext(std::filesystem::path data_dir,
                                         std::unique_ptr<SqliteDatabase> db)
    : data_dir_(std::move(data_dir)),
      db_(std::move(db)),
      cache_(std::make_shared<SqliteAttachmentCache>(data_dir_ / "cache")),
      defaults_(JsonFileUserDefaults::open(data_dir_ / kDefaultsFileName)),
      transfer_manager_(std::make_unique<SqliteTransferManager>(this, data_dir_ / "transfers")) {}

SqliteObjectContext::~SqliteObjectContext() {
  std::unique_lock lock(async_mu_);
  async_cv_.wait(lock, [this] { return async_fetches_running_ == 0; });
}

void SqliteObjectContext::installAsProcessHost() {
  HXAttachmentCache::setSharedCache(cache_);
  std::weak_ptr<SqliteAttachmentCache> cache = cache_;
  HXAttachmentCache::setSharedCacheFactory(
      [cache](int) -> std::shared_ptr<HXAttachmentCache> { return cache.lock(); });
  UserDefaults::setStandard(defaults_);
  std::optional<std::string> token = setting("cloudToken");
  VMCloudAuthentication::setProvider(
      [token](const std::string&, std::uint64_t) { return token.value_or(""); });
}

int SqliteObjectContext::schemaVersion() { return db_->userVersion(); }

bool SqliteObjectContext::loadOrCreateMeta(const SqliteCreateOptions& options, ErrorRef* error) {
  std::lock_guard lock(mu_);
  if (!db_->exec("BEGIN IMMEDIATE", error)) return false;
  auto read = [this](const char* key) { return setting(key); };
  auto write = [this](const char* key, const std::string& value, ErrorRef* e) {
    return WriteSetting(*db_, key, value, e);
  };
  bool ok = true;
  if (!read("databaseUUID")) {
    const char* user = std::getenv("USER");
    std::string username = !options.username.empty() ? options.username : (user ? user : "user");
    ok = write("databaseUUID", MakeUniqueID(), error) &&
         StartPrimaryKeys(*db_, options.primaryKeyOffset, error) &&
         write("customerID", std::to_string(options.customerID), error) &&
         write("username", username, error);
  }
  if (!ok || !db_->exec("COMMIT", error)) {
    db_->exec("ROLLBACK", nullptr);
    return false;
  }
  database_uuid_ = read("databaseUUID").value_or("");
  primary_key_offset_ = std::stoll(read("primaryKeyOffset").value_or("0"));
  customer_id_ = std::stoull(read("customerID").value_or("1"));
  username_ = read("username").value_or("");
  return true;
}

std::optional<std::string> SqliteObjectContext::setting(const std::string& key) {
  return ReadSetting(*db_, key);
}

bool SqliteObjectContext::setSetting(const std::string& key, const std::string& value,
                                     ErrorRef* error) {
  return WriteSetting(*db_, key, value, error);
}

std::shared_ptr<HXRecord> SqliteObjectContext::makeRecord(std::string_view entity_name,
                                                          std::uint64_t key) {
  std::shared_ptr<HXRecord> record;
  if (entity_name == HXFileAttachment::kEntityName) {
    record = std::make_shared<SqliteFileAttachment>(this);
  } else if (entity_name == HXFileAttachmentScheme::kEntityName) {
    record = std::make_shared<HXFileAttachmentScheme>(this);
  } else if (entity_name == HXTask::kEntityName) {
    record = std::make_shared<HXTask>(this);
  } else if (entity_name == HXEmail::kEntityName) {
    record = std::make_shared<HXEmail>(this);
  } else {
    return nullptr;
  }
  record->setPrimaryKeyValue(key);
  return record;
}

std::shared_ptr<HXRecord> SqliteObjectContext::createObjectForEntityNamed(
    std::string_view entity_name, bool insert) {
  return createObject(entity_name, insert, nullptr);
}

// No key, no record: null, the contract's one way to fail (the typed inserts also say why).
std::shared_ptr<HXRecord> SqliteObjectContext::createObject(std::string_view entity_name,
                                                            bool insert, ErrorRef* error) {
  std::lock_guard lock(mu_);
  if (TableForEntity(entity_name) == nullptr) {
    Fail(error, HostError(fmt::format("unknown entity \"{}\"", entity_name)));
    return nullptr;
  }
  std::uint64_t key = 0;
  if (insert && !reserved_keys_.empty()) {
    key = reserved_keys_.front();
    reserved_keys_.pop_front();
  } else if (insert) {
    std::optional<std::uint64_t> next = TakePrimaryKey(*db_, primary_key_offset_, error);
    if (!next) return nullptr;
    key = *next;
  }
  std::shared_ptr<HXRecord> record = makeRecord(entity_name, key);
  if (insert) {
    auto map_key = std::make_pair(std::string(entity_name), key);
    records_[map_key] = record;
    unsaved_inserts_.insert(map_key);
  }
  return record;
}

bool SqliteObjectContext::reservePrimaryKeys(std::size_t count, ErrorRef* error) {
  std::lock_guard lock(mu_);
  std::optional<std::vector<std::uint64_t>> keys =
      TakePrimaryKeys(*db_, primary_key_offset_, count, error);
  if (!keys) return false;
  reserved_keys_.insert(reserved_keys_.end(), keys->begin(), keys->end());
  return true;
}

std::shared_ptr<HXFileAttachment> SqliteObjectContext::insertAttachment(ErrorRef* error) {
  auto record = std::static_pointer_cast<HXFileAttachment>(
      createObject(HXFileAttachment::kEntityName, true, error));
  if (!record) return nullptr;
  record->setModifyDate(std::chrono::system_clock::now());
  return record;
}

std::shared_ptr<HXFileAttachmentScheme> SqliteObjectContext::insertScheme(
    std::string name, std::string handler_class_name, ErrorRef* error) {
  auto record = std::static_pointer_cast<HXFileAttachmentScheme>(
      createObject(HXFileAttachmentScheme::kEntityName, true, error));
  if (!record) return nullptr;
  record->setName(std::move(name));
  record->setHandlerClassName(std::move(handler_class_name));
  return record;
}

std::shared_ptr<HXRecord> SqliteObjectContext::recordFromRow(std::string_view entity_name,
                                                             SqliteStatement& row,
                                                             std::int64_t data_version) {
  int key_column = -1;
  for (int i = 0; i < row.columnCount(); ++i) {
    if (row.columnName(i) == "_rowid") key_column = i;
  }
  std::uint64_t key = static_cast<std::uint64_t>(row.columnInt(key_column));
  auto map_key = std::make_pair(std::string(entity_name), key);
  if (auto it = records_.find(map_key); it != records_.end()) return it->second;

  std::shared_ptr<HXRecord> record = makeRecord(entity_name, key);
  applyRow(*record, row);
  if (auto* attachment = dynamic_cast<SqliteFileAttachment*>(record.get())) {
    attachment->setReadVersion(data_version);
  }
  records_[map_key] = record;
  return record;
}

void SqliteObjectContext::applyRow(HXRecord& record, SqliteStatement& row) {
  ApplyRecordRow(row, record, [this](std::uint64_t key) { return schemeWithPrimaryKey(key); });
}

std::int64_t SqliteObjectContext::dataVersion() {
  auto statement = db_->prepare("PRAGMA data_version", nullptr);
  if (!statement || !statement->step(nullptr)) return -1;
  return statement->columnInt(0);
}

void SqliteObjectContext::refreshAttachment(HXFileAttachment& attachment) {
  auto* record = dynamic_cast<SqliteFileAttachment*>(&attachment);
  if (record == nullptr) return;
  std::lock_guard lock(mu_);
  const auto map_key =
      std::make_pair(std::string(HXFileAttachment::kEntityName), record->primaryKeyValue());
  // Unsaved local changes win: a refresh never loses what the caller has not saved yet.
  if (record->hasChanges() || unsaved_inserts_.count(map_key) != 0) return;
  // data_version moves only when another connection commits, so an unchanged value means
  // the row is as this context last read or wrote it.
  const std::int64_t version = dataVersion();
  if (version >= 0 && version == record->readVersion()) return;
  auto statement = db_->prepare("SELECT * FROM attachments WHERE _rowid = ?", nullptr);
  if (!statement) return;
  statement->bindInt(1, static_cast<std::int64_t>(record->primaryKeyValue()));
  if (!statement->step(nullptr)) return;  // the row is gone: keep what the record holds
  applyRow(*record, *statement);
  record->setReadVersion(version);
}

FetchResults SqliteObjectContext::fetch(const BWPFetchRequest& request, ErrorRef* error) {
  std::optional<FetchStatement> compiled = CompileFetch(request, error);
  if (!compiled) return {};
  const std::vector<KeyValue>& arguments = compiled->arguments;

  std::lock_guard lock(mu_);
  auto statement = db_->prepare(compiled->sql, error);
  if (!statement) return {};
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    statement->bind(static_cast<int>(i + 1), arguments[i]);
  }
  // Taken before the rows are read, so that a commit racing the read shows as a change.
  const std::int64_t data_version = dataVersion();
  FetchResults results;
  ErrorRef failure;
  while (statement->step(&failure)) {
    results.push_back(
        recordFromRow(request.fetchSpecification().entityName, *statement, data_version));
  }
  if (failure) {
    Fail(error, failure);
    return {};
  }
  return results;
}

FetchResults SqliteObjectContext::resultsForFetchRequest(const BWPFetchRequest& request,
                                                         ErrorRef* error) {
  return fetch(request, error);
}

void SqliteObjectContext::asyncResultsForFetchRequest(
    std::shared_ptr<BWPAsyncFetchRequest> request) {
  {
    std::lock_guard lock(async_mu_);
    ++async_fetches_running_;
  }
  BackgroundQueue().async([this, request = std::move(request)] {
    ErrorRef error;
    FetchResults results = fetch(*request, &error);
    if (request->callbackBlock()) request->callbackBlock()(std::move(results), error);
    std::lock_guard lock(async_mu_);
    --async_fetches_running_;
    async_cv_.notify_all();
  });
}

FetchResults SqliteObjectContext::objectsForEntityNamed(std::string_view entity_name,
                                                        const BDQualifierRef& qualifier) {
  std::lock_guard lock(mu_);
  FetchResults results;
  for (const auto& [key, record] : records_) {
    if (key.first != entity_name) continue;
    if (!qualifier || qualifier->evaluateWithObject(*record)) results.push_back(record);
  }
  return results;
}

std::shared_ptr<HXFileAttachmentScheme> SqliteObjectContext::schemeNamed(const std::string& name) {
  BWPFetchRequest request({std::string(HXFileAttachmentScheme::kEntityName),
                           BDKeyValueQualifier::qualifierWhereValueOfKey("name", name),
                           {}});
  FetchResults results = fetch(request, nullptr);
  if (results.empty()) {
    // A scheme inserted but not yet saved.
    results = objectsForEntityNamed(HXFileAttachmentScheme::kEntityName,
                                    BDKeyValueQualifier::qualifierWhereValueOfKey("name", name));
  }
  return results.empty() ? nullptr
                         : std::static_pointer_cast<HXFileAttachmentScheme>(results.front());
}

std::shared_ptr<HXFileAttachmentScheme> SqliteObjectContext::schemeWithPrimaryKey(
    std::uint64_t key) {
  std::lock_guard lock(mu_);
  if (auto it =
          records_.find(std::make_pair(std::string(HXFileAttachmentScheme::kEntityName), key));
      it != records_.end()) {
    return std::static_pointer_cast<HXFileAttachmentScheme>(it->second);
  }
  BWPFetchRequest request({std::string(HXFileAttachmentScheme::kEntityName), nullptr, {}});
  request.setRawSQLWhere("_rowid = ?", {static_cast<std::int64_t>(key)});
  FetchResults results = fetch(request, nullptr);
  return results.empty() ? nullptr
                         : std::static_pointer_cast<HXFileAttachmentScheme>(results.front());
}

std::vector<std::shared_ptr<HXFileAttachmentScheme>> SqliteObjectContext::allSchemes(
    ErrorRef* error) {
  std::vector<std::shared_ptr<HXFileAttachmentScheme>> out;
  for (auto& record :
       fetch(BWPFetchRequest({std::string(HXFileAttachmentScheme::kEntityName), nullptr, {}}),
             error)) {
    out.push_back(std::static_pointer_cast<HXFileAttachmentScheme>(record));
  }
  return out;
}

std::shared_ptr<HXFileAttachment> SqliteObjectContext::attachmentWithPrimaryKey(
    std::uint64_t key, bool include_hidden_and_trash) {
  std::lock_guard lock(mu_);
  if (auto it = records_.find(std::make_pair(std::string(HXFileAttachment::kEntityName), key));
      it != records_.end()) {
    return std::static_pointer_cast<HXFileAttachment>(it->second);
  }
  BWPFetchRequest request({std::string(HXFileAttachment::kEntityName), nullptr, {}});
  request.setRawSQLWhere("_rowid = ?", {static_cast<std::int64_t>(key)});
  request.setOverrideTrashSystem(include_hidden_and_trash);
  request.setOverridePermissionsSystem(include_hidden_and_trash);
  FetchResults results = fetch(request, nullptr);
  return results.empty() ? nullptr : std::static_pointer_cast<HXFileAttachment>(results.front());
}

std::shared_ptr<HXFileAttachment> SqliteObjectContext::loadAttachment(std::uint64_t key) {
  return attachmentWithPrimaryKey(key, true);
}

bool SqliteObjectContext::withRecordSaveState(const HXRecord& record,
                                              const std::function<bool(bool saved)>& body) {
  std::lock_guard lock(mu_);
  bool saved =
      unsaved_inserts_.count(std::make_pair(record.entityName(), record.primaryKeyValue())) == 0;
  return body(saved);
}

bool SqliteObjectContext::performTransaction(
    const std::function<bool(SqliteDatabase&, ErrorRef*)>& body, ErrorRef* error) {
  std::lock_guard lock(mu_);
  if (!db_->exec("BEGIN IMMEDIATE", error)) return false;
  ErrorRef failure;
  if (!body(*db_, &failure) || !db_->exec("COMMIT", &failure)) {
    db_->exec("ROLLBACK", nullptr);
    return Fail(error, failure ? failure : HostError("the transaction failed"));
  }
  return true;
}

bool SqliteObjectContext::deleteAttachment(const std::shared_ptr<HXFileAttachment>& attachment,
                                           ErrorRef* error) {
  std::lock_guard lock(mu_);
  auto map_key =
      std::make_pair(std::string(HXFileAttachment::kEntityName), attachment->primaryKeyValue());
  bool ok = unsaved_inserts_.count(map_key) != 0 ||
            performTransaction(
                [&](SqliteDatabase& db, ErrorRef* e) {
                  const auto key = static_cast<std::int64_t>(attachment->primaryKeyValue());
                  for (const char* sql : {
                           "DELETE FROM attachments WHERE _rowid = ?1",
                           "DELETE FROM FileAttachmentEmailJoin WHERE fileAttachmentID = ?1",
                           "DELETE FROM links WHERE (fromEntity = 'HXFileAttachment' AND "
                           "fromID = ?1) OR (toEntity = 'HXFileAttachment' AND toID = ?1)",
                       }) {
                    auto statement = db.prepare(sql, e);
                    if (!statement) return false;
                    statement->bindInt(1, key);
                    if (!statement->run(e)) return false;
                  }
                  return true;
                },
                error);
  if (!ok) return false;
  records_.erase(map_key);
  unsaved_inserts_.erase(map_key);
  return true;
}

std::vector<std::shared_ptr<HXFileAttachment>> SqliteObjectContext::allAttachments(
    ErrorRef* error) {
  BWPFetchRequest request({std::string(HXFileAttachment::kEntityName), nullptr, {}});
  request.setOverrideTrashSystem(true);
  request.setOverridePermissionsSystem(true);
  std::vector<std::shared_ptr<HXFileAttachment>> out;
  for (auto& record : fetch(request, error)) {
    out.push_back(std::static_pointer_cast<HXFileAttachment>(record));
  }
  return out;
}

bool SqliteObjectContext::saveChanges(ErrorRef* error) {
  std::lock_guard lock(mu_);
  if (!db_->exec("BEGIN IMMEDIATE", error)) return false;
  ErrorRef failure;
  std::vector<HXRecord*> written;
  // Schemes first: attachments refer to them.
  for (std::string_view entity :
       {HXFileAttachmentScheme::kEntityName, HXFileAttachment::kEntityName, HXTask::kEntityName,
        HXEmail::kEntityName}) {
    // The map is ordered by entity first: only this entity's records are looked at.
    for (auto it = records_.lower_bound(std::pair<std::string, std::uint64_t>(entity, 0));
         it != records_.end() && it->first.first == entity; ++it) {
      const auto& [key, record] = *it;
      if (!record->hasChanges() && unsaved_inserts_.count(key) == 0) continue;
      if (!WriteRecordRow(*db_, *record, &failure)) break;
      written.push_back(record.get());
    }
    if (failure) break;
  }
  for (const auto& [task_key, list] : pending_task_lists_) {
    if (failure) break;
    auto statement = db_->prepare("UPDATE tasks SET list = ? WHERE _rowid = ?", &failure);
    if (!statement) break;
    statement->bindText(1, list);
    statement->bindInt(2, static_cast<std::int64_t>(task_key));
    statement->run(&failure);
  }
  for (const auto& [from, to] : pending_links_) {
    if (failure) break;
    auto statement = db_->prepare(
        "INSERT OR IGNORE INTO links (fromEntity, fromID, toEntity, toID) VALUES (?,?,?,?)",
        &failure);
    if (!statement) break;
    statement->bindText(1, from.first);
    statement->bindInt(2, static_cast<std::int64_t>(from.second));
    statement->bindText(3, to.first);
    statement->bindInt(4, static_cast<std::int64_t>(to.second));
    statement->run(&failure);
  }
  // Transfers of records inserted since the last save: their rows go in with the records.
  if (!failure) transfer_manager_->writePendingRows(*db_, &failure);
  if (failure || !db_->exec("COMMIT", &failure)) {
    db_->exec("ROLLBACK", nullptr);
    // Nothing was written: the records keep their changes for the next save.
    return Fail(error, failure);
  }
  transfer_manager_->didCommitPendingRows();
  for (HXRecord* record : written) record->clearChanges();
  unsaved_inserts_.clear();
  pending_task_lists_.clear();
  pending_links_.clear();
  return true;
}

bool SqliteObjectContext::setRowFlags(const HXRecord& record, bool in_trash, bool hidden,
                                      ErrorRef* error) {
  const EntityTable* table = TableForEntity(record.entityName());
  if (table == nullptr || !table->has_visibility_flags) {
    return Fail(error, HostError("records of this entity have no trash or permission flags"));
  }
  auto statement = db_->prepare(
      fmt::format("UPDATE {} SET inTrash = ?, hidden = ? WHERE _rowid = ?", table->table), error);
  if (!statement) return false;
  statement->bindInt(1, in_trash ? 1 : 0);
  statement->bindInt(2, hidden ? 1 : 0);
  statement->bindInt(3, static_cast<std::int64_t>(record.primaryKeyValue()));
  return statement->run(error);
}

bool SqliteObjectContext::linkEmailToAttachment(const HXRecord& email, const HXRecord& attachment,
                                                ErrorRef* error) {
  auto statement = db_->prepare(
      "INSERT OR IGNORE INTO FileAttachmentEmailJoin (emailID, fileAttachmentID) VALUES (?, ?)",
      error);
  if (!statement) return false;
  statement->bindInt(1, static_cast<std::int64_t>(email.primaryKeyValue()));
  statement->bindInt(2, static_cast<std::int64_t>(attachment.primaryKeyValue()));
  return statement->run(error);
}

VMAttachmentTransferManager* SqliteObjectContext::attachmentTransferManager() {
  return transfer_manager_.get();
}

std::shared_ptr<HXFileAttachmentScheme> SqliteObjectContext::cloudStorageScheme() {
  BWPFetchRequest request({std::string(HXFileAttachmentScheme::kEntityName),
                           BDKeyValueQualifier::qualifierWhereValueOfKey(
                               "handlerClassName", std::string(kCloudHandlerClassName)),
                           {}});
  FetchResults results = fetch(request, nullptr);
  return results.empty() ? nullptr
                         : std::static_pointer_cast<HXFileAttachmentScheme>(results.front());
}

std::shared_ptr<HXFileAttachmentSchemeHandler> SqliteObjectContext::schemeHandlerForScheme(
    HXFileAttachmentScheme& scheme) {
  std::lock_guard lock(mu_);
  std::uint64_t key = scheme.primaryKeyValue();
  if (auto it = handlers_.find(key); it != handlers_.end()) return it->second;
  std::shared_ptr<HXFileAttachmentScheme> record = schemeWithPrimaryKey(key);
  if (record.get() != &scheme) return nullptr;  // not a record of this context
  std::shared_ptr<HXFileAttachmentSchemeHandler> handler =
      HXSchemeHandlerRegistry::shared().makeHandler(record);
  if (handler) handlers_[key] = handler;
  return handler;
}

void SqliteObjectContext::removeTaskFromInboxList(HXTask& task) {
  std::lock_guard lock(mu_);
  pending_task_lists_[task.primaryKeyValue()] = "";
}

void SqliteObjectContext::addTaskToWorklist(HXTask& task) {
  std::lock_guard lock(mu_);
  pending_task_lists_[task.primaryKeyValue()] = "worklist";
}

void SqliteObjectContext::linkObject(HXRecord& object, HXRecord& to_object) {
  std::lock_guard lock(mu_);
  pending_links_.push_back({{object.entityName(), object.primaryKeyValue()},
                            {to_object.entityName(), to_object.primaryKeyValue()}});
}

}  // namespace vm
