// kelctl namespace create|show|update|delete: the configuration namespace on the datastore that
// holds kel.conf and the targets' namespaces.
#include <iostream>
#include <memory>

#include "cli/commands.h"
#include "platform/network.h"
#include "records/records_json.h"

namespace kel {
namespace cli {

namespace {

using HostCtl::Orsa::IscsiTarget::DefaultInfo;
using HostCtl::Orsa::IscsiTarget::NamespaceCreateParam;
using HostCtl::Orsa::IscsiTarget::NamespaceInfo;

struct CreateOptions {
  std::string policy;
  std::string interface;
  int port = 3260;
  AuthOptions auth;
};

void Create(CliContext& ctx, CreateOptions& o) {
  o.auth.ResolveSecretFiles();
  ctx.Host();
  NamespaceCreateParam param;
  param.storagePolicy = o.policy;
  DefaultInfo defaults;
  defaults.networkInterface = o.interface;
  if (defaults.networkInterface.empty()) {
    // The cluster default portal needs an interface; the host's first one is the natural choice.
    const auto nics = NukCtl::Network::NukOSNicApi::GetNukOSNicNames();
    if (!nics.empty()) defaults.networkInterface = nics.front();
  }
  defaults.port = o.port;
  defaults.authType = o.auth.authType;
  defaults.chapName = o.auth.chapUser;
  defaults.chapSecret = o.auth.chapSecret;
  defaults.mutualChapName = o.auth.mutualUser;
  defaults.mutualChapSecret = o.auth.mutualSecret;
  ctx.Service().CreateNamespace(param, defaults);
}

void Show(CliContext& ctx) {
  const NamespaceInfo info = ctx.Service().GetNamespaceInfo(true);
  if (ctx.json) {
    PrintJson(std::cout, nlohmann::json(info));
    return;
  }
  PrintTable(std::cout, {"UUID", "POLICY", "COMPLIANT", "PATH"},
             {{info.uuid, OrDash(info.storagePolicy), info.policyCompliant ? "yes" : "no",
               OrDash(info.path)}});
}

}  // namespace

void AddNamespaceCommands(CLI::App& app, CliContext& ctx) {
  CLI::App* noun = AddNoun(app, ctx, "namespace",
                           "The configuration namespace on the datastore (kel.conf and targets)");

  auto create = std::make_shared<CreateOptions>();
  CLI::App* cmd = noun->add_subcommand(
      "create", "Create the namespace, its configuration directories, kel.conf and the defaults");
  cmd->add_option("--policy", create->policy, "Storage policy of the namespace object");
  cmd->add_option("--interface", create->interface,
                  "Default network interface of targets (default: the host's first interface)");
  cmd->add_option("--port", create->port, "Default TCP port of targets (default: 3260)");
  AddAuthOptions(cmd, create->auth);
  cmd->callback([&ctx, create] { ctx.action = [&ctx, create] { Create(ctx, *create); }; });

  CLI::App* show = noun->add_subcommand("show", "Print the namespace's UUID, policy and path");
  show->add_flag("--json", ctx.json, "Print the record as JSON");
  show->callback([&ctx] { ctx.action = [&ctx] { Show(ctx); }; });

  auto policy = std::make_shared<std::string>();
  CLI::App* update = noun->add_subcommand("update", "Apply a storage policy to the namespace");
  update->add_option("--policy", *policy, "Storage policy text")->required();
  update->callback([&ctx, policy] {
    ctx.action = [&ctx, policy] {
      NamespaceCreateParam param;
      param.storagePolicy = *policy;
      ctx.Service().UpdateNamespaceConfig(param);
    };
  });

  noun->add_subcommand("delete", "Delete kel.conf, the configuration directories and the namespace")
      ->callback([&ctx] { ctx.action = [&ctx] { ctx.Service().DeleteNamespace(); }; });
}

}  // namespace cli
}  // namespace kel
