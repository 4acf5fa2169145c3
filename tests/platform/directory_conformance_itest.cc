// One behaviour, two backends: every test here runs against the embedded directory and against a
// real etcd started on loopback for this binary.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/directory.h"
#include "platform/directory_embedded.h"
#include "platform/directory_etcd.h"
#include "platform/exception.h"
#include "platform/host_config.h"
#include "platform/lodex.h"
#include "tests/platform/directory_test_util.h"
#include "tests/support/etcd_fixture.h"

using kel::platform::Directory;
using kel::platform::DirEntry;
using kel::platform::DirQuery;
using kel::platform::DirUuid;
using kel::platform::DirUuidToText;
using kel::platform::HostConfig;
using kel::platform::MemberRecord;
using kel::platform::ObjectOwner;
using kel::platform::RandomDirUuid;
using kel::testing::ByUuid;
using kel::testing::Eventually;
using kel::testing::FindMember;
using kel::testing::MakeEntry;
using kel::testing::Recorder;
using kel::testing::UpdateAndWait;

namespace {

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
    return std::make_shared<kel::platform::EtcdDirectory>(config_,
                                                          kel::platform::DirectoryRole::kHostAgent);
  }
  // Another host of the same cluster.
  std::shared_ptr<Directory> OpenPeer() {
    return std::make_shared<kel::platform::EtcdDirectory>(peer_,
                                                          kel::platform::DirectoryRole::kHostAgent);
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
  EXPECT_TRUE(FindMember(*dir, self));
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

}  // namespace
