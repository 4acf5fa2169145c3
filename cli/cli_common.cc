#include "cli/cli_common.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "directory/config_cache.h"
#include "platform/clog.h"
#include "platform/directory.h"
#include "platform/exception.h"
#include "platform/fs.h"
#include "service/orsa_async_plugin.h"
#include "service/orsa_iscsi_target_impl.h"

namespace kel {
namespace cli {

namespace {

// Service-side lines on stderr (the C side has kel::log::StderrCSink).
class StderrServiceSink : public kel::log::Sink {
 public:
  void Write(const kel::log::Record& record) override {
    if (record.source == kel::log::Source::kService) fprintf(stderr, "%s\n", record.text.c_str());
  }
};

// Removes a sink when the program ends, before it is destroyed.
class SinkRegistration : public kel::log::Sink {
 public:
  explicit SinkRegistration(std::unique_ptr<kel::log::Sink> inner) : inner_(std::move(inner)) {
    kel::log::AddSink(this);
  }
  ~SinkRegistration() override { kel::log::RemoveSink(this); }
  void Write(const kel::log::Record& record) override { inner_->Write(record); }

 private:
  std::unique_ptr<kel::log::Sink> inner_;
};

// The program's help followed by the help of every verb of every noun, options included.
// The help of every command below `app`, at any depth (e.g. "host maintenance enter"); `prefix` is
// the command line that leads to `app`.
void AppendCommandHelp(const CLI::App& app, const std::string& prefix, std::string* text) {
  for (const CLI::App* sub : app.get_subcommands({})) {
    *text += "\n" + sub->help(prefix);
    AppendCommandHelp(*sub, prefix + " " + sub->get_name(), text);
  }
}

std::string FullHelp(const CLI::App& app) {
  std::string text = app.help();
  for (const CLI::App* noun : app.get_subcommands({})) {
    AppendCommandHelp(*noun, app.get_name() + " " + noun->get_name(), &text);
  }
  return text;
}

// The message is the last line of stderr: caller text inside it (a size given with its newline)
// must not break it into several lines.
std::string OneLine(const std::string& message) {
  std::string out;
  for (char c : message) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (u >= 0x20 && u != 0x7f) {
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else {
      char esc[8];
      snprintf(esc, sizeof(esc), "\\x%02x", u);
      out += esc;
    }
  }
  return out;
}

void PrintFailure(const std::string& message) {
  std::cout.flush();
  fflush(stdout);
  fprintf(stderr, "%s\n", OneLine(message).c_str());
}

}  // namespace

CLI::App* CliContext::Noun(const std::string& name) const {
  auto it = nouns.find(name);
  return it != nouns.end() ? it->second : nullptr;
}

const kel::platform::HostConfig& CliContext::Host() {
  if (!host_) {
    kel::platform::SetCurrentHostConfig(kel::platform::LoadHostConfig(configPath));
    host_ = kel::platform::CurrentHostConfig();
    if (!configPath.empty()) {
      // Programs the service starts (the daemon control) read the same host configuration.
      char* absolute = realpath(configPath.c_str(), nullptr);
      setenv("KEL_CONFIG", absolute != nullptr ? absolute : configPath.c_str(), 1);
      free(absolute);
    }
    kel::log::InstallHostLog(host_->stateDir, verbose);
  }
  return *host_;
}

HostCtl::Orsa::IscsiTarget::OrsaIscsiTarget& CliContext::Service() {
  if (!service_) {
    Host();
    NukCtl::Orsa::IscsiTarget::SetKelConfigSubscriptionWanted(false);
    NukCtl::Orsa::IscsiTarget::KelNukCtlInit();
    service_ = HostCtl::OrsaAsyncPluginFactory::GetAsyncOrsaPlugin()->GetOrsaIscsiTarget();
  }
  return *service_;
}

void CliContext::Shutdown() {
  if (!service_) return;
  try {
    service_.reset();
    NukCtl::Orsa::IscsiTarget::KelNukCtlFini();
    kel::platform::CloseDirectory();
  } catch (const std::exception& e) {
    fprintf(stderr, "kelctl: shutdown: %s\n", e.what());
  }
}

void CliContext::MirrorLogsToStderr(int level) {
  log_init(level);
  sinks_.push_back(std::make_unique<SinkRegistration>(std::make_unique<kel::log::StderrCSink>()));
  if (verbose)
    sinks_.push_back(std::make_unique<SinkRegistration>(std::make_unique<StderrServiceSink>()));
}

CLI::App* AddNoun(CLI::App& app, CliContext& ctx, const std::string& name,
                  const std::string& description) {
  CLI::App* noun = app.add_subcommand(name, description);
  noun->require_subcommand(1);
  ctx.nouns[name] = noun;
  return noun;
}

int Main(CLI::App& app, CliContext& ctx, int argc, char** argv) {
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    // The top-level help lists every noun, verb and option; a verb's help lists its own options.
    if (app.get_subcommands().empty()) {
      std::cout << FullHelp(app);
      return 0;
    }
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return 2;
  }
  if (!ctx.action) {
    PrintFailure("no command given");
    return 2;
  }
  int status = 0;
  std::string failure;
  try {
    ctx.action();
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException& e) {
    failure = e.GetMessage();
    status = 1;
  } catch (const std::exception& e) {
    failure = e.what();
    status = 1;
  }
  // Shut down before the failure is printed, so that the message stays the last line on stderr.
  ctx.Shutdown();
  if (status != 0) {
    // A fixed message that hides its reason ("lock failed") gets the reason on the line above.
    const std::string reason = kel::log::FailureReasonFor(failure);
    if (!reason.empty() && !ctx.verbose) fprintf(stderr, "%s\n", OneLine(reason).c_str());
    PrintFailure(failure);
    return status;
  }
  std::cout.flush();
  return 0;
}

void PrintTable(std::ostream& out, const std::vector<std::string>& headers,
                const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> widths(headers.size(), 0);
  auto widen = [&widths](const std::vector<std::string>& row) {
    if (row.size() > widths.size()) widths.resize(row.size(), 0);
    for (size_t i = 0; i < row.size(); i++) widths[i] = std::max(widths[i], row[i].size());
  };
  widen(headers);
  for (const auto& row : rows) widen(row);
  auto print = [&out, &widths](const std::vector<std::string>& row) {
    std::string line;
    for (size_t i = 0; i < row.size(); i++) {
      line += row[i];
      if (i + 1 < row.size()) line += std::string(widths[i] - row[i].size() + 2, ' ');
    }
    out << line << '\n';
  };
  print(headers);
  for (const auto& row : rows) print(row);
}

void PrintJson(std::ostream& out, const nlohmann::json& doc) {
  // Text that a hand-edited kel.conf smuggled in must not make every listing fail: bytes that are
  // not UTF-8 are shown as U+FFFD.
  out << doc.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
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

namespace {

// A CHAP secret is at most 16 characters; anything much longer is the wrong file.
constexpr size_t kMaxSecretFileBytes = 4096;

std::string ReadSecretFile(const std::string& path, bool* stdinUsed) {
  if (path == "-") {
    if (*stdinUsed) throw CommandError("only one secret can be read from stdin");
    *stdinUsed = true;
  }
  std::string text;
  const int err = kel::platform::ReadFileBounded(path, kMaxSecretFileBytes, &text);
  const std::string name = path == "-" ? std::string("from stdin") : "file " + path;
  if (err == EFBIG) {
    throw CommandError("secret " + name + " holds more than " +
                       std::to_string(kMaxSecretFileBytes) + " bytes: not a secret");
  }
  if (err != 0) {
    throw CommandError("cannot read secret " + name + ": " + kel::platform::ErrnoText(err));
  }
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

}  // namespace

bool AuthOptions::AnyGiven() const {
  for (const CLI::Option* o : options) {
    if (o->count() > 0) return true;
  }
  return false;
}

void AuthOptions::ResolveSecretFiles() {
  bool stdinUsed = false;
  if (!chapSecretFile.empty()) chapSecret = ReadSecretFile(chapSecretFile, &stdinUsed);
  if (!mutualSecretFile.empty()) mutualSecret = ReadSecretFile(mutualSecretFile, &stdinUsed);
}

void AddAuthOptions(CLI::App* cmd, AuthOptions& auth) {
  auth.options.push_back(cmd->add_option("--auth-type", auth.authType,
                                         "No-Authentication, CHAP or CHAP-Mutual (default: none)"));
  auth.options.push_back(
      cmd->add_option("--chap-user", auth.chapUser, "CHAP user name the initiator presents"));
  CLI::Option* secret = cmd->add_option("--chap-secret", auth.chapSecret,
                                        "CHAP secret (visible in the process list; prefer "
                                        "--chap-secret-file)");
  CLI::Option* secretFile = cmd->add_option(
      "--chap-secret-file", auth.chapSecretFile,
      "File holding the CHAP secret, '-' for stdin (one trailing newline is dropped)");
  secret->excludes(secretFile);
  auth.options.push_back(secret);
  auth.options.push_back(secretFile);
  auth.options.push_back(cmd->add_option("--mutual-user", auth.mutualUser,
                                         "User name the target presents (CHAP-Mutual)"));
  CLI::Option* mutual = cmd->add_option("--mutual-secret", auth.mutualSecret,
                                        "Secret of the target's user (CHAP-Mutual)");
  CLI::Option* mutualFile = cmd->add_option(
      "--mutual-secret-file", auth.mutualSecretFile,
      "File holding the mutual secret, '-' for stdin (one trailing newline is dropped)");
  mutual->excludes(mutualFile);
  auth.options.push_back(mutual);
  auth.options.push_back(mutualFile);
}

}  // namespace cli
}  // namespace kel
