// kelctl conf check|format: parse a kel.conf file offline, without the cluster lock, exactly as
// the service would, and report or print it the way the writer writes it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <string>

#include "cli/commands.h"
#include "conf/conf.h"
#include "conf/conf_handle.h"
#include "conf/writer.h"
#include "platform/clog.h"
#include "platform/log.h"
#include "platform/unique_fd.h"

namespace kel {
namespace cli {

ConfPtr LoadConfFile(const std::string& path) {
  platform::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) {
    throw CommandError("unable to open configuration file " + path + ": " + strerror(errno));
  }
  ConfPtr conf;
  try {
    conf.reset(conf_new_from_file(fd.get(), path.c_str(), nullptr));
  } catch (...) {
    KeldCleanConf();
    throw;
  }
  if (!conf) {
    const std::string message = "Failed to read conf file: " + path;
    kel::log::NoteFailureReason("Parser", message,
                                NukCtl::Orsa::IscsiTarget::LoadFailureText(path));
    throw CommandError(message);
  }
  return conf;
}

namespace {

size_t CountLuns(const struct conf* conf) {
  size_t n = 0;
  const struct lun* lun;
  TAILQ_FOREACH(lun, &conf->conf_luns, l_next) n++;
  return n;
}

size_t CountTargets(const struct conf* conf) {
  size_t n = 0;
  const struct target* t;
  TAILQ_FOREACH(t, &conf->conf_targets, t_next) n++;
  return n;
}

size_t CountInitiatorGroups(const struct conf* conf) {
  size_t n = 0;
  const struct initiator_group* ig;
  TAILQ_FOREACH(ig, &conf->conf_initiator_groups, ig_next) n++;
  return n;
}

void Check(CliContext& ctx, const std::string& path) {
  ctx.MirrorLogsToStderr(4);
  ConfPtr conf = LoadConfFile(path);
  struct stat st;
  if (stat(path.c_str(), &st) == 0 && st.st_size == 0) {
    // Valid, but an emptied kel.conf loses every target: worth a word.
    log_warnx("%s is empty: it reads as a configuration without targets at generation %llu",
              path.c_str(), static_cast<unsigned long long>(conf->conf_generation));
  }
  if (ctx.json) {
    PrintJson(std::cout, {{"path", path},
                          {"valid", true},
                          {"generation", conf->conf_generation},
                          {"targets", CountTargets(conf.get())},
                          {"luns", CountLuns(conf.get())},
                          {"initiatorGroups", CountInitiatorGroups(conf.get())}});
  } else {
    std::cout << path << ": valid, generation " << conf->conf_generation << ", "
              << CountTargets(conf.get()) << " targets, " << CountLuns(conf.get()) << " LUNs, "
              << CountInitiatorGroups(conf.get()) << " initiator groups\n";
  }
}

void Format(CliContext& ctx, const std::string& path) {
  ctx.MirrorLogsToStderr(ctx.verbose ? 4 : 2);
  ConfPtr conf = LoadConfFile(path);
  std::cout << NukCtl::Orsa::IscsiTarget::Parser::WriteConfToString(conf.get());
}

}  // namespace

CLI::App* AddConfCommands(CLI::App& app, CliContext& ctx) {
  CLI::App* conf = AddNoun(app, ctx, "conf", "Offline tools for kel.conf files");

  auto check_path = std::make_shared<std::string>();
  CLI::App* check = conf->add_subcommand(
      "check", "Parse and verify a kel.conf file; exit 0 when it is usable, 1 when not");
  check->add_option("FILE", *check_path, "kel.conf file to check")->required();
  check->callback(
      [&ctx, check_path] { ctx.action = [&ctx, check_path] { Check(ctx, *check_path); }; });

  auto format_path = std::make_shared<std::string>();
  CLI::App* format = conf->add_subcommand(
      "format", "Print a kel.conf file the way the service writes it (generation unchanged)");
  format->add_option("FILE", *format_path, "kel.conf file to print")->required();
  format->callback(
      [&ctx, format_path] { ctx.action = [&ctx, format_path] { Format(ctx, *format_path); }; });
  return conf;
}

}  // namespace cli
}  // namespace kel
