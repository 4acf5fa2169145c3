// Site affinity checks: whether a target may be pinned to a site of a stretched cluster, and
// whether a target's site agrees with its storage policy's locality, choosing a host inside a site,
// and the checks that keep pinned targets in their site.
//
// A stretched cluster spreads its hosts over two fault domains (sites), "Preferred" and
// "NonPreferred". A target pinned to a site (`affinitySite`) must be served from that site, so its
// storage policy must not ask for the other site's locality.
//
// A site name as a target carries it is the role of a fault domain; which site holds which role is
// decided by the directory's preferred-site setting (directory/host_queries.h).
//
// The validation checks log with the tag "Util" and throw HostCtl::Lib::Orsa::OrsaCtlException
// with the system's message; none of them changes anything. Lookups and selections log and return
// an empty string instead of throwing; an empty host means that nothing moves.
//
// Thread-safety: all functions may run concurrently.
#pragma once

#include <string>

#include "platform/directory.h"
#include "platform/policy.h"
#include "records/records.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

// The on-disk format version of this build, which every host publishes in its member record. It
// carries everything the service's format baselines ask for (11 for load balancing, 13 for site
// affinity).
inline constexpr int kKelDiskFormatVersion = kel::platform::kDiskFormatVersion;

// The cluster's disk format version: the maximum over the live members' published versions (0
// for a member that published none). Logs "Retrieve current DiskVersinInCluster: <v>, baseVersion:
// <base>." and answers whether it is at least `baseVersion`. Throws when the directory cannot be
// read.
bool KelCheckDiskFormatVersion(int baseVersion);

// True when the live members of the cluster (witnesses left out) span two or more sites. A
// directory that cannot be read answers false (logged).
bool IsInStretchedCluster();

// Returns true, or throws the first failing rule: the feature switch "KelStretchedCluster" (host
// option group "ORSA") must be on, the host must be in a stretched cluster, and the disk format
// baseline 13 must be met.
bool ValidateSiteAffinity();

// A new target: when both its site and its policy are given, they must agree by the LUNs'
// locality rule (Util::IsPolicyLocalityCompatible, host/validation.h), else
// "Incompatible between Target location and policy locality". Either empty: nothing is checked.
void VerifyNewTargetAffinity(const HostCtl::Orsa::IscsiTarget::TargetCreateParam& param);

// An update of `current` with `param` (update semantics: an empty site or policy keeps the
// current one, the site "None" clears it):
//   - pinning the target to a site it is not pinned to yet needs ValidateSiteAffinity();
//   - the resulting site and the resulting policy must agree (the message above). The current
//     policy of the target's namespace object is read through `handle` only when the update does
//     not bring a policy of its own; without a handle it is not read, and only a given policy is
//     checked.
void VerifyUpdateTargetAffinity(OrsaComplianceHandle* handle,
                                const HostCtl::Orsa::IscsiTarget::TargetCreateParam& param,
                                const HostCtl::Orsa::IscsiTarget::TargetInfo& current);

// The fault-domain UUID of "Preferred" or "NonPreferred"; empty for any other name, when no site
// holds that role, or for an empty name (logged "%s: Get affinityFdUuid with empty Name").
std::string GetAffinityFdUuid(const std::string& siteName);
// The first fault domain of the cluster (in site name order) other than `preferredUuid`; empty
// when there is none.
std::string GetNonPreferredFaultDomainId(const std::string& preferredUuid);
// A random eligible host of the site ("Preferred"/"NonPreferred"), logged "%s: Random Idx[%d]
// select host: %s"; empty, logged, for an empty name or a site without eligible hosts.
std::string SelectHostInFaultDomain(const std::string& faultDomainName);

// Moves `target` to a random eligible host of its site when it is pinned and its owner is not a
// host of that site. True when it moved. Throws on directory failures. Run after an update of a
// target has been written, so that a target pinned to another site moves there at once.
bool KeepTargetInSite(const HostCtl::Orsa::IscsiTarget::TargetInfo& target);

// The control thread's periodic check: when site affinity may be used (ValidateSiteAffinity; the
// refusal is logged), RefreshLocalTargetAffinity. Never throws: failures are logged.
void CheckLocalTargetAffinity();
// Brings every pinned target that this host owns back to an eligible host of its site, and
// replaces Util::cachedLocalTargets with the targets that stay. Returns how many moved. Throws on
// directory or configuration failures.
int RefreshLocalTargetAffinity();
// Re-reads which targets are local (Util::cachedLocalTargets) after a failed control pass, so that
// the next pass starts from what the directory says. Never throws.
void ValidateLocalTargetsInfo();

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
