// The load balancer over an in-memory directory (and, for the shapes that need several hosts
// deciding from one snapshot, over the simulated cluster).
#include "placement/load_balancer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "placement/testing/balance_sim.h"
#include "platform/log.h"
#include "tests/placement/placement_env.h"

namespace kel {
namespace testing {
namespace {

namespace Util = NukCtl::Orsa::IscsiTarget::Util;
using Util::BalanceSim;
using Util::KelLoadBalance;

class LoadBalancerTest : public ::testing::Test {
 protected:
  void Balance(int method, int period = 1) {
    env_.host().SetOption("ORSA-iSCSI", "kelLoadBalanceMethod", method);
    env_.host().SetOption("ORSA-iSCSI", "kelLoadBalancePeriod", period);
  }
  PlacementEnv env_;
};

TEST_F(LoadBalancerTest, ARunIsDueOnPeriodBoundariesWhileBalancingIsOn) {
  auto dirEnv = Util::MakeDirectoryLoadBalanceEnv();
  Util::KelLoadBalanceWorker worker(*dirEnv);
  auto due = [&worker](int passes) {
    std::vector<int> out;
    for (int pass = 1; pass <= passes; ++pass) {
      if (worker.ValidateLoadBalance(pass)) out.push_back(pass);
    }
    return out;
  };
  Balance(0, 5);
  EXPECT_TRUE(due(240).empty()) << "method 0 is off whatever the period";
  Balance(2, 5);
  EXPECT_EQ(due(60), (std::vector<int>{20, 40, 60}));
  Balance(1, 1);
  EXPECT_EQ(due(12), (std::vector<int>{4, 8, 12}));
  Balance(2, 0);
  EXPECT_TRUE(due(240).empty()) << "period 0 is off, not a division by zero";
}

// 10 targets over 4 hosts, this one owning 6 of which 2 cannot move (an offline LUN, no LUN).
TEST_F(LoadBalancerTest, ConsistentHashShedsTheExcessOfMovableTargetsOnly) {
  const std::string a = env_.AddHost("a"), b = env_.AddHost("b"), c = env_.AddHost("c");
  const std::string self = env_.self();
  const std::vector<std::string> uuids = env_.WriteTargets(
      {{self}, {self, "", 1, false}, {self}, {self, "", 0}, {self}, {self}, {a}, {a}, {b}, {c}});
  Balance(2);
  Util::SetCachedLocalTargets({"stale"});

  auto planNow = [] {
    auto dirEnv = Util::MakeDirectoryLoadBalanceEnv();
    KelLoadBalance lb(*dirEnv);
    lb.InitLoadBalance();
    EXPECT_TRUE(lb.IsTargImbalancedInCluster());
    EXPECT_EQ(lb.quota, 3);
    KelLoadBalance::RebalanceMap plan;
    lb.GenerateRebalanceMap(plan);
    return plan;
  };
  KelLoadBalance::RebalanceMap plan = planNow();
  EXPECT_EQ(planNow(), plan) << "the same snapshot gives the same destinations";

  log::LogCapture capture;
  Util::PerformTargetLoadBlance(4);
  // The first three movable targets in configuration order, to hosts below quota.
  EXPECT_EQ(plan.size(), 3u);
  for (const std::string& moved : {uuids[0], uuids[2], uuids[4]}) {
    ASSERT_EQ(plan.count(moved), 1u) << moved;
    EXPECT_EQ(env_.OwnerOf(moved), plan[moved]);
    EXPECT_NE(plan[moved], self);
    EXPECT_TRUE(capture.Contains("Util: Move target (" + moved + ") to DestNode: " + plan[moved]));
  }
  for (const std::string& stays : {uuids[1], uuids[3], uuids[5]}) {
    EXPECT_EQ(env_.OwnerOf(stays), self) << stays;
  }
  EXPECT_EQ(Util::GetCachedLocalTargets(),
            (std::vector<std::string>{uuids[1], uuids[3], uuids[5]}));
  EXPECT_EQ(capture.Count("Move target ("), 3u);
}

// Two hosts over quota shed from the same snapshot: the more loaded one takes the spare room of
// the least loaded host first, this host the room after it, and no host ends over quota.
TEST(GreedyBalance, HostsOverQuotaFillDisjointSparesFromOneSnapshot) {
  BalanceSim sim(1);
  const std::string x = sim.AddHost(), self = sim.AddHost(), least = sim.AddHost();
  const std::string tieFirst = sim.AddHost(), tieSecond = sim.AddHost();
  for (int i = 0; i < 8; ++i) sim.AddTarget(x);
  for (int i = 0; i < 6; ++i) sim.AddTarget(self);
  sim.AddTarget(tieFirst);
  sim.AddTarget(tieSecond);
  const BalanceSim::Owners snapshot = sim.OwnersNow();

  std::map<std::string, std::map<std::string, int>> given;  // shedder -> destination -> count
  for (const std::string& shedder : {x, self}) {
    auto env = sim.EnvFor(shedder, &snapshot);
    KelLoadBalance lb(*env);
    lb.InitLoadBalance();
    ASSERT_TRUE(lb.IsTargImbalancedInCluster());
    ASSERT_EQ(lb.quota, 4);
    KelLoadBalance::RebalanceMap plan;
    lb.GenerateRebalanceMap(plan);
    for (const auto& kv : plan) ++given[shedder][kv.second];
  }
  EXPECT_EQ(given[x], (std::map<std::string, int>{{least, 4}}));
  // Equal counts sort by UUID, so the upward walk meets the later UUID first.
  EXPECT_EQ(given[self], (std::map<std::string, int>{{tieSecond, 2}}));
}

// quota 8: a host whose room is down to quota / 8 = 1 leaves the ring at its first hit.
TEST(ConsistHashBalance, AHostAtAnEighthOfQuotaLeavesTheRingBeforeItReceives) {
  BalanceSim sim(2);
  const std::string self = sim.AddHost(), low = sim.AddHost(), empty = sim.AddHost();
  for (int i = 0; i < 20; ++i) sim.AddTarget(self);
  auto destinations = [&](int lowCount) {
    auto env = sim.EnvFor(self);
    KelLoadBalance lb(*env);
    lb.selfUuid = self;
    lb.quota = 8;
    lb.localTargets = sim.Targets();
    KelLoadBalance::RebalanceMap plan;
    lb.ConsistHashBalance({{self, 20}, {low, lowCount}, {empty, 0}}, plan);
    std::map<std::string, int> counts;
    for (const auto& kv : plan) ++counts[kv.second];
    return counts;
  };
  std::map<std::string, int> atEighth = destinations(7);
  EXPECT_EQ(atEighth[low], 0);
  EXPECT_EQ(atEighth[empty], 12) << "limit = 20 local - quota 8; the last host takes the rest";
  // One more unit of room: the host takes one target, then is at an eighth and leaves.
  std::map<std::string, int> aboveEighth = destinations(6);
  EXPECT_EQ(aboveEighth[low], 1);
  EXPECT_EQ(aboveEighth[empty], 11);
}

TEST_F(LoadBalancerTest, PinnedTargetsAreBalancedOnlyAmongTheHostsOfTheirSite) {
  env_.dir().SetMember(Member(env_.self(), "host-self", "Preferred"));
  const std::string n1 = env_.AddHost("n1", "NonPreferred");
  env_.AddHost("n2", "NonPreferred");
  env_.AddHost("n3", "NonPreferred");
  const std::string self = env_.self();
  std::vector<TargetDesc> descs(5, TargetDesc{self, "Preferred"});
  descs.push_back({n1});
  const std::vector<std::string> uuids = env_.WriteTargets(descs);
  Balance(2);

  // Alone in its site: no site pass, and the cluster pass leaves pinned targets alone.
  Util::PerformTargetLoadBlance(4);
  EXPECT_EQ(env_.Counts()[self], 5);

  const std::string p2 = env_.AddHost("p2", "Preferred");
  Util::PerformTargetLoadBlance(8);
  EXPECT_EQ(env_.Counts(), (std::map<std::string, int>{{self, 3}, {p2, 2}, {n1, 1}}));
}

TEST_F(LoadBalancerTest, TooFewEligibleHostsAbandonTheRun) {
  env_.AddHost("b");
  platform::MemberRecord witness = Member("0c0c0c0c-0000-4000-8000-000000000001", "w");
  witness.witness = true;
  platform::MemberRecord maintenance = Member("0c0c0c0c-0000-4000-8000-000000000002", "m");
  maintenance.maintenance = true;
  env_.dir().SetMember(witness);
  env_.dir().SetMember(maintenance);
  const std::string self = env_.self();
  env_.WriteTargets(std::vector<TargetDesc>(6, TargetDesc{self}));
  Balance(2);
  Util::SetCachedLocalTargets({"before"});

  log::LogCapture capture;
  Util::PerformTargetLoadBlance(4);
  EXPECT_TRUE(capture.Contains(
      "Not enough nodes in the cluster for load balance. The minimal 3 nodes are needed, now "
      "only 2"))
      << capture.Joined();
  EXPECT_TRUE(capture.Contains("Util: Skip node(" + witness.uuid + ")"));
  EXPECT_TRUE(capture.Contains("Util: Skip node(" + maintenance.uuid + ")"));
  EXPECT_EQ(env_.Counts()[self], 6);
  EXPECT_EQ(Util::GetCachedLocalTargets(), std::vector<std::string>{"before"});
}

}  // namespace
}  // namespace testing
}  // namespace kel
