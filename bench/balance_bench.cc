// The load balancer at the cluster limits (128 targets of 8 LUNs, 8 hosts): one run of the host
// that owns everything (the worst start: 112 moves) over the simulated cluster, and over the
// directory path (the configuration cache holding the limits' kel.conf, an in-memory directory);
// one run of a host with nothing to do (every period of a balanced cluster); then the balancing
// periods it takes to converge from the worst start, for both methods and every order of the
// hosts' runs.
//
//   balance_bench [--benchmark_* flags]
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "bench/limits_conf.h"
#include "conf/conf.h"
#include "conf/paths.h"
#include "conf/writer.h"
#include "directory/config_cache.h"
#include "placement/load_balancer.h"
#include "placement/testing/balance_sim.h"
#include "platform/host_config.h"
#include "platform/testing/fake_directory.h"
#include "storage/namespace.h"

namespace {

namespace Kel = NukCtl::Orsa::IscsiTarget;
using NukCtl::Orsa::IscsiTarget::Util::BalanceSim;
using NukCtl::Orsa::IscsiTarget::Util::KelLoadBalance;

constexpr int kHosts = 8;

// All targets on the first host, or spread evenly.
std::unique_ptr<BalanceSim> Limits(int method, bool allOnOne, std::vector<std::string>* hosts) {
  auto sim = std::make_unique<BalanceSim>(method);
  hosts->clear();
  for (int h = 0; h < kHosts; ++h) hosts->push_back(sim->AddHost());
  for (int t = 0; t < kel::bench::kTargets; ++t) {
    sim->AddTarget((*hosts)[allOnOne ? 0 : t % kHosts], "", true, kel::bench::kLunsPerTarget);
  }
  return sim;
}

void BM_RunFromWorstStart(benchmark::State& state) {
  const int method = static_cast<int>(state.range(0));
  std::vector<std::string> hosts;
  int moved = 0;
  for (auto _ : state) {
    state.PauseTiming();
    std::unique_ptr<BalanceSim> sim = Limits(method, true, &hosts);
    auto env = sim->EnvFor(hosts[0]);
    state.ResumeTiming();
    KelLoadBalance lb(*env);
    lb.PerformLoadBalance();
    moved = kel::bench::kTargets - static_cast<int>(lb.localTargets.size());
  }
  state.counters["moves"] = moved;
}
BENCHMARK(BM_RunFromWorstStart)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);

// The limits' kel.conf on a temporary datastore, cached, and eight members in an in-memory
// directory; every target owned by this host.
class DirectoryLimits {
 public:
  DirectoryLimits() {
    char root[] = "/tmp/kel-balance-bench-XXXXXX";
    root_ = mkdtemp(root);
    kel::platform::HostConfig config = kel::platform::EmbeddedHostConfig();
    config.stateDir = root_ + "/state";
    config.datastorePath = root_ + "/datastore";
    mkdir(config.stateDir.c_str(), 0700);
    mkdir(config.datastorePath.c_str(), 0700);
    kel::platform::SetCurrentHostConfig(config);
    dir_ = std::make_shared<kel::platform::FakeDirectory>(Uuid(0));
    for (int h = 0; h < kHosts; ++h) {
      kel::platform::MemberRecord m;
      m.uuid = Uuid(h);
      m.name = "host-" + std::to_string(h);
      m.diskFormatVersion = kel::platform::kDiskFormatVersion;
      dir_->SetMember(m);
    }
    kel::platform::SetDirectoryForTest(dir_);
    Kel::Util::CreateNamespaceDir("");
    Kel::Util::CreateConfigDirs();
    struct conf* model = kel::bench::BuildLimitsModel();
    for (struct target* t = TAILQ_FIRST(&model->conf_targets); t != nullptr;
         t = TAILQ_NEXT(t, t_next)) {
      objects_.push_back(target_option_find(t, "owner-id")->to_value);
    }
    std::ofstream(Kel::Util::GetConfFilePath()) << Kel::Parser::WriteConfToString(model);
    conf_delete(model);
    Kel::ConfigCache::SubscribeLodex();
    Kel::ConfigCache::GetTargetsInfos();  // loads the cache
  }
  ~DirectoryLimits() {
    Kel::ConfigCache::UnsubscribeLodex();
    kel::platform::SetDirectoryForTest(nullptr);
    std::string cmd = "rm -rf '" + root_ + "'";
    if (system(cmd.c_str()) != 0) fprintf(stderr, "cannot remove %s\n", root_.c_str());
  }
  void AllOnThisHost() {
    for (const std::string& object : objects_) {
      kel::platform::ObjectOwner owner;
      const int64_t rev = dir_->GetObjectOwner(object, &owner) == NUK_OK ? owner.revision : 0;
      dir_->CompareAndSwapObjectOwner(object, rev, Uuid(0));
    }
  }
  static std::string Uuid(int h) {
    return "0000000" + std::to_string(h) + "-b41a-4c3e-8d2f-000000000000";
  }

