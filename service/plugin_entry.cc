// The plug-in factory, the load and unload hooks, and the C-linkage entry points of the module.
#include <exception>

#include "directory/config_cache.h"
#include "platform/exception.h"
#include "platform/log.h"
#include "service/linux_validation_env.h"
#include "service/orsa_async_plugin.h"
#include "service/orsa_iscsi_target_impl.h"

namespace HostCtl {

std::unique_ptr<OrsaAsyncPlugin> OrsaAsyncPluginFactory::GetAsyncOrsaPlugin() {
  return std::make_unique<NukCtl::Orsa::OrsaAsyncPluginImpl>();
}

}  // namespace HostCtl

namespace NukCtl {
namespace Orsa {

std::shared_ptr<HostCtl::Orsa::IscsiTarget::OrsaIscsiTarget>
OrsaAsyncPluginImpl::GetOrsaIscsiTarget() {
  return std::make_shared<IscsiTarget::OrsaIscsiTargetImpl>();
}

namespace IscsiTarget {

void KelNukCtlInit() {
  LogInfo("%s: Calling %s()\n", "OrsaIscsiTargetImpl", "KelNukCtlInit");
  Util::InstallLinuxValidationEnv();
}

void KelNukCtlFini() {
  LogInfo("%s: Calling %s()\n", "OrsaIscsiTargetImpl", "KelNukCtlFini");
  try {
    ConfigCache::UnsubscribeLodexNoLock();
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException& e) {
    LogError("%s: Failed to unsubscribe KEL config query from LODEX due to: %s\n", "KelConfigCache",
             e.GetMessage().c_str());
  }
}

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl

extern "C" {

int kel_nukctl_init(void) {
  try {
    NukCtl::Orsa::IscsiTarget::KelNukCtlInit();
    return 0;
  } catch (const std::exception& e) {
    LogError("%s: KelNukCtlInit failed: %s\n", "OrsaIscsiTargetImpl", e.what());
    return -1;
  }
}

int kel_nukctl_fini(void) {
  try {
    NukCtl::Orsa::IscsiTarget::KelNukCtlFini();
  } catch (const std::exception& e) {
    LogError("%s: KelNukCtlFini failed: %s\n", "OrsaIscsiTargetImpl", e.what());
  }
  return 0;
}

HostCtl::OrsaAsyncPlugin* kel_get_async_plugin(void) {
  try {
    return HostCtl::OrsaAsyncPluginFactory::GetAsyncOrsaPlugin().release();
  } catch (const std::exception& e) {
    LogError("%s: Cannot make the plug-in object: %s\n", "OrsaIscsiTargetImpl", e.what());
    return nullptr;
  }
}

void kel_release_async_plugin(HostCtl::OrsaAsyncPlugin* plugin) { delete plugin; }

}  // extern "C"
