// Cluster membership, object ownership and the interface entries of this host.
#include "directory/host_queries.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "directory/interface_publication.h"
#include "placement/orphan_claim.h"
#include "platform/clock.h"
#include "platform/exception.h"
#include "platform/log.h"
#include "platform/testing/fake_directory.h"
#include "tests/directory/directory_test_env.h"

using HostCtl::Lib::Orsa::OrsaCtlException;
using kel::log::LogCapture;
using kel::platform::DirUuidToText;
using kel::platform::FakeDirectory;
using kel::platform::MemberRecord;
using kel::platform::ObjectOwner;
using kel::platform::RandomDirUuid;
using kel::testing::Member;
using NukCtl::Orsa::IscsiTarget::Util::KelNetLodexEntry;
namespace Util = NukCtl::Orsa::IscsiTarget::Util;

namespace {

std::string NewUuid() { return DirUuidToText(RandomDirUuid()); }

class HostQueriesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    self_ = env_.config().hostUuid;
    fake_ = std::make_shared<FakeDirectory>(self_);
    fake_->SetMember(Member(self_, "host-a", "Preferred"));
    kel::platform::SetDirectoryForTest(fake_);
  }
  std::string Owner(const std::string& object) {
    ObjectOwner o;
    return fake_->GetObjectOwner(object, &o) == NUK_OK ? o.hostUuid : std::string();
  }

  kel::testing::DirTestEnv env_;
  std::string self_;
  std::shared_ptr<FakeDirectory> fake_;
};

TEST_F(HostQueriesTest, EligibleHostsLeaveOutThoseThatCannotServe) {
  std::string witness = NewUuid(), maint = NewUuid(), decom = NewUuid(), gone = NewUuid(),
              other = NewUuid();
  MemberRecord w = Member(witness, "w", "Preferred");
  w.witness = true;
  MemberRecord m = Member(maint, "m", "Preferred");
  m.maintenance = true;
  MemberRecord d = Member(decom, "d", "NonPreferred");
  d.decommission = kel::platform::kDecomInProgress;
  MemberRecord g = Member(gone, "g", "NonPreferred");
  g.decommission = kel::platform::kDecomComplete;
  for (const MemberRecord& r : {w, m, d, g, Member(other, "host-b", "NonPreferred")}) {
    fake_->SetMember(r);
  }

  LogCapture capture;
  std::vector<std::string> expected = {self_, other};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(Util::GetEligibleHosts(), expected);
  for (const std::string& skipped : {witness, maint, decom, gone}) {
    EXPECT_EQ(capture.Count("Util: Skip node(" + skipped + ")"), 1u) << skipped;
  }
  EXPECT_EQ(capture.Count("Skip node("), 4u);
  EXPECT_EQ(Util::GetEligibleHosts("Preferred"), std::vector<std::string>{self_});
  EXPECT_EQ(Util::GetEligibleHosts("NonPreferred"), std::vector<std::string>{other});
  EXPECT_EQ(Util::QueryHostUuidsForObject(NewUuid()),
            std::set<std::string>(expected.begin(), expected.end()));
  EXPECT_THROW(Util::QueryHostUuidsForObject("x"), OrsaCtlException);

  EXPECT_EQ(Util::GetNodeUuid(), self_);
  EXPECT_EQ(Util::GetNodeSiteDomain(), "Preferred");
  EXPECT_EQ(Util::GetNodeSiteDomain(other), "NonPreferred");
  EXPECT_EQ(Util::GetNodeSiteDomain(NewUuid()), "");
  EXPECT_EQ(Util::GetHostNameFromUuid(other), "host-b");
  EXPECT_EQ(Util::GetHostNameFromUuid(NewUuid()), "");

  fake_->SetMembersResult(NUK_DIRECTORY_NOT_RUNNING);
  EXPECT_THROW(Util::GetEligibleHosts(), OrsaCtlException);
}

TEST_F(HostQueriesTest, OwnerOfAnObjectWithoutRecordDependsOnTheClusterKind) {
  std::string object = NewUuid();
  EXPECT_EQ(Util::GetTargetOwnerHostUuid(object), self_) << "a one-host cluster owns everything";
  EXPECT_EQ(Util::GetTargetOwnerHostUuid(""), "");
  env_.config().directoryBackend = "etcd";
  env_.Apply();
  EXPECT_EQ(Util::GetTargetOwnerHostUuid(object), "");
  Util::ClaimObjectOwnership(object);
  EXPECT_EQ(Util::GetTargetOwnerHostUuid(object), self_);
  Util::ReleaseObjectOwnership(object);
  EXPECT_EQ(Util::GetTargetOwnerHostUuid(object), "");
  EXPECT_NO_THROW(Util::ReleaseObjectOwnership(object));
}

