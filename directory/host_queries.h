// Queries about hosts and objects, and the ownership moves of target objects, over the process's
// cluster directory (platform/directory.h). Log tag "Util".
//
// Hosts: the live members of the cluster. A host is eligible to serve targets when it is not a
// witness, not in maintenance and not being (or done being) decommissioned.
// Objects: a target's owner-id object is owned by one host, recorded persistently in the
// directory; ownership changes only by compare-and-swap, so two hosts moving the same object at
// once cannot both win. On the embedded one-host directory an object without a record belongs to
// this host.
//
// Failures to reach the directory are OrsaCtlException (with the status text), except where a
// function is documented to log and return.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "platform/directory.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

// This host's node UUID (8-4-4-4-12).
std::string GetNodeUuid();

// Whether a member can serve targets: not a witness, not in maintenance, not decommissioned.
bool IsEligibleMember(const kel::platform::MemberRecord& member);

// Live members, ordered by UUID.
std::vector<kel::platform::MemberRecord> GetClusterMembers();

// UUIDs of the eligible members, ordered; with `site` non-empty only those of that site. Logs
// "%s: Skip node(%s)" for each member left out as unable to serve.
std::vector<std::string> GetEligibleHosts(const std::string& site = std::string());

// The site (fault domain name) of a host, this host when `hostUuid` is empty; empty when the host
// has none or is not a member.
std::string GetNodeSiteDomain(const std::string& hostUuid = std::string());

// The host that owns the object `ownerId`; empty when nobody does.
std::string GetTargetOwnerHostUuid(const std::string& ownerId);

// The hosts that can own the object: the live eligible members.
std::set<std::string> QueryHostUuidsForObject(const std::string& objectUuid);

// A member's name; empty when `hostUuid` is not a live member.
std::string GetHostNameFromUuid(const std::string& hostUuid);

// Waits (1 s steps on the process clock, at most `maxWaitSeconds`) while this host's
// decommissioning is in progress. True when it is complete or was never started.
bool WaitForNodeDecomComplete(int maxWaitSeconds = 600);

// Moves the object to `hostUuid` by compare-and-swap against the owner record as read here.
// Logs "%s: Move local target Object (%s) to dest Node (%s)"; on failure (destination not an
// eligible member, the record changed meanwhile, directory failure) logs "%s: Failed to transfer
// target uuid %s (%s)" and returns false.
bool TransferObjectByUuid(const std::string& objectUuid, const std::string& hostUuid);

// Sets the owner whatever it was (retrying the swap while others change it). Throws.
void SetObjectOwner(const std::string& objectUuid, const std::string& hostUuid);
// Makes this host the owner of a newly created object. Throws.
void ClaimObjectOwnership(const std::string& objectUuid);
// Forgets the owner record of a deleted object; a missing record is fine. Throws on failure.
void ReleaseObjectOwnership(const std::string& objectUuid);

// Maintenance: this host stops being eligible (its decommissioning completes at once: there is no
// data to move off a shared datastore), and becomes eligible again on exit. Throw on failure.
void EnterMaintenanceMode();
void ExitMaintenanceMode();
// This host leaves / joins the cluster membership. Throw on failure.
void LeaveCluster();
void JoinCluster();

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
