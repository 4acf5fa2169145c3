#include "placement/placement_view.h"

#include <algorithm>
#include <map>

#include "directory/host_queries.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

using HostCtl::Orsa::IscsiTarget::TargetInfo;

PlacementView GetPlacementView(const std::vector<TargetInfo>& targets) {
  const ClusterSites sites = GetClusterSites();
  PlacementView view;
  view.preferredSite = sites.PreferredSite();
  view.nonPreferredSite = sites.NonPreferredSite();
  std::map<std::string, PlacementHost> hosts;
  for (const kel::platform::MemberRecord& m : sites.Members()) {
    PlacementHost& h = hosts[m.uuid];
    h.uuid = m.uuid;
    h.name = m.name;
    h.site = m.site;
    h.domain = sites.DomainOf(m.uuid);
    h.live = true;
    h.eligible = IsEligibleMember(m);
  }
  int64_t owned = 0;
  for (const TargetInfo& t : targets) {
    if (t.ownerHostUuid.empty()) {
      view.unassigned.push_back(t.alias);
      continue;
    }
    PlacementHost& h = hosts[t.ownerHostUuid];
    h.uuid = t.ownerHostUuid;
    h.targets.push_back(t.alias);
    ++owned;
  }
  int64_t counted = 0;
  for (const auto& kv : hosts) {
    if (kv.second.eligible || !kv.second.targets.empty()) ++counted;
  }
  view.quota = counted == 0 ? 0 : static_cast<int32_t>((owned + counted - 1) / counted);
  for (auto& kv : hosts) view.hosts.push_back(std::move(kv.second));
  std::stable_sort(
      view.hosts.begin(), view.hosts.end(), [](const PlacementHost& a, const PlacementHost& b) {
        auto counts = [](const PlacementHost& h) { return h.eligible || !h.targets.empty(); };
        return counts(a) && !counts(b);
      });
  return view;
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
