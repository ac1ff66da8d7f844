#ifndef VM_VMATTACHMENTS_ARCHIVE_BWFILEWRAPPERWRITER_H_
#define VM_VMATTACHMENTS_ARCHIVE_BWFILEWRAPPERWRITER_H_

#include <filesystem>
#include <memory>

#include "platform/Error.h"

namespace vm {

namespace archive_internal {
class SubPathResolver;
}

// Writes a file-wrapper archive (see BWFileWrapper.h) one entry per file-system item.
//
// Single use: one writer per archive; the archive file is closed when the writer goes
// away. Not thread-safe: use it from one thread at a time.
//
// Every failure ends the operation at once and leaves what was written so far: there is
// no rollback and no removal of a half-written archive.
class BWFileWrapperWriter {
 public:
  // Opens the existing file at `url` for writing at offset 0, neither creating nor
  // truncating it (the caller makes the file first; VMArchiver does), writes the magic
  // and keeps `baseDir`, the directory that entry paths are relative to. Null on failure:
  // the file cannot be opened or the magic cannot be written.
  static std::unique_ptr<BWFileWrapperWriter> initWithURL(const std::filesystem::path& url,
                                                          const std::filesystem::path& baseDir,
                                                          ErrorRef* error);
  ~BWFileWrapperWriter();
  BWFileWrapperWriter(const BWFileWrapperWriter&) = delete;
  BWFileWrapperWriter& operator=(const BWFileWrapperWriter&) = delete;

  // One write(2) of the 14 magic bytes.
  bool writeMagic(ErrorRef* error);

  // Appends one entry for the item at `url`, described by lstat (a symbolic link is
  // recorded as a link, never followed). A regular file's contents are memory-mapped and
  // handed to the kernel in one write(2); a write that comes up short is a failure, not
  // retried. Throws InternalInconsistencyException when `url` does not lie below
  // baseDir() (see subPathFromURL()).
  bool writeFile(const std::filesystem::path& url, ErrorRef* error);

  // The archive's descriptor, owned by the writer.
  int fileHandle() const { return fd_; }
  const std::filesystem::path& baseDir() const { return base_dir_; }

 private:
  BWFileWrapperWriter(int fd, std::filesystem::path archive);

  int fd_;
  std::filesystem::path archive_;
  std::filesystem::path base_dir_;
  std::unique_ptr<archive_internal::SubPathResolver> resolver_;
};

}  // namespace vm

#endif  // VM_VMATTACHMENTS_ARCHIVE_BWFILEWRAPPERWRITER_H_
