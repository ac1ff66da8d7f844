#ifndef VM_TOOLS_VMATTACH_CLOUDCOMMAND_H_
#define VM_TOOLS_VMATTACH_CLOUDCOMMAND_H_

#include "tools/vmattach/Command.h"

namespace vm::vmattach {

// "cloud upload FILE", "cloud download UUID DEST", "cloud delete UUID": one cloud
// operation straight against the attachment service, for diagnosis. Each takes --api URL
// (else $VELMORA_API, else "velmoraAPI" in the data folder's settings.json) and
// --token TEXT (else $VELMORA_TOKEN).
void AddCloudCommands(CLI::App& app, const GlobalOptions& options, int* exit_code);

}  // namespace vm::vmattach

#endif  // VM_TOOLS_VMATTACH_CLOUDCOMMAND_H_
