#include "VMAttachments/schemes/VMAttachmentSchemesBundle.h"

#include <atomic>
#include <cstdlib>

namespace vm {
namespace {

std::atomic<int> lookup_count{0};

std::string LocaleFolder() {
  if (const char* dir = std::getenv("VM_LOCALEDIR")) return dir;
  return VM_INSTALLED_LOCALEDIR;
}

}  // namespace

std::shared_ptr<const Bundle> VMAttachmentSchemesBundle() {
  // A function-local static is the once-only guard: concurrent first callers wait for the
  // one lookup and all receive its result.
  static const std::shared_ptr<const Bundle> bundle = [] {
    lookup_count.fetch_add(1);
    return Bundle::bundleWithIdentifier("com.brenwick.VMAttachments", "VMAttachments",
                                        LocaleFolder());
  }();
  return bundle;
}

std::string VMLocalizedString(std::string_view english) {
  return VMAttachmentSchemesBundle()->localizedStringForKey(english, "", "");
}

int VMAttachmentSchemesBundleLookupCount() { return lookup_count.load(); }

}  // namespace vm
