#include "platform/ShareMounter.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>

#include "platform/DispatchQueue.h"
#include "platform/Log.h"
#include "platform/ParsedURL.h"
#include "platform/Subprocess.h"
#include "platform/VolumeWatcher.h"

namespace vm {
namespace {

namespace fs = std::filesystem;

// rclone reads a remote's whole configuration from RCLONE_CONFIG_<NAME>_<OPTION>.
constexpr std::string_view kRemoteName = "VMSHARE";

Log& MounterLog() { return Log::Get("com.brenwick.velmora", "ShareMounter"); }

std::mutex& SharedMu() {
  static auto* mu = new std::mutex;
  return *mu;
}

std::shared_ptr<ShareMounter>& SharedSlot() {
  static auto* slot = new std::shared_ptr<ShareMounter>;
  return *slot;
}

std::optional<fs::path> FindInPath(std::string_view program) {
  const char* path = std::getenv("PATH");
  std::string_view dirs = path ? path : "/usr/local/bin:/usr/bin:/bin";
  while (!dirs.empty()) {
    size_t colon = dirs.find(':');
    std::string_view dir = dirs.substr(0, colon);
    if (!dir.empty()) {
      fs::path candidate = fs::path(dir) / program;
      if (access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    if (colon == std::string_view::npos) break;
    dirs.remove_prefix(colon + 1);
  }
  return std::nullopt;
}

bool GvfsAfpInstalled() {
  if (!FindInPath("gio")) return false;
  for (const char* dir : {"/usr/libexec", "/usr/lib/gvfs", "/usr/libexec/gvfs"}) {
    if (access((fs::path(dir) / "gvfsd-afp").c_str(), X_OK) == 0) return true;
  }
  return false;
}

// What the mount is about, parsed once.
struct Target {
  std::string scheme;
  std::string host;
  std::optional<int> port;
  std::string share;  // decoded
  std::string user;
  std::string display;  // the share URL without credentials, for log lines
};

std::uint32_t Fnv1a(std::string_view text) {
  std::uint32_t hash = 2166136261u;
  for (char c : text) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 16777619u;
  }
  return hash;
}

// One folder per share and user: readable, and unique even when the readable part of two
// names collapses to the same text.
std::string MountFolderName(const Target& t) {
  std::string key =
      fmt::format("{}\n{}\n{}\n{}\n{}", t.scheme, t.host, t.port.value_or(0), t.share, t.user);
  std::string name = t.scheme + "-" + t.host;
  if (t.port) name += "-" + std::to_string(*t.port);
  name += "-" + t.share;
  if (!t.user.empty()) name += "-" + t.user;
  for (char& c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_' && c != '-') c = '_';
  }
  if (name.size() > 100) name.resize(100);
  return fmt::format("{}-{:08x}", name, Fnv1a(key));
}

// The last line of a program's complaint, without the timestamp rclone puts first.
std::string LastLine(const std::string& text) {
  std::string trimmed = text;
  while (!trimmed.empty() && (trimmed.back() == '\n' || trimmed.back() == '\r')) trimmed.pop_back();
  size_t newline = trimmed.rfind('\n');
  std::string line = newline == std::string::npos ? trimmed : trimmed.substr(newline + 1);
  // "2024/05/01 12:00:00 " is 20 characters.
  if (line.size() > 20 && line[4] == '/' && line[7] == '/' && line[13] == ':' && line[16] == ':' &&
      line[19] == ' ') {
    line.erase(0, 20);
  }
  return line;
}

// rclone says why in words; callers get an errno value.
int StatusFromMessage(const std::string& message) {
  std::string lower = message;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  auto has = [&](std::string_view word) { return lower.find(word) != std::string::npos; };
  if (has("logon") || has("authentication") || has("access denied") || has("permission denied") ||
      has("unable to authenticate")) {
    return EACCES;
  }
  if (has("connection refused")) return ECONNREFUSED;
  if (has("no such host") || has("no route to host")) return EHOSTUNREACH;
  if (has("timeout") || has("timed out")) return ETIMEDOUT;
  if (has("not found") || has("cannot be found")) return ENOENT;
  return EIO;
}

ProcessOptions Run(std::chrono::seconds timeout,
                   std::map<std::string, std::string> environment = {}, std::string input = {}) {
  ProcessOptions options;
  options.environment = std::move(environment);
  options.input = std::move(input);
  options.timeout = timeout;
  return options;
}

bool IsMountPoint(const fs::path& path) {
  return VolumeWatcher::CurrentMountPoints().count(path.string()) != 0;
}

// A FUSE mount whose server process died answers ENOTCONN; clear it so it can be reused.
void ClearDeadMount(const fs::path& mount_point) {
  struct stat st;
  if (stat(mount_point.c_str(), &st) != 0 && errno == ENOTCONN) {
    RunProcess({"fusermount3", "-u", "-z", mount_point.string()}, Run(std::chrono::seconds(10)));
  }
}

int MountWithRclone(const Target& t, const std::optional<std::string>& password,
                    const fs::path& runtime, const fs::path& mount_point,
                    std::chrono::seconds timeout) {
  std::map<std::string, std::string> env;
  std::string prefix = fmt::format("RCLONE_CONFIG_{}_", kRemoteName);
  env[prefix + "TYPE"] = t.scheme;
  env[prefix + "HOST"] = t.host;
  if (t.port) env[prefix + "PORT"] = std::to_string(*t.port);
  if (!t.user.empty()) env[prefix + "USER"] = t.user;
  if (password && !password->empty()) {
    // rclone takes passwords only obscured; `rclone obscure -` reads the plain one from
    // standard input, so it never shows on a command line.
    ProcessResult obscured =
        RunProcess({"rclone", "obscure", "-"}, Run(std::chrono::seconds(10), {}, *password));
    std::string value = obscured.out;
    while (!value.empty() && std::isspace(static_cast<unsigned char>(value.back())))
      value.pop_back();
    value.erase(0, std::min(value.size(), value.find_first_not_of(" \t\r\n")));
    if (!obscured.succeeded() || value.empty()) {
      MounterLog().error("mounting {} failed: rclone could not prepare the password", t.display);
      return EIO;
    }
    env[prefix + "PASS"] = value;
  }
  std::string remote = fmt::format("{}:{}{}", kRemoteName, t.scheme == "sftp" ? "/" : "", t.share);
  std::string config = "--config=/dev/null";

  // Mounting succeeds even with a wrong password (the mount then answers every request
  // with EIO), so ask the server first: this is where a refused password or a missing
  // share shows, with rclone's reason.
  ProcessResult probe =
      RunProcess({"rclone", "lsf", remote, "--max-depth=1", "--dirs-only", config, "--retries=1",
                  "--low-level-retries=1", "--contimeout=10s", "--timeout=20s"},
                 Run(timeout, env));
  if (!probe.succeeded()) {
    std::string reason = probe.timed_out ? "no answer in time" : LastLine(probe.err);
    if (probe.spawn_error) reason = probe.spawn_error->localizedDescription();
    MounterLog().error("mounting {} failed: {}", t.display, reason);
    return probe.timed_out ? ETIMEDOUT : StatusFromMessage(reason);
  }

  fs::path log_file = runtime / "logs" / (mount_point.filename().string() + ".log");
  std::error_code ignored;
  fs::create_directories(log_file.parent_path(), ignored);
  auto wait = std::max<std::chrono::seconds::rep>(timeout.count() - 2, 1);
  ProcessResult mounted =
      RunProcess({"rclone", "mount", remote, mount_point.string(), "--daemon",
                  fmt::format("--daemon-wait={}s", wait), config,
                  "--cache-dir=" + (runtime / "rclone-cache").string(), "--dir-cache-time=5s",
                  "--log-level=NOTICE", "--log-file=" + log_file.string()},
                 Run(timeout, env));
  if (!mounted.succeeded() || !IsMountPoint(mount_point)) {
    std::string reason = mounted.timed_out ? "no answer in time" : LastLine(mounted.err);
    MounterLog().error("mounting {} at {} failed: {}", t.display, mount_point.string(), reason);
    return mounted.timed_out ? ETIMEDOUT : StatusFromMessage(reason);
  }
  MounterLog().info("mounted {} at {}", t.display, mount_point.string());
  return 0;
}

// GVfs keeps its mounts under $XDG_RUNTIME_DIR/gvfs, named after the host and volume.
std::optional<fs::path> FindGvfsMount(const Target& t) {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime == nullptr) return std::nullopt;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(fs::path(runtime) / "gvfs", ec)) {
    std::string name = entry.path().filename().string();
    if (name.rfind("afp-volume:", 0) == 0 && name.find("host=" + t.host) != std::string::npos &&
        name.find("volume=" + t.share) != std::string::npos &&
        (t.user.empty() || name.find("user=" + t.user) != std::string::npos)) {
      return entry.path();
    }
  }
  return std::nullopt;
}

int MountWithGvfs(const Target& t, const std::optional<std::string>& password,
                  std::chrono::seconds timeout, fs::path* mount_point) {
  if (auto existing = FindGvfsMount(t)) {
    *mount_point = *existing;
    return 0;
  }
  std::string authority = t.user.empty() ? "" : PercentEncode(t.user) + "@";
  authority += t.host;
  if (t.port) authority += ":" + std::to_string(*t.port);
  std::string url = fmt::format("afp://{}/{}", authority, PercentEncode(t.share));
  // gio asks for the password on standard input.
  ProcessResult mounted =
      RunProcess({"gio", "mount", url}, Run(timeout, {}, password ? *password + "\n" : "\n"));
  std::optional<fs::path> found = FindGvfsMount(t);
  if (!mounted.succeeded() || !found) {
    std::string reason = mounted.timed_out ? "no answer in time" : LastLine(mounted.err);
    MounterLog().error("mounting {} failed: {}", t.display, reason);
    return mounted.timed_out ? ETIMEDOUT : StatusFromMessage(reason);
  }
  *mount_point = *found;
  MounterLog().info("mounted {} at {}", t.display, mount_point->string());
  return 0;
}

int Mount(const Target& t, const std::optional<std::string>& password, const fs::path& runtime,
          std::chrono::seconds timeout, fs::path* mount_point) {
  if (t.scheme == "afp") return MountWithGvfs(t, password, timeout, mount_point);

  fs::path point = runtime / "mounts" / MountFolderName(t);
  ClearDeadMount(point);
  if (IsMountPoint(point)) {
    *mount_point = point;
    return 0;
  }
  std::error_code ec;
  fs::create_directories(point, ec);
  if (ec) {
    MounterLog().error("mounting {} failed: cannot make {}: {}", t.display, point.string(),
                       ec.message());
    return ec.value();
  }
  int status = MountWithRclone(t, password, runtime, point, timeout);
  if (status == 0) *mount_point = point;
  return status;
}

}  // namespace

