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
  // sftp only: the file of known host keys the server's key must be in (empty or absent:
  // ~/.ssh/known_hosts), and a private key to log in with instead of a password.
  std::optional<std::string> known_hosts_file;
  std::optional<std::string> identity_file;
};

// A mount made through FuseShareMounter, as its note in the runtime folder records it.
struct ShareMountInfo {
  std::string name;    // the note's name, unique per share and user
  std::string server;  // the share URL, without credentials
  std::string user;    // may be empty
  std::string via;     // "rclone" or "gvfs"
  std::filesystem::path mount_point;
  bool alive = false;  // false: still mounted, but its server process no longer answers
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

  // Why the latest failed mount of this mounter failed, in words a person can act on
  // (refused password, missing share, unreachable server, unknown host key); empty when
  // none failed or the mounter cannot tell. Thread-safe.
  virtual std::string lastFailureReason() const { return {}; }

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
// The mounts outlive the process, like the desktop's share mounts do; each one leaves a
// note in the runtime folder (server, user, a salted digest of the credentials), which
// ListMounts() reads and UnmountShare() removes. A mount is reused only while it answers
// and was made with the request's credentials; otherwise it is unmounted and mounted anew.
// sftp servers must present a host key listed in the known-hosts file.
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

  std::string lastFailureReason() const override;

  const std::filesystem::path& runtimeFolder() const { return options_.runtime_folder; }

  // The mounts made under `runtime_folder` that are mounted now, alive or stale, sorted by
  // name. Notes of mounts that are gone are dropped on the way.
  static std::vector<ShareMountInfo> ListMounts(const std::filesystem::path& runtime_folder);
  // Releases one listed mount (a stale one lazily) and drops its note.
  static bool UnmountShare(const std::filesystem::path& runtime_folder, const ShareMountInfo& mount,
                           ErrorRef* error);
  // False when `mount_point` is a mount whose server process died (ENOTCONN).
  static bool MountPointAnswers(const std::filesystem::path& mount_point);
  // Whether a GVfs mount folder ("afp-volume:host=...,user=...,volume=...") is the share
  // `volume` on `host` (and of `user`, when not empty): each value compared exactly.
  static bool GvfsFolderMatches(std::string_view folder_name, std::string_view host,
                                std::optional<int> port, std::string_view volume,
                                std::string_view user);
  // What a mount helper's complaint means: an errno value, and `*reason` in words with the
  // helper's own line after them.
  static int ClassifyFailure(const std::string& message, std::string* reason);

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
  // The latest failure's reason, written by mounts under way, which may outlive this object.
  struct FailureSlot {
    mutable std::mutex mu;
    std::string reason;
  };
  std::shared_ptr<FailureSlot> failure_ = std::make_shared<FailureSlot>();
};

}  // namespace vm

#endif  // VM_PLATFORM_SHAREMOUNTER_H_
