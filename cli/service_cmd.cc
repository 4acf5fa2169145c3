// kelctl service enable|disable [--fail-if-unchanged] | status | restore | refresh: the iSCSI
// target service on this host.
#include <iostream>
#include <memory>

#include "cli/commands.h"

namespace kel {
namespace cli {

namespace {

void Status(CliContext& ctx) {
  const bool enabled = ctx.Service().GetIscsiTargetStatus(true);
  if (ctx.json) {
    PrintJson(std::cout, nlohmann::json{{"enabled", enabled}});
  } else {
    std::cout << (enabled ? "enabled" : "disabled") << '\n';
  }
}

}  // namespace

void AddServiceCommands(CLI::App& app, CliContext& ctx) {
  CLI::App* noun = AddNoun(app, ctx, "service", "The iSCSI target service on this host");

  for (const bool enable : {true, false}) {
    auto failIfUnchanged = std::make_shared<bool>(false);
    CLI::App* cmd = noun->add_subcommand(
        enable ? "enable" : "disable",
        enable ? "Enable the service on this host (firewall, interfaces, daemon, subscription)"
               : "Disable the service on this host");
    cmd->add_flag("--fail-if-unchanged", *failIfUnchanged,
                  "Fail when the service is already in the requested state");
    cmd->callback([&ctx, enable, failIfUnchanged] {
      ctx.action = [&ctx, enable, failIfUnchanged] {
        ctx.Service().SetIscsiTargetStatus(enable, *failIfUnchanged);
      };
    });
  }

  CLI::App* status = noun->add_subcommand("status", "Print whether the service is enabled");
  status->add_flag("--json", ctx.json, "Print {\"enabled\": true|false}");
  status->callback([&ctx] { ctx.action = [&ctx] { Status(ctx); }; });

  noun->add_subcommand("restore", "Re-apply the enabled state after a restart")->callback([&ctx] {
    ctx.action = [&ctx] { ctx.Service().Restore(); };
  });
  noun->add_subcommand("refresh", "Reload the stored state and drop the cached configuration")
      ->callback([&ctx] { ctx.action = [&ctx] { ctx.Service().Refresh(); }; });
}

}  // namespace cli
}  // namespace kel
