#include "host/HXFileAttachment.h"

#include "host/HXFileAttachmentScheme.h"
#include "host/HostConstants.h"

namespace vm {

std::string HXFileAttachment::name() const {
  std::lock_guard lock(mu_);
  return name_;
}

void HXFileAttachment::setName(std::string value) {
  std::lock_guard lock(mu_);
  name_ = std::move(value);
  markChanged();
}

std::string HXFileAttachment::attachmentPath() const {
  std::lock_guard lock(mu_);
  return attachment_path_;
}

void HXFileAttachment::setAttachmentPath(std::string value) {
  std::lock_guard lock(mu_);
  attachment_path_ = std::move(value);
  markChanged();
}

bool HXFileAttachment::isRelativePath() const {
  std::lock_guard lock(mu_);
  return is_relative_path_;
}

void HXFileAttachment::setIsRelativePath(bool value) {
  std::lock_guard lock(mu_);
  is_relative_path_ = value;
  markChanged();
}

std::optional<Date> HXFileAttachment::attachmentModifyDate() const {
  std::lock_guard lock(mu_);
  return attachment_modify_date_;
}

void HXFileAttachment::setAttachmentModifyDate(std::optional<Date> value) {
  std::lock_guard lock(mu_);
  attachment_modify_date_ = std::move(value);
  markChanged();
}

std::optional<Date> HXFileAttachment::attachmentCreateDate() const {
  std::lock_guard lock(mu_);
  return attachment_create_date_;
}

void HXFileAttachment::setAttachmentCreateDate(std::optional<Date> value) {
  std::lock_guard lock(mu_);
  attachment_create_date_ = std::move(value);
  markChanged();
}

std::optional<bool> HXFileAttachment::uploaded() const {
  std::lock_guard lock(mu_);
  return uploaded_;
}

void HXFileAttachment::setUploaded(std::optional<bool> value) {
  std::lock_guard lock(mu_);
  uploaded_ = std::move(value);
  markChanged();
}

std::string HXFileAttachment::attachmentID() const { return attachmentUUID().value_or(""); }

std::optional<std::string> HXFileAttachment::attachmentUUID() const {
  std::lock_guard lock(mu_);
  return attachment_uuid_;
}

void HXFileAttachment::setAttachmentUUID(std::optional<std::string> value) {
  std::lock_guard lock(mu_);
  attachment_uuid_ = std::move(value);
  markChanged();
}

std::optional<std::string> HXFileAttachment::initialAttachmentUUID() const {
  std::lock_guard lock(mu_);
  return initial_attachment_uuid_;
}

void HXFileAttachment::setInitialAttachmentUUID(std::optional<std::string> value) {
  std::lock_guard lock(mu_);
  initial_attachment_uuid_ = std::move(value);
  markChanged();
}

std::optional<std::string> HXFileAttachment::temporaryPath() const {
  std::lock_guard lock(mu_);
  return temporary_path_;
}

void HXFileAttachment::setTemporaryPath(std::optional<std::string> value) {
  std::lock_guard lock(mu_);
  temporary_path_ = std::move(value);
  markChanged();
}

std::optional<Bytes> HXFileAttachment::encryptionData() const {
  std::lock_guard lock(mu_);
  return encryption_data_;
}

void HXFileAttachment::setEncryptionData(std::optional<Bytes> value) {
  std::lock_guard lock(mu_);
  encryption_data_ = std::move(value);
  markChanged();
}

std::uint64_t HXFileAttachment::fileAttachmentSchemeID() const {
  std::lock_guard lock(mu_);
  return scheme_id_;
}

void HXFileAttachment::setFileAttachmentSchemeID(std::uint64_t value) {
  std::lock_guard lock(mu_);
  scheme_id_ = value;
  markChanged();
}

Date HXFileAttachment::modifyDate() const {
  std::lock_guard lock(mu_);
  return modify_date_;
}

void HXFileAttachment::setModifyDate(Date value) {
  std::lock_guard lock(mu_);
  modify_date_ = value;
  markChanged();
}

std::shared_ptr<HXFileAttachmentTransferDelegate> HXFileAttachment::delegate() const {
  std::lock_guard lock(mu_);
  return delegate_;
}

void HXFileAttachment::setDelegate(std::shared_ptr<HXFileAttachmentTransferDelegate> value) {
  std::lock_guard lock(mu_);
  delegate_ = std::move(value);
}

std::shared_ptr<HXFileAttachmentScheme> HXFileAttachment::fileAttachmentScheme() const {
  std::lock_guard lock(mu_);
  return scheme_;
}

void HXFileAttachment::setFileAttachmentScheme(std::shared_ptr<HXFileAttachmentScheme> scheme) {
  std::uint64_t scheme_id = scheme ? scheme->primaryKeyValue() : 0;
  std::lock_guard lock(mu_);
  scheme_ = std::move(scheme);
  scheme_id_ = scheme_id;
  markChanged();
}

KeyValue HXFileAttachment::valueForKey(std::string_view key) const {
  std::lock_guard lock(mu_);
  auto optional_text = [](const std::optional<std::string>& text) -> KeyValue {
    if (text) return *text;
    return std::monostate{};
  };
  if (key == "name") return name_;
  if (key == "attachmentPath") return attachment_path_;
  if (key == "attachmentUUID") return optional_text(attachment_uuid_);
  if (key == "initialAttachmentUUID") return optional_text(initial_attachment_uuid_);
  if (key == "temporaryPath") return optional_text(temporary_path_);
  if (key == "uploaded") {
    if (uploaded_) return static_cast<std::int64_t>(*uploaded_ ? 1 : 0);
    return std::monostate{};
  }
  if (key == "fileAttachmentSchemeID") return static_cast<std::int64_t>(scheme_id_);
  return std::monostate{};
}

std::optional<KeyedValue> HXFileAttachment::objectForKeyedSubscript(std::string_view key) const {
  std::lock_guard lock(mu_);
  auto it = keyed_.find(key);
  if (it == keyed_.end()) return std::nullopt;
  return it->second;
}

Bytes HXFileAttachment::bytesForKeyedSubscript(std::string_view key) const {
  std::optional<KeyedValue> value = objectForKeyedSubscript(key);
  if (!value) return {};
  if (const auto* bytes = std::get_if<Bytes>(&*value)) return *bytes;
  if (const auto* text = std::get_if<std::string>(&*value))
    return Bytes(text->begin(), text->end());
  return {};
}

void HXFileAttachment::setObject(std::optional<KeyedValue> value, std::string_view key) {
  std::lock_guard lock(mu_);
  if (value) {
    keyed_.insert_or_assign(std::string(key), std::move(*value));
  } else if (auto it = keyed_.find(key); it != keyed_.end()) {
    keyed_.erase(it);
  }
  markChanged();
}

std::map<std::string, KeyedValue, std::less<>> HXFileAttachment::keyedValues() const {
  std::lock_guard lock(mu_);
  return keyed_;
}

std::any HXFileAttachment::associatedObject(const void* key) const {
  std::lock_guard lock(mu_);
  auto it = associated_.find(key);
  return it == associated_.end() ? std::any() : it->second;
}

void HXFileAttachment::setAssociatedObject(const void* key, std::any value) {
  std::lock_guard lock(mu_);
  if (value.has_value()) {
    associated_[key] = std::move(value);
  } else {
    associated_.erase(key);
  }
}

bool HXFileAttachment::storeAttachmentWithError(ErrorRef* error) {
  return Fail(error, Error::WithDescription(kVMFileAttachmentDomain, 1,
                                            "This attachment record cannot store itself."));
}

void HXFileAttachment::updateMissingDetailsFromURL(const std::filesystem::path&) {}

}  // namespace vm
