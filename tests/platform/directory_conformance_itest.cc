// The directory on both backends: every typed test runs against the embedded directory and a
// real etcd started on loopback for this binary. The EtcdDirectoryTest ones cover what only etcd
// has to survive (dropped watch connections, compacted history, leases that expire, programs that
// borrow or adopt a host's lease), each with an etcd of its own.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/directory.h"
#include "platform/directory_embedded.h"
#include "platform/directory_etcd.h"
#include "platform/exception.h"
#include "platform/host_config.h"
#include "platform/lodex.h"
#include "tests/support/etcd_fixture.h"
#include "tests/support/test_support.h"

using kel::platform::Directory;
using kel::platform::DirectoryRole;
using kel::platform::DirEntry;
using kel::platform::DirQuery;
using kel::platform::DirUuid;
using kel::platform::DirUuidToText;
using kel::platform::EtcdDirectory;
using kel::platform::HostConfig;
using kel::platform::MemberRecord;
using kel::platform::ObjectOwner;
using kel::platform::RandomDirUuid;
using kel::testing::Eventually;
using kel::testing::UpdateAndWait;

namespace {

DirEntry MakeEntry(uint8_t type, const std::string& data = "") {
  DirEntry e;
  e.uuid = RandomDirUuid();
  e.type = type;
  e.data = data;
  return e;
}

DirQuery ByUuid(const DirEntry& e) {
  DirQuery q;
  q.matchUuid = q.matchType = true;
  q.uuid = e.uuid;
  q.type = e.type;
  return q;
}

bool Exists(Directory& dir, const DirEntry& e) {
  std::vector<DirEntry> found;
  return dir.Find(ByUuid(e), &found) == NUK_OK;
}

// The member record of host `uuid`; none when it is no member or the list cannot be read.
std::optional<MemberRecord> FindMember(Directory& dir, const std::string& uuid) {
  std::vector<MemberRecord> members;
  if (dir.ListMembers(&members) == NUK_OK) {
    for (const auto& m : members) {
      if (m.uuid == uuid) return m;
    }
  }
  return std::nullopt;
}

// Notifications as they arrive, with the thread each arrived on. The lock is recursive so that a
// predicate given to WaitFor may use the other accessors.
class Recorder {
 public:
  struct Note {
    NUK_ReturnStatus status;
    bool hasEntry;
    DirEntry entry;
    std::thread::id thread;
  };

  Directory::NotifyFn Fn() {
    return [this](NUK_ReturnStatus st, const DirEntry* e) {
      std::lock_guard<std::recursive_mutex> guard(mu_);
      notes_.push_back(
          {st, e != nullptr, e != nullptr ? *e : DirEntry(), std::this_thread::get_id()});
      cv_.notify_all();
    };
  }
  bool WaitFor(const std::function<bool()>& pred,
               std::chrono::milliseconds timeout = std::chrono::seconds(15)) {
    std::unique_lock<std::recursive_mutex> lock(mu_);
    return cv_.wait_for(lock, timeout, pred);
  }
  std::vector<Note> Notes() {
    std::lock_guard<std::recursive_mutex> guard(mu_);
    return notes_;
  }
  size_t Count(NUK_ReturnStatus st) {
    size_t n = 0;
    for (const Note& note : Notes()) n += note.status == st ? 1 : 0;
    return n;
  }
  bool Has(NUK_ReturnStatus st, const DirUuid& uuid) {
    for (const Note& note : Notes()) {
      if (note.status == st && note.entry.uuid == uuid) return true;
    }
    return false;
  }
  // The data of every NUK_OK notification of `uuid`, in arrival order.
  std::vector<std::string> DataOf(const DirUuid& uuid) {
    std::vector<std::string> out;
    for (const Note& note : Notes()) {
      if (note.status == NUK_OK && note.entry.uuid == uuid) out.push_back(note.entry.data);
    }
    return out;
  }

 private:
  std::recursive_mutex mu_;
  std::condition_variable_any cv_;
  std::vector<Note> notes_;
};

class EmbeddedBackend {
 public:
  static constexpr bool kMultiHost = false;
  EmbeddedBackend() : config_(kel::testing::MakeTestHostConfig(dir_.path(), "host-a")) {
    config_.hostSite = "Preferred";
  }
  std::shared_ptr<Directory> Open() {
    return std::make_shared<kel::platform::EmbeddedDirectory>(config_);
  }
  // Another view of the same cluster: on one host, another process's directory object.
  std::shared_ptr<Directory> OpenPeer() { return Open(); }
  const HostConfig& Config() const { return config_; }

 private:
  kel::testing::TempDir dir_;
  HostConfig config_;
};

class EtcdBackend {
 public:
  static constexpr bool kMultiHost = true;
  static void SetUpSuite() {
    server_ = new kel::testing::EtcdServer();
    std::string error;
    if (!server_->Start(&error)) FAIL() << error;
  }
  static void TearDownSuite() {
    delete server_;
    server_ = nullptr;
  }
  EtcdBackend() {
    static std::atomic<int> counter{0};
    prefix_ = "/kel/conformance-" + std::to_string(counter.fetch_add(1));
    config_ =
        kel::testing::MakeTestHostConfig(dir_.path(), "host-a", server_->Endpoint(), prefix_, 5);
    config_.hostSite = "Preferred";
    peer_ =
        kel::testing::MakeTestHostConfig(dir_.path(), "host-b", server_->Endpoint(), prefix_, 5);
  }
  std::shared_ptr<Directory> Open() {
    return std::make_shared<EtcdDirectory>(config_, DirectoryRole::kHostAgent);
  }
  // Another host of the same cluster.
  std::shared_ptr<Directory> OpenPeer() {
    return std::make_shared<EtcdDirectory>(peer_, DirectoryRole::kHostAgent);
  }
  const HostConfig& Config() const { return config_; }

