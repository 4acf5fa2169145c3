// Host switches behind the daemon control: the target daemon's kernel module, the firewall ruleset
// and the host's integer options.
//
// On Linux the daemon serves through tgtd, which needs no kernel module: a module's "loaded" state
// is a marker file <stateDir>/run/module-<name>.loaded, so that loading stays idempotent and the
// state survives the process. The firewall backend comes from the host configuration: "none"
// leaves the host's firewall alone (and logs), "nftables" keeps the ruleset as an nftables table
// of that name (family inet) that accepts the portals' TCP ports; the nft commands run through the
// command runner. Integer options are the host configuration's "options" (absent reads as 0).
//
// Failures throw OrsaCtlException. Thread-safety: all functions are thread-safe.
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace NukCtl {
namespace System {

namespace ModuleApi {
bool ModuleIsLoaded(const std::string& name);
void ModuleLoad(const std::string& name);
// Unloading a module that is not loaded succeeds.
void ModuleUnload(const std::string& name);
}  // namespace ModuleApi

namespace FirewallApi {
// Makes sure the firewall backend is usable (nothing to prepare for "none" or nftables).
void ReloadFirewallModule();
// Enables the ruleset `name` for TCP `ports`, or removes it. Enabling replaces what the ruleset
// held before; disabling a missing ruleset succeeds.
void FirewallRulesetSetStatus(const std::string& name, bool enable, const std::set<int>& ports);
}  // namespace FirewallApi

}  // namespace System

namespace Util {

// A node of the host's option tree: construct on kSysinfoIntOptions, add the group and the option
// name as instance path, read the value.
class Sysinfo {
 public:
  static const char* const kSysinfoIntOptions;

  explicit Sysinfo(const std::string& node) : node_(node) {}
  void AddInstancePath(const std::string& component) { path_.push_back(component); }
  // The option's current value (0 when absent). Throws OrsaCtlException for an unknown node or a
  // path that is not (group, name), or when the host configuration cannot be read.
  int64_t GetIntValue() const;

  // Test-only: replace the option source for the whole process (empty function: the host
  // configuration again). The reader may throw to simulate a failed read.
  using Reader = std::function<int64_t(const std::string& group, const std::string& name)>;
  static void SetReaderForTest(Reader reader);

 private:
  std::string node_;
  std::vector<std::string> path_;
};

}  // namespace Util
}  // namespace NukCtl

namespace kel {
namespace platform {
// <stateDir>/run/module-<name>.loaded
std::string ModuleMarkerPath(const std::string& name);
}  // namespace platform
}  // namespace kel
