// The etcd directory: a cluster directory kept in etcd 3.4 through its v3 JSON gateway.
//
//   <prefix>/entries/<type>/<uuid>  {"owner","health","data"(base64)}, under the writer's lease
//   <prefix>/hosts/<uuid>           member record, under the host's lease
//   <prefix>/owners/<object-uuid>   owner host uuid as text, no lease (survives agent restarts)
//   <prefix>/settings/<name>        a cluster-wide setting as text, no lease
//
// Liveness: a live host holds a lease of `leaseTtlSeconds` and keeps it alive (a keepalive every
// third of the TTL). A keepalive answer without a TTL, or with 0, means the lease is gone (expired
// while the process was stalled or cut off): a new lease is granted, the member record and the
// entries this process wrote are put again under it. Who holds the host's lease, by role:
//  - the host agent: its own, adopting the lease of a previous agent run that is still alive, so
//    a quick restart loses nothing; it never revokes it (a restarted agent adopts it);
//  - a daemon (keld): the agent's while the member record names a live agent lease, else one of
//    its own under which it registers the host. It watches the record: when the record vanishes
//    together with its lease (the agent stopped), it registers the host under its own lease and
//    puts again what it wrote; when the record is deleted while its lease lives, the host has left
//    the cluster and the daemon leaves it out. It revokes its own lease when closed;
//  - a client (kelctl): never overwrites a member record whose lease is alive, whoever wrote it;
//    it borrows that lease and leaves it alone when closed. Only with no live record does it
//    register the host under a lease of its own, revoked when closed, so what it owns vanishes
//    with it.
// A borrower whose borrowed lease is gone when it writes borrows the record's live lease again,
// or continues under a lease of its own.
//
// Notifications come from one watch stream over <prefix>/entries/ per directory object, started by
// the first Subscribe. After a dropped connection the stream resumes at the last seen revision + 1;
// when that revision has been compacted away the entries are read again with a range and the
// differences are reported as ordinary changes before watching again from the range's revision.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "platform/directory.h"
#include "platform/etcd_client.h"

namespace kel {
namespace platform {

class EtcdDirectory : public Directory {
 public:
  // Acquires the host's lease (see above) and registers the host. Throws OrsaCtlException when
  // etcd cannot be reached.
  EtcdDirectory(const HostConfig& config, DirectoryRole role);
  ~EtcdDirectory() override;

  DirUuid SelfUuid() const override { return self_; }
  NUK_ReturnStatus Find(const DirQuery& query, std::vector<DirEntry>* out) override;
  NUK_ReturnStatus Update(const DirEntry& entry, CompletionFn done) override;
  NUK_ReturnStatus Delete(const DirUuid& uuid, uint8_t type) override;
  NUK_ReturnStatus Subscribe(const DirQuery& query, NotifyFn fn, SubscriptionId* id) override;
  NUK_ReturnStatus Unsubscribe(SubscriptionId id) override;

  NUK_ReturnStatus ListMembers(std::vector<MemberRecord>* out) override;
  NUK_ReturnStatus UpdateSelfMember(const std::function<void(MemberRecord&)>& edit) override;
  NUK_ReturnStatus JoinCluster() override;
  NUK_ReturnStatus LeaveCluster() override;

  NUK_ReturnStatus GetObjectOwner(const std::string& objectUuid, ObjectOwner* out) override;
  NUK_ReturnStatus CompareAndSwapObjectOwner(const std::string& objectUuid,
                                             int64_t expectedRevision,
                                             const std::string& newHostUuid) override;
  NUK_ReturnStatus DeleteObjectOwner(const std::string& objectUuid) override;
  NUK_ReturnStatus ListObjectOwners(std::map<std::string, ObjectOwner>* out) override;
  NUK_ReturnStatus GetClusterSetting(const std::string& name, std::string* value) override;
  NUK_ReturnStatus SetClusterSetting(const std::string& name, const std::string& value) override;

