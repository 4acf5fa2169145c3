// The placement of targets at a glance: which host serves which targets, against the quota that
// the load balancer works towards. For operators (kelctl cluster placement); it moves nothing.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "records/records.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

struct PlacementHost {
  std::string uuid;
  std::string name;    // empty for an owner that is no live member
  std::string site;    // the member's site (fault domain name)
  std::string domain;  // "Preferred", "NonPreferred" or ""
  bool live = false;
  bool eligible = false;  // may serve targets (live, not a witness, in maintenance, decommissioned)
  std::vector<std::string> targets;  // aliases, in configuration order
};

struct PlacementView {
  // The cluster quota as the balancer computes it: ceil(owned targets / hosts counted), where the
  // hosts counted are the eligible ones and every other owner of a target.
  int32_t quota = 0;
  std::string preferredSite;
  std::string nonPreferredSite;
  std::vector<PlacementHost> hosts;     // eligible and owning hosts first, then the others
  std::vector<std::string> unassigned;  // aliases of targets without an owner
};

// Builds the view from `targets` (with ownerHostUuid filled, as GetTargets returns them) and the
// directory's membership. Throws OrsaCtlException on directory failures.
PlacementView GetPlacementView(const std::vector<HostCtl::Orsa::IscsiTarget::TargetInfo>& targets);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
