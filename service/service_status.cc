// Service state: enabling and disabling the service on this host, the entry check of every
// configuration operation, restore after a restart, and the cluster defaults.
#include <atomic>
#include <boost/thread/lock_types.hpp>
#include <boost/thread/thread.hpp>
#include <memory>

#include "conf/conf_handle.h"
#include "confedit/parser_edit.h"
#include "directory/config_cache.h"
#include "directory/config_entry.h"
#include "directory/interface_publication.h"
#include "host/daemon_control.h"
#include "host/host_options.h"
#include "host/service_state.h"
#include "host/validation.h"
#include "platform/exception.h"
#include "platform/log.h"
#include "service/orsa_iscsi_target_impl.h"
#include "service/service_internal.h"
#include "service/service_locks.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {

using HostCtl::Lib::Orsa::OrsaCtlException;
using HostCtl::Orsa::IscsiTarget::DefaultInfo;

using ServiceInternal::kTag;

namespace {

std::atomic<bool> gSubscriptionWanted{true};

}  // namespace

void SetKelConfigSubscriptionWanted(bool wanted) { gSubscriptionWanted = wanted; }

void _CheckKelConfigSubscription() {
  if (!gSubscriptionWanted) return;
  try {
    if (!ConfigCache::IsLodexSubscribed()) ConfigCache::SubscribeLodex();
  } catch (const OrsaCtlException& e) {
    LogError("%s: Failed to subscribe LODEX : %s\n", kTag, e.GetMessage().c_str());
  }
}

void _UnsubscribeKelConfig() {
  try {
    ConfigCache::UnsubscribeLodex();
  } catch (const OrsaCtlException& e) {
    LogError("%s: Failed to unsubscribe LODEX : %s\n", kTag, e.GetMessage().c_str());
  }
}

void OrsaIscsiTargetImpl::SetIscsiTargetStatus(bool enable, bool failIfUnchanged) {
  LogInfo("%s: Start setting KEL status to %s\n", kTag, enable ? "enable" : "disable");
  boost::unique_lock<boost::upgrade_mutex> service(serviceLock);
  boost::upgrade_lock<boost::upgrade_mutex> lib(libLock);

  if (GetIscsiTargetStatus(false) == enable) {
    if (failIfUnchanged) {
      throw OrsaCtlException(std::string("Orsa iSCSI Target service is already ") +
                             (enable ? "enabled" : "disabled") + " on this host");
    }
    return;
  }
  if (enable) Util::VerifyEnvForEnable();

  // Raising the lock must not be cut short by an interruption of the calling thread: a
  // half-raised upgrade lock would be lost.
  boost::this_thread::disable_interruption holdOff;
  boost::upgrade_to_unique_lock<boost::upgrade_mutex> exclusive(lib);

  Util::SetKelFirewallRulesetStatus(enable);
  if (!enable) {
    _UnsubscribeKelConfig();
    Util::StopKeld();
    Util::UnloadKelKernelModule();
    DeinitLibs(exclusive);
  } else {
    // Fresh libraries: whatever an earlier enable left behind is not trusted.
    DeinitLibs(exclusive);
    InitVirtualDiskLib(exclusive);
    InitComplianceLib(exclusive);
    Util::PublishNukNicsToLodex();
    Util::LoadKelKernelModule();
    Util::StartKeld();
    _CheckKelConfigSubscription();
  }
  Util::SetStatus(enable);
  Util::SetKelLoaderChkConfig(enable);
  ReloadEnabled();
}

bool OrsaIscsiTargetImpl::GetIscsiTargetStatus(bool locked) {
  if (locked) {
    boost::shared_lock<boost::upgrade_mutex> lib(libLock);
    ReloadEnabled();
  } else {
    ReloadEnabled();
  }
  return enabled;
}