TEST_F(HostQueriesTest, TransferIsACompareAndSwapThatOnlyOneOfTwoRacersWins) {
  std::string b = NewUuid(), c = NewUuid(), down = NewUuid();
  fake_->SetMember(Member(b, "host-b", ""));
  fake_->SetMember(Member(c, "host-c", ""));
  MemberRecord m = Member(down, "host-m", "");
  m.maintenance = true;
  fake_->SetMember(m);
  std::string object = NewUuid();
  Util::ClaimObjectOwnership(object);

  LogCapture capture;
  EXPECT_TRUE(Util::TransferObjectByUuid(object, b));
  EXPECT_TRUE(
      capture.Contains("Util: Move local target Object (" + object + ") to dest Node (" + b + ")"));
  EXPECT_EQ(Owner(object), b);
  EXPECT_FALSE(Util::TransferObjectByUuid(object, down));
  EXPECT_TRUE(capture.Contains("Util: Failed to transfer target uuid " + object +
                               " (destination host is not an eligible cluster member)"));
  EXPECT_EQ(Owner(object), b);

  // Both racers read the owner record before either writes: exactly one swap can succeed.
  std::mutex mu;
  std::condition_variable cv;
  int arrived = 0;
  fake_->SetGetOwnerHook([&] {
    std::unique_lock<std::mutex> lock(mu);
    ++arrived;
    cv.notify_all();
    cv.wait_for(lock, std::chrono::seconds(5), [&] { return arrived >= 2; });
  });
  bool toSelf = false, toC = false;
  std::thread t1([&] { toSelf = Util::TransferObjectByUuid(object, self_); });
  std::thread t2([&] { toC = Util::TransferObjectByUuid(object, c); });
  t1.join();
  t2.join();
  fake_->SetGetOwnerHook(nullptr);
  EXPECT_NE(toSelf, toC);
  EXPECT_EQ(Owner(object), toSelf ? self_ : c);
  EXPECT_TRUE(capture.Contains("(owner changed by another host)"));
}

TEST_F(HostQueriesTest, MaintenanceDecommissionAndMembershipHelpers) {
  kel::platform::ScopedFakeClock clock;
  EXPECT_TRUE(Util::WaitForNodeDecomComplete(5));
  EXPECT_TRUE(clock.clock().Sleeps().empty());

  Util::EnterMaintenanceMode();
  EXPECT_TRUE(Util::GetEligibleHosts().empty());
  EXPECT_TRUE(Util::WaitForNodeDecomComplete(5)) << "nothing to evacuate: complete at once";
  Util::ExitMaintenanceMode();
  EXPECT_EQ(Util::GetEligibleHosts(), std::vector<std::string>{self_});

  fake_->UpdateSelfMember(
      [](MemberRecord& r) { r.decommission = kel::platform::kDecomInProgress; });
  EXPECT_FALSE(Util::WaitForNodeDecomComplete(5));
  EXPECT_EQ(clock.clock().Sleeps().size(), 5u);
  EXPECT_EQ(clock.clock().TotalSlept(), std::chrono::milliseconds(5000));

  Util::LeaveCluster();
  EXPECT_TRUE(Util::GetClusterMembers().empty());
  EXPECT_THROW(Util::LeaveCluster(), OrsaCtlException);
  EXPECT_THROW(Util::EnterMaintenanceMode(), OrsaCtlException);
  Util::JoinCluster();
  EXPECT_EQ(Util::GetClusterMembers().size(), 1u);
}

TEST_F(HostQueriesTest, OrphansAreClaimedOnlyFromDepartedHostsAndOnlyOnce) {
  std::string peer = NewUuid(), departed = NewUuid();
  fake_->SetMember(Member(peer, "host-b", ""));
  std::vector<std::string> orphans;
  for (int i = 0; i < 30; ++i) {
    orphans.push_back(NewUuid());
    ASSERT_EQ(fake_->CompareAndSwapObjectOwner(orphans.back(), 0, departed), NUK_OK);
  }
  std::string peers = NewUuid();
  ASSERT_EQ(fake_->CompareAndSwapObjectOwner(peers, 0, peer), NUK_OK);

  int claimed = Util::ClaimOrphanedObjects();
  // The hash spreads the orphans over both live hosts; this host takes only its share.
  EXPECT_GT(claimed, 0);
  EXPECT_LT(claimed, 30);
  int mine = 0;
  for (const std::string& o : orphans) {
    std::string owner = Owner(o);
    EXPECT_TRUE(owner == self_ || owner == departed) << owner;
    mine += owner == self_;
  }
  EXPECT_EQ(mine, claimed);
  EXPECT_EQ(Owner(peers), peer) << "objects of live hosts stay where they are";
  EXPECT_EQ(Util::ClaimOrphanedObjects(), 0);

  // With the peer gone every orphan hashes to this host, unless it cannot serve.
  fake_->RemoveMember(peer);
  Util::EnterMaintenanceMode();
  EXPECT_EQ(Util::ClaimOrphanedObjects(), 0);
  Util::ExitMaintenanceMode();
  EXPECT_EQ(Util::ClaimOrphanedObjects(), 31 - claimed) << "the peer's object is orphaned now too";
}

