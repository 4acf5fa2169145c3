// The load balancer: each host sheds the targets it owns above its fair share to less loaded
// hosts, by moving ownership of the targets' namespace objects. Run from the control thread.
//
// Thread-safety: a run is private to the control thread; Util::cachedLocalTargets is replaced
// only at the end of a run and read elsewhere.
#pragma once

#include <string>
#include <vector>

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

// The uuid of every target this host owned after the last balancer run.
extern std::vector<std::string> cachedLocalTargets;

// The control thread's entry: `passCount` is its pass counter (one pass per period). Decides
// whether a run is due and runs it. Never throws: failures are logged.
void PerformTargetLoadBlance(int passCount);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
