// Readers of kel.conf for the service: served from the configuration cache, which reads the file
// under the shared lock whenever its copy cannot be trusted.
#include <string>
#include <vector>

#include "confedit/parser_edit.h"
#include "confedit/parser_internal.h"
#include "directory/config_cache.h"
#include "platform/exception.h"
#include "platform/log.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {

using HostCtl::Lib::Orsa::OrsaCtlException;
using HostCtl::Orsa::IscsiTarget::DefaultInfo;
using HostCtl::Orsa::IscsiTarget::InitiatorgroupInfo;
using HostCtl::Orsa::IscsiTarget::LunInfo;
using HostCtl::Orsa::IscsiTarget::TargetInfo;

namespace Parser {

using internal::kTag;

std::vector<TargetInfo> GetTargets() {
  try {
    return ConfigCache::GetTargetsInfos();
  } catch (const OrsaCtlException& e) {
    LogError("%s: Failed to load targets from config file, error %s", kTag, e.GetMessage().c_str());
    throw;
  }
}

void GetLunsForTarget(std::string targetAlias, std::vector<LunInfo>& out) {
  for (TargetInfo& target : GetTargets()) {
    if (target.alias == targetAlias) {
      out = std::move(target.luns);
      return;
    }
  }
  throw OrsaCtlException("Target " + targetAlias + " not found");
}

void GetInitiatorgroupsFromConfFile(const std::string& name, std::vector<InitiatorgroupInfo>& out) {
  try {
    std::vector<InitiatorgroupInfo> groups = ConfigCache::GetInitiatorGroupInfos();
    if (name.empty()) {
      out = std::move(groups);
      return;
    }
    for (InitiatorgroupInfo& group : groups) {
      if (group.name == name) {
        out.clear();
        out.push_back(std::move(group));
        return;
      }
    }
    throw OrsaCtlException("Initiator group " + name + " not found");
  } catch (const OrsaCtlException& e) {
    const std::string message =
        "Failed to retrieve initiator group info with error " + e.GetMessage();
    LogError("%s: %s", kTag, message.c_str());
    throw OrsaCtlException(message);
  }
}

DefaultInfo GetDefaultInfo(bool withSecrets) {
  try {
    return ConfigCache::GetConfigInfo(withSecrets);
  } catch (const OrsaCtlException& e) {
    LogError("%s: Failed to retrieve default config info with error %s", kTag,
             e.GetMessage().c_str());
    throw;
  }
}

}  // namespace Parser

namespace Util {

void GetTargetInfoFromConfFile(const std::string& alias, TargetInfo& out) {
  for (TargetInfo& target : Parser::GetTargets()) {
    if (target.alias == alias) {
      out = std::move(target);
      return;
    }
  }
  throw OrsaCtlException("Target " + alias + " not found");
}

}  // namespace Util

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
