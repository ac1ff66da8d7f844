#ifndef VM_VMATTACHMENTS_ARCHIVE_VMARCHIVER_H_
#define VM_VMATTACHMENTS_ARCHIVE_VMARCHIVER_H_

#include <cstdint>
#include <filesystem>

#include "platform/Error.h"

namespace vm {

// Packs a directory tree or a single file into a file-wrapper archive and unpacks one.
//
// Static methods only. Each call works on the files it is given and shares no state, so
// calls on different files may run on different threads at once.
//
// Every `error` may be null. Two calls deliberately behave differently without one:
// createArchiveForWriting() then empties an existing file instead of refusing it, and
// the archive calls then go on past (or ignore) an item that cannot be read. A failed
// write to the archive itself fails every archive call, error or not: an archive is never
// left corrupt behind a success. Nothing is cleaned up after a failure: a half-written
// archive stays where it is.
class VMArchiver {
 public:
  VMArchiver() = delete;

  // Makes an empty file at `url`. With `error` given, an existing file is refused
  // (BWFileWrapperErrorDomain, code 0, no user info) and left untouched; without, it is
  // emptied and reused. A file that cannot be made shows only later, when the writer
  // cannot open it.
  static bool createArchiveForWriting(const std::filesystem::path& url, ErrorRef* error);

  // Archives every item below `directory` (not the directory itself), in pre-order: a
  // folder before its contents, siblings in the order the file system lists them, hidden
  // items included, symbolic links recorded as links and not followed. The first error
  // of the directory walk ends the walk quietly and the call still succeeds with what was
  // written. An item that cannot be read fails the call when `error` is given, and is
  // skipped otherwise.
  static bool archiveFilesInDirectory(const std::filesystem::path& directory,
                                      const std::filesystem::path& to, ErrorRef* error);

  // Archives one item under its own name. Without `error` the call succeeds unless the
  // archive itself could not be written.
  static bool archiveFile(const std::filesystem::path& file, const std::filesystem::path& to,
                          ErrorRef* error);

  // BWFileWrapperReader::unarchiveFilesTo() for the archive: 0 failed, 1 complete, 2
  // complete with unnamed entries. `to` must exist already.
  static std::int32_t unpackFilesFromArchive(const std::filesystem::path& archive,
                                             const std::filesystem::path& to, ErrorRef* error);
};

}  // namespace vm

#endif  // VM_VMATTACHMENTS_ARCHIVE_VMARCHIVER_H_
