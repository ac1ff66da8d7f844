#include "platform/ShareMounter.h"

#include <fmt/format.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>

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
  std::string display;      // the share URL without credentials, for log lines
  std::string known_hosts;  // sftp: the file the server's host key must be in
  std::string identity;     // sftp: private key file, may be empty
};

// What a mount attempt ends with: 0 and the mount point, or an errno value and why.
struct Outcome {
  int status = 0;
  std::string reason;
  fs::path mount_point;
};

Outcome Failed(int status, std::string reason) { return Outcome{status, std::move(reason), {}}; }

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
  if (line.rfind("ERROR : ", 0) == 0) line.erase(0, 8);
  return line;
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

void LazyUnmount(const fs::path& mount_point) {
  RunProcess({"fusermount3", "-u", "-z", mount_point.string()}, Run(std::chrono::seconds(10)));
}

// The mount notes: one small "key=value" file per mount, values percent-encoded.
fs::path NotePath(const fs::path& runtime, const std::string& name) {
  return runtime / "notes" / (name + ".note");
}

struct Note {
  ShareMountInfo info;
  std::string credentials;  // "<salt hex>:<sha-256 hex>"
};

std::string Hex(const unsigned char* data, size_t size) {
  std::string out;
  for (size_t i = 0; i < size; ++i) out += fmt::format("{:02x}", data[i]);
  return out;
}

// A salted digest of what the mount was made with, so that a note never holds a secret
// yet tells whether the credentials changed.
std::string CredentialsDigest(const std::string& salt_hex, const std::string& secrets) {
  std::string input = salt_hex + '\0' + secrets;
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(input.data(), input.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
    return {};
  }
  return salt_hex + ":" + Hex(digest, length);
}

std::string NewCredentialsDigest(const std::string& secrets) {
  unsigned char salt[16];
  if (RAND_bytes(salt, sizeof salt) != 1) return {};
  return CredentialsDigest(Hex(salt, sizeof salt), secrets);
}

bool CredentialsMatch(const std::string& recorded, const std::string& secrets) {
  size_t colon = recorded.find(':');
  if (colon == std::string::npos || recorded.empty()) return false;
  return CredentialsDigest(recorded.substr(0, colon), secrets) == recorded;
}

std::string Secrets(const Target& t, const std::optional<std::string>& password) {
  return fmt::format("{}\n{}\n{}\n{}", t.user, password.value_or(""), t.identity, t.known_hosts);
}

void WriteNote(const fs::path& runtime, const ShareMountInfo& info, const std::string& digest) {
  fs::path path = NotePath(runtime, info.name);
  std::error_code ec;
  fs::create_directories(path.parent_path(), ec);
  std::ofstream out(path, std::ios::trunc);
  out << "server=" << PercentEncode(info.server) << "\n"
      << "user=" << PercentEncode(info.user) << "\n"
      << "via=" << info.via << "\n"
      << "mount=" << PercentEncode(info.mount_point.string()) << "\n"
      << "credentials=" << digest << "\n";
  out.close();
  fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write, fs::perm_options::replace,
                  ec);
}

std::optional<Note> ReadNote(const fs::path& path) {
  std::ifstream in(path);
  if (!in) return std::nullopt;
  Note note;
  note.info.name = path.stem().string();
  std::string line;
  while (std::getline(in, line)) {
    size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    std::string key = line.substr(0, eq);
    std::string value = line.substr(eq + 1);
    if (key == "server") note.info.server = PercentDecode(value);
    if (key == "user") note.info.user = PercentDecode(value);
    if (key == "via") note.info.via = value;
    if (key == "mount") note.info.mount_point = PercentDecode(value);
    if (key == "credentials") note.credentials = value;
  }
  if (note.info.mount_point.empty()) return std::nullopt;
  return note;
}

void DropNote(const fs::path& runtime, const std::string& name) {
  std::error_code ec;
  fs::remove(NotePath(runtime, name), ec);
}

std::string WithUser(const Target& t) {
  std::string authority = t.user.empty() ? "" : PercentEncode(t.user) + "@";
  authority += t.host;
  if (t.port) authority += ":" + std::to_string(*t.port);
  return fmt::format("{}://{}/{}", t.scheme, authority, PercentEncode(t.share));
}

// The reason of a helper that failed, timed out or could not be started.
Outcome HelperFailed(const ProcessResult& result) {
  if (result.timed_out) return Failed(ETIMEDOUT, "the server did not answer in time");
  if (result.spawn_error) return Failed(EIO, result.spawn_error->localizedDescription());
  std::string reason;
  int status = FuseShareMounter::ClassifyFailure(LastLine(result.err), &reason);
  return Failed(status, reason);
}

