#include "directory/extraction.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "conf/conf.h"
#include "platform/exception.h"
#include "platform/host_config.h"
#include "platform/status.h"
#include "tests/directory/extraction_testutil.h"

namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;
using HostCtl::Orsa::IscsiTarget::DefaultInfo;
using HostCtl::Orsa::IscsiTarget::InitiatorgroupInfo;
using HostCtl::Orsa::IscsiTarget::LunInfo;
using HostCtl::Orsa::IscsiTarget::TargetInfo;
using kel::testing::ParseConfText;
namespace Kel = NukCtl::Orsa::IscsiTarget;

const char kUuid1[] = "0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a";

// A file as the writer produces it, plus a few constructs only the grammar knows.
const char kConf[] = R"(generation 7
initiator-group grpA {
	 initiator iqn.1998-01.com.example:h1 
	 initiator iqn.1998-01.com.example:h2 
}
initiator-group grpB {
}
auth-group default {
	 chap "defuser" "RGVmc2VjcmV0MTIjeA==" 
}
auth-group 0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a {
	 chap-mutual "u1" "VGd0c2VjcmV0MTIjYQ==" "m1" "TXV0dWFsOXNlY3JldCQ="
	 initiator-group grpA
	 initiator-group grpB
	 initiator-name iqn.1998-01.com.example:solo
	 initiator-name eui.2020-01.com.example:e1
}
auth-group g-chap {
	 chap "u2" "QWJjZGVmZ2hpajEh" 
	 initiator-group grpA
}
portal-group default {
	 discovery-auth-group no-authentication
	 listen nuk0:3260
	 listen nuk2:3270
}
portal-group pg-nuk1-3261 {
	 discovery-auth-group no-authentication
	 listen nuk1:3261
}
portal-group pg-odd {
	 discovery-auth-group no-authentication
	 listen nuk1:3262
}
target iqn.2024-01.com.example:t1 {
	alias "Target One"
	portal-group pg-nuk1-3261
	auth-group 0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a
	option uuid 0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a
	option owner-id 11112222-3333-4444-5555-666677778888
	option fault-domain Preferred
	lun 7 {
		backend pemo
		path 0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a/aaaa0000-0000-0000-0000-000000000007.pemo
		size 2097151
		option lun-alias "disk seven"
		option naa "6000C29A1B2C3D4E5F60718293A4B5C6"
	}
	lun 2 {
		backend pemo
		path 0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a/bbbb0000-0000-0000-0000-000000000002.pemo
		size 2048
		option status "offline"
	}
}
target iqn.2024-01.com.example:t2 {
	alias "Target Two"
	portal-group pg-odd
	auth-group g-chap
	option uuid 22222222-3333-4444-5555-666677778888
}
target iqn.2024-01.com.example:t3 {
	alias "Target One"
	auth-group g-chap
	option uuid 33333333-3333-4444-5555-666677778888
}
target iqn.2024-01.com.example:t4 {
	alias "Locked"
	auth-group no-access
	option uuid 44444444-3333-4444-5555-666677778888
}
target iqn.2024-01.com.example:t5 {
	alias "Open"
	auth-group no-authentication
	option uuid 55555555-3333-4444-5555-666677778888
}
)";

class ExtractionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kel::platform::HostConfig config;
    config.datastorePath = "/vol/ds1";
    kel::platform::SetCurrentHostConfig(config);
  }
};

