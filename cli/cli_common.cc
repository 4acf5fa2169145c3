#include "cli/cli_common.h"

#include <algorithm>
#include <cstdio>
#include <iostream>

#include "platform/clog.h"
#include "platform/exception.h"

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

void PrintFailure(const std::string& message) {
  std::cout.flush();
  fflush(stdout);
  fprintf(stderr, "%s\n", message.c_str());
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
    if (verbose) kel::log::InstallHostLog(host_->stateDir, true);
  }
  return *host_;
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
  try {
    ctx.action();
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException& e) {
    PrintFailure(e.GetMessage());
    return 1;
  } catch (const std::exception& e) {
    PrintFailure(e.what());
    return 1;
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

void PrintJson(std::ostream& out, const nlohmann::json& doc) { out << doc.dump(2) << '\n'; }

}  // namespace cli
}  // namespace kel
