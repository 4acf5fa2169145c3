// The cluster directory: small typed entries that every host can read and watch, the membership of
// the cluster, and which host owns which object.
//
// Entries are {uuid, type, owner host, health, data bytes}, keyed by (type, uuid); the type is the
// whole 8-bit type byte (a set high bit is part of the type, not a flag to mask off). A host writes
// entries under its own liveness, so on a multi-host backend the entries a host owns vanish when
// the host dies. Object ownership records (object uuid -> host uuid) are persistent and change only
// by compare-and-swap.
//
// Two backends implement the interface (both pass the same conformance suite):
//   - embedded: one host; files under <stateDir>/directory/, written atomically; every process of
//     the host sees changes through inotify.
//   - etcd: a cluster; the v3 JSON gateway; a lease per live host.
//
// Notifications: a subscription names a query; for every change of a matching entry its callback
// gets (status, entry) on the directory's notification thread, one call at a time per directory:
//   NUK_OK                  entry created or replaced; `entry` is the new entry with its data
//   NUK_NOT_FOUND           entry deleted (or vanished with its owner); `entry` is its last header
//   NUK_ENTRY_CHANGED       changes may have been missed; look the entry up again; `entry` null
//   NUK_SUBSCRIPTION_ENDED  the last call of a subscription, after Unsubscribe; `entry` null
// A writer is notified of its own changes too.
//
// Thread-safety: every method may be called from any thread, including from inside a callback.
// Unsubscribe never waits for the notification thread (callers may hold locks that a running
// callback wants): when the subscription's callback is running at that moment, the ended call
// follows on the notification thread right after it; otherwise it is made before Unsubscribe
// returns, from the calling thread.
//
// Lifetime: a directory's own threads (notification, writer, watcher, keepalive) must never run
// its destructor, which joins them. The process's directory (GetDirectory) is never reopened from
// one of them, CloseDirectory waits for the callbacks in flight before it lets go, and a directory
// from OpenDirectory whose last reference is dropped on a directory thread is destroyed on a
// separate thread instead.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/host_config.h"
#include "platform/status.h"

namespace kel {
namespace platform {

using DirUuid = std::array<uint8_t, 16>;

// 8-4-4-4-12 lower-case hex.
std::string DirUuidToText(const DirUuid& uuid);
// Accepts the 8-4-4-4-12 form in either case. False (and `out` untouched) otherwise.
bool DirUuidFromText(const std::string& text, DirUuid* out);
DirUuid RandomDirUuid();
bool IsZeroDirUuid(const DirUuid& uuid);

struct DirEntry {
  DirUuid uuid{};
  uint8_t type = 0;
  DirUuid owner{};  // zero on Update means "this host"
  bool healthy = true;
  std::string data;
};

// Which header fields a lookup or subscription matches; no field set matches every entry.
struct DirQuery {
  bool matchUuid = false;
  bool matchType = false;
  bool matchOwner = false;
  DirUuid uuid{};
  uint8_t type = 0;
  DirUuid owner{};

  bool Matches(const DirEntry& entry) const;
};

// Decommission states of a member.
extern const char* const kDecomNone;        // ""
extern const char* const kDecomInProgress;  // "in-progress"
extern const char* const kDecomComplete;    // "complete"

// The on-disk format version of this build. Each host publishes its own in its member record; the
// cluster's version is the maximum over the live members.
inline constexpr int kDiskFormatVersion = 13;

// A live member of the cluster.
struct MemberRecord {
  std::string uuid;  // 8-4-4-4-12
  std::string name;
  std::string site;  // fault domain name; empty outside a stretched cluster
  bool maintenance = false;
  std::string decommission;  // kDecomNone, kDecomInProgress or kDecomComplete
  bool witness = false;      // a witness host takes part in membership but serves nothing
  std::string leaseId;       // etcd: the lease the host's entries live under; empty otherwise
  bool agentLease = false;   // etcd: that lease is held by the host agent (others may borrow it)
  // The host's on-disk format version (0..255); 0 in records written by hosts that did not
  // publish one. A backend writing this host's own record always stamps kDiskFormatVersion.
  int diskFormatVersion = 0;
};

// Owner record of an object. `revision` identifies this version of the record for
// compare-and-swap; 0 means "no record".
struct ObjectOwner {
  std::string hostUuid;
  int64_t revision = 0;
};

// Who holds the host's liveness in this process: the host agent keeps the host's lease for as
// long as it runs; any other program (kelctl) borrows the live lease that the host's member
// record names, whoever holds it, else holds a lease of its own for its lifetime. kDaemon is a
// long-running program that is not the agent (keld): it borrows the agent's lease while an agent
// holds one and otherwise keeps the host registered under a lease of its own (etcd backend,
// platform/directory_etcd.h).
enum class DirectoryRole { kClient, kHostAgent, kDaemon };

class Directory {
 public:
  using NotifyFn = std::function<void(NUK_ReturnStatus status, const DirEntry* entry)>;
  using CompletionFn = std::function<void(NUK_ReturnStatus status)>;
  using SubscriptionId = uint64_t;

