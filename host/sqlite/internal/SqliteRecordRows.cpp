#include "host/sqlite/internal/SqliteRecordRows.h"

#include <chrono>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "host/sqlite/internal/HostError.h"

namespace vm::sqlite_internal {
namespace {

std::int64_t ToNanoseconds(Date date) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(date.time_since_epoch()).count();
}

std::string HexEncode(const Bytes& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (std::uint8_t b : bytes) {
    out.push_back(kDigits[b >> 4]);
    out.push_back(kDigits[b & 15]);
  }
  return out;
}

Bytes HexDecode(const std::string& text) {
  auto nibble = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return 0;
  };
  Bytes out;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    out.push_back(static_cast<std::uint8_t>(nibble(text[i]) << 4 | nibble(text[i + 1])));
  }
  return out;
}

std::string EncodeKeyedValues(const std::map<std::string, KeyedValue, std::less<>>& values) {
  nlohmann::json document = nlohmann::json::object();
  for (const auto& [key, value] : values) {
    if (const auto* n = std::get_if<std::int64_t>(&value)) {
      document[key] = {{"int", *n}};
    } else if (const auto* s = std::get_if<std::string>(&value)) {
      document[key] = {{"string", *s}};
    } else {
      document[key] = {{"data", HexEncode(std::get<Bytes>(value))}};
    }
  }
  return document.dump();
}

void DecodeKeyedValues(const std::string& text, HXFileAttachment& record) {
  nlohmann::json document = nlohmann::json::parse(text, nullptr, false);
  if (!document.is_object()) return;
  for (const auto& [key, value] : document.items()) {
    if (!value.is_object()) continue;
    if (value.contains("int") && value["int"].is_number_integer()) {
      record.setObject(value["int"].get<std::int64_t>(), key);
    } else if (value.contains("string") && value["string"].is_string()) {
      record.setObject(value["string"].get<std::string>(), key);
    } else if (value.contains("data") && value["data"].is_string()) {
      record.setObject(HexDecode(value["data"].get<std::string>()), key);
    }
  }
}

}  // namespace

Date DateFromNanoseconds(std::int64_t ns) {
  return Date(std::chrono::duration_cast<Date::duration>(std::chrono::nanoseconds(ns)));
}

bool WriteRecordRow(SqliteDatabase& db, HXRecord& record, ErrorRef* error) {
  const std::int64_t key = static_cast<std::int64_t>(record.primaryKeyValue());
  std::unique_ptr<SqliteStatement> statement;
  if (auto* a = dynamic_cast<HXFileAttachment*>(&record)) {
    statement = db.prepare(
        "INSERT INTO attachments (_rowid, name, attachmentPath, isRelativePath, "
        "attachmentModifyDate, attachmentCreateDate, uploaded, attachmentUUID, "
        "initialAttachmentUUID, temporaryPath, encryptionData, fileAttachmentSchemeID, "
        "modifyDate, keyedValues) VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?,?) "
        "ON CONFLICT(_rowid) DO UPDATE SET name=excluded.name, "
        "attachmentPath=excluded.attachmentPath, isRelativePath=excluded.isRelativePath, "
        "attachmentModifyDate=excluded.attachmentModifyDate, "
        "attachmentCreateDate=excluded.attachmentCreateDate, uploaded=excluded.uploaded, "
        "attachmentUUID=excluded.attachmentUUID, "
        "initialAttachmentUUID=excluded.initialAttachmentUUID, "
        "temporaryPath=excluded.temporaryPath, encryptionData=excluded.encryptionData, "
        "fileAttachmentSchemeID=excluded.fileAttachmentSchemeID, modifyDate=excluded.modifyDate, "
        "keyedValues=excluded.keyedValues",
        error);
    if (!statement) return false;
    statement->bindInt(1, key);
    statement->bindText(2, a->name());
    statement->bindText(3, a->attachmentPath());
    statement->bindInt(4, a->isRelativePath() ? 1 : 0);
    auto bind_date = [&](int index, const std::optional<Date>& date) {
      if (date) {
        statement->bindInt(index, ToNanoseconds(*date));
      } else {
        statement->bindNull(index);
      }
    };
    bind_date(5, a->attachmentModifyDate());
    bind_date(6, a->attachmentCreateDate());
    if (std::optional<bool> uploaded = a->uploaded()) {
      statement->bindInt(7, *uploaded ? 1 : 0);
    } else {
      statement->bindNull(7);
    }
    statement->bindOptionalText(8, a->attachmentUUID());
    statement->bindOptionalText(9, a->initialAttachmentUUID());
    statement->bindOptionalText(10, a->temporaryPath());
    if (std::optional<Bytes> data = a->encryptionData()) {
      statement->bindBlob(11, *data);
    } else {
      statement->bindNull(11);
    }
    if (std::uint64_t scheme_id = a->fileAttachmentSchemeID(); scheme_id != 0) {
      statement->bindInt(12, static_cast<std::int64_t>(scheme_id));
    } else {
      statement->bindNull(12);
    }
    statement->bindInt(13, ToNanoseconds(a->modifyDate()));
    statement->bindText(14, EncodeKeyedValues(a->keyedValues()));
  } else if (auto* s = dynamic_cast<HXFileAttachmentScheme*>(&record)) {
    statement = db.prepare(
        "INSERT INTO schemes (_rowid, name, handlerClassName, infoData) VALUES (?,?,?,?) "
        "ON CONFLICT(_rowid) DO UPDATE SET name=excluded.name, "
        "handlerClassName=excluded.handlerClassName, infoData=excluded.infoData",
        error);
    if (!statement) return false;
    statement->bindInt(1, key);
    statement->bindText(2, s->name());
    statement->bindText(3, s->handlerClassName());
    if (std::optional<Bytes> data = s->infoData()) {
      statement->bindBlob(4, *data);
    } else {
      statement->bindNull(4);
    }
  } else if (auto* t = dynamic_cast<HXTask*>(&record)) {
    statement = db.prepare(
        "INSERT INTO tasks (_rowid, title, details, dueDate) VALUES (?,?,?,?) "
        "ON CONFLICT(_rowid) DO UPDATE SET title=excluded.title, details=excluded.details, "
        "dueDate=excluded.dueDate",
        error);
    if (!statement) return false;
    statement->bindInt(1, key);
    statement->bindText(2, t->title());
    statement->bindText(3, t->details());
    statement->bindInt(4, t->dueDate());
  } else if (auto* e = dynamic_cast<HXEmail*>(&record)) {
    statement = db.prepare(
        "INSERT INTO emails (_rowid, subject) VALUES (?,?) "
        "ON CONFLICT(_rowid) DO UPDATE SET subject=excluded.subject",
        error);
    if (!statement) return false;
    statement->bindInt(1, key);
    statement->bindText(2, e->subject());
  } else {
    return Fail(error, HostError("unknown record type"));
  }
  return statement->run(error);
}

