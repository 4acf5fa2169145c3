#include "directory/host_queries.h"

#include <algorithm>
#include <map>

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

std::vector<std::string> GetEligibleHosts(const std::string& site) {
  std::vector<std::string> hosts;
  for (const MemberRecord& m : GetClusterMembers()) {
    if (!IsEligibleMember(m)) {
      LogInfo("%s: Skip node(%s)", kTag, m.uuid.c_str());
      continue;
    }
    if (!site.empty() && m.site != site) continue;
    hosts.push_back(m.uuid);
  }
  return hosts;
}

std::string GetNodeSiteDomain(const std::string& hostUuid) {
  std::string wanted = hostUuid.empty() ? GetNodeUuid() : Canonical(hostUuid);
  for (const MemberRecord& m : GetClusterMembers()) {
    if (m.uuid == wanted) return m.site;
  }
  return std::string();
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
