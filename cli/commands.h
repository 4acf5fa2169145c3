// One registration function per kelctl noun. main() calls each of them once, in this order; a
// file that adds a verb to an existing noun (e.g. "conf show") finds the noun with ctx.Noun().
#pragma once

#include <CLI/CLI.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "cli/cli_common.h"
#include "conf/conf_ptr.h"
#include "records/records.h"

namespace kel {
namespace cli {

// "conf check FILE", "conf format FILE": offline tools on a kel.conf file. Returns the "conf"
// noun.
CLI::App* AddConfCommands(CLI::App& app, CliContext& ctx);
// "conf show [FILE] [--json]": the records of a kel.conf file (cli/conf_show_cmd.cc).
void AddConfShowCommand(CLI::App& app, CliContext& ctx);
// Parses and verifies the kel.conf file at `path` offline, without the cluster lock (what the conf
// commands do with an explicit FILE). Throws CommandError when it cannot be opened or does not
// load; the grammar's own exceptions propagate.
ConfPtr LoadConfFile(const std::string& path);

// Nouns on the management service (obtained through the plug-in factory, ctx.Service()).
void AddServiceCommands(CLI::App& app, CliContext& ctx);         // cli/service_cmd.cc
void AddNamespaceCommands(CLI::App& app, CliContext& ctx);       // cli/namespace_cmd.cc
void AddDefaultsCommands(CLI::App& app, CliContext& ctx);        // cli/defaults_cmd.cc
void AddTargetCommands(CLI::App& app, CliContext& ctx);          // cli/target_cmd.cc
void AddLunCommands(CLI::App& app, CliContext& ctx);             // cli/lun_cmd.cc
void AddInitiatorGroupCommands(CLI::App& app, CliContext& ctx);  // cli/initiator_group_cmd.cc
void AddHostCommands(CLI::App& app, CliContext& ctx);            // cli/host_cmd.cc
void AddClusterCommands(CLI::App& app, CliContext& ctx);         // cli/cluster_cmd.cc

// One row per LUN, with its NAA identifier (cli/lun_cmd.cc); the compliance column is "-" unless
// the records were queried for it.
void PrintLunTable(std::ostream& out, const std::vector<HostCtl::Orsa::IscsiTarget::LunInfo>& luns,
                   bool withCompliance);

}  // namespace cli
}  // namespace kel
