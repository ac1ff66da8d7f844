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
using archive_internal::ShortReadError;
using archive_internal::WriteOnce;

namespace {

constexpr std::size_t kCopyBufferSize = 8192;

// Real info blocks are a few hundred bytes. A longer one is treated like one that runs
// past the end, whatever the input, so that no length in a file makes the reader allocate
// more than this.
constexpr std::uint64_t kInfoLimit = 16u << 20;

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
// directory (or link to one) is fine. Used for the destination itself only, which is the
// caller's choice; nothing below it is reached through a link (see Beneath).
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

// The components of an entry's "path" that name something: empty ones and "." dropped.
// ".." stays: StaysInside() has made sure it never climbs above the destination.
std::vector<std::string> Components(std::string_view path) {
  std::vector<std::string> components;
  while (!path.empty()) {
    std::size_t slash = path.find('/');
    std::string_view component = path.substr(0, slash);
    path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
    if (!component.empty() && component != ".") components.emplace_back(component);
  }
  return components;
}

// Walks folders below an open destination one component at a time and never follows a
// symbolic link on the way, so that a link already in the destination cannot carry an
// entry elsewhere. The walk holds descriptors, so a link swapped in meanwhile is no
// better.
class Beneath {
 public:
  enum class Outcome { kOpened, kLink, kFailed };

  // Opens the folder named by the first `count` components below `root`; with `create`,
  // a missing folder is made on the way. On kFailed, `*error_number` says why.
  static Outcome openFolder(int root, const std::vector<std::string>& components, std::size_t count,
                            bool create, ScopedFd* folder, int* error_number) {
    ScopedFd current(::fcntl(root, F_DUPFD_CLOEXEC, 0));
    for (std::size_t i = 0; i < count && current.valid(); ++i) {
      const char* name = components[i].c_str();
      int fd = ::openat(current.get(), name, kFolderFlags);
      if (fd < 0 && errno == ENOENT && create) {
        if (::mkdirat(current.get(), name, 0777) != 0 && errno != EEXIST) {
          *error_number = errno;
          return Outcome::kFailed;
        }
        fd = ::openat(current.get(), name, kFolderFlags);
      }
      if (fd < 0) {
        // As mkdir(2) says it: something that is not a folder is in the way.
        *error_number = create && errno == ENOTDIR ? EEXIST : errno;
        return IsLink(current.get(), name) ? Outcome::kLink : Outcome::kFailed;
      }
      current = ScopedFd(fd);
    }
    if (!current.valid()) {
      *error_number = errno;
      return Outcome::kFailed;
    }
    *folder = std::move(current);
    return Outcome::kOpened;
  }

 private:
  static constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

  static bool IsLink(int folder, const char* name) {
    struct stat st;
    return ::fstatat(folder, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode);
  }
};

ErrorRef UnsafePathError(std::string_view path, const std::filesystem::path& destination,
                         std::string_view why) {
  return Error::WithDescription(
      BWFileWrapperErrorDomain, kBWFileWrapperUnsafePathError,
      fmt::format("The archive entry \"{}\" would be written outside \"{}\"{}", path,
                  destination.string(), why));
}

// A new, empty file `name` in `folder` with the default mode, replacing any file or link
// that is there (never writing through a link). -1 when that is impossible.
int CreateReplacingFile(int folder, const char* name) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  int fd = ::openat(folder, name, kFlags, 0666);
  if (fd < 0 && errno == EEXIST && ::unlinkat(folder, name, 0) == 0) {
    fd = ::openat(folder, name, kFlags, 0666);
  }
  return fd;
}

}  // namespace

struct BWFileWrapperReader::Info {
  std::string raw;
  nlohmann::json json;
  std::optional<std::string> path;
  std::string type;
  std::optional<std::int64_t> permission;
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
  if (length > kInfoLimit) {
    Fail(error, ShortReadError(0, archive_));
    return Next::kFailed;
  }
  info->raw.resize(static_cast<std::size_t>(length));
  std::size_t got = 0;
  bool ok = ReadOnce(fd_, info->raw.data(), info->raw.size(), archive_, error, &got);
  position_ += got;
  if (!ok) return Next::kFailed;

