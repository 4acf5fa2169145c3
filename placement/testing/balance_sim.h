// An in-memory cluster for the load balancer (simulations, tests and benchmarks): hosts with their
// sites, targets with their owners, and a LoadBalanceEnv for any host, reading either the live
// state (hosts taking turns) or a snapshot taken before a round (hosts running at the same moment).
// Moves are compare-and-swaps against the owner the run saw, as in the directory. Not thread-safe.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "placement/load_balancer.h"
#include "records/records.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

class BalanceSim {
 public:
  struct SimHost {
    std::string uuid;
    std::string site;  // site domain
    bool eligible = true;
  };
  using Owners = std::map<std::string, std::string>;  // target uuid -> host uuid

  // Method and period options of every host (period in minutes).
  BalanceSim(int method, int period = 1);

  // Adds a host with a UUID of its own; returns it.
  std::string AddHost(const std::string& site = "", bool eligible = true);
  // Adds a target owned by `owner`, pinned to `site` when not empty, with one LUN that is online
  // or offline (or none at all with `luns` 0); returns its uuid.
  std::string AddTarget(const std::string& owner, const std::string& site = "", bool online = true,
                        int luns = 1);

  const std::vector<SimHost>& Hosts() const { return hosts_; }
  const std::vector<HostCtl::Orsa::IscsiTarget::TargetInfo>& Targets() const { return targets_; }
  const Owners& OwnersNow() const { return owners_; }
  // Targets per host (every host listed, 0 included).
  std::map<std::string, int> Counts() const;
  // Successful moves per target uuid since construction.
  const std::map<std::string, int>& Moves() const { return moves_; }
  int64_t Option(const std::string& name) const;
  void SetOption(const std::string& name, int64_t value) { options_[name] = value; }

  // The environment of `host`; it reads `snapshot` when given (which must outlive it), else the
  // live owners.
  std::unique_ptr<LoadBalanceEnv> EnvFor(const std::string& host, const Owners* snapshot = nullptr);

  // Moves the target when its live owner is still `expected`.
  bool Transfer(const std::string& target, const std::string& expected, const std::string& host);

  // One pass of a run (site or cluster) as it went.
  struct Pass {
    int32_t mode = 0;
    int32_t quota = 0;
    size_t localBefore = 0;
    int moved = 0;
  };
  // One host's run: the steps of KelLoadBalance::PerformLoadBalance, observed between passes.
  struct Run {
    std::string host;
    int period = 0;  // set by Converge, from 1
    std::vector<Pass> passes;
    KelLoadBalance::LoadMap clusterLoad;  // as gathered, before any move
  };
  Run RunHost(const std::string& host, const Owners* snapshot = nullptr);

  // Orders in which the hosts run within one balancing period: one after the other (each seeing
  // the moves of those before it) in host order, in reverse order, in an order shuffled anew each
  // period; or all from one snapshot taken at the start of the period.
  enum class Order { kInTurn, kReverse, kShuffled, kSimultaneous };
  static const char* OrderName(Order order);

  struct Convergence {
    int periods = 0;           // periods run
    bool withinQuota = false;  // no eligible host above the cluster quota at the end
    int32_t quota = 0;         // ceil(targets / eligible hosts)
    int maxCount = 0;          // most targets on one host at the end
    int initialExcess = 0;     // sum of the hosts' counts above quota at the start
    int moves = 0;
    int repeatedMoves = 0;  // moves of a target after its first
  };
  // Runs periods (every eligible host one run) until no eligible host is above quota or a period
  // moves nothing, at most `maxPeriods`. `onRun` sees every run.
  Convergence Converge(Order order, int maxPeriods, uint32_t seed = 1,
                       const std::function<void(const Run&)>& onRun = nullptr);

 private:
  std::vector<SimHost> hosts_;
  std::vector<HostCtl::Orsa::IscsiTarget::TargetInfo> targets_;
  Owners owners_;
  std::map<std::string, int> moves_;
  std::map<std::string, int64_t> options_;
  int nextId_ = 1;
};

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