 private:
  static kel::testing::EtcdServer* server_;
  kel::testing::TempDir dir_;
  std::string prefix_;
  HostConfig config_;
  HostConfig peer_;
};
kel::testing::EtcdServer* EtcdBackend::server_ = nullptr;

template <typename Backend>
class DirectoryConformance : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if constexpr (Backend::kMultiHost) Backend::SetUpSuite();
  }
  static void TearDownTestSuite() {
    if constexpr (Backend::kMultiHost) Backend::TearDownSuite();
  }
  Backend backend_;
};

using Backends = ::testing::Types<EmbeddedBackend, EtcdBackend>;
class BackendNames {
 public:
  template <typename T>
  static std::string GetName(int) {
    return std::is_same<T, EmbeddedBackend>::value ? "Embedded" : "Etcd";
  }
};
TYPED_TEST_SUITE(DirectoryConformance, Backends, BackendNames);

TYPED_TEST(DirectoryConformance, EntriesRoundTripAndAreFoundByEachHeaderField) {
  auto dir = this->backend_.Open();
  std::string binary("a\0b\xff\x01z", 6);
  DirEntry config = MakeEntry(37, binary);
  DirEntry flagged = MakeEntry(0xA5, "high bit");  // 0xA5 is its own type, not 0x25
  flagged.uuid = config.uuid;
  DirEntry other = MakeEntry(38, "nic");
  ASSERT_EQ(UpdateAndWait(*dir, config), NUK_OK);
  ASSERT_EQ(UpdateAndWait(*dir, flagged), NUK_OK);
  ASSERT_EQ(UpdateAndWait(*dir, other), NUK_OK);

  std::vector<DirEntry> found;
  ASSERT_EQ(dir->Find(ByUuid(config), &found), NUK_OK);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].data, binary);
  EXPECT_EQ(found[0].type, 37);
  EXPECT_EQ(found[0].owner, dir->SelfUuid()) << "a zero owner stands for this host";
  EXPECT_TRUE(found[0].healthy);

  ASSERT_EQ(dir->Find(ByUuid(flagged), &found), NUK_OK);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].type, 0xA5);
  EXPECT_EQ(found[0].data, "high bit");

  DirQuery byUuidOnly;
  byUuidOnly.matchUuid = true;
  byUuidOnly.uuid = config.uuid;
  ASSERT_EQ(dir->Find(byUuidOnly, &found), NUK_OK);
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0].type, 37) << "results come in type order";
  EXPECT_EQ(found[1].type, 0xA5);

  DirQuery byOwnerAndType;
  byOwnerAndType.matchOwner = byOwnerAndType.matchType = true;
  byOwnerAndType.owner = dir->SelfUuid();
  byOwnerAndType.type = 38;
  ASSERT_EQ(dir->Find(byOwnerAndType, &found), NUK_OK);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].uuid, other.uuid);
  byOwnerAndType.owner = RandomDirUuid();
  EXPECT_EQ(dir->Find(byOwnerAndType, &found), NUK_NOT_FOUND);
  EXPECT_TRUE(found.empty());

  // Replace keeps one entry with the new data; an explicit owner is kept as given.
  config.data = "second";
  config.owner = RandomDirUuid();
  config.healthy = false;
  ASSERT_EQ(UpdateAndWait(*dir, config), NUK_OK);
  ASSERT_EQ(dir->Find(ByUuid(config), &found), NUK_OK);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].data, "second");
  EXPECT_EQ(found[0].owner, config.owner);
  EXPECT_FALSE(found[0].healthy);

  ASSERT_EQ(dir->Delete(config.uuid, 37), NUK_OK);
  EXPECT_EQ(dir->Find(ByUuid(config), &found), NUK_NOT_FOUND);
  EXPECT_EQ(dir->Delete(config.uuid, 37), NUK_NOT_FOUND);
  EXPECT_EQ(dir->Find(ByUuid(flagged), &found), NUK_OK) << "other type of the same uuid stays";
}

TYPED_TEST(DirectoryConformance, UpdateCompletesOnceOnTheWriterThreadAndRefusesZeroUuid) {
  auto dir = this->backend_.Open();
  std::atomic<int> calls{0};
  std::atomic<bool> onCallerThread{true};
  const std::thread::id caller = std::this_thread::get_id();
  ASSERT_EQ(dir->Update(MakeEntry(38, "x"),
                        [&](NUK_ReturnStatus st) {
                          EXPECT_EQ(st, NUK_OK);
                          onCallerThread = std::this_thread::get_id() == caller;
                          calls.fetch_add(1);
                        }),
            NUK_OK);
  ASSERT_TRUE(Eventually([&] { return calls.load() > 0; }));
  EXPECT_FALSE(onCallerThread.load());
  DirEntry zero;
  zero.type = 38;
  EXPECT_EQ(dir->Update(zero, [&](NUK_ReturnStatus) { calls.fetch_add(100); }), NUK_BAD_PARAM);
  dir.reset();  // drains the writer
  EXPECT_EQ(calls.load(), 1);
}

