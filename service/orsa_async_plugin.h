// Plug-in entry: how a host program reaches the management service.
//
// A program that links libkel calls the factory directly:
//   auto plugin = HostCtl::OrsaAsyncPluginFactory::GetAsyncOrsaPlugin();
//   std::shared_ptr<OrsaIscsiTarget> service = plugin->GetOrsaIscsiTarget();
// A program that loads the plug-in module (libkel_plugin.so) with dlopen finds the C-linkage entry
// points below with dlsym. Those are the whole binary interface of the module: the C++ objects
// they hand out are used through their virtual functions only, so the host needs nothing but
// service/orsa_iscsi_target.h and this header.
//
// Load and unload: the host calls kel_nukctl_init() once after loading the module and
// kel_nukctl_fini() once before unloading it.
#pragma once

#include <memory>

#include "service/orsa_iscsi_target.h"

namespace HostCtl {

// The host stack's plug-in interface.
class OrsaAsyncPlugin {
 public:
  virtual ~OrsaAsyncPlugin() = default;
  // A newly constructed service object, owned by the caller (never the process-wide singleton).
  // Constructing one loads the stored service state; it never throws for an unreadable state.
  virtual std::shared_ptr<Orsa::IscsiTarget::OrsaIscsiTarget> GetOrsaIscsiTarget() = 0;
};

class OrsaAsyncPluginFactory {
 public:
  // A newly allocated plug-in object, owned by the caller. Thread-safe.
  static std::unique_ptr<OrsaAsyncPlugin> GetAsyncOrsaPlugin();
};

}  // namespace HostCtl

namespace NukCtl {
namespace Orsa {

class OrsaAsyncPluginImpl : public virtual HostCtl::OrsaAsyncPlugin {
 public:
  std::shared_ptr<HostCtl::Orsa::IscsiTarget::OrsaIscsiTarget> GetOrsaIscsiTarget() override;
};

namespace IscsiTarget {

// Load-time hook: makes the process ready for service objects (parameter validation against this
// host). Safe to call more than once. Host event registration belongs to the host agent.
void KelNukCtlInit();
// Unload-time hook: logs "Calling KelNukCtlFini()" and drops the configuration cache's directory
// subscription without taking the cache's lock; a failure to drop it is logged and swallowed.
void KelNukCtlFini();

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl

// C-linkage entry points of the plug-in module, for dlsym. None of them lets an exception escape.
extern "C" {
// KelNukCtlInit(); 0 on success, -1 when it failed (logged).
int kel_nukctl_init(void);
// KelNukCtlFini(); always 0.
int kel_nukctl_fini(void);
// GetAsyncOrsaPlugin() released to the caller, who frees it with kel_release_async_plugin (so that
// it is deleted by the module that allocated it). Null when it could not be made (logged).
HostCtl::OrsaAsyncPlugin* kel_get_async_plugin(void);
void kel_release_async_plugin(HostCtl::OrsaAsyncPlugin* plugin);
}
