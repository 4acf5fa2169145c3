// Record extraction of a kel.conf at the cluster limits (128 targets, 1024 LUNs, 256 initiator
// groups, 8192 initiators), read once through the real grammar: time to build every target
// record with its LUNs, every initiator group record, the defaults and the interface set, as
// the configuration cache does on each read.
//
//   extraction_bench [--benchmark_* flags]
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "bench/limits_conf.h"
#include "conf/conf.h"
#include "conf/writer.h"
#include "directory/extraction.h"
#include "platform/clog.h"
#include "platform/host_config.h"

namespace {

namespace Kel = NukCtl::Orsa::IscsiTarget;

struct conf* ParseLimits() {
  char path[] = "/tmp/kel-extraction-bench-XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) return nullptr;
  struct conf* model = kel::bench::BuildLimitsModel();
  const std::string text = Kel::Parser::WriteConfToString(model);
  conf_delete(model);
  if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) return nullptr;
  log_init(0);
  struct conf* c = conf_new_from_file(fd, path, nullptr);
  close(fd);
  unlink(path);
  return c;
}

class Limits : public benchmark::Fixture {
 public:
  void SetUp(const benchmark::State&) override {
    kel::platform::HostConfig config;
    config.datastorePath = "/vol/datastore-0001";
    kel::platform::SetCurrentHostConfig(config);
    if (conf_ == nullptr) conf_ = ParseLimits();
  }
  ~Limits() override {
    if (conf_ != nullptr) conf_delete(conf_);
  }
  struct conf* conf_ = nullptr;
};

BENCHMARK_DEFINE_F(Limits, Targets)(benchmark::State& state) {
  if (conf_ == nullptr) {
    state.SkipWithError("the limits configuration does not parse");
    return;
  }
  std::vector<HostCtl::Orsa::IscsiTarget::TargetInfo> targets;
  for (auto _ : state) {
    Kel::_GetTargetInfos(conf_, targets);
    benchmark::DoNotOptimize(targets.data());
  }
  size_t luns = 0;
  for (const auto& t : targets) luns += t.luns.size();
  state.counters["targets"] = static_cast<double>(targets.size());
  state.counters["luns"] = static_cast<double>(luns);
}
BENCHMARK_REGISTER_F(Limits, Targets)->Unit(benchmark::kMicrosecond);

BENCHMARK_DEFINE_F(Limits, InitiatorGroups)(benchmark::State& state) {
  if (conf_ == nullptr) {
    state.SkipWithError("the limits configuration does not parse");
    return;
  }
  size_t initiators = 0;
  for (auto _ : state) {
    std::vector<HostCtl::Orsa::IscsiTarget::InitiatorgroupInfo> groups;
    Kel::_GetInitiatorGroupInfos(conf_, groups);
    benchmark::DoNotOptimize(groups.data());
    initiators = 0;
    for (const auto& g : groups) initiators += g.initiators.size();
  }
  state.counters["initiators"] = static_cast<double>(initiators);
}
BENCHMARK_REGISTER_F(Limits, InitiatorGroups)->Unit(benchmark::kMicrosecond);

BENCHMARK_DEFINE_F(Limits, Everything)(benchmark::State& state) {
  if (conf_ == nullptr) {
    state.SkipWithError("the limits configuration does not parse");
    return;
  }
  for (auto _ : state) {
    std::vector<HostCtl::Orsa::IscsiTarget::TargetInfo> targets;
    std::vector<HostCtl::Orsa::IscsiTarget::InitiatorgroupInfo> groups;
    std::set<std::string> nics;
    Kel::_GetTargetInfos(conf_, targets);
    Kel::_GetInitiatorGroupInfos(conf_, groups);
    auto defaults = Kel::GetConfigInfoFromConf(conf_, false);
    Kel::GetIscsiNuknicsFromConf(conf_, nics);
    benchmark::DoNotOptimize(defaults.port);
  }
}
BENCHMARK_REGISTER_F(Limits, Everything)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
