#include <gtest/gtest.h>

#include <mutex>
#include <vector>

#include "platform/VolumeWatcher.h"
#include "tests/support/TempDir.h"

namespace vm {
namespace {

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
  VolumeWatcher watcher(dir / "mountinfo");
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

}  // namespace
}  // namespace vm
