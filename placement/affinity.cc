#include "placement/affinity.h"

#include <algorithm>
#include <random>
#include <vector>

#include "directory/config_cache.h"
#include "directory/host_queries.h"
#include "host/host_options.h"
#include "host/validation.h"
#include "placement/load_balancer.h"
#include "platform/directory.h"
#include "platform/exception.h"
#include "platform/log.h"
#include "storage/policy_ops.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;
using HostCtl::Orsa::IscsiTarget::TargetCreateParam;
using HostCtl::Orsa::IscsiTarget::TargetInfo;

const char* const kTag = "Util";
const char* const kIncompatible = "Incompatible between Target location and policy locality";
constexpr int kAffinityDiskFormatBaseline = 13;

bool IsPinnedSite(const std::string& site) { return site == "Preferred" || site == "NonPreferred"; }

const std::string& OwnerObject(const TargetInfo& t) {
  return t.ownerId.empty() ? t.uuid : t.ownerId;
}

std::string SelectHost(const ClusterSites& sites, const std::string& faultDomainName) {
  if (faultDomainName.empty()) {
    LogError("%s: Skip select as empty faultDomain Name", kTag);
    return std::string();
  }
  std::vector<std::string> hosts = sites.EligibleHosts(faultDomainName);
  if (hosts.empty()) {
    LogWarning("%s: Empty hostList for FD: %s", kTag, faultDomainName.c_str());
    return std::string();
  }
  thread_local std::mt19937 random{std::random_device{}()};
  const int idx =
      static_cast<int>(std::uniform_int_distribution<size_t>(0, hosts.size() - 1)(random));
  LogInfo("%s: Random Idx[%d] select host: %s", kTag, idx, hosts[idx].c_str());
  return hosts[idx];
}

// `owner` is the target's current owner; nothing moves when it is a host of the target's site.
bool MoveIntoSite(const ClusterSites& sites, const TargetInfo& target, const std::string& owner) {
  if (!IsPinnedSite(target.affinitySite)) return false;
  if (!owner.empty() && sites.DomainOf(owner) == target.affinitySite) return false;
  const std::string dest = SelectHost(sites, target.affinitySite);
  if (dest.empty()) return false;
  LogInfo("%s: Target %s is pinned to site %s but served by host %s, moving it to host %s", kTag,
          target.alias.c_str(), target.affinitySite.c_str(), owner.c_str(), dest.c_str());
  return TransferObjectByUuid(OwnerObject(target), dest);
}

}  // namespace

bool KelCheckDiskFormatVersion(int baseVersion) {
  int version = 0;
  for (const kel::platform::MemberRecord& m : GetClusterMembers()) {
    version = std::max(version, m.diskFormatVersion);
  }
  LogInfo("%s: Retrieve current DiskVersinInCluster: %d, baseVersion: %d.", kTag, version,
          baseVersion);
  return version >= baseVersion;
}

bool IsInStretchedCluster() {
  std::vector<kel::platform::MemberRecord> members;
  NUK_ReturnStatus status;
  try {
    status = kel::platform::GetDirectory()->ListMembers(&members);
  } catch (const OrsaCtlException& e) {
    LogWarning("%s: Cannot read the cluster members: %s", kTag, e.GetMessage().c_str());
    return false;
  }
  if (status != NUK_OK) {
    LogWarning("%s: Cannot read the cluster members: %s", kTag, NUK_ReturnStatusToString(status));
    return false;
  }
  return ClusterSites(std::move(members), std::string()).IsStretched();
}

bool ValidateSiteAffinity() {
  if (!IsKelFeatureEnabled("KelStretchedCluster")) {
    throw OrsaCtlException("KEL support stretched cluster is disabled");
  }
  if (!IsInStretchedCluster()) {
    throw OrsaCtlException("This host is not in stretched cluster");
  }
  if (!KelCheckDiskFormatVersion(kAffinityDiskFormatBaseline)) {
    throw OrsaCtlException(
        "Some hosts didn't finish disk format upgrade of Orsa 7.0u1, rejecting kel affinity check "
        "until upgrade is completed.");
  }
  return true;
}

void VerifyNewTargetAffinity(const TargetCreateParam& param) {
  if (param.affinitySite.empty() || param.storagePolicy.empty()) return;
  if (!IsPolicyLocalityCompatible(param.affinitySite, param.storagePolicy)) {
    LogError("%s: Target %s with site %s rejects policy %s", kTag, param.alias.c_str(),
             param.affinitySite.c_str(), param.storagePolicy.c_str());
    throw OrsaCtlException(kIncompatible);
  }
}

