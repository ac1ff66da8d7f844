#include "platform/VolumeWatcher.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <vector>

#include "platform/Log.h"

namespace vm {
namespace {

// mountinfo escapes space, tab, newline and backslash as \ooo.
std::string Unescape(std::string_view field) {
  auto octal = [](char c) { return c >= '0' && c <= '7'; };
  std::string out;
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size() && octal(field[i + 1]) && octal(field[i + 2]) &&
        octal(field[i + 3])) {
      out.push_back(static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 +
                                      (field[i + 3] - '0')));
      i += 3;
      continue;
    }
    out.push_back(field[i]);
  }
  return out;
}

Log& WatcherLog() { return Log::Get("com.brenwick.velmora", "VolumeWatcher"); }

}  // namespace

VolumeWatcher& VolumeWatcher::shared() {
  // Never destroyed: observers may be registered until the process ends.
  static auto* watcher = new VolumeWatcher();
  return *watcher;
}

VolumeWatcher::VolumeWatcher(std::filesystem::path mountinfo, std::filesystem::path gvfs_folder)
    : mountinfo_(std::move(mountinfo)), gvfs_folder_(std::move(gvfs_folder)) {}

std::filesystem::path VolumeWatcher::DefaultGvfsFolder() {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime == nullptr || *runtime == '\0') return {};
  return std::filesystem::path(runtime) / "gvfs";
}

VolumeWatcher::~VolumeWatcher() {
  std::thread thread;
  {
    std::lock_guard lock(mu_);
    stopping_ = true;
    if (wake_fd_ >= 0) {
      std::uint64_t one = 1;
      [[maybe_unused]] ssize_t ignored = write(wake_fd_, &one, sizeof one);
    }
    thread = std::move(thread_);
  }
  if (thread.joinable()) thread.join();
  if (wake_fd_ >= 0) close(wake_fd_);
}

std::set<std::string> VolumeWatcher::ParseMountPoints(std::string_view mountinfo) {
  // Each line: mount-id parent-id major:minor root mount-point options ... - fstype ...
  std::set<std::string> points;
  std::istringstream lines{std::string(mountinfo)};
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string id, parent, device, root, point;
    if (fields >> id >> parent >> device >> root >> point) points.insert(Unescape(point));
  }
  return points;
}

std::set<std::string> VolumeWatcher::CurrentMountPoints() {
  std::ifstream in("/proc/self/mountinfo");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return ParseMountPoints(text);
}

std::set<std::string> VolumeWatcher::readMountPoints() const {
  std::ifstream in(mountinfo_);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::set<std::string> points = ParseMountPoints(text);
  if (!gvfs_folder_.empty()) {
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(gvfs_folder_, ec)) {
      points.insert(entry.path().string());
    }
  }
  return points;
}

void VolumeWatcher::addObserver(const void* token, Observer observer) {
  {
    std::lock_guard lock(mu_);
    if (!thread_.joinable() && !stopping_) {
      known_ = readMountPoints();
      observers_.insert_or_assign(token, std::move(observer));
      startThreadLocked();
      return;
    }
  }
  // Take in the mounts made since the last change the thread saw (the caller's own mount,
  // usually), reporting to the earlier observers anything that went away meanwhile.
  rescan();
  std::lock_guard lock(mu_);
  observers_.insert_or_assign(token, std::move(observer));
}

void VolumeWatcher::removeObserver(const void* token) {
  std::lock_guard lock(mu_);
  observers_.erase(token);
}

void VolumeWatcher::rescan() {
  std::vector<std::string> gone;
  {
    std::lock_guard lock(mu_);
    std::set<std::string> now = readMountPoints();
    std::set_difference(known_.begin(), known_.end(), now.begin(), now.end(),
                        std::back_inserter(gone));
    known_ = std::move(now);
  }
  for (const std::string& point : gone) {
    Notification notification{std::string(NSWorkspaceDidUnmountNotification), {}};
    notification.userInfo.emplace(std::string(NSDevicePath), point);
    postNotification(notification);
  }
}

void VolumeWatcher::postNotification(const Notification& notification) {
  std::vector<Observer> observers;
  {
    std::lock_guard lock(mu_);
    for (const auto& [token, observer] : observers_) observers.push_back(observer);
  }
  for (const Observer& observer : observers) observer(notification);
}

void VolumeWatcher::startThreadLocked() {
  wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  thread_ = std::thread([this] { run(); });
}

void VolumeWatcher::run() {
  int fd = open(mountinfo_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    WatcherLog().error("cannot watch {}: {}", mountinfo_.string(), std::strerror(errno));
    return;
  }
  for (;;) {
    pollfd fds[2] = {{fd, POLLPRI, 0}, {wake_fd_, POLLIN, 0}};
    // GVfs volumes come and go without a change to the mount table: look every 2 seconds.
    int ready = poll(fds, wake_fd_ >= 0 ? 2 : 1, gvfs_folder_.empty() ? -1 : 2000);
    if (ready < 0 && errno != EINTR) break;
    {
      std::lock_guard lock(mu_);
      if (stopping_) break;
    }
    // The kernel flags a changed mount table with POLLPRI | POLLERR on mountinfo.
    if ((ready > 0 && (fds[0].revents & (POLLPRI | POLLERR))) || ready == 0) rescan();
  }
  close(fd);
}

}  // namespace vm
