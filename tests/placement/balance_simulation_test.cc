// Convergence of the load balancer over a simulated cluster: several starting shapes, both
// methods, hosts running in turn, in reverse, shuffled or all from one snapshot. The balancer
// promises little about convergence, so only what it does promise is asserted (a pass moves at
// most its local targets minus its quota; a target without an online LUN never moves; hosts
// looking at one snapshot compute one load and one quota); what it achieves is printed.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "placement/testing/balance_sim.h"

namespace kel {
namespace testing {
namespace {

using NukCtl::Orsa::IscsiTarget::Util::BalanceSim;

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
        sim.AddTarget(hosts[i], "", !(i == 0 && t < offline));
      }
    }
  };
}

const std::vector<Shape>& Shapes() {
  static const std::vector<Shape> shapes = {
      {"5 hosts, 40 targets on one", Spread({40, 0, 0, 0, 0})},
      {"4 hosts, 12 targets on one", Spread({12, 0, 0, 0})},
      {"8 hosts, 128 targets on one", Spread({128, 0, 0, 0, 0, 0, 0, 0})},
      {"5 hosts, 40 targets on two", Spread({20, 20, 0, 0, 0})},
      {"5 hosts, 40 on one, 8 offline", Spread({40, 0, 0, 0, 0}, 8)},
      {"6 hosts, uneven 25/9/4/1/1/0", Spread({25, 9, 4, 1, 1, 0})},
      {"stretched 3+2, 20 pinned + 10 free on one",
       [](BalanceSim& sim) {
         const std::string p1 = sim.AddHost("Preferred");
         sim.AddHost("Preferred");
         sim.AddHost("Preferred");
         sim.AddHost("NonPreferred");
         sim.AddHost("NonPreferred");
         for (int t = 0; t < 20; ++t) sim.AddTarget(p1, "Preferred");
         for (int t = 0; t < 10; ++t) sim.AddTarget(p1);
       }},
  };
  return shapes;
}

TEST(BalanceSimulation, PromisesHoldInEveryShapeMethodAndInterleaving) {
  const BalanceSim::Order orders[] = {BalanceSim::Order::kInTurn, BalanceSim::Order::kReverse,
                                      BalanceSim::Order::kShuffled,
                                      BalanceSim::Order::kSimultaneous};
  printf("%-42s %-6s %-12s %7s %6s %5s %6s %8s %5s\n", "shape", "method", "order", "periods",
         "within", "moves", "excess", "repeated", "max/q");
  for (const Shape& shape : Shapes()) {
    for (int method : {1, 2}) {
      for (BalanceSim::Order order : orders) {
        BalanceSim sim(method);
        shape.build(sim);
        std::set<std::string> unmovable;
        for (const auto& t : sim.Targets()) {
          if (t.luns.empty() || t.luns.front().status != "online") unmovable.insert(t.uuid);
        }
        std::map<std::string, std::string> period;  // host -> its view of load and quota
        const BalanceSim::Convergence c =
            sim.Converge(order, 10, 7, [&](const BalanceSim::Run& run) {
              for (const BalanceSim::Pass& pass : run.passes) {
                const int bound = std::max<int>(0, static_cast<int>(pass.localBefore) - pass.quota);
                EXPECT_LE(pass.moved, bound) << shape.name << " mode " << pass.mode;
              }
              if (order == BalanceSim::Order::kSimultaneous) {
                std::string view;
                for (const auto& kv :
                     std::map<std::string, int>(run.clusterLoad.begin(), run.clusterLoad.end())) {
                  view += kv.first + "=" + std::to_string(kv.second) + ";";
                }
                period[run.host] = view;
              }
            });
        if (order == BalanceSim::Order::kSimultaneous) {
          std::set<std::string> views;
          for (const auto& kv : period) views.insert(kv.second);
          EXPECT_EQ(views.size(), 1u) << shape.name << ": one snapshot, one view of the load";
        }
        for (const std::string& uuid : unmovable) {
          EXPECT_EQ(sim.Moves().count(uuid), 0u) << shape.name << ": " << uuid << " moved";
        }
        printf("%-42s %-6s %-12s %7d %6s %5d %6d %8d %2d/%-2d\n", shape.name,
               method == 1 ? "greedy" : "hash", BalanceSim::OrderName(order), c.periods,
               c.withinQuota ? "yes" : "no", c.moves, c.initialExcess, c.repeatedMoves, c.maxCount,
               c.quota);
      }
    }
  }
}

}  // namespace
}  // namespace testing
}  // namespace kel
