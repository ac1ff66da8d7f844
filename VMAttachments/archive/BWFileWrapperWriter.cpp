#include "VMAttachments/archive/BWFileWrapperWriter.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>

#include "VMAttachments/archive/BWFileWrapper.h"
#include "VMAttachments/archive/BWFileWrapperAdditions.h"
#include "VMAttachments/archive/internal/ArchiveIO.h"
#include "VMAttachments/archive/internal/SubPathResolver.h"

namespace vm {

using archive_internal::EncodeLength;
using archive_internal::FileTypeName;
using archive_internal::WriteFully;
using archive_internal::WriteOnce;

namespace {

// The data of a regular file is mapped and written one window at a time, so memory does
// not grow with the file. Each window is populated up front: its writes then copy from
// resident pages instead of faulting them in one by one.
constexpr std::uint64_t kDataWindow = 32u << 20;

// A regular file opened for archiving, with the size it had when opened.
struct SourceFile {
  ScopedFd fd;
  std::uint64_t size = 0;

  bool open(const std::filesystem::path& path, ErrorRef* error) {
    // O_NONBLOCK: should the item have become a FIFO since it was described, opening it
    // must not wait for a writer.
    fd = ScopedFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!fd.valid()) return Fail(error, PosixError(errno, path));
    struct stat st;
    if (::fstat(fd.get(), &st) != 0) return Fail(error, PosixError(errno, path));
    if (!S_ISREG(st.st_mode)) return Fail(error, PosixError(EINVAL, path));
    size = static_cast<std::uint64_t>(st.st_size);
    return true;
  }
};

// Writes `size` bytes of `source` to `out`. A file that shrank meanwhile makes a write
// from beyond its end fail (EFAULT), which fails the entry rather than the process.
bool WriteData(const SourceFile& source, const std::filesystem::path& path, int out,
               const std::filesystem::path& archive, ErrorRef* error) {
  for (std::uint64_t offset = 0; offset < source.size;) {
    const std::size_t length =
        static_cast<std::size_t>(std::min(kDataWindow, source.size - offset));
    void* window = ::mmap(nullptr, length, PROT_READ, MAP_PRIVATE | MAP_POPULATE, source.fd.get(),
                          static_cast<off_t>(offset));
    if (window == MAP_FAILED) return Fail(error, PosixError(errno, path));
    bool written = WriteFully(out, window, length, archive, error);
    ::munmap(window, length);
    if (!written) return false;
    offset += length;
  }
  return true;
}

}  // namespace

BWFileWrapperWriter::BWFileWrapperWriter(int fd, std::filesystem::path archive)
    : fd_(fd), archive_(std::move(archive)) {}

BWFileWrapperWriter::~BWFileWrapperWriter() { ::close(fd_); }

std::unique_ptr<BWFileWrapperWriter> BWFileWrapperWriter::initWithURL(
    const std::filesystem::path& url, const std::filesystem::path& baseDir, ErrorRef* error) {
  int fd = ::open(url.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) {
    Fail(error, PosixError(errno, url));
    return nullptr;
  }
  std::unique_ptr<BWFileWrapperWriter> writer(new BWFileWrapperWriter(fd, url));
  if (!writer->writeMagic(error)) return nullptr;
  writer->base_dir_ = baseDir;
  writer->resolver_ = std::make_unique<archive_internal::SubPathResolver>(baseDir);
  return writer;
}

bool BWFileWrapperWriter::writeMagic(ErrorRef* error) {
  if (WriteOnce(fd_, kBWFileWrapperMagic.data(), kBWFileWrapperMagic.size(), archive_, error)) {
    return true;
  }
  damaged_ = true;
  return false;
}

bool BWFileWrapperWriter::writeFile(const std::filesystem::path& url, ErrorRef* error) {
  if (damaged_) return Fail(error, PosixError(EIO, archive_));
  struct stat st;
  if (::lstat(url.c_str(), &st) != 0) return Fail(error, PosixError(errno, url));

  const std::string_view type = FileTypeName(st.st_mode);
  nlohmann::json info = {
      {kBWFileWrapperPathKey, resolver_->subPath(url)},
      {kBWFileWrapperTypeKey, type},
      {kBWFileWrapperPermissionKey, static_cast<std::uint32_t>(st.st_mode & 07777)},
  };
  std::string text;
  try {
    text = info.dump();
  } catch (const nlohmann::json::exception& e) {
    // File names are bytes on this platform; JSON text must be UTF-8.
    return Fail(error, Error::WithDescription(
                           NSCocoaErrorDomain, kBWFileWrapperJSONWriteError,
                           "The name of \"" + url.string() + "\" is not valid UTF-8: " + e.what()));
  }
  // Opened before anything of the entry is written: an item that cannot be read is left
  // out whole instead of leaving an info block without its data.
  SourceFile contents;
  if (type == NSFileTypeRegular && !contents.open(url, error)) return false;

  // From here on a failure leaves a partial entry behind.
  unsigned char length[8];
  EncodeLength(text.size(), length);
  bool written = WriteOnce(fd_, length, sizeof length, archive_, error) &&
                 WriteOnce(fd_, text.data(), text.size(), archive_, error);
  if (written && type == NSFileTypeRegular) {
    EncodeLength(contents.size, length);
    written = WriteOnce(fd_, length, sizeof length, archive_, error) &&
              WriteData(contents, url, fd_, archive_, error);
  }
  if (!written) damaged_ = true;
  return written;
}

}  // namespace vm