 private:
  std::string root_;
  std::shared_ptr<kel::platform::FakeDirectory> dir_;
  std::vector<std::string> objects_;
};

void BM_DirectoryRunFromWorstStart(benchmark::State& state) {
  DirectoryLimits cluster;
  kel::platform::HostConfig config = *kel::platform::CurrentHostConfig();
  config.options["ORSA-iSCSI"]["kelLoadBalanceMethod"] = 2;
  kel::platform::SetCurrentHostConfig(config);
  int moved = 0;
  for (auto _ : state) {
    state.PauseTiming();
    cluster.AllOnThisHost();
    state.ResumeTiming();
    auto env = Kel::Util::MakeDirectoryLoadBalanceEnv();
    KelLoadBalance lb(*env);
    lb.PerformLoadBalance();
    moved = kel::bench::kTargets - static_cast<int>(lb.localTargets.size());
  }
  state.counters["moves"] = moved;
}
BENCHMARK(BM_DirectoryRunFromWorstStart)->Unit(benchmark::kMillisecond);

void BM_RunBalanced(benchmark::State& state) {
  std::vector<std::string> hosts;
  std::unique_ptr<BalanceSim> sim = Limits(2, false, &hosts);
  auto env = sim->EnvFor(hosts[0]);
  for (auto _ : state) {
    KelLoadBalance lb(*env);
    lb.PerformLoadBalance();
    benchmark::DoNotOptimize(lb.quota);
  }
}
BENCHMARK(BM_RunBalanced)->Unit(benchmark::kMillisecond);

void PrintConvergence() {
  printf("\nConvergence from the worst start (%d targets on one of %d hosts, quota %d):\n",
         kel::bench::kTargets, kHosts, kel::bench::kTargets / kHosts);
  printf("%-8s %-13s %8s %7s %6s %9s %7s\n", "method", "order", "periods", "within", "moves",
         "repeated", "max");
  const BalanceSim::Order orders[] = {BalanceSim::Order::kInTurn, BalanceSim::Order::kReverse,
                                      BalanceSim::Order::kShuffled,
                                      BalanceSim::Order::kSimultaneous};
  for (int method : {1, 2}) {
    for (BalanceSim::Order order : orders) {
      std::vector<std::string> hosts;
      std::unique_ptr<BalanceSim> sim = Limits(method, true, &hosts);
      const BalanceSim::Convergence c = sim->Converge(order, 20, 7);
      printf("%-8s %-13s %8d %7s %6d %5d (%2d%%) %7d\n", method == 1 ? "greedy" : "hash",
             BalanceSim::OrderName(order), c.periods, c.withinQuota ? "yes" : "no", c.moves,
             c.repeatedMoves, c.moves == 0 ? 0 : 100 * c.repeatedMoves / c.moves, c.maxCount);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  PrintConvergence();
  return 0;
}