// Published entries of this host by interface name -> (uuid text, v4 text, v6 text).
struct Published {
  std::string uuid, v4, v6;
};
std::map<std::string, Published> PublishedByName() {
  std::map<std::string, Published> out;
  for (const KelNetLodexEntry& e : Util::GetLodexEntriesForNukNics()) {
    char v4[16] = {0}, v6[INET6_ADDRSTRLEN] = {0};
    inet_ntop(AF_INET, &e.v4, v4, sizeof(v4));
    inet_ntop(AF_INET6, e.v6, v6, sizeof(v6));
    kel::platform::DirUuid u;
    memcpy(u.data(), e.uuid, 16);
    out[e.interfaceName] = {kel::platform::DirUuidToText(u), v4, v6};
  }
  return out;
}

class InterfacePublicationTest : public ::testing::Test {
 protected:
  void SetInterfaces(const std::map<std::string, kel::platform::HostConfig::Nic>& nics) {
    env_.config().interfaces = nics;
    env_.Apply();  // the directory stays open
  }
  kel::testing::DirTestEnv env_;
};

TEST_F(InterfacePublicationTest, EntriesKeepTheirUuidWhileTheirInterfaceExists) {
  LogCapture capture;
  SetInterfaces({{"nuk0", {"127.0.0.11", ""}}, {"nuk1", {"127.0.0.12", "fd00::12"}}});
  Util::PublishNukNicsToLodex();
  EXPECT_TRUE(capture.Contains("Util: Start to publish nuknics to lodex"));
  EXPECT_TRUE(
      capture.Contains("Util: Successfully updated LODEX interface entry for nuk nic nuk1"));
  auto first = PublishedByName();
  ASSERT_EQ(first.size(), 2u);
  EXPECT_EQ(first["nuk0"].v4, "127.0.0.11");
  EXPECT_EQ(first["nuk0"].v6, "::");
  EXPECT_EQ(first["nuk1"].v6, "fd00::12");
  EXPECT_NE(first["nuk0"].uuid, first["nuk1"].uuid);

  // Nothing changed: nothing is written.
  capture.Clear();
  Util::PublishNukNicsToLodex();
  EXPECT_FALSE(capture.Contains("Successfully updated")) << capture.Joined();

  // nuk1's IPv6 changes: same entry, new address. nuk0 goes away, nuk2 appears.
  SetInterfaces({{"nuk1", {"127.0.0.12", "fd00::99"}}, {"nuk2", {"", "fd00::2"}}});
  Util::PublishNukNicsToLodex();
  auto second = PublishedByName();
  ASSERT_EQ(second.size(), 2u);
  EXPECT_EQ(second["nuk1"].uuid, first["nuk1"].uuid);
  EXPECT_EQ(second["nuk1"].v6, "fd00::99");
  EXPECT_EQ(second.count("nuk0"), 0u);
  EXPECT_TRUE(capture.Contains("Util: Start to delete lodex entry for 'nuk0'"));
  EXPECT_NE(second["nuk2"].uuid, first["nuk0"].uuid);
  EXPECT_NE(second["nuk2"].uuid, first["nuk1"].uuid);
}

