// kelctl host maintenance enter | host leave: this host's membership in the cluster. The
// directory records the change, and the service then does what it does on the matching host
// event: on maintenance, an enabled service moves every target this host serves to other hosts
// (none in a one-node cluster); on leaving, the service is disabled on this host.
#include <cstdint>
#include <iostream>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "directory/host_queries.h"
#include "service/orsa_iscsi_target_impl.h"

namespace kel {
namespace cli {

namespace {

using HostCtl::Orsa::IscsiTarget::TargetInfo;
namespace Util = NukCtl::Orsa::IscsiTarget::Util;

void EnterMaintenance(CliContext& ctx) {
  HostCtl::Orsa::IscsiTarget::OrsaIscsiTarget& service = ctx.Service();
  Util::EnterMaintenanceMode();
  if (!service.GetIscsiTargetStatus(true)) return;
  uint32_t nodes = static_cast<uint32_t>(Util::GetClusterMembers().size());
  NukCtl::Orsa::IscsiTarget::TransferAllLocalTargets(&nodes, &service);
  // The move never fails the command (targets that found no other host stay); say what stayed.
  std::vector<std::string> remaining;
  for (const TargetInfo& t : service.GetTargets(true, true)) remaining.push_back(t.alias);
  if (ctx.json) {
    PrintJson(std::cout, nlohmann::json{{"targetsOnThisHost", remaining}});
  } else {
    std::cout << "Targets still on this host: " << Join(remaining) << '\n';
  }
}

void LeaveCluster(CliContext& ctx) {
  HostCtl::Orsa::IscsiTarget::OrsaIscsiTarget& service = ctx.Service();
  Util::LeaveCluster();
  service.SetIscsiTargetStatus(false, false);
}

}  // namespace

void AddHostCommands(CLI::App& app, CliContext& ctx) {
  CLI::App* noun = AddNoun(app, ctx, "host", "This host's membership in the cluster");

  CLI::App* maintenance = noun->add_subcommand("maintenance", "Maintenance mode of this host");
  maintenance->require_subcommand(1);
  CLI::App* enter = maintenance->add_subcommand(
      "enter", "Enter maintenance mode; an enabled service moves this host's targets away");
  enter->add_flag("--json", ctx.json, "Print the targets still on this host as JSON");
  enter->callback([&ctx] { ctx.action = [&ctx] { EnterMaintenance(ctx); }; });

  noun->add_subcommand("leave", "Leave the cluster and disable the service on this host")
      ->callback([&ctx] { ctx.action = [&ctx] { LeaveCluster(ctx); }; });
}

}  // namespace cli
}  // namespace kel
