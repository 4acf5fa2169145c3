// Helpers shared by the Parser transactions (confedit/parser_*.cc). Private to this folder: the
// service uses confedit/parser_edit.h.
//
// All functions work on a model the caller owns through an exclusive ConfHandle; they change only
// that model (nothing on disk) unless the comment says otherwise, and throw OrsaCtlException with
// the system's messages. A throw leaves the model partly changed; callers drop it with the handle.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "records/records.h"

struct conf;
struct auth_group;
struct lun;
struct portal_group;
struct target;

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {

class ConfHandle;

namespace Parser {
namespace internal {

// Log tags.
extern const char* const kTag;         // "Parser"
extern const char* const kServiceTag;  // "OrsaIscsiTargetImpl"

// The generation that says nothing was written: the change action skips it.
constexpr uint64_t kNothingWritten = UINT64_MAX;

std::string Text(const char* s);
std::string Lower(std::string s);

// The target whose alias equals `alias` byte for byte, or null.
struct target* FindTargetByAlias(const struct conf* c, const std::string& alias);
// Same, but a missing target throws "Target <alias> not found".
struct target* RequireTargetByAlias(const struct conf* c, const std::string& alias);

int CountTargets(const struct conf* c);
// Used LUN slots over all targets (a LUN referenced twice counts twice, as the limit does).
int CountUsedLunSlots(const struct conf* c);
int CountInitiatorGroups(const struct conf* c);

// Target options: value or "" / replace or create / delete when present.
std::string TargetOptionValue(const struct target* t, const char* name);
void SetTargetOption(struct target* t, const char* name, const std::string& value);
void ClearTargetOption(struct target* t, const char* name);

// LUN options (l_options), same contract.
void SetLunOption(struct lun* l, const char* name, const std::string& value);
void ClearLunOption(struct lun* l, const char* name);

// The target's own auth group is named after its "uuid" option. Finds it, or creates it with the
// type and credentials of `copyFrom` (may be null: type none), records the target as its owner and
// links the target to it. Throws when the target has no uuid.
struct auth_group* EnsureOwnAuthGroup(struct conf* c, struct target* t,
                                      const struct auth_group* copyFrom);
// True when `ag` is the target's own group (named after its uuid).
bool IsOwnAuthGroup(const struct target* t, const struct auth_group* ag);
// Number of targets linked to `ag`.
int TargetsUsingAuthGroup(const struct conf* c, const struct auth_group* ag);

// Replaces the credentials of the target's own group with those of `type` ("CHAP", "CHAP-Mutual",
// "No-Authentication", any case). Messages: "Failed to update auth type 'CHAP' for auth-group
// <name>", "Failed to update auth type 'CHAP-Mutual' for auth-group<name>".
void UpdateTargetAuth(struct conf* c, struct target* t, const std::string& alias,
                      const std::string& type, const std::string& user, const std::string& secret,
                      const std::string& mutualUser, const std::string& mutualSecret);

// Links the target to the portal group "pg-<nic>-<port>" (created when missing, listen
// "<nic>:<port>"); the group it leaves is deleted when no target uses it any more.
void UpdateTargetPortal(struct conf* c, struct target* t, const std::string& alias,
                        const std::string& nic, int port);
// Deletes `pg` when it is not "default" and no target is linked to it.
void CleanupPortalGroup(struct portal_group* pg);

// Makes the target's initiator list exactly `initiators`: IQNs become initiator names of its own
// group, other entries initiator-group references (an unknown group throws the model's message).
// `removeMissing` drops names and references that are not in the list. Checks the cluster's
// initiator limit for the IQNs it adds before adding them.
void ApplyTargetInitiators(struct conf* c, struct target* t, const std::string& alias,
                           const std::vector<std::string>& initiators, bool removeMissing);

// Sectors asked for by a LUN record: sizeSectors, else sizeText converted, else 0 (no change).
uint64_t RequestedSectors(const HostCtl::Orsa::IscsiTarget::LunInfo& info);
// Absolute path of the LUN's backing file; throws "Failed to get lun absolute path: <status>", or
// Util::RequirePathInDatastore's refusal when the path leads outside the datastore.
std::string LunAbsPath(const struct lun* l);
// Removes the persistent-reservation and lock files of the disk at `diskPath` when they exist.
// Only logs when one cannot be removed: they are leftovers, the disk itself is what matters.
void RemoveLunSidecarFiles(const std::string& diskPath);

}  // namespace internal
}  // namespace Parser
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
