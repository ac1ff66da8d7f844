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
// no rollback and no removal of a half-written archive. A failure before an entry's first
// byte leaves the archive whole; one after it leaves it damaged() (see there).
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
  // recorded as a link, never followed). A regular file is opened before anything is
  // written, so an item that cannot be read fails with the archive still whole. Its
  // contents are mapped and written a window at a time, each write looping until every
  // byte is out (one write(2) moves at most about 2 GiB): memory use does not grow with
  // the file. Throws InternalInconsistencyException when `url` does not lie below
  // baseDir() (see subPathFromURL()).
  bool writeFile(const std::filesystem::path& url, ErrorRef* error);

  // Whether a write to the archive failed part-way, leaving it unreadable past that point.
  // Once damaged, writeFile() refuses (EIO): the archive must be given up.
  bool damaged() const { return damaged_; }

  // The archive's descriptor, owned by the writer.
  int fileHandle() const { return fd_; }
  const std::filesystem::path& baseDir() const { return base_dir_; }

 private:
  BWFileWrapperWriter(int fd, std::filesystem::path archive);

  int fd_;
  std::filesystem::path archive_;
  std::filesystem::path base_dir_;
  std::unique_ptr<archive_internal::SubPathResolver> resolver_;
  bool damaged_ = false;
};

}  // namespace vm

#endif  // VM_VMATTACHMENTS_ARCHIVE_BWFILEWRAPPERWRITER_H_
