#include "VMAttachments/archive/BWFileWrapperReader.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

#include "VMAttachments/archive/BWFileWrapper.h"
#include "VMAttachments/archive/internal/ArchiveIO.h"

namespace vm {

using archive_internal::DecodeLength;
using archive_internal::ReadOnce;
using archive_internal::ScopedFd;
using archive_internal::ShortReadError;
using archive_internal::WriteOnce;

namespace {

constexpr std::size_t kCopyBufferSize = 8192;

// When the archive is not a regular file (a pipe, say) its size is unknown; an info block
// longer than this is then treated like one that runs past the end. Real info blocks are
// a few hundred bytes.
constexpr std::uint64_t kInfoLimitOfUnsizedArchive = 16u << 20;

ErrorRef JSONReadError(std::string_view why) {
  return Error::WithDescription(NSCocoaErrorDomain, kBWFileWrapperJSONReadError,
                                fmt::format("An archive entry's info is unusable: {}", why));
}

// A "path" may only name something at or below the destination: relative, and no ".."
// that leaves it at any point, so that no archive can write outside the folder it is
// unpacked into. A NUL could not be handed to the system at all.
bool StaysInside(std::string_view path) {
  if (path.empty()) return true;
  if (path.front() == '/' || path.find('\0') != std::string_view::npos) return false;
  std::int64_t depth = 0;
  while (!path.empty()) {
    std::size_t slash = path.find('/');
    std::string_view component = path.substr(0, slash);
    path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
    if (component.empty() || component == ".") continue;
    if (component == "..") {
      if (--depth < 0) return false;
    } else {
      ++depth;
    }
  }
  return true;
}

std::filesystem::path WithoutTrailingSeparator(std::filesystem::path path) {
  path = path.lexically_normal();
  if (!path.has_filename() && path.has_relative_path()) path = path.parent_path();
  return path;
}

// Creates the directory and any missing ancestors with the default mode; an existing
// directory (or link to one) is fine. Walks up only as far as it has to, so the common
// case is one mkdir(2).
bool MakeDirectories(const std::filesystem::path& target, ErrorRef* error) {
  std::vector<std::filesystem::path> pending{WithoutTrailingSeparator(target)};
  while (!pending.empty()) {
    const std::filesystem::path& current = pending.back();
    if (::mkdir(current.c_str(), 0777) == 0) {
      pending.pop_back();
      continue;
    }
    int e = errno;
    if (e == ENOENT) {
      std::filesystem::path parent = current.parent_path();
      if (parent.empty() || parent == current) return Fail(error, PosixError(e, current));
      pending.push_back(std::move(parent));
      continue;
    }
    struct stat st;
    if (e == EEXIST && ::stat(current.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
      pending.pop_back();
      continue;
    }
    return Fail(error, PosixError(e, current));
  }
  return true;
}

// A new, empty file at `target` with the default mode, replacing any file or link that
// is there (never writing through a link). -1 when that is impossible.
int CreateReplacingFile(const std::filesystem::path& target) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  int fd = ::open(target.c_str(), kFlags, 0666);
  if (fd < 0 && errno == EEXIST && ::unlink(target.c_str()) == 0) {
    fd = ::open(target.c_str(), kFlags, 0666);
  }
  return fd;
}

}  // namespace

struct BWFileWrapperReader::Info {
  std::string raw;
  nlohmann::json json;
  std::optional<std::string> path;
  std::string type;
};

BWFileWrapperReader::BWFileWrapperReader(int fd, std::filesystem::path archive)
    : fd_(fd), archive_(std::move(archive)) {}

BWFileWrapperReader::~BWFileWrapperReader() { ::close(fd_); }

std::unique_ptr<BWFileWrapperReader> BWFileWrapperReader::initWithURL(
    const std::filesystem::path& url, ErrorRef* error) {
  int fd = ::open(url.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    Fail(error, PosixError(errno, url));
    return nullptr;
  }
  std::unique_ptr<BWFileWrapperReader> reader(new BWFileWrapperReader(fd, url));
  struct stat st;
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
    reader->size_ = static_cast<std::uint64_t>(st.st_size);
  }
  if (!reader->checkHeader(error)) return nullptr;
  return reader;
}

bool BWFileWrapperReader::checkHeader(ErrorRef* error) {
  char magic[kBWFileWrapperMagic.size()];
  std::size_t got = 0;
  bool ok = ReadOnce(fd_, magic, sizeof magic, archive_, error, &got);
  position_ += got;
  if (!ok) return false;
  if (std::memcmp(magic, kBWFileWrapperMagic.data(), sizeof magic) != 0) {
    return Fail(error, Error::Make(BWFileWrapperErrorDomain, kBWFileWrapperBadMagicError, {}));
  }
  return true;
}

bool BWFileWrapperReader::fits(std::uint64_t length, ErrorRef* error) const {
  if (!size_) return true;
  std::uint64_t left = position_ < *size_ ? *size_ - position_ : 0;
  if (length <= left) return true;
  // Exactly what reading it would come to: the file ends first.
  return Fail(error, ShortReadError(0, archive_));
}

