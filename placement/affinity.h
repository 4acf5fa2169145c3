// Site affinity checks: whether a target may be pinned to a site of a stretched cluster, and
// whether a target's site agrees with its storage policy's locality, and the periodic check that
// keeps pinned targets in their site.
//
// A stretched cluster spreads its hosts over two fault domains (sites), "Preferred" and
// "NonPreferred". A target pinned to a site (`affinitySite`) must be served from that site, so its
// storage policy must not ask for the other site's locality.
//
// Every check logs with the tag "Util" and throws HostCtl::Lib::Orsa::OrsaCtlException with the
// system's message; none of them changes anything.
//
// Thread-safety: all functions may run concurrently.
#pragma once

#include <string>

#include "platform/policy.h"
#include "records/records.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

// The on-disk format version of every host of this build. Linux hosts share one format, which
// carries everything the service's format baselines ask for (11 for load balancing, 13 for site
// affinity).
inline constexpr int kKelDiskFormatVersion = 13;

// Logs "Retrieve current DiskVersinInCluster: <v>, baseVersion: <base>." and answers whether the
// cluster's disk format version is at least `baseVersion`.
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

// The control thread's periodic check: every local target pinned to a site is brought back to an
// eligible host of that site when this host is not one. Never throws: failures are logged.
void CheckLocalTargetAffinity();
// Re-reads which targets are local after a failed control pass, so that the next pass starts from
// what the directory says. Never throws.
void ValidateLocalTargetsInfo();

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
