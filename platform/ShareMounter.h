#ifndef VM_PLATFORM_SHAREMOUNTER_H_
#define VM_PLATFORM_SHAREMOUNTER_H_

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Error.h"

namespace vm {

// What to mount: the share and the credentials to mount it with.
struct ShareMountRequest {
  // scheme://host[:port]/share, the share name percent-encoded ("smb://srv/Shared%20Files").
  std::string share_url;
  // The folder inside the share that the caller will use, "/"-separated, not encoded.
  // Informational: the share itself is what gets mounted.
  std::optional<std::string> sub_path;
  std::optional<std::string> user;
  std::optional<std::string> password;
};

// Mounts file shares on the local machine, asynchronously.
//
// Implementations are thread-safe. mountURLAsync() may be called from any thread.
class ShareMounter {
 public:
  // `status` 0: the share is mounted and `mount_points` holds its local mount point first.
  // Otherwise `status` is a positive errno value saying why the mount failed.
  using Completion =
      std::function<void(int status, std::vector<std::filesystem::path> mount_points)>;

  virtual ~ShareMounter() = default;

  // Starts mounting `request`. Returns 0 when the request was accepted: `completion` then
  // runs exactly once, on vm::BackgroundQueue(). A non-zero result (a positive errno value)
  // means the request was refused at once and `completion` never runs. A share that is
  // already mounted completes with its mount point.
  virtual int mountURLAsync(const ShareMountRequest& request, Completion completion) = 0;

  // The process-wide mounter: the one installed with setShared(), else a FuseShareMounter
  // with default options made on first use.
  static std::shared_ptr<ShareMounter> shared();
  static void setShared(std::shared_ptr<ShareMounter> mounter);
};

// Mounts through FUSE: smb:// and sftp:// shares with rclone, afp:// shares with GVfs where
// its AFP backend is installed. Any other scheme is refused at once (EPROTONOSUPPORT).
//
// Mount points live under a per-user runtime folder, one per share and user. Passwords
// reach rclone only through its environment (obscured, as rclone requires) and GVfs
// through its standard input; they never appear on a command line or in a log. Every
// reason for a failure is logged under the category "ShareMounter".
//
// The mounter never unmounts what it mounted: the mounts outlive the process, like the
// desktop's share mounts do. Unmount() is there for whoever wants to.
class FuseShareMounter : public ShareMounter {
 public:
  struct Options {
    // Where the mount points go; empty: DefaultRuntimeFolder().
    std::filesystem::path runtime_folder;
    // How long one mount may take before it counts as failed (ETIMEDOUT).
    std::chrono::seconds timeout{30};
  };

  FuseShareMounter();
  explicit FuseShareMounter(Options options);

  int mountURLAsync(const ShareMountRequest& request, Completion completion) override;

  const std::filesystem::path& runtimeFolder() const { return options_.runtime_folder; }

  // $XDG_RUNTIME_DIR/vmattach when that folder is set and exists, else
  // <temp>/vmattach-<uid>.
  static std::filesystem::path DefaultRuntimeFolder();
  // Unmounts a FUSE mount point (fusermount3 -u).
  static bool Unmount(const std::filesystem::path& mount_point, ErrorRef* error);

 private:
  Options options_;
  // One mount at a time, so two requests for the same share share one mount point. Shared
  // with the mounts under way, which may outlive this object.
  std::shared_ptr<std::mutex> mount_mu_ = std::make_shared<std::mutex>();
};

}  // namespace vm

#endif  // VM_PLATFORM_SHAREMOUNTER_H_
