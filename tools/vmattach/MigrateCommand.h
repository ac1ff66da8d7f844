#ifndef VM_TOOLS_VMATTACH_MIGRATECOMMAND_H_
#define VM_TOOLS_VMATTACH_MIGRATECOMMAND_H_

#include "tools/vmattach/Command.h"

namespace vm::vmattach {

// `migrate ID... --to SCHEME` and `migrate --from SCHEME --to SCHEME`: moves attachments'
// bytes to another scheme, keeping their ids. Each move is staged as a row of its own on
// the target, verified, switched into the attachment's row in one transaction, and only
// then are the old bytes deleted; a journal in the database lets a later run finish a
// move a killed one left, reusing what it had stored.
void AddMigrateCommand(CLI::App& app, const GlobalOptions& options, int* exit_code);

}  // namespace vm::vmattach

#endif  // VM_TOOLS_VMATTACH_MIGRATECOMMAND_H_
