// Feeds arbitrary bytes to the archive reader as an archive file: it must extract or
// list them, or fail with an error, and never crash, hang, exhaust memory or write
// outside the destination folder.

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
#include <system_error>

#include "VMAttachments/archive/BWFileWrapperReader.h"

namespace {

namespace fs = std::filesystem;

// One scratch folder for the whole run, holding only "archive" and "dest".
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

// Anything but the two names in the root means an entry was written outside "dest".
void CheckNothingEscaped(const fs::path& root) {
  DIR* dir = ::opendir(root.c_str());
  if (dir == nullptr) std::abort();
  while (dirent* entry = ::readdir(dir)) {
    const char* name = entry->d_name;
    if (std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0 &&
        std::strcmp(name, "archive") != 0 && std::strcmp(name, "dest") != 0) {
      std::fprintf(stderr, "entry escaped the destination: %s\n", name);
      std::abort();
    }
  }
  ::closedir(dir);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const fs::path& root = Root();
  const fs::path archive = root / "archive";
  const fs::path dest = root / "dest";
  WriteArchive(archive, data, size);
  std::error_code ec;
  fs::remove_all(dest, ec);
  fs::create_directory(dest, ec);

  vm::ErrorRef error;
  if (auto reader = vm::BWFileWrapperReader::initWithURL(archive, &error)) {
    std::int32_t result = reader->unarchiveFilesTo(dest, &error);
    if (result < 0 || result > 2) std::abort();
  }
  if (auto lister = vm::BWFileWrapperReader::initWithURL(archive, nullptr)) {
    lister->enumerateEntries([](const vm::BWFileWrapperReader::Entry&) {}, nullptr);
  }
  CheckNothingEscaped(root);
  return 0;
}
