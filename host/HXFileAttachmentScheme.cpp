#include "host/HXFileAttachmentScheme.h"

#include "host/HXObjectContext.h"

namespace vm {

KeyValue HXFileAttachmentScheme::valueForKey(std::string_view key) const {
  std::lock_guard lock(mu_);
  if (key == "name") return name_;
  if (key == "handlerClassName") return handler_class_name_;
  return std::monostate{};
}

std::string HXFileAttachmentScheme::name() const {
  std::lock_guard lock(mu_);
  return name_;
}

void HXFileAttachmentScheme::setName(std::string name) {
  std::lock_guard lock(mu_);
  name_ = std::move(name);
  markChanged();
}

std::string HXFileAttachmentScheme::handlerClassName() const {
  std::lock_guard lock(mu_);
  return handler_class_name_;
}

void HXFileAttachmentScheme::setHandlerClassName(std::string class_name) {
  std::lock_guard lock(mu_);
  handler_class_name_ = std::move(class_name);
  markChanged();
}

std::optional<Bytes> HXFileAttachmentScheme::infoData() const {
  std::lock_guard lock(mu_);
  return info_data_;
}

void HXFileAttachmentScheme::setInfoData(std::optional<Bytes> data) {
  std::lock_guard lock(mu_);
  info_data_ = std::move(data);
  markChanged();
}

std::shared_ptr<HXFileAttachmentSchemeHandler> HXFileAttachmentScheme::schemeHandler() {
  HXObjectContext* context = objectContext();
  if (context == nullptr) return nullptr;
  return context->schemeHandlerForScheme(*this);
}

}  // namespace vm
