// The creation journal: datastore objects (namespaces, target links, LUN disks, namespaces being
// deleted) that a process of this host is making or unmaking and that kel.conf does not name yet
// (or any more). A process killed between creating such an object and writing kel.conf leaves it
// behind; its journal says which objects those are, so that the next writer of kel.conf on this
// host can remove the ones kel.conf still does not name.
//
// One file per process, <stateDir>/journal/<pid>-<start time>, one absolute path per line,
// replaced atomically on every change and removed when empty. The start time (from /proc) tells a
// dead process from a new one that got the same PID.
//
// Thread-safety: all functions are thread-safe. Failures to keep the journal are logged, never
// thrown: the journal only helps to clean up, the operation itself does not depend on it.
#pragma once

#include <functional>
#include <string>

namespace kel {
namespace platform {

// Notes that this process is about to make (or unmake) `path`.
void JournalRecord(const std::string& path);
// Notes that `path` needs no cleaning up any more (kel.conf names it, or it is gone).
void JournalForget(const std::string& path);
// For each path recorded by a process of this host that no longer runs: calls `abandoned(path)`
// (which removes the object unless kel.conf names it), then drops that process's journal. Meant to
// run under the exclusive lock on kel.conf, so that no writer can name the object meanwhile.
void JournalSweep(const std::function<void(const std::string& path)>& abandoned);

}  // namespace platform
}  // namespace kel
