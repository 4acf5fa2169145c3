// Target operations: create, change, remove, list and describe targets, and move their ownership
// between hosts.
#include <algorithm>
#include <boost/thread/lock_types.hpp>
#include <cstdlib>
#include <exception>
#include <map>
#include <set>

#include "conf/conf_handle.h"
#include "conf/paths.h"
#include "confedit/parser_edit.h"
#include "directory/config_entry.h"
#include "directory/host_queries.h"
#include "host/daemon_control.h"
#include "host/validation.h"
#include "placement/affinity.h"
#include "platform/clock.h"
#include "platform/datastore.h"
#include "platform/exception.h"
#include "platform/log.h"
#include "platform/policy.h"
#include "service/default_iqn.h"
#include "service/linux_validation_env.h"
#include "service/orsa_iscsi_target_impl.h"
#include "service/service_internal.h"
#include "service/service_locks.h"
#include "storage/namespace.h"
#include "storage/policy_ops.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {

using HostCtl::Lib::Orsa::OrsaCtlException;
using HostCtl::Orsa::IscsiTarget::TargetCreateParam;
using HostCtl::Orsa::IscsiTarget::TargetInfo;
using ServiceInternal::kTag;

namespace ServiceInternal {

const char* const kTag = "OrsaIscsiTargetImpl";

TargetCreateParam KeepParamsOf(const TargetInfo& target) {
  TargetCreateParam param;
  param.alias = target.alias;
  param.iqn = target.iqn;
  param.uuid = target.uuid;
  param.initiators = target.initiators;
  param.initiators.insert(param.initiators.end(), target.initiatorGroups.begin(),
                          target.initiatorGroups.end());
  return param;
}

}  // namespace ServiceInternal

namespace {

// Undoes the storage side of a target whose configuration entry could not be written. Each step
// is tried on its own so that one failure does not leave the other behind; failures are logged.
void RollbackNewTarget(const std::string& uuid) {
  try {
    Util::ReleaseObjectOwnership(uuid);
  } catch (const OrsaCtlException& e) {
    LogWarning("%s: Failed to release the owner record of target namespace %s: %s\n", kTag,
               uuid.c_str(), e.GetMessage().c_str());
  }
  try {
    Util::DeleteTargetNamespace(uuid);
    Util::ForgetTargetNamespaceCreation(uuid);
  } catch (const OrsaCtlException& e) {
    LogError("%s: Failed to delete target namespace %s: %s\n", kTag, uuid.c_str(),
             e.GetMessage().c_str());
  }
}

// Names of the live members, read once per listing rather than once per target.
std::map<std::string, std::string> MemberNames() {
  std::map<std::string, std::string> names;
  for (const auto& m : Util::GetClusterMembers()) names[m.uuid] = m.name;
  return names;
}

void FillOwner(TargetInfo& t, const std::map<std::string, std::string>& names) {
  t.ownerHostUuid = Util::GetTargetOwnerHostUuid(t.ownerId);
  auto name = names.find(t.ownerHostUuid);
  t.ownerHostName = name != names.end() ? name->second : std::string();
}

}  // namespace

