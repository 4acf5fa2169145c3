#include "placement/load_balancer.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <utility>

#include "directory/config_cache.h"
#include "directory/host_queries.h"
#include "host/host_options.h"
#include "placement/affinity.h"
#include "placement/consist_hash.h"
#include "platform/directory.h"
#include "platform/exception.h"
#include "platform/log.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

using HostCtl::Lib::Orsa::OrsaCtlException;
using HostCtl::Orsa::IscsiTarget::TargetInfo;

std::vector<std::string> cachedLocalTargets;
std::mutex gCachedLocalTargetsMutex;

std::vector<std::string> GetCachedLocalTargets() {
  std::lock_guard<std::mutex> guard(gCachedLocalTargetsMutex);
  return cachedLocalTargets;
}

void SetCachedLocalTargets(std::vector<std::string> uuids) {
  std::lock_guard<std::mutex> guard(gCachedLocalTargetsMutex);
  cachedLocalTargets = std::move(uuids);
}

namespace {

const char* const kTag = "Util";
constexpr int kSecondsPerPass = 15;
constexpr int kBalanceDiskFormatBaseline = 11;
constexpr size_t kMinBalanceHosts = 3;
constexpr size_t kMinLocalTargetsToMove = 3;
const char* const kZeroUuid = "00000000-0000-0000-0000-000000000000";

// The object whose owner serves the target: its owner-id, else (older entries) its namespace.
const std::string& OwnerObject(const TargetInfo& t) {
  return t.ownerId.empty() ? t.uuid : t.ownerId;
}

std::string CanonicalUuid(const std::string& text) {
  kel::platform::DirUuid parsed;
  return kel::platform::DirUuidFromText(text, &parsed) ? kel::platform::DirUuidToText(parsed)
                                                       : text;
}

class DirectoryLoadBalanceEnv : public LoadBalanceEnv {
 public:
  int64_t Option(const std::string& name) override { return KelGetTpiIntOpt("ORSA-iSCSI", name); }
  bool DiskFormatAtLeast(int baseVersion) override {
    return KelCheckDiskFormatVersion(baseVersion);
  }
  std::string SelfUuid() override { return GetNodeUuid(); }
  std::string SiteOf(const std::string& hostUuid) override { return Sites().DomainOf(hostUuid); }
  bool InStretchedCluster() override { return Sites().IsStretched(); }
  std::vector<Host> EligibleHosts() override {
    std::vector<Host> hosts;
    for (const std::string& uuid : Sites().EligibleHosts()) {
      hosts.push_back({uuid, Sites().DomainOf(uuid)});
    }
    return hosts;
  }
  std::vector<TargetInfo> Targets() override { return ConfigCache::GetTargetsInfos(); }
  // One listing of the owner records answers every target; an object without a record gets the
  // single lookup, which knows what that means on this kind of cluster.
  std::string OwnerOf(const std::string& objectUuid) override {
    if (!owners_) {
      owners_.emplace();
      NUK_ReturnStatus st = kel::platform::GetDirectory()->ListObjectOwners(&*owners_);
      if (st != NUK_OK) {
        owners_.reset();
        throw OrsaCtlException(std::string("Failed to list object owners: ") +
                               NUK_ReturnStatusToString(st));
      }
    }
    auto it = owners_->find(CanonicalUuid(objectUuid));
    if (it != owners_->end()) return it->second.hostUuid;
    return GetTargetOwnerHostUuid(objectUuid);
  }
  bool Transfer(const std::string& objectUuid, const std::string& hostUuid) override {
    return TransferObjectByUuid(objectUuid, hostUuid);
  }

 private:
  const ClusterSites& Sites() {
    if (!sites_) sites_.emplace(GetClusterSites());
    return *sites_;
  }

  std::optional<ClusterSites> sites_;
  std::optional<std::map<std::string, kel::platform::ObjectOwner>> owners_;
};

int64_t Sum(const KelLoadBalance::LoadMap& load) {
  int64_t total = 0;
  for (const auto& kv : load) total += kv.second;
  return total;
}

int32_t Quota(int64_t total, int64_t hosts) {
  return static_cast<int32_t>((total + hosts - 1) / hosts);
}

}  // namespace

std::unique_ptr<LoadBalanceEnv> MakeDirectoryLoadBalanceEnv() {
  return std::make_unique<DirectoryLoadBalanceEnv>();
}

KelLoadBalance::KelLoadBalance(LoadBalanceEnv& env) : env_(env) {
  clusterLoad.max_load_factor(1.0f);
  siteLoad.max_load_factor(1.0f);
}

void KelLoadBalance::PerformLoadBalance() {
  InitLoadBalance();
  if (env_.InStretchedCluster() && IsTargImbalancedInSite()) RebalanceTargets();
  if (IsTargImbalancedInCluster()) RebalanceTargets();
  std::vector<std::string> uuids;
  for (const TargetInfo& t : localTargets) uuids.push_back(t.uuid);
  SetCachedLocalTargets(std::move(uuids));
}

