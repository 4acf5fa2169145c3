// LUN operations: add, remove, change and list the LUNs of a target.
#include <boost/thread/lock_types.hpp>

#include "conf/conf_handle.h"
#include "conf/paths.h"
#include "confedit/parser_edit.h"
#include "directory/config_cache.h"
#include "host/validation.h"
#include "platform/clock.h"
#include "platform/creation_journal.h"
#include "platform/datastore.h"
#include "platform/disk_lun_api.h"
#include "platform/exception.h"
#include "platform/log.h"
#include "service/linux_validation_env.h"
#include "service/orsa_iscsi_target_impl.h"
#include "service/service_internal.h"
#include "service/service_locks.h"
#include "storage/lun_disk.h"
#include "storage/namespace.h"
#include "storage/policy_ops.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {

using HostCtl::Lib::Orsa::OrsaCtlException;
using HostCtl::Orsa::IscsiTarget::LunInfo;
using HostCtl::Orsa::IscsiTarget::TargetInfo;
using ServiceInternal::kTag;

namespace {

// UpdateLun tries its edit (and the resize confirmation) this many times, 5 s apart.
constexpr int kUpdateLunAttempts = 5;
constexpr long kUpdateLunRetrySleepMs = 5000;

// The checks of AddLun that the file edit repeats under the file lock, made here as well so that
// a LUN the file will refuse never gets a disk (whose space a policy may reserve up front).
void PrecheckNewLun(const LunInfo& lun, const TargetInfo& target) {
  if (lun.id != -1 && (lun.id < 0 || lun.id >= Parser::kMaxLunsPerTarget)) {
    throw OrsaCtlException("Invalid LUN id " + std::to_string(lun.id) + ": valid ids are 0 to " +
                           std::to_string(Parser::kMaxLunsPerTarget - 1));
  }
  for (const LunInfo& l : target.luns) {
    if (l.id == lun.id) {
      throw OrsaCtlException("LUN id " + std::to_string(lun.id) + " already exists for target " +
                             lun.targetAlias);
    }
  }
  size_t used = 0;
  for (const TargetInfo& t : Parser::GetTargets()) used += t.luns.size();
  if (used >= static_cast<size_t>(Parser::kMaxLuns)) {
    throw OrsaCtlException("Limit on total number of LUNs (" + std::to_string(Parser::kMaxLuns) +
                           ") has been reached.");
  }
}

// Whether kel.conf holds a LUN of `targetAlias` backed by `path` (read from the file itself).
bool LunInFile(const std::string& targetAlias, const std::string& path) {
  ConfigCache::CleanupCachedConfig();
  std::vector<LunInfo> luns;
  Parser::GetLunsForTarget(targetAlias, luns);
  const std::string absolute = kel::platform::DatastorePath() + "/" + path;
  for (const LunInfo& l : luns) {
    if (l.path == path || l.path == absolute) return true;
  }
  return false;
}

// Removes the disk of a LUN that never made it into kel.conf. Failures are logged.
void RollbackNewLunDisk(const std::string& path) {
  const std::string absolute = kel::platform::DatastorePath() + "/" + path;
  try {
    NukCtl::Storage::DiskLunApi::RemoveVirtualDisk(absolute, Util::NewOperationId());
    kel::platform::JournalForget(absolute);
    Util::RemovePRFile("", absolute);
  } catch (const OrsaCtlException& e) {
    LogError("%s: Failed to remove the disk %s of a LUN that was not added: %s\n", kTag,
             absolute.c_str(), e.GetMessage().c_str());
  }
}

}  // namespace

void OrsaIscsiTargetImpl::AddLun(LunInfo& lun) {
  boost::shared_lock<boost::upgrade_mutex> service(serviceLock);
  LogInfo("%s: Creating LUN with id %d at target %s\n", kTag, lun.id, lun.targetAlias.c_str());
  CheckIscsiServiceStatus(false);
  Util::VerifyLunParams(lun, true);
  Util::VerifyLunStatus(lun.status);
  if (lunNaaEnabled) lun.naa = Util::GenerateDiskNaa();
  lun.sizeSectors = Util::GetLunSizeInSectors(lun.sizeText);

  TargetInfo target;
  Util::GetTargetInfoFromConfFile(lun.targetAlias, target);
  PrecheckNewLun(lun, target);

  std::string path;
  std::string uuid;
  Util::CreateLun(std::to_string(lun.id), lun.targetAlias, target.uuid, lun.sizeSectors,
                  lun.storagePolicy, path, uuid);
  lun.path = path;
  lun.uuid = uuid;
  bool changed = false;
  const std::string absolute = kel::platform::DatastorePath() + "/" + path;
  try {
    Parser::AddNewLunToConfFile(lun, changed);
    kel::platform::JournalForget(absolute);
  } catch (const OrsaCtlException& e) {
    bool inFile = false;
    try {
      inFile = LunInFile(lun.targetAlias, path);
    } catch (const OrsaCtlException& readError) {
      // Unknown: keeping a disk too many is recoverable, deleting a served one is not.
      LogError("%s: Cannot tell whether LUN %s was added: %s\n", kTag, path.c_str(),
               readError.GetMessage().c_str());
      inFile = true;
    }
    if (!inFile) {
      LogWarning("%s: Add LUN %d to target %s failed: %s rollback by removing its disk\n", kTag,
                 lun.id, lun.targetAlias.c_str(), e.GetMessage().c_str());
      RollbackNewLunDisk(path);
    } else {
      kel::platform::JournalForget(absolute);
    }
    throw;
  }
}

