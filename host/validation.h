// Parameter validation: the stateless checks every management operation runs on its input before
// it touches the configuration file, the directory or the datastore.
//
// Each check returns normally or throws HostCtl::Lib::Orsa::OrsaCtlException with one
// user-facing message that reaches the caller unchanged; the first failing rule wins. Checks
// change nothing, except that VerifyLunParams fills in a missing storage policy on LUN creation.
// Checks that need the host, the policy layer or the configuration file go through the
// ValidationEnv installed with SetValidationEnv (host/validation_env.h); the others are pure.
//
// Besides the input rules, the checks keep caller text out of kel.conf in any form the grammar
// would read back differently: the writer prints interface names, initiator names, group names,
// target option values and the target's uuid as bare words, and aliases and LUN option values in
// double quotes, without escapes. See the "File safety" block below for which operation calls what.
//
// Thread-safety: all functions may run concurrently; the patterns are compiled once at load.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "records/records.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

inline constexpr int kDefaultIscsiPort = 3260;
// Longest accepted IQN / initiator name / initiator group name, in bytes.
inline constexpr size_t kMaxIqnLength = 223;
// Longest accepted target alias and LUN alias, in bytes.
inline constexpr size_t kMaxAliasLength = 127;
inline constexpr size_t kMaxLunAliasLength = 255;

// --- Targets -----------------------------------------------------------------------------------

// Target creation: alias valid UTF-8, IQN pattern and length, alias length, no double quote in
// alias or CHAP fields, alias not only whitespace (and no NUL byte in those fields).
void VerifyTargetParams(const HostCtl::Orsa::IscsiTarget::TargetCreateParam& param);

// The CHAP tuple of a target; failures are wrapped in
// "Failed to verify authentication type <type> for target <alias> with error: ".
void VerifyTargetAuthParams(const HostCtl::Orsa::IscsiTarget::TargetCreateParam& param);

// The CHAP tuple of the cluster defaults; failures are wrapped in
// "Failed to verify default authentication type <type> with error: ".
void VerifyDefaultAuthParams(const HostCtl::Orsa::IscsiTarget::DefaultInfo& info);

// Interface (must exist on this host and be writable as a bare word) and port rules.
// Logs "Util: Network interface is not provided for port <port>" when a non-default port comes
// without an interface. Uses the ValidationEnv only when an interface name is given.
void VerifyNetworkConfig(const std::string& networkInterface, int port);

// --- Initiators and initiator groups -----------------------------------------------------------

// Whole-name match of the IQN or the EUI pattern.
bool IsValidInitiatorIQN(const std::string& name);
// Length (at most 223 bytes), then IsValidInitiatorIQN.
void ValidateInitiatorIQN(const std::string& name);
// Case-insensitive "iqn." or "eui." at the start.
bool StartsWithInitiatorIQN(const std::string& name);
// Characters and not all digits, length, no IQN prefix, not a keyword of kel.conf.
void ValidateInitiatorGroupName(const std::string& name);

// --- LUNs --------------------------------------------------------------------------------------

// The alias valid UTF-8, without double quote or NUL, at most kMaxLunAliasLength bytes; then, for
// an empty policy, fills in the datastore default when `fillDefaultPolicy` (LUN creation) and
// stops; otherwise verifies the policy and runs VerifyLunPolicyAndAffinity.
void VerifyLunParams(HostCtl::Orsa::IscsiTarget::LunInfo& lun, bool fillDefaultPolicy);

// The LUN policy's locality must agree with its target's site affinity.
void VerifyLunPolicyAndAffinity(const HostCtl::Orsa::IscsiTarget::LunInfo& lun);

// The locality rule shared by LUNs and targets, looked up in the policy text as written: a text
// holding "locality" "Preferred" conflicts with the site "NonPreferred"; otherwise one holding
// "locality" "NonPreferred" conflicts with "Preferred". Any other site or policy never conflicts.
bool IsPolicyLocalityCompatible(const std::string& site, const std::string& policyText);

// The LUN's backing file must exist: "Failed to find path <path> for LUN <id> of target <name>".
void VerifyLunRemoveParam(int lunId, const std::string& targetName);

// --- Sizes -------------------------------------------------------------------------------------

// "<digits><unit>" in 512-byte sectors; each unit is rounded up to whole sectors on its own
// (1MB = 1954 sectors). Every failure reads "Failed to validate LUN size: " + reason. A product
// that does not fit the model's signed 64-bit sector count is refused as out of range.
uint64_t GetLunSizeInSectors(const std::string& size);

// Bytes per unit of "MB", "GB", "TB", "MiB", "GiB", "TiB" (any case); "Invalid unit : <text>"
// otherwise. The const char* form treats null as the empty text.
uint64_t GetUnitValueFromString(const char* unit);
uint64_t GetUnitValueFromString(const std::string& unit);

// --- Environment -------------------------------------------------------------------------------

// The product is enabled and the configuration namespace with its targets and etc directories
// exists.
void VerifyEnvForEnable();
// The product is enabled.
void VerifyEnvForNamespaceCreate();

// --- File safety -------------------------------------------------------------------------------
//
// Which operation calls what (besides the checks above, which already cover the alias, the CHAP
// fields, the interface name and the initiator group name):
//   target creation:   VerifyTargetConfValues(param) after VerifyTargetAuthParams
//   target update:     VerifyTargetConfValues(param) after VerifyTargetAuthParams
//   LUN creation/update: VerifyLunStatus(lun.status) with VerifyLunParams
//   adding initiators to a group: ValidateInitiatorIQN on each name (as before)

// affinitySite must be "", "Preferred", "NonPreferred" or "None": it is written bare as the
// target option "fault-domain".
void VerifyAffinitySite(const std::string& site);

// A target or LUN status must be "", "online" or "offline".
void VerifyTargetStatus(const std::string& status);
void VerifyLunStatus(const std::string& status);

// A target's uuid names its auth group and is written bare: empty (filled in by the service) or
// 8-4-4-4-12 hexadecimal digits.
void VerifyTargetUuid(const std::string& uuid);

// Interface names are written bare in "listen <nic>:<port>" and in the portal group name
// "pg-<nic>-<port>": letters, digits, '.', '-', '_' and '@' only. Empty passes.
void VerifyNetworkInterfaceName(const std::string& name);

// Each entry of a target's initiator list is either an initiator name (ValidateInitiatorIQN) or
// an initiator group name (ValidateInitiatorGroupName).
void VerifyTargetInitiators(const std::vector<std::string>& initiators);

// VerifyAffinitySite, VerifyTargetStatus, VerifyTargetUuid and VerifyTargetInitiators of a
// target's parameters, in that order.
void VerifyTargetConfValues(const HostCtl::Orsa::IscsiTarget::TargetCreateParam& param);

// True when `word` is a keyword of kel.conf, which a bare word must never be.
bool IsConfKeyword(const std::string& word);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
