// Claiming the targets of hosts that died: every host runs the same claim over the same view of
// the directory, so each orphaned object goes to the one host that a consistent hash names.
#pragma once

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

// Claims, by compare-and-swap, every object whose owner has no live member record and that the
// consistent hash over the live eligible hosts assigns to this host. A target pinned to a site
// that has live eligible hosts is hashed over that site's hosts only. Every host runs it (within a
// lease TTL of a host's death), and all of them compute the same assignment, so each orphan is
// claimed once. Returns the number claimed; directory failures are logged and end the pass.
int ClaimOrphanedObjects();

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