TEST_F(InterfacePublicationTest, LookupsReturnTheAddressesAnInterfaceHas) {
  SetInterfaces(
      {{"nuk0", {"127.0.0.11", ""}}, {"nuk1", {"", "fd00::12"}}, {"nuk3", {"not-an-address", ""}}});
  Util::PublishNukNicsToLodex();
  char v4[16], v6[INET6_ADDRSTRLEN];

  LogCapture capture;
  ASSERT_EQ(KeldLodexGetSelfInterfaceAddress("nuk0", v4, v6), NUK_OK);
  EXPECT_STREQ(v4, "127.0.0.11");
  EXPECT_STREQ(v6, "");
  EXPECT_TRUE(capture.Contains("KELD: Retrieved IPv4 address 127.0.0.11"));

  strcpy(v4, "stale");
  ASSERT_EQ(KeldLodexGetSelfInterfaceAddress("nuk1", v4, v6), NUK_OK);
  EXPECT_STREQ(v4, "") << "an interface with only IPv6 leaves the IPv4 text empty";
  EXPECT_STREQ(v6, "fd00::12");
  ASSERT_EQ(KeldLodexGetSelfInterfaceAddress("nuk1", nullptr, v6), NUK_OK);

  EXPECT_EQ(KeldLodexGetSelfInterfaceAddress("nuk3", v4, v6), NUK_FAILURE);
  EXPECT_TRUE(capture.Contains("KELD: Failed to fetch target interface nuk3 address for host " +
                               env_.config().hostUuid));
  // Asking only for the address the interface lacks fails the same way.
  EXPECT_EQ(KeldLodexGetSelfInterfaceAddress("nuk1", v4, nullptr), NUK_FAILURE);

  EXPECT_EQ(KeldLodexGetSelfInterfaceAddress("nuk9", v4, v6), NUK_NOT_FOUND);
  EXPECT_TRUE(capture.Contains("KELD: Unable to find LODEX entry for interface nuk9 for host " +
                               env_.config().hostUuid + " with error: Not found"));

  // Another host's interfaces: it published none.
  kel::platform::DirUuid other = kel::platform::RandomDirUuid();
  EXPECT_EQ(KeldLodexGetInterfaceAddress("nuk0", other.data(), v4, v6), NUK_FAILURE);
  EXPECT_TRUE(
      capture.Contains("KELD: Failed to get KEL nuk interface entry from LODEX with error:"));
}

// Entries match by name: two published entries of one name are each compared with the first wanted
// entry of that name, and no new entry is made for it.
TEST_F(InterfacePublicationTest, DuplicateNamesAreComparedWithTheFirstWantedEntry) {
  uint8_t v6a[16] = {0};
  SetInterfaces({{"nuk0", {"10.0.0.1", ""}}});
  uint32_t one, two;
  inet_pton(AF_INET, "10.0.0.1", &one);
  inet_pton(AF_INET, "10.0.0.2", &two);
  Util::PublishNewNetLodexEntry(KelNetLodexEntry("nuk0", two, v6a).GetLodexOrsaIscsiInterfaceMap());
  Util::PublishNewNetLodexEntry(KelNetLodexEntry("nuk0", one, v6a).GetLodexOrsaIscsiInterfaceMap());
  auto published = Util::GetLodexEntriesForNukNics();
  ASSERT_EQ(published.size(), 2u);
  std::vector<KelNetLodexEntry> wanted = {KelNetLodexEntry("nuk0", one, v6a),
                                          KelNetLodexEntry("nuk0", two, v6a)};
  Util::PublishDiffNetLodexEntries(published, wanted);
  auto after = Util::GetLodexEntriesForNukNics();
  ASSERT_EQ(after.size(), 2u) << "no new entry: the name was published already";
  for (const auto& e : after) EXPECT_EQ(e.v4, one);
}

TEST_F(InterfacePublicationTest, FailuresAreLoggedAndTheNextPassRetries) {
  auto fake = std::make_shared<kel::platform::FakeDirectory>(env_.config().hostUuid);
  kel::platform::SetDirectoryForTest(fake);
  SetInterfaces({{"nuk0", {"127.0.0.11", ""}}});
  LogCapture capture;
  fake->SetUpdateResult(NUK_DIRECTORY_NOT_RUNNING);
  EXPECT_NO_THROW(Util::PublishNukNicsToLodex());
  EXPECT_TRUE(capture.Contains(
      "Util: Failed to publish nuk nic info to LODEX Failed to update LODEX interface entry for "
      "nuk nic nuk0 with status Directory service is not running"));
  EXPECT_TRUE(Util::GetLodexEntriesForNukNics().empty());

  fake->SetFindResult(NUK_DIRECTORY_NOT_RUNNING);
  capture.Clear();
  Util::PublishNukNicsToLodex();
  EXPECT_TRUE(capture.Contains("Util: Failed to get KEL interface entry from LODEX with error"));
  EXPECT_EQ(fake->UpdateCount(), 1) << "no publishing without knowing what is published";

  fake->SetFindResult(NUK_OK);
  fake->SetUpdateResult(NUK_OK);
  Util::PublishNukNicsToLodex();
  EXPECT_EQ(Util::GetLodexEntriesForNukNics().size(), 1u);
}

}  // namespace
