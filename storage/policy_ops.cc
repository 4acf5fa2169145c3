#include "storage/policy_ops.h"

#include <uuid/uuid.h>

#include <vector>

#include "conf/paths.h"
#include "platform/datastore.h"
#include "platform/exception.h"
#include "platform/fs.h"
#include "platform/log.h"
#include "platform/policy.h"
#include "storage/lun_disk.h"
#include "storage/namespace.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;
using kel::platform::ComplianceResult;
using kel::platform::FileInfo;

const char* const kTag = "Util";

void RequireHandle(OrsaComplianceHandle* handle) {
  if (handle == nullptr) throw OrsaCtlException("Orsa compliance lib is not initialized");
}

bool IsUuidText(const std::string& text) {
  uuid_t raw;
  return text.size() == 36 && uuid_parse(text.c_str(), raw) == 0;
}

std::string BaseName(const std::string& path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string DirName(const std::string& path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

// Runs the compliance check and logs why an object is not compliant.
void Check(OrsaComplianceHandle* handle, const std::string& path, const std::string& nsUuid,
           std::string& policy, bool& compliant) {
  ComplianceResult result;
  NUK_ReturnStatus status = OrsaCompliance_CheckObject(handle, path, nsUuid, &result);
  if (status != NUK_OK) {
    throw OrsaCtlException(std::string("Failed to query policy compliance of ") + path +
                           " with error: " + NUK_ReturnStatusToString(status));
  }
  policy = result.policy;
  compliant = result.compliant;
  if (!compliant) {
    LogInfo("%s: Object %s is not compliant with its policy: %s\n", kTag, path.c_str(),
            result.reason.c_str());
  }
}

}  // namespace

void VerifyPolicy(const std::string& policy) { kel::platform::ParsePolicy(policy); }

std::string GetDatastoreDefaultPolicy() { return kel::platform::DatastoreDefaultPolicy(); }

void SetDatastoreDefaultPolicy(const std::string& policy) {
  VerifyPolicy(policy);
  try {
    kel::platform::SetDatastoreDefaultPolicy(
        kel::platform::PolicyToText(kel::platform::ParsePolicy(policy)));
  } catch (const OrsaCtlException& e) {
    throw OrsaCtlException("Failed to set datastore default policy with error: " + e.GetMessage());
  }
}

void GetPolicyComplianceStatusForObject(OrsaComplianceHandle* handle, const std::string& objectUuid,
                                        std::string& policy, bool& compliant, bool isNamespace) {
  RequireHandle(handle);
  kel::platform::Fs& fs = kel::platform::GetFs();
  const std::string datastore = kel::platform::DatastorePath();
  std::string path;
  std::string nsUuid;
  if (IsUuidText(objectUuid)) {
    if (isNamespace) {
      FileInfo info;
      if (fs.Lstat(datastore + "/" + objectUuid, &info) == 0 && info.isDir) {
        path = datastore + "/" + objectUuid;
        nsUuid = objectUuid;
      }
    } else {
      std::vector<std::string> names;
      fs.ListDir(datastore, &names);
      for (const std::string& name : names) {
        if (!IsUuidText(name)) continue;
        const std::string candidate = datastore + "/" + name + "/" + objectUuid + ".pemo";
        if (fs.Exists(candidate)) {
          path = candidate;
          nsUuid = name;
          break;
        }
      }
    }
  }
  Check(handle, path, nsUuid, policy, compliant);
}

void GetPolicyComplianceStatusForLun(OrsaComplianceHandle* handle,
                                     HostCtl::Orsa::IscsiTarget::LunInfo& lun) {
  RequireHandle(handle);
  // The site question is about the namespace that really holds the disk, whatever link the path
  // went through.
  std::string real;
  std::string nsUuid;
  if (!lun.path.empty() && kel::platform::GetFs().RealPath(lun.path, &real) == 0) {
    nsUuid = BaseName(DirName(real));
  }
  Check(handle, lun.path, nsUuid, lun.storagePolicy, lun.policyCompliant);
}

void GetPolicyComplianceStatusForNamespace(OrsaComplianceHandle* handle,
                                           HostCtl::Orsa::IscsiTarget::NamespaceInfo& info) {
  RequireHandle(handle);
  const std::string path = GetConfigNamespacePath();
  std::string nsUuid;
  if (kel::platform::GetFs().Exists(path)) nsUuid = UuidToString(GetNamespaceUuid());
  Check(handle, path, nsUuid, info.storagePolicy, info.policyCompliant);
}

void UpdateLunPolicy(const HostCtl::Orsa::IscsiTarget::LunInfo& lun) {
  try {
    kel::platform::StoragePolicy policy = kel::platform::ParsePolicy(
        lun.storagePolicy.empty() ? kel::platform::DatastoreDefaultPolicy() : lun.storagePolicy);
    std::string path = lun.path;
    if (path.empty()) {
      path = GetLunPathById(lun.targetAlias, lun.id);
      if (path.empty() || path[0] != '/') path = kel::platform::DatastorePath() + "/" + path;
    }
    LogInfo("%s: Applying policy '%s' to LUN %d of target %s (%s)\n", kTag,
            kel::platform::PolicyToText(policy).c_str(), lun.id, lun.targetAlias.c_str(),
            path.c_str());
    kel::platform::ApplyPolicyToObject(path, policy);
  } catch (const OrsaCtlException& e) {
    throw OrsaCtlException("Failed to update policy of LUN " + std::to_string(lun.id) +
                           " on target " + lun.targetAlias + " with error: " + e.GetMessage());
  }
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
