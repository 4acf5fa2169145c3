#include "placement/orphan_claim.h"

#include <map>
#include <set>
#include <string>

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

}  // namespace

int ClaimOrphanedObjects() {
  int claimed = 0;
  try {
    auto dir = kel::platform::GetDirectory();
    std::string self = GetNodeUuid();
    std::set<std::string> live;
    std::map<std::string, int> weights;
    for (const MemberRecord& m : GetClusterMembers()) {
      live.insert(m.uuid);
      if (IsEligibleMember(m)) weights[m.uuid] = 1;
    }
    if (weights.count(self) == 0) return 0;  // a host that cannot serve claims nothing
    std::map<std::string, ObjectOwner> owners;
    NUK_ReturnStatus st = dir->ListObjectOwners(&owners);
    if (st != NUK_OK) Fail("Failed to list object owners", st);
    ConsistHash ring(weights);
    for (const auto& kv : owners) {
      if (live.count(kv.second.hostUuid) != 0) continue;
      if (ring.FindHashNode(kv.first) != self) continue;
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
