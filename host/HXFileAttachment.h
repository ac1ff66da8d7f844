#ifndef VM_HOST_HXFILEATTACHMENT_H_
#define VM_HOST_HXFILEATTACHMENT_H_

#include <any>
#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "host/HXRecord.h"
#include "platform/Error.h"

namespace vm {

class HXFileAttachmentScheme;
class HXFileAttachmentTransferDelegate;

using Date = std::chrono::system_clock::time_point;

// A value kept on an attachment under a key (hashes, storage type).
using KeyedValue = std::variant<std::int64_t, std::string, Bytes>;

// One file attachment of the host's data model.
//
// The record holds its attributes itself; a host derives from it to add persistence
// (storeAttachmentWithError, refreshIfNeeded, updateMissingDetailsFromURL). Every
// accessor is thread-safe; the framework writes records on the host's calling thread or
// on the main queue, never both at once.
class HXFileAttachment : public HXRecord {
 public:
  static constexpr std::string_view kEntityName = "HXFileAttachment";

  using HXRecord::HXRecord;

  std::string entityName() const override { return std::string(kEntityName); }
  // Attribute names: "name", "attachmentPath", "attachmentUUID", "uploaded" (1, 0 or
  // null), "fileAttachmentSchemeID", "temporaryPath", "initialAttachmentUUID".
  KeyValue valueForKey(std::string_view key) const override;

  std::string name() const;
  void setName(std::string name);

  std::string attachmentPath() const;
  void setAttachmentPath(std::string path);

  bool isRelativePath() const;
  void setIsRelativePath(bool relative);

  std::optional<Date> attachmentModifyDate() const;
  void setAttachmentModifyDate(std::optional<Date> date);
  std::optional<Date> attachmentCreateDate() const;
  void setAttachmentCreateDate(std::optional<Date> date);

  // The boolean number: nullopt when never set.
  std::optional<bool> uploaded() const;
  void setUploaded(std::optional<bool> uploaded);

  std::optional<std::string> attachmentUUID() const;
  void setAttachmentUUID(std::optional<std::string> uuid);
  // The identifier the transfer manager and the cloud service know the record by: its
  // attachmentUUID, empty when it has none.
  std::string attachmentID() const;
  std::optional<std::string> initialAttachmentUUID() const;
  void setInitialAttachmentUUID(std::optional<std::string> uuid);

  std::optional<std::string> temporaryPath() const;
  void setTemporaryPath(std::optional<std::string> path);

  std::optional<Bytes> encryptionData() const;
  void setEncryptionData(std::optional<Bytes> data);

  std::shared_ptr<HXFileAttachmentScheme> fileAttachmentScheme() const;
  void setFileAttachmentScheme(std::shared_ptr<HXFileAttachmentScheme> scheme);
  // The primary key of the scheme record; kept in step with setFileAttachmentScheme().
  std::uint64_t fileAttachmentSchemeID() const;
  void setFileAttachmentSchemeID(std::uint64_t scheme_id);

  // The record's own modification date (not the stored bytes').
  Date modifyDate() const;
  void setModifyDate(Date date);

  // The record's own transfer delegate; may be null.
  std::shared_ptr<HXFileAttachmentTransferDelegate> delegate() const;
  void setDelegate(std::shared_ptr<HXFileAttachmentTransferDelegate> delegate);

  // Keyed values; setting nullopt removes the key.
  std::optional<KeyedValue> objectForKeyedSubscript(std::string_view key) const;
  // The keyed value as bytes (e.g. a stored hash): data as is, a string's characters;
  // empty when the key is absent or holds a number.
  Bytes bytesForKeyedSubscript(std::string_view key) const;
  void setObject(std::optional<KeyedValue> value, std::string_view key);
  std::map<std::string, KeyedValue, std::less<>> keyedValues() const;

  // Scratch state that lives as long as this record object and is never persisted
  // (what other languages call associated objects). The key's address is its identity.
  std::any associatedObject(const void* key) const;
  void setAssociatedObject(const void* key, std::any value);

  // Host operations. The defaults: store fails with "not supported", refresh and
  // missing-details updates do nothing. refreshIfNeeded re-reads the record's values when
  // its stored row changed through another connection, keeping unsaved local changes.
  virtual bool storeAttachmentWithError(ErrorRef* error);
  virtual void refreshIfNeeded() {}
  virtual void updateMissingDetailsFromURL(const std::filesystem::path& url);

 private:
  std::string name_;
  std::string attachment_path_;
  bool is_relative_path_ = false;
  std::optional<Date> attachment_modify_date_;
  std::optional<Date> attachment_create_date_;
  std::optional<bool> uploaded_;
  std::optional<std::string> attachment_uuid_;
  std::optional<std::string> initial_attachment_uuid_;
  std::optional<std::string> temporary_path_;
  std::optional<Bytes> encryption_data_;
  std::shared_ptr<HXFileAttachmentScheme> scheme_;
  std::uint64_t scheme_id_ = 0;
  Date modify_date_{};
  std::shared_ptr<HXFileAttachmentTransferDelegate> delegate_;
  std::map<std::string, KeyedValue, std::less<>> keyed_;
  std::map<const void*, std::any> associated_;
};

}  // namespace vm

#endif  // VM_HOST_HXFILEATTACHMENT_H_
