#include "placement/load_balancer.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

std::vector<std::string> cachedLocalTargets;

// The balancing itself is being built (the greedy and consistent-hash methods); until then a
// pass moves nothing.
void PerformTargetLoadBlance(int passCount) { (void)passCount; }

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
