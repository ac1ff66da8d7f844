#include "tools/vmattach/ShareCommands.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

#include "VMAttachments/schemes/VMAFPAttachment.h"
#include "VMAttachments/schemes/VMArchiverAttachment.h"
#include "VMAttachments/schemes/VMAttachmentConstants.h"
#include "VMAttachments/schemes/VMFileReferenceAttachment.h"
#include "host/HXFileAttachment.h"
#include "host/HXFileAttachmentScheme.h"
#include "host/HostConstants.h"
#include "platform/KeyedArchive.h"
#include "platform/ParsedURL.h"
#include "platform/ShareMounter.h"
#include "platform/Subprocess.h"
#include "tools/vmattach/Host.h"

namespace vm::vmattach {
namespace {

namespace fs = std::filesystem;

struct UnmountOptions {
  std::string name;
  bool all = false;
};

fs::path RuntimeFolder() { return FuseShareMounter::DefaultRuntimeFolder(); }

int RunShares(const GlobalOptions& options) {
  nlohmann::json out = nlohmann::json::array();
  for (const ShareMountInfo& mount : FuseShareMounter::ListMounts(RuntimeFolder())) {
    std::string state = mount.alive ? "alive" : "stale";
    if (options.json) {
      out.push_back({{"name", mount.name},
                     {"server", mount.server},
                     {"user", mount.user},
                     {"mountPoint", mount.mount_point.string()},
                     {"via", mount.via},
                     {"state", state},
                     {"alive", mount.alive}});
    } else {
      fmt::print("{}\t{}\t{}\t{}\n", mount.name, mount.server.empty() ? "-" : mount.server,
                 mount.mount_point.string(), state);
    }
  }
  if (options.json) std::cout << out.dump(2) << "\n";
  return 0;
}

std::optional<std::string> SchemeSetting(const HXFileAttachmentScheme& scheme,
                                         std::string_view key) {
  std::optional<Bytes> data = scheme.infoData();
  std::optional<ArchivedDictionary> settings = data ? UnarchiveDictionary(*data) : std::nullopt;
  return settings ? ArchivedString(*settings, key) : std::nullopt;
}

// The server part of a share URL as the mounter names it: scheme://host[:port]/share.
std::string ShareOfServer(const std::string& server) {
  std::optional<ParsedURL> url = ParseURL(server);
  if (!url || url->pathComponents().empty()) return {};
  return fmt::format("{}://{}{}/{}", url->scheme, url->host,
                     url->port ? ":" + std::to_string(*url->port) : "",
                     PercentEncode(url->pathComponents().front()));
}

// NAME may be a mount's name, its mount point, or the name of a scheme whose share it is.
std::vector<ShareMountInfo> Selected(const GlobalOptions& options, const UnmountOptions& unmount,
                                     const std::vector<ShareMountInfo>& mounts) {
  if (unmount.all) return mounts;
  std::vector<ShareMountInfo> out;
  for (const ShareMountInfo& mount : mounts) {
    if (mount.name == unmount.name || mount.mount_point == fs::path(unmount.name)) {
      out.push_back(mount);
    }
  }
  if (!out.empty()) return out;
  ErrorRef ignored;
  auto context = OpenHost(options, &ignored);
  auto scheme = context ? context->schemeNamed(unmount.name) : nullptr;
  if (!scheme) return out;
  std::optional<std::string> server = SchemeSetting(*scheme, kVMAFPAttachmentServerPath);
  std::string share = server ? ShareOfServer(*server) : std::string();
  for (const ShareMountInfo& mount : mounts) {
    if (!share.empty() && mount.server == share) out.push_back(mount);
  }
  return out;
}

int RunUnmount(const GlobalOptions& options, const UnmountOptions& unmount) {
  if (unmount.all == !unmount.name.empty()) {
    return ReportFailure("name one mount (as `vmattach shares` lists it) or give --all");
  }
  fs::path runtime = RuntimeFolder();
  std::vector<ShareMountInfo> chosen =
      Selected(options, unmount, FuseShareMounter::ListMounts(runtime));
  if (chosen.empty() && !unmount.all) {
    return ReportFailure(*Error::WithDescription(
        NSPOSIXErrorDomain, ENOENT,
        fmt::format("no mount of this user is named \"{}\" (see `vmattach shares`)",
                    unmount.name)));
  }
  nlohmann::json done = nlohmann::json::array();
  int exit_code = 0;
  for (const ShareMountInfo& mount : chosen) {
    ErrorRef error;
    if (!FuseShareMounter::UnmountShare(runtime, mount, &error)) {
      exit_code = ReportFailure(error);
      continue;
    }
    done.push_back(mount.name);
    if (!options.json) fmt::print("unmounted {}\n", mount.mount_point.string());
  }
  if (options.json) std::cout << nlohmann::json{{"unmounted", done}}.dump(2) << "\n";
  return exit_code;
}

std::string Absolute(const std::string& path) {
  if (path.empty()) return path;
  return fs::absolute(ExpandTildeInPath(path)).lexically_normal().string();
}

std::string DefaultKnownHosts() {
  const char* home = std::getenv("HOME");
  return (fs::path(home ? home : "/") / ".ssh" / "known_hosts").string();
}

ProcessOptions Bounded(std::chrono::seconds timeout, std::string input = {}) {
  ProcessOptions options;
  options.timeout = timeout;
  options.input = std::move(input);
  return options;
}

bool IsShareScheme(const HXFileAttachmentSchemeHandler* handler) {
  return handler != nullptr && (handler->className() == VMAFPAttachment::kClassName ||
                                handler->className() == VMArchiverAttachment::kClassName);
}

}  // namespace

void AddShareCommands(CLI::App& app, const GlobalOptions& options, int* exit_code) {
  CLI::App* shares =
      app.add_subcommand("shares", "List the share mounts made by this user (alive or stale)");
  // CLI11 runs this after `unmount`'s callback too; only a bare `shares` lists.
  shares->callback([shares, exit_code, &options] {
    if (shares->get_subcommands().empty()) *exit_code = RunShares(options);
  });

  auto unmount_options = std::make_shared<UnmountOptions>();
  CLI::App* unmount = shares->add_subcommand("unmount", "Release share mounts");
  unmount->add_option("name", unmount_options->name,
                      "A mount's name or mount point, or a scheme's name");
  unmount->add_flag("--all", unmount_options->all, "Every mount this user has made");
  SetCommandBody(unmount, exit_code,
                 [&options, unmount_options] { return RunUnmount(options, *unmount_options); });
}

void AddShareSchemeOptions(CLI::App* add, ShareSchemeOptions* options) {
  add->add_option("--known-hosts", options->known_hosts,
                  "sftp: known-hosts file to check the server's key against "
                  "(default ~/.ssh/known_hosts)");
  add->add_option("--identity", options->identity, "sftp: private key file to log in with");
  add->add_flag("--accept-host-key", options->accept_host_key,
                "sftp: record the server's current host key as trusted");
}

std::map<std::string, std::string> ShareSchemeSettings(const ShareSchemeOptions& options) {
  return {{std::string(kVMAFPAttachmentKnownHostsFile), Absolute(options.known_hosts)},
          {std::string(kVMAFPAttachmentIdentityFile), Absolute(options.identity)}};
}

int AcceptHostKeyIfAsked(const std::string& server, const ShareSchemeOptions& options,
                         const HXFileAttachmentScheme* existing) {
  if (!options.accept_host_key) return 0;
  std::optional<ParsedURL> url = ParseURL(server);
  if (!url || url->scheme != "sftp") {
    return ReportFailure("--accept-host-key is for sftp:// servers");
  }
  int port = url->port.value_or(22);
  // known_hosts names a server on another port than 22 as "[host]:port".
  std::string entry = port == 22 ? url->host : fmt::format("[{}]:{}", url->host, port);
  ProcessResult scan =
      RunProcess({"ssh-keyscan", "-T", "10", "-p", std::to_string(port), url->host},
                 Bounded(std::chrono::seconds(20)));
  if (!scan.succeeded() || scan.out.empty()) {
    std::string why = scan.spawn_error ? scan.spawn_error->localizedDescription() : scan.err;
    while (!why.empty() && std::isspace(static_cast<unsigned char>(why.back()))) why.pop_back();
    return ReportFailure(fmt::format("no host key could be read from {}:{}{}", url->host, port,
                                     why.empty() ? "" : ": " + why));
  }
  std::string named = Absolute(options.known_hosts);
  if (named.empty() && existing != nullptr) {
    named = SchemeSetting(*existing, kVMAFPAttachmentKnownHostsFile).value_or("");
  }
  fs::path file = named.empty() ? DefaultKnownHosts() : named;
  std::error_code ec;
  if (!fs::exists(file.parent_path(), ec)) {
    fs::create_directories(file.parent_path(), ec);
    fs::permissions(file.parent_path(), fs::perms::owner_all, fs::perm_options::replace, ec);
  }
  if (fs::exists(file, ec)) {
    // The user accepts the key on purpose: what was recorded for this server goes.
    RunProcess({"ssh-keygen", "-R", entry, "-f", file.string()}, Bounded(std::chrono::seconds(10)));
    fs::remove(file.string() + ".old", ec);
  }
  std::ofstream out(file, std::ios::app);
  out << scan.out;
  out.close();
  if (!out) return ReportFailure(PosixError(errno, file));
  ProcessResult fingerprints = RunProcess({"ssh-keygen", "-l", "-f", "/dev/stdin"},
                                          Bounded(std::chrono::seconds(10), scan.out));
  fmt::print(stderr, "recorded the host key of {} in {}:\n{}", entry, file.string(),
             fingerprints.out);
  return 0;
}

std::string ExplainTransferError(const Error& error, bool on_share,
                                 const HXFileAttachment& attachment) {
  if (error.userInfo().count(std::string(NSLocalizedDescriptionKey)) != 0) return {};
  std::string where = on_share ? "the share" : "the storage";
  if (error.domain() == kVMFileAttachmentDomain && error.code() == 600) {
    return fmt::format("the file \"{}\" is missing: it was expected at {}", attachment.name(),
                       VMFileReferenceAttachment::resolvedPathForAttachment(attachment).string());
  }
  if (error.domain() != NSOSStatusErrorDomain && error.domain() != NSPOSIXErrorDomain) return {};
  switch (error.code()) {
    case ENOSPC:
      return fmt::format("no space left on {}", where);
    case EDQUOT:
      return fmt::format("the quota on {} is used up", where);
    case ENAMETOOLONG:
      return fmt::format("the name \"{}\" is too long for {}", attachment.name(), where);
    case EROFS:
      return fmt::format("{} is read-only", where);
    case EACCES:
    case EPERM:
      return fmt::format("{} refused access to \"{}\"", where, attachment.name());
    case ENOENT:
      return fmt::format("\"{}\" is not on {}", attachment.name(), where);
    case ENOTCONN:
      return fmt::format("{} no longer answers", where);
    default:
      if (error.code() > 0 && error.code() < 4096) {
        return fmt::format("{} on {}", std::strerror(static_cast<int>(error.code())), where);
      }
      return {};
  }
}

int ReportTransferFailure(const ErrorRef& error, const HXFileAttachmentSchemeHandler* handler,
                          const HXFileAttachment& attachment) {
  bool on_share = IsShareScheme(handler);
  if (!error) {
    std::string reason = on_share ? ShareMounter::shared()->lastFailureReason() : std::string();
    if (reason.empty()) return ReportFailure(std::string("failed with no error"));
    if (reason.find("host key") != std::string::npos) {
      reason +=
          "; if the key is the server's, record it with `vmattach scheme add NAME --type "
          "afp --server URL --accept-host-key`";
    }
    return ReportFailure(reason);
  }
  std::string words = ExplainTransferError(*error, on_share, attachment);
  if (words.empty()) return ReportFailure(error);
  fmt::print(stderr, "{}{} ({} {})\n", FailurePrefix(), words, error->domain(), error->code());
  return 1;
}

}  // namespace vm::vmattach
