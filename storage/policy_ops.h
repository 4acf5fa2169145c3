// Storage policy operations of the service: verifying policy texts, the datastore default policy,
// compliance queries and applying a policy to a LUN's disk. Tag "Util"; failures are
// HostCtl::Lib::Orsa::OrsaCtlException.
//
// Messages chosen here:
//   "Invalid storage policy '<text>': <reason>"            a policy that does not verify
//   "Orsa compliance lib is not initialized"               a query without a compliance handle
//   "Failed to update policy of LUN <id> on target <alias> with error: <inner>"
//   "Failed to set datastore default policy with error: <inner>"
#pragma once

#include <string>

#include "platform/policy.h"
#include "records/records.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

// Throws when `policy` does not parse; the empty policy always verifies.
void VerifyPolicy(const std::string& policy);

// The datastore's default policy ("" when none was set) and its replacement (verified first).
std::string GetDatastoreDefaultPolicy();
void SetDatastoreDefaultPolicy(const std::string& policy);

// Policy and compliance of the storage object `objectUuid`: a target namespace when `isNamespace`
// is true, else a LUN disk (found as "<uuid>.pemo" in any namespace of the datastore). A missing
// object gives an empty policy and false; so does an object whose stored policy is unreadable.
void GetPolicyComplianceStatusForObject(OrsaComplianceHandle* handle, const std::string& objectUuid,
                                        std::string& policy, bool& compliant, bool isNamespace);
// Fills lun.storagePolicy and lun.policyCompliant for the disk at lun.path (absolute).
void GetPolicyComplianceStatusForLun(OrsaComplianceHandle* handle,
                                     HostCtl::Orsa::IscsiTarget::LunInfo& lun);
// Fills info.storagePolicy and info.policyCompliant for the configuration namespace.
void GetPolicyComplianceStatusForNamespace(OrsaComplianceHandle* handle,
                                           HostCtl::Orsa::IscsiTarget::NamespaceInfo& info);
// Applies lun.storagePolicy to the LUN's disk: lun.path when set (absolute), else the path that
// kel.conf gives for (lun.targetAlias, lun.id). An empty policy is refused by the caller's rules
// (UpdateLun only calls this with a policy); here it means the datastore default.
void UpdateLunPolicy(const HostCtl::Orsa::IscsiTarget::LunInfo& lun);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
