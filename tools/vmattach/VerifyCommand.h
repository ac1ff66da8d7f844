#ifndef VM_TOOLS_VMATTACH_VERIFYCOMMAND_H_
#define VM_TOOLS_VMATTACH_VERIFYCOMMAND_H_

#include <CLI/CLI.hpp>

#include "tools/vmattach/Command.h"

namespace vm::vmattach {

// `verify [ID...] [--deep] [--jobs N]`: checks every attachment (or those named) where it
// is stored, writing nothing. Exit 0 when all are ok, 1 when any is not, 2 for a usage
// error (an id that names no attachment included).
void AddVerifyCommand(CLI::App& app, const GlobalOptions& options, int* exit_code);

}  // namespace vm::vmattach

#endif  // VM_TOOLS_VMATTACH_VERIFYCOMMAND_H_