TEST_F(ExtractionTest, TargetsWithTheirLunsAuthAndPortals) {
  std::string log;
  auto conf = ParseConfText(kConf, &log);
  ASSERT_TRUE(conf) << log;
  // The grammar refuses a service name as port; a model may still hold one (a port that is not
  // a number reads as 0).
  struct portal* odd = TAILQ_FIRST(&portal_group_find(conf.get(), "pg-odd")->pg_portals);
  free(odd->p_port);
  odd->p_port = checked_strdup("iscsi");
  std::vector<TargetInfo> targets(3);  // earlier content is discarded
  Kel::_GetTargetInfos(conf.get(), targets);
  ASSERT_EQ(targets.size(), 5u);

  const TargetInfo& t1 = targets[0];
  EXPECT_EQ(t1.alias, "Target One");
  EXPECT_EQ(t1.iqn, "iqn.2024-01.com.example:t1");
  EXPECT_EQ(t1.uuid, kUuid1);
  EXPECT_EQ(t1.ownerId, "11112222-3333-4444-5555-666677778888");
  EXPECT_EQ(t1.affinitySite, "Preferred");
  EXPECT_EQ(t1.networkInterface, "nuk1");
  EXPECT_EQ(t1.port, 3261);
  EXPECT_EQ(t1.authType, "CHAP-Mutual");
  EXPECT_EQ(t1.chapName, "u1");
  EXPECT_EQ(t1.mutualChapName, "m1");
  EXPECT_EQ(t1.initiators, (std::vector<std::string>{"iqn.1998-01.com.example:solo",
                                                     "eui.2020-01.com.example:e1"}));
  EXPECT_EQ(t1.initiatorGroups, (std::vector<std::string>{"grpA", "grpB"}));
  EXPECT_FALSE(t1.policyCompliant);

  // Slot 2 before slot 7, whatever the file order.
  ASSERT_EQ(t1.luns.size(), 2u);
  const LunInfo& l2 = t1.luns[0];
  const LunInfo& l7 = t1.luns[1];
  EXPECT_EQ(l2.id, 2);
  EXPECT_EQ(l2.status, "offline");
  EXPECT_EQ(l2.alias, "");
  EXPECT_EQ(l2.sizeMiB, 1u);
  EXPECT_EQ(l7.id, 7);
  EXPECT_EQ(l7.path,
            std::string("/vol/ds1/") + kUuid1 + "/aaaa0000-0000-0000-0000-000000000007.pemo");
  EXPECT_EQ(l7.uuid, "aaaa0000-0000-0000-0000-000000000007");
  EXPECT_EQ(l7.sizeMiB, 1023u);  // one sector short of 1 GiB
  EXPECT_EQ(l7.alias, "disk seven");
  EXPECT_EQ(l7.status, "online");
  EXPECT_EQ(l7.naa, "6000C29A1B2C3D4E5F60718293A4B5C6");
  EXPECT_EQ(l7.targetAlias, "Target One");
  EXPECT_TRUE(l7.inConfig);
  EXPECT_FALSE(l7.policyCompliant);

  // CHAP reports only the first user.
  const TargetInfo& t2 = targets[1];
  EXPECT_EQ(t2.networkInterface, "nuk1");
  EXPECT_EQ(t2.port, 0);
  EXPECT_EQ(t2.authType, "CHAP");
  EXPECT_EQ(t2.chapName, "u2");
  EXPECT_EQ(t2.mutualChapName, "");

  // No portal-group line: verification links the target to "default", whose first portal counts.
  EXPECT_EQ(targets[2].networkInterface, "nuk0");
  EXPECT_EQ(targets[2].port, 3260);

  EXPECT_EQ(targets[3].authType, "None");  // deny
  EXPECT_EQ(targets[3].chapName, "");
  EXPECT_EQ(targets[4].authType, "No-Authentication");
  EXPECT_EQ(targets[4].chapName, "");

  // A chap-mutual credential in a group whose type reads as CHAP yields no mutual name; an
  // unknown type reads as "None" with no user.
  conf->conf_targets.tqh_first->t_auth_group->ag_type = AG_TYPE_CHAP;
  Kel::_GetTargetInfos(conf.get(), targets);
  EXPECT_EQ(targets[0].authType, "CHAP");
  EXPECT_EQ(targets[0].chapName, "u1");
  EXPECT_EQ(targets[0].mutualChapName, "");
  conf->conf_targets.tqh_first->t_auth_group->ag_type = AG_TYPE_UNKNOWN;
  Kel::_GetTargetInfos(conf.get(), targets);
  EXPECT_EQ(targets[0].authType, "None");
  EXPECT_EQ(targets[0].chapName, "");
}