BWFileWrapperReader::Next BWFileWrapperReader::readInfo(Info* info, ErrorRef* error) {
  unsigned char length_bytes[8];
  errno = 0;
  ssize_t n = ::read(fd_, length_bytes, sizeof length_bytes);
  int saved = errno;
  if (n == 0) return Next::kEnd;
  if (n > 0) position_ += static_cast<std::uint64_t>(n);
  if (n != static_cast<ssize_t>(sizeof length_bytes)) {
    Fail(error, ShortReadError(n < 0 ? saved : 0, archive_));
    return Next::kFailed;
  }

  const std::uint64_t length = DecodeLength(length_bytes);
  if (!fits(length, error)) return Next::kFailed;
  if (!size_ && length > kInfoLimitOfUnsizedArchive) {
    Fail(error, ShortReadError(0, archive_));
    return Next::kFailed;
  }
  info->raw.resize(static_cast<std::size_t>(length));
  std::size_t got = 0;
  bool ok = ReadOnce(fd_, info->raw.data(), info->raw.size(), archive_, error, &got);
  position_ += got;
  if (!ok) return Next::kFailed;

  try {
    info->json = nlohmann::json::parse(info->raw);
  } catch (const nlohmann::json::parse_error& e) {
    Fail(error, JSONReadError(e.what()));
    return Next::kFailed;
  }
  if (!info->json.is_object()) {
    Fail(error, JSONReadError("not a JSON object"));
    return Next::kFailed;
  }
  if (auto it = info->json.find(kBWFileWrapperPathKey); it != info->json.end()) {
    if (!it->is_string()) {
      Fail(error, JSONReadError("\"path\" is not a string"));
      return Next::kFailed;
    }
    info->path = it->get<std::string>();
  }
  if (auto it = info->json.find(kBWFileWrapperTypeKey); it != info->json.end()) {
    if (!it->is_string()) {
      Fail(error, JSONReadError("\"type\" is not a string"));
      return Next::kFailed;
    }
    info->type = it->get<std::string>();
  }
  return Next::kEntry;
}

bool BWFileWrapperReader::readDataLength(std::uint64_t* length, ErrorRef* error) {
  unsigned char length_bytes[8];
  std::size_t got = 0;
  bool ok = ReadOnce(fd_, length_bytes, sizeof length_bytes, archive_, error, &got);
  position_ += got;
  if (!ok) return false;
  *length = DecodeLength(length_bytes);
  return fits(*length, error);
}

bool BWFileWrapperReader::copyData(std::uint64_t length, int out,
                                   const std::filesystem::path* target, ErrorRef* error) {
  // One buffer per file: extraction never holds a whole file in memory.
  char buffer[kCopyBufferSize];
  while (length > 0) {
    std::size_t chunk = static_cast<std::size_t>(std::min<std::uint64_t>(length, sizeof buffer));
    std::size_t got = 0;
    bool ok = ReadOnce(fd_, buffer, chunk, archive_, error, &got);
    position_ += got;
    if (!ok) return false;
    if (target != nullptr && !WriteOnce(out, buffer, chunk, *target, error)) return false;
    length -= chunk;
  }
  return true;
}

bool BWFileWrapperReader::skipData(std::uint64_t length, ErrorRef* error) {
  if (!size_) return copyData(length, -1, nullptr, error);  // a pipe cannot seek
  // fits() has already made sure the data is all there.
  if (::lseek(fd_, static_cast<off_t>(length), SEEK_CUR) < 0) {
    return Fail(error, PosixError(errno, archive_));
  }
  position_ += length;
  return true;
}

std::int32_t BWFileWrapperReader::unarchiveFilesTo(const std::filesystem::path& destination,
                                                   ErrorRef* error) {
  std::int32_t result = 1;
  std::int64_t unnamed = 0;
  for (;;) {
    Info info;
    switch (readInfo(&info, error)) {
      case Next::kEnd:
        return result;
      case Next::kFailed:
        return 0;
      case Next::kEntry:
        break;
    }
    const bool regular = info.type == NSFileTypeRegular;

    std::filesystem::path target;
    if (info.path) {
      if (!StaysInside(*info.path)) {
        Fail(error, Error::WithDescription(
                        BWFileWrapperErrorDomain, kBWFileWrapperUnsafePathError,
                        fmt::format("The archive entry \"{}\" would be written outside \"{}\"",
                                    *info.path, destination.string())));
        return 0;
      }
      target = destination / *info.path;
    } else if (regular) {
      target = destination / fmt::format("{}.recovered", unnamed++);
      result = 2;
    } else {
      result = 2;  // nothing to name it by, and no data follows
      continue;
    }

    if (regular) {
      // Creating and opening are one step here, so the only failure is the creation's,
      // which is reported by the result alone.
      ScopedFd out(CreateReplacingFile(target));
      if (!out.valid()) return 0;
      std::uint64_t length = 0;
      if (!readDataLength(&length, error)) return 0;
      if (!copyData(length, out.get(), &target, error)) return 0;
    } else if (info.type == NSFileTypeDirectory) {
      if (!MakeDirectories(target, error)) return 0;
    }
  }
}

bool BWFileWrapperReader::enumerateEntries(const std::function<void(const Entry&)>& visit,
                                           ErrorRef* error) {
  for (;;) {
    Info info;
    switch (readInfo(&info, error)) {
      case Next::kEnd:
        return true;
      case Next::kFailed:
        return false;
      case Next::kEntry:
        break;
    }
    Entry entry;
    if (auto it = info.json.find(kBWFileWrapperPermissionKey);
        it != info.json.end() && it->is_number_integer()) {
      entry.permission = it->get<std::int64_t>();
    }
    if (info.type == NSFileTypeRegular) {
      std::uint64_t length = 0;
      if (!readDataLength(&length, error) || !skipData(length, error)) return false;
      entry.data_length = length;
    }
    entry.info = std::move(info.raw);
    entry.path = std::move(info.path);
    entry.type = std::move(info.type);
    visit(entry);
  }
}

}  // namespace vm
