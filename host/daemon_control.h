// Host-side switches of the target service: the daemon keld, its (module) loader state, its
// start-at-boot setting and its firewall ruleset. Tag "Util" in the log.
//
// The daemon is controlled with the command lines "<control> ++group=serad-tmp restart", "reload"
// and "io_stop", run through the command runner. <control> is the host configuration's
// daemon.control, inserted as is (it may carry its own arguments). When that is empty, the
// installed keld program is used, looked up in this order:
//   1. "keld" beside the running executable (installed programs share one directory);
//   2. "../keld/keld" from the running executable's directory (the build tree, where every
//      program lives in its own folder), then $KEL_BINARY_DIR/keld/keld (tests run by ctest);
//   3. "keld" on PATH (also the text used when nothing is found, so the shell reports it).
//
// Exit codes: 0 is success; for restart, 1 means the daemon's resources could not be reserved.
//
// Thread-safety: all functions are thread-safe; callers serialise enable/disable (serviceLock).
#pragma once

#include <set>
#include <string>

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

// Throws "Failed to reserve keld memory (return code 1)" or "Failed to start keld (return code
// <n>)".
void StartKeld();
// Throws "Failed to reload keld (return code <n>)".
void ReloadKeld();
// Only warns on failure, so that disabling the service goes on.
void StopKeld();

// The "kel" module: loaded once, left alone when loaded; unloaded unconditionally.
void LoadKelKernelModule();
void UnloadKelKernelModule();

// Sets whether the host agent restores the service when it starts (the settings store's
// start-at-boot flag), through kel's loader control. Logs the outcome; never throws.
void SetKelLoaderChkConfig(bool on);
// The current start-at-boot setting (false when the settings store cannot be read).
bool GetKelLoaderChkConfig();

// Opens (enable) or removes the firewall ruleset "kel" for the portals' TCP ports: 3260, the
// cluster default port, and every listen port of kel.conf when the file can be read.
void SetKelFirewallRulesetStatus(bool enable);

// The <control> part of the daemon command lines (see above).
std::string KeldControlProgram();

// The name of kel's loader control in the log lines of SetKelLoaderChkConfig.
extern const char* const kKelLoaderControl;

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
