#include "host/HXFileAttachmentSchemeHandler.h"

#include <fmt/format.h>

#include "host/HXFileAttachmentScheme.h"

namespace vm {

HXFileAttachmentSchemeHandler::HXFileAttachmentSchemeHandler(
    std::shared_ptr<HXFileAttachmentScheme> scheme)
    : scheme_(std::move(scheme)) {}

std::string HXFileAttachmentSchemeHandler::description() const {
  return fmt::format("<{}: {}>", className(), static_cast<const void*>(this));
}

bool HXFileAttachmentSchemeHandler::completeAttachmentDownloadForObject(
    const std::shared_ptr<HXFileAttachment>&, ErrorRef*) {
  return true;
}

HXSchemeHandlerRegistry& HXSchemeHandlerRegistry::shared() {
  static auto* registry = new HXSchemeHandlerRegistry;
  return *registry;
}

void HXSchemeHandlerRegistry::registerClass(ClassInfo info) {
  std::lock_guard lock(mu_);
  std::string name = info.className;
  classes_.insert_or_assign(std::move(name), std::move(info));
}

std::optional<HXSchemeHandlerRegistry::ClassInfo> HXSchemeHandlerRegistry::classNamed(
    const std::string& class_name) const {
  std::lock_guard lock(mu_);
  auto it = classes_.find(class_name);
  if (it == classes_.end()) return std::nullopt;
  return it->second;
}

std::vector<HXSchemeHandlerRegistry::ClassInfo> HXSchemeHandlerRegistry::classes() const {
  std::lock_guard lock(mu_);
  std::vector<ClassInfo> out;
  for (const auto& [name, info] : classes_) out.push_back(info);
  return out;
}

std::shared_ptr<HXFileAttachmentSchemeHandler> HXSchemeHandlerRegistry::makeHandler(
    std::shared_ptr<HXFileAttachmentScheme> scheme) const {
  if (!scheme) return nullptr;
  std::optional<ClassInfo> info = classNamed(scheme->handlerClassName());
  if (!info || !info->factory) return nullptr;
  return info->factory(std::move(scheme));
}

}  // namespace vm