TEST_F(ExtractionTest, InitiatorGroupsWithReferencingTargets) {
  std::string log;
  auto conf = ParseConfText(kConf, &log);
  ASSERT_TRUE(conf) << log;
  std::vector<InitiatorgroupInfo> groups(1);  // appended to, not emptied
  groups[0].name = "earlier";
  Kel::_GetInitiatorGroupInfos(conf.get(), groups);
  ASSERT_EQ(groups.size(), 3u);
  EXPECT_EQ(groups[0].name, "earlier");
  EXPECT_EQ(groups[1].name, "grpA");
  EXPECT_EQ(groups[1].initiators,
            (std::vector<std::string>{"iqn.1998-01.com.example:h1", "iqn.1998-01.com.example:h2"}));
  // t1 and t3 share the alias "Target One": the first target in file order wins.
  const std::map<std::string, std::string> a_targets = {
      {"Target One", "iqn.2024-01.com.example:t1"}, {"Target Two", "iqn.2024-01.com.example:t2"}};
  EXPECT_EQ(groups[1].targets, a_targets);
  EXPECT_EQ(groups[2].name, "grpB");
  EXPECT_TRUE(groups[2].initiators.empty());
  const std::map<std::string, std::string> b_targets = {
      {"Target One", "iqn.2024-01.com.example:t1"}};
  EXPECT_EQ(groups[2].targets, b_targets);
}

TEST_F(ExtractionTest, DefaultsAndInterfacesInUse) {
  std::string log;
  auto conf = ParseConfText(kConf, &log);
  ASSERT_TRUE(conf) << log;
  DefaultInfo d = Kel::GetConfigInfoFromConf(conf.get(), false);
  EXPECT_EQ(d.authType, "CHAP");
  EXPECT_EQ(d.chapName, "defuser");
  EXPECT_EQ(d.chapSecret, "");
  EXPECT_EQ(d.mutualChapName, "");
  // The last portal of the "default" group wins.
  EXPECT_EQ(d.networkInterface, "nuk2");
  EXPECT_EQ(d.port, 3270);
  d = Kel::GetConfigInfoFromConf(conf.get(), true);
  EXPECT_EQ(d.chapSecret, "Defsecret12#x");

  std::set<std::string> nics = {"stale"};
  Kel::GetIscsiNuknicsFromConf(conf.get(), nics);
  EXPECT_EQ(nics, (std::set<std::string>{"nuk0", "nuk1", "nuk2"}));

  // A chap-mutual default: both names; secrets only when asked for.
  auto mutual = ParseConfText(
      "auth-group default {\n chap-mutual \"du\" \"RGVmc2VjcmV0MTIjeA==\" \"dm\" "
      "\"TXV0dWFsOXNlY3JldCQ=\"\n}\nportal-group default {\n discovery-auth-group "
      "no-authentication\n}\n");
  ASSERT_TRUE(mutual);
  d = Kel::GetConfigInfoFromConf(mutual.get(), false);
  EXPECT_EQ(d.authType, "CHAP-Mutual");
  EXPECT_EQ(d.chapName, "du");
  EXPECT_EQ(d.mutualChapName, "dm");
  EXPECT_EQ(d.chapSecret, "");
  EXPECT_EQ(d.mutualChapSecret, "");
  // A declared "default" portal group without listen lines leaves the defaults.
  EXPECT_EQ(d.networkInterface, "");
  EXPECT_EQ(d.port, 3260);
  d = Kel::GetConfigInfoFromConf(mutual.get(), true);
  EXPECT_EQ(d.chapSecret, "Defsecret12#x");
  EXPECT_EQ(d.mutualChapSecret, "Mutual9secret$");
  Kel::GetIscsiNuknicsFromConf(mutual.get(), nics);
  EXPECT_TRUE(nics.empty());
}

TEST_F(ExtractionTest, EmptyFileAndMissingDefaults) {
  // An empty file: only the built-in groups; the default auth group is deny, the default portal
  // group listens on the first host interface.
  auto conf = ParseConfText("");
  ASSERT_TRUE(conf);
  std::vector<TargetInfo> targets(2);
  Kel::_GetTargetInfos(conf.get(), targets);
  EXPECT_TRUE(targets.empty());
  std::vector<InitiatorgroupInfo> groups;
  Kel::_GetInitiatorGroupInfos(conf.get(), groups);
  EXPECT_TRUE(groups.empty());
  const DefaultInfo d = Kel::GetConfigInfoFromConf(conf.get(), true);
  EXPECT_EQ(d.authType, "None");
  EXPECT_EQ(d.chapName, "");
  EXPECT_EQ(d.networkInterface, "nuk0");
  EXPECT_EQ(d.port, 3260);

  // Without a "default" auth group at all, the defaults read as No-Authentication.
  struct auth_group* ag = auth_group_find(conf.get(), "default");
  ASSERT_NE(ag, nullptr);
  auth_group_delete(ag);
  EXPECT_EQ(Kel::GetConfigInfoFromConf(conf.get(), false).authType, "No-Authentication");
  // And without a "default" portal group: empty interface, port 3260.
  portal_group_delete(portal_group_find(conf.get(), "default"));
  const DefaultInfo bare = Kel::GetConfigInfoFromConf(conf.get(), false);
  EXPECT_EQ(bare.networkInterface, "");
  EXPECT_EQ(bare.port, 3260);
}

