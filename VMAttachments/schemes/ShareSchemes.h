#ifndef VM_VMATTACHMENTS_SCHEMES_SHARESCHEMES_H_
#define VM_VMATTACHMENTS_SCHEMES_SHARESCHEMES_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vm {

// Registers VMAFPAttachment and VMArchiverAttachment with HXSchemeHandlerRegistry::shared().
// Safe to call more than once and from any thread.
void RegisterShareSchemeClasses();

// The infoData of a share scheme record: the keyed archive of the settings dictionary with
// the server URL ("VMAFPAttachmentServerPath"), user name, password and storage folder
// ("VMArchiverAttachmentStorageFolder"), and any `extra` settings by key. Empty values are
// left out of the dictionary.
std::vector<std::uint8_t> MakeShareSettingsInfoData(
    const std::string& server, const std::string& user, const std::string& password,
    const std::string& folder, const std::map<std::string, std::string>& extra = {});

}  // namespace vm

#endif  // VM_VMATTACHMENTS_SCHEMES_SHARESCHEMES_H_