void OrsaIscsiTargetImpl::AddTarget(TargetCreateParam& param) {
  boost::shared_lock<boost::upgrade_mutex> service(serviceLock);
  CheckIscsiServiceStatus(false);
  if (param.iqn.empty()) param.iqn = Util::GetDefautltIQN();

  Util::VerifyTargetParams(param);
  Util::VerifyNetworkConfig(param.networkInterface, param.port);
  Util::VerifyTargetAuthParams(param);
  Util::VerifyTargetConfValues(param);
  if (!param.storagePolicy.empty()) Util::VerifyPolicy(param.storagePolicy);
  if (!param.affinitySite.empty()) Util::VerifyNewTargetAffinity(param);

  Util::CreateTargetNamespace(param.storagePolicy, param.uuid);
  bool written = false;
  try {
    // The host that creates a target serves it first: its namespace object is the target's
    // owner-id object.
    Util::ClaimObjectOwnership(param.uuid);
    Parser::AddNewTargetToConfFile(param, written);
    Util::ForgetTargetNamespaceCreation(param.uuid);
  } catch (const OrsaCtlException& e) {
    if (written) {
      Util::ForgetTargetNamespaceCreation(param.uuid);
      // kel.conf names the target already (only the change action after the write failed), so
      // its namespace must stay; the error still reaches the caller.
      LogWarning("%s: Add target %s written but its change action failed: %s\n", kTag,
                 param.alias.c_str(), e.GetMessage().c_str());
      throw;
    }
    LogWarning("%s: Add target %s failed: %s rollback by deleting target namespace\n", kTag,
               param.alias.c_str(), e.GetMessage().c_str());
    RollbackNewTarget(param.uuid);
    throw;
  }
}

void OrsaIscsiTargetImpl::ApplyTargetUpdate(TargetCreateParam& param, const TargetInfo& current) {
  std::string oldPolicy;
  bool policyChanged = false;
  bool written = false;
  try {
    Util::ChangeConfFile(
        [&](ConfHandle& handle) {
          Parser::UpdateTargetConf(param, handle);
          Util::VerifyUpdateTargetAffinity(complianceHandle, param, current);
          if (!param.storagePolicy.empty()) {
            Util::VerifyPolicy(param.storagePolicy);
            kel::platform::ReadObjectPolicy(kel::platform::DatastorePath() + "/" + param.uuid,
                                            &oldPolicy);
            Util::UpdateTargetNamespacePolicy(param.uuid, param.storagePolicy);
            policyChanged = true;
          }
          return true;
        },
        [&written](uint64_t) { written = true; });
  } catch (const OrsaCtlException&) {
    if (policyChanged && !written) {
      // The file keeps the old state, so the namespace object keeps its old policy as well.
      try {
        Util::UpdateTargetNamespacePolicy(param.uuid, oldPolicy);
      } catch (const OrsaCtlException& e) {
        LogError("%s: Failed to restore the policy of target %s: %s\n", kTag, param.alias.c_str(),
                 e.GetMessage().c_str());
      }
    }
    throw;
  }
  // A target pinned to a site now serves from that site: the move follows the written change, so
  // that a refused or failed update moves nothing.
  TargetInfo updated = current;
  if (param.affinitySite == "None") {
    updated.affinitySite.clear();
  } else if (!param.affinitySite.empty()) {
    updated.affinitySite = param.affinitySite;
  }
  try {
    Util::KeepTargetInSite(updated);
  } catch (const OrsaCtlException& e) {
    LogWarning("%s: Target %s stays off its site %s for now: %s\n", kTag, param.alias.c_str(),
               updated.affinitySite.c_str(), e.GetMessage().c_str());
  }
}

void OrsaIscsiTargetImpl::UpdateTargetConfig(TargetCreateParam& param) {
  boost::shared_lock<boost::upgrade_mutex> service(serviceLock);
  try {
    CheckIscsiServiceStatus(false);
    Util::VerifyNetworkConfig(param.networkInterface, param.port);
    Util::VerifyTargetAuthParams(param);
    Util::VerifyTargetConfValues(param);

    TargetInfo current;
    Util::GetTargetInfoFromConfFile(param.alias, current);
    if (param.uuid.empty()) param.uuid = current.uuid;
    // A new IQN, the alias and the CHAP texts go into kel.conf: the creation rules apply to them.
    TargetCreateParam names = param;
    if (names.iqn.empty()) names.iqn = current.iqn;
    Util::VerifyTargetParams(names);

    ApplyTargetUpdate(param, current);
  } catch (const OrsaCtlException& e) {
    LogError("%s: Failed to update target '%s' configuration: %s\n", kTag, param.alias.c_str(),
             e.GetMessage().c_str());
    throw;
  }
}