void KelLoadBalance::InitLoadBalance() {
  selfUuid = env_.SelfUuid();
  selfSite_ = env_.SiteOf(selfUuid);
  const std::vector<LoadBalanceEnv::Host> hosts = env_.EligibleHosts();
  if (hosts.size() < kMinBalanceHosts) {
    throw OrsaCtlException(
        "Not enough nodes in the cluster for load balance. The minimal 3 nodes are needed, now "
        "only " +
        std::to_string(hosts.size()));
  }
  clusterLoad.clear();
  siteLoad.clear();
  localTargets.clear();
  for (const LoadBalanceEnv::Host& h : hosts) {
    clusterLoad[h.uuid] = 0;
    if (!selfSite_.empty() && h.site == selfSite_) siteLoad[h.uuid] = 0;
  }
  for (const TargetInfo& t : env_.Targets()) {
    const std::string& object = OwnerObject(t);
    if (object.empty()) continue;
    const std::string owner = env_.OwnerOf(object);
    if (owner.empty() || owner == kZeroUuid) continue;
    // Deliberately unguarded: an owner that is not eligible counts as a loaded host, and the
    // consistent-hash method may even send targets to it.
    ++clusterLoad[owner];
    if (owner == selfUuid) localTargets.push_back(t);
    if (!t.affinitySite.empty() && t.affinitySite == selfSite_) {
      auto it = siteLoad.find(owner);
      if (it != siteLoad.end()) ++it->second;
    }
  }
}

bool KelLoadBalance::IsTargImbalancedInCluster() {
  if (clusterLoad.empty()) return false;
  quota = Quota(Sum(clusterLoad), static_cast<int64_t>(clusterLoad.size()));
  if (quota < static_cast<int64_t>(localTargets.size())) {
    mode = 0;
    return true;
  }
  return false;
}

bool KelLoadBalance::IsTargImbalancedInSite() {
  const int64_t total = Sum(siteLoad);
  const int64_t pinned = std::count_if(localTargets.begin(), localTargets.end(),
                                       [](const TargetInfo& t) { return !t.affinitySite.empty(); });
  if (siteLoad.size() < 2) return false;
  quota = Quota(total, static_cast<int64_t>(siteLoad.size()));
  if (quota < pinned) {
    mode = 1;
    return true;
  }
  return false;
}

bool KelLoadBalance::SkipBalanceForTarget(const TargetInfo& target) const {
  // Pinned targets are balanced only within their site, the others only over the cluster.
  if (mode == 1 && target.affinitySite.empty()) return true;
  if (mode == 0 && !target.affinitySite.empty()) return true;
  return std::none_of(
      target.luns.begin(), target.luns.end(),
      [](const HostCtl::Orsa::IscsiTarget::LunInfo& l) { return l.status == "online"; });
}

void KelLoadBalance::RebalanceTargets() {
  if (localTargets.size() < kMinLocalTargetsToMove) return;
  RebalanceMap result;
  GenerateRebalanceMap(result);
  for (const auto& entry : result) {
    const std::string& uuid = entry.first;
    const std::string& dest = entry.second;
    auto it = std::find_if(localTargets.begin(), localTargets.end(),
                           [&uuid](const TargetInfo& t) { return t.uuid == uuid; });
    if (it == localTargets.end()) continue;
    LogInfo("%s: Move target (%s) to DestNode: %s", kTag, uuid.c_str(), dest.c_str());
    if (!env_.Transfer(OwnerObject(*it), dest)) continue;
    // The counts follow the move, so that the cluster pass after a site pass starts from where
    // the site pass left the hosts.
    --clusterLoad[selfUuid];
    ++clusterLoad[dest];
    if (!it->affinitySite.empty() && it->affinitySite == selfSite_ && siteLoad.count(dest) != 0) {
      --siteLoad[selfUuid];
      ++siteLoad[dest];
    }
    localTargets.erase(it);
  }
}

void KelLoadBalance::GenerateRebalanceMap(RebalanceMap& result) {
  const int64_t method = env_.Option("kelLoadBalanceMethod");
  const LoadMap load = mode == 0 ? clusterLoad : siteLoad;
  if (method == 1) {
    GreedyLoadBalance(load, result);
  } else if (method == 2) {
    ConsistHashBalance(load, result);
  }
}

