// Configuration editing: the transactions through which the service changes kel.conf, and the
// readers the service uses.
//
// Each transaction opens its own exclusive ConfHandle (unless it is given one), changes the model,
// checks the cluster limits, writes the file with generation + 1, runs the change action and
// destroys the handle. Every failure is thrown as OrsaCtlException; the handle is destroyed on the
// way out, which drops the unsaved model and unlocks the file, so a failed edit never reaches the
// file. Readers go through the configuration cache.
//
// Thread-safety: all functions may be called from several threads; edits are serialised by the
// cluster-wide file lock.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "service/records.h"

struct conf;
struct lun;
struct target;

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {

class ConfHandle;

namespace Parser {

// Cluster limits.
constexpr int kMaxTargets = 128;
constexpr int kMaxLuns = 1024;
constexpr int kMaxLunsPerTarget = 256;
constexpr int kMaxInitiatorGroups = 256;
constexpr int kMaxInitiators = 8192;

void InitKelParserLib();

// Targets.
void AddNewTargetToConfFile(HostCtl::Orsa::IscsiTarget::TargetCreateParam& param, bool& changed);
void UpdateTargetConf(const HostCtl::Orsa::IscsiTarget::TargetCreateParam& param,
                      ConfHandle& handle);
void RemoveTargetFromConfFile(std::string alias);
void UpdateTargetStatus(const HostCtl::Orsa::IscsiTarget::TargetCreateParam& param,
                        struct target* t);

// LUNs.
void AddNewLunToConfFile(HostCtl::Orsa::IscsiTarget::LunInfo lun, bool& changed);
void RemoveLunFromConfFile(int lunId, const std::string& targetAlias);
// Applies id change, move to another target, alias, status and size inside the caller's handle.
// Sets `retry` when the caller should wait and try the whole edit again.
void UpdateLun(HostCtl::Orsa::IscsiTarget::LunInfo& lun, int newId, const std::string& newTarget,
               ConfHandle& handle, bool& retry);
void UpdateLunId(int newId, struct lun* l, struct target* t);
void UpdateLunAlias(const HostCtl::Orsa::IscsiTarget::LunInfo& info, struct lun* l);
void UpdateLunStatus(const HostCtl::Orsa::IscsiTarget::LunInfo& info, struct lun* l);
void MoveLunToNewTarget(struct lun* l, struct target* from, struct target* to);
// Returns true when the size changed (the backing disk was grown).
bool GrowLunSize(const HostCtl::Orsa::IscsiTarget::LunInfo& info, struct lun* l);
void RollbackConfigLunSize(const HostCtl::Orsa::IscsiTarget::LunInfo& info, const int& lunId,
                           const unsigned long& oldSize);
// Returns true when the resize has not completed yet and the caller should try again.
bool CheckResizeDone(const HostCtl::Orsa::IscsiTarget::LunInfo& info, const int& lunId);
uint64_t GetKelLunActualSize(struct lun* l);

// Initiator groups.
void AddNewInitiatorgroupToConfFile(const std::string& name);
void RemoveInitiatorgroupFromConfFile(const std::string& name, bool force);
void AddInitiatorsToInitiatorgroup(const std::string& name,
                                   const std::vector<std::string>& initiators);
void RemoveInitiatorsFromInitiatorgroup(const std::string& name,
                                        const std::vector<std::string>& initiators);
void checkInitiatorCount(struct conf* c, int newCount);

// Defaults and the initial file.
void UpdateDefaultConfig(const HostCtl::Orsa::IscsiTarget::DefaultInfo& info);
void InitConf();

// Readers.
std::vector<HostCtl::Orsa::IscsiTarget::TargetInfo> GetTargets();
void GetLunsForTarget(std::string targetAlias,
                      std::vector<HostCtl::Orsa::IscsiTarget::LunInfo>& out);
void GetInitiatorgroupsFromConfFile(
    const std::string& name, std::vector<HostCtl::Orsa::IscsiTarget::InitiatorgroupInfo>& out);
HostCtl::Orsa::IscsiTarget::DefaultInfo GetDefaultInfo(bool withSecrets);

}  // namespace Parser

namespace Util {

// The change action after this host wrote kel.conf with `generation`: publish the generation in
// the directory (DoActionForConfigChange) and make the local daemon reload. All ones: nothing was
// written, nothing to do.
void ApplyConfigChange(uint64_t generation);

// One target's record read from kel.conf; throws "Target <alias> not found" when missing.
void GetTargetInfoFromConfFile(const std::string& alias,
                               HostCtl::Orsa::IscsiTarget::TargetInfo& out);

}  // namespace Util

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
