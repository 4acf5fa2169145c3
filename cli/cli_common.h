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

  // The host configuration, loaded on first use (only commands that need the host call it). With
  // -v it also installs the host log with a stderr mirror.
  const kel::platform::HostConfig& Host();

  // For offline commands: mirror C-side lines ("KELD: ...") on stderr at `level`, and with -v
  // service-side lines as well. Stays in effect until the program ends.
  void MirrorLogsToStderr(int level);

 private:
  std::shared_ptr<const kel::platform::HostConfig> host_;
  std::vector<std::unique_ptr<kel::log::Sink>> sinks_;
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

}  // namespace cli
}  // namespace kel
