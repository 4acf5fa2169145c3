#include "directory/host_queries.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <set>
#include <utility>

#include "platform/clock.h"
#include "platform/exception.h"
#include "platform/host_config.h"
#include "platform/log.h"

using kel::platform::Directory;
using kel::platform::MemberRecord;
using kel::platform::ObjectOwner;

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {
namespace {

const char* kTag = "Util";

std::shared_ptr<Directory> Dir() { return kel::platform::GetDirectory(); }

[[noreturn]] void Fail(const std::string& what, NUK_ReturnStatus st) {
  throw HostCtl::Lib::Orsa::OrsaCtlException(what + ": " + NUK_ReturnStatusToString(st));
}

bool OnEmbeddedDirectory() {
  return kel::platform::CurrentHostConfig()->directoryBackend != "etcd";
}

std::string Canonical(const std::string& uuid) {
  kel::platform::DirUuid parsed;
  if (!kel::platform::DirUuidFromText(uuid, &parsed)) return std::string();
  return kel::platform::DirUuidToText(parsed);
}

}  // namespace

bool IsEligibleMember(const MemberRecord& m) {
  return !m.witness && !m.maintenance && m.decommission.empty();
}

std::string GetNodeUuid() { return kel::platform::DirUuidToText(Dir()->SelfUuid()); }

std::vector<MemberRecord> GetClusterMembers() {
  std::vector<MemberRecord> members;
  NUK_ReturnStatus st = Dir()->ListMembers(&members);
  if (st != NUK_OK) Fail("Failed to list cluster members", st);
  return members;
}

std::string FaultDomainUuid(const std::string& siteName) {
  // Two FNV-1a passes with different starting points give 128 bits that depend only on the name.
  auto fnv = [&siteName](uint64_t h) {
    for (unsigned char c : siteName) {
      h ^= c;
      h *= 0x100000001b3ull;
    }
    return h;
  };
  const uint64_t hi = fnv(0xcbf29ce484222325ull);
  const uint64_t lo = fnv(0x84222325cbf29ce4ull);
  kel::platform::DirUuid uuid;
  for (int i = 0; i < 8; ++i) {
    uuid[i] = static_cast<uint8_t>(hi >> (56 - 8 * i));
    uuid[8 + i] = static_cast<uint8_t>(lo >> (56 - 8 * i));
  }
  return kel::platform::DirUuidToText(uuid);
}

ClusterSites::ClusterSites(std::vector<MemberRecord> members, std::string preferredSetting)
    : members_(std::move(members)) {
  std::vector<FaultDomain> domains = FaultDomains();
  auto isDomain = [&domains](const std::string& name) {
    return std::any_of(domains.begin(), domains.end(),
                       [&name](const FaultDomain& d) { return d.name == name; });
  };
  // A set preferred site keeps its role while all its hosts are down, so that its pinned targets
  // never slide over to the other site.
  if (!preferredSetting.empty()) {
    preferred_ = std::move(preferredSetting);
  } else if (isDomain("Preferred")) {
    preferred_ = "Preferred";
  }
  if (preferred_.empty()) return;
  for (const FaultDomain& d : domains) {
    if (d.name != preferred_) {
      nonPreferred_ = d.name;
      break;
    }
  }
}

std::vector<FaultDomain> ClusterSites::FaultDomains() const {
  std::set<std::string> names;
  for (const MemberRecord& m : members_) {
    if (!m.witness && !m.site.empty()) names.insert(m.site);
  }
  std::vector<FaultDomain> domains;
  for (const std::string& name : names) domains.push_back({FaultDomainUuid(name), name});
  return domains;
}

std::string ClusterSites::DomainOfSite(const std::string& site) const {
  if (site.empty()) return std::string();
  if (site == preferred_) return "Preferred";
  if (site == nonPreferred_) return "NonPreferred";
  return std::string();
}

std::string ClusterSites::DomainOf(const std::string& hostUuid) const {
  for (const MemberRecord& m : members_) {
    if (m.uuid == hostUuid) return m.witness ? std::string() : DomainOfSite(m.site);
  }
  return std::string();
}

std::vector<std::string> ClusterSites::EligibleHosts(const std::string& domain) const {
  std::vector<std::string> hosts;
  for (const MemberRecord& m : members_) {
    if (!IsEligibleMember(m)) {
      LogInfo("%s: Skip node(%s)", kTag, m.uuid.c_str());
      continue;
    }
    if (!domain.empty() && DomainOfSite(m.site) != domain) continue;
    hosts.push_back(m.uuid);
  }
  return hosts;
}

ClusterSites GetClusterSites() {
  std::vector<MemberRecord> members = GetClusterMembers();
  return ClusterSites(std::move(members), GetPreferredSiteSetting());
}

std::string GetPreferredSiteSetting() {
  std::string value;
  NUK_ReturnStatus st = Dir()->GetClusterSetting(kPreferredSiteSetting, &value);
  if (st == NUK_NOT_FOUND) return std::string();
  if (st != NUK_OK) Fail("Failed to read the preferred site", st);
  return value;
}

void SetPreferredSite(const std::string& site) {
  ClusterSites sites(GetClusterMembers(), std::string());
  std::string names;
  bool known = false;
  for (const FaultDomain& d : sites.FaultDomains()) {
    names += (names.empty() ? "" : ", ") + d.name;
    known = known || d.name == site;
  }
  if (!known) {
    throw HostCtl::Lib::Orsa::OrsaCtlException(
        "Site " + site +
        " is not the site of any cluster host (sites: " + (names.empty() ? "none" : names) + ")");
  }
  NUK_ReturnStatus st = Dir()->SetClusterSetting(kPreferredSiteSetting, site);
  if (st != NUK_OK) Fail("Failed to set the preferred site", st);
  LogInfo("%s: Preferred site of the cluster is now %s", kTag, site.c_str());
}

bool GetPreferredFaultDomainInfo(std::string& uuid, std::string& name) {
  name = GetClusterSites().PreferredSite();
  uuid = name.empty() ? std::string() : FaultDomainUuid(name);
  return !name.empty();
}

std::vector<std::string> GetEligibleHosts(const std::string& domain) {
  // Without a site to match the preferred-site setting is not needed: one directory read less.
  if (domain.empty()) return ClusterSites(GetClusterMembers(), std::string()).EligibleHosts();
  return GetClusterSites().EligibleHosts(domain);
}

std::string GetNodeSiteDomain(const std::string& hostUuid) {
  std::string wanted = hostUuid.empty() ? GetNodeUuid() : Canonical(hostUuid);
  return GetClusterSites().DomainOf(wanted);
}

std::string GetTargetOwnerHostUuid(const std::string& ownerId) {
  if (ownerId.empty()) return std::string();
  ObjectOwner owner;
  NUK_ReturnStatus st = Dir()->GetObjectOwner(ownerId, &owner);
  if (st == NUK_OK) return owner.hostUuid;
  if (st == NUK_NOT_FOUND) {
    // A one-host cluster owns everything it serves.
    return OnEmbeddedDirectory() ? GetNodeUuid() : std::string();
  }
  if (st == NUK_BAD_PARAM) return std::string();
  Fail("Failed to get the owner of object " + ownerId, st);
}

std::set<std::string> QueryHostUuidsForObject(const std::string& objectUuid) {
  if (Canonical(objectUuid).empty()) {
    throw HostCtl::Lib::Orsa::OrsaCtlException("Invalid object uuid " + objectUuid);
  }
  std::vector<std::string> hosts = GetEligibleHosts();
  return std::set<std::string>(hosts.begin(), hosts.end());
}

std::string GetHostNameFromUuid(const std::string& hostUuid) {
  std::string wanted = Canonical(hostUuid);
  if (wanted.empty()) return std::string();
  for (const MemberRecord& m : GetClusterMembers()) {
    if (m.uuid == wanted) return m.name;
  }
  return std::string();
}

bool WaitForNodeDecomComplete(int maxWaitSeconds) {
  std::string self = GetNodeUuid();
  for (int waited = 0;; ++waited) {
    std::string state;
    for (const MemberRecord& m : GetClusterMembers()) {
      if (m.uuid == self) state = m.decommission;
    }
    if (state != kel::platform::kDecomInProgress) return true;
    if (waited >= maxWaitSeconds) {
      LogWarning("%s: Node %s decommission still in progress after %d seconds", kTag, self.c_str(),
                 waited);
      return false;
    }
    kel::platform::SleepMs(1000);
  }
}

bool TransferObjectByUuid(const std::string& objectUuid, const std::string& hostUuid) {
  LogInfo("%s: Move local target Object (%s) to dest Node (%s)", kTag, objectUuid.c_str(),
          hostUuid.c_str());
  std::string reason;
  try {
    std::string dest = Canonical(hostUuid);
    std::vector<std::string> eligible = GetEligibleHosts();
    auto dir = Dir();
    ObjectOwner current;
    NUK_ReturnStatus st = dir->GetObjectOwner(objectUuid, &current);
    if (dest.empty() || std::find(eligible.begin(), eligible.end(), dest) == eligible.end()) {
      reason = "destination host is not an eligible cluster member";
    } else if (st != NUK_OK && st != NUK_NOT_FOUND) {
      reason = NUK_ReturnStatusToString(st);
    } else {
      st = dir->CompareAndSwapObjectOwner(objectUuid, st == NUK_OK ? current.revision : 0, dest);
      if (st == NUK_OK) return true;
      reason = st == NUK_BUSY ? "owner changed by another host" : NUK_ReturnStatusToString(st);
    }
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException& e) {
    reason = e.GetMessage();
  }
  LogWarning("%s: Failed to transfer target uuid %s (%s)", kTag, objectUuid.c_str(),
             reason.c_str());
  return false;
}

void SetObjectOwner(const std::string& objectUuid, const std::string& hostUuid) {
  auto dir = Dir();
  for (int attempt = 0; attempt < 10; ++attempt) {
    ObjectOwner current;
    NUK_ReturnStatus st = dir->GetObjectOwner(objectUuid, &current);
    if (st != NUK_OK && st != NUK_NOT_FOUND) {
      Fail("Failed to set the owner of object " + objectUuid, st);
    }
    st = dir->CompareAndSwapObjectOwner(objectUuid, st == NUK_OK ? current.revision : 0, hostUuid);
    if (st == NUK_OK) return;
    if (st != NUK_BUSY) Fail("Failed to set the owner of object " + objectUuid, st);
  }
  Fail("Failed to set the owner of object " + objectUuid, NUK_BUSY);
}

void ClaimObjectOwnership(const std::string& objectUuid) {
  SetObjectOwner(objectUuid, GetNodeUuid());
}

void ReleaseObjectOwnership(const std::string& objectUuid) {
  NUK_ReturnStatus st = Dir()->DeleteObjectOwner(objectUuid);
  if (st != NUK_OK && st != NUK_NOT_FOUND) {
    Fail("Failed to forget the owner of object " + objectUuid, st);
  }
}

void EnterMaintenanceMode() {
  NUK_ReturnStatus st = Dir()->UpdateSelfMember([](MemberRecord& m) {
    m.maintenance = true;
    m.decommission = kel::platform::kDecomComplete;
  });
  if (st != NUK_OK) Fail("Failed to enter maintenance mode", st);
  LogInfo("%s: Host %s entered maintenance mode", kTag, GetNodeUuid().c_str());
}

void ExitMaintenanceMode() {
  NUK_ReturnStatus st = Dir()->UpdateSelfMember([](MemberRecord& m) {
    m.maintenance = false;
    m.decommission = kel::platform::kDecomNone;
  });
  if (st != NUK_OK) Fail("Failed to exit maintenance mode", st);
  LogInfo("%s: Host %s left maintenance mode", kTag, GetNodeUuid().c_str());
}

void LeaveCluster() {
  NUK_ReturnStatus st = Dir()->LeaveCluster();
  if (st != NUK_OK) Fail("Failed to leave the cluster", st);
  LogInfo("%s: Host %s left the cluster", kTag, GetNodeUuid().c_str());
}

void JoinCluster() {
  NUK_ReturnStatus st = Dir()->JoinCluster();
  if (st != NUK_OK) Fail("Failed to join the cluster", st);
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
