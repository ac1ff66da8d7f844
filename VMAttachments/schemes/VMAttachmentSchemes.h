#ifndef VM_VMATTACHMENTS_SCHEMES_VMATTACHMENTSCHEMES_H_
#define VM_VMATTACHMENTS_SCHEMES_VMATTACHMENTSCHEMES_H_

namespace vm {

// Registers every scheme handler class of the framework with
// HXSchemeHandlerRegistry::shared(), so that a host can make handlers by the class names
// its scheme rows hold. Safe to call more than once and from any thread.
void RegisterVMAttachmentsSchemeClasses();

}  // namespace vm

#endif  // VM_VMATTACHMENTS_SCHEMES_VMATTACHMENTSCHEMES_H_
