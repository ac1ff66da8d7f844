#ifndef VM_TOOLS_VMATTACH_SHARECOMMANDS_H_
#define VM_TOOLS_VMATTACH_SHARECOMMANDS_H_

#include <CLI/CLI.hpp>
#include <map>
#include <string>

#include "platform/Error.h"
#include "tools/vmattach/Command.h"

namespace vm {
class HXFileAttachment;
class HXFileAttachmentScheme;
class HXFileAttachmentSchemeHandler;
}  // namespace vm

namespace vm::vmattach {

// Registers `shares [--json]` (the mounts this user has made) and `shares unmount
// [NAME|--all]`.
void AddShareCommands(CLI::App& app, const GlobalOptions& options, int* exit_code);

// The share-scheme options of `scheme add`: --known-hosts, --identity, --accept-host-key.
struct ShareSchemeOptions {
  std::string known_hosts;
  std::string identity;
  bool accept_host_key = false;
};
void AddShareSchemeOptions(CLI::App* add, ShareSchemeOptions* options);
// The settings these options add to the scheme's dictionary, paths made absolute.
std::map<std::string, std::string> ShareSchemeSettings(const ShareSchemeOptions& options);
// With --accept-host-key, asks the sftp server `server` for its host key and records it
// in the known-hosts file, replacing what was recorded for that server before; without
// --known-hosts, the file named by `existing` (the scheme being added again, may be null)
// or ~/.ssh/known_hosts. Returns 0, or 1 after reporting why not.
int AcceptHostKeyIfAsked(const std::string& server, const ShareSchemeOptions& options,
                         const HXFileAttachmentScheme* existing);

// Reports a failed store or retrieval in words a person can act on, then exits 1: the
// mounter's own reason when a mount failed without an error, and for errors that carry no
// description (the file reference's 600, a copy's bare errno status) what happened,
// followed as always by the error's domain and code.
int ReportTransferFailure(const ErrorRef& error, const HXFileAttachmentSchemeHandler* handler,
                          const HXFileAttachment& attachment);
// The words for an error without a description, or empty when there are none to add.
std::string ExplainTransferError(const Error& error, bool on_share,
                                 const HXFileAttachment& attachment);

}  // namespace vm::vmattach

#endif  // VM_TOOLS_VMATTACH_SHARECOMMANDS_H_