std::shared_ptr<ShareMounter> ShareMounter::shared() {
  std::lock_guard lock(SharedMu());
  std::shared_ptr<ShareMounter>& slot = SharedSlot();
  if (!slot) slot = std::make_shared<FuseShareMounter>();
  return slot;
}

void ShareMounter::setShared(std::shared_ptr<ShareMounter> mounter) {
  std::lock_guard lock(SharedMu());
  SharedSlot() = std::move(mounter);
}

FuseShareMounter::FuseShareMounter() : FuseShareMounter(Options{}) {}

FuseShareMounter::FuseShareMounter(Options options) : options_(std::move(options)) {
  if (options_.runtime_folder.empty()) options_.runtime_folder = DefaultRuntimeFolder();
}

fs::path FuseShareMounter::DefaultRuntimeFolder() {
  if (const char* runtime = std::getenv("XDG_RUNTIME_DIR")) {
    std::error_code ec;
    if (*runtime != '\0' && fs::is_directory(runtime, ec)) return fs::path(runtime) / "vmattach";
  }
  return fs::temp_directory_path() / fmt::format("vmattach-{}", getuid());
}

int FuseShareMounter::mountURLAsync(const ShareMountRequest& request, Completion completion) {
  std::optional<ParsedURL> url = ParseURL(request.share_url);
  std::vector<std::string> components;
  if (url) components = url->pathComponents();
  if (!url || components.empty()) {
    MounterLog().error("cannot mount \"{}\": not a share URL of the form scheme://host/share",
                       request.share_url);
    return EINVAL;
  }
  Target target{
      url->scheme, url->host, url->port, components.front(), request.user.value_or(url->user), ""};
  target.display = fmt::format("{}://{}{}/{}", target.scheme, target.host,
                               target.port ? ":" + std::to_string(*target.port) : "",
                               PercentEncode(target.share));
  if (target.scheme == "afp") {
    if (!GvfsAfpInstalled()) {
      MounterLog().error(
          "cannot mount {}: afp:// shares are mounted through GVfs, and its AFP backend "
          "(Debian package gvfs-backends) is not installed",
          target.display);
      return EPROTONOSUPPORT;
    }
  } else if (target.scheme == "smb" || target.scheme == "sftp") {
    if (!FindInPath("rclone")) {
      MounterLog().error("cannot mount {}: rclone is not installed", target.display);
      return ENOENT;
    }
  } else {
    MounterLog().error(
        "cannot mount {}: shares of the scheme \"{}\" are not supported "
        "(smb, sftp and afp are)",
        target.display, target.scheme);
    return EPROTONOSUPPORT;
  }

  std::error_code ec;
  fs::create_directories(options_.runtime_folder, ec);
  fs::permissions(options_.runtime_folder, fs::perms::owner_all, fs::perm_options::replace, ec);

  BackgroundQueue().async([mu = mount_mu_, options = options_, target, password = request.password,
                           completion = std::move(completion)] {
    fs::path mount_point;
    int status;
    {
      std::lock_guard lock(*mu);
      status = Mount(target, password, options.runtime_folder, options.timeout, &mount_point);
    }
    std::vector<fs::path> points;
    if (status == 0) points.push_back(mount_point);
    completion(status, std::move(points));
  });
  return 0;
}

bool FuseShareMounter::Unmount(const fs::path& mount_point, ErrorRef* error) {
  ProcessResult result =
      RunProcess({"fusermount3", "-u", mount_point.string()}, Run(std::chrono::seconds(20)));
  if (result.succeeded()) return true;
  std::string reason =
      result.spawn_error ? result.spawn_error->localizedDescription() : LastLine(result.err);
  return Fail(error, Error::WithDescription(
                         NSPOSIXErrorDomain, EBUSY,
                         fmt::format("cannot unmount {}: {}", mount_point.string(), reason)));
}

}  // namespace vm
