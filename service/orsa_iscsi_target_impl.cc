// Construction, destruction and the singleton of the service object, the process-wide locks and
// the lazily initialised virtual-disk and compliance libraries.
#include "service/orsa_iscsi_target_impl.h"

#include <boost/thread/lock_types.hpp>

#include "confedit/parser_edit.h"
#include "directory/config_cache.h"
#include "host/service_state.h"
#include "platform/exception.h"
#include "platform/host_controls.h"
#include "platform/log.h"
#include "platform/status.h"
#include "platform/vdisk.h"
#include "service/linux_validation_env.h"
#include "service/service_internal.h"
#include "service/service_locks.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {

using HostCtl::Lib::Orsa::OrsaCtlException;

boost::upgrade_mutex serviceLock;
boost::upgrade_mutex libLock;

std::shared_ptr<OrsaIscsiTargetImpl> OrsaIscsiTargetImpl::_singleton;
boost::shared_mutex OrsaIscsiTargetImpl::_singletonMutex;

using ServiceInternal::kTag;

OrsaIscsiTargetImpl::OrsaIscsiTargetImpl() {
  try {
    // Read directly rather than through Util::KelGetTpiIntOpt, which turns a failed read into 0:
    // a failure here has a line of its own.
    NukCtl::Util::Sysinfo option(NukCtl::Util::Sysinfo::kSysinfoIntOptions);
    option.AddInstancePath("ORSA-iSCSI");
    option.AddInstancePath("kelLunNaaEnable");
    lunNaaEnabled = option.GetIntValue() != 0;
  } catch (const OrsaCtlException&) {
    LogWarning("%s: Get ORSA CONFIG kelLunNaaEnable failure, do not enable NAA\n", kTag);
    lunNaaEnabled = false;
  }
  LogInfo("%s: Constructing OrsaIscsiTargetImpl() 0x%p, lunNaa: %s\n", kTag,
          static_cast<void*>(this), lunNaaEnabled ? "Enabled" : "Disabled");
  Util::InstallLinuxValidationEnv();
  Parser::InitKelParserLib();
  // The host is always a member of a cluster on Linux (the embedded directory is a one-node
  // cluster), so the stored state is loaded and any cached copy of kel.conf is dropped.
  try {
    LoadConfig();
    ConfigCache::CleanupCachedConfig();
  } catch (const OrsaCtlException& e) {
    LogInfo("%s: Failed to get Orsa status: %s\n", kTag, e.GetMessage().c_str());
  }
}

OrsaIscsiTargetImpl::~OrsaIscsiTargetImpl() {
  LogInfo("%s: Destructing OrsaIscsiTargetImpl() 0x%p\n", kTag, static_cast<void*>(this));
  boost::unique_lock<boost::upgrade_mutex> service(serviceLock);
  boost::upgrade_lock<boost::upgrade_mutex> lib(libLock);
  DeinitLibs(lib);
}

void OrsaIscsiTargetImpl::GetOrsaIscsiTargetImpl(std::shared_ptr<OrsaIscsiTargetImpl>& out) {
  boost::unique_lock<boost::shared_mutex> guard(_singletonMutex);
  if (!_singleton) {
    // A constructor that throws frees its own half-made object; the slot stays empty.
    _singleton = std::make_shared<OrsaIscsiTargetImpl>();
  }
  out = _singleton;
}

template <class HeldLock>
void OrsaIscsiTargetImpl::InitVirtualDiskLib(HeldLock& /*held*/) {
  if (virtualDiskReady) return;
  LogInfo("%s: Initializing disk lib.\n", kTag);
  if (VirtDisk_Init() != VIRTDISK_OK) throw OrsaCtlException("Failed to initialize VirtDisk");
  virtualDiskReady = true;
  LogInfo("%s: Initialized disk lib.\n", kTag);
}

template <class HeldLock>
void OrsaIscsiTargetImpl::InitComplianceLib(HeldLock& /*held*/) {
  if (complianceHandle != nullptr) return;
  LogInfo("%s: Initializing compliance lib.\n", kTag);
  NUK_ReturnStatus status = OrsaCompliance_Init(&complianceHandle);
  if (status != NUK_OK) {
    complianceHandle = nullptr;
    throw OrsaCtlException(std::string("Failed to init Orsa compliance lib:") +
                           NUK_ReturnStatusToString(status));
  }
  LogInfo("%s: Initialized compliance lib.\n", kTag);
}

template <class HeldLock>
void OrsaIscsiTargetImpl::DeinitLibs(HeldLock& /*held*/) {
  if (virtualDiskReady) {
    LogInfo("%s: De-initializing disk lib.\n", kTag);
    VirtDisk_Exit();
    virtualDiskReady = false;
    LogInfo("%s: De-initialized disk lib.\n", kTag);
  }
  if (complianceHandle != nullptr) {
    LogInfo("%s: De-initializing compliance lib.\n", kTag);
    OrsaCompliance_Deinit(complianceHandle);
    complianceHandle = nullptr;
    LogInfo("%s: De-initialized compliance lib.\n", kTag);
  }
}

// The lock types the operations hold when they call the library helpers.
template void OrsaIscsiTargetImpl::InitVirtualDiskLib(boost::upgrade_lock<boost::upgrade_mutex>&);
template void OrsaIscsiTargetImpl::InitVirtualDiskLib(
    boost::upgrade_to_unique_lock<boost::upgrade_mutex>&);
template void OrsaIscsiTargetImpl::InitComplianceLib(boost::upgrade_lock<boost::upgrade_mutex>&);
template void OrsaIscsiTargetImpl::InitComplianceLib(
    boost::upgrade_to_unique_lock<boost::upgrade_mutex>&);
template void OrsaIscsiTargetImpl::DeinitLibs(boost::upgrade_lock<boost::upgrade_mutex>&);
template void OrsaIscsiTargetImpl::DeinitLibs(boost::upgrade_to_unique_lock<boost::upgrade_mutex>&);

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
