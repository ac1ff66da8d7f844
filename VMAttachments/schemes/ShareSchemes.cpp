#include "VMAttachments/schemes/ShareSchemes.h"

#include "VMAttachments/schemes/VMAFPAttachment.h"
#include "VMAttachments/schemes/VMArchiverAttachment.h"
#include "VMAttachments/schemes/VMAttachmentConstants.h"
#include "platform/KeyedArchive.h"

namespace vm {

void RegisterShareSchemeClasses() {
  HXSchemeHandlerRegistry& registry = HXSchemeHandlerRegistry::shared();
  registry.registerClass({std::string(VMAFPAttachment::kClassName), VMAFPAttachment::schemeName(),
                          VMAFPAttachment::shouldDisplay(),
                          [](std::shared_ptr<HXFileAttachmentScheme> scheme) {
                            return std::make_shared<VMAFPAttachment>(std::move(scheme));
                          }});
  registry.registerClass({std::string(VMArchiverAttachment::kClassName),
                          VMArchiverAttachment::schemeName(), VMArchiverAttachment::shouldDisplay(),
                          [](std::shared_ptr<HXFileAttachmentScheme> scheme) {
                            return std::make_shared<VMArchiverAttachment>(std::move(scheme));
                          }});
}

std::vector<std::uint8_t> MakeShareSettingsInfoData(
    const std::string& server, const std::string& user, const std::string& password,
    const std::string& folder, const std::map<std::string, std::string>& extra) {
  ArchivedDictionary settings;
  auto put = [&](std::string_view key, const std::string& value) {
    if (!value.empty()) settings.emplace(std::string(key), value);
  };
  put(kVMAFPAttachmentServerPath, server);
  put(kVMAFPAttachmentUsername, user);
  put(kVMAFPAttachmentPassword, password);
  put(kVMArchiverAttachmentStorageFolder, folder);
  for (const auto& [key, value] : extra) put(key, value);
  return ArchiveDictionary(settings);
}

}  // namespace vm
