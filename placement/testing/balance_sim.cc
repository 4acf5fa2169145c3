#include "placement/testing/balance_sim.h"

#include <algorithm>
#include <cstdio>
#include <random>
#include <set>

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

using HostCtl::Orsa::IscsiTarget::LunInfo;
using HostCtl::Orsa::IscsiTarget::TargetInfo;

namespace {

std::string SimUuid(int kind, int n) {
  char buf[40];
  snprintf(buf, sizeof(buf), "%08x-5151-4a6b-8c7d-%012x", kind, n);
  return buf;
}

class SimEnv : public LoadBalanceEnv {
 public:
  SimEnv(BalanceSim& sim, std::string self, const BalanceSim::Owners* snapshot)
      : sim_(sim), self_(std::move(self)), snapshot_(snapshot) {}

  int64_t Option(const std::string& name) override { return sim_.Option(name); }
  bool DiskFormatAtLeast(int) override { return true; }
  std::string SelfUuid() override { return self_; }
  std::string SiteOf(const std::string& hostUuid) override {
    for (const auto& h : sim_.Hosts()) {
      if (h.uuid == hostUuid) return h.site;
    }
    return std::string();
  }
  bool InStretchedCluster() override {
    std::set<std::string> sites;
    for (const auto& h : sim_.Hosts()) {
      if (!h.site.empty()) sites.insert(h.site);
    }
    return sites.size() >= 2;
  }
  std::vector<Host> EligibleHosts() override {
    std::vector<Host> hosts;
    for (const auto& h : sim_.Hosts()) {
      if (h.eligible) hosts.push_back({h.uuid, h.site});
    }
    return hosts;
  }
  std::vector<TargetInfo> Targets() override { return sim_.Targets(); }
  std::string OwnerOf(const std::string& objectUuid) override {
    const BalanceSim::Owners& owners = snapshot_ != nullptr ? *snapshot_ : sim_.OwnersNow();
    auto it = owners.find(objectUuid);
    return it != owners.end() ? it->second : std::string();
  }
  bool Transfer(const std::string& objectUuid, const std::string& hostUuid) override {
    return sim_.Transfer(objectUuid, OwnerOf(objectUuid), hostUuid);
  }

 private:
  BalanceSim& sim_;
  std::string self_;
  const BalanceSim::Owners* snapshot_;
};

}  // namespace

BalanceSim::BalanceSim(int method, int period) {
  options_["kelLoadBalanceMethod"] = method;
  options_["kelLoadBalancePeriod"] = period;
}

std::string BalanceSim::AddHost(const std::string& site, bool eligible) {
  hosts_.push_back({SimUuid(0x40570000, nextId_++), site, eligible});
  return hosts_.back().uuid;
}

std::string BalanceSim::AddTarget(const std::string& owner, const std::string& site, bool online,
                                  int luns) {
  TargetInfo t;
  const int n = nextId_++;
  t.uuid = SimUuid(0x7a26e700, n);
  t.ownerId = t.uuid;
  t.alias = "t" + std::to_string(n);
  t.affinitySite = site;
  for (int l = 0; l < luns; ++l) {
    LunInfo lun;
    lun.id = l;
    lun.status = online ? "online" : "offline";
    t.luns.push_back(lun);
  }
  targets_.push_back(t);
  owners_[t.uuid] = owner;
  return t.uuid;
}

std::map<std::string, int> BalanceSim::Counts() const {
  std::map<std::string, int> counts;
  for (const auto& h : hosts_) counts[h.uuid] = 0;
  for (const auto& kv : owners_) ++counts[kv.second];
  return counts;
}

int64_t BalanceSim::Option(const std::string& name) const {
  auto it = options_.find(name);
  return it != options_.end() ? it->second : 0;
}

std::unique_ptr<LoadBalanceEnv> BalanceSim::EnvFor(const std::string& host,
                                                   const Owners* snapshot) {
  return std::make_unique<SimEnv>(*this, host, snapshot);
}

bool BalanceSim::Transfer(const std::string& target, const std::string& expected,
                          const std::string& host) {
  auto it = owners_.find(target);
  if (it == owners_.end() || it->second != expected) return false;
  it->second = host;
  ++moves_[target];
  return true;
}

BalanceSim::Run BalanceSim::RunHost(const std::string& host, const Owners* snapshot) {
  auto env = EnvFor(host, snapshot);
  KelLoadBalance lb(*env);
  Run run;
  run.host = host;
  lb.InitLoadBalance();
  run.clusterLoad = lb.clusterLoad;
  auto pass = [&] {
    Pass p;
    p.mode = lb.mode;
    p.quota = lb.quota;
    p.localBefore = lb.localTargets.size();
    lb.RebalanceTargets();
    p.moved = static_cast<int>(p.localBefore - lb.localTargets.size());
    run.passes.push_back(p);
  };
  if (env->InStretchedCluster() && lb.IsTargImbalancedInSite()) pass();
  if (lb.IsTargImbalancedInCluster()) pass();
  return run;
}

const char* BalanceSim::OrderName(Order order) {
  switch (order) {
    case Order::kInTurn:
      return "in turn";
    case Order::kReverse:
      return "reverse";
    case Order::kShuffled:
      return "shuffled";
    case Order::kSimultaneous:
      return "simultaneous";
  }
  return "?";
}

BalanceSim::Convergence BalanceSim::Converge(Order order, int maxPeriods, uint32_t seed,
                                             const std::function<void(const Run&)>& onRun) {
  std::vector<std::string> eligible;
  for (const auto& h : hosts_) {
    if (h.eligible) eligible.push_back(h.uuid);
  }
  Convergence c;
  const int64_t total = static_cast<int64_t>(owners_.size());
  const int64_t hosts = static_cast<int64_t>(eligible.size());
  c.quota = hosts == 0 ? 0 : static_cast<int32_t>((total + hosts - 1) / hosts);
  auto above = [&] {
    int excess = 0;
    const std::map<std::string, int> counts = Counts();
    for (const std::string& h : eligible) excess += std::max(0, counts.at(h) - c.quota);
    return excess;
  };
  c.initialExcess = above();
  const std::map<std::string, int> movesBefore = moves_;
  std::mt19937 random(seed);
  while (c.periods < maxPeriods && above() > 0) {
    ++c.periods;
    std::vector<std::string> turn = eligible;
    if (order == Order::kReverse) std::reverse(turn.begin(), turn.end());
    if (order == Order::kShuffled) std::shuffle(turn.begin(), turn.end(), random);
    const Owners snapshot = owners_;
    int moved = 0;
    for (const std::string& host : turn) {
      Run run = RunHost(host, order == Order::kSimultaneous ? &snapshot : nullptr);
      run.period = c.periods;
      for (const Pass& p : run.passes) moved += p.moved;
      if (onRun) onRun(run);
    }
    if (moved == 0) break;
  }
  c.withinQuota = above() == 0;
  for (const auto& kv : Counts()) c.maxCount = std::max(c.maxCount, kv.second);
  for (const auto& kv : moves_) {
    auto before = movesBefore.find(kv.first);
    const int earlier = before == movesBefore.end() ? 0 : before->second;
    c.moves += kv.second - earlier;
    c.repeatedMoves += std::max(0, kv.second - earlier - 1);
  }
  return c;
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
