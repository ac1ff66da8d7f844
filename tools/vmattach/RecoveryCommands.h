#ifndef VM_TOOLS_VMATTACH_RECOVERYCOMMANDS_H_
#define VM_TOOLS_VMATTACH_RECOVERYCOMMANDS_H_

#include "tools/vmattach/Command.h"

namespace vm::vmattach {

// recover, tasks, defaults get|set|delete.
void AddRecoveryCommands(CLI::App& app, const GlobalOptions& options, int* exit_code);

}  // namespace vm::vmattach

#endif  // VM_TOOLS_VMATTACH_RECOVERYCOMMANDS_H_