void VerifyUpdateTargetAffinity(OrsaComplianceHandle* handle, const TargetCreateParam& param,
                                const TargetInfo& current) {
  const std::string site = param.affinitySite.empty() ? current.affinitySite : param.affinitySite;
  const bool newPin =
      IsPinnedSite(param.affinitySite) && param.affinitySite != current.affinitySite;
  if (newPin) ValidateSiteAffinity();
  if (!IsPinnedSite(site)) return;
  // Nothing that decides the pairing changes: what is in place was accepted before.
  if (!newPin && param.storagePolicy.empty()) return;

  std::string policy = param.storagePolicy;
  if (policy.empty() && handle != nullptr && !current.uuid.empty()) {
    bool compliant = false;
    GetPolicyComplianceStatusForObject(handle, current.uuid, policy, compliant, true);
  }
  if (policy.empty()) return;
  if (!IsPolicyLocalityCompatible(site, policy)) {
    LogError("%s: Target %s with site %s rejects policy %s", kTag, param.alias.c_str(),
             site.c_str(), policy.c_str());
    throw OrsaCtlException(kIncompatible);
  }
}

std::string GetAffinityFdUuid(const std::string& siteName) {
  if (siteName.empty()) {
    LogWarning("%s: Get affinityFdUuid with empty Name", kTag);
    return std::string();
  }
  std::string preferredUuid, preferredName;
  if (!GetPreferredFaultDomainInfo(preferredUuid, preferredName)) return std::string();
  if (siteName == "Preferred") return preferredUuid;
  if (siteName == "NonPreferred") return GetNonPreferredFaultDomainId(preferredUuid);
  return std::string();
}

std::string GetNonPreferredFaultDomainId(const std::string& preferredUuid) {
  for (const FaultDomain& d : GetClusterSites().FaultDomains()) {
    if (d.uuid != preferredUuid) return d.uuid;
  }
  return std::string();
}

std::string SelectHostInFaultDomain(const std::string& faultDomainName) {
  if (faultDomainName.empty()) return SelectHost(ClusterSites({}, std::string()), faultDomainName);
  return SelectHost(GetClusterSites(), faultDomainName);
}

bool KeepTargetInSite(const TargetInfo& target) {
  if (!IsPinnedSite(target.affinitySite) || OwnerObject(target).empty()) return false;
  const std::string owner = GetTargetOwnerHostUuid(OwnerObject(target));
  return MoveIntoSite(GetClusterSites(), target, owner);
}

int RefreshLocalTargetAffinity() {
  const ClusterSites sites = GetClusterSites();
  const std::string self = GetNodeUuid();
  int moved = 0;
  std::vector<std::string> local;
  for (const TargetInfo& t : ConfigCache::GetTargetsInfos()) {
    if (OwnerObject(t).empty() || GetTargetOwnerHostUuid(OwnerObject(t)) != self) continue;
    if (MoveIntoSite(sites, t, self)) {
      ++moved;
    } else {
      local.push_back(t.uuid);
    }
  }
  SetCachedLocalTargets(std::move(local));
  return moved;
}

void CheckLocalTargetAffinity() {
  try {
    ValidateSiteAffinity();
  } catch (const OrsaCtlException& e) {
    LogInfo("%s: Skip local target affinity check: %s", kTag, e.GetMessage().c_str());
    return;
  }
  try {
    RefreshLocalTargetAffinity();
  } catch (const OrsaCtlException& e) {
    LogWarning("%s: Local target affinity check failed: %s", kTag, e.GetMessage().c_str());
  } catch (const std::exception& e) {
    LogWarning("%s: Local target affinity check failed: %s", kTag, e.what());
  }
}

void ValidateLocalTargetsInfo() {
  try {
    const std::string self = GetNodeUuid();
    std::vector<std::string> local;
    for (const TargetInfo& t : ConfigCache::GetTargetsInfos()) {
      if (!OwnerObject(t).empty() && GetTargetOwnerHostUuid(OwnerObject(t)) == self) {
        local.push_back(t.uuid);
      }
    }
    SetCachedLocalTargets(std::move(local));
  } catch (const OrsaCtlException& e) {
    LogWarning("%s: Failed to refresh the local targets: %s", kTag, e.GetMessage().c_str());
  } catch (const std::exception& e) {
    LogWarning("%s: Failed to refresh the local targets: %s", kTag, e.what());
  }
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
