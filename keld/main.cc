// keld: serves kel's targets through tgtd. The service drives it as
// "keld ++group=serad-tmp restart|reload|io_stop"; the work is in keld/control.h.
#include <CLI/CLI.hpp>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "keld/control.h"

int main(int argc, char** argv) {
  // "++group=<name>" names the resource group the init script ran in; it means nothing here.
  std::vector<char*> args;
  for (int i = 0; i < argc; ++i) {
    if (i > 0 && strncmp(argv[i], "++", 2) == 0) continue;
    args.push_back(argv[i]);
  }

  kel::keld::ControlOptions options;
  CLI::App app{"keld: serves kel's iSCSI targets through tgtd"};
  app.require_subcommand(1);
  app.fallthrough();  // global options may also follow the command
  app.add_option("--config", options.configPath, "host configuration file");
  app.add_option("--desired-state", options.desiredStatePath,
                 "JSON file with the state to serve (default: $KELD_DESIRED_STATE, else kel.conf)");

  CLI::App* run = app.add_subcommand("run", "run the daemon in the foreground");
  run->alias("daemon");
  run->add_option("--ready-fd", options.readyFd, "report start-up on this descriptor");
  run->add_option("--interval", options.reconcileIntervalSeconds,
                  "seconds between periodic reconciles")
      ->check(CLI::PositiveNumber);
  run->add_option("--check-interval", options.checkIntervalSeconds,
                  "seconds between checks of kel.conf, ownership and interfaces")
      ->check(CLI::PositiveNumber);
  CLI::App* restart = app.add_subcommand("restart", "(re)start the daemon in the background");
  restart
      ->add_option("--interval", options.reconcileIntervalSeconds,
                   "seconds between periodic reconciles")
      ->check(CLI::PositiveNumber);
  restart
      ->add_option("--check-interval", options.checkIntervalSeconds,
                   "seconds between checks of kel.conf, ownership and interfaces")
      ->check(CLI::PositiveNumber);
  app.add_subcommand("reload", "reconcile now; returns once the change is served");
  app.add_subcommand("io_stop", "withdraw everything and stop tgtd and the daemon");
  CLI::App* status = app.add_subcommand("status", "show what is served");
  bool as_json = false;
  status->add_flag("--json", as_json, "print JSON");

  try {
    app.parse(static_cast<int>(args.size()), args.data());
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return 2;
  }

  using namespace kel::keld;
  if (run->parsed()) return KeldRun(options, std::cerr);
  if (restart->parsed()) return KeldRestart(options, std::cerr);
  if (app.got_subcommand("reload")) return KeldReload(options, std::cerr);
  if (app.got_subcommand("io_stop")) return KeldIoStop(options, std::cerr);
  return KeldStatus(options, as_json, std::cout, std::cerr);
}