TYPED_TEST(DirectoryConformance, SubscribersSeeChangesOfOtherViewsAndTheEndOnce) {
  Recorder rec;  // outlives the directories, whose last call (the end) may come late
  auto writer = this->backend_.Open();
  auto watcher = this->backend_.OpenPeer();
  DirEntry e = MakeEntry(37, "gen-1");
  DirEntry unrelated = MakeEntry(37, "other");
  DirEntry highBit = MakeEntry(0xA5, "flagged");
  highBit.uuid = e.uuid;

  Directory::SubscriptionId id = 0;
  ASSERT_EQ(watcher->Subscribe(ByUuid(e), rec.Fn(), &id), NUK_OK);
  ASSERT_EQ(UpdateAndWait(*writer, unrelated), NUK_OK);
  ASSERT_EQ(UpdateAndWait(*writer, highBit), NUK_OK);
  ASSERT_EQ(UpdateAndWait(*writer, e), NUK_OK);
  ASSERT_TRUE(rec.WaitFor([&] { return rec.Count(NUK_OK) > 0; }));
  e.data = "gen-2";
  ASSERT_EQ(UpdateAndWait(*writer, e), NUK_OK);
  ASSERT_TRUE(rec.WaitFor([&] { return rec.DataOf(e.uuid).back() == "gen-2"; }));
  ASSERT_EQ(writer->Delete(e.uuid, e.type), NUK_OK);
  ASSERT_TRUE(rec.WaitFor([&] { return rec.Has(NUK_NOT_FOUND, e.uuid); }));

  ASSERT_EQ(watcher->Unsubscribe(id), NUK_OK);
  ASSERT_TRUE(rec.WaitFor([&] { return rec.Count(NUK_SUBSCRIPTION_ENDED) > 0; }));
  EXPECT_EQ(watcher->Unsubscribe(id), NUK_NOT_FOUND);
  ASSERT_EQ(UpdateAndWait(*writer, e), NUK_OK);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));

  // Only the subscribed entry is reported, a deletion with its last header, and nothing after
  // the end.
  auto notes = rec.Notes();
  for (const auto& n : notes) {
    EXPECT_EQ(n.hasEntry, n.status != NUK_SUBSCRIPTION_ENDED);
    if (n.hasEntry) {
      EXPECT_EQ(n.entry.uuid, e.uuid);
      EXPECT_EQ(n.entry.type, 37);
      EXPECT_EQ(n.entry.owner, writer->SelfUuid());
    }
  }
  EXPECT_EQ(notes.back().status, NUK_SUBSCRIPTION_ENDED);
  EXPECT_EQ(rec.Count(NUK_SUBSCRIPTION_ENDED), 1u);
  EXPECT_EQ(rec.Count(NUK_NOT_FOUND), 1u);
}

