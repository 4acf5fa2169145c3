#include "placement/affinity.h"

#include <set>
#include <vector>

#include "host/host_options.h"
#include "host/validation.h"
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

}  // namespace

bool KelCheckDiskFormatVersion(int baseVersion) {
  LogInfo("%s: Retrieve current DiskVersinInCluster: %d, baseVersion: %d.", kTag,
          kKelDiskFormatVersion, baseVersion);
  return kKelDiskFormatVersion >= baseVersion;
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
  std::set<std::string> sites;
  for (const auto& m : members) {
    if (!m.witness && !m.site.empty()) sites.insert(m.site);
  }
  return sites.size() >= 2;
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

// The site moves are being built; until then the check moves nothing.
void CheckLocalTargetAffinity() {}
void ValidateLocalTargetsInfo() {}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