Outcome MountWithRclone(const Target& t, const std::optional<std::string>& password,
                        const fs::path& runtime, const fs::path& mount_point,
                        std::chrono::seconds timeout) {
  std::map<std::string, std::string> env;
  std::string prefix = fmt::format("RCLONE_CONFIG_{}_", kRemoteName);
  env[prefix + "TYPE"] = t.scheme;
  env[prefix + "HOST"] = t.host;
  if (t.port) env[prefix + "PORT"] = std::to_string(*t.port);
  if (!t.user.empty()) env[prefix + "USER"] = t.user;
  if (t.scheme == "sftp") {
    // Without a known-hosts file rclone would trust any server that answers.
    std::error_code ec;
    if (!fs::exists(t.known_hosts, ec)) {
      return Failed(ENOKEY, fmt::format("the host key of {} cannot be checked: {} does not exist",
                                        t.host, t.known_hosts));
    }
    env[prefix + "KNOWN_HOSTS_FILE"] = t.known_hosts;
    if (!t.identity.empty()) env[prefix + "KEY_FILE"] = t.identity;
  }
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
      return Failed(EIO, "rclone could not prepare the password");
    }
    env[prefix + "PASS"] = value;
  }
  std::string remote = fmt::format("{}:{}{}", kRemoteName, t.scheme == "sftp" ? "/" : "", t.share);
  std::string config = "--config=/dev/null";

  // Mounting succeeds even with a wrong password (the mount then answers every request
  // with EIO), so ask the server first: this is where a refused password, a missing share
  // or an unknown host key shows, with rclone's reason.
  ProcessResult probe =
      RunProcess({"rclone", "lsf", remote, "--max-depth=1", "--dirs-only", config, "--retries=1",
                  "--low-level-retries=1", "--contimeout=10s", "--timeout=20s"},
                 Run(timeout, env));
  if (!probe.succeeded()) return HelperFailed(probe);

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
  if (!mounted.succeeded()) return HelperFailed(mounted);
  if (!IsMountPoint(mount_point)) {
    return Failed(EIO, fmt::format("rclone reported success but nothing is mounted at {}",
                                   mount_point.string()));
  }
  return Outcome{0, {}, mount_point};
}

// GVfs keeps its mounts under $XDG_RUNTIME_DIR/gvfs, named after the host and volume.
std::optional<fs::path> FindGvfsMount(const Target& t) {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime == nullptr) return std::nullopt;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(fs::path(runtime) / "gvfs", ec)) {
    if (FuseShareMounter::GvfsFolderMatches(entry.path().filename().string(), t.host, t.port,
                                            t.share, t.user)) {
      return entry.path();
    }
  }
  return std::nullopt;
}

Outcome MountWithGvfs(const Target& t, const std::optional<std::string>& password,
                      std::chrono::seconds timeout) {
  // gio asks for the password on standard input.
  ProcessResult mounted = RunProcess({"gio", "mount", WithUser(t)},
                                     Run(timeout, {}, password ? *password + "\n" : "\n"));
  std::optional<fs::path> found = FindGvfsMount(t);
  if (!mounted.succeeded()) return HelperFailed(mounted);
  if (!found) return Failed(EIO, "gio reported success but GVfs shows no such volume");
  return Outcome{0, {}, *found};
}

ShareMountInfo InfoFor(const Target& t, const std::string& name, const std::string& via,
                       const fs::path& mount_point) {
  return ShareMountInfo{name, t.display, t.user, via, mount_point, true};
}

