// One registration function per kelctl noun. main() calls each of them once, in this order; a
// file that adds a verb to an existing noun (e.g. "conf show") finds the noun with ctx.Noun().
#pragma once

#include <CLI/CLI.hpp>

#include "cli/cli_common.h"

namespace kel {
namespace cli {

// "conf check FILE", "conf format FILE": offline tools on a kel.conf file. Returns the "conf"
// noun.
CLI::App* AddConfCommands(CLI::App& app, CliContext& ctx);
// "conf show [FILE] [--json]": the records of a kel.conf file (cli/conf_show_cmd.cc).
void AddConfShowCommand(CLI::App& app, CliContext& ctx);

}  // namespace cli
}  // namespace kel
