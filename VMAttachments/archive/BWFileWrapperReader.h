#ifndef VM_VMATTACHMENTS_ARCHIVE_BWFILEWRAPPERREADER_H_
#define VM_VMATTACHMENTS_ARCHIVE_BWFILEWRAPPERREADER_H_

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/Error.h"

namespace vm {

// Reads a file-wrapper archive (see BWFileWrapper.h) strictly front to back.
//
// Single use: the read position is never rewound, so a second unarchiveFilesTo() finds
// the end at once. The archive file is closed when the reader goes away. Not thread-safe.
//
// The reader trusts nothing it reads: a length larger than what is left of the archive,
// or an info block over 16 MiB, is refused before anything is allocated or read for it, and an
// entry whose path would land outside the destination is refused before anything is written for it.
class BWFileWrapperReader {
 public:
  // What one entry says about itself, for listing.
  struct Entry {
    std::string info;                          // the info block as stored: UTF-8 JSON text
    std::optional<std::string> path;           // "path", when present
    std::string type;                          // "type", empty when absent
    std::optional<std::int64_t> permission;    // "permission", when an integer
    std::optional<std::uint64_t> data_length;  // regular files only
  };

  // Opens the file at `url` for reading and checks the magic. Null on failure: the
  // file cannot be opened (NSPOSIXErrorDomain), it is shorter than the magic
  // (NSPOSIXErrorDomain) or its first bytes differ (BWFileWrapperErrorDomain, code 1).
  static std::unique_ptr<BWFileWrapperReader> initWithURL(const std::filesystem::path& url,
                                                          ErrorRef* error);
  ~BWFileWrapperReader();
  BWFileWrapperReader(const BWFileWrapperReader&) = delete;
  BWFileWrapperReader& operator=(const BWFileWrapperReader&) = delete;

  // One read(2) of the magic's length, compared with the magic.
  bool checkHeader(ErrorRef* error);

  // Extracts every entry below `destination`, which must exist. Returns 0 on failure,
  // 1 when every entry was extracted under its own path, 2 when the archive was read to
  // its end but some entry had no "path": such a regular file is written as
  // "<n>.recovered" (n counting from 0 per call), any other such entry is skipped.
  //
  // Directories are created with intermediates; a regular file replaces whatever
  // non-directory is at its path and is filled through one 8192-byte buffer, never held
  // whole in memory. Recorded permissions are not applied: extracted items get the
  // default mode. Symbolic links and other types create nothing.
  //
  // Failures (error written only when `error` is not null):
  //  - a read cut short or any I/O failure: NSPOSIXErrorDomain, errno (0 for a plain end
  //    of file, including a length that claims more than the archive still holds);
  //  - an info block that is not a JSON object with string "path"/"type", or that the
  //    JSON library refuses in any way (a number no double holds, say):
  //    NSCocoaErrorDomain, kBWFileWrapperJSONReadError;
  //  - a "path" that is absolute, climbs out of `destination`, or passes through a
  //    symbolic link already in `destination` (which could lead anywhere):
  //    BWFileWrapperErrorDomain, kBWFileWrapperUnsafePathError;
  //  - a directory that cannot be made: NSPOSIXErrorDomain;
  //  - a regular file that cannot be created (its folder is missing, say): result 0 and
  //    `*error` deliberately left untouched.
  std::int32_t unarchiveFilesTo(const std::filesystem::path& destination, ErrorRef* error);

  // Walks the remaining entries without extracting them, calling `visit` for each in
  // order. True when the archive ended cleanly on an entry boundary; false with the same
  // errors as unarchiveFilesTo() for a damaged archive.
  bool enumerateEntries(const std::function<void(const Entry&)>& visit, ErrorRef* error);

  // The archive's descriptor, owned by the reader.
  int fileHandle() const { return fd_; }

 private:
  struct Info;
  enum class Next { kEntry, kEnd, kFailed };

  BWFileWrapperReader(int fd, std::filesystem::path archive);
  Next readInfo(Info* info, ErrorRef* error);
  // Parses `info->raw` and takes its "path", "type" and "permission". Throws the JSON
  // library's exceptions; readInfo() turns them into the format's error.
  static bool interpretInfo(Info* info, ErrorRef* error);
  bool readDataLength(std::uint64_t* length, ErrorRef* error);
  // Reads `length` bytes in 8192-byte chunks and writes each to `out`, which is named
  // `target` in errors; with a null `target` the bytes are only read.
  bool copyData(std::uint64_t length, int out, const std::filesystem::path* target,
                ErrorRef* error);
  bool skipData(std::uint64_t length, ErrorRef* error);
  // Whether `length` more bytes can still come; false (with the short-read error) when
  // the archive is known to end sooner.
  bool fits(std::uint64_t length, ErrorRef* error) const;

  int fd_;
  std::filesystem::path archive_;
  // Size of the archive when it is a regular file, for refusing impossible lengths.
  std::optional<std::uint64_t> size_;
  std::uint64_t position_ = 0;
};

}  // namespace vm

#endif  // VM_VMATTACHMENTS_ARCHIVE_BWFILEWRAPPERREADER_H_
