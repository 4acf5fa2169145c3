#include "directory/extraction.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "conf/conf.h"
#include "directory/lun_paths.h"
#include "platform/clog.h"
#include "platform/exception.h"
#include "platform/host_config.h"
#include "platform/log.h"
#include "platform/status.h"
#include "tests/support/test_host.h"

namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;
using HostCtl::Orsa::IscsiTarget::DefaultInfo;
using HostCtl::Orsa::IscsiTarget::InitiatorgroupInfo;
using HostCtl::Orsa::IscsiTarget::LunInfo;
using HostCtl::Orsa::IscsiTarget::TargetInfo;
using kel::testing::ErrorOf;
using kel::testing::HasFields;
using kel::testing::LoadConfText;
namespace Kel = NukCtl::Orsa::IscsiTarget;

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
  auto conf = LoadConfText(kConf);
  ASSERT_TRUE(conf);
  // The grammar refuses a service name as port; a model may still hold one (a port that is not
  // a number reads as 0).
  struct portal* odd = TAILQ_FIRST(&portal_group_find(conf.get(), "pg-odd")->pg_portals);
  free(odd->p_port);
  odd->p_port = checked_strdup("iscsi");
  std::vector<TargetInfo> targets(3);  // earlier content is discarded
  Kel::_GetTargetInfos(conf.get(), targets);
  ASSERT_EQ(targets.size(), 5u);

  const TargetInfo& t1 = targets[0];
  EXPECT_TRUE(HasFields(t1, R"({"alias": "Target One", "iqn": "iqn.2024-01.com.example:t1",
      "uuid": "0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a",
      "ownerId": "11112222-3333-4444-5555-666677778888", "affinitySite": "Preferred",
      "networkInterface": "nuk1", "port": 3261, "authType": "CHAP-Mutual", "chapName": "u1",
      "mutualChapName": "m1", "policyCompliant": false,
      "initiators": ["iqn.1998-01.com.example:solo", "eui.2020-01.com.example:e1"],
      "initiatorGroups": ["grpA", "grpB"]})"));
  // Slot 2 before slot 7, whatever the file order; 2097151 sectors are one short of 1 GiB.
  ASSERT_EQ(t1.luns.size(), 2u);
  EXPECT_TRUE(HasFields(t1.luns[0], R"({"id": 2, "status": "offline", "alias": "",
      "sizeMiB": 1})"));
  EXPECT_TRUE(HasFields(t1.luns[1], R"({"id": 7, "uuid": "aaaa0000-0000-0000-0000-000000000007",
      "path": "/vol/ds1/0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a/aaaa0000-0000-0000-0000-000000000007.pemo",
      "sizeMiB": 1023, "alias": "disk seven", "status": "online", "targetAlias": "Target One",
      "naa": "6000C29A1B2C3D4E5F60718293A4B5C6", "inConfig": true, "policyCompliant": false})"));
  // CHAP reports only the first user.
  EXPECT_TRUE(HasFields(targets[1], R"({"networkInterface": "nuk1", "port": 0,
      "authType": "CHAP", "chapName": "u2", "mutualChapName": ""})"));
  // No portal-group line: verification links the target to "default", whose first portal counts.
  EXPECT_TRUE(HasFields(targets[2], R"({"networkInterface": "nuk0", "port": 3260})"));
  EXPECT_TRUE(HasFields(targets[3], R"({"authType": "None", "chapName": ""})"));  // deny
  EXPECT_TRUE(HasFields(targets[4], R"({"authType": "No-Authentication", "chapName": ""})"));

  // A chap-mutual credential in a group whose type reads as CHAP yields no mutual name; an
  // unknown type reads as "None" with no user.
  conf->conf_targets.tqh_first->t_auth_group->ag_type = AG_TYPE_CHAP;
  Kel::_GetTargetInfos(conf.get(), targets);
  EXPECT_TRUE(HasFields(targets[0], R"({"authType": "CHAP", "chapName": "u1",
      "mutualChapName": ""})"));
  conf->conf_targets.tqh_first->t_auth_group->ag_type = AG_TYPE_UNKNOWN;
  Kel::_GetTargetInfos(conf.get(), targets);
  EXPECT_TRUE(HasFields(targets[0], R"({"authType": "None", "chapName": ""})"));
}

TEST_F(ExtractionTest, InitiatorGroupsWithReferencingTargets) {
  auto conf = LoadConfText(kConf);
  ASSERT_TRUE(conf);
  std::vector<InitiatorgroupInfo> groups(1);  // appended to, not emptied
  groups[0].name = "earlier";
  Kel::_GetInitiatorGroupInfos(conf.get(), groups);
  // t1 and t3 share the alias "Target One": the first target in file order wins.
  EXPECT_EQ(nlohmann::json(groups), nlohmann::json::parse(R"([
      {"name": "earlier", "initiators": [], "targets": {}},
      {"name": "grpA", "initiators": ["iqn.1998-01.com.example:h1", "iqn.1998-01.com.example:h2"],
       "targets": {"Target One": "iqn.2024-01.com.example:t1",
                   "Target Two": "iqn.2024-01.com.example:t2"}},
      {"name": "grpB", "initiators": [],
       "targets": {"Target One": "iqn.2024-01.com.example:t1"}}])"));
}

