// Queries about hosts and objects, and the ownership moves of target objects, over the process's
// cluster directory (platform/directory.h). Log tag "Util".
//
// Hosts: the live members of the cluster. A host is eligible to serve targets when it is not a
// witness, not in maintenance and not being (or done being) decommissioned.
// Sites: a host's site is its fault domain (witnesses belong to none). The preferred fault domain
// is the cluster-wide setting "preferredSite" kept in the directory; while it is not set, a site
// named "Preferred" is the preferred one, and without either no site is. The non-preferred fault
// domain is the first other site in name order. A host's site domain is the role of its site as a
// target pins it ("Preferred" or "NonPreferred"), empty when its site has neither.
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

// The name of the cluster setting that holds the preferred site.
inline constexpr const char* kPreferredSiteSetting = "preferredSite";

struct FaultDomain {
  std::string uuid;  // 8-4-4-4-12, derived from the name: the same on every host
  std::string name;
};

// The fault-domain UUID of a site name.
std::string FaultDomainUuid(const std::string& siteName);

// One reading of the membership and of the preferred-site setting. Every site question of one pass
// is answered from it, so that the answers agree with each other.
class ClusterSites {
 public:
  ClusterSites(std::vector<kel::platform::MemberRecord> members, std::string preferredSetting);

  const std::vector<kel::platform::MemberRecord>& Members() const { return members_; }
  // The sites of the non-witness members, in name order.
  std::vector<FaultDomain> FaultDomains() const;
  // Site names holding each role; empty when no site does.
  const std::string& PreferredSite() const { return preferred_; }
  const std::string& NonPreferredSite() const { return nonPreferred_; }
  // "Preferred", "NonPreferred" or "" for a site name.
  std::string DomainOfSite(const std::string& site) const;
  // DomainOfSite of a member's site; "" for a host that is not a live member.
  std::string DomainOf(const std::string& hostUuid) const;
  // The non-witness members span two or more sites.
  bool IsStretched() const { return FaultDomains().size() >= 2; }
  // The eligible-host builder: UUIDs of the eligible members in UUID order, with `domain`
  // non-empty only those whose DomainOf is `domain`. Logs "%s: Skip node(%s)" for each member
  // left out as unable to serve.
  std::vector<std::string> EligibleHosts(const std::string& domain = std::string()) const;

 private:
  std::vector<kel::platform::MemberRecord> members_;
  std::string preferred_;
  std::string nonPreferred_;
};

// Reads the live members and the preferred-site setting. Throws on directory failures.
ClusterSites GetClusterSites();

// The preferred-site setting; empty when it is not set. Throws on directory failures.
std::string GetPreferredSiteSetting();
// Makes `site` the preferred site of the cluster. Refuses (OrsaCtlException) a name that is not
// the site of a live non-witness member: "Site <site> is not the site of any cluster host (sites:
// <a>, <b>)". Throws on directory failures.
void SetPreferredSite(const std::string& site);
// The preferred fault domain's UUID and site name; false (both emptied) when no site is preferred.
bool GetPreferredFaultDomainInfo(std::string& uuid, std::string& name);

// GetClusterSites().EligibleHosts(domain).
std::vector<std::string> GetEligibleHosts(const std::string& domain = std::string());

// The site domain of a host ("Preferred", "NonPreferred" or ""), this host when `hostUuid` is
// empty; empty as well when the host is not a member.
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
