#include "directory/host_queries.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <thread>

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

}  // namespace
