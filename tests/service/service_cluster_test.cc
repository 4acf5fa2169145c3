// The service in a cluster of more than one host (an in-memory directory with several members):
// site affinity rules and target ownership moves.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "directory/host_queries.h"
#include "placement/affinity.h"
#include "platform/clock.h"
#include "platform/log.h"
#include "platform/testing/fake_directory.h"
#include "service/service_internal.h"
#include "tests/service/service_env.h"

namespace kel {
namespace testing {
namespace {

constexpr const char* kOtherHost = "0a0b0c0d-0e0f-4a1b-8c2d-3e4f5a6b7c8d";
constexpr const char* kNonPreferredPolicy = "((\"locality\" \"NonPreferred\"))";
constexpr const char* kPreferredPolicy = "((\"locality\" \"Preferred\"))";

class ServiceCluster : public ::testing::Test {
 protected:
  void SetUp() override {
    directory_ = std::make_shared<platform::FakeDirectory>(kHostUuid);
    directory_->SetMember(Member(kHostUuid, "host-a", "Preferred"));
    platform::SetDirectoryForTest(directory_);
  }

  TestHost host_;
  std::shared_ptr<platform::FakeDirectory> directory_;
};

TEST_F(ServiceCluster, WhetherAffinityMayBeUsed) {
  log::LogCapture capture;
  EXPECT_TRUE(Kel::Util::KelCheckDiskFormatVersion(13));
  EXPECT_FALSE(Kel::Util::KelCheckDiskFormatVersion(14));
  EXPECT_TRUE(capture.Contains("Util: Retrieve current DiskVersinInCluster: 13, baseVersion: 14."));

  // One site only.
  EXPECT_EQ(ErrorOf([] { Kel::Util::ValidateSiteAffinity(); }),
            "This host is not in stretched cluster");
  // Two sites, though a witness in a third one does not make a site of its own.
  platform::MemberRecord witness = Member("77777777-0000-4000-8000-000000000001", "w", "Third");
  witness.witness = true;
  directory_->SetMember(witness);
  EXPECT_FALSE(Kel::Util::IsInStretchedCluster());
  directory_->SetMember(Member(kOtherHost, "host-b", "NonPreferred"));
  EXPECT_TRUE(Kel::Util::IsInStretchedCluster());
  EXPECT_TRUE(Kel::Util::ValidateSiteAffinity());

  // The switch is looked at first, whatever the cluster looks like.
  host_.SetOption("ORSA", "KelStretchedCluster", 0);
  directory_->SetMembersResult(NUK_DIRECTORY_NOT_RUNNING);
  EXPECT_EQ(ErrorOf([] { Kel::Util::ValidateSiteAffinity(); }),
            "KEL support stretched cluster is disabled");
}

TEST_F(ServiceCluster, SiteAndPolicyLocalityMustAgree) {
  const std::string kIncompatible = "Incompatible between Target location and policy locality";
  TargetCreateParam p = NewTarget("t");
  p.affinitySite = "Preferred";
  EXPECT_NO_THROW(Kel::Util::VerifyNewTargetAffinity(p));  // a site without a policy
  p.storagePolicy = kPreferredPolicy;
  EXPECT_NO_THROW(Kel::Util::VerifyNewTargetAffinity(p));
  p.storagePolicy = kNonPreferredPolicy;
  EXPECT_EQ(ErrorOf([&] { Kel::Util::VerifyNewTargetAffinity(p); }), kIncompatible);
  p.affinitySite = "None";
  EXPECT_NO_THROW(Kel::Util::VerifyNewTargetAffinity(p));

  // Updates: the resulting site against the resulting policy.
  TargetInfo pinned;
  pinned.alias = "t";
  pinned.affinitySite = "Preferred";
  TargetCreateParam policyOnly = NewTarget("t");
  policyOnly.storagePolicy = kNonPreferredPolicy;
  EXPECT_EQ(ErrorOf([&] { Kel::Util::VerifyUpdateTargetAffinity(nullptr, policyOnly, pinned); }),
            kIncompatible);
  TargetCreateParam clear = policyOnly;
  clear.affinitySite = "None";
  EXPECT_NO_THROW(Kel::Util::VerifyUpdateTargetAffinity(nullptr, clear, pinned));
  // Pinning anew needs a stretched cluster, which this one (one site) is not.
  TargetInfo unpinned;
  unpinned.alias = "t";
  TargetCreateParam pin = NewTarget("t");
  pin.affinitySite = "NonPreferred";
  EXPECT_EQ(ErrorOf([&] { Kel::Util::VerifyUpdateTargetAffinity(nullptr, pin, unpinned); }),
            "This host is not in stretched cluster");
  directory_->SetMember(Member(kOtherHost, "host-b", "NonPreferred"));
  EXPECT_NO_THROW(Kel::Util::VerifyUpdateTargetAffinity(nullptr, pin, unpinned));
}

TEST_F(ServiceCluster, TargetsMoveToAnotherHostAndLeaveTheLocalList) {
  directory_->SetMember(Member(kOtherHost, "host-b", "Preferred"));
  auto svc = NewService();
  Ready(*svc);
  const TargetCreateParam a = AddTarget(*svc, "a");
  AddTarget(*svc, "b");
  ASSERT_EQ(svc->GetTargets(true, true).size(), 2u);

  platform::ScopedFakeClock clock;
  log::LogCapture capture;
  std::vector<TargetInfo> targets = {svc->GetTargetInfo("a")};
  EXPECT_EQ(targets.front().ownerHostName, "host-a");
  svc->TransferTargetsOwner(targets, 2);
  EXPECT_TRUE(targets.empty());
  EXPECT_EQ(clock.clock().Sleeps().size(), 1u);  // done after the first pass
  EXPECT_TRUE(capture.Contains("Succeed transfering all targets"));
  EXPECT_EQ(Kel::Util::GetTargetOwnerHostUuid(a.uuid), kOtherHost);
  EXPECT_EQ(svc->GetTargetInfo("a").ownerHostName, "host-b");

  const std::vector<TargetInfo> local = svc->GetTargets(true, true);
  ASSERT_EQ(local.size(), 1u);
  EXPECT_EQ(local.front().alias, "b");

  // Maintenance of a two-node cluster moves the rest.
  uint32_t nodes = 2;
  Kel::TransferAllLocalTargets(&nodes, svc.get());
  EXPECT_TRUE(svc->GetTargets(true, true).empty());
  EXPECT_EQ(svc->GetTargets(true, false).size(), 2u);
}

TEST_F(ServiceCluster, PinningATargetToTheOtherSiteMovesItThereOnceWritten) {
  directory_->SetMember(Member(kOtherHost, "host-b", "NonPreferred"));
  auto svc = NewService();
  Ready(*svc);
  const TargetCreateParam a = AddTarget(*svc, "a");

  // A refused update moves nothing.
  TargetCreateParam refused = NewTarget("a");
  refused.affinitySite = "NonPreferred";
  refused.storagePolicy = kPreferredPolicy;
  EXPECT_EQ(ErrorOf([&] { svc->UpdateTargetConfig(refused); }),
            "Incompatible between Target location and policy locality");
  EXPECT_EQ(Kel::Util::GetTargetOwnerHostUuid(a.uuid), kHostUuid);

  TargetCreateParam pin = NewTarget("a");
  pin.affinitySite = "NonPreferred";
  svc->UpdateTargetConfig(pin);
  EXPECT_EQ(svc->GetTargetInfo("a").affinitySite, "NonPreferred");
  EXPECT_EQ(Kel::Util::GetTargetOwnerHostUuid(a.uuid), kOtherHost);
  pin.affinitySite = "Preferred";
  svc->UpdateTargetConfig(pin);
  EXPECT_EQ(Kel::Util::GetTargetOwnerHostUuid(a.uuid), kHostUuid);
  pin.affinitySite = "None";
  Kel::Util::TransferObjectByUuid(a.uuid, kOtherHost);
  svc->UpdateTargetConfig(pin);
  EXPECT_EQ(Kel::Util::GetTargetOwnerHostUuid(a.uuid), kOtherHost) << "unpinned: no site to keep";
}

}  // namespace
}  // namespace testing
}  // namespace kel
