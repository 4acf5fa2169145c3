// The management interface: every operation an administrator or the cluster management can run
// against the iSCSI target service, in the order of its virtual slots.
//
// Every failure is thrown as HostCtl::Lib::Orsa::OrsaCtlException with one user-facing message.
#pragma once

#include <string>
#include <vector>

#include "records/records.h"

namespace HostCtl {
namespace Orsa {
namespace IscsiTarget {

class OrsaIscsiTarget {
 public:
  virtual ~OrsaIscsiTarget() = default;

  virtual void SetIscsiTargetStatus(bool enable, bool failIfUnchanged) = 0;  // 1
  virtual bool GetIscsiTargetStatus(bool locked) = 0;                        // 2
  virtual void AddTarget(TargetCreateParam& param) = 0;                      // 3
  virtual void AddLun(LunInfo& lun) = 0;                                     // 4
  virtual void RemoveLun(unsigned int id, const std::string& targetAlias,
                         bool forceRemove) = 0;  // 5
  virtual void UpdateLun(LunInfo& lun, int newId, const std::string& newTarget,
                         bool locked) = 0;                                              // 6
  virtual void RemoveTarget(const std::string& alias) = 0;                              // 7
  virtual std::vector<TargetInfo> GetTargetsInternal() = 0;                             // 8
  virtual TargetInfo GetTargetInfo(const std::string& alias) = 0;                       // 9
  virtual std::vector<TargetInfo> GetTargets(bool skipCompliance, bool localOnly) = 0;  // 10
  virtual void GetLuns(std::string targetAlias, std::vector<LunInfo>& out,
                       bool withCompliance) = 0;                           // 11
  virtual LunInfo GetLunInfo(const std::string& targetAlias, int id) = 0;  // 12
  virtual void Restore() = 0;                                              // 13
  virtual void UpdateTargetConfig(TargetCreateParam& param) = 0;           // 14
  virtual void UpdateDefaultConfig(const DefaultInfo& info) = 0;           // 15
  virtual DefaultInfo GetDefaultInfo() = 0;                                // 16
  virtual void DeleteNamespace() = 0;                                      // 17
  virtual void CreateNamespace(const NamespaceCreateParam& param,
                               const DefaultInfo& defaults) = 0;                  // 18
  virtual void UpdateNamespaceConfig(const NamespaceCreateParam& param) = 0;      // 19
  virtual NamespaceInfo GetNamespaceInfo(bool withDetails) = 0;                   // 20
  virtual void AddInitiatorgroup(const std::string& name) = 0;                    // 21
  virtual void RemoveInitiatorgroup(const std::string& name, bool force) = 0;     // 22
  virtual std::vector<InitiatorgroupInfo> GetInitiatorgroups() = 0;               // 23
  virtual InitiatorgroupInfo GetInitiatorgroupInfo(const std::string& name) = 0;  // 24
  virtual void AddInitiatorsToInitiatorgroup(const std::string& name,
                                             const std::vector<std::string>& initiators) = 0;  // 25
  virtual void RemoveInitiatorsFromInitiatorgroup(
      const std::string& name, const std::vector<std::string>& initiators) = 0;          // 26
  virtual void Refresh() = 0;                                                            // 27
  virtual void CheckIscsiServiceStatus(bool allowDisabled) = 0;                          // 28
  virtual void TransferTargetsOwner(std::vector<TargetInfo>& targets, int retries) = 0;  // 29
  virtual void TransferLocalTargets(int retries) = 0;                                    // 30
  virtual NamespaceInfo GetNamespaceInternal() = 0;                                      // 31
  virtual void LoadConfig() = 0;                                                         // 32
};

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace HostCtl
