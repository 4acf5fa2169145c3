// What the service's tests add to a TestHost: service objects made the way a host program gets
// them, a host made ready for configuration operations, and the texts they look for.
#pragma once

#include <memory>
#include <string>

#include "conf/paths.h"
#include "directory/config_cache.h"
#include "platform/directory.h"
#include "platform/exception.h"
#include "service/orsa_async_plugin.h"
#include "service/orsa_iscsi_target_impl.h"
#include "tests/support/test_host.h"

namespace kel {
namespace testing {

namespace Kel = NukCtl::Orsa::IscsiTarget;
using HostCtl::Lib::Orsa::OrsaCtlException;
using HostCtl::Orsa::IscsiTarget::DefaultInfo;
using HostCtl::Orsa::IscsiTarget::LunInfo;
using HostCtl::Orsa::IscsiTarget::NamespaceCreateParam;
using HostCtl::Orsa::IscsiTarget::OrsaIscsiTarget;
using HostCtl::Orsa::IscsiTarget::TargetCreateParam;
using HostCtl::Orsa::IscsiTarget::TargetInfo;

inline constexpr const char* kNotEnabled =
    "Orsa iSCSI Target Service is not enabled or the enable task is in progress.";
// Secrets that pass the CHAP rules; tests look for them in every output.
inline constexpr const char* kSecret = "Secret#1234Ab";
inline constexpr const char* kMutualSecret = "Mutual!5678Cd";

// A service object made the way a host program gets one.
inline std::shared_ptr<OrsaIscsiTarget> NewService() {
  return HostCtl::OrsaAsyncPluginFactory::GetAsyncOrsaPlugin()->GetOrsaIscsiTarget();
}

// Creates the namespace with the default interface "nuk0" and enables the service.
inline void Ready(OrsaIscsiTarget& service) {
  DefaultInfo defaults;
  defaults.networkInterface = "nuk0";
  service.CreateNamespace(NamespaceCreateParam(), defaults);
  service.SetIscsiTargetStatus(true, false);
}

inline TargetCreateParam NewTarget(const std::string& alias) {
  TargetCreateParam p;
  p.alias = alias;
  return p;
}

inline LunInfo NewLun(const std::string& target, const std::string& size, int id = -1) {
  LunInfo l;
  l.id = id;
  l.targetAlias = target;
  l.sizeText = size;
  return l;
}

// Adds a target or a LUN that a test only needs to exist; returns the request as the service left
// it (uuid, number, path filled in).
inline TargetCreateParam AddTarget(OrsaIscsiTarget& service, const std::string& alias) {
  TargetCreateParam p = NewTarget(alias);
  service.AddTarget(p);
  return p;
}
inline LunInfo AddLun(OrsaIscsiTarget& service, const std::string& target, const std::string& size,
                      int id = -1) {
  LunInfo l = NewLun(target, size, id);
  service.AddLun(l);
  return l;
}

}  // namespace testing
}  // namespace kel
