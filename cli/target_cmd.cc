// kelctl target add|update|remove|show|list|transfer|transfer-local. Secrets are never printed:
// the service's target records do not carry them.
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "directory/host_queries.h"
#include "records/records_json.h"

namespace kel {
namespace cli {

namespace {

using HostCtl::Orsa::IscsiTarget::LunInfo;
using HostCtl::Orsa::IscsiTarget::TargetCreateParam;
using HostCtl::Orsa::IscsiTarget::TargetInfo;

// A pass takes a second; more than a few minutes of passes means the count was mistyped.
constexpr int kMaxTransferRetries = 300;

struct TargetOptions {
  std::string alias;
  std::string iqn;
  std::string interface;
  int port = 3260;
  std::vector<std::string> initiators;
  bool noInitiators = false;
  std::string policy;
  std::string site;
  std::string status;
  AuthOptions auth;
  CLI::Option* interfaceOption = nullptr;
  CLI::Option* portOption = nullptr;
  CLI::Option* initiatorOption = nullptr;
};

void AddTargetOptions(CLI::App* cmd, TargetOptions& o, bool update) {
  cmd->add_option("--alias", o.alias,
                  update ? "Alias of the target to change" : "Alias of the new target (its key)")
      ->required();
  cmd->add_option("--iqn", o.iqn,
                  update ? "New IQN (default: keep)"
                         : "IQN of the target (default: a generated iqn.YYYY-MM.local.kel:<uuid>)");
  o.interfaceOption = cmd->add_option(
      "--interface", o.interface,
      update ? "Network interface to listen on (default: keep)"
             : "Network interface to listen on (default: the cluster default portal)");
  o.portOption = cmd->add_option("--port", o.port,
                                 update ? "TCP port (default: keep)" : "TCP port (default: 3260)");
  AddAuthOptions(cmd, o.auth);
  o.initiatorOption = cmd->add_option(
      "--initiator", o.initiators,
      update ? "Admitted initiator IQN or initiator group name; repeat it, the list replaces the "
               "current one"
             : "Admitted initiator IQN or initiator group name; repeat it for more");
  if (update) {
    cmd->add_flag("--no-initiators", o.noInitiators, "Admit no initiator names or groups")
        ->excludes(o.initiatorOption);
  }
  cmd->add_option("--policy", o.policy, "Storage policy of the target's namespace object");
  cmd->add_option("--site", o.site,
                  "Site affinity: Preferred, NonPreferred or None (stretched clusters)");
  cmd->add_option("--status", o.status, "online or offline");
}

TargetCreateParam ParamFrom(TargetOptions& o) {
  o.auth.ResolveSecretFiles();
  TargetCreateParam p;
  p.alias = o.alias;
  p.iqn = o.iqn;
  p.networkInterface = o.interface;
  p.port = o.port;
  p.authType = o.auth.authType;
  p.chapName = o.auth.chapUser;
  p.chapSecret = o.auth.chapSecret;
  p.mutualChapName = o.auth.mutualUser;
  p.mutualChapSecret = o.auth.mutualSecret;
  p.initiators = o.initiators;
  p.storagePolicy = o.policy;
  p.affinitySite = o.site;
  p.status = o.status;
  return p;
}

void PrintTarget(const TargetInfo& t) {
  std::vector<std::vector<std::string>> rows = {
      {"alias", t.alias},
      {"iqn", t.iqn},
      {"uuid", OrDash(t.uuid)},
      {"interface", OrDash(t.networkInterface)},
      {"port", std::to_string(t.port)},
      {"auth", OrDash(t.authType)},
      {"user", OrDash(t.chapName)},
      {"mutual-user", OrDash(t.mutualChapName)},
      {"site", OrDash(t.affinitySite)},
      {"owner-id", OrDash(t.ownerId)},
      {"owner-host", OrDash(t.ownerHostUuid)},
      {"owner-name", OrDash(t.ownerHostName)},
      {"policy", OrDash(t.storagePolicy)},
      {"compliant", t.policyCompliant ? "yes" : "no"},
      {"initiators", Join(t.initiators)},
      {"initiator-groups", Join(t.initiatorGroups)},
  };
  PrintTable(std::cout, {"FIELD", "VALUE"}, rows);
  std::cout << "\nLUNs:\n";
  PrintLunTable(std::cout, t.luns, false);
}

void Add(CliContext& ctx, TargetOptions& o) {
  TargetCreateParam p = ParamFrom(o);
  ctx.Service().AddTarget(p);
  if (ctx.json) {
    PrintJson(std::cout, nlohmann::json(ctx.Service().GetTargetInfo(p.alias)));
  } else {
    std::cout << "Added target " << p.alias << " (" << p.iqn << ", uuid " << p.uuid << ")\n";
  }
}

// Update semantics: empty iqn, interface, auth type, status and site keep what the target has;
// the initiator list is always complete, so it is filled from the target unless given.
void Update(CliContext& ctx, TargetOptions& o) {
  TargetCreateParam p = ParamFrom(o);
  const bool interfaceGiven = o.interfaceOption->count() > 0;
  const bool portGiven = o.portOption->count() > 0;
  const bool initiatorsGiven = o.initiatorOption->count() > 0;
  const TargetInfo current = ctx.Service().GetTargetInfo(o.alias);
  if (interfaceGiven && !portGiven) p.port = current.port;
  if (portGiven && !interfaceGiven) p.networkInterface = current.networkInterface;
  if (!interfaceGiven && !portGiven) p.port = 3260;  // with no interface: keep the portal
  if (o.auth.AnyGiven() && p.authType.empty()) p.authType = current.authType;
  if (!initiatorsGiven && !o.noInitiators) {
    p.initiators = current.initiators;
    p.initiators.insert(p.initiators.end(), current.initiatorGroups.begin(),
                        current.initiatorGroups.end());
  }
  ctx.Service().UpdateTargetConfig(p);
  if (ctx.json) PrintJson(std::cout, nlohmann::json(ctx.Service().GetTargetInfo(p.alias)));
}

void Show(CliContext& ctx, const std::string& alias) {
  const TargetInfo t = ctx.Service().GetTargetInfo(alias);
  if (ctx.json) {
    PrintJson(std::cout, nlohmann::json(t));
  } else {
    PrintTarget(t);
  }
}

void List(CliContext& ctx, bool local, bool skipCompliance) {
  const std::vector<TargetInfo> targets = ctx.Service().GetTargets(skipCompliance, local);
  // The owner's site, which the target records do not carry.
  std::map<std::string, std::string> sites;
  for (const auto& m : NukCtl::Orsa::IscsiTarget::Util::GetClusterMembers()) sites[m.uuid] = m.site;
  auto ownerSite = [&sites](const TargetInfo& t) {
    auto it = sites.find(t.ownerHostUuid);
    return it != sites.end() ? it->second : std::string();
  };
  if (ctx.json) {
    nlohmann::json doc = nlohmann::json::array();
    for (const TargetInfo& t : targets) {
      nlohmann::json record(t);
      record["ownerHostSite"] = ownerSite(t);
      doc.push_back(std::move(record));
    }
    PrintJson(std::cout, doc);
    return;
  }
  std::vector<std::vector<std::string>> rows;
  for (const TargetInfo& t : targets) {
    rows.push_back(
        {t.alias, t.iqn, OrDash(t.networkInterface), std::to_string(t.port), OrDash(t.authType),
         OrDash(t.chapName), OrDash(t.mutualChapName), OrDash(t.affinitySite),
         OrDash(t.ownerHostName), OrDash(ownerSite(t)), OrDash(t.storagePolicy),
         skipCompliance ? "-" : (t.policyCompliant ? "yes" : "no"), std::to_string(t.luns.size())});
  }
  PrintTable(std::cout,
             {"ALIAS", "IQN", "INTERFACE", "PORT", "AUTH", "USER", "MUTUAL-USER", "SITE", "OWNER",
              "OWNER-SITE", "POLICY", "COMPLIANT", "LUNS"},
             rows);
}

void Transfer(CliContext& ctx, const std::string& alias, int retries) {
  std::vector<TargetInfo> targets = {ctx.Service().GetTargetInfo(alias)};
  const std::string from = targets.front().ownerHostName;
  ctx.Service().TransferTargetsOwner(targets, retries);
  if (!targets.empty()) {
    throw CommandError("Target " + alias + " stays on host " + OrDash(from) +
                       ": no other host took it over");
  }
  const TargetInfo now = ctx.Service().GetTargetInfo(alias);
  std::cout << "Target " << alias << " moved to host " << OrDash(now.ownerHostName) << " ("
            << OrDash(now.ownerHostUuid) << ")\n";
}

void TransferLocal(CliContext& ctx, int retries) {
  ctx.Service().TransferLocalTargets(retries);
  std::vector<std::string> remaining;
  for (const TargetInfo& t : ctx.Service().GetTargets(true, true)) remaining.push_back(t.alias);
  std::cout << "Targets still on this host: " << Join(remaining) << '\n';
}

}  // namespace

void AddTargetCommands(CLI::App& app, CliContext& ctx) {
  CLI::App* noun = AddNoun(app, ctx, "target", "iSCSI targets of the cluster");

  auto add = std::make_shared<TargetOptions>();
  CLI::App* addCmd = noun->add_subcommand("add", "Create a target with its namespace object");
  AddTargetOptions(addCmd, *add, false);
  addCmd->add_flag("--json", ctx.json, "Print the new target as JSON");
  addCmd->callback([&ctx, add] { ctx.action = [&ctx, add] { Add(ctx, *add); }; });

  auto update = std::make_shared<TargetOptions>();
  CLI::App* updateCmd =
      noun->add_subcommand("update", "Change a target; options not given keep what the target has");
  AddTargetOptions(updateCmd, *update, true);
  updateCmd->add_flag("--json", ctx.json, "Print the changed target as JSON");
  updateCmd->callback([&ctx, update] { ctx.action = [&ctx, update] { Update(ctx, *update); }; });

  auto alias = std::make_shared<std::string>();
  CLI::App* remove = noun->add_subcommand(
      "remove", "Take a target offline, delete its namespace with its LUN disks, remove it");
  remove->add_option("--alias", *alias, "Alias of the target")->required();
  remove->callback(
      [&ctx, alias] { ctx.action = [&ctx, alias] { ctx.Service().RemoveTarget(*alias); }; });

  auto showAlias = std::make_shared<std::string>();
  CLI::App* show = noun->add_subcommand("show", "Print one target with its LUNs");
  show->add_option("--alias", *showAlias, "Alias of the target")->required();
  show->add_flag("--json", ctx.json, "Print the record as JSON");
  show->callback([&ctx, showAlias] { ctx.action = [&ctx, showAlias] { Show(ctx, *showAlias); }; });

  auto local = std::make_shared<bool>(false);
  auto skip = std::make_shared<bool>(false);
  CLI::App* list =
      noun->add_subcommand("list", "Print every target with its owner host and that host's site");
  list->add_flag("--local", *local, "Only the targets this host serves");
  list->add_flag("--skip-compliance", *skip, "Do not query the storage policy compliance");
  list->add_flag("--json", ctx.json, "Print the records as JSON");
  list->callback(
      [&ctx, local, skip] { ctx.action = [&ctx, local, skip] { List(ctx, *local, *skip); }; });

  auto transferAlias = std::make_shared<std::string>();
  auto retries = std::make_shared<int>(2);
  CLI::App* transfer = noun->add_subcommand("transfer", "Move a target to another host");
  transfer->add_option("--alias", *transferAlias, "Alias of the target")->required();
  transfer->add_option("--retries", *retries, "Passes after the first one, 1 s apart (default: 2)")
      ->check(CLI::Range(0, kMaxTransferRetries));
  transfer->callback([&ctx, transferAlias, retries] {
    ctx.action = [&ctx, transferAlias, retries] { Transfer(ctx, *transferAlias, *retries); };
  });

  auto localRetries = std::make_shared<int>(2);
  CLI::App* transferLocal =
      noun->add_subcommand("transfer-local", "Move every target this host serves to other hosts");
  transferLocal
      ->add_option("--retries", *localRetries, "Passes after the first one, 1 s apart (default: 2)")
      ->check(CLI::Range(0, kMaxTransferRetries));
  transferLocal->callback([&ctx, localRetries] {
    ctx.action = [&ctx, localRetries] { TransferLocal(ctx, *localRetries); };
  });
}

}  // namespace cli
}  // namespace kel