void OrsaIscsiTargetImpl::RemoveTarget(const std::string& alias) {
  boost::shared_lock<boost::upgrade_mutex> service(serviceLock);
  CheckIscsiServiceStatus(false);
  const std::vector<TargetInfo> targets = Parser::GetTargets();
  auto found = std::find_if(targets.begin(), targets.end(),
                            [&alias](const TargetInfo& t) { return t.alias == alias; });
  if (found == targets.end()) throw OrsaCtlException("Target " + alias + " not found");
  const TargetInfo target = *found;

  // Offline first: the daemons stop serving the target before its storage goes away.
  TargetCreateParam offline = ServiceInternal::KeepParamsOf(target);
  offline.status = "offline";
  // A change that reached kel.conf is carried through, as AddTarget keeps a target whose reload
  // failed: the failure of a step after a write (publication, reload) is reported at the end.
  std::exception_ptr afterWrite;
  bool written = false;
  try {
    Util::ChangeConfFile(
        [&offline](ConfHandle& handle) {
          Parser::UpdateTargetConf(offline, handle);
          return true;
        },
        [&written](uint64_t) { written = true; });
  } catch (const OrsaCtlException& e) {
    if (!written) throw;
    LogWarning("%s: Target %s is offline in kel.conf, but: %s; removing it all the same\n", kTag,
               alias.c_str(), e.GetMessage().c_str());
    afterWrite = std::current_exception();
  }

  if (Util::PathExists(Util::GetTargetsDirPath() + "/" + target.uuid)) {
    Util::DeleteTargetNamespace(target.uuid);
  } else {
    // Nothing left to delete; the entry must still be removable.
    LogWarning("%s: Namespace %s of target %s is already gone\n", kTag, target.uuid.c_str(),
               alias.c_str());
  }
  written = false;
  try {
    Parser::RemoveTargetFromConfFile(alias, [&written](uint64_t) { written = true; });
  } catch (const OrsaCtlException&) {
    if (!written) throw;
    afterWrite = std::current_exception();
  }
  try {
    Util::ReleaseObjectOwnership(target.ownerId.empty() ? target.uuid : target.ownerId);
  } catch (const OrsaCtlException& e) {
    LogWarning("%s: Failed to release the owner record of target %s: %s\n", kTag, alias.c_str(),
               e.GetMessage().c_str());
  }
  if (afterWrite) std::rethrow_exception(afterWrite);
}

std::vector<TargetInfo> OrsaIscsiTargetImpl::GetTargetsInternal() { return Parser::GetTargets(); }

std::vector<TargetInfo> OrsaIscsiTargetImpl::GetTargets(bool skipCompliance, bool localOnly) {
  boost::shared_lock<boost::upgrade_mutex> service(serviceLock);
  try {
    CheckIscsiServiceStatus(false);
    std::vector<TargetInfo> targets = Parser::GetTargets();
    const std::string self = localOnly ? Util::GetNodeUuid() : std::string();
    const std::map<std::string, std::string> names = MemberNames();
    for (auto it = targets.begin(); it != targets.end();) {
      FillOwner(*it, names);
      if (localOnly && it->ownerHostUuid != self) {
        it = targets.erase(it);
        continue;
      }
      if (!skipCompliance) {
        Util::GetPolicyComplianceStatusForObject(complianceHandle, it->uuid, it->storagePolicy,
                                                 it->policyCompliant, true);
      }
      ++it;
    }
    return targets;
  } catch (const OrsaCtlException& e) {
    LogError("%s: Failed to get target information: %s\n", kTag, e.GetMessage().c_str());
    throw;
  }
}

TargetInfo OrsaIscsiTargetImpl::GetTargetInfo(const std::string& alias) {
  boost::shared_lock<boost::upgrade_mutex> service(serviceLock);
  CheckIscsiServiceStatus(false);
  for (TargetInfo& t : Parser::GetTargets()) {
    if (t.alias != alias) continue;
    t.ownerHostUuid = Util::GetTargetOwnerHostUuid(t.ownerId);
    t.ownerHostName = Util::GetHostNameFromUuid(t.ownerHostUuid);
    Util::GetPolicyComplianceStatusForObject(complianceHandle, t.uuid, t.storagePolicy,
                                             t.policyCompliant, true);
    return t;
  }
  throw OrsaCtlException("Target " + alias + " not found");
}

