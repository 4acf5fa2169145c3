// kelctl cluster set-preferred-site SITE | cluster placement: the cluster-wide settings of
// placement and the placement of targets over the hosts.
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "directory/host_queries.h"
#include "placement/placement_view.h"

namespace kel {
namespace cli {

namespace {

using HostCtl::Orsa::IscsiTarget::TargetInfo;
namespace Util = NukCtl::Orsa::IscsiTarget::Util;

std::string HostState(const Util::PlacementHost& h) {
  if (!h.live) return "departed";
  return h.eligible ? "serving" : "not-serving";
}

void SetPreferredSite(CliContext& ctx, const std::string& site) {
  ctx.Host();
  Util::SetPreferredSite(site);
  if (!ctx.json) std::cout << "Preferred site: " << site << '\n';
}

void Placement(CliContext& ctx) {
  const std::vector<TargetInfo> targets = ctx.Service().GetTargets(true, false);
  const Util::PlacementView view = Util::GetPlacementView(targets);
  if (ctx.json) {
    nlohmann::json hosts = nlohmann::json::array();
    for (const Util::PlacementHost& h : view.hosts) {
      hosts.push_back({{"uuid", h.uuid},
                       {"name", h.name},
                       {"site", h.site},
                       {"role", h.domain},
                       {"state", HostState(h)},
                       {"count", h.targets.size()},
                       {"targets", h.targets}});
    }
    PrintJson(std::cout, {{"quota", view.quota},
                          {"preferredSite", view.preferredSite},
                          {"nonPreferredSite", view.nonPreferredSite},
                          {"hosts", hosts},
                          {"unassigned", view.unassigned}});
    return;
  }
  std::cout << "Quota: " << view.quota
            << " targets per host; preferred site: " << OrDash(view.preferredSite)
            << "; non-preferred site: " << OrDash(view.nonPreferredSite) << "\n";
  std::vector<std::vector<std::string>> rows;
  for (const Util::PlacementHost& h : view.hosts) {
    const int count = static_cast<int>(h.targets.size());
    const std::string over =
        count > view.quota ? " (+" + std::to_string(count - view.quota) + ")" : std::string();
    rows.push_back({OrDash(h.name), h.uuid, OrDash(h.site), OrDash(h.domain), HostState(h),
                    std::to_string(count) + over, Join(h.targets)});
  }
  if (!view.unassigned.empty()) {
    rows.push_back({"-", "-", "-", "-", "no owner", std::to_string(view.unassigned.size()),
                    Join(view.unassigned)});
  }
  PrintTable(std::cout, {"HOST", "UUID", "SITE", "ROLE", "STATE", "COUNT", "TARGETS"}, rows);
}

}  // namespace

void AddClusterCommands(CLI::App& app, CliContext& ctx) {
  CLI::App* noun = AddNoun(app, ctx, "cluster", "Cluster-wide placement of targets");

  auto site = std::make_shared<std::string>();
  CLI::App* preferred = noun->add_subcommand(
      "set-preferred-site",
      "Make SITE the preferred site of the stretched cluster (targets pinned to Preferred serve "
      "from it)");
  preferred->add_option("SITE", *site, "Site name of the hosts (their host.site)")->required();
  preferred->callback(
      [&ctx, site] { ctx.action = [&ctx, site] { SetPreferredSite(ctx, *site); }; });

  CLI::App* placement = noun->add_subcommand(
      "placement", "Print the targets per host against the load balancer's quota");
  placement->add_flag("--json", ctx.json, "Print the placement as JSON");
  placement->callback([&ctx] { ctx.action = [&ctx] { Placement(ctx); }; });
}

}  // namespace cli
}  // namespace kel
