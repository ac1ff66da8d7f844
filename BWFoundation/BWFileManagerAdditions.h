#ifndef VM_BWFOUNDATION_BWFILEMANAGERADDITIONS_H_
#define VM_BWFOUNDATION_BWFILEMANAGERADDITIONS_H_

#include <any>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Error.h"

namespace vm {

// Stages of a file operation, as its status callback reports them.
enum FSFileOperationStage : int {
  kFSOperationStageUndefined = 0,
  kFSOperationStagePreflighting = 1,
  kFSOperationStageRunning = 2,
  kFSOperationStageComplete = 3,
};

// The status dictionary of a file operation: bytes copied so far and bytes in all
// (kFSOperationBytesCompleteKey, kFSOperationTotalBytesKey).
struct FSOperationStatus {
  std::int64_t bytesComplete = 0;
  std::int64_t totalBytes = 0;
};

// The file operation a callback reports on.
struct FSFileOperation {
  std::filesystem::path source;
  std::filesystem::path destination;
};

// The caller's context, kept alive by the copy until its last callback has returned.
using BWCopyContext = std::map<std::string, std::any, std::less<>>;

// The status callback: the operation, the item being copied (the source), the stage, the
// status (0, or an errno value when the copy failed), the status dictionary (null when
// there is none) and the caller's context.
using FSFileOperationStatusProcPtr = void (*)(const FSFileOperation& operation,
                                              const std::filesystem::path& current_item, int stage,
                                              std::int32_t status,
                                              const FSOperationStatus* status_dictionary,
                                              const BWCopyContext& info);

// Starts copying the file `from` to `to` on the background queue and returns true; the
// callback then reports stage 2 (running) with the bytes copied so far after every chunk,
// and finally stage 3 (complete) with status 0, or a call with a non-zero status when the
// copy failed. All callbacks run on one background thread, in order.
//
// Returns false with an error (NSPOSIXErrorDomain) and never calls back when the copy
// cannot start: `from` is not a readable regular file, the folder of `to` does not exist,
// or `to` is a folder that is not empty.
//
// `to` is replaced only once the copy is complete, so a failed copy leaves an existing
// file there untouched. A `to` that exists as an empty folder is replaced by the file: a
// caller may have made that folder as a placeholder for the file.
//
// The copy is written to a temporary file beside `to` named ".vmcopy-" and 16 hex digits
// (the same length whatever `to` is called, so a name of the longest length still works).
// The copy holds an exclusive flock on it while it runs; a temporary file of that form
// whose lock can be taken belongs to a copy that was killed, and the next copy into the
// same folder removes it.
bool bwPerformAsyncCopyFromURL(const std::filesystem::path& from, const std::filesystem::path& to,
                               BWCopyContext context, FSFileOperationStatusProcPtr callback,
                               ErrorRef* error);

// Whether a copy may replace a file already at its destination.
enum class BWCopyExisting { kReplace, kKeep };

// As above; with BWCopyExisting::kKeep the copy never replaces anything at `to` but an
// empty folder: an existing file, symbolic link or other entry refuses the copy with EEXIST,
// at the start when it is there already (return value), or when it appears while the copy
// runs (the callback's status), and its bytes stay as they were.
bool bwPerformAsyncCopyFromURL(const std::filesystem::path& from, const std::filesystem::path& to,
                               BWCopyExisting existing, BWCopyContext context,
                               FSFileOperationStatusProcPtr callback, ErrorRef* error);

// Whether `name` has the form of the copy's temporary files.
bool bwIsCopyTemporaryName(std::string_view name);

// The local path under which `file` (a file or folder of a shared location) is reachable
// now, or nullopt when it is not. Share locations on this platform are either local or
// mounted folders, so a location is reachable when it exists. Thread-safe.
std::optional<std::filesystem::path> bwLocalPathForSharepointFile(
    const std::filesystem::path& file);

// Moves the file `from` to `to` without ever replacing what is there: fails with EEXIST
// when `to` exists. Across file systems the bytes are copied into a file created
// exclusively (mode 0600) and `from` is removed once the copy is complete.
bool bwMoveItemAtURL(const std::filesystem::path& from, const std::filesystem::path& to,
                     ErrorRef* error);

// Whether `url` is a directory or a bundle (itself a directory here), following a symbolic
// link. Thread-safe.
bool bwIsBundleAtURL(const std::filesystem::path& url);

}  // namespace vm

#endif  // VM_BWFOUNDATION_BWFILEMANAGERADDITIONS_H_