void OrsaIscsiTargetImpl::TransferTargetsOwner(std::vector<TargetInfo>& targets, int retries) {
  int remaining = retries;
  for (;;) {
    for (const TargetInfo& t : targets) {
      bool queried = true;
      std::set<std::string> hosts;
      try {
        hosts = Util::QueryHostUuidsForObject(t.ownerId);
      } catch (const OrsaCtlException& e) {
        LogWarning("%s: Failed to query hosts for target %s (%s): %s\n", kTag, t.alias.c_str(),
                   t.ownerId.c_str(), e.GetMessage().c_str());
        queried = false;
      }
      if (queried) {
        if (hosts.empty()) continue;
        std::vector<std::string> list(hosts.begin(), hosts.end());
        for (size_t i = 1; i < list.size(); ++i) {
          size_t j = static_cast<size_t>(rand()) % (i + 1);
          std::swap(list[i], list[j]);
        }
        auto chosen = std::find_if(list.begin(), list.end(),
                                   [&t](const std::string& h) { return h != t.ownerHostUuid; });
        if (chosen != list.end()) {
          LogInfo("%s: Transfering target %s (%s) to %s\n", kTag, t.alias.c_str(),
                  t.ownerHostUuid.c_str(), chosen->c_str());
          Util::TransferObjectByUuid(t.ownerId, *chosen);
        }
      }
      const std::string now = Util::GetTargetOwnerHostUuid(t.ownerId);
      if (now != t.ownerHostUuid) {
        LogInfo("%s: Succeed transfering target %s (%s) from host %s to host %s\n", kTag,
                t.alias.c_str(), t.ownerId.c_str(), t.ownerHostUuid.c_str(), now.c_str());
      }
    }
    kel::platform::SleepMs(1000);
    for (auto it = targets.begin(); it != targets.end();) {
      const std::string now = Util::GetTargetOwnerHostUuid(it->ownerId);
      if (now == it->ownerHostUuid) {
        LogInfo("%s: target %s (%s) still remain on host %s\n", kTag, it->alias.c_str(),
                it->ownerId.c_str(), now.c_str());
        ++it;
      } else {
        LogInfo("%s: Succeed transfering target %s (%s) from host %s to host %s\n", kTag,
                it->alias.c_str(), it->ownerId.c_str(), it->ownerHostUuid.c_str(), now.c_str());
        it = targets.erase(it);
      }
    }
    --remaining;
    if (targets.empty()) break;
    LogError("%s: Retry transfer target, remain retry %d\n", kTag, remaining);
    if (remaining < 0) break;
  }
  if (!targets.empty()) {
    LogError("%s: Not all targets successfully transfered\n", kTag);
  } else {
    LogInfo("%s: Succeed transfering all targets\n", kTag);
  }
}

void OrsaIscsiTargetImpl::TransferLocalTargets(int retries) {
  std::vector<TargetInfo> targets = GetTargets(false, true);
  TransferTargetsOwner(targets, retries);
}

void TransferAllLocalTargets(void* nodeCount,
                             HostCtl::Orsa::IscsiTarget::OrsaIscsiTarget* service) {
  const uint32_t nodes = *static_cast<const uint32_t*>(nodeCount);
  if (nodes < 2) {
    LogInfo("%s: Skip target transfer since there is only one node.\n", kTag);
    return;
  }
  try {
    Util::WaitForNodeDecomComplete();
    service->TransferLocalTargets(2);
  } catch (const OrsaCtlException& e) {
    LogError("%s: Failed to transfer all targets (%s)\n", kTag, e.GetMessage().c_str());
  }
}

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
