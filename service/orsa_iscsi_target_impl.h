// The service object: the one implementation of the management interface.
//
// Ownership: GetOrsaIscsiTarget() (service/orsa_async_plugin.h) hands out a new object per call,
// owned by the caller; GetOrsaIscsiTargetImpl() hands out the process-wide instance, created on
// first use and kept until the process (or the plug-in) goes away. Every object keeps its own
// library state (virtual-disk library, compliance handle) and undoes it in its destructor.
//
// Thread-safety: every operation may be called from any thread at any time. Operations take the
// process-wide locks of service/service_locks.h in the order serviceLock, then libLock:
//   configuration operations       serviceLock shared (LUN/target ops) or none (groups, defaults)
//   state checks (CheckIscsiServiceStatus, Restore)          libLock upgrade
//   GetIscsiTargetStatus(true)                               libLock shared
//   CreateNamespace, GetNamespaceInternal                    serviceLock shared, libLock upgrade
//   SetIscsiTargetStatus, the destructor                     serviceLock exclusive, libLock upgrade
// so configuration edits run side by side (kel.conf's own lock serialises them) while enabling,
// disabling and destruction wait for all of them.
//
// Failures: every failure crosses the interface as HostCtl::Lib::Orsa::OrsaCtlException; what a
// failed operation leaves behind is stated at each operation in the .cc files (in short: nothing,
// except where a step on shared storage cannot be undone, which is logged).
#pragma once

#include <atomic>
#include <boost/thread/shared_mutex.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/policy.h"
#include "service/orsa_iscsi_target.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {

class OrsaIscsiTargetImpl : public virtual HostCtl::Orsa::IscsiTarget::OrsaIscsiTarget {
 public:
  using TargetCreateParam = HostCtl::Orsa::IscsiTarget::TargetCreateParam;
  using TargetInfo = HostCtl::Orsa::IscsiTarget::TargetInfo;
  using LunInfo = HostCtl::Orsa::IscsiTarget::LunInfo;
  using DefaultInfo = HostCtl::Orsa::IscsiTarget::DefaultInfo;
  using NamespaceCreateParam = HostCtl::Orsa::IscsiTarget::NamespaceCreateParam;
  using NamespaceInfo = HostCtl::Orsa::IscsiTarget::NamespaceInfo;
  using InitiatorgroupInfo = HostCtl::Orsa::IscsiTarget::InitiatorgroupInfo;

  // Never throws: an unreadable NAA option or service state is logged and the object stays usable.
  OrsaIscsiTargetImpl();
  ~OrsaIscsiTargetImpl() override;
  OrsaIscsiTargetImpl(const OrsaIscsiTargetImpl&) = delete;
  OrsaIscsiTargetImpl& operator=(const OrsaIscsiTargetImpl&) = delete;

  // The process-wide instance, created on first use under _singletonMutex.
  static void GetOrsaIscsiTargetImpl(std::shared_ptr<OrsaIscsiTargetImpl>& out);

  // Re-publishes the configuration's directory entry when it is known to be missing. Never throws.
  static void KelCheckConfigLodexEntry();
  // The host option "kelNukNicCtlEnable" of "ORSA-iSCSI" (0 when absent or unreadable).
  static int64_t KelGetNukNicCtlFlag();

  // --- Service state (service/service_status.cc) ---
  void SetIscsiTargetStatus(bool enable, bool failIfUnchanged) override;
  bool GetIscsiTargetStatus(bool locked) override;
  void CheckIscsiServiceStatus(bool allowDisabled) override;
  void Restore() override;
  void Refresh() override;
  void LoadConfig() override;
  DefaultInfo GetDefaultInfo() override;
  void UpdateDefaultConfig(const DefaultInfo& info) override;

  // --- Targets (service/target_ops.cc) ---
  // Creates the target's namespace object, makes this host its owner in the directory, then adds
  // the target to kel.conf. When kel.conf refuses it, the namespace and the owner record are
  // removed again; when only the change action after the write fails, the target stays (it is in
  // the file) and the error is still thrown.
  void AddTarget(TargetCreateParam& param) override;
  // Update semantics of confedit/parser_edit.h; a new IQN is checked like one on creation. A given
  // policy is applied to the namespace object before the write and put back if the write fails.
  void UpdateTargetConfig(TargetCreateParam& param) override;
  // Offline first (written and reloaded), then the namespace with its disks, then the entry, then
  // the owner record. A namespace that is already gone does not stop the removal.
  void RemoveTarget(const std::string& alias) override;
  std::vector<TargetInfo> GetTargetsInternal() override;
  TargetInfo GetTargetInfo(const std::string& alias) override;
  // Owner host UUID and name filled in for every target (the name from one member listing).
  std::vector<TargetInfo> GetTargets(bool skipCompliance, bool localOnly) override;
  void TransferTargetsOwner(std::vector<TargetInfo>& targets, int retries) override;
  void TransferLocalTargets(int retries) override;

