#include "host/sqlite/SqliteSchema.h"

#include <fmt/format.h>

namespace vm {
namespace {

constexpr const char* kMigrations[] = {
    // 1
    R"sql(
CREATE TABLE meta (key TEXT PRIMARY KEY, value TEXT NOT NULL);
CREATE TABLE schemes (
  _rowid INTEGER PRIMARY KEY,
  name TEXT NOT NULL UNIQUE,
  handlerClassName TEXT NOT NULL,
  infoData BLOB
);
CREATE TABLE attachments (
  _rowid INTEGER PRIMARY KEY,
  name TEXT NOT NULL DEFAULT '',
  attachmentPath TEXT NOT NULL DEFAULT '',
  isRelativePath INTEGER NOT NULL DEFAULT 0,
  attachmentModifyDate INTEGER,
  attachmentCreateDate INTEGER,
  uploaded INTEGER,
  attachmentUUID TEXT,
  initialAttachmentUUID TEXT,
  temporaryPath TEXT,
  encryptionData BLOB,
  fileAttachmentSchemeID INTEGER REFERENCES schemes(_rowid),
  modifyDate INTEGER NOT NULL DEFAULT 0,
  keyedValues TEXT NOT NULL DEFAULT '{}'
);
CREATE INDEX attachments_uuid ON attachments(attachmentUUID);
)sql",
    // 2
    R"sql(
ALTER TABLE attachments ADD COLUMN inTrash INTEGER NOT NULL DEFAULT 0;
ALTER TABLE attachments ADD COLUMN hidden INTEGER NOT NULL DEFAULT 0;
CREATE TABLE tasks (
  _rowid INTEGER PRIMARY KEY,
  title TEXT NOT NULL DEFAULT '',
  details TEXT NOT NULL DEFAULT '',
  dueDate INTEGER NOT NULL DEFAULT 0,
  list TEXT NOT NULL DEFAULT 'inbox',
  inTrash INTEGER NOT NULL DEFAULT 0,
  hidden INTEGER NOT NULL DEFAULT 0
);
CREATE TABLE emails (
  _rowid INTEGER PRIMARY KEY,
  subject TEXT NOT NULL DEFAULT '',
  inTrash INTEGER NOT NULL DEFAULT 0,
  hidden INTEGER NOT NULL DEFAULT 0
);
CREATE TABLE FileAttachmentEmailJoin (
  emailID INTEGER NOT NULL,
  fileAttachmentID INTEGER NOT NULL,
  PRIMARY KEY (emailID, fileAttachmentID)
);
CREATE TABLE links (
  fromEntity TEXT NOT NULL,
  fromID INTEGER NOT NULL,
  toEntity TEXT NOT NULL,
  toID INTEGER NOT NULL,
  PRIMARY KEY (fromEntity, fromID, toEntity, toID)
);
CREATE TABLE transfers (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  attachmentID TEXT NOT NULL,
  attachmentPK INTEGER,
  operationType INTEGER NOT NULL,
  path TEXT NOT NULL DEFAULT ''
);
)sql",
};

static_assert(std::size(kMigrations) == kSqliteSchemaVersion);

}  // namespace

bool MigrateSqliteSchema(SqliteDatabase& db, int target_version, ErrorRef* error) {
  int version = db.userVersion();
  if (version > kSqliteSchemaVersion) {
    return Fail(error, Error::WithDescription(
                           kSQLiteErrorDomain, 1,
                           fmt::format("{}: schema version {} is newer than this program's {}",
                                       db.path().string(), version, kSqliteSchemaVersion)));
  }
  for (int next = version + 1; next <= target_version; ++next) {
    ErrorRef failure;
    if (!db.exec("BEGIN IMMEDIATE", &failure)) return Fail(error, failure);
    // Another process may have migrated while this one waited for the write lock.
    if (db.userVersion() >= next) {
      db.exec("COMMIT", nullptr);
      continue;
    }
    bool ok = db.exec(kMigrations[next - 1], &failure) && db.setUserVersion(next, &failure) &&
              db.exec("COMMIT", &failure);
    if (!ok) {
      db.exec("ROLLBACK", nullptr);
      return Fail(error, failure);
    }
  }
  return true;
}

}  // namespace vm
