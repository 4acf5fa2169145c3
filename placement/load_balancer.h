// The load balancer: each host sheds the targets it owns above its fair share to less loaded
// hosts, by moving ownership of the targets' namespace objects. Run from the control thread.
//
// No host coordinates with another. Every host looks at the same directory and configuration, so
// hosts shedding at the same moment compute the same quotas and (with the consistent-hash method)
// tend to pick the same destinations for the same targets; the cluster converges over several
// runs. In a stretched cluster a run first evens out the targets pinned to this host's site among
// the hosts of that site, then the unpinned targets over the whole cluster.
//
// Host options (group "ORSA-iSCSI"): "kelLoadBalanceMethod" 0 off, 1 greedy, 2 consistent hash;
// "kelLoadBalancePeriod" the period in minutes (0 is off). Log tag "Util".
//
// Thread-safety: a run and its objects are private to the control thread. Util::cachedLocalTargets
// is replaced only at the end of a run (and by the site checks of placement/affinity.h), under
// gCachedLocalTargetsMutex; other threads read it through GetCachedLocalTargets().
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "records/records.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

// The uuid of every target this host owned after the last balancer run. Guarded by
// gCachedLocalTargetsMutex.
extern std::vector<std::string> cachedLocalTargets;
extern std::mutex gCachedLocalTargetsMutex;
std::vector<std::string> GetCachedLocalTargets();
void SetCachedLocalTargets(std::vector<std::string> uuids);

// The control thread's entry: `passCount` is its pass counter (one pass per 15 seconds). Decides
// whether a run is due and runs it. Never throws: failures are logged at error level.
void PerformTargetLoadBlance(int passCount);

// What a run reads from the cluster and the one thing it changes there. The default reads the
// process's directory and configuration cache; a simulation or benchmark supplies its own. One
// object serves one run, so it may answer every membership question from one reading.
class LoadBalanceEnv {
 public:
  struct Host {
    std::string uuid;
    std::string site;  // site domain: "Preferred", "NonPreferred" or ""
  };

  virtual ~LoadBalanceEnv() = default;
  // Host integer option of group "ORSA-iSCSI"; 0 when absent.
  virtual int64_t Option(const std::string& name) = 0;
  // Whether the cluster's disk format version is at least `baseVersion` (logs the versions).
  virtual bool DiskFormatAtLeast(int baseVersion) = 0;
  virtual std::string SelfUuid() = 0;
  // The site domain of a host ("Preferred", "NonPreferred" or "").
  virtual std::string SiteOf(const std::string& hostUuid) = 0;
  virtual bool InStretchedCluster() = 0;
  // The eligible-host builder: the hosts that may serve targets (logs each one left out).
  virtual std::vector<Host> EligibleHosts() = 0;
  // Every target of the configuration, in configuration order.
  virtual std::vector<HostCtl::Orsa::IscsiTarget::TargetInfo> Targets() = 0;
  // The host owning the object; empty when nobody does.
  virtual std::string OwnerOf(const std::string& objectUuid) = 0;
  // Moves the object to the host (compare-and-swap); false when it did not move.
  virtual bool Transfer(const std::string& objectUuid, const std::string& hostUuid) = 0;
};

// The default environment: the process's directory, host options and configuration cache.
std::unique_ptr<LoadBalanceEnv> MakeDirectoryLoadBalanceEnv();

// One balancing run over the cluster as `env` shows it.
class KelLoadBalance {
 public:
  using LoadMap = std::unordered_map<std::string, int32_t>;
  using RebalanceMap = std::map<std::string, std::string>;  // target uuid -> destination host

  explicit KelLoadBalance(LoadBalanceEnv& env);

  // Init, the site pass when stretched and imbalanced, the cluster pass when imbalanced, then
  // cachedLocalTargets replaced with what stays local. Throws OrsaCtlException (fewer than 3
  // eligible hosts, directory or configuration failures).
  void PerformLoadBalance();
  void InitLoadBalance();
  bool IsTargImbalancedInSite();
  bool IsTargImbalancedInCluster();
  // Moves the targets chosen by GenerateRebalanceMap; a moved target leaves localTargets.
  void RebalanceTargets();
  void GenerateRebalanceMap(RebalanceMap& result);
  void GreedyLoadBalance(const LoadMap& load, RebalanceMap& result);
  void ConsistHashBalance(const LoadMap& load, RebalanceMap& result);
  // Whether the target stays where it is in the current pass.
  bool SkipBalanceForTarget(const HostCtl::Orsa::IscsiTarget::TargetInfo& target) const;

  int32_t quota = 0;     // fair share computed by the last imbalance test
  std::string selfUuid;  // this host's node UUID
  int32_t mode = 0;      // 0 cluster pass, 1 site pass
  LoadMap clusterLoad;   // targets owned per host, whole cluster
  LoadMap siteLoad;      // targets pinned to this host's site, per host of that site
  std::vector<HostCtl::Orsa::IscsiTarget::TargetInfo> localTargets;  // owned here, config order

 private:
  LoadBalanceEnv& env_;
  std::string selfSite_;
};

// One pass of the control thread: decides whether a run is due and runs it.
class KelLoadBalanceWorker {
 public:
  explicit KelLoadBalanceWorker(LoadBalanceEnv& env);
  ~KelLoadBalanceWorker();

  // Whether a run is due at `passCount`. Throws "Some hosts didn't finish Disk Format upgrade of
  // Orsa 7.0u1, reject load balance until upgrade completed." when the cluster's disk format
  // version is below 11.
  bool ValidateLoadBalance(int passCount);
  void StartLoadBalance();

  std::unique_ptr<KelLoadBalance> balanceJob;

 private:
  LoadBalanceEnv& env_;
};

// PerformTargetLoadBlance over `env` (simulations, benchmarks). Never throws.
void PerformTargetLoadBlanceWith(LoadBalanceEnv& env, int passCount);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