  // --- LUNs (service/lun_ops.cc) ---
  // The checks the file repeats (number, duplicate, cluster limit) are made before the disk is
  // created; a disk whose LUN the file then refuses is removed again.
  void AddLun(LunInfo& lun) override;
  // Offline first, then the disk (once its holder let it go), then the entry. With forceRemove,
  // a disk that is still held after the removal attempts does not stop the entry's removal: the
  // disk file stays on the datastore (logged) for the administrator.
  void RemoveLun(unsigned int id, const std::string& targetAlias, bool forceRemove) override;
  // newId -1 and an empty newTarget, alias, status, size or policy keep what the LUN has. After
  // 5 attempts (5 s apart) whose edit or resize confirmation asked for another one, throws
  // "Failed to update LUN <id> of target <alias> after 5 attempts". A move to another target whose
  // write fails puts the disk back where kel.conf says it is (Parser::UpdateLun).
  void UpdateLun(LunInfo& lun, int newId, const std::string& newTarget, bool locked) override;
  void GetLuns(std::string targetAlias, std::vector<LunInfo>& out, bool withCompliance) override;
  LunInfo GetLunInfo(const std::string& targetAlias, int id) override;

  // --- Initiator groups and the namespace (service/group_namespace_ops.cc) ---
  void AddInitiatorgroup(const std::string& name) override;
  void RemoveInitiatorgroup(const std::string& name, bool force) override;
  std::vector<InitiatorgroupInfo> GetInitiatorgroups() override;
  InitiatorgroupInfo GetInitiatorgroupInfo(const std::string& name) override;
  void AddInitiatorsToInitiatorgroup(const std::string& name,
                                     const std::vector<std::string>& initiators) override;
  void RemoveInitiatorsFromInitiatorgroup(const std::string& name,
                                          const std::vector<std::string>& initiators) override;
  void CreateNamespace(const NamespaceCreateParam& param, const DefaultInfo& defaults) override;
  void UpdateNamespaceConfig(const NamespaceCreateParam& param) override;
  void DeleteNamespace() override;
  NamespaceInfo GetNamespaceInternal() override;
  // With `withDetails`, also the namespace's path on this host's datastore mount.
  NamespaceInfo GetNamespaceInfo(bool withDetails) override;

  // Test-only views of the per-object library state.
  bool VirtualDiskReadyForTest() const { return virtualDiskReady; }
  bool ComplianceReadyForTest() const { return complianceHandle != nullptr; }
  bool LunNaaEnabledForTest() const { return lunNaaEnabled; }

 private:
  // Lazy library set-up and tear-down. Callers hold libLock in upgrade or exclusive mode; the
  // held lock is passed so that one definition serves both and the requirement shows at the call.
  template <class HeldLock>
  void InitVirtualDiskLib(HeldLock& held);
  template <class HeldLock>
  void InitComplianceLib(HeldLock& held);
  template <class HeldLock>
  void DeinitLibs(HeldLock& held);

  // Util::LoadConfig into `enabled`.
  void ReloadEnabled();
  // The body of UpdateLun once its locks (if any) are held.
  void UpdateLunLocked(LunInfo& lun, int newId, const std::string& newTarget);
  // Steps of UpdateTargetConfig and RemoveTarget that run inside one exclusive ConfHandle.
  void ApplyTargetUpdate(TargetCreateParam& param, const TargetInfo& current);

  // Cached service state, refreshed by ReloadEnabled(). Atomic: GetIscsiTargetStatus(true)
  // refreshes it under libLock held shared, so several threads may write it at once.
  std::atomic<bool> enabled{false};
  bool virtualDiskReady = false;  // this object initialised the virtual-disk library
  bool lunNaaEnabled = false;     // new LUNs get NAA identifiers; read once at construction
  OrsaComplianceHandle* complianceHandle = nullptr;  // null until the compliance lib is up

  static std::shared_ptr<OrsaIscsiTargetImpl> _singleton;  // guarded by _singletonMutex
  static boost::shared_mutex _singletonMutex;
};

// Makes sure this process holds the configuration entry's directory subscription; a failure is
// logged ("Failed to subscribe LODEX : ...") and swallowed. Does nothing in a process that turned
// the subscription off.
void _CheckKelConfigSubscription();
// Whether this process keeps the configuration entry's subscription (default: yes). A short-lived
// program (kelctl) turns it off before it makes its service object: its cached copy of kel.conf
// would live no longer than one command, which reads the file once anyway, while a subscription
// costs a directory watch (with the etcd backend a range read, a watch stream and a thread) for
// every command. Keeping it would be safe: closing the directory waits for the notification
// callbacks in flight and nothing reopens it from them. Thread-safe.
void SetKelConfigSubscriptionWanted(bool wanted);
// Drops the subscription; a failure is logged ("Failed to unsubscribe LODEX : ...") and swallowed.
void _UnsubscribeKelConfig();

// Moves every local target away when the cluster has two or more nodes (`nodeCount` points to an
// unsigned 32-bit count), after this node's decommissioning completed. Never throws: a failure is
// logged ("Failed to transfer all targets (...)").
void TransferAllLocalTargets(void* nodeCount, HostCtl::Orsa::IscsiTarget::OrsaIscsiTarget* service);

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
