#include "services/vmcloudd/SecretFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "services/vmcloudd/ServiceError.h"

namespace vm {

bool ReadSecretFile(const std::filesystem::path& path, std::vector<std::string>* secrets,
                    ErrorRef* error) {
  auto bad = [&](std::string what) {
    return Fail(error, CloudServiceError(kVMCloudServiceBadSetting, what));
  };
  // The mode is checked on the descriptor that is read, so a file swapped in between
  // cannot slip through.
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return bad(
        fmt::format("Cannot read the secret file {}: {}", path.string(), std::strerror(errno)));
  }
  struct stat info {};
  std::string text;
  bool ok = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
  if (ok && (info.st_mode & 077) == 0) {
    char buffer[4096];
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) != 0 && text.size() < (1 << 20);) {
      if (n < 0) {
        if (errno == EINTR) continue;
        ok = false;
        break;
      }
      text.append(buffer, static_cast<std::size_t>(n));
    }
  }
  ::close(fd);
  if (!ok) return bad(fmt::format("Cannot read the secret file {}", path.string()));
  if ((info.st_mode & 077) != 0) {
    return bad(fmt::format(
        "The secret file {} is {} by group or others (mode {:04o}); "
        "run chmod 600 on it",
        path.string(), (info.st_mode & 044) ? "readable" : "writable", info.st_mode & 07777));
  }
  std::vector<std::string> found;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    start = end + 1;
    const auto first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] == '#') continue;
    line = line.substr(first, line.find_last_not_of(" \t\r") + 1 - first);
    found.push_back(std::move(line));
  }
  if (found.empty()) return bad(fmt::format("The secret file {} holds no secret", path.string()));
  *secrets = std::move(found);
  return true;
}

}  // namespace vm