void KelLoadBalance::GreedyLoadBalance(const LoadMap& load, RebalanceMap& result) {
  // Most loaded first; equal counts in UUID order, so that every host sorts alike.
  std::vector<std::pair<std::string, int32_t>> hosts(load.begin(), load.end());
  std::sort(hosts.begin(), hosts.end(), [](const auto& a, const auto& b) {
    return a.second != b.second ? a.second > b.second : a.first < b.first;
  });
  auto self = std::find_if(hosts.begin(), hosts.end(),
                           [this](const auto& h) { return h.first == selfUuid; });
  if (self == hosts.end()) return;
  const int64_t excess = static_cast<int64_t>(self->second) - quota;
  if (excess <= 0) return;
  // Hosts sorted above this one shed first: the spare room of the least loaded hosts goes to them
  // in sort order, and this host takes the room that follows theirs. Hosts working from the same
  // snapshot thus fill disjoint slices of the spare room and none is pushed over quota.
  int64_t claimedAbove = 0;
  for (auto h = hosts.begin(); h != self; ++h) {
    claimedAbove += std::max<int64_t>(0, static_cast<int64_t>(h->second) - quota);
  }
  std::vector<std::pair<std::string, int64_t>> shares;  // least loaded first
  int64_t needed = excess;
  for (auto h = hosts.rbegin(); h != hosts.rend() && needed > 0; ++h) {
    int64_t room = static_cast<int64_t>(quota) - h->second;
    if (room <= 0) continue;
    const int64_t taken = std::min(room, claimedAbove);
    room -= taken;
    claimedAbove -= taken;
    const int64_t share = std::min(room, needed);
    if (share <= 0) continue;
    shares.emplace_back(h->first, share);
    needed -= share;
  }
  auto target = localTargets.begin();
  for (const auto& [host, share] : shares) {
    for (int64_t given = 0; given < share; ++given) {
      while (target != localTargets.end() && SkipBalanceForTarget(*target)) ++target;
      if (target == localTargets.end()) return;
      result.emplace(target->uuid, host);
      ++target;
    }
  }
}

void KelLoadBalance::ConsistHashBalance(const LoadMap& load, RebalanceMap& result) {
  std::map<std::string, int> capacity;
  for (const auto& [host, count] : load) {
    if (count < quota) capacity[host] = quota - count;
  }
  if (capacity.empty()) return;
  ConsistHash ring(capacity);
  const int64_t limit = static_cast<int64_t>(localTargets.size()) - quota;
  if (localTargets.empty() || limit < 1) return;
  int64_t moves = 0;
  for (const TargetInfo& t : localTargets) {
    if (SkipBalanceForTarget(t)) continue;
    std::string host;
    if (capacity.size() > 1) {
      host = ring.FindHashNode(t.uuid);
      auto room = capacity.find(host);
      if (room != capacity.end() && room->second <= quota / 8) {
        ring.RemoveHashNode(host);
        capacity.erase(room);
        // Taken as it comes: the second lookup is not checked again.
        host = ring.FindHashNode(t.uuid);
      }
    } else if (capacity.size() == 1) {
      host = capacity.begin()->first;
    }
    if (host.empty()) continue;
    ++moves;
    --capacity[host];
    result.emplace(t.uuid, host);  // the first entry for a uuid wins
    if (moves >= limit) break;
  }
}

KelLoadBalanceWorker::KelLoadBalanceWorker(LoadBalanceEnv& env)
    : balanceJob(std::make_unique<KelLoadBalance>(env)), env_(env) {}

KelLoadBalanceWorker::~KelLoadBalanceWorker() = default;

bool KelLoadBalanceWorker::ValidateLoadBalance(int passCount) {
  if (env_.Option("kelLoadBalanceMethod") == 0) return false;
  const int64_t period = env_.Option("kelLoadBalancePeriod");
  // A period of 0 (or less) cannot be a boundary of elapsed time: balancing is off.
  if (period <= 0) return false;
  if ((static_cast<int64_t>(passCount) * kSecondsPerPass) % (period * 60) != 0) return false;
  if (!env_.DiskFormatAtLeast(kBalanceDiskFormatBaseline)) {
    throw OrsaCtlException(
        "Some hosts didn't finish Disk Format upgrade of Orsa 7.0u1, reject load balance until "
        "upgrade completed.");
  }
  return true;
}

void KelLoadBalanceWorker::StartLoadBalance() {
  if (!balanceJob) {
    LogError("%s: Abort loadbalance as balanceJob is empty", kTag);
    return;
  }
  balanceJob->PerformLoadBalance();
}

void PerformTargetLoadBlanceWith(LoadBalanceEnv& env, int passCount) {
  try {
    KelLoadBalanceWorker worker(env);
    if (worker.ValidateLoadBalance(passCount)) worker.StartLoadBalance();
  } catch (const OrsaCtlException& e) {
    LogError("%s: Target load balance failed: %s", kTag, e.GetMessage().c_str());
  } catch (const std::exception& e) {
    LogError("%s: Target load balance failed: %s", kTag, e.what());
  }
}

void PerformTargetLoadBlance(int passCount) {
  std::unique_ptr<LoadBalanceEnv> env = MakeDirectoryLoadBalanceEnv();
  PerformTargetLoadBlanceWith(*env, passCount);
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
