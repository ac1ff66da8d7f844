#include "VMAttachments/schemes/VMAttachmentSchemes.h"

#include "VMAttachments/cloud/VMCAttachment.h"
#include "VMAttachments/schemes/ShareSchemes.h"
#include "VMAttachments/schemes/VMFileReferenceAttachment.h"

namespace vm {
namespace {

template <typename Handler>
HXSchemeHandlerRegistry::ClassInfo ClassInfoFor() {
  return {Handler::kClassName, Handler::schemeName(), Handler::shouldDisplay(),
          [](std::shared_ptr<HXFileAttachmentScheme> scheme) {
            return std::static_pointer_cast<HXFileAttachmentSchemeHandler>(
                std::make_shared<Handler>(std::move(scheme)));
          }};
}

}  // namespace

void RegisterVMAttachmentsSchemeClasses() {
  HXSchemeHandlerRegistry& registry = HXSchemeHandlerRegistry::shared();
  registry.registerClass(ClassInfoFor<VMFileReferenceAttachment>());
  registry.registerClass(ClassInfoFor<VMLocalFileReferenceScheme>());
  RegisterShareSchemeClasses();
  RegisterCloudSchemeClasses();
}

}  // namespace vm
