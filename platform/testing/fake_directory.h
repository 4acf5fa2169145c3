// An in-memory directory for unit tests: entries, members and owner records kept in maps, with the
// same asynchronous completions and notification thread as the real backends, plus knobs to make
// it fail or to hold a call at a chosen point.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/directory.h"

namespace kel {
namespace platform {

class FakeDirectory : public Directory {
 public:
  // `self` becomes a member named "self" (of this build's disk format version).
  explicit FakeDirectory(const std::string& selfUuid);
  ~FakeDirectory() override;

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

  // Knobs. Update completes with `status` without storing when it is not NUK_OK (NUK_EXISTS
  // stores and then reports NUK_EXISTS). Find and the member list fail with their status when set;
  // the cluster settings fail with the member list's.
  void SetUpdateResult(NUK_ReturnStatus status);
  void SetFindResult(NUK_ReturnStatus status);
  void SetMembersResult(NUK_ReturnStatus status);
  void SetMember(const MemberRecord& member);  // adds or replaces by uuid, as given
  void RemoveMember(const std::string& uuid);
  // Runs inside GetObjectOwner after the record was read (tests hold racing callers there).
  void SetGetOwnerHook(std::function<void()> hook);
  // Runs at the start of every Update, on the caller's thread (tests hold a publisher there).
  void SetUpdateHook(std::function<void(const DirEntry&)> hook);
  // Delivers `status` with `entry` to every matching subscription; a null entry delivers
  // NUK_ENTRY_CHANGED to all of them.
  void Notify(NUK_ReturnStatus status, const DirEntry* entry);
  int UpdateCount() const;

 private:
  static std::string Key(const DirUuid& uuid, uint8_t type);

  DirUuid self_{};
  mutable std::mutex mu_;
  std::map<std::string, DirEntry> entries_;          // guarded by mu_
  std::map<std::string, MemberRecord> members_;      // guarded by mu_
  std::map<std::string, ObjectOwner> owners_;        // guarded by mu_
  std::map<std::string, std::string> settings_;      // guarded by mu_
  int64_t revision_ = 0;                             // guarded by mu_
  NUK_ReturnStatus updateResult_ = NUK_OK;           // guarded by mu_
  NUK_ReturnStatus findResult_ = NUK_OK;             // guarded by mu_
  NUK_ReturnStatus membersResult_ = NUK_OK;          // guarded by mu_
  int updates_ = 0;                                  // guarded by mu_
  std::function<void()> getOwnerHook_;               // guarded by mu_
  std::function<void(const DirEntry&)> updateHook_;  // guarded by mu_
  std::unique_ptr<NotificationHub> hub_;
  std::unique_ptr<SerialExecutor> writer_;
};

}  // namespace platform
}  // namespace kel
