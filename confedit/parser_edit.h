// Configuration editing: the transactions through which the service changes kel.conf, and the
// readers the service uses.
//
// Each transaction runs through Util::ChangeConfFile (unless it is given a handle): an exclusive
// ConfHandle, the change to the model and the cluster limits, the write with generation + 1 and
// the publication of that generation while the file is still locked, then, once the handle is
// destroyed, the local half of the change action (Util::ApplyConfigChange). Every failure is
// thrown as OrsaCtlException; the handle is destroyed on the way out, which drops the unsaved
// model, undoes the datastore steps of the edit and unlocks the file, so a failed edit never
// reaches the file. Readers go through the configuration cache.
//
// Thread-safety: all functions may be called from several threads; edits are serialised by the
// cluster-wide file lock.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "records/records.h"

struct conf;
struct lun;
struct target;

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {

class ConfHandle;

namespace Parser {

// Cluster limits, checked before anything is written.
constexpr int kMaxTargets = 128;
constexpr int kMaxLuns = 1024;
constexpr int kMaxLunsPerTarget = 256;
constexpr int kMaxInitiatorGroups = 256;
constexpr int kMaxInitiators = 8192;

// Logs "Parser: Initializing KEL parser lib" and sets the C log to level 4.
void InitKelParserLib();

// ---- Targets -----------------------------------------------------------------------------------
//
// Shape kept in the file: a target has the options "uuid" (its namespace object) and "owner-id"
// (the same object: the host that owns it serves the target), optionally "fault-domain"
// ("Preferred"/"NonPreferred") and "status"; exactly one portal-group link; one named auth group.
// A target's own auth group is named after its uuid; targets without initiators and without
// authentication of their own share the group "default". Initiator names of one target never go
// into a shared group: a target that gets initiators moves to its own group, which copies the
// type and credentials of the group it leaves.

// Creates the target `param` describes (param.uuid must be set; param.iqn is its name):
//  - refuses the 129th target ("Limit on total number of targets (128) has been reached."), an
//    alias or IQN already in use, and values that would not read back from the file;
//  - networkInterface empty: linked to the portal group "default" (the cluster default interface
//    and port); otherwise to "pg-<nic>-<port>", created when missing (discovery auth group
//    "no-authentication", one listen "<nic>:<port>");
//  - authType empty: the group "default", unless the target has initiators (then its own group,
//    copying the default's type and credentials); otherwise its own group with the request's
//    credentials;
//  - initiators: IQNs become initiator names, other entries initiator-group references (an unknown
//    group fails with the model's text 'initiator group  "<name>" not found');
//  - "status" is written only for "offline"; the affinity "None" writes nothing.
// Then writes (generation + 1), sets `changed` to true and runs Util::ApplyConfigChange.
// `changed` stays true when the file was written even if the change action then throws, so a
// caller knows the target exists. Any refusal leaves the file untouched.
void AddNewTargetToConfFile(HostCtl::Orsa::IscsiTarget::TargetCreateParam& param, bool& changed);

// Changes the target whose alias equals param.alias (byte for byte; "Target <alias> not found")
// inside the caller's exclusive handle; the caller writes and runs the change action. param is the
// desired state: iqn empty or equal (any case) keeps the name, another renames the target;
// networkInterface empty keeps the portal, otherwise as on creation, and the portal group left
// behind is deleted when no other target uses it; authType empty keeps the authentication,
// otherwise replaces it in the target's own group (created first if the target used a shared
// one); initiators is the complete new list (missing names and group references are removed,
// new ones added, the initiator limit checked for the added IQNs); affinitySite empty keeps,
// "None" clears, "Preferred"/"NonPreferred" sets; status empty keeps, "online"/"offline" sets.
// storagePolicy is not part of the file. A throw leaves the handle's model partly changed: the
// caller must drop it (destroy the handle without writing).
void UpdateTargetConf(const HostCtl::Orsa::IscsiTarget::TargetCreateParam& param,
                      ConfHandle& handle);

// Removes the target with this alias, its LUN entries, its own auth group and its "pg-..." portal
// group when no other target uses them; writes and runs the change action. Leaves the datastore
// alone (the namespace is the caller's). `written` runs once the file holds the removal (see
// Util::ChangeConfFile), so that the caller can tell a refusal from a failed step after the write.
void RemoveTargetFromConfFile(std::string alias,
                              const std::function<void(uint64_t)>& written = nullptr);

// Sets the target option "status" to param.status ("online"/"offline"); empty keeps it.
void UpdateTargetStatus(const HostCtl::Orsa::IscsiTarget::TargetCreateParam& param,
                        struct target* t);

// ---- LUNs --------------------------------------------------------------------------------------

// Adds LUN lun.id (-1: the lowest free id) to the target lun.targetAlias: path lun.path (relative
// to the datastore, "<target-uuid>/<object-uuid>.pemo"; an absolute path inside the datastore is
// made relative), size lun.sizeSectors (or lun.sizeText converted when sizeSectors is 0), backend
// "pemo", options "lun-alias" and "naa" when not empty. Refuses an id in use ("LUN id <id> already
// exists for target <alias>") and the 1025th LUN of the cluster. Writes, runs the change action,
// then sets `changed` to false (kept as is).
void AddNewLunToConfFile(HostCtl::Orsa::IscsiTarget::LunInfo lun, bool& changed);

// Removes the entry of LUN `lunId` ("Failed to find LUN <id> for target <alias>"), writes, removes
// the leftover persistent-reservation and lock files of its disk (the disk itself is the caller's
// to remove, before), runs the change action.
void RemoveLunFromConfFile(int lunId, const std::string& targetAlias);

// Applies, inside the caller's exclusive handle, the changes to LUN lun.id of lun.targetAlias, in
// this order: the number (newId; -1 keeps it), the target (newTarget; empty or equal keeps it: the
// LUN gets the lowest free id there, then newId if one was given, and its disk moves to the new
// target's namespace), lun.alias (empty keeps), lun.status (empty keeps) and the size
// (RequestedSectors; 0 keeps, smaller is refused with "LUN size cannot be reduced", larger grows
// the disk). Renumbering and moving need the LUN offline already. Everything that can be refused
// is checked before the disk is touched. A moved disk stays tied to the handle: when the handle is
// destroyed without a write of the file (a later step or the write itself failed), the disk is
// moved back to the target that the file still names; the reservation and lock files of its old
// path are removed only by that write, so a failed UpdateLun leaves the datastore as it was.
// On success lun.id and lun.targetAlias name where the LUN is now. `retry` is always false in this
// build: the disk is grown synchronously, so no resize of another writer can be pending here.
void UpdateLun(HostCtl::Orsa::IscsiTarget::LunInfo& lun, int newId, const std::string& newTarget,
               ConfHandle& handle, bool& retry);
// Moves `l` to slot newId of `t`. "Changing the ID of an online LUN is not allowed. Bring the LUN
// offline first." / "LUN with id <id> already exists."
void UpdateLunId(int newId, struct lun* l, struct target* t);
// Option "lun-alias" = info.alias unless empty.
void UpdateLunAlias(const HostCtl::Orsa::IscsiTarget::LunInfo& info, struct lun* l);
// Option "status" = info.status ("online"/"offline") unless empty.
void UpdateLunStatus(const HostCtl::Orsa::IscsiTarget::LunInfo& info, struct lun* l);
// Moves an offline LUN to the lowest free slot of `to` and its disk into `to`'s namespace
// directory, removing the old reservation and lock files. Failures read "Failed to move LUN to new
// target: " + reason. Touches the datastore before the caller writes the file.
void MoveLunToNewTarget(struct lun* l, struct target* from, struct target* to);
// Grows the disk and the entry to RequestedSectors(info). Returns true when the size changed;
// false when nothing was asked or the size is the same. Refuses shrinking ("LUN size cannot be
// reduced"). The option "KelOnlineResize" marks the entry while the disk grows and is cleared when
// it is done (also when the grow fails).
bool GrowLunSize(const HostCtl::Orsa::IscsiTarget::LunInfo& info, struct lun* l);
// Own transaction: sets the size of LUN lunId of info.targetAlias back to oldSize (0: the disk's
// actual capacity; "Cannot retrieve LUN actual size" when that cannot be read). "LUN not found
// when rollback LUN size" when the LUN is gone. Writes only when the size differs.
void RollbackConfigLunSize(const HostCtl::Orsa::IscsiTarget::LunInfo& info, const int& lunId,
                           const unsigned long& oldSize);
// After an UpdateLun that grew LUN lunId (-1: info.id) of info.targetAlias: false when the disk
// holds RequestedSectors(info) ("Async resize completed for LUN: <path>") or nothing was asked;
// true when the disk cannot be opened now (try again). When the disk is smaller, the file's size
// is rolled back to the disk's and "Cannot complete resizing, no enough space on Orsa Datastore"
// is thrown.
bool CheckResizeDone(const HostCtl::Orsa::IscsiTarget::LunInfo& info, const int& lunId);
// The capacity of the LUN's disk in sectors; 0 (after an error line) when it cannot be opened.
uint64_t GetKelLunActualSize(struct lun* l);

// ---- Initiator groups --------------------------------------------------------------------------

// Adds an empty group. Every failure (invalid name, the 257th group, a name in use) is thrown as
// "Failed to add initiator group <name> with error: <reason>".
void AddNewInitiatorgroupToConfFile(const std::string& name);
// Deletes a group. Without `force` a group still admitted by targets is refused ("Initiator group
// <name> is used by target(s) <alias1>, <alias2>; remove it from them first or use force"); with
// it, every reference is removed first. A target's auth group that is left with no initiator name
// and no group reference would admit every initiator, so force never leaves a target like that
// online: in the same write each such target gets the option "status" "offline", and the warning
// "Parser: Target <alias> has no initiator left after removing initiator group <name>; taking it
// offline" is logged once the file is written. Unknown group: "Initiator group <name> not found".
// Every failure is thrown as "Failed to remove initiator group <name> with error <reason>".
void RemoveInitiatorgroupFromConfFile(const std::string& name, bool force);
// Adds the names that are not in the group yet (compared without case). Checks the initiator
// limit for them first, then validates every name (Util::ValidateInitiatorIQN). Writes only when
// something was added.
void AddInitiatorsToInitiatorgroup(const std::string& name,
                                   const std::vector<std::string>& initiators);
// Removes the listed names (compared without case); names not in the group are skipped with a
// warning. Writes only when something was removed.
void RemoveInitiatorsFromInitiatorgroup(const std::string& name,
                                        const std::vector<std::string>& initiators);
// Throws when the cluster would hold more than 8192 initiators with `newCount` more: the valid
// initiator IQNs of each target's auth group (a shared group counts once per target) plus every
// initiator of every initiator group. Nothing to do for newCount < 1.
void checkInitiatorCount(struct conf* c, int newCount);

// ---- Defaults and the initial file -------------------------------------------------------------

// The "default" auth group gets info's type and credentials (No-Authentication: type none, no
// credentials; an empty type keeps it); the "default" portal group's listen becomes
// "<nic>:<port>" (an empty interface keeps it). Writes and runs the change action.
void UpdateDefaultConfig(const HostCtl::Orsa::IscsiTarget::DefaultInfo& info);
// Creates kel.conf (mode 0600) holding an empty model at generation 1 when there is none; an
// existing file (also one another host creates at the same moment) is left as it is. Publishes
// nothing: the first edit does.
void InitConf();

// ---- Readers (through the configuration cache) -------------------------------------------------

std::vector<HostCtl::Orsa::IscsiTarget::TargetInfo> GetTargets();
// The LUNs of the target with this alias; "Target <alias> not found".
void GetLunsForTarget(std::string targetAlias,
                      std::vector<HostCtl::Orsa::IscsiTarget::LunInfo>& out);
// All groups (empty name) or the one named; failures, also "Initiator group <name> not found",
// are thrown as "Failed to retrieve initiator group info with error <reason>".
void GetInitiatorgroupsFromConfFile(
    const std::string& name, std::vector<HostCtl::Orsa::IscsiTarget::InitiatorgroupInfo>& out);
HostCtl::Orsa::IscsiTarget::DefaultInfo GetDefaultInfo(bool withSecrets);

}  // namespace Parser

namespace Util {

// One change of kel.conf, the shape every writer follows:
//  1. an exclusive ConfHandle is opened and `edit` changes its model; `edit` returns false when
//     there is nothing to write (the handle is closed and nothing else happens);
//  2. the generation about to be written must be above the one published in the directory (see
//     CheckGenerationAheadOfDirectory);
//  3. the file is written with generation + 1 and `written` (when given) runs, still under the
//     lock;
//  4. the new generation is published in the directory (DoActionForConfigChange) while the
//     exclusive lock is still held: a host's publication can then never overtake the newer one of
//     the host that writes next, so the directory ends with the file's last generation;
//  5. the handle is closed, unlocking the file;
//  6. ApplyConfigChange: only now, since the daemon reads the file under the shared lock.
// Returns the generation written, or all ones. Failures: from `edit`, the check or the write,
// nothing is written and the edit's datastore steps are undone; from the publication, the file
// stays written (`written` has run), the cached configuration is dropped and no reload is asked
// for; from the reload, everything else is done. A write whose swap succeeded but whose directory
// sync failed counts as written (it is published, then its failure reported). Whenever the
// failure comes after the write, the log (and kelctl, above the message) says so and names the
// generation the file now holds. Other hosts converge on a write whose publication failed through
// the control thread's re-publication (OrsaIscsiTargetImpl::KelCheckConfigLodexEntry).
// Removes what processes of this host that were killed in the middle of an operation left on the
// datastore and the model `c` (kel.conf as read under the exclusive lock) does not name: target
// namespaces and links, LUN disks, namespaces half deleted (platform/creation_journal.h). Never
// touches anything outside the datastore. ChangeConfFile runs it first.
void SweepAbandonedObjects(const struct conf* c);

// Refuses (nothing changed) when the file's generation + 1 would not be above the generation
// published in the directory: kel.conf was replaced, emptied or rolled back outside kel, and a
// write would hand out a generation that every host has already applied (so none would reload)
// while its targets vanished. The message says how to restore the file.
void CheckGenerationAheadOfDirectory(const ConfHandle& handle);

uint64_t ChangeConfFile(const std::function<bool(ConfHandle&)>& edit,
                        const std::function<void(uint64_t)>& written = nullptr);

// The local half of the change action, after the handle that wrote `generation` is destroyed
// (ChangeConfFile runs it): drop the cached configuration and make the local daemon reload
// (ReloadKeld, only while the service is enabled on this host; its failure propagates after the
// cache is dropped). All ones: nothing was written, nothing to do. Publishing is not part of it:
// that happens under the file lock (step 3 above).
void ApplyConfigChange(uint64_t generation);

// One target's record read from kel.conf; throws "Target <alias> not found" when missing.
void GetTargetInfoFromConfFile(const std::string& alias,
                               HostCtl::Orsa::IscsiTarget::TargetInfo& out);

}  // namespace Util

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
