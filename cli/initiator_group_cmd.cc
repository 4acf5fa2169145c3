// kelctl initiator-group add|remove|list|show|add-initiators|remove-initiators: named lists of
// initiator IQNs that targets can admit.
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "records/records_json.h"

namespace kel {
namespace cli {

namespace {

using HostCtl::Orsa::IscsiTarget::InitiatorgroupInfo;

std::vector<std::string> TargetsOf(const InitiatorgroupInfo& g) {
  std::vector<std::string> targets;
  for (const auto& [alias, iqn] : g.targets) targets.push_back(alias + "=" + iqn);
  return targets;
}

void List(CliContext& ctx) {
  const std::vector<InitiatorgroupInfo> groups = ctx.Service().GetInitiatorgroups();
  if (ctx.json) {
    PrintJson(std::cout, nlohmann::json(groups));
    return;
  }
  std::vector<std::vector<std::string>> rows;
  for (const auto& g : groups) rows.push_back({g.name, Join(g.initiators), Join(TargetsOf(g))});
  PrintTable(std::cout, {"NAME", "INITIATORS", "TARGETS"}, rows);
}

void Show(CliContext& ctx, const std::string& name) {
  const InitiatorgroupInfo g = ctx.Service().GetInitiatorgroupInfo(name);
  if (ctx.json) {
    PrintJson(std::cout, nlohmann::json(g));
    return;
  }
  PrintTable(
      std::cout, {"FIELD", "VALUE"},
      {{"name", g.name}, {"initiators", Join(g.initiators)}, {"targets", Join(TargetsOf(g))}});
}

}  // namespace

void AddInitiatorGroupCommands(CLI::App& app, CliContext& ctx) {
  CLI::App* noun = AddNoun(app, ctx, "initiator-group", "Named lists of initiator IQNs");

  auto addName = std::make_shared<std::string>();
  CLI::App* add = noun->add_subcommand("add", "Create an empty initiator group");
  add->add_option("NAME", *addName, "Name of the group")->required();
  add->callback([&ctx, addName] {
    ctx.action = [&ctx, addName] { ctx.Service().AddInitiatorgroup(*addName); };
  });

  auto removeName = std::make_shared<std::string>();
  auto force = std::make_shared<bool>(false);
  CLI::App* remove = noun->add_subcommand("remove", "Remove an initiator group");
  remove->add_option("NAME", *removeName, "Name of the group")->required();
  remove->add_flag("--force", *force, "Also detach the group from the targets that admit it");
  remove->callback([&ctx, removeName, force] {
    ctx.action = [&ctx, removeName, force] {
      ctx.Service().RemoveInitiatorgroup(*removeName, *force);
    };
  });

  CLI::App* list = noun->add_subcommand("list", "Print every initiator group");
  list->add_flag("--json", ctx.json, "Print the records as JSON");
  list->callback([&ctx] { ctx.action = [&ctx] { List(ctx); }; });

  auto showName = std::make_shared<std::string>();
  CLI::App* show = noun->add_subcommand("show", "Print one initiator group");
  show->add_option("NAME", *showName, "Name of the group")->required();
  show->add_flag("--json", ctx.json, "Print the record as JSON");
  show->callback([&ctx, showName] { ctx.action = [&ctx, showName] { Show(ctx, *showName); }; });

  for (const bool adding : {true, false}) {
    auto name = std::make_shared<std::string>();
    auto initiators = std::make_shared<std::vector<std::string>>();
    CLI::App* cmd = noun->add_subcommand(
        adding ? "add-initiators" : "remove-initiators",
        adding ? "Add initiator IQNs to a group" : "Remove initiator IQNs from a group");
    cmd->add_option("NAME", *name, "Name of the group")->required();
    cmd->add_option("IQN", *initiators, "Initiator IQNs")->required();
    cmd->callback([&ctx, adding, name, initiators] {
      ctx.action = [&ctx, adding, name, initiators] {
        if (adding) {
          ctx.Service().AddInitiatorsToInitiatorgroup(*name, *initiators);
        } else {
          ctx.Service().RemoveInitiatorsFromInitiatorgroup(*name, *initiators);
        }
      };
    });
  }
}

}  // namespace cli
}  // namespace kel
