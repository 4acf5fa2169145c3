// The embedded directory: a one-host cluster kept in files.
//
//   <stateDir>/directory/entries/<type>-<uuid>   one entry per file (JSON value, see directory.h)
//   <stateDir>/directory/hosts/<uuid>            member records (only this host)
//   <stateDir>/directory/owners/<uuid>           object owner records {"host","revision"}
//
// Every write goes to a temporary file in the same folder (name starting with "."), is synced and
// renamed over the target, so readers in any process see the old or the new entry. Each directory
// object runs an inotify watcher thread on the entries folder and turns renames and removals into
// notifications, so every process of the host sees every change. Owner compare-and-swap is
// serialised across processes by an exclusive lock on owners/.lock.
//
// The host is a member of its own one-node cluster from the moment the directory is opened.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "platform/directory.h"

namespace kel {
namespace platform {

class EmbeddedDirectory : public Directory {
 public:
  // Creates the folders when missing and registers this host. Throws OrsaCtlException when the
  // state directory cannot be used.
  explicit EmbeddedDirectory(const HostConfig& config);
  ~EmbeddedDirectory() override;

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

  const std::string& Root() const { return root_; }

 private:
  std::string EntryPath(const DirUuid& uuid, uint8_t type) const;
  NUK_ReturnStatus WriteEntry(const DirEntry& entry);
  NUK_ReturnStatus ReadMember(const std::string& uuidText, MemberRecord* out);
  NUK_ReturnStatus WriteMember(const MemberRecord& member);
  void Watch();
  void Rescan();
  void CheckName(const std::string& name);

  DirUuid self_{};
  std::string selfText_;
  std::string selfName_;
  std::string selfSite_;
  std::string root_;
  std::mutex memberMu_;  // serialises read-modify-write of this host's member record

  int inotifyFd_ = -1;
  int stopFd_ = -1;  // eventfd that wakes the watcher to stop
  std::mutex snapshotMu_;
  std::map<std::string, DirEntry> snapshot_;  // file name -> last seen entry; guarded by
                                              // snapshotMu_, written by the watcher thread only

  std::unique_ptr<NotificationHub> hub_;
  std::unique_ptr<SerialExecutor> writer_;
  std::thread watcher_;
};

}  // namespace platform
}  // namespace kel