void OrsaIscsiTargetImpl::CheckIscsiServiceStatus(bool allowDisabled) {
  boost::upgrade_lock<boost::upgrade_mutex> lib(libLock);
  if (enabled) {
    InitVirtualDiskLib(lib);
    InitComplianceLib(lib);
    _CheckKelConfigSubscription();
    return;
  }
  if (!allowDisabled) {
    throw OrsaCtlException(std::string("Orsa iSCSI Target Service is not enabled or ") +
                           "the enable task is in progress.");
  }
}

void OrsaIscsiTargetImpl::Restore() {
  boost::upgrade_lock<boost::upgrade_mutex> lib(libLock);
  if (!GetIscsiTargetStatus(false)) return;
  LogInfo("%s: Restoring Orsa iSCSI status.\n", kTag);
  InitVirtualDiskLib(lib);
  InitComplianceLib(lib);
  Util::PublishNukNicsToLodex();
  Util::LoadKelKernelModule();
  Util::StartKeld();
  LogInfo("%s: Restored successfully.\n", kTag);
}

void OrsaIscsiTargetImpl::ReloadEnabled() {
  bool value = enabled;
  Util::LoadConfig(value);
  enabled = value;
}

void OrsaIscsiTargetImpl::LoadConfig() { ReloadEnabled(); }

void OrsaIscsiTargetImpl::Refresh() {
  LoadConfig();
  ConfigCache::CleanupCachedConfig();
}

DefaultInfo OrsaIscsiTargetImpl::GetDefaultInfo() {
  CheckIscsiServiceStatus(false);
  return Parser::GetDefaultInfo(false);
}

void OrsaIscsiTargetImpl::UpdateDefaultConfig(const DefaultInfo& info) {
  CheckIscsiServiceStatus(false);
  Util::VerifyNetworkConfig(info.networkInterface, info.port);
  Util::VerifyDefaultAuthParams(info);
  Parser::UpdateDefaultConfig(info);
  Util::UpdateDefaultConfigToConfigStore(info);
}

void OrsaIscsiTargetImpl::KelCheckConfigLodexEntry() {
  try {
    // Published while the file is held shared, so that no newer write can be overtaken.
    std::unique_ptr<ConfHandle> handle;
    if (!ConfigCache::GetKelConfLodexEntryExists(true)) {
      handle = std::make_unique<ConfHandle>(ConfHandle::kShared);
    } else {
      // The entry exists, but a write whose publication failed (the directory was down) left it
      // behind the file: the other hosts learn of that write only from a new publication.
      uint64_t published = 0;
      const NUK_ReturnStatus st = KeldGetConfigGenNumInLodex(&published);
      if (st != NUK_OK && st != NUK_NOT_FOUND) return;
      handle = std::make_unique<ConfHandle>(ConfHandle::kShared);
      const uint64_t current = handle->GetCurrentGenerationNum();
      if (st == NUK_OK && current == published) return;
      if (st == NUK_OK && current < published) {
        // Never published backwards: every host has applied the newer one already.
        LogWarning(
            "%s: kel.conf holds generation %llu, below the published %llu; not re-publishing\n",
            kTag, static_cast<unsigned long long>(current),
            static_cast<unsigned long long>(published));
        return;
      }
      LogInfo("%s: Re-publishing kel.conf generation %llu over the published %llu\n", kTag,
              static_cast<unsigned long long>(current), static_cast<unsigned long long>(published));
    }
    Util::DoActionForConfigChange(handle->GetCurrentGenerationNum());
    ConfigCache::SetKelConfLodexEntryExists(true, true);
  } catch (const OrsaCtlException& e) {
    LogWarning("%s: Failed to re-publish kel config lodex entry: %s\n", kTag,
               e.GetMessage().c_str());
  }
}

int64_t OrsaIscsiTargetImpl::KelGetNukNicCtlFlag() {
  return Util::KelGetTpiIntOpt("ORSA-iSCSI", "kelNukNicCtlEnable");
}

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
