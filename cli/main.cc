// kelctl: the command-line front end of kel.
//   kelctl [--config FILE] [--json] [-v] <noun> <verb> ...
#include <CLI/CLI.hpp>

#include "cli/cli_common.h"
#include "cli/commands.h"

int main(int argc, char** argv) {
  CLI::App app{"kelctl: manage kel's iSCSI targets, LUNs and initiator groups cluster-wide"};
  app.name("kelctl");
  kel::cli::CliContext ctx;
  app.add_option("--config", ctx.configPath,
                 "Host configuration file (default: $KEL_CONFIG, then /etc/kel/host.json)");
  app.add_flag("--json", ctx.json, "Print results as JSON");
  app.add_flag("-v,--verbose", ctx.verbose, "Mirror the service's log lines on stderr");
  app.require_subcommand(1);

  kel::cli::AddConfCommands(app, ctx);
  kel::cli::AddConfShowCommand(app, ctx);
  kel::cli::AddServiceCommands(app, ctx);
  kel::cli::AddNamespaceCommands(app, ctx);
  kel::cli::AddDefaultsCommands(app, ctx);
  kel::cli::AddTargetCommands(app, ctx);
  kel::cli::AddLunCommands(app, ctx);
  kel::cli::AddInitiatorGroupCommands(app, ctx);
  kel::cli::AddHostCommands(app, ctx);
  kel::cli::AddClusterCommands(app, ctx);

  return kel::cli::Main(app, ctx, argc, argv);
}
