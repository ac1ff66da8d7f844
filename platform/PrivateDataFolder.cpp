#include "platform/PrivateDataFolder.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/Log.h"

namespace vm {
namespace {

namespace fs = std::filesystem;

void Notice(std::vector<std::string>* notices, std::string text) {
  Log::Get("com.brenwick.velmora", "DataFolder").notice("{}", text);
  notices->push_back(std::move(text));
}

// Sets `path` to `mode` when its permission bits allow more; errno-style result.
int Tighten(const fs::path& path, const struct stat& st, mode_t mode, std::string_view what,
            std::string_view holds, std::vector<std::string>* notices) {
  mode_t current = st.st_mode & 07777;
  if ((current & ~mode) == 0) return 0;
  if (chmod(path.c_str(), mode) != 0) return errno;
  Notice(notices, fmt::format("tightened the permissions of the {} {} from {:04o} to {:04o}: it "
                              "holds {}",
                              what, path.string(), current, mode, holds));
  return 0;
}

}  // namespace

bool TightenPrivateFile(const fs::path& path, std::vector<std::string>* notices,
                        std::string_view holds) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return true;
  return Tighten(path, st, 0600, "file", holds, notices) == 0;
}

ErrorRef MakeDataFolderPrivate(const fs::path& folder, const std::vector<fs::path>& files,
                               std::vector<std::string>* notices, std::string_view holds) {
  struct stat st;
  if (stat(folder.c_str(), &st) != 0) {
    std::error_code ec;
    if (folder.has_parent_path()) fs::create_directories(folder.parent_path(), ec);
    if (ec) return PosixError(ec, folder.parent_path());
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) return PosixError(errno, folder);
    if (stat(folder.c_str(), &st) != 0) return PosixError(errno, folder);
  }
  if (!S_ISDIR(st.st_mode)) return PosixError(ENOTDIR, folder);
  if (int error = Tighten(folder, st, 0700, "data folder", holds, notices)) {
    return PosixError(error, folder);
  }
  for (const fs::path& file : files) {
    int fd = open(file.c_str(), O_RDONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return PosixError(errno, file);
    close(fd);
    if (!TightenPrivateFile(file, notices, holds)) return PosixError(errno, file);
  }
  return nullptr;
}

}  // namespace vm
