// kelctl lun add|update|remove|list|show: the LUNs of a target. LUN rows show the NAA identifier.
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "records/records_json.h"

namespace kel {
namespace cli {

namespace {

using HostCtl::Orsa::IscsiTarget::LunInfo;

struct LunOptions {
  std::string target;
  int id = -1;
  std::string size;
  std::string alias;
  std::string policy;
  std::string status;
  int newId = -1;
  std::string newTarget;
};

void PrintLun(std::ostream& out, const LunInfo& l) {
  PrintTable(out, {"FIELD", "VALUE"},
             {{"target", l.targetAlias},
              {"id", std::to_string(l.id)},
              {"alias", OrDash(l.alias)},
              {"size-mib", std::to_string(l.sizeMiB)},
              {"status", OrDash(l.status)},
              {"naa", OrDash(l.naa)},
              {"policy", OrDash(l.storagePolicy)},
              {"compliant", l.policyCompliant ? "yes" : "no"},
              {"uuid", OrDash(l.uuid)},
              {"path", OrDash(l.path)}});
}

// The LUN that AddLun created, found by its disk (the record's id may have been -1).
LunInfo FindAdded(CliContext& ctx, const LunInfo& added) {
  std::vector<LunInfo> luns;
  ctx.Service().GetLuns(added.targetAlias, luns, false);
  for (const LunInfo& l : luns) {
    if (l.uuid == added.uuid) return l;
  }
  return added;
}

// The LUN record that the options describe; the status only matters to an update.
LunInfo ToLunInfo(const LunOptions& o) {
  LunInfo lun;
  lun.id = o.id;
  lun.targetAlias = o.target;
  lun.sizeText = o.size;
  lun.alias = o.alias;
  lun.storagePolicy = o.policy;
  lun.status = o.status;
  return lun;
}

void Add(CliContext& ctx, const LunOptions& o) {
  LunInfo lun = ToLunInfo(o);
  ctx.Service().AddLun(lun);
  const LunInfo added = FindAdded(ctx, lun);
  if (ctx.json) {
    PrintJson(std::cout, nlohmann::json(added));
  } else {
    PrintLunTable(std::cout, {added}, false);
  }
}

// Options not given are empty (or -1), which the service reads as "keep".
void Update(CliContext& ctx, const LunOptions& o) {
  LunInfo lun = ToLunInfo(o);
  ctx.Service().UpdateLun(lun, o.newId, o.newTarget, true);
  if (ctx.json) PrintJson(std::cout, nlohmann::json(ctx.Service().GetLunInfo(o.target, o.id)));
}

void List(CliContext& ctx, const std::string& target, bool compliance) {
  std::vector<LunInfo> luns;
  ctx.Service().GetLuns(target, luns, compliance);
  if (ctx.json) {
    PrintJson(std::cout, nlohmann::json(luns));
  } else {
    PrintLunTable(std::cout, luns, compliance);
  }
}

void Show(CliContext& ctx, const std::string& target, int id) {
  const LunInfo lun = ctx.Service().GetLunInfo(target, id);
  if (ctx.json) {
    PrintJson(std::cout, nlohmann::json(lun));
  } else {
    PrintLun(std::cout, lun);
  }
}

}  // namespace

void PrintLunTable(std::ostream& out, const std::vector<LunInfo>& luns, bool withCompliance) {
  std::vector<std::vector<std::string>> rows;
  for (const LunInfo& l : luns) {
    rows.push_back({l.targetAlias, std::to_string(l.id), OrDash(l.alias), std::to_string(l.sizeMiB),
                    OrDash(l.status), OrDash(l.naa), OrDash(l.storagePolicy),
                    withCompliance ? (l.policyCompliant ? "yes" : "no") : "-", OrDash(l.uuid),
                    OrDash(l.path)});
  }
  PrintTable(
      out,
      {"TARGET", "ID", "ALIAS", "SIZE-MIB", "STATUS", "NAA", "POLICY", "COMPLIANT", "UUID", "PATH"},
      rows);
}

void AddLunCommands(CLI::App& app, CliContext& ctx) {
  CLI::App* noun = AddNoun(app, ctx, "lun", "LUNs of the targets");
  const std::string sizeHelp =
      "Size: a whole number with a unit, MB, GB, TB (powers of 1000) or MiB, GiB, TiB (powers of "
      "1024)";

  auto add = std::make_shared<LunOptions>();
  CLI::App* addCmd = noun->add_subcommand("add", "Create a LUN with its disk");
  addCmd->add_option("--target", add->target, "Alias of the target")->required();
  addCmd->add_option("--size", add->size, sizeHelp)->required();
  addCmd->add_option("--id", add->id, "LUN number, 0-255 (default: the lowest free one)");
  addCmd->add_option("--alias", add->alias, "Alias of the LUN");
  addCmd->add_option("--policy", add->policy,
                     "Storage policy of the disk (default: the datastore's default policy)");
  addCmd->add_flag("--json", ctx.json, "Print the new LUN as JSON");
  addCmd->callback([&ctx, add] { ctx.action = [&ctx, add] { Add(ctx, *add); }; });

  auto update = std::make_shared<LunOptions>();
  CLI::App* updateCmd =
      noun->add_subcommand("update", "Change a LUN; options not given keep what the LUN has");
  updateCmd->add_option("--target", update->target, "Alias of the target")->required();
  updateCmd->add_option("--id", update->id, "LUN number")->required();
  updateCmd->add_option("--size", update->size, sizeHelp + " (grow only)");
  updateCmd->add_option("--alias", update->alias, "New alias");
  updateCmd->add_option("--status", update->status, "online or offline");
  updateCmd->add_option("--new-id", update->newId, "New LUN number (the LUN must be offline)");
  updateCmd->add_option("--new-target", update->newTarget,
                        "Move the LUN to this target (the LUN must be offline)");
  updateCmd->add_option("--policy", update->policy, "New storage policy of the disk");
  updateCmd->add_flag("--json", ctx.json, "Print the changed LUN as JSON");
  updateCmd->callback([&ctx, update] { ctx.action = [&ctx, update] { Update(ctx, *update); }; });

  auto remove = std::make_shared<LunOptions>();
  auto force = std::make_shared<bool>(false);
  CLI::App* removeCmd =
      noun->add_subcommand("remove", "Take a LUN offline, remove its disk and entry");
  removeCmd->add_option("--target", remove->target, "Alias of the target")->required();
  removeCmd->add_option("--id", remove->id, "LUN number")->required();
  removeCmd->add_flag("--force", *force,
                      "Remove the entry even when the disk cannot be removed (the disk stays)");
  removeCmd->callback([&ctx, remove, force] {
    ctx.action = [&ctx, remove, force] {
      ctx.Service().RemoveLun(static_cast<unsigned int>(remove->id), remove->target, *force);
    };
  });

  auto listTarget = std::make_shared<std::string>();
  auto compliance = std::make_shared<bool>(false);
  CLI::App* list = noun->add_subcommand("list", "Print the LUNs of a target");
  list->add_option("--target", *listTarget, "Alias of the target")->required();
  list->add_flag("--compliance", *compliance, "Also query each disk's policy compliance");
  list->add_flag("--json", ctx.json, "Print the records as JSON");
  list->callback([&ctx, listTarget, compliance] {
    ctx.action = [&ctx, listTarget, compliance] { List(ctx, *listTarget, *compliance); };
  });

  auto show = std::make_shared<LunOptions>();
  CLI::App* showCmd = noun->add_subcommand("show", "Print one LUN");
  showCmd->add_option("--target", show->target, "Alias of the target")->required();
  showCmd->add_option("--id", show->id, "LUN number")->required();
  showCmd->add_flag("--json", ctx.json, "Print the record as JSON");
  showCmd->callback(
      [&ctx, show] { ctx.action = [&ctx, show] { Show(ctx, show->target, show->id); }; });
}

}  // namespace cli
}  // namespace kel