  virtual ~Directory() = default;

  virtual DirUuid SelfUuid() const = 0;

  // Entries matching `query`, in key order (type, then uuid text). NUK_NOT_FOUND when none;
  // NUK_DIRECTORY_NOT_RUNNING when the backend cannot be reached.
  virtual NUK_ReturnStatus Find(const DirQuery& query, std::vector<DirEntry>* out) = 0;
  // Creates or replaces the entry (a zero owner is replaced by this host). The returned status says
  // whether the request was accepted; `done` then gets the outcome once, on the directory's
  // writer thread, in submission order. `done` is not called when the request was refused.
  virtual NUK_ReturnStatus Update(const DirEntry& entry, CompletionFn done) = 0;
  // NUK_NOT_FOUND when there is no such entry.
  virtual NUK_ReturnStatus Delete(const DirUuid& uuid, uint8_t type) = 0;
  virtual NUK_ReturnStatus Subscribe(const DirQuery& query, NotifyFn fn, SubscriptionId* id) = 0;
  // NUK_NOT_FOUND for an unknown or already ended subscription.
  virtual NUK_ReturnStatus Unsubscribe(SubscriptionId id) = 0;

  // Live members (etcd: members whose lease is alive), ordered by uuid text.
  virtual NUK_ReturnStatus ListMembers(std::vector<MemberRecord>* out) = 0;
  // Read-modify-write of this host's member record; NUK_NOT_FOUND when the host is not a member.
  virtual NUK_ReturnStatus UpdateSelfMember(const std::function<void(MemberRecord&)>& edit) = 0;
  // Registers this host (again) as a member, keeping the flags of an existing record.
  virtual NUK_ReturnStatus JoinCluster() = 0;
  // Removes this host's member record. A host agent that finds its record gone while its lease
  // is alive treats it as the host having left and does not re-register on its own.
  virtual NUK_ReturnStatus LeaveCluster() = 0;
  // `handler` runs (on a directory thread, once) when this process, as the host agent, finds that
  // the host left the membership. Backends that cannot notice it (embedded) never call it.
  virtual void SetMembershipLostHandler(std::function<void()> handler) { (void)handler; }

  virtual NUK_ReturnStatus GetObjectOwner(const std::string& objectUuid, ObjectOwner* out) = 0;
  // Sets the owner when the record is still at `expectedRevision` (0: when there is no record).
  // NUK_BUSY when it is not (someone else changed it first); nothing changes then.
  virtual NUK_ReturnStatus CompareAndSwapObjectOwner(const std::string& objectUuid,
                                                     int64_t expectedRevision,
                                                     const std::string& newHostUuid) = 0;
  virtual NUK_ReturnStatus DeleteObjectOwner(const std::string& objectUuid) = 0;
  virtual NUK_ReturnStatus ListObjectOwners(std::map<std::string, ObjectOwner>* out) = 0;

  // Cluster-wide settings: small named texts that belong to no host, so they outlive every lease
  // (etcd: <prefix>/settings/<name>). A name is 1..64 of [A-Za-z0-9._-], starting with a letter or
  // digit, else NUK_BAD_PARAM. Get answers NUK_NOT_FOUND for a setting never set; Set with an empty
  // value removes it.
  virtual NUK_ReturnStatus GetClusterSetting(const std::string& name, std::string* value) = 0;
  virtual NUK_ReturnStatus SetClusterSetting(const std::string& name, const std::string& value) = 0;
};

// Opens the backend that `config` names. Throws OrsaCtlException when it cannot be opened (etcd
// unreachable, state directory not writable). When the last reference goes away on one of a
// directory's own threads, the directory is destroyed on another thread (see Lifetime above).
std::shared_ptr<Directory> OpenDirectory(const HostConfig& config, DirectoryRole role);

// The process's directory, opened on first use from CurrentHostConfig() with the role set by
// SetDirectoryRole (kClient by default). Throws like OpenDirectory; a failed open is retried on the
// next call. Never opens one on a directory thread (a notification callback that runs while the
// directory is being closed must not bring it back) nor after the exit handler closed it: it
// throws "Directory: the cluster directory is closed" then. Closed at exit. Thread-safe.
std::shared_ptr<Directory> GetDirectory();
// Programs call this before the first GetDirectory(); the host agent passes kHostAgent.
void SetDirectoryRole(DirectoryRole role);
// Closes the process's directory (programs at exit; tests between cases): it stops being handed
// out, then the call waits until every notification callback that was already running returns
// (except the caller's own, when called from one), so the directory is normally destroyed here.
// Must not be called while holding a lock that a notification callback takes. The next
// GetDirectory() from an ordinary thread opens a fresh one.
void CloseDirectory();
// Test-only: use `directory` as the process's directory (null: back to opening on demand). The
// one it replaces is let go as CloseDirectory does.
void SetDirectoryForTest(std::shared_ptr<Directory> directory);

// True on one of a directory's own threads (notification, writer, watcher, keepalive).
bool OnDirectoryThread();
// Marks the calling thread as a directory thread for the rest of its life (backends' threads).
void MarkDirectoryThread();
// Blocks until every notification callback that is running when it is called has returned; the
// caller's own callback (when called from one) is not waited for.
void WaitForNotificationsInFlight();
// Runs `work` on the process's clean-up thread, never on a directory thread: what a directory
// thread cannot do itself (destroy its own directory, join itself). Tasks run in order; the exit
// handler runs what is queued and joins the thread.
void RunOffDirectoryThreads(std::function<void()> work);

// ---- Building blocks shared by the backends ----

// Entry value as stored by both backends: {"owner":"<uuid>","health":true,"data":"<base64>"}.
std::string EncodeEntryValue(const DirEntry& entry);
bool DecodeEntryValue(const std::string& value, DirEntry* entry);
// Member record value: {"name","site","maintenance","decommission","witness","lease","agent",
// "diskFormatVersion"}; a record without the version (an older host's) decodes with 0.
std::string EncodeMemberValue(const MemberRecord& member);
bool DecodeMemberValue(const std::string& value, MemberRecord* member);
// Whether `name` may name a cluster setting.
bool IsValidSettingName(const std::string& name);
std::string Base64Encode(const std::string& bytes);
bool Base64Decode(const std::string& text, std::string* bytes);

// One thread running tasks in submission order. Stop() runs what was queued, then joins.
class SerialExecutor {
 public:
  SerialExecutor();
  ~SerialExecutor();
  SerialExecutor(const SerialExecutor&) = delete;
  SerialExecutor& operator=(const SerialExecutor&) = delete;