  // Any of the JSON library's failures (a malformed block, a number no double can hold,
  // a value of an unexpected kind) is this entry's info being unusable, never more.
  try {
    return interpretInfo(info, error) ? Next::kEntry : Next::kFailed;
  } catch (const nlohmann::json::exception& e) {
    Fail(error, JSONReadError(e.what()));
    return Next::kFailed;
  }
}

bool BWFileWrapperReader::interpretInfo(Info* info, ErrorRef* error) {
  info->json = nlohmann::json::parse(info->raw);
  if (!info->json.is_object()) return Fail(error, JSONReadError("not a JSON object"));
  if (auto it = info->json.find(kBWFileWrapperPathKey); it != info->json.end()) {
    if (!it->is_string()) return Fail(error, JSONReadError("\"path\" is not a string"));
    info->path = it->get<std::string>();
  }
  if (auto it = info->json.find(kBWFileWrapperTypeKey); it != info->json.end()) {
    if (!it->is_string()) return Fail(error, JSONReadError("\"type\" is not a string"));
    info->type = it->get<std::string>();
  }
  if (auto it = info->json.find(kBWFileWrapperPermissionKey);
      it != info->json.end() && it->is_number_integer()) {
    info->permission = it->get<std::int64_t>();
  }
  return true;
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
  ScopedFd root;  // the destination, opened at its first use
  auto open_root = [&](bool create, ErrorRef* root_error) {
    if (root.valid()) return true;
    if (create && !MakeDirectories(destination, root_error)) return false;
    root = ScopedFd(::open(destination.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return root.valid() || Fail(root_error, PosixError(errno, destination));
  };
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
    const bool directory = info.type == NSFileTypeDirectory;

    std::vector<std::string> components;
    if (info.path) {
      if (!StaysInside(*info.path)) {
        Fail(error, UnsafePathError(*info.path, destination, ""));
        return 0;
      }
      components = Components(*info.path);
    } else if (regular) {
      components.push_back(fmt::format("{}.recovered", unnamed++));
      result = 2;
    } else {
      result = 2;  // nothing to name it by, and no data follows
      continue;
    }
    if (!regular && !directory) continue;  // links and the rest create nothing

    const std::string shown = info.path.value_or(components.back());
    ScopedFd folder;
    int error_number = 0;
    if (regular) {
      // A file whose folder cannot be reached counts as a creation failure, reported by
      // the result alone; a link on the way is refused like a path that climbs out.
      if (components.empty() || !open_root(false, nullptr)) return 0;
      switch (Beneath::openFolder(root.get(), components, components.size() - 1, false, &folder,
                                  &error_number)) {
        case Beneath::Outcome::kLink:
          Fail(error, UnsafePathError(shown, destination, " through a symbolic link"));
          return 0;
        case Beneath::Outcome::kFailed:
          return 0;
        case Beneath::Outcome::kOpened:
          break;
      }
      const std::filesystem::path target = destination / shown;
      ScopedFd out(CreateReplacingFile(folder.get(), components.back().c_str()));
      if (!out.valid()) return 0;
      std::uint64_t length = 0;
      if (!readDataLength(&length, error)) return 0;
      if (!copyData(length, out.get(), &target, error)) return 0;
    } else {
      if (!open_root(true, error)) return 0;
      switch (Beneath::openFolder(root.get(), components, components.size(), true, &folder,
                                  &error_number)) {
        case Beneath::Outcome::kLink:
          Fail(error, UnsafePathError(shown, destination, " through a symbolic link"));
          return 0;
        case Beneath::Outcome::kFailed:
          Fail(error, PosixError(error_number, destination / shown));
          return 0;
        case Beneath::Outcome::kOpened:
          break;
      }
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
    entry.permission = info.permission;
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
