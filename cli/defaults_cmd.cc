// kelctl defaults show | set: the cluster-wide defaults that new targets inherit. Secrets are
// never printed.
#include <iostream>
#include <memory>

#include "cli/commands.h"
#include "records/records_json.h"

namespace kel {
namespace cli {

namespace {

using HostCtl::Orsa::IscsiTarget::DefaultInfo;

struct SetOptions {
  std::string interface;
  int port = 3260;
  CLI::Option* interfaceOption = nullptr;
  CLI::Option* portOption = nullptr;
  AuthOptions auth;
};

void Show(CliContext& ctx) {
  DefaultInfo d = ctx.Service().GetDefaultInfo();
  // The service never returns them; cleared again so that no future change can leak them here.
  d.chapSecret.clear();
  d.mutualChapSecret.clear();
  if (ctx.json) {
    PrintJson(std::cout, nlohmann::json(d));
    return;
  }
  PrintTable(std::cout, {"INTERFACE", "PORT", "AUTH", "USER", "MUTUAL-USER"},
             {{OrDash(d.networkInterface), std::to_string(d.port), OrDash(d.authType),
               OrDash(d.chapName), OrDash(d.mutualChapName)}});
}

// Options not given keep their current values. The interface and port are filled in from the
// current defaults (the host's settings store keeps a copy of what is set here); an empty auth
// type means "keep" to the service, since the current secrets cannot be read back.
void Set(CliContext& ctx, SetOptions& o) {
  o.auth.ResolveSecretFiles();
  const DefaultInfo current = ctx.Service().GetDefaultInfo();
  DefaultInfo info;
  info.networkInterface = o.interfaceOption->count() > 0 ? o.interface : current.networkInterface;
  info.port = o.portOption->count() > 0 ? o.port : current.port;
  info.authType = o.auth.authType;
  info.chapName = o.auth.chapUser;
  info.chapSecret = o.auth.chapSecret;
  info.mutualChapName = o.auth.mutualUser;
  info.mutualChapSecret = o.auth.mutualSecret;
  ctx.Service().UpdateDefaultConfig(info);
}

}  // namespace

void AddDefaultsCommands(CLI::App& app, CliContext& ctx) {
  CLI::App* noun = AddNoun(app, ctx, "defaults", "Cluster-wide defaults of new targets");

  CLI::App* show = noun->add_subcommand("show", "Print the defaults (never their secrets)");
  show->add_flag("--json", ctx.json, "Print the record as JSON (secrets always empty)");
  show->callback([&ctx] { ctx.action = [&ctx] { Show(ctx); }; });

  auto set = std::make_shared<SetOptions>();
  CLI::App* cmd = noun->add_subcommand(
      "set", "Change the defaults; options not given keep their current values");
  set->interfaceOption =
      cmd->add_option("--interface", set->interface, "Default network interface");
  set->portOption = cmd->add_option("--port", set->port, "Default TCP port");
  AddAuthOptions(cmd, set->auth);
  cmd->callback([&ctx, set] { ctx.action = [&ctx, set] { Set(ctx, *set); }; });
}

}  // namespace cli
}  // namespace kel
