// Initiator groups and the configuration namespace.
#include <boost/thread/lock_types.hpp>

#include "conf/paths.h"
#include "confedit/parser_edit.h"
#include "host/service_state.h"
#include "host/validation.h"
#include "platform/exception.h"
#include "platform/log.h"
#include "service/orsa_iscsi_target_impl.h"
#include "service/service_internal.h"
#include "service/service_locks.h"
#include "storage/namespace.h"
#include "storage/policy_ops.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {

using HostCtl::Lib::Orsa::OrsaCtlException;
using HostCtl::Orsa::IscsiTarget::DefaultInfo;
using HostCtl::Orsa::IscsiTarget::InitiatorgroupInfo;
using HostCtl::Orsa::IscsiTarget::NamespaceCreateParam;
using HostCtl::Orsa::IscsiTarget::NamespaceInfo;
using ServiceInternal::kTag;

void OrsaIscsiTargetImpl::AddInitiatorgroup(const std::string& name) {
  CheckIscsiServiceStatus(false);
  Util::ValidateInitiatorGroupName(name);
  Parser::AddNewInitiatorgroupToConfFile(name);
}

void OrsaIscsiTargetImpl::RemoveInitiatorgroup(const std::string& name, bool force) {
  CheckIscsiServiceStatus(false);
  Parser::RemoveInitiatorgroupFromConfFile(name, force);
}

void OrsaIscsiTargetImpl::AddInitiatorsToInitiatorgroup(
    const std::string& name, const std::vector<std::string>& initiators) {
  CheckIscsiServiceStatus(false);
  // Each name is written bare into kel.conf: only well-formed initiator names get there.
  for (const std::string& initiator : initiators) Util::ValidateInitiatorIQN(initiator);
  Parser::AddInitiatorsToInitiatorgroup(name, initiators);
}

void OrsaIscsiTargetImpl::RemoveInitiatorsFromInitiatorgroup(
    const std::string& name, const std::vector<std::string>& initiators) {
  CheckIscsiServiceStatus(false);
  Parser::RemoveInitiatorsFromInitiatorgroup(name, initiators);
}

std::vector<InitiatorgroupInfo> OrsaIscsiTargetImpl::GetInitiatorgroups() {
  CheckIscsiServiceStatus(false);
  std::vector<InitiatorgroupInfo> groups;
  Parser::GetInitiatorgroupsFromConfFile("", groups);
  return groups;
}

InitiatorgroupInfo OrsaIscsiTargetImpl::GetInitiatorgroupInfo(const std::string& name) {
  CheckIscsiServiceStatus(false);
  std::vector<InitiatorgroupInfo> groups;
  Parser::GetInitiatorgroupsFromConfFile(name, groups);
  for (const InitiatorgroupInfo& g : groups) {
    if (g.name == name) return g;
  }
  // The reader refuses unknown names itself; this only guards against an empty answer.
  throw OrsaCtlException("Initiator group " + name + " not found");
}

void OrsaIscsiTargetImpl::CreateNamespace(const NamespaceCreateParam& param,
                                          const DefaultInfo& defaults) {
  LogInfo("%s: Creating KEL namespace\n", kTag);
  boost::shared_lock<boost::upgrade_mutex> service(serviceLock);
  boost::upgrade_lock<boost::upgrade_mutex> lib(libLock);
  InitVirtualDiskLib(lib);
  InitComplianceLib(lib);

  Util::VerifyEnvForNamespaceCreate();
  Util::VerifyNetworkConfig(defaults.networkInterface, defaults.port);
  Util::VerifyDefaultAuthParams(defaults);
  Util::VerifyPolicy(param.storagePolicy);

  Util::CreateNamespaceDir(param.storagePolicy);
  Util::CreateConfigDirs();
  Parser::InitConf();
  Parser::UpdateDefaultConfig(defaults);
  Util::UpdateDefaultConfigToConfigStore(defaults);
}

void OrsaIscsiTargetImpl::UpdateNamespaceConfig(const NamespaceCreateParam& param) {
  // The namespace outlives the service's state: both work enabled or disabled.
  CheckIscsiServiceStatus(true);
  if (param.storagePolicy.empty()) return;
  Util::VerifyPolicy(param.storagePolicy);
  Util::UpdateNamespacePolicy(param.storagePolicy);
}

void OrsaIscsiTargetImpl::DeleteNamespace() {
  CheckIscsiServiceStatus(true);
  Util::DeleteConfigDirs();
  Util::DeleteNamespaceDir();
}

NamespaceInfo OrsaIscsiTargetImpl::GetNamespaceInternal() {
  boost::shared_lock<boost::upgrade_mutex> service(serviceLock);
  boost::upgrade_lock<boost::upgrade_mutex> lib(libLock);
  InitComplianceLib(lib);
  NamespaceInfo info;
  info.uuid = Util::UuidToString(Util::GetNamespaceUuid());
  Util::GetPolicyComplianceStatusForNamespace(complianceHandle, info);
  return info;
}

NamespaceInfo OrsaIscsiTargetImpl::GetNamespaceInfo(bool withDetails) {
  NamespaceInfo info = GetNamespaceInternal();
  if (withDetails) info.path = Util::GetConfigNamespacePath();
  return info;
}

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
