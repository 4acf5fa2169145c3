// Site affinity in a stretched cluster over an in-memory directory: the cluster's disk format
// version, fault domains and the preferred site, host selection inside a site, the periodic check
// of local pinned targets, and the site-aware claim of a dead host's targets.
#include "placement/affinity.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "directory/host_queries.h"
#include "placement/load_balancer.h"
#include "placement/orphan_claim.h"
#include "platform/log.h"
#include "tests/placement/placement_env.h"

namespace kel {
namespace testing {
namespace {

namespace Util = NukCtl::Orsa::IscsiTarget::Util;

class AffinityTest : public ::testing::Test {
 protected:
  void SetUp() override { env_.dir().SetMember(Member(env_.self(), "host-self", "Preferred")); }
  // A member publishing `version`.
  void SetVersion(const std::string& uuid, int version, const char* site = "Preferred") {
    platform::MemberRecord m = Member(uuid, uuid, site);
    m.diskFormatVersion = version;
    env_.dir().SetMember(m);
  }
  PlacementEnv env_;
};

TEST_F(AffinityTest, BalancingAndAffinityWaitForOneMemberAtTheDiskFormatVersion) {
  const std::string b = env_.AddHost("b"), c = env_.AddHost("c", "NonPreferred");
  env_.WriteTargets(std::vector<TargetDesc>(6, TargetDesc{env_.self()}));
  env_.host().SetOption("ORSA-iSCSI", "kelLoadBalanceMethod", 2);
  env_.host().SetOption("ORSA-iSCSI", "kelLoadBalancePeriod", 1);
  const char* kBalanceRefused =
      "Some hosts didn't finish Disk Format upgrade of Orsa 7.0u1, reject load balance until "
      "upgrade completed.";
  const char* kAffinityRefused =
      "Some hosts didn't finish disk format upgrade of Orsa 7.0u1, rejecting kel affinity check "
      "until upgrade is completed.";
  for (const std::string& host : {env_.self(), b}) SetVersion(host, 10);
  SetVersion(c, 10, "NonPreferred");

  log::LogCapture capture;
  Util::PerformTargetLoadBlance(4);
  EXPECT_TRUE(capture.Contains("Util: Retrieve current DiskVersinInCluster: 10, baseVersion: 11."));
  EXPECT_TRUE(capture.Contains(kBalanceRefused)) << capture.Joined();
  EXPECT_EQ(env_.Counts()[env_.self()], 6);
  EXPECT_EQ(ErrorOf([] { Util::ValidateSiteAffinity(); }), kAffinityRefused);

  // 12 is enough for balancing, not for affinity; the maximum over the members counts.
  SetVersion(b, 12);
  capture.Clear();
  Util::PerformTargetLoadBlance(8);
  EXPECT_FALSE(capture.Contains(kBalanceRefused));
  EXPECT_EQ(env_.Counts()[env_.self()], 2);
  EXPECT_EQ(ErrorOf([] { Util::ValidateSiteAffinity(); }), kAffinityRefused);
  SetVersion(c, platform::kDiskFormatVersion, "NonPreferred");
  EXPECT_TRUE(Util::ValidateSiteAffinity());
}

TEST_F(AffinityTest, FaultDomainsFollowThePreferredSiteSetting) {
  env_.dir().SetMember(Member(env_.self(), "host-self", "east"));
  const std::string west = env_.AddHost("w1", "west");
  platform::MemberRecord witness = Member("0c0c0c0c-0000-4000-8000-000000000001", "wit", "third");
  witness.witness = true;
  env_.dir().SetMember(witness);

  // Sites with other names than the roles have none until an operator says which is preferred.
  EXPECT_EQ(Util::GetAffinityFdUuid("Preferred"), "");
  EXPECT_EQ(Util::GetNodeSiteDomain(), "");
  EXPECT_EQ(ErrorOf([] { Util::SetPreferredSite("third"); }),
            "Site third is not the site of any cluster host (sites: east, west)");

  Util::SetPreferredSite("west");
  EXPECT_EQ(Util::GetAffinityFdUuid("Preferred"), Util::FaultDomainUuid("west"));
  EXPECT_EQ(Util::GetAffinityFdUuid("NonPreferred"), Util::FaultDomainUuid("east"));
  EXPECT_EQ(Util::GetNonPreferredFaultDomainId(Util::FaultDomainUuid("west")),
            Util::FaultDomainUuid("east"));
  EXPECT_EQ(Util::GetNodeSiteDomain(), "NonPreferred");
  EXPECT_EQ(Util::GetNodeSiteDomain(west), "Preferred");
  EXPECT_EQ(Util::GetAffinityFdUuid("west"), "");
  log::LogCapture capture;
  EXPECT_EQ(Util::GetAffinityFdUuid(""), "");
  EXPECT_TRUE(capture.Contains("Util: Get affinityFdUuid with empty Name"));

  // The preferred site keeps its role while its hosts are down: the roles never swap.
  env_.dir().RemoveMember(west);
  EXPECT_EQ(Util::GetNodeSiteDomain(), "NonPreferred");
  EXPECT_EQ(Util::GetAffinityFdUuid("Preferred"), Util::FaultDomainUuid("west"));
}

TEST_F(AffinityTest, SelectionPicksAtRandomAmongTheEligibleHostsOfTheSite) {
  const std::string p2 = env_.AddHost("p2", "Preferred");
  platform::MemberRecord maintenance = Member(env_.AddHost("p3"), "p3", "Preferred");
  maintenance.maintenance = true;
  env_.dir().SetMember(maintenance);
  const std::string n1 = env_.AddHost("n1", "NonPreferred");

  log::LogCapture capture;
  EXPECT_EQ(Util::SelectHostInFaultDomain(""), "");
  EXPECT_TRUE(capture.Contains("Util: Skip select as empty faultDomain Name"));
  std::vector<std::string> preferred = {env_.self(), p2};
  std::sort(preferred.begin(), preferred.end());
  std::set<std::string> picked;
  for (int i = 0; i < 40; ++i) {
    capture.Clear();
    const std::string host = Util::SelectHostInFaultDomain("Preferred");
    const size_t idx = std::find(preferred.begin(), preferred.end(), host) - preferred.begin();
    ASSERT_LT(idx, preferred.size()) << host;
    EXPECT_TRUE(
        capture.Contains("Util: Random Idx[" + std::to_string(idx) + "] select host: " + host));
    picked.insert(host);
  }
  EXPECT_EQ(picked.size(), 2u) << "both hosts of the site are picked in 40 draws";
  EXPECT_EQ(Util::SelectHostInFaultDomain("NonPreferred"), n1);

  maintenance.uuid = n1;  // the last host of the other site goes into maintenance
  maintenance.site = "NonPreferred";
  env_.dir().SetMember(maintenance);
  capture.Clear();
  EXPECT_EQ(Util::SelectHostInFaultDomain("NonPreferred"), "");
  EXPECT_TRUE(capture.Contains("Util: Empty hostList for FD: NonPreferred"));
}

TEST_F(AffinityTest, ThePeriodicCheckBringsLocalPinnedTargetsBackToTheirSite) {
  const std::string self = env_.self();
  const std::string p2 = env_.AddHost("p2", "Preferred");
  const std::string n1 = env_.AddHost("n1", "NonPreferred");
  const std::vector<std::string> t = env_.WriteTargets(
      {{self, "NonPreferred"}, {self, "Preferred"}, {self}, {p2, "NonPreferred"}});
  env_.host().SetOption("ORSA", "KelStretchedCluster", 0);
  log::LogCapture capture;
  Util::CheckLocalTargetAffinity();
  EXPECT_TRUE(capture.Contains(
      "Util: Skip local target affinity check: KEL support stretched cluster is disabled"));
  EXPECT_EQ(env_.OwnerOf(t[0]), self);

  env_.host().SetOption("ORSA", "KelStretchedCluster", 1);
  Util::CheckLocalTargetAffinity();
  EXPECT_EQ(env_.Counts(), (std::map<std::string, int>{{n1, 1}, {self, 2}, {p2, 1}}));
  EXPECT_EQ(env_.OwnerOf(t[3]), p2) << "another host's target is that host's business";
  EXPECT_EQ(Util::GetCachedLocalTargets(), (std::vector<std::string>{t[1], t[2]}));

  // A pass that failed half-way: the local list is read again from the directory.
  ASSERT_TRUE(Util::TransferObjectByUuid(t[2], p2));
  Util::ValidateLocalTargetsInfo();
  EXPECT_EQ(Util::GetCachedLocalTargets(), std::vector<std::string>{t[1]});
}

// Every live host runs the claim over the same directory state; each orphan is claimed once,
// and a pinned one by a host of its own site while that site has one.
TEST_F(AffinityTest, OrphansOfADeadHostAreClaimedOnceAndInTheirOwnSite) {
  const std::string dead = "0dead000-0000-4000-8000-000000000001";
  std::vector<platform::MemberRecord> members;
  for (const char* site : {"Preferred", "Preferred", "NonPreferred", "NonPreferred"}) {
    members.push_back(Member(env_.AddHost(site), site, site));
  }
  std::vector<TargetDesc> descs;
  for (const char* site : {"Preferred", "NonPreferred", ""}) {
    for (int i = 0; i < 5; ++i) descs.push_back({dead, site});
  }
  const std::vector<std::string> t = env_.WriteTargets(descs);

  auto claims = [&](const std::vector<platform::MemberRecord>& live) {
    std::map<std::string, std::string> claimedBy;  // target -> host
    for (const platform::MemberRecord& host : live) {
      auto view = std::make_shared<platform::FakeDirectory>(host.uuid);
      for (const platform::MemberRecord& m : live) view->SetMember(m);
      for (const std::string& object : t) view->CompareAndSwapObjectOwner(object, 0, dead);
      platform::SetDirectoryForTest(view);
      Util::ClaimOrphanedObjects();
      for (const std::string& object : t) {
        platform::ObjectOwner owner;
        view->GetObjectOwner(object, &owner);
        if (owner.hostUuid == host.uuid) {
          EXPECT_EQ(claimedBy.count(object), 0u) << object << " claimed twice";
          claimedBy[object] = host.uuid;
        }
      }
    }
    return claimedBy;
  };
  std::map<std::string, std::string> claimedBy = claims(members);
  ASSERT_EQ(claimedBy.size(), t.size());
  std::set<std::string> byUnpinned;
  for (size_t i = 0; i < t.size(); ++i) {
    const std::string& site = descs[i].site;
    const std::string& host = claimedBy[t[i]];
    if (site == "Preferred") EXPECT_TRUE(host == members[0].uuid || host == members[1].uuid);
    if (site == "NonPreferred") EXPECT_TRUE(host == members[2].uuid || host == members[3].uuid);
    if (site.empty()) byUnpinned.insert(host);
  }
  EXPECT_GT(byUnpinned.size(), 1u) << "unpinned orphans spread over the whole cluster";

  // With its site gone, a pinned orphan still finds a host rather than waiting for its site.
  members.resize(2);
  EXPECT_EQ(claims(members).size(), t.size());
}

}  // namespace
}  // namespace testing
}  // namespace kel
