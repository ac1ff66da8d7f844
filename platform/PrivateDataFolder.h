#ifndef VM_PLATFORM_PRIVATEDATAFOLDER_H_
#define VM_PLATFORM_PRIVATEDATAFOLDER_H_

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Error.h"

namespace vm {

// A data folder holds secrets (share passwords, the service token) or others' records,
// so only its owner may read it: the folder is 0700 and the files in it are 0600.

// Creates `folder` (missing parents get the usual mode) as 0700, or tightens an existing
// one that its group or others may enter. Then creates each of `files` that does not
// exist as an empty 0600 file (so that whoever fills it later keeps that mode) and
// tightens each that is wider. Every tightening is
// logged as a notice and its text appended to `*notices`; the text says the folder
// "holds" `holds`. Null or the error that stopped it.
ErrorRef MakeDataFolderPrivate(const std::filesystem::path& folder,
                               const std::vector<std::filesystem::path>& files,
                               std::vector<std::string>* notices,
                               std::string_view holds = "passwords and tokens");

// Tightens `path` to 0600 when it exists with a wider mode (a journal SQLite made, a file
// an older version wrote); false only when that chmod failed.
bool TightenPrivateFile(const std::filesystem::path& path, std::vector<std::string>* notices,
                        std::string_view holds = "passwords and tokens");

}  // namespace vm

#endif  // VM_PLATFORM_PRIVATEDATAFOLDER_H_
