// vmattach: stores, retrieves and inspects attachments through the VMAttachments schemes,
// with a SQLite data folder as the host.

#include <CLI/CLI.hpp>

#include "tools/vmattach/ArchiveCommand.h"
#include "tools/vmattach/CloudCommand.h"
#include "tools/vmattach/Command.h"
#include "tools/vmattach/CoreCommands.h"
#include "tools/vmattach/MigrateCommand.h"
#include "tools/vmattach/RecoveryCommands.h"
#include "tools/vmattach/ShareCommands.h"
#include "tools/vmattach/TransferCommands.h"
#include "tools/vmattach/VerifyCommand.h"

int main(int argc, char** argv) {
  using namespace vm::vmattach;
  CLI::App app{"vmattach: store and retrieve attachments", "vmattach"};
  app.require_subcommand(1);
  GlobalOptions options;
  // Every command accepts these, before or after its own arguments.
  app.add_option("--data-dir", options.data_dir, "Data folder")
      ->envname("VMATTACH_DATA_DIR")
      ->check(NonEmptyValidator());
  app.add_flag("--json", options.json, "Machine-readable output");
  app.fallthrough();

  int exit_code = 0;
  AddCoreCommands(app, options, &exit_code);
  AddCloudCommands(app, options, &exit_code);
  AddArchiveCommands(app, options, &exit_code);
  AddShareCommands(app, options, &exit_code);
  AddRecoveryCommands(app, options, &exit_code);
  AddTransferCommands(app, options, &exit_code);
  AddVerifyCommand(app, options, &exit_code);
  AddMigrateCommand(app, options, &exit_code);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    // --help and --version end with 0; every other parse failure is a usage error.
    return app.exit(error) == 0 ? 0 : 2;
  }
  return exit_code;
}