Outcome Mount(const Target& t, const std::optional<std::string>& password, const fs::path& runtime,
              std::chrono::seconds timeout) {
  std::string name = MountFolderName(t);
  std::optional<Note> note = ReadNote(NotePath(runtime, name));
  std::string secrets = Secrets(t, password);
  bool same_credentials = note && CredentialsMatch(note->credentials, secrets);

  if (t.scheme == "afp") {
    if (std::optional<fs::path> existing = FindGvfsMount(t)) {
      if (same_credentials) return Outcome{0, {}, *existing};
      MounterLog().info("{} was mounted with other credentials: mounting it again", t.display);
      RunProcess({"gio", "mount", "-u", WithUser(t)}, Run(timeout));
    }
    Outcome outcome = MountWithGvfs(t, password, timeout);
    if (outcome.status == 0) {
      WriteNote(runtime, InfoFor(t, name, "gvfs", outcome.mount_point),
                NewCredentialsDigest(secrets));
    }
    return outcome;
  }

  fs::path point = runtime / "mounts" / name;
  if (IsMountPoint(point)) {
    if (!FuseShareMounter::MountPointAnswers(point)) {
      // Its rclone died: the kernel still lists the mount, but it answers nothing.
      MounterLog().info("the mount of {} at {} no longer answers: mounting it again", t.display,
                        point.string());
      LazyUnmount(point);
    } else if (same_credentials) {
      return Outcome{0, {}, point};
    } else {
      MounterLog().info("{} was mounted with other credentials: mounting it again", t.display);
      if (!FuseShareMounter::Unmount(point, nullptr)) LazyUnmount(point);
    }
  }
  std::error_code ec;
  fs::create_directories(point, ec);
  if (ec)
    return Failed(ec.value(), fmt::format("cannot make {}: {}", point.string(), ec.message()));
  Outcome outcome = MountWithRclone(t, password, runtime, point, timeout);
  if (outcome.status == 0) {
    WriteNote(runtime, InfoFor(t, name, "rclone", point), NewCredentialsDigest(secrets));
  }
  return outcome;
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

std::string FuseShareMounter::lastFailureReason() const {
  std::lock_guard lock(failure_->mu);
  return failure_->reason;
}

int FuseShareMounter::mountURLAsync(const ShareMountRequest& request, Completion completion) {
  auto refuse = [this](int status, std::string reason) {
    MounterLog().error("{}", reason);
    std::lock_guard lock(failure_->mu);
    failure_->reason = std::move(reason);
    return status;
  };
  std::optional<ParsedURL> url = ParseURL(request.share_url);
  std::vector<std::string> components;
  if (url) components = url->pathComponents();
  if (!url || components.empty()) {
    return refuse(EINVAL, fmt::format("cannot mount \"{}\": not a share URL of the form "
                                      "scheme://host/share",
                                      request.share_url));
  }
  Target target{
      url->scheme, url->host, url->port, components.front(), request.user.value_or(url->user),
      "",          "",        "",
  };
  target.display = fmt::format("{}://{}{}/{}", target.scheme, target.host,
                               target.port ? ":" + std::to_string(*target.port) : "",
                               PercentEncode(target.share));
  target.known_hosts = request.known_hosts_file.value_or("");
  if (target.known_hosts.empty()) {
    const char* home = std::getenv("HOME");
    target.known_hosts = (fs::path(home ? home : "/") / ".ssh" / "known_hosts").string();
  }
  target.identity = request.identity_file.value_or("");
  if (target.scheme == "afp") {
    if (!GvfsAfpInstalled()) {
      return refuse(EPROTONOSUPPORT,
                    fmt::format("cannot mount {}: afp:// shares are mounted through GVfs, and its "
                                "AFP backend (Debian package gvfs-backends) is not installed",
                                target.display));
    }
  } else if (target.scheme == "smb" || target.scheme == "sftp") {
    if (!FindInPath("rclone")) {
      return refuse(ENOENT,
                    fmt::format("cannot mount {}: rclone is not installed", target.display));
    }
  } else {
    return refuse(EPROTONOSUPPORT,
                  fmt::format("cannot mount {}: shares of the scheme \"{}\" are not supported "
                              "(smb, sftp and afp are)",
                              target.display, target.scheme));
  }

  std::error_code ec;
  fs::create_directories(options_.runtime_folder, ec);
  fs::permissions(options_.runtime_folder, fs::perms::owner_all, fs::perm_options::replace, ec);

  BackgroundQueue().async([mu = mount_mu_, failure = failure_, options = options_, target,
                           password = request.password, completion = std::move(completion)] {
    Outcome outcome;
    {
      std::lock_guard lock(*mu);
      outcome = Mount(target, password, options.runtime_folder, options.timeout);
    }
    std::vector<fs::path> points;
    if (outcome.status == 0) {
      MounterLog().info("mounted {} at {}", target.display, outcome.mount_point.string());
      points.push_back(outcome.mount_point);
    } else {
      MounterLog().error("mounting {} failed: {}", target.display, outcome.reason);
      std::lock_guard lock(failure->mu);
      failure->reason = fmt::format("cannot mount {}: {}", target.display, outcome.reason);
    }
    completion(outcome.status, std::move(points));
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

bool FuseShareMounter::MountPointAnswers(const fs::path& mount_point) {
  struct stat st;
  return stat(mount_point.c_str(), &st) == 0 || errno != ENOTCONN;
}

std::vector<ShareMountInfo> FuseShareMounter::ListMounts(const fs::path& runtime_folder) {
  std::set<std::string> mounted = VolumeWatcher::CurrentMountPoints();
  std::map<std::string, ShareMountInfo> found;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(runtime_folder / "notes", ec)) {
    if (entry.path().extension() != ".note") continue;
    std::optional<Note> note = ReadNote(entry.path());
    if (!note) continue;
    ShareMountInfo info = note->info;
    bool present = info.via == "gvfs" ? fs::is_directory(info.mount_point, ec)
                                      : mounted.count(info.mount_point.string()) != 0;
    if (!present) {
      DropNote(runtime_folder, info.name);
      continue;
    }
    info.alive = info.via == "gvfs" || MountPointAnswers(info.mount_point);
    found.emplace(info.name, std::move(info));
  }
  // Mounts left behind without a note (a note removed by hand, say) are still ours.
  std::string prefix = (runtime_folder / "mounts").string() + "/";
  for (const std::string& point : mounted) {
    if (point.rfind(prefix, 0) != 0) continue;
    std::string name = fs::path(point).filename().string();
    if (found.count(name) != 0) continue;
    found.emplace(name, ShareMountInfo{name, "", "", "rclone", point, MountPointAnswers(point)});
  }
  std::vector<ShareMountInfo> out;
  for (auto& [name, info] : found) out.push_back(std::move(info));
  return out;
}

bool FuseShareMounter::UnmountShare(const fs::path& runtime_folder, const ShareMountInfo& mount,
                                    ErrorRef* error) {
  if (mount.via == "gvfs") {
    ProcessResult result = RunProcess({"gio", "mount", "-u", mount.mount_point.string()},
                                      Run(std::chrono::seconds(20)));
    if (!result.succeeded()) {
      return Fail(error, Error::WithDescription(NSPOSIXErrorDomain, EBUSY,
                                                fmt::format("cannot unmount {}: {}", mount.server,
                                                            LastLine(result.err))));
    }
  } else if (mount.alive) {
    if (!Unmount(mount.mount_point, error)) return false;
  } else {
    // Nothing answers behind a stale mount; detaching it cannot lose data.
    LazyUnmount(mount.mount_point);
  }
  DropNote(runtime_folder, mount.name);
  return true;
}

bool FuseShareMounter::GvfsFolderMatches(std::string_view folder_name, std::string_view host,
                                         std::optional<int> port, std::string_view volume,
                                         std::string_view user) {
  constexpr std::string_view kPrefix = "afp-volume:";
  if (folder_name.substr(0, kPrefix.size()) != kPrefix) return false;
  std::map<std::string, std::string> values;
  std::string_view rest = folder_name.substr(kPrefix.size());
  while (!rest.empty()) {
    size_t comma = rest.find(',');
    std::string_view pair = rest.substr(0, comma);
    size_t eq = pair.find('=');
    if (eq != std::string_view::npos) {
      values[std::string(pair.substr(0, eq))] = PercentDecode(pair.substr(eq + 1));
    }
    if (comma == std::string_view::npos) break;
    rest.remove_prefix(comma + 1);
  }
  auto lower = [](std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
  };
  if (lower(values["host"]) != lower(std::string(host))) return false;
  if (values["volume"] != volume) return false;
  if (!user.empty() && values["user"] != user) return false;
  if (port && values.count("port") != 0 && values["port"] != std::to_string(*port)) return false;
  return true;
}

int FuseShareMounter::ClassifyFailure(const std::string& message, std::string* reason) {
  struct Rule {
    std::vector<std::string_view> words;
    int status;
    std::string_view meaning;
  };
  static const Rule kRules[] = {
      {{"knownhosts: key is unknown"}, ENOKEY, "the server's host key is not a known one"},
      {{"knownhosts: key mismatch"},
       EKEYREJECTED,
       "the server's host key differs from the one recorded for it"},
      {{"known_hosts"}, ENOKEY, "the known-hosts file cannot be read"},
      {{"logon", "authentication", "access denied", "permission denied", "unable to authenticate"},
       EACCES,
       "the server refused the user name or password"},
      {{"connection refused"},
       ECONNREFUSED,
       "the server is unreachable: it refused the connection"},
      {{"no such host", "no route to host", "network is unreachable"},
       EHOSTUNREACH,
       "the server is unreachable"},
      {{"timeout", "timed out"}, ETIMEDOUT, "the server did not answer in time"},
      {{"bad network name", "not found", "cannot be found", "no such file", "does not exist"},
       ENOENT,
       "the share does not exist on the server"},
  };
  std::string lower = message;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (const Rule& rule : kRules) {
    for (std::string_view word : rule.words) {
      if (lower.find(word) == std::string::npos) continue;
      *reason = message.empty() ? std::string(rule.meaning)
                                : fmt::format("{} ({})", rule.meaning, message);
      return rule.status;
    }
  }
  *reason = message.empty() ? std::string("the mount helper failed without saying why") : message;
  return EIO;
}

}  // namespace vm
