#include "VMAttachments/archive/VMArchiver.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "VMAttachments/archive/BWFileWrapper.h"
#include "VMAttachments/archive/BWFileWrapperReader.h"
#include "VMAttachments/archive/BWFileWrapperWriter.h"
#include "VMAttachments/archive/internal/SubPathResolver.h"

namespace vm {

bool VMArchiver::createArchiveForWriting(const std::filesystem::path& url, ErrorRef* error) {
  struct stat st;
  if (error != nullptr && ::stat(url.c_str(), &st) == 0) {
    return Fail(error, Error::Make(BWFileWrapperErrorDomain, kBWFileWrapperArchiveExistsError));
  }
  // Whether this worked is not looked at: the writer's open reports it.
  int fd = ::open(url.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd >= 0) ::close(fd);
  return true;
}

bool VMArchiver::archiveFilesInDirectory(const std::filesystem::path& directory,
                                         const std::filesystem::path& to, ErrorRef* error) {
  if (!createArchiveForWriting(to, error)) return false;
  std::unique_ptr<BWFileWrapperWriter> writer =
      BWFileWrapperWriter::initWithURL(to, directory, error);
  if (!writer) return false;

  // recursive_directory_iterator walks in pre-order, lists hidden entries, and without
  // follow_directory_symlink describes a link without descending into it.
  std::error_code ec;
  std::filesystem::recursive_directory_iterator it(directory, ec), end;
  while (!ec && it != end) {
    ErrorRef item_error;
    // Without an error pointer a skipped item is no failure, but an archive left damaged
    // by a failed write is: it must never pass for a good one.
    if (!writer->writeFile(it->path(), &item_error) && (error != nullptr || writer->damaged())) {
      return Fail(error, std::move(item_error));
    }
    it.increment(ec);
  }
  return true;
}

bool VMArchiver::archiveFile(const std::filesystem::path& file, const std::filesystem::path& to,
                             ErrorRef* error) {
  if (!createArchiveForWriting(to, error)) return false;
  const std::filesystem::path item = archive_internal::StandardizedPath(file);
  std::unique_ptr<BWFileWrapperWriter> writer =
      BWFileWrapperWriter::initWithURL(to, item.parent_path(), error);
  if (!writer) return false;
  ErrorRef item_error;
  if (!writer->writeFile(item, &item_error) && (error != nullptr || writer->damaged())) {
    return Fail(error, std::move(item_error));
  }
  return true;
}

std::int32_t VMArchiver::unpackFilesFromArchive(const std::filesystem::path& archive,
                                                const std::filesystem::path& to, ErrorRef* error) {
  std::unique_ptr<BWFileWrapperReader> reader = BWFileWrapperReader::initWithURL(archive, error);
  if (!reader) return 0;
  return reader->unarchiveFilesTo(to, error);
}

}  // namespace vm
