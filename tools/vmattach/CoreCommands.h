#ifndef VM_TOOLS_VMATTACH_CORECOMMANDS_H_
#define VM_TOOLS_VMATTACH_CORECOMMANDS_H_

#include "tools/vmattach/Command.h"

namespace vm::vmattach {

// init, scheme add/list, store, retrieve, url, list, show.
void AddCoreCommands(CLI::App& app, const GlobalOptions& options, int* exit_code);

}  // namespace vm::vmattach

#endif  // VM_TOOLS_VMATTACH_CORECOMMANDS_H_
