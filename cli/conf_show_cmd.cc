// kelctl conf show [FILE] [--json]: the records the service derives from a kel.conf file:
// targets with their LUNs, initiator groups, the cluster defaults (never with secrets) and the
// host interfaces in use. Without FILE, the cluster's kel.conf is read under the shared
// cluster-wide lock, as the service reads it.
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "conf/conf.h"
#include "conf/conf_handle.h"
#include "directory/extraction.h"
#include "records/records_json.h"

namespace kel {
namespace cli {

namespace {

using HostCtl::Orsa::IscsiTarget::DefaultInfo;
using HostCtl::Orsa::IscsiTarget::InitiatorgroupInfo;
using HostCtl::Orsa::IscsiTarget::TargetInfo;
namespace Kel = NukCtl::Orsa::IscsiTarget;

// What conf show prints.
struct Records {
  std::vector<TargetInfo> targets;
  std::vector<InitiatorgroupInfo> groups;
  DefaultInfo defaults;
  std::set<std::string> interfaces;
};

Records Extract(struct conf* conf) {
  Records r;
  Kel::_GetTargetInfos(conf, r.targets);
  Kel::_GetInitiatorGroupInfos(conf, r.groups);
  r.defaults = Kel::GetConfigInfoFromConf(conf, false);
  Kel::GetIscsiNuknicsFromConf(conf, r.interfaces);
  return r;
}

// An explicit file is read offline, without the cluster lock, like conf check.
Records FromFile(const std::string& path) {
  ConfPtr conf = LoadConfFile(path);
  return Extract(conf.get());
}

// The cluster's kel.conf, under the shared lock for as long as it is read.
Records FromCluster() {
  Kel::ConfHandle handle(Kel::ConfHandle::kShared);
  return Extract(handle.GetConf());
}

std::string OrDash(const std::string& s) { return s.empty() ? "-" : s; }

std::string Join(const std::vector<std::string>& items) {
  std::string out;
  for (const auto& item : items) {
    if (!out.empty()) out += ",";
    out += item;
  }
  return OrDash(out);
}

void PrintTables(const Records& r) {
  std::vector<std::vector<std::string>> rows;
  for (const auto& t : r.targets) {
    rows.push_back({t.alias, t.iqn, OrDash(t.uuid), OrDash(t.networkInterface),
                    std::to_string(t.port), t.authType, OrDash(t.chapName),
                    OrDash(t.mutualChapName), OrDash(t.affinitySite), OrDash(t.ownerId),
                    Join(t.initiators), Join(t.initiatorGroups), std::to_string(t.luns.size())});
  }
  std::cout << "Targets:\n";
  PrintTable(std::cout,
             {"ALIAS", "IQN", "UUID", "INTERFACE", "PORT", "AUTH", "USER", "MUTUAL-USER", "SITE",
              "OWNER-ID", "INITIATORS", "GROUPS", "LUNS"},
             rows);

  rows.clear();
  for (const auto& t : r.targets) {
    for (const auto& l : t.luns) {
      rows.push_back({l.targetAlias, std::to_string(l.id), OrDash(l.alias),
                      std::to_string(l.sizeMiB), l.status, OrDash(l.naa), OrDash(l.uuid), l.path});
    }
  }
  std::cout << "\nLUNs:\n";
  PrintTable(std::cout, {"TARGET", "ID", "ALIAS", "SIZE-MIB", "STATUS", "NAA", "UUID", "PATH"},
             rows);

  rows.clear();
  for (const auto& g : r.groups) {
    std::vector<std::string> targets;
    for (const auto& [alias, iqn] : g.targets) targets.push_back(alias + "=" + iqn);
    rows.push_back({g.name, Join(g.initiators), Join(targets)});
  }
  std::cout << "\nInitiator groups:\n";
  PrintTable(std::cout, {"NAME", "INITIATORS", "TARGETS"}, rows);

  const DefaultInfo& d = r.defaults;
  std::cout << "\nDefaults:\n";
  PrintTable(std::cout, {"INTERFACE", "PORT", "AUTH", "USER", "MUTUAL-USER"},
             {{OrDash(d.networkInterface), std::to_string(d.port), d.authType, OrDash(d.chapName),
               OrDash(d.mutualChapName)}});

  std::cout << "\nInterfaces:\n";
  for (const auto& nic : r.interfaces) std::cout << nic << '\n';
}

void PrintJsonDocument(const Records& r) {
  nlohmann::json doc;
  doc["targets"] = r.targets;
  doc["initiatorGroups"] = r.groups;
  // Defaults are read without secrets: both secret fields are always empty here.
  doc["defaults"] = r.defaults;
  doc["interfaces"] = r.interfaces;
  PrintJson(std::cout, doc);
}

void Show(CliContext& ctx, const std::string& path) {
  ctx.MirrorLogsToStderr(ctx.verbose ? 4 : 2);
  // LUN paths are absolute on this host's datastore, so even a plain file needs the host
  // configuration (--config).
  ctx.Host();
  const Records records = path.empty() ? FromCluster() : FromFile(path);
  if (ctx.json) {
    PrintJsonDocument(records);
  } else {
    PrintTables(records);
  }
}

}  // namespace

void AddConfShowCommand(CLI::App& app, CliContext& ctx) {
  CLI::App* conf = ctx.Noun("conf");
  if (conf == nullptr) conf = AddNoun(app, ctx, "conf", "Offline tools for kel.conf files");
  auto path = std::make_shared<std::string>();
  CLI::App* show = conf->add_subcommand(
      "show",
      "Print the targets, LUNs, initiator groups, defaults (without secrets) and interfaces of a "
      "kel.conf file; without FILE, the cluster's kel.conf read under its shared lock");
  show->add_option("FILE", *path, "kel.conf file to show (default: the cluster's kel.conf)");
  show->add_flag("--json", ctx.json,
                 "One JSON object {targets, initiatorGroups, defaults, interfaces}");
  show->callback([&ctx, path] { ctx.action = [&ctx, path] { Show(ctx, *path); }; });
}

}  // namespace cli
}  // namespace kel
