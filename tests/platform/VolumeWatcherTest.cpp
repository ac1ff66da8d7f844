#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/VolumeWatcher.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;
using testing::WriteFile;

constexpr std::string_view kTwoMounts =
    "22 1 0:21 / / rw,relatime - ext4 /dev/sda1 rw\n"
    "41 22 0:39 / /run/user/0/vmattach/mounts/smb\\040share rw - fuse.rclone VMSHARE:share rw\n";

TEST(VolumeWatcherTest, ParsesMountPointsUndoingTheKernelsEscapes) {
  EXPECT_EQ(VolumeWatcher::ParseMountPoints(kTwoMounts),
            (std::set<std::string>{"/", "/run/user/0/vmattach/mounts/smb share"}));
  EXPECT_EQ(VolumeWatcher::ParseMountPoints("garbage\n\n1 2\n"), std::set<std::string>{});
  EXPECT_TRUE(VolumeWatcher::CurrentMountPoints().count("/"));
}

TEST(VolumeWatcherTest, ReportsEachMountPointThatWentAwayToEveryObserver) {
  TempDir dir;
  WriteFile(dir / "mountinfo", kTwoMounts);
  VolumeWatcher watcher(dir / "mountinfo", "");
  std::mutex mu;
  std::vector<std::string> seen;
  int token = 0;
  watcher.addObserver(&token, [&](const Notification& n) {
    std::lock_guard lock(mu);
    EXPECT_EQ(n.name, NSWorkspaceDidUnmountNotification);
    seen.push_back(n.userInfo.at(std::string(NSDevicePath)));
  });
  watcher.rescan();
  EXPECT_TRUE(seen.empty());

  WriteFile(dir / "mountinfo", "22 1 0:21 / / rw,relatime - ext4 /dev/sda1 rw\n");
  watcher.rescan();
  {
    std::lock_guard lock(mu);
    EXPECT_EQ(seen, std::vector<std::string>{"/run/user/0/vmattach/mounts/smb share"});
  }

  watcher.removeObserver(&token);
  WriteFile(dir / "mountinfo", "");
  watcher.rescan();
  std::lock_guard lock(mu);
  EXPECT_EQ(seen.size(), 1u);
}

// GVfs volumes are folders inside one FUSE mount: the kernel's table never changes for them,
// so the watcher must notice the folder itself going away, on its own thread.
TEST(VolumeWatcherTest, NoticesAGvfsVolumeFolderLeaving) {
  TempDir dir;
  WriteFile(dir / "mountinfo", kTwoMounts);
  fs::path volume = dir / "gvfs" / "afp-volume:host=nas.local,user=anna,volume=Shared";
  fs::create_directories(volume);
  fs::create_directories(dir / "gvfs" / "smb-share:server=other,share=x");
  VolumeWatcher watcher(dir / "mountinfo", dir / "gvfs");
  std::mutex mu;
  std::vector<std::string> seen;
  int token = 0;
  watcher.addObserver(&token, [&](const Notification& n) {
    std::lock_guard lock(mu);
    seen.push_back(n.userInfo.at(std::string(NSDevicePath)));
  });
  fs::remove(volume);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  auto seen_now = [&] {
    std::lock_guard lock(mu);
    return seen;
  };
  while (seen_now().empty() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  watcher.removeObserver(&token);
  EXPECT_EQ(seen_now(), std::vector<std::string>{volume.string()});
}

}  // namespace
}  // namespace vm
