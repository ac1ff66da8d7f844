#include "host/HXRecord.h"

#include <fmt/format.h>

namespace vm {

std::uint64_t HXRecord::primaryKeyValue() const {
  std::lock_guard lock(mu_);
  return primary_key_;
}

void HXRecord::setPrimaryKeyValue(std::uint64_t key) {
  std::lock_guard lock(mu_);
  primary_key_ = key;
}

bool HXRecord::hasChanges() const {
  std::lock_guard lock(mu_);
  return changed_;
}

void HXRecord::clearChanges() {
  std::lock_guard lock(mu_);
  changed_ = false;
}

void HXRecord::markChanged() { changed_ = true; }

std::string HXRecord::description() const {
  return fmt::format("<{} pk={}>", entityName(), primaryKeyValue());
}

KeyValue HXTask::valueForKey(std::string_view key) const {
  std::lock_guard lock(mu_);
  if (key == "title") return title_;
  if (key == "details") return details_;
  if (key == "dueDate") return due_date_;
  return std::monostate{};
}

std::string HXTask::title() const {
  std::lock_guard lock(mu_);
  return title_;
}

void HXTask::setTitle(std::string title) {
  std::lock_guard lock(mu_);
  title_ = std::move(title);
  markChanged();
}

std::string HXTask::details() const {
  std::lock_guard lock(mu_);
  return details_;
}

void HXTask::setDetails(std::string details) {
  std::lock_guard lock(mu_);
  details_ = std::move(details);
  markChanged();
}

std::int64_t HXTask::dueDate() const {
  std::lock_guard lock(mu_);
  return due_date_;
}

void HXTask::setDueDate(std::int64_t seconds) {
  std::lock_guard lock(mu_);
  due_date_ = seconds;
  markChanged();
}

KeyValue HXEmail::valueForKey(std::string_view key) const {
  std::lock_guard lock(mu_);
  if (key == "subject") return subject_;
  return std::monostate{};
}

std::string HXEmail::subject() const {
  std::lock_guard lock(mu_);
  return subject_;
}

void HXEmail::setSubject(std::string subject) {
  std::lock_guard lock(mu_);
  subject_ = std::move(subject);
  markChanged();
}

}  // namespace vm
