#include "placement/orphan_claim.h"

#include <map>
#include <memory>
#include <set>
#include <string>

#include "directory/config_cache.h"
#include "directory/host_queries.h"
#include "placement/consist_hash.h"
#include "platform/directory.h"
#include "platform/exception.h"
#include "platform/log.h"

using kel::platform::MemberRecord;
using kel::platform::ObjectOwner;

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {
namespace {

const char* kTag = "Util";

[[noreturn]] void Fail(const std::string& what, NUK_ReturnStatus st) {
  throw HostCtl::Lib::Orsa::OrsaCtlException(what + ": " + NUK_ReturnStatusToString(st));
}

std::string Canonical(const std::string& uuid) {
  kel::platform::DirUuid parsed;
  return kel::platform::DirUuidFromText(uuid, &parsed) ? kel::platform::DirUuidToText(parsed)
                                                       : std::string();
}

// The site each pinned target object is pinned to. A configuration that cannot be read pins
// nothing: the orphans are still claimed, and the periodic site check moves them later.
std::map<std::string, std::string> PinnedSites() {
  std::map<std::string, std::string> pinned;
  try {
    for (const auto& t : ConfigCache::GetTargetsInfos()) {
      if (t.affinitySite != "Preferred" && t.affinitySite != "NonPreferred") continue;
      std::string object = Canonical(t.ownerId.empty() ? t.uuid : t.ownerId);
      if (!object.empty()) pinned[object] = t.affinitySite;
    }
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException& e) {
    LogWarning("%s: Orphaned targets are claimed without their sites: %s", kTag,
               e.GetMessage().c_str());
  }
  return pinned;
}

}  // namespace

int ClaimOrphanedObjects() {
  int claimed = 0;
  try {
    auto dir = kel::platform::GetDirectory();
    std::string self = GetNodeUuid();
    const ClusterSites sites = GetClusterSites();
    std::set<std::string> live;
    std::map<std::string, std::map<std::string, int>> weights;  // site domain ("" all) -> hosts
    for (const MemberRecord& m : sites.Members()) {
      live.insert(m.uuid);
      if (!IsEligibleMember(m)) continue;
      weights[""][m.uuid] = 1;
      std::string domain = sites.DomainOf(m.uuid);
      if (!domain.empty()) weights[domain][m.uuid] = 1;
    }
    if (weights[""].count(self) == 0) return 0;  // a host that cannot serve claims nothing
    std::map<std::string, ObjectOwner> owners;
    NUK_ReturnStatus st = dir->ListObjectOwners(&owners);
    if (st != NUK_OK) Fail("Failed to list object owners", st);
    std::map<std::string, std::string> pinned;
    bool pinnedRead = false;
    std::map<std::string, std::unique_ptr<ConsistHash>> rings;
    for (const auto& kv : owners) {
      if (live.count(kv.second.hostUuid) != 0) continue;
      if (!pinnedRead) {
        pinned = PinnedSites();
        pinnedRead = true;
      }
      // A pinned target goes to a host of its own site when its site has one, so that it does not
      // wait on the wrong site for the periodic site check.
      auto pin = pinned.find(kv.first);
      std::string domain =
          pin != pinned.end() && weights.count(pin->second) != 0 ? pin->second : "";
      std::unique_ptr<ConsistHash>& ring = rings[domain];
      if (!ring) ring = std::make_unique<ConsistHash>(weights[domain]);
      if (ring->FindHashNode(kv.first) != self) continue;
      st = dir->CompareAndSwapObjectOwner(kv.first, kv.second.revision, self);
      if (st == NUK_OK) {
        ++claimed;
        LogInfo("%s: Claimed orphaned target object %s of departed host %s", kTag, kv.first.c_str(),
                kv.second.hostUuid.c_str());
      } else {
        LogInfo("%s: Orphaned target object %s not claimed (%s)", kTag, kv.first.c_str(),
                NUK_ReturnStatusToString(st));
      }
    }
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException& e) {
    LogWarning("%s: Failed to claim orphaned target objects: %s", kTag, e.GetMessage().c_str());
  }
  return claimed;
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