TYPED_TEST(DirectoryConformance, TypeAndOwnerSubscriptionsFilterAndRunOnTheNotificationThread) {
  Recorder byType, byOwner;
  auto writer = this->backend_.Open();
  auto watcher = this->backend_.OpenPeer();
  DirQuery typeQuery;
  typeQuery.matchType = true;
  typeQuery.type = 38;
  DirQuery ownerQuery;
  ownerQuery.matchOwner = ownerQuery.matchType = true;
  ownerQuery.type = 38;
  ownerQuery.owner = RandomDirUuid();
  Directory::SubscriptionId a = 0, b = 0;
  ASSERT_EQ(watcher->Subscribe(typeQuery, byType.Fn(), &a), NUK_OK);
  ASSERT_EQ(watcher->Subscribe(ownerQuery, byOwner.Fn(), &b), NUK_OK);

  DirEntry mine = MakeEntry(38, "mine");
  DirEntry theirs = MakeEntry(38, "theirs");
  theirs.owner = ownerQuery.owner;
  DirEntry config = MakeEntry(37, "config");
  ASSERT_EQ(UpdateAndWait(*writer, config), NUK_OK);
  ASSERT_EQ(UpdateAndWait(*writer, mine), NUK_OK);
  ASSERT_EQ(UpdateAndWait(*writer, theirs), NUK_OK);
  ASSERT_TRUE(byType.WaitFor([&] { return byType.Notes().size() >= 2; }));
  ASSERT_TRUE(byOwner.WaitFor([&] { return !byOwner.Notes().empty(); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  auto typeNotes = byType.Notes();
  auto ownerNotes = byOwner.Notes();
  ASSERT_EQ(typeNotes.size(), 2u);
  ASSERT_EQ(ownerNotes.size(), 1u);
  EXPECT_EQ(ownerNotes[0].entry.data, "theirs");
  EXPECT_NE(typeNotes[0].thread, std::this_thread::get_id());
  EXPECT_EQ(typeNotes[0].thread, ownerNotes[0].thread) << "one notification thread";
  EXPECT_EQ(watcher->Unsubscribe(a), NUK_OK);
  EXPECT_EQ(watcher->Unsubscribe(b), NUK_OK);
}

TYPED_TEST(DirectoryConformance, UnsubscribeFromInsideTheCallbackEndsAfterItReturns) {
  std::mutex mu;
  std::vector<std::string> order;
  auto dir = this->backend_.Open();
  DirEntry e = MakeEntry(37, "x");
  Directory::SubscriptionId id = 0;
  std::shared_ptr<Directory> keep = dir;
  ASSERT_EQ(dir->Subscribe(
                ByUuid(e),
                [&](NUK_ReturnStatus st, const DirEntry*) {
                  std::lock_guard<std::mutex> guard(mu);
                  if (st == NUK_OK && order.empty()) {
                    order.push_back("change");
                    EXPECT_EQ(keep->Unsubscribe(id), NUK_OK);
                    order.push_back("unsubscribed");
                  } else if (st == NUK_SUBSCRIPTION_ENDED) {
                    order.push_back("ended");
                  } else {
                    order.push_back("other");
                  }
                },
                &id),
            NUK_OK);
  ASSERT_EQ(UpdateAndWait(*dir, e), NUK_OK);
  e.data = "y";
  ASSERT_EQ(UpdateAndWait(*dir, e), NUK_OK);
  ASSERT_TRUE(Eventually([&] {
    std::lock_guard<std::mutex> guard(mu);
    return order.size() >= 3;
  }));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  std::lock_guard<std::mutex> guard(mu);
  EXPECT_EQ(order, (std::vector<std::string>{"change", "unsubscribed", "ended"}));
}

// What one subscription of the process's directory saw. `current` is the directory that was the
// process's when it subscribed.
struct Probe {
  std::atomic<Directory*> current{nullptr};
  std::atomic<int> calls{0};
  std::atomic<int> inFlight{0};
  std::atomic<int> reopened{0};
  std::atomic<int> ended{0};
  std::atomic<bool> closeInside{false};
};

// Does what the configuration entry's callback does (looks the notified entry up again through
// the process's directory), notes whether the process's directory is still the one it subscribed
// to, and stays a moment so that closes meet running callbacks.
NUK_ReturnStatus ProbeCallback(void* context, const LODEX_Entry* entry, int, NUK_ReturnStatus st) {
  auto* probe = static_cast<Probe*>(context);
  if (st == NUK_SUBSCRIPTION_ENDED) {
    probe->ended.fetch_add(1);
    return NUK_OK;
  }
  probe->inFlight.fetch_add(1);
  probe->calls.fetch_add(1);
  if (entry != nullptr) {
    LODEX_Entry* full = nullptr;
    if (LODEX_FindFullEntryByHeader(&entry->header, 0, nullptr, 1, &full) == NUK_OK) {
      LODEX_FreeEntry(nullptr, full);
    }
  }
  try {
    std::shared_ptr<Directory> now = kel::platform::GetDirectory();
    if (now.get() != probe->current.load()) probe->reopened.fetch_add(1);
    if (probe->closeInside.exchange(false)) kel::platform::CloseDirectory();
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException&) {
    // Closed: what a callback that runs during a close must see.
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(1));
  probe->inFlight.fetch_sub(1);
  return NUK_OK;
}

TYPED_TEST(DirectoryConformance, TheProcessDirectoryClosesSafelyWhileNotificationsRun) {
  kel::platform::SetCurrentHostConfig(this->backend_.Config());
  kel::platform::CloseDirectory();
  auto peer = this->backend_.OpenPeer();
  const DirEntry entry = MakeEntry(37, "0");
  // Another view changes the entry without pause, so notifications are being delivered whenever
  // the process's directory is closed.
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    DirEntry e = entry;
    for (int i = 1; !stop.load(); ++i) {
      e.data = std::to_string(i);
      UpdateAndWait(*peer, e);
    }
  });
  LODEX_Query query;
  LODEX_InitQuery(&query, LODEX_MATCH_UUID | LODEX_MATCH_TYPE | 37, entry.uuid.data(), nullptr);

  const int cycles = TypeParam::kMultiHost ? 25 : 100;
  for (int cycle = 0; cycle < cycles; ++cycle) {
    SCOPED_TRACE("cycle " + std::to_string(cycle));
    Probe probe;
    std::shared_ptr<Directory> dir = kel::platform::GetDirectory();
    probe.current = dir.get();
    std::weak_ptr<Directory> weak = dir;
    dir.reset();
    // Every fourth cycle the callback itself closes the directory, so that the last reference
    // goes away on the notification thread.
    probe.closeInside = cycle % 4 == 3;
    ASSERT_EQ(LODEX_Subscribe(&query, ProbeCallback, &probe), NUK_OK);
    ASSERT_TRUE(Eventually([&] { return probe.calls.load() > 0; }));
    if (cycle % 4 == 3) {
      ASSERT_TRUE(Eventually([&] { return weak.expired(); }));
      ASSERT_TRUE(Eventually([&] { return probe.ended.load() == 1; }));
    } else {
      kel::platform::CloseDirectory();
      // Nothing of the closed directory runs any more, and its subscription has ended.
      EXPECT_TRUE(weak.expired());
      EXPECT_EQ(probe.ended.load(), 1);
    }
    EXPECT_EQ(probe.inFlight.load(), 0);
    EXPECT_EQ(probe.reopened.load(), 0);
  }
  stop = true;
  writer.join();
}

// A directory owned by nothing but one of its own callbacks (or completions) goes away on that
// very thread: its threads are still stopped and joined, and the subscription still ends once.
TYPED_TEST(DirectoryConformance, ADirectoryLetGoOnItsOwnThreadShutsDownCleanly) {
  for (bool byNotification : {true, false}) {
    SCOPED_TRACE(byNotification ? "notification thread" : "writer thread");
    Recorder rec;
    auto dir = this->backend_.Open();
    Directory* raw = dir.get();
    std::weak_ptr<Directory> weak = dir;
    auto holder = std::make_shared<std::shared_ptr<Directory>>(std::move(dir));
    DirEntry e = MakeEntry(37, "x");
    Directory::SubscriptionId id = 0;
    ASSERT_EQ(
        raw->Subscribe(
            ByUuid(e),
            [holder, byNotification, fn = rec.Fn()](NUK_ReturnStatus st, const DirEntry* entry) {
              fn(st, entry);
              if (byNotification && st == NUK_OK) holder->reset();
            },
            &id),
        NUK_OK);
    ASSERT_EQ(raw->Update(e,
                          [holder, byNotification](NUK_ReturnStatus) {
                            if (!byNotification) holder->reset();
                          }),
              NUK_OK);
    ASSERT_TRUE(Eventually([&] { return weak.expired(); }));
    ASSERT_TRUE(rec.WaitFor([&] { return rec.Count(NUK_SUBSCRIPTION_ENDED) > 0; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(rec.Count(NUK_SUBSCRIPTION_ENDED), 1u);
  }
}

TYPED_TEST(DirectoryConformance, MembershipHoldsThisHostWithItsFlags) {
  auto dir = this->backend_.Open();
  std::string self = DirUuidToText(dir->SelfUuid());
  EXPECT_EQ(self, this->backend_.Config().hostUuid);
  auto m = FindMember(*dir, self);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->name, "host-a");
  EXPECT_EQ(m->site, "Preferred");
  EXPECT_FALSE(m->maintenance);
  EXPECT_EQ(m->decommission, kel::platform::kDecomNone);

  ASSERT_EQ(dir->UpdateSelfMember([](MemberRecord& r) {
    r.maintenance = true;
    r.decommission = kel::platform::kDecomComplete;
  }),
            NUK_OK);
  m = FindMember(*dir, self);
  ASSERT_TRUE(m);
  EXPECT_TRUE(m->maintenance);
  EXPECT_EQ(m->decommission, kel::platform::kDecomComplete);

  // Re-joining keeps the flags of the record; leaving removes it.
  ASSERT_EQ(dir->JoinCluster(), NUK_OK);
  m = FindMember(*dir, self);
  ASSERT_TRUE(m);
  EXPECT_TRUE(m->maintenance);
  ASSERT_EQ(dir->LeaveCluster(), NUK_OK);
  EXPECT_FALSE(FindMember(*dir, self));
  EXPECT_EQ(dir->UpdateSelfMember([](MemberRecord&) {}), NUK_NOT_FOUND);
  EXPECT_EQ(dir->LeaveCluster(), NUK_NOT_FOUND);
  ASSERT_EQ(dir->JoinCluster(), NUK_OK);
  // This host's record always carries this build's version, whatever an edit says.
  ASSERT_EQ(dir->UpdateSelfMember([](MemberRecord& r) { r.diskFormatVersion = 9; }), NUK_OK);
  EXPECT_EQ(FindMember(*dir, self)->diskFormatVersion, kel::platform::kDiskFormatVersion);
}

TYPED_TEST(DirectoryConformance, ClusterSettingsAreSharedBetweenHosts) {
  auto dir = this->backend_.Open();
  std::string value;
  EXPECT_EQ(dir->GetClusterSetting("preferredSite", &value), NUK_NOT_FOUND);
  for (const char* bad : {"", ".hidden", "a/b", "../x"}) {
    EXPECT_EQ(dir->GetClusterSetting(bad, &value), NUK_BAD_PARAM) << bad;
    EXPECT_EQ(dir->SetClusterSetting(bad, "v"), NUK_BAD_PARAM) << bad;
  }
  ASSERT_EQ(dir->SetClusterSetting("preferredSite", "east"), NUK_OK);
  ASSERT_EQ(dir->SetClusterSetting("preferredSite", "west"), NUK_OK);
  auto peer = this->backend_.OpenPeer();
  ASSERT_EQ(peer->GetClusterSetting("preferredSite", &value), NUK_OK);
  EXPECT_EQ(value, "west");
  ASSERT_EQ(peer->SetClusterSetting("preferredSite", ""), NUK_OK);
  EXPECT_EQ(peer->GetClusterSetting("preferredSite", &value), NUK_NOT_FOUND);
  EXPECT_EQ(peer->SetClusterSetting("preferredSite", ""), NUK_OK) << "removing twice is fine";
}

TYPED_TEST(DirectoryConformance, OwnerRecordsChangeOnlyByCompareAndSwap) {
  auto dir = this->backend_.Open();
  std::string object = DirUuidToText(RandomDirUuid());
  std::string hostA = DirUuidToText(RandomDirUuid());
  std::string hostB = DirUuidToText(RandomDirUuid());
  ObjectOwner owner;
  EXPECT_EQ(dir->GetObjectOwner(object, &owner), NUK_NOT_FOUND);
  EXPECT_EQ(dir->GetObjectOwner("not-a-uuid", &owner), NUK_BAD_PARAM);
  EXPECT_EQ(dir->CompareAndSwapObjectOwner(object, 0, "bad"), NUK_BAD_PARAM);

  ASSERT_EQ(dir->CompareAndSwapObjectOwner(object, 0, hostA), NUK_OK);
  EXPECT_EQ(dir->CompareAndSwapObjectOwner(object, 0, hostB), NUK_BUSY) << "create only once";
  ASSERT_EQ(dir->GetObjectOwner(object, &owner), NUK_OK);
  EXPECT_EQ(owner.hostUuid, hostA);
  int64_t first = owner.revision;
  EXPECT_GT(first, 0);

  ASSERT_EQ(dir->CompareAndSwapObjectOwner(object, first, hostB), NUK_OK);
  EXPECT_EQ(dir->CompareAndSwapObjectOwner(object, first, hostA), NUK_BUSY) << "stale revision";
  ASSERT_EQ(dir->GetObjectOwner(object, &owner), NUK_OK);
  EXPECT_EQ(owner.hostUuid, hostB);
  EXPECT_NE(owner.revision, first);

  // Many writers from the same revision: exactly one wins.
  auto peer = this->backend_.OpenPeer();
  int64_t rev = owner.revision;
  std::atomic<int> wins{0}, busy{0};
  std::vector<std::thread> threads;
  std::vector<std::string> hosts;
  for (int i = 0; i < 8; ++i) hosts.push_back(DirUuidToText(RandomDirUuid()));
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&, i] {
      Directory& d = (i % 2 == 0) ? *dir : *peer;
      NUK_ReturnStatus st = d.CompareAndSwapObjectOwner(object, rev, hosts[i]);
      if (st == NUK_OK) wins.fetch_add(1);
      if (st == NUK_BUSY) busy.fetch_add(1);
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(wins.load(), 1);
  EXPECT_EQ(busy.load(), 7);

  std::map<std::string, ObjectOwner> all;
  ASSERT_EQ(dir->ListObjectOwners(&all), NUK_OK);
  ASSERT_EQ(all.count(object), 1u);
  EXPECT_NE(all[object].hostUuid, hostB);
  ASSERT_EQ(dir->DeleteObjectOwner(object), NUK_OK);
  EXPECT_EQ(dir->GetObjectOwner(object, &owner), NUK_NOT_FOUND);
  EXPECT_EQ(dir->DeleteObjectOwner(object), NUK_NOT_FOUND);
}

constexpr auto kWait = std::chrono::seconds(15);

// The lease that the host's member record names; 0 when the host is no member.
int64_t MemberLease(Directory& dir, const std::string& uuid) {
  auto m = FindMember(dir, uuid);
  return m ? strtoll(m->leaseId.c_str(), nullptr, 10) : 0;
}

bool IsMember(Directory& dir, const std::string& uuid) { return FindMember(dir, uuid).has_value(); }

class EtcdDirectoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(server_.Start(&error)) << error;
  }
  HostConfig Host(const std::string& name, int ttl = 10) {
    return kel::testing::MakeTestHostConfig(tmp_.path(), name, server_.Endpoint(), "/kel/t", ttl);
  }
  std::shared_ptr<EtcdDirectory> Open(const HostConfig& c,
                                      DirectoryRole role = DirectoryRole::kHostAgent) {
    return std::make_shared<EtcdDirectory>(c, role);
  }

  kel::testing::TempDir tmp_;
  kel::testing::EtcdServer server_;
};

TEST_F(EtcdDirectoryTest, WatchResumesAfterACutStreamAndAServerRestartWithoutLosingEvents) {
  Recorder notes;  // outlives the directories, whose last call (the end) may come late
  auto writer = Open(Host("writer"));
  auto watcher = Open(Host("watcher"));
  DirQuery all;
  Directory::SubscriptionId id = 0;
  ASSERT_EQ(watcher->Subscribe(all, notes.Fn(), &id), NUK_OK);
  DirEntry e = MakeEntry(37);

  // Connection cut while five changes are made: all five arrive, in order.
  watcher->SetWatchPausedForTest(true);
  watcher->CutWatchStreamForTest();
  for (int i = 1; i <= 5; ++i) {
    e.data = "gen-" + std::to_string(i);
    ASSERT_EQ(UpdateAndWait(*writer, e), NUK_OK);
  }
  watcher->SetWatchPausedForTest(false);
  ASSERT_TRUE(notes.WaitFor([&] { return notes.DataOf(e.uuid).size() >= 5; }));
  EXPECT_EQ(notes.DataOf(e.uuid),
            (std::vector<std::string>{"gen-1", "gen-2", "gen-3", "gen-4", "gen-5"}));

  // The server goes away and comes back on the same data: the stream picks up where it was.
  std::string error;
  ASSERT_TRUE(server_.Restart(&error)) << error;
  for (int i = 6; i <= 8; ++i) {
    e.data = "gen-" + std::to_string(i);
    ASSERT_TRUE(Eventually([&] { return UpdateAndWait(*writer, e) == NUK_OK; }, kWait));
  }
  ASSERT_TRUE(notes.WaitFor([&] { return notes.DataOf(e.uuid).size() >= 8; }));
  auto seen = notes.DataOf(e.uuid);
  EXPECT_EQ(std::vector<std::string>(seen.begin() + 5, seen.end()),
            (std::vector<std::string>{"gen-6", "gen-7", "gen-8"}));
  EXPECT_EQ(watcher->CompactionResyncsForTest(), 0);
  EXPECT_EQ(watcher->Unsubscribe(id), NUK_OK);
}

TEST_F(EtcdDirectoryTest, ACompactedResumePointIsRepairedByReadingAndReportingTheDifferences) {
  Recorder notes;
  auto writer = Open(Host("writer"));
  auto watcher = Open(Host("watcher"));
  DirEntry kept = MakeEntry(38, "v1"), removed = MakeEntry(38, "bye"), added = MakeEntry(38, "new");
  ASSERT_EQ(UpdateAndWait(*writer, kept), NUK_OK);
  ASSERT_EQ(UpdateAndWait(*writer, removed), NUK_OK);

  DirQuery all;
  Directory::SubscriptionId id = 0;
  ASSERT_EQ(watcher->Subscribe(all, notes.Fn(), &id), NUK_OK);
  watcher->SetWatchPausedForTest(true);
  watcher->CutWatchStreamForTest();
  kept.data = "v2";
  ASSERT_EQ(UpdateAndWait(*writer, kept), NUK_OK);
  ASSERT_EQ(writer->Delete(removed.uuid, removed.type), NUK_OK);
  ASSERT_EQ(UpdateAndWait(*writer, added), NUK_OK);
  int64_t rev = server_.CurrentRevision();
  ASSERT_GT(rev, 0);
  ASSERT_TRUE(server_.Compact(rev));
  watcher->SetWatchPausedForTest(false);

  ASSERT_TRUE(notes.WaitFor([&] {
    return notes.Has(NUK_OK, added.uuid) && notes.Has(NUK_NOT_FOUND, removed.uuid) &&
           !notes.DataOf(kept.uuid).empty();
  }));
  EXPECT_EQ(notes.DataOf(kept.uuid), std::vector<std::string>{"v2"});
  EXPECT_EQ(watcher->CompactionResyncsForTest(), 1);

  // And the stream carries on after the repair.
  kept.data = "v3";
  ASSERT_EQ(UpdateAndWait(*writer, kept), NUK_OK);
  ASSERT_TRUE(notes.WaitFor([&] { return notes.DataOf(kept.uuid).size() == 2; }));
  EXPECT_EQ(notes.DataOf(kept.uuid).back(), "v3");
  EXPECT_EQ(watcher->Unsubscribe(id), NUK_OK);
}

TEST_F(EtcdDirectoryTest, AnExpiredLeaseTakesTheHostAndItsEntriesAndIsRepairedWhenItWakesUp) {
  Recorder notes;
  HostConfig a = Host("short-lived", 2);
  auto host = Open(a);
  auto other = Open(Host("observer"));
  DirEntry nic = MakeEntry(38, "nuk0");
  ASSERT_EQ(UpdateAndWait(*host, nic), NUK_OK);
  DirQuery all;
  Directory::SubscriptionId id = 0;
  ASSERT_EQ(other->Subscribe(all, notes.Fn(), &id), NUK_OK);
  ASSERT_TRUE(IsMember(*other, a.hostUuid));

  host->SuspendKeepAliveForTest(true);  // as if the host hung
  ASSERT_TRUE(notes.WaitFor([&] { return notes.Has(NUK_NOT_FOUND, nic.uuid); }));
  EXPECT_FALSE(IsMember(*other, a.hostUuid));
  EXPECT_FALSE(Exists(*other, nic));

  host->SuspendKeepAliveForTest(false);  // it wakes up: new lease, member and entries again
  ASSERT_TRUE(notes.WaitFor([&] { return notes.Has(NUK_OK, nic.uuid); }));
  EXPECT_TRUE(IsMember(*other, a.hostUuid));
  EXPECT_TRUE(Exists(*other, nic));
  EXPECT_EQ(other->Unsubscribe(id), NUK_OK);
}

TEST_F(EtcdDirectoryTest, ASettingOutlivesTheLeaseOfTheProgramThatWroteIt) {
  HostConfig lone = Host("lone");
  auto observer = Open(Host("observer"));
  {
    auto kelctl = Open(lone, DirectoryRole::kClient);  // no agent: a lease of its own
    ASSERT_EQ(kelctl->SetClusterSetting("preferredSite", "east"), NUK_OK);
    ASSERT_TRUE(IsMember(*observer, lone.hostUuid));
  }
  EXPECT_FALSE(IsMember(*observer, lone.hostUuid)) << "its lease was revoked at exit";
  std::string value;
  ASSERT_EQ(observer->GetClusterSetting("preferredSite", &value), NUK_OK);
  EXPECT_EQ(value, "east");
}

TEST_F(EtcdDirectoryTest, ProgramsBorrowTheAgentsLeaseOrHoldTheirOwnForTheirLifetime) {
  HostConfig h = Host("with-agent");
  // The first endpoint is dead: every call must fall over to the live one.
  h.etcdEndpoints.insert(h.etcdEndpoints.begin(),
                         "http://127.0.0.1:" + std::to_string(kel::testing::FreeLoopbackPort()));
  auto agent = Open(h, DirectoryRole::kHostAgent);
  EXPECT_TRUE(agent->OwnsLease());
  DirEntry byClient = MakeEntry(38);
  {
    auto client = Open(h, DirectoryRole::kClient);
    EXPECT_EQ(client->LeaseId(), agent->LeaseId());
    EXPECT_FALSE(client->OwnsLease());
    ASSERT_EQ(UpdateAndWait(*client, byClient), NUK_OK);
  }
  EXPECT_TRUE(Exists(*agent, byClient)) << "a borrowed lease is not revoked by the borrower";

  HostConfig lone = Host("no-agent");
  DirEntry byLone = MakeEntry(38);
  {
    auto client = Open(lone, DirectoryRole::kClient);
    EXPECT_TRUE(client->OwnsLease());
    EXPECT_NE(client->LeaseId(), agent->LeaseId());
    ASSERT_TRUE(IsMember(*agent, lone.hostUuid));
    ASSERT_EQ(UpdateAndWait(*client, byLone), NUK_OK);
    ASSERT_TRUE(Exists(*agent, byLone));
  }
  EXPECT_FALSE(Exists(*agent, byLone)) << "its own lease ends with the program";
  EXPECT_FALSE(IsMember(*agent, lone.hostUuid));
}

TEST_F(EtcdDirectoryTest, ARestartedAgentAdoptsItsLiveLeaseAndNoticesWhenTheHostLeft) {
  HostConfig h = Host("agent", 2);
  DirEntry nic = MakeEntry(38);
  int64_t firstLease = 0;
  {
    auto first = Open(h);
    firstLease = first->LeaseId();
    ASSERT_EQ(UpdateAndWait(*first, nic), NUK_OK);
  }
  auto second = Open(h);
  EXPECT_EQ(second->LeaseId(), firstLease);
  std::this_thread::sleep_for(std::chrono::milliseconds(3500));  // longer than the TTL
  EXPECT_TRUE(Exists(*second, nic)) << "entries of the previous run stay with the adopted lease";

  std::atomic<bool> lost{false};
  second->SetMembershipLostHandler([&] { lost = true; });
  {
    auto kelctl = Open(h, DirectoryRole::kClient);
    ASSERT_EQ(kelctl->LeaveCluster(), NUK_OK);
  }
  ASSERT_TRUE(Eventually([&] { return lost.load(); }, kWait));
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  EXPECT_FALSE(IsMember(*second, h.hostUuid)) << "the agent does not re-register by itself";
  ASSERT_EQ(second->JoinCluster(), NUK_OK);
  EXPECT_TRUE(IsMember(*second, h.hostUuid));
}

// Without the agent, keld is what keeps the host alive; the short-lived kelctl runs between must
// neither replace its member record nor take it with them when they exit.
TEST_F(EtcdDirectoryTest, ShortLivedClientsBorrowWhicheverLeaseKeepsTheHostAlive) {
  auto observer = Open(Host("observer"));
  HostConfig h = Host("served-by-keld", 2);
  auto keld = Open(h, DirectoryRole::kDaemon);
  ASSERT_TRUE(keld->OwnsLease());
  const int64_t keldLease = keld->LeaseId();
  EXPECT_EQ(MemberLease(*observer, h.hostUuid), keldLease);
  DirEntry byClient = MakeEntry(38);
  for (int run = 0; run < 2; ++run) {
    auto kelctl = Open(h, DirectoryRole::kClient);
    EXPECT_EQ(kelctl->LeaseId(), keldLease);
    EXPECT_FALSE(kelctl->OwnsLease());
    if (run == 0) {
      ASSERT_EQ(UpdateAndWait(*kelctl, byClient), NUK_OK);
    }
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(3500));  // longer than the TTL
  EXPECT_EQ(MemberLease(*observer, h.hostUuid), keldLease) << "kelctl's exit kept the record";
  EXPECT_TRUE(Exists(*observer, byClient));

  // An agent takes the record over under a lease of its own (keld's is no agent's to adopt);
  // programs started meanwhile, a second daemon as well, borrow the agent's.
  {
    auto agent = Open(h, DirectoryRole::kHostAgent);
    EXPECT_TRUE(agent->OwnsLease());
    EXPECT_NE(agent->LeaseId(), keldLease);
    EXPECT_EQ(MemberLease(*observer, h.hostUuid), agent->LeaseId());
    auto kelctl = Open(h, DirectoryRole::kClient);
    EXPECT_EQ(kelctl->LeaseId(), agent->LeaseId());
    auto other = Open(h, DirectoryRole::kDaemon);
    EXPECT_EQ(other->LeaseId(), agent->LeaseId());
    EXPECT_FALSE(other->OwnsLease());
  }
  // The agent stopped: once its lease has run out keld registers the host again.
  EXPECT_TRUE(Eventually([&] { return MemberLease(*observer, h.hostUuid) == keldLease; }, kWait));

  // A host that leaves the cluster stays out although keld keeps running.
  {
    auto kelctl = Open(h, DirectoryRole::kClient);
    EXPECT_EQ(kelctl->LeaseId(), keldLease);
    ASSERT_EQ(kelctl->LeaveCluster(), NUK_OK);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));  // several of keld's checks
  EXPECT_EQ(MemberLease(*observer, h.hostUuid), 0);

  // Two programs with no long-running one: the second borrows the first's lease, and its exit
  // leaves the first one's record alone.
  HostConfig lone = Host("clients-only");
  auto first = Open(lone, DirectoryRole::kClient);
  ASSERT_TRUE(first->OwnsLease());
  {
    auto second = Open(lone, DirectoryRole::kClient);
    EXPECT_EQ(second->LeaseId(), first->LeaseId());
    EXPECT_FALSE(second->OwnsLease());
  }
  EXPECT_EQ(MemberLease(*observer, lone.hostUuid), first->LeaseId());
}

}  // namespace
