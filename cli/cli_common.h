// Pieces shared by every kelctl command: the global options, how a command reports failure, and
// how results are printed (a table of rows or one JSON document).
//
// Conventions: a failing command prints its message alone as the last line of stderr and exits 1;
// usage errors (unknown option, missing argument) exit 2; --help lists every option.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "platform/host_config.h"
#include "platform/log.h"
#include "service/orsa_iscsi_target.h"

namespace kel {
namespace cli {

// Global options and the state that commands share. Owned by main(); single-threaded.
struct CliContext {
  std::string configPath;  // --config FILE
  bool json = false;       // --json
  bool verbose = false;    // -v
  // Noun subcommands by name ("conf", "target", ...), so that a verb can be attached to a noun
  // from another file (e.g. Noun("conf")->add_subcommand("show", ...)).
  std::map<std::string, CLI::App*> nouns;
  // The command chosen on the command line; set by the verb's callback, run by Main().
  std::function<void()> action;

  CLI::App* Noun(const std::string& name) const;

  // The host configuration, loaded on first use (only commands that need the host call it). It
  // also installs the host log (<stateDir>/log/kel.log and syslog), with -v mirrored on stderr,
  // and exports --config as $KEL_CONFIG for the programs the service runs (the daemon control).
  const kel::platform::HostConfig& Host();

  // The management service, obtained through the plug-in factory on first use (after the load
  // hook). Loads the host configuration first. A kelctl process keeps no subscription to the
  // configuration entry: it reads kel.conf itself for the one command it runs.
  HostCtl::Orsa::IscsiTarget::OrsaIscsiTarget& Service();
  // Releases the service and runs the unload hook and the directory's shutdown, if Service() was
  // used. Never throws; Main() calls it after every command.
  void Shutdown();

  // For offline commands: mirror C-side lines ("KELD: ...") on stderr at `level`, and with -v
  // service-side lines as well. Stays in effect until the program ends.
  void MirrorLogsToStderr(int level);

 private:
  std::shared_ptr<const kel::platform::HostConfig> host_;
  std::vector<std::unique_ptr<kel::log::Sink>> sinks_;
  std::shared_ptr<HostCtl::Orsa::IscsiTarget::OrsaIscsiTarget> service_;
};

// A failure of a command whose message is shown as is.
class CommandError : public std::runtime_error {
 public:
  explicit CommandError(const std::string& message) : std::runtime_error(message) {}
};

// Adds a noun subcommand that requires a verb, and records it in ctx.nouns.
CLI::App* AddNoun(CLI::App& app, CliContext& ctx, const std::string& name,
                  const std::string& description);

// Parses the command line and runs the chosen action. Returns the process exit status: 0, 1 on a
// failed command (message as the last stderr line), 2 on a usage error.
int Main(CLI::App& app, CliContext& ctx, int argc, char** argv);

// Prints rows under a header line, columns padded to the widest cell, separated by two blanks.
void PrintTable(std::ostream& out, const std::vector<std::string>& headers,
                const std::vector<std::vector<std::string>>& rows);
// Prints one JSON document, indented, followed by a newline.
void PrintJson(std::ostream& out, const nlohmann::json& doc);

// "-" for an empty cell.
std::string OrDash(const std::string& s);
// Items joined by ","; "-" for none.
std::string Join(const std::vector<std::string>& items);

// The CHAP options shared by namespace create, defaults set, target add and target update:
//   --auth-type T --chap-user U --chap-secret S | --chap-secret-file F
//   --mutual-user U --mutual-secret S | --mutual-secret-file F
// A secret file "-" is stdin; one trailing newline of a file's contents is dropped. Values are
// handed to the service as given.
struct AuthOptions {
  std::string authType;
  std::string chapUser;
  std::string chapSecret;
  std::string chapSecretFile;
  std::string mutualUser;
  std::string mutualSecret;
  std::string mutualSecretFile;

  // Whether any of the options was given on the command line.
  bool AnyGiven() const;
  // Reads the secret files into chapSecret / mutualSecret. Throws CommandError when a file cannot
  // be read or stdin is asked for twice.
  void ResolveSecretFiles();

  std::vector<CLI::Option*> options;  // as added, for AnyGiven()
};
void AddAuthOptions(CLI::App* cmd, AuthOptions& auth);

}  // namespace cli
}  // namespace kel