TEST_F(ExtractionTest, FailuresNameTheProblem) {
  std::vector<TargetInfo> targets;
  std::vector<InitiatorgroupInfo> groups;
  std::set<std::string> nics;
  const std::string missing = "Cannot find Orsa iSCSI configuration!";
  auto message = [](const std::function<void()>& fn) {
    try {
      fn();
    } catch (const OrsaCtlException& e) {
      return e.GetMessage();
    }
    return std::string("<no exception>");
  };
  EXPECT_EQ(message([&] { Kel::_GetTargetInfos(nullptr, targets); }), missing);
  EXPECT_EQ(message([&] { Kel::_GetInitiatorGroupInfos(nullptr, groups); }), missing);
  EXPECT_EQ(message([&] { Kel::GetConfigInfoFromConf(nullptr, false); }), missing);
  EXPECT_EQ(message([&] { Kel::GetIscsiNuknicsFromConf(nullptr, nics); }), missing);

  // A LUN whose absolute path does not fit the 256-byte buffer fails the extraction; the
  // targets before it are kept.
  std::string log;
  auto conf = ParseConfText(kConf, &log);
  ASSERT_TRUE(conf) << log;
  kel::platform::HostConfig config;
  config.datastorePath = "/" + std::string(200, 'd');
  kel::platform::SetCurrentHostConfig(config);
  targets.clear();
  EXPECT_EQ(
      message([&] { Kel::_GetTargetInfos(conf.get(), targets); }),
      std::string("Failed to get lun absolute path: ") + NUK_ReturnStatusToString(NUK_BAD_PARAM));
  EXPECT_TRUE(targets.empty());

  // A default portal without a host part; the interface scan simply skips it.
  struct portal_group* pg = portal_group_find(conf.get(), "default");
  ASSERT_NE(pg, nullptr);
  struct portal* first = TAILQ_FIRST(&pg->pg_portals);
  ASSERT_NE(first, nullptr);
  free(first->p_host);
  first->p_host = nullptr;
  EXPECT_EQ(message([&] { Kel::GetConfigInfoFromConf(conf.get(), false); }),
            "Default network interface not found.");
  Kel::GetIscsiNuknicsFromConf(conf.get(), nics);
  EXPECT_EQ(nics, (std::set<std::string>{"nuk1", "nuk2"}));
}

TEST(AuthText, TypesAndFirstCredential) {
  EXPECT_EQ(Kel::AuthTypeToStr(2), "No-Authentication");
  EXPECT_EQ(Kel::AuthTypeToStr(5), "None");
  std::string type = "x";
  EXPECT_EQ(Kel::Parser::GetAuthInfo(nullptr, type), nullptr);
  EXPECT_EQ(type, "No-Authentication");
  std::string log;
  auto conf = ParseConfText(
      "auth-group a {\n chap \"first\" \"QWJjZGVmZ2hpajEh\"\n chap \"second\" "
      "\"QWJjZGVmZ2hpajEh\"\n}\nauth-group empty {\n auth-type none\n}\n",
      &log);
  ASSERT_TRUE(conf) << log;
  const struct auth* cred = Kel::Parser::GetAuthInfo(auth_group_find(conf.get(), "a"), type);
  ASSERT_NE(cred, nullptr);
  EXPECT_EQ(type, "CHAP");
  EXPECT_STREQ(cred->a_user, "first");
  // A chap group without credentials yields none ("chap" is a keyword, so the grammar cannot
  // spell "auth-type chap"; the type is set here).
  auth_group_find(conf.get(), "empty")->ag_type = AG_TYPE_CHAP;
  EXPECT_EQ(Kel::Parser::GetAuthInfo(auth_group_find(conf.get(), "empty"), type), nullptr);
  EXPECT_EQ(type, "CHAP");
}

}  // namespace
