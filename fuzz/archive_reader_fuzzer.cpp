// Feeds arbitrary bytes to the archive reader as an archive file: it must extract or
// list them, or fail with an error, and never crash, hang, exhaust memory or write
// outside the destination folder, not even through a symbolic link that is already in
// it. Each input is also fed once more with one of its lengths stretched far past the
// end of the file, the way a corrupt or hostile archive would claim it.

#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "VMAttachments/archive/BWFileWrapperReader.h"

namespace {

namespace fs = std::filesystem;

// One scratch folder for the whole run, holding only "archive", "dest" and "trap", where
// the link "dest/out" leads.
const fs::path& Root() {
  static const fs::path root = [] {
    std::string pattern = (fs::temp_directory_path() / "archive-fuzz-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      std::perror("mkdtemp");
      std::abort();
    }
    std::atexit([] {
      std::error_code ignored;
      fs::remove_all(Root(), ignored);
    });
    return fs::path(pattern);
  }();
  return root;
}

void WriteArchive(const fs::path& path, const std::uint8_t* data, std::size_t size) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0 || ::write(fd, data, size) != static_cast<ssize_t>(size)) std::abort();
  ::close(fd);
}

// The input with the length field of entry `selector % entries` (info and data lengths
// counted alike) raised by 2^40 + 2^62 * (selector & 1): far past the end, or beyond any
// allocation. Empty when the input has no length field to stretch.
std::string Stretched(const std::uint8_t* data, std::size_t size, std::uint8_t selector) {
  constexpr std::size_t kMagic = 14;
  std::vector<std::size_t> fields;
  std::size_t at = kMagic;
  while (at + 8 <= size && fields.size() < 64) {
    std::uint64_t length = 0;
    for (int i = 7; i >= 0; --i) length = (length << 8) | data[at + i];
    fields.push_back(at);
    if (length > size - at - 8) break;
    // Where the next field is depends on the type; a data length follows a regular
    // file's info, which names its type in plain text.
    std::string_view info(reinterpret_cast<const char*>(data) + at + 8,
                          static_cast<std::size_t>(length));
    at += 8 + static_cast<std::size_t>(length);
    if (info.find("NSFileTypeRegular") != std::string_view::npos && at + 8 <= size) {
      std::uint64_t data_length = 0;
      for (int i = 7; i >= 0; --i) data_length = (data_length << 8) | data[at + i];
      fields.push_back(at);
      if (data_length > size - at - 8) break;
      at += 8 + static_cast<std::size_t>(data_length);
    }
  }
  if (fields.empty()) return {};
  std::string bytes(reinterpret_cast<const char*>(data), size);
  const std::size_t field = fields[selector % fields.size()];
  std::uint64_t length = 0;
  for (int i = 7; i >= 0; --i) length = (length << 8) | data[field + i];
  length += (std::uint64_t{1} << 40) + ((selector & 1) ? std::uint64_t{1} << 62 : 0);
  for (int i = 0; i < 8; ++i) bytes[field + i] = static_cast<char>(length >> (8 * i));
  return bytes;
}

// Anything but the three names in the root, or anything in "trap", means an entry was
// written outside "dest".
void CheckNothingEscaped(const fs::path& root) {
  DIR* dir = ::opendir(root.c_str());
  if (dir == nullptr) std::abort();
  while (dirent* entry = ::readdir(dir)) {
    const char* name = entry->d_name;
    if (std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0 &&
        std::strcmp(name, "archive") != 0 && std::strcmp(name, "dest") != 0 &&
        std::strcmp(name, "trap") != 0) {
      std::fprintf(stderr, "entry escaped the destination: %s\n", name);
      std::abort();
    }
  }
  ::closedir(dir);
  std::error_code ec;
  if (!fs::is_empty(root / "trap", ec) || ec) {
    std::fprintf(stderr, "an entry was written through the link dest/out\n");
    std::abort();
  }
}

void Feed(const fs::path& root, const std::uint8_t* data, std::size_t size) {
  const fs::path archive = root / "archive";
  const fs::path dest = root / "dest";
  WriteArchive(archive, data, size);
  std::error_code ec;
  fs::remove_all(dest, ec);
  fs::create_directory(dest, ec);
  fs::create_directory(root / "trap", ec);
  fs::create_directory_symlink("../trap", dest / "out", ec);

  vm::ErrorRef error;
  if (auto reader = vm::BWFileWrapperReader::initWithURL(archive, &error)) {
    std::int32_t result = reader->unarchiveFilesTo(dest, &error);
    if (result < 0 || result > 2) std::abort();
  }
  if (auto lister = vm::BWFileWrapperReader::initWithURL(archive, nullptr)) {
    lister->enumerateEntries([](const vm::BWFileWrapperReader::Entry&) {}, nullptr);
  }
  CheckNothingEscaped(root);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const fs::path& root = Root();
  Feed(root, data, size);
  if (size > 0) {
    std::string stretched = Stretched(data, size, data[size - 1]);
    if (!stretched.empty()) {
      Feed(root, reinterpret_cast<const std::uint8_t*>(stretched.data()), stretched.size());
    }
  }
  return 0;
}
