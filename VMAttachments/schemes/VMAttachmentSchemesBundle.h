#ifndef VM_VMATTACHMENTS_SCHEMES_VMATTACHMENTSCHEMESBUNDLE_H_
#define VM_VMATTACHMENTS_SCHEMES_VMATTACHMENTSCHEMESBUNDLE_H_

#include <memory>
#include <string>
#include <string_view>

#include "platform/Bundle.h"

namespace vm {

// The framework's own localisation bundle, identifier "com.brenwick.VMAttachments", text
// domain "VMAttachments". Looked up once, on first use from any thread, and kept for the
// life of the process: every call returns the same object.
//
// The message catalogues are looked for under $VM_LOCALEDIR, else the installed locale
// folder.
std::shared_ptr<const Bundle> VMAttachmentSchemesBundle();

// The framework's texts go through here: the English text is the key, the value is empty
// and there is no table.
std::string VMLocalizedString(std::string_view english);

// How many times the bundle lookup has run in this process (for tests: once at most).
int VMAttachmentSchemesBundleLookupCount();

}  // namespace vm

#endif  // VM_VMATTACHMENTS_SCHEMES_VMATTACHMENTSCHEMESBUNDLE_H_