TEST_F(ExtractionTest, DefaultsAndInterfacesInUse) {
  auto conf = LoadConfText(kConf);
  ASSERT_TRUE(conf);
  // The last portal of the "default" group wins; secrets only when asked for.
  EXPECT_TRUE(HasFields(Kel::GetConfigInfoFromConf(conf.get(), false),
                        R"({"authType": "CHAP", "chapName": "defuser", "chapSecret": "",
                            "mutualChapName": "", "networkInterface": "nuk2", "port": 3270})"));
  EXPECT_EQ(Kel::GetConfigInfoFromConf(conf.get(), true).chapSecret, "Defsecret12#x");

  std::set<std::string> nics = {"stale"};
  Kel::GetIscsiNuknicsFromConf(conf.get(), nics);
  EXPECT_EQ(nics, (std::set<std::string>{"nuk0", "nuk1", "nuk2"}));

  // A chap-mutual default: both names. A declared "default" portal group without listen lines
  // leaves the interface empty and the port at 3260.
  auto mutual = LoadConfText(
      "auth-group default {\n chap-mutual \"du\" \"RGVmc2VjcmV0MTIjeA==\" \"dm\" "
      "\"TXV0dWFsOXNlY3JldCQ=\"\n}\nportal-group default {\n discovery-auth-group "
      "no-authentication\n}\n");
  ASSERT_TRUE(mutual);
  EXPECT_TRUE(HasFields(Kel::GetConfigInfoFromConf(mutual.get(), false),
                        R"({"authType": "CHAP-Mutual", "chapName": "du", "mutualChapName": "dm",
                            "chapSecret": "", "mutualChapSecret": "", "networkInterface": "",
                            "port": 3260})"));
  EXPECT_TRUE(
      HasFields(Kel::GetConfigInfoFromConf(mutual.get(), true),
                R"({"chapSecret": "Defsecret12#x", "mutualChapSecret": "Mutual9secret$"})"));
  Kel::GetIscsiNuknicsFromConf(mutual.get(), nics);
  EXPECT_TRUE(nics.empty());
}

TEST_F(ExtractionTest, EmptyFileAndMissingDefaults) {
  // An empty file: only the built-in groups; the default auth group is deny, the default portal
  // group listens on the first host interface.
  auto conf = LoadConfText("");
  ASSERT_TRUE(conf);
  std::vector<TargetInfo> targets(2);
  Kel::_GetTargetInfos(conf.get(), targets);
  EXPECT_TRUE(targets.empty());
  std::vector<InitiatorgroupInfo> groups;
  Kel::_GetInitiatorGroupInfos(conf.get(), groups);
  EXPECT_TRUE(groups.empty());
  EXPECT_TRUE(HasFields(Kel::GetConfigInfoFromConf(conf.get(), true),
                        R"({"authType": "None", "chapName": "", "networkInterface": "nuk0",
                            "port": 3260})"));

  // Without a "default" auth group at all, the defaults read as No-Authentication.
  struct auth_group* ag = auth_group_find(conf.get(), "default");
  ASSERT_NE(ag, nullptr);
  auth_group_delete(ag);
  EXPECT_EQ(Kel::GetConfigInfoFromConf(conf.get(), false).authType, "No-Authentication");
  // And without a "default" portal group: empty interface, port 3260.
  portal_group_delete(portal_group_find(conf.get(), "default"));
  EXPECT_TRUE(HasFields(Kel::GetConfigInfoFromConf(conf.get(), false),
                        R"({"networkInterface": "", "port": 3260})"));
}

TEST_F(ExtractionTest, FailuresNameTheProblem) {
  std::vector<TargetInfo> targets;
  std::vector<InitiatorgroupInfo> groups;
  std::set<std::string> nics;
  const std::string missing = "Cannot find Orsa iSCSI configuration!";
  EXPECT_EQ(ErrorOf([&] { Kel::_GetTargetInfos(nullptr, targets); }), missing);
  EXPECT_EQ(ErrorOf([&] { Kel::_GetInitiatorGroupInfos(nullptr, groups); }), missing);
  EXPECT_EQ(ErrorOf([&] { Kel::GetConfigInfoFromConf(nullptr, false); }), missing);
  EXPECT_EQ(ErrorOf([&] { Kel::GetIscsiNuknicsFromConf(nullptr, nics); }), missing);

  // A LUN whose absolute path does not fit the 256-byte buffer fails the extraction; the
  // targets before it are kept.
  auto conf = LoadConfText(kConf);
  ASSERT_TRUE(conf);
  kel::platform::HostConfig config;
  config.datastorePath = "/" + std::string(200, 'd');
  kel::platform::SetCurrentHostConfig(config);
  targets.clear();
  EXPECT_EQ(
      ErrorOf([&] { Kel::_GetTargetInfos(conf.get(), targets); }),
      std::string("Failed to get lun absolute path: ") + NUK_ReturnStatusToString(NUK_BAD_PARAM));
  EXPECT_TRUE(targets.empty());

  // A default portal without a host part; the interface scan simply skips it.
  struct portal_group* pg = portal_group_find(conf.get(), "default");
  ASSERT_NE(pg, nullptr);
  struct portal* first = TAILQ_FIRST(&pg->pg_portals);
  ASSERT_NE(first, nullptr);
  free(first->p_host);
  first->p_host = nullptr;
  EXPECT_EQ(ErrorOf([&] { Kel::GetConfigInfoFromConf(conf.get(), false); }),
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
  auto conf = LoadConfText(
      "auth-group a {\n chap \"first\" \"QWJjZGVmZ2hpajEh\"\n chap \"second\" "
      "\"QWJjZGVmZ2hpajEh\"\n}\nauth-group empty {\n auth-type none\n}\n");
  ASSERT_TRUE(conf);
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

// The absolute and sibling paths of a LUN disk: whatever does not fit its buffer is refused, never
// cut short.
namespace {

namespace Util = NukCtl::Orsa::IscsiTarget::Util;

void UseDatastore(const std::string& path) {
  kel::platform::HostConfig config;
  config.datastorePath = path;
  kel::platform::SetCurrentHostConfig(config);
}

TEST(LunPaths, AbsoluteAndSiblingPathsFitExactlyOrAreRefused) {
  UseDatastore("/vol/ds1");
  struct lun l;
  std::memset(&l, 0, sizeof(l));
  char rel[] = "0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a/11112222-3333-4444-5555-666677778888.pemo";
  l.l_path = rel;
  const std::string expected = std::string("/vol/ds1/") + rel;
  char out[300];
  std::memset(out, 'Z', sizeof(out));
  ASSERT_EQ(GetLunAbsPath(&l, static_cast<int>(expected.size() + 1), out), NUK_OK);
  EXPECT_EQ(std::string(out), expected);
  EXPECT_EQ(Util::GetLunUuid(out), "11112222-3333-4444-5555-666677778888");
  std::memset(out, 'Z', sizeof(out));
  EXPECT_EQ(GetLunAbsPath(&l, static_cast<int>(expected.size()), out), NUK_BAD_PARAM);
  EXPECT_EQ(out[0], 'Z');
  l.l_path = nullptr;
  EXPECT_EQ(GetLunAbsPath(&l, sizeof(out), out), NUK_BAD_PARAM);

  // A datastore path that does not fit is reported and returned.
  UseDatastore("/" + std::string(300, 'd'));
  l.l_path = rel;
  kel::log::LogCapture capture;
  log_init(4);
  EXPECT_EQ(GetLunAbsPath(&l, sizeof(out), out), NUK_BAD_PARAM);
  EXPECT_EQ(out[0], 'Z');
  EXPECT_TRUE(capture.Contains(std::string("KELD: Failed to get orsa datastore Path: ") +
                               NUK_ReturnStatusToString(NUK_BAD_PARAM)))
      << capture.Joined();

  // Sibling files follow their own rules.
  ASSERT_EQ(GetLunPRFilePath("/a/b/c.pemo", sizeof(out), out), NUK_OK);
  EXPECT_STREQ(out, "/a/b/.c.pemo.pr");
  ASSERT_EQ(GetPemoLockFilePath("/a/b/c.pemo", sizeof(out), out), NUK_OK);
  EXPECT_STREQ(out, "/a/b/.c.lck");
  // The lock rule cuts the file's own extension only, not a dot of the directory.
  EXPECT_EQ(Util::GetPemoLockFilePath("/a/b.d/c.x.pemo"), "/a/b.d/.c.x.lck");
  EXPECT_EQ(Util::GetPemoLockFilePath("/a/b.d/c"), "/a/b.d/.c.lck");
  EXPECT_EQ(Util::GetLunUuid("/x.pemo/abc.PEMO"), "abc.PEMO");
  EXPECT_EQ(Util::GetLunUuid("/x/"), "");

  // No directory, too long, or not fitting the output: refused, never truncated.
  EXPECT_EQ(GetLunPRFilePath("c.pemo", sizeof(out), out), NUK_BAD_PARAM);
  EXPECT_THROW(Util::GetPemoLockFilePath("c.pemo"), HostCtl::Lib::Orsa::OrsaCtlException);
  const std::string longest = "/" + std::string(249, 'p') + ".pemo";  // 255 bytes
  EXPECT_EQ(Util::GetLunPRFilePath(longest), "/." + std::string(249, 'p') + ".pemo.pr");
  EXPECT_EQ(GetLunPRFilePath(("/" + longest).c_str(), sizeof(out), out), NUK_BAD_PARAM);
  char small[12];
  std::memset(small, 'Z', sizeof(small));
  EXPECT_EQ(GetLunPRFilePath("/a/b/c.pemo", sizeof(small), small), NUK_BAD_PARAM);
  EXPECT_EQ(small[0], 'Z');
  ASSERT_EQ(GetPemoLockFilePath("/a/b/c.pemo", sizeof(small), small), NUK_OK);  // 11 + NUL
  EXPECT_STREQ(small, "/a/b/.c.lck");
}

}  // namespace
