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

#include "conf/conf.h"
#include "directory/extraction.h"
#include "platform/clog.h"
#include "platform/host_config.h"

namespace {

namespace Kel = NukCtl::Orsa::IscsiTarget;

constexpr int kTargets = 128;
constexpr int kLunsPerTarget = 8;  // 1024 LUNs
constexpr int kInitiatorGroups = 256;
constexpr int kInitiatorsPerGroup = 32;  // 8192 initiators

std::string Uuid(int kind, int n) {
  char buf[64];
  snprintf(buf, sizeof(buf), "6f1d2c4a-8b3e-4c5d-9e7f-%04x%08x", kind, n);
  return buf;
}

// kel.conf text as the writer prints it, at the limits.
std::string LimitsConf() {
  std::string s = "generation 42\n";
  for (int g = 0; g < kInitiatorGroups; ++g) {
    s += "initiator-group group-" + std::to_string(g) + " {\n";
    for (int i = 0; i < kInitiatorsPerGroup; ++i) {
      s += "\t initiator iqn.1998-01.com.example:host-" + std::to_string(g) + "-" +
           std::to_string(i) + " \n";
    }
    s += "}\n";
  }
  s += "auth-group default {\n\t chap \"defuser\" \"RGVmc2VjcmV0MTIjeA==\" \n}\n";
  for (int t = 0; t < kTargets; ++t) {
    s += "auth-group " + Uuid(1, t) + " {\n";
    s += "\t chap-mutual \"user" + std::to_string(t) +
         "\" \"VGd0c2VjcmV0MTIjYQ==\" \"mutual\" \"TXV0dWFsOXNlY3JldCQ=\"\n";
    s += "\t initiator-group group-" + std::to_string(t % kInitiatorGroups) + "\n";
    s += "\t initiator-group group-" + std::to_string((t + 128) % kInitiatorGroups) + "\n";
    s += "\t initiator-name iqn.1998-01.com.example:solo-" + std::to_string(t) + "\n}\n";
  }
  s +=
      "portal-group default {\n\t discovery-auth-group no-authentication\n\t listen nuk0:3260\n}\n";
  for (int n = 0; n < 4; ++n) {
    s += "portal-group pg-nuk" + std::to_string(n) +
         "-3261 {\n\t discovery-auth-group "
         "no-authentication\n\t listen nuk" +
         std::to_string(n) + ":3261\n}\n";
  }
  for (int t = 0; t < kTargets; ++t) {
    s += "target iqn.2024-01.com.example:target-" + std::to_string(t) + " {\n";
    s += "\talias \"Target " + std::to_string(t) + "\"\n";
    s += "\tportal-group pg-nuk" + std::to_string(t % 4) + "-3261\n";
    s += "\tauth-group " + Uuid(1, t) + "\n";
    s += "\toption uuid " + Uuid(1, t) + "\n\toption owner-id " + Uuid(1, t) + "\n";
    for (int l = 0; l < kLunsPerTarget; ++l) {
      s += "\tlun " + std::to_string(l) + " {\n\t\tbackend pemo\n\t\tpath " + Uuid(1, t) + "/" +
           Uuid(2, t * kLunsPerTarget + l) + ".pemo\n\t\tsize 2097152\n";
      s += "\t\toption lun-alias \"disk " + std::to_string(l) + "\"\n";
      s += "\t\toption naa \"6000C29A1B2C3D4E5F607182" + Uuid(3, l).substr(28) + "\"\n\t}\n";
    }
    s += "}\n";
  }
  return s;
}

struct conf* ParseLimits() {
  char path[] = "/tmp/kel-extraction-bench-XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) return nullptr;
  const std::string text = LimitsConf();
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
