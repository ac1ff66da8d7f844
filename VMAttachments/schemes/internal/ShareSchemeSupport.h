#ifndef VM_VMATTACHMENTS_SCHEMES_INTERNAL_SHARESCHEMESUPPORT_H_
#define VM_VMATTACHMENTS_SCHEMES_INTERNAL_SHARESCHEMESUPPORT_H_

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/HXFileAttachment.h"
#include "platform/Error.h"

namespace vm {

class HXRecord;

// Helpers the share schemes share; not part of the framework's interface.

// One plain log line (what the system log shows without subsystem), at the default level.
void PlainLog(std::string_view line);

// How a log line shows a value that may be absent: "(null)" stands for nothing.
std::string DescribeError(const ErrorRef& error);
std::string DescribeRecord(const HXRecord* record);
std::string DescribePath(const std::filesystem::path& path);

// The modification date of the item at `path`; nullopt with the reason in *error.
std::optional<Date> FileModificationDate(const std::filesystem::path& path, ErrorRef* error);

// A path as the platform standardises one: a leading "~" expanded, "." and ".." resolved,
// no trailing "/".
std::string StandardizePath(std::string_view path);

// Makes `folder` and any missing parents with `mode` (narrowed by the umask), appending
// each folder it made to `*created`, outermost first. Null or the error of the step that
// failed (ENOTDIR when a part exists as something else).
ErrorRef CreateMissingFolders(const std::filesystem::path& folder, unsigned mode,
                              std::vector<std::filesystem::path>* created);
// Undoes CreateMissingFolders after a store was refused: removes those folders, innermost
// first, as long as they are still empty.
void RemoveCreatedFolders(const std::vector<std::filesystem::path>& created);

// The name and relative folder of an attachment, as a share scheme joins them to its
// folders: null when both stay inside, else the EINVAL error that refuses them.
ErrorRef CheckAttachmentLocation(std::string_view name, std::string_view relative_folder);

}  // namespace vm

#endif  // VM_VMATTACHMENTS_SCHEMES_INTERNAL_SHARESCHEMESUPPORT_H_