  // Called (on the keepalive thread) when the host agent finds its member record removed while
  // its lease is alive: the host has left the cluster.
  void SetMembershipLostHandler(std::function<void()> handler) override;

  // The lease this process writes under, and whether it is its own (granted here).
  int64_t LeaseId() const;
  bool OwnsLease() const;

  // Test-only: stop sending keepalives (the lease then expires as if the process hung).
  void SuspendKeepAliveForTest(bool suspend);
  // Test-only: drop the watch connection once it is established and return when it is down; the
  // stream then resumes as after a network failure.
  void CutWatchStreamForTest();
  // Test-only: while paused, a dropped watch stream is not reconnected.
  void SetWatchPausedForTest(bool paused);
  // Test-only: how many times the watch had to re-read after a compaction.
  int CompactionResyncsForTest() const { return compactionResyncs_.load(); }

 private:
  std::string EntryKey(const DirUuid& uuid, uint8_t type) const;
  std::string EntriesPrefix() const { return prefix_ + "/entries/"; }
  std::string MemberKey(const std::string& uuidText) const {
    return prefix_ + "/hosts/" + uuidText;
  }
  std::string SettingKey(const std::string& name) const { return prefix_ + "/settings/" + name; }
  std::string OwnerKey(const std::string& uuidText) const {
    return prefix_ + "/owners/" + uuidText;
  }
  bool EntryFromKeyValue(const EtcdClient::KeyValue& kv, DirEntry* out) const;

  NUK_ReturnStatus AcquireLease();
  NUK_ReturnStatus LiveMemberLease(int64_t* lease, bool* agent);
  bool MayBorrow(bool agent) const { return role_ == DirectoryRole::kClient || agent; }
  void Borrow(int64_t lease, bool agent);
  NUK_ReturnStatus GrantOwnLease();
  NUK_ReturnStatus RegisterMember(int64_t lease);
  NUK_ReturnStatus ReplaceLostLease();
  NUK_ReturnStatus PutUnderLease(const std::string& key, const std::string& value);
  void KeepAliveLoop();
  void RepairAfterLeaseLoss();
  void WatchMemberRecord();

  NUK_ReturnStatus StartWatch();
  void WatchLoop();
  void Resync();
  void HandleWatchEvent(const nlohmann::json& event);

  EtcdClient client_;
  std::string prefix_;
  DirUuid self_{};
  std::string selfText_;
  std::string selfName_;
  std::string selfSite_;
  int ttl_;
  DirectoryRole role_;

  mutable std::mutex leaseMu_;
  int64_t lease_ = 0;        // guarded by leaseMu_
  bool ownLease_ = false;    // guarded by leaseMu_: granted (or adopted, for the agent) here
  bool agentLease_ = false;  // guarded by leaseMu_: lease_ is the agent's (granted or borrowed)
  int64_t memberLease_ = 0;  // guarded by leaseMu_: the daemon's last sight of the record's lease
  std::map<std::string, std::string> written_;  // key -> value put by this process; leaseMu_
  std::function<void()> membershipLost_;        // guarded by leaseMu_
  bool membershipLostReported_ = false;         // guarded by leaseMu_
  std::atomic<bool> keepAliveSuspended_{false};

  std::mutex stopMu_;
  std::condition_variable stopCv_;
  bool stopping_ = false;        // guarded by stopMu_
  bool watchPaused_ = false;     // guarded by stopMu_
  bool watchConnected_ = false;  // guarded by stopMu_: the stream is created and running
  std::thread keepAlive_;

  std::mutex watchMu_;
  bool watchStarted_ = false;                 // guarded by watchMu_
  int64_t watchRevision_ = 0;                 // next revision to watch from; watch thread
  std::map<std::string, DirEntry> snapshot_;  // key -> last seen entry; watch thread
  EtcdWatchStream stream_;
  std::thread watcher_;
  std::atomic<int> compactionResyncs_{0};

  std::unique_ptr<NotificationHub> hub_;
  std::unique_ptr<SerialExecutor> writer_;
};

}  // namespace platform
}  // namespace kel
