#ifndef VM_PLATFORM_VOLUMEWATCHER_H_
#define VM_PLATFORM_VOLUMEWATCHER_H_

#include <condition_variable>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>

namespace vm {

inline constexpr std::string_view NSWorkspaceDidUnmountNotification =
    "NSWorkspaceDidUnmountNotification";
// The user-info key of an unmount notification: the mount point that went away.
inline constexpr std::string_view NSDevicePath = "NSDevicePath";

struct Notification {
  std::string name;
  std::map<std::string, std::string, std::less<>> userInfo;
};

// Tells observers when a volume is unmounted, the way the desktop's workspace does: a
// NSWorkspaceDidUnmountNotification whose "NSDevicePath" is the mount point that left
// /proc/self/mountinfo, or the GVfs volume folder that left $XDG_RUNTIME_DIR/gvfs (GVfs
// volumes share one FUSE mount, so the kernel's table does not show them; that folder is
// looked at every two seconds while there are observers).
//
// Thread-safe. The shared watcher lives for the whole process; its thread starts with the
// first observer. Observers are called on the watcher's own thread, never with a lock of
// the watcher held, so an observer may remove itself. After removeObserver() returns a
// call already under way may still finish; observers keep what they touch alive
// themselves (a weak pointer, typically).
class VolumeWatcher {
 public:
  using Observer = std::function<void(const Notification&)>;

  static VolumeWatcher& shared();

  // `mountinfo` is the file to watch, `gvfs_folder` the folder of GVfs volumes (empty: none);
  // tests may name copies and call rescan() by hand.
  explicit VolumeWatcher(std::filesystem::path mountinfo = "/proc/self/mountinfo",
                         std::filesystem::path gvfs_folder = DefaultGvfsFolder());
  ~VolumeWatcher();
  VolumeWatcher(const VolumeWatcher&) = delete;
  VolumeWatcher& operator=(const VolumeWatcher&) = delete;

  // Registers `observer` under `token` (any address the caller owns), replacing an
  // earlier registration under the same token. The mounts present now are the baseline,
  // so an unmount that happens after this call is reported.
  void addObserver(const void* token, Observer observer);
  // Removes every registration under `token`.
  void removeObserver(const void* token);

  // Re-reads the mount table and reports every mount point that is gone. The watcher's
  // thread calls it when the kernel signals a change.
  void rescan();
  // Delivers `notification` to every observer on the calling thread.
  void postNotification(const Notification& notification);

  // The mount points listed in a mountinfo text, with the kernel's octal escapes undone.
  static std::set<std::string> ParseMountPoints(std::string_view mountinfo);
  // The mount points mounted now, read from /proc/self/mountinfo.
  static std::set<std::string> CurrentMountPoints();
  // $XDG_RUNTIME_DIR/gvfs, or empty when XDG_RUNTIME_DIR is not set.
  static std::filesystem::path DefaultGvfsFolder();

 private:
  void startThreadLocked();
  void run();
  std::set<std::string> readMountPoints() const;

  const std::filesystem::path mountinfo_;
  const std::filesystem::path gvfs_folder_;
  std::mutex mu_;
  std::map<const void*, Observer> observers_;
  std::set<std::string> known_;
  bool stopping_ = false;
  int wake_fd_ = -1;
  std::thread thread_;
};

}  // namespace vm

#endif  // VM_PLATFORM_VOLUMEWATCHER_H_