  void Post(std::function<void()> task);
  // From the executor's own thread (a task that ends its owner): the queued tasks run right here,
  // the thread is joined by the clean-up thread once the current task returns, and it touches
  // nothing of this object after that.
  void Stop();
  bool OnThread() const { return std::this_thread::get_id() == thread_id_; }

 private:
  void Run(const std::shared_ptr<std::atomic<bool>>& abandoned);

  std::mutex mu_;
  std::condition_variable cv_;
  std::deque<std::function<void()>> tasks_;  // guarded by mu_
  bool stopping_ = false;                    // guarded by mu_
  // Set when the object is let go by its own thread; that thread then returns at once.
  std::shared_ptr<std::atomic<bool>> abandoned_;
  std::thread thread_;
  std::thread::id thread_id_;
};

// Subscriptions and their delivery on one notification thread, with the ending rules described at
// the top of this file. Backends report changes with Publish*; matching is done here.
class NotificationHub {
 public:
  NotificationHub();
  ~NotificationHub();  // ends every remaining subscription
  NotificationHub(const NotificationHub&) = delete;
  NotificationHub& operator=(const NotificationHub&) = delete;

  Directory::SubscriptionId Add(const DirQuery& query, Directory::NotifyFn fn);
  NUK_ReturnStatus Remove(Directory::SubscriptionId id);
  bool Empty() const;

  // An entry was created or replaced (NUK_OK) or deleted (NUK_NOT_FOUND).
  void Publish(NUK_ReturnStatus status, const DirEntry& entry);
  // Changes may have been missed: every subscription gets NUK_ENTRY_CHANGED.
  void PublishLookAgain();
  // Ends every subscription and stops the thread; later Publish calls are dropped. Called from
  // inside a callback (the owner destroyed on its own notification thread), the thread is joined by
  // the clean-up thread once the callback returns, and touches nothing of this object after that.
  void Shutdown();

 private:
  struct Subscription {
    Directory::SubscriptionId id = 0;
    DirQuery query;
    Directory::NotifyFn fn;
    bool cancelled = false;   // guarded by mu_
    bool endPending = false;  // guarded by mu_: ended call owed by the notification thread
  };
  using SubPtr = std::shared_ptr<Subscription>;
  struct Event {
    SubPtr sub;
    NUK_ReturnStatus status;
    bool hasEntry;
    DirEntry entry;
  };

  void Run(const std::shared_ptr<std::atomic<bool>>& abandoned);
  void Enqueue(const SubPtr& sub, NUK_ReturnStatus status, const DirEntry* entry);
  // Calls the subscription's function, counted as a callback in flight.
  static void Deliver(const SubPtr& sub, NUK_ReturnStatus status, const DirEntry* entry);

  mutable std::mutex mu_;
  std::condition_variable cv_;
  std::map<Directory::SubscriptionId, SubPtr> subs_;  // guarded by mu_
  std::deque<Event> queue_;                           // guarded by mu_
  SubPtr delivering_;                                 // guarded by mu_
  Directory::SubscriptionId nextId_ = 1;              // guarded by mu_
  bool stopping_ = false;                             // guarded by mu_
  std::shared_ptr<std::atomic<bool>> abandoned_;      // see SerialExecutor
  std::thread thread_;
  std::thread::id thread_id_;
};

}  // namespace platform
}  // namespace kel
