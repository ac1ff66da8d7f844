#include "VMAttachments/archive/BWFileWrapperWriter.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <nlohmann/json.hpp>

#include "VMAttachments/archive/BWFileWrapper.h"
#include "VMAttachments/archive/BWFileWrapperAdditions.h"
#include "VMAttachments/archive/internal/ArchiveIO.h"
#include "VMAttachments/archive/internal/SubPathResolver.h"

namespace vm {

using archive_internal::EncodeLength;
using archive_internal::FileTypeName;
using archive_internal::ScopedFd;
using archive_internal::WriteOnce;

namespace {

// A regular file's whole contents, mapped read-only for as long as the object lives.
class MappedFile {
 public:
  MappedFile() = default;
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;
  ~MappedFile() {
    if (data_ != nullptr) ::munmap(data_, size_);
  }

  bool load(const std::filesystem::path& path, ErrorRef* error) {
    // O_NONBLOCK: should the item have become a FIFO since it was described, opening it
    // must not wait for a writer.
    ScopedFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!fd.valid()) return Fail(error, PosixError(errno, path));
    struct stat st;
    if (::fstat(fd.get(), &st) != 0) return Fail(error, PosixError(errno, path));
    if (!S_ISREG(st.st_mode)) return Fail(error, PosixError(EINVAL, path));
    size_ = static_cast<std::size_t>(st.st_size);
    if (size_ == 0) return true;  // nothing to map; an empty file is empty data
    // Populated up front: the single write(2) then copies from resident pages instead of
    // faulting them in one by one.
    void* data = ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd.get(), 0);
    if (data == MAP_FAILED) return Fail(error, PosixError(errno, path));
    data_ = data;
    return true;
  }

  const void* data() const { return data_; }
  std::size_t size() const { return size_; }

 private:
  void* data_ = nullptr;
  std::size_t size_ = 0;
};

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
  return WriteOnce(fd_, kBWFileWrapperMagic.data(), kBWFileWrapperMagic.size(), archive_, error);
}

bool BWFileWrapperWriter::writeFile(const std::filesystem::path& url, ErrorRef* error) {
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

  unsigned char length[8];
  EncodeLength(text.size(), length);
  if (!WriteOnce(fd_, length, sizeof length, archive_, error)) return false;
  if (!WriteOnce(fd_, text.data(), text.size(), archive_, error)) return false;
  if (type != NSFileTypeRegular) return true;

  MappedFile contents;
  if (!contents.load(url, error)) return false;
  EncodeLength(contents.size(), length);
  if (!WriteOnce(fd_, length, sizeof length, archive_, error)) return false;
  // Deliberately one call: no chunking and no retry of a short write.
  return WriteOnce(fd_, contents.data(), contents.size(), archive_, error);
}

}  // namespace vm
