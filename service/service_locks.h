// The two process-wide reader/writer locks of the service (private to service/).
//
// Lock order of the whole system (docs/architecture.md): serviceLock, then libLock, then kel.conf's
// cluster-wide lock with ConfHandle::_fileLock, then the configuration cache's lock.
//
//   serviceLock  shared: every operation that reads or edits targets and LUNs, CreateNamespace,
//                GetNamespaceInternal; exclusive: enable/disable (SetIscsiTargetStatus) and the
//                destructor, which therefore wait for every running configuration operation.
//   libLock      guards the library state of the service objects (virtualDiskReady,
//                complianceHandle) and the cached `enabled` flag: shared for reading the state,
//                upgrade for checks that may initialise the libraries, exclusive (raised from
//                upgrade) while SetIscsiTargetStatus sets them up or tears them down.
//
// Never take either lock twice on one thread: a waiting writer blocks new shared holders, so a
// nested shared acquisition can deadlock.
#pragma once

#include <boost/thread/shared_mutex.hpp>

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {

extern boost::upgrade_mutex serviceLock;
extern boost::upgrade_mutex libLock;

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
