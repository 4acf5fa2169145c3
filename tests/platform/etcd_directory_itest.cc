// What only the etcd directory has to survive: dropped watch connections, compacted history,
// leases that expire, and programs that borrow or adopt a host's lease. Each test runs its own etcd
// on loopback.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "platform/directory.h"
#include "platform/directory_etcd.h"
#include "tests/platform/directory_test_util.h"
#include "tests/support/etcd_fixture.h"
#include "tests/support/test_support.h"

using kel::platform::Directory;
using kel::platform::DirectoryRole;
using kel::platform::DirEntry;
using kel::platform::DirQuery;
using kel::platform::EtcdDirectory;
using kel::platform::HostConfig;
using kel::testing::Eventually;
using kel::testing::Exists;
using kel::testing::MakeEntry;
using kel::testing::Recorder;
using kel::testing::UpdateAndWait;

namespace {

constexpr auto kWait = std::chrono::seconds(15);

// The lease that the host's member record names; 0 when the host is no member.
int64_t MemberLease(Directory& dir, const std::string& uuid) {
  auto m = kel::testing::FindMember(dir, uuid);
  return m ? strtoll(m->leaseId.c_str(), nullptr, 10) : 0;
}

bool IsMember(Directory& dir, const std::string& uuid) {
  return kel::testing::FindMember(dir, uuid).has_value();
}

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
