// The service's state in the host's settings store: whether the service is enabled on this host
// and the cluster defaults last stored here, and which process this is. Tag "Util" in the log.
//
// Thread-safety: all functions are thread-safe (the store caches under its own mutex).
#pragma once

#include "records/records.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

// Persists the enabled flag. Throws OrsaCtlException (after logging it) when the store cannot be
// written; the stored flag is then unchanged.
void SetStatus(bool enabled);

// Reads the stored enabled flag into `enabled` (false when nothing was stored). Throws
// OrsaCtlException when the store cannot be read; `enabled` is then unchanged.
void LoadConfig(bool& enabled);

// Stores the cluster defaults (secrets included: the store is readable by its owner only).
void UpdateDefaultConfigToConfigStore(const HostCtl::Orsa::IscsiTarget::DefaultInfo& info);
// The stored cluster defaults; a default-constructed record when none were stored.
HostCtl::Orsa::IscsiTarget::DefaultInfo GetDefaultConfigFromConfigStore();

// Whether this process is the host agent (its invocation name contains "kelhostd"). Computed once
// per process.
bool IsRunningInOrsaMgmtd();
// Test-only: force the answer (1 true, 0 false) or return to the computed one (-1).
void SetRunningInOrsaMgmtdForTest(int value);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