void OrsaIscsiTargetImpl::RemoveLun(unsigned int id, const std::string& targetAlias,
                                    bool forceRemove) {
  LogInfo("%s: Removing LUN id %d from target %s, forceRemove: %d\n", kTag, static_cast<int>(id),
          targetAlias.c_str(), forceRemove ? 1 : 0);
  boost::shared_lock<boost::upgrade_mutex> service(serviceLock);
  CheckIscsiServiceStatus(false);
  const int lunId = static_cast<int>(id);
  const std::string path = Util::GetLunPathById(targetAlias, lunId);

  if (!Util::PathExists(Util::GetTargetsDirPath() + "/" + path)) {
    LogWarning(
        "%s: Removing LUN id %d from target \"%s\" pemo file \"%s\" not found, try remove related "
        "entry from kel.conf\n",
        kTag, lunId, targetAlias.c_str(), path.c_str());
    Parser::RemoveLunFromConfFile(lunId, targetAlias);
    return;
  }

  // Offline first, so that the serving host lets the disk go before it is removed.
  LunInfo offline;
  offline.id = lunId;
  offline.targetAlias = targetAlias;
  offline.status = "offline";
  UpdateLunLocked(offline, -1, "");
  try {
    Util::RemoveLun(lunId, path, targetAlias);
  } catch (const OrsaCtlException& e) {
    if (!forceRemove) throw;
    // Forced: the entry goes although the disk is still held; the disk file stays on the
    // datastore for the administrator to remove once its holder lets go.
    LogWarning("%s: Forced removal of LUN %d of target %s leaves its disk %s behind: %s\n", kTag,
               lunId, targetAlias.c_str(), path.c_str(), e.GetMessage().c_str());
  }
  Parser::RemoveLunFromConfFile(lunId, targetAlias);
}

void OrsaIscsiTargetImpl::UpdateLun(LunInfo& lun, int newId, const std::string& newTarget,
                                    bool locked) {
  LogInfo(
      "%s: Updating LUN with id %d at target %s size in sectors: %s, with policy %s, newId: %d, "
      "newTarg: %s, alias %s, status: %s.\n",
      kTag, lun.id, lun.targetAlias.c_str(), lun.sizeText.c_str(), lun.storagePolicy.c_str(), newId,
      newTarget.c_str(), lun.alias.c_str(), lun.status.c_str());
  if (!locked) {
    UpdateLunLocked(lun, newId, newTarget);
    return;
  }
  boost::shared_lock<boost::upgrade_mutex> service(serviceLock);
  CheckIscsiServiceStatus(false);
  UpdateLunLocked(lun, newId, newTarget);
}

void OrsaIscsiTargetImpl::UpdateLunLocked(LunInfo& lun, int newId, const std::string& newTarget) {
  Util::VerifyLunParams(lun, false);
  Util::VerifyLunStatus(lun.status);
  const bool resize = !lun.sizeText.empty();
  if (resize) lun.sizeSectors = Util::GetLunSizeInSectors(lun.sizeText);
  if (!lun.storagePolicy.empty()) Util::UpdateLunPolicy(lun);

  const int originalId = lun.id;
  const std::string originalTarget = lun.targetAlias;
  bool edited = false;
  for (int attempt = 1;; ++attempt) {
    if (!edited) {
      bool retry = false;
      // A failure before the write leaves the datastore as it was: the handle moves a LUN's disk
      // back to the target that kel.conf still names.
      Util::ChangeConfFile([&](ConfHandle& handle) {
        Parser::UpdateLun(lun, newId, newTarget, handle, retry);
        return !retry;
      });
      edited = !retry;
    }
    // Parser::UpdateLun leaves the LUN's new number and target in the record.
    if (edited && (!resize || !Parser::CheckResizeDone(lun, lun.id))) return;
    if (attempt >= kUpdateLunAttempts) {
      throw OrsaCtlException("Failed to update LUN " + std::to_string(originalId) + " of target " +
                             originalTarget + " after " + std::to_string(kUpdateLunAttempts) +
                             " attempts");
    }
    kel::platform::SleepMs(kUpdateLunRetrySleepMs);
  }
}

void OrsaIscsiTargetImpl::GetLuns(std::string targetAlias, std::vector<LunInfo>& out,
                                  bool withCompliance) {
  boost::shared_lock<boost::upgrade_mutex> service(serviceLock);
  CheckIscsiServiceStatus(false);
  Parser::GetLunsForTarget(targetAlias, out);
  if (!withCompliance) return;
  for (LunInfo& lun : out) Util::GetPolicyComplianceStatusForLun(complianceHandle, lun);
}

LunInfo OrsaIscsiTargetImpl::GetLunInfo(const std::string& targetAlias, int id) {
  boost::shared_lock<boost::upgrade_mutex> service(serviceLock);
  CheckIscsiServiceStatus(false);
  std::vector<LunInfo> luns;
  Parser::GetLunsForTarget(targetAlias, luns);
  for (LunInfo& lun : luns) {
    if (lun.id != id) continue;
    Util::GetPolicyComplianceStatusForLun(complianceHandle, lun);
    return lun;
  }
  throw OrsaCtlException("LUN id " + std::to_string(id) + " not found for target " + targetAlias);
}

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