void ApplyRecordRow(SqliteStatement& row, HXRecord& record, const SchemeLookup& scheme_for_key) {
  std::map<std::string, int> columns;
  for (int i = 0; i < row.columnCount(); ++i) columns[row.columnName(i)] = i;
  auto column = [&columns](const char* name) {
    auto it = columns.find(name);
    return it == columns.end() ? -1 : it->second;
  };
  auto text = [&](const char* name) { return row.columnText(column(name)); };
  auto optional_text = [&](const char* name) { return row.columnOptionalText(column(name)); };
  auto optional_date = [&](const char* name) -> std::optional<Date> {
    if (row.isNull(column(name))) return std::nullopt;
    return DateFromNanoseconds(row.columnInt(column(name)));
  };
  if (auto* attachment = dynamic_cast<HXFileAttachment*>(&record)) {
    attachment->setName(text("name"));
    attachment->setAttachmentPath(text("attachmentPath"));
    attachment->setIsRelativePath(row.columnInt(column("isRelativePath")) != 0);
    attachment->setAttachmentModifyDate(optional_date("attachmentModifyDate"));
    attachment->setAttachmentCreateDate(optional_date("attachmentCreateDate"));
    if (row.isNull(column("uploaded"))) {
      attachment->setUploaded(std::nullopt);
    } else {
      attachment->setUploaded(row.columnInt(column("uploaded")) == 1);
    }
    attachment->setAttachmentUUID(optional_text("attachmentUUID"));
    attachment->setInitialAttachmentUUID(optional_text("initialAttachmentUUID"));
    attachment->setTemporaryPath(optional_text("temporaryPath"));
    if (row.isNull(column("encryptionData"))) {
      attachment->setEncryptionData(std::nullopt);
    } else {
      attachment->setEncryptionData(row.columnBlob(column("encryptionData")));
    }
    if (row.isNull(column("fileAttachmentSchemeID"))) {
      attachment->setFileAttachmentScheme(nullptr);
    } else {
      auto scheme_id = static_cast<std::uint64_t>(row.columnInt(column("fileAttachmentSchemeID")));
      if (auto scheme = scheme_for_key(scheme_id)) {
        attachment->setFileAttachmentScheme(scheme);
      } else {
        attachment->setFileAttachmentSchemeID(scheme_id);
      }
    }
    attachment->setModifyDate(DateFromNanoseconds(row.columnInt(column("modifyDate"))));
    // A refresh must drop keys the stored row no longer has.
    for (const auto& entry : attachment->keyedValues()) {
      attachment->setObject(std::nullopt, entry.first);
    }
    DecodeKeyedValues(text("keyedValues"), *attachment);
  } else if (auto* scheme = dynamic_cast<HXFileAttachmentScheme*>(&record)) {
    scheme->setName(text("name"));
    scheme->setHandlerClassName(text("handlerClassName"));
    if (!row.isNull(column("infoData"))) scheme->setInfoData(row.columnBlob(column("infoData")));
  } else if (auto* task = dynamic_cast<HXTask*>(&record)) {
    task->setTitle(text("title"));
    task->setDetails(text("details"));
    task->setDueDate(row.columnInt(column("dueDate")));
  } else if (auto* email = dynamic_cast<HXEmail*>(&record)) {
    email->setSubject(text("subject"));
  }
  record.clearChanges();
}

}  // namespace vm::sqlite_internal
