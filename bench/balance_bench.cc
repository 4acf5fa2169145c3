// The load balancer at the cluster limits (128 targets of 8 LUNs, 8 hosts): one run of the host
// that owns everything (the worst start: 112 moves) over the simulated cluster, and over the
// directory path (the configuration cache holding the limits' kel.conf, an in-memory directory);
// one run of a host with nothing to do (every period of a balanced cluster); then the convergence
// simulation: the balancing periods it takes to converge from the worst start and from other
// shapes, for both methods and every order of the hosts' runs. Exits 1 when the simulation finds a
// broken promise.
//
//   balance_bench [--benchmark_* flags]
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <set>
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

struct Shape {
  const char* name;
  std::function<void(BalanceSim&)> build;
};

// `counts[i]` targets on host i; the first `offline` targets of host 0 have only offline LUNs.
std::function<void(BalanceSim&)> Spread(std::vector<int> counts, int offline = 0) {
  return [counts, offline](BalanceSim& sim) {
    std::vector<std::string> hosts;
    for (size_t i = 0; i < counts.size(); ++i) hosts.push_back(sim.AddHost());
    for (size_t i = 0; i < counts.size(); ++i) {
      for (int t = 0; t < counts[i]; ++t) {
        sim.AddTarget(hosts[i], "", !(i == 0 && t < offline), kel::bench::kLunsPerTarget);
      }
    }
  };
}

// The convergence simulation: every shape, both methods, the hosts' runs in every order. The
// balancer promises little about convergence, so only what it promises is checked (a pass moves
// at most its local targets minus its quota; a target without an online LUN never moves; hosts
// looking at one snapshot gather one load); what it achieves is printed. Returns the number of
// broken promises.
int Simulate() {
  const std::vector<Shape> shapes = {
      {"8 hosts, 128 targets on one (worst start)", Spread({128, 0, 0, 0, 0, 0, 0, 0})},
      {"5 hosts, 40 targets on one", Spread({40, 0, 0, 0, 0})},
      {"4 hosts, 12 targets on one", Spread({12, 0, 0, 0})},
      {"5 hosts, 40 targets on two", Spread({20, 20, 0, 0, 0})},
      {"5 hosts, 40 on one, 8 of them offline", Spread({40, 0, 0, 0, 0}, 8)},
      {"6 hosts, uneven 25/9/4/1/1/0", Spread({25, 9, 4, 1, 1, 0})},
      {"stretched 3+2, 20 pinned + 10 free on one", [](BalanceSim& sim) {
         const std::string p1 = sim.AddHost("Preferred");
         for (const char* site : {"Preferred", "Preferred", "NonPreferred", "NonPreferred"}) {
           sim.AddHost(site);
         }
         for (int t = 0; t < 30; ++t) sim.AddTarget(p1, t < 20 ? "Preferred" : "");
       }}};
  const BalanceSim::Order orders[] = {BalanceSim::Order::kInTurn, BalanceSim::Order::kReverse,
                                      BalanceSim::Order::kShuffled,
                                      BalanceSim::Order::kSimultaneous};
  int broken = 0;
  printf(
      "\nConvergence (periods: rounds of one run per host, until no host is above the cluster "
      "quota or nothing moves):\n");
  printf("%-43s %-6s %-12s %7s %6s %5s %6s %13s %6s\n", "shape", "method", "order", "periods",
         "within", "moves", "excess", "repeated", "max/q");
  for (const Shape& shape : shapes) {
    for (int method : {1, 2}) {
      for (BalanceSim::Order order : orders) {
        BalanceSim sim(method);
        shape.build(sim);
        std::map<int, std::set<std::string>> views;  // period -> the loads its runs gathered
        const BalanceSim::Convergence c = sim.Converge(order, 20, 7, [&](const BalanceSim::Run& r) {
          for (const BalanceSim::Pass& pass : r.passes) {
            if (pass.moved > std::max<int>(0, static_cast<int>(pass.localBefore) - pass.quota)) {
              printf("BROKEN: %s: a pass moved %d of %zu local, quota %d\n", shape.name, pass.moved,
                     pass.localBefore, pass.quota);
              ++broken;
            }
          }
          std::string view;
          for (const auto& kv :
               std::map<std::string, int>(r.clusterLoad.begin(), r.clusterLoad.end())) {
            view += kv.first + "=" + std::to_string(kv.second) + ";";
          }
          views[r.period].insert(view);
        });
        for (const auto& period : views) {
          if (order == BalanceSim::Order::kSimultaneous && period.second.size() != 1) {
            printf("BROKEN: %s: hosts read one snapshot but gathered different loads\n",
                   shape.name);
            ++broken;
          }
        }
        for (const auto& t : sim.Targets()) {
          if (t.luns.front().status != "online" && sim.Moves().count(t.uuid) != 0) {
            printf("BROKEN: %s: target %s without an online LUN moved\n", shape.name,
                   t.alias.c_str());
            ++broken;
          }
        }
        printf("%-43s %-6s %-12s %7d %6s %5d %6d %6d (%3d%%) %3d/%-2d\n", shape.name,
               method == 1 ? "greedy" : "hash", BalanceSim::OrderName(order), c.periods,
               c.withinQuota ? "yes" : "no", c.moves, c.initialExcess, c.repeatedMoves,
               c.moves == 0 ? 0 : 100 * c.repeatedMoves / c.moves, c.maxCount, c.quota);
      }
    }
  }
  return broken;
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return Simulate() == 0 ? 0 : 1;
}
