#ifndef VM_TOOLS_VMATTACH_ARCHIVECOMMAND_H_
#define VM_TOOLS_VMATTACH_ARCHIVECOMMAND_H_

#include <CLI/CLI.hpp>

#include "tools/vmattach/Command.h"

namespace vm::vmattach {

// Adds "archive pack SOURCE ARCHIVE", "archive unpack ARCHIVE DEST" and
// "archive list [--json] ARCHIVE" to `app`. `options` and `exit_code` must outlive the
// parse; the running subcommand stores its exit code in `*exit_code`.
void AddArchiveCommands(CLI::App& app, const GlobalOptions& options, int* exit_code);

}  // namespace vm::vmattach

#endif  // VM_TOOLS_VMATTACH_ARCHIVECOMMAND_H_
