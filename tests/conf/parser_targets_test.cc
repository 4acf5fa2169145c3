#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "conf/conf.h"
#include "conf/conf_handle.h"
#include "conf/parser_edit.h"
#include "platform/log.h"
#include "tests/conf/parser_testutil.h"

namespace {

using HostCtl::Orsa::IscsiTarget::DefaultInfo;
using HostCtl::Orsa::IscsiTarget::TargetCreateParam;
using kel::log::LogCapture;
using kel::testing::AddModelTarget;
using kel::testing::AuthGroupOf;
using kel::testing::ErrorOf;
using kel::testing::ModelTarget;
using kel::testing::ParserEnv;
using kel::testing::PortalGroupOf;
using kel::testing::TargetOpt;
using kel::testing::TargetParam;
using kel::testing::TestUuid;
namespace IT = NukCtl::Orsa::IscsiTarget;
namespace Parser = NukCtl::Orsa::IscsiTarget::Parser;

std::vector<std::string> Names(const struct auth_group* ag) {
  std::vector<std::string> out;
  const struct auth_name* an;
  TAILQ_FOREACH(an, &ag->ag_names, an_next) out.push_back(an->an_initiator);
  return out;
}

std::vector<std::string> GroupRefs(const struct auth_group* ag) {
  std::vector<std::string> out;
  const struct auth_group_igroup_ref* ref;
  TAILQ_FOREACH(ref, &ag->ag_igroup_refs, ref_next) out.push_back(ref->ref_igroup->ig_name);
  return out;
}

void Update(const TargetCreateParam& param) {
  IT::ConfHandle handle(IT::ConfHandle::kExclusive);
  Parser::UpdateTargetConf(param, handle);
  handle.WriteConfFile();
}

TEST(ParserTargets, PlainTargetSharesTheDefaultsAndEveryWriteIsPublishedAndReloaded) {
  ParserEnv env;
  const uint64_t before = env.Generation();
  TargetCreateParam p = TargetParam(1);
  p.affinitySite = "None";
  bool changed = false;
  Parser::AddNewTargetToConfFile(p, changed);
  EXPECT_TRUE(changed);

  auto c = env.Read();
  EXPECT_EQ(c->conf_generation, before + 1);
  EXPECT_EQ(env.Published(), before + 1);
  EXPECT_EQ(env.Reloads(), 1);
  struct target* t = ModelTarget(c.get(), "t1");
  ASSERT_NE(t, nullptr);
  EXPECT_STREQ(t->t_name, kel::testing::TestIqn(1).c_str());
  EXPECT_EQ(TargetOpt(t, "uuid"), TestUuid(1));
  EXPECT_EQ(TargetOpt(t, "owner-id"), TestUuid(1));
  EXPECT_EQ(TargetOpt(t, "fault-domain"), "<none>");
  EXPECT_EQ(TargetOpt(t, "status"), "<none>");
  EXPECT_EQ(PortalGroupOf(t), "default");
  EXPECT_EQ(AuthGroupOf(t), "default");
  EXPECT_EQ(auth_group_find(c.get(), TestUuid(1).c_str()), nullptr);

  // A second target: one more generation, one more reload.
  TargetCreateParam q = TargetParam(2);
  q.status = "offline";
  q.affinitySite = "NonPreferred";
  Parser::AddNewTargetToConfFile(q, changed);
  c = env.Read();
  EXPECT_EQ(c->conf_generation, before + 2);
  EXPECT_EQ(env.Published(), before + 2);
  EXPECT_EQ(env.Reloads(), 2);
  t = ModelTarget(c.get(), "t2");
  EXPECT_EQ(TargetOpt(t, "status"), "offline");
  EXPECT_EQ(TargetOpt(t, "fault-domain"), "NonPreferred");
}

TEST(ParserTargets, PortalsAuthenticationAndInitiatorsOfNewTargets) {
  ParserEnv env;
  env.Edit([](struct conf* c) {
    struct initiator_group* ig = initiator_group_new(c, "hosts");
    initiator_new(ig, "iqn.1998-01.org.example:srv1");
  });
  DefaultInfo defaults;
  defaults.networkInterface = "nuk0";
  defaults.authType = "CHAP-Mutual";
  defaults.chapName = "duser";
  defaults.chapSecret = "dsecret12345";
  defaults.mutualChapName = "dmutual";
  defaults.mutualChapSecret = "dmsecret1234";
  Parser::UpdateDefaultConfig(defaults);

  bool changed = false;
  TargetCreateParam a = TargetParam(1);
  a.networkInterface = "nuk1";
  a.port = 3261;
  a.authType = "CHAP";
  a.chapName = "user1";
  a.chapSecret = "secret123456";
  a.affinitySite = "Preferred";
  a.initiators = {"iqn.1998-01.org.example:host-a", "hosts"};
  Parser::AddNewTargetToConfFile(a, changed);

  TargetCreateParam b = TargetParam(2);  // same portal, no authentication of its own
  b.networkInterface = "nuk1";
  b.port = 3261;
  b.initiators = {"iqn.1998-01.org.example:host-b"};
  Parser::AddNewTargetToConfFile(b, changed);

  auto c = env.Read();
  struct target* ta = ModelTarget(c.get(), "t1");
  struct target* tb = ModelTarget(c.get(), "t2");
  ASSERT_TRUE(ta != nullptr && tb != nullptr);
  EXPECT_EQ(PortalGroupOf(ta), "pg-nuk1-3261");
  EXPECT_EQ(PortalGroupOf(tb), "pg-nuk1-3261");
  struct portal_group* pg = portal_group_find(c.get(), "pg-nuk1-3261");
  ASSERT_NE(pg, nullptr);
  EXPECT_STREQ(pg->pg_discovery_auth_group->ag_name, "no-authentication");
  const struct portal* portal = TAILQ_FIRST(&pg->pg_portals);
  EXPECT_STREQ(portal->p_host, "nuk1");
  EXPECT_STREQ(portal->p_port, "3261");
  EXPECT_EQ(TAILQ_NEXT(portal, p_next), nullptr);
  EXPECT_EQ(TargetOpt(ta, "fault-domain"), "Preferred");

  // t1: its own group with the request's credentials, names and group references.
  EXPECT_EQ(AuthGroupOf(ta), TestUuid(1));
  EXPECT_EQ(ta->t_auth_group->ag_type, AG_TYPE_CHAP);
  const struct auth* cred = TAILQ_FIRST(&ta->t_auth_group->ag_auths);
  EXPECT_STREQ(cred->a_user, "user1");
  EXPECT_STREQ(cred->a_secret, "secret123456");
  EXPECT_EQ(Names(ta->t_auth_group), std::vector<std::string>{"iqn.1998-01.org.example:host-a"});
  EXPECT_EQ(GroupRefs(ta->t_auth_group), std::vector<std::string>{"hosts"});

  // t2: initiators but no authentication: a copy of the default group, which stays clean.
  EXPECT_EQ(AuthGroupOf(tb), TestUuid(2));
  EXPECT_EQ(tb->t_auth_group->ag_type, AG_TYPE_CHAP_MUTUAL);
  cred = TAILQ_FIRST(&tb->t_auth_group->ag_auths);
  EXPECT_STREQ(cred->a_user, "duser");
  EXPECT_STREQ(cred->a_mutual_secret, "dmsecret1234");
  EXPECT_EQ(Names(tb->t_auth_group), std::vector<std::string>{"iqn.1998-01.org.example:host-b"});
  EXPECT_TRUE(Names(auth_group_find(c.get(), "default")).empty());

  // Mutual CHAP of a target, type text in any case.
  TargetCreateParam m = TargetParam(3);
  m.authType = "chap-mutual";
  m.chapName = "u3";
  m.chapSecret = "secret333333";
  m.mutualChapName = "m3";
  m.mutualChapSecret = "msecret33333";
  Parser::AddNewTargetToConfFile(m, changed);
  c = env.Read();
  struct target* tm = ModelTarget(c.get(), "t3");
  EXPECT_EQ(tm->t_auth_group->ag_type, AG_TYPE_CHAP_MUTUAL);
  EXPECT_STREQ(TAILQ_FIRST(&tm->t_auth_group->ag_auths)->a_mutual_user, "m3");
}

TEST(ParserTargets, RefusedCreationsLeaveFileAndDatastoreAlone) {
  ParserEnv env;
  bool changed = false;
  TargetCreateParam first = TargetParam(1);
  Parser::AddNewTargetToConfFile(first, changed);
  const std::string snapshot = env.Snapshot();
  const int reloads = env.Reloads();
  LogCapture capture;

  TargetCreateParam unknownGroup = TargetParam(2);
  unknownGroup.initiators = {"iqn.1998-01.org.example:x", "nosuchgroup"};
  EXPECT_EQ(ErrorOf([&] { Parser::AddNewTargetToConfFile(unknownGroup, changed); }),
            "initiator group  \"nosuchgroup\" not found");
  EXPECT_FALSE(changed);
  EXPECT_TRUE(capture.Contains("Parser: Failed to add target t2 to conf file with error"));

  TargetCreateParam sameAlias = TargetParam(3);
  sameAlias.alias = "t1";
  EXPECT_EQ(ErrorOf([&] { Parser::AddNewTargetToConfFile(sameAlias, changed); }),
            "Target t1 already exists");
  TargetCreateParam sameIqn = TargetParam(4);
  sameIqn.iqn = kel::testing::TestIqn(1);
  EXPECT_NE(ErrorOf([&] { Parser::AddNewTargetToConfFile(sameIqn, changed); }), "");
  TargetCreateParam badSite = TargetParam(5);
  badSite.affinitySite = "Elsewhere";
  EXPECT_NE(ErrorOf([&] { Parser::AddNewTargetToConfFile(badSite, changed); }), "");
  EXPECT_EQ(env.Snapshot(), snapshot);

  // 128 targets: the next one is refused.
  env.Edit([](struct conf* c) {
    for (int n = 100; n < 227; ++n) AddModelTarget(c, n);
  });
  const std::string full = env.Snapshot();
  TargetCreateParam extra = TargetParam(300);
  EXPECT_EQ(ErrorOf([&] { Parser::AddNewTargetToConfFile(extra, changed); }),
            "Limit on total number of targets (128) has been reached.");
  EXPECT_EQ(env.Snapshot(), full);

  // 8192 initiators in the cluster: one more IQN is refused, an initiator group reference is not
  // an initiator.
  env.Edit([](struct conf* c) {
    for (int n = 100; n < 227; ++n) target_delete(ModelTarget(c, "t" + std::to_string(n)));
    for (int g = 0; g < 32; ++g) {
      struct initiator_group* ig = initiator_group_new(c, ("g" + std::to_string(g)).c_str());
      for (int i = 0; i < 256; ++i) {
        initiator_new(
            ig,
            ("iqn.1998-01.com.example:g" + std::to_string(g) + "-" + std::to_string(i)).c_str());
      }
    }
  });
  const std::string atLimit = env.Snapshot();
  TargetCreateParam oneMore = TargetParam(6);
  oneMore.initiators = {"iqn.1998-01.com.example:new", "g0"};
  EXPECT_EQ(ErrorOf([&] { Parser::AddNewTargetToConfFile(oneMore, changed); }),
            "the maximum initiators allowed per cluster is: 8192. Current initiator count: 8192. "
            "New initiators count: 1.");
  EXPECT_EQ(env.Snapshot(), atLimit);
  TargetCreateParam groupOnly = TargetParam(7);
  groupOnly.initiators = {"g0"};
  Parser::AddNewTargetToConfFile(groupOnly, changed);
  EXPECT_TRUE(changed);
  EXPECT_EQ(env.Reloads(), reloads + 1);
}

TEST(ParserTargets, UpdateChangesOnlyWhatIsAsked) {
  ParserEnv env;
  env.Edit([](struct conf* c) {
    initiator_group_new(c, "ga");
    initiator_group_new(c, "gb");
  });
  bool changed = false;
  TargetCreateParam a = TargetParam(1);
  a.networkInterface = "nuk0";
  a.port = 3300;
  a.affinitySite = "Preferred";
  a.initiators = {"iqn.1998-01.org.example:one", "iqn.1998-01.org.example:two", "ga"};
  Parser::AddNewTargetToConfFile(a, changed);
  TargetCreateParam b = TargetParam(2);
  b.networkInterface = "nuk0";
  b.port = 3300;
  Parser::AddNewTargetToConfFile(b, changed);
  TargetCreateParam plain = TargetParam(3);
  Parser::AddNewTargetToConfFile(plain, changed);
  const uint64_t gen = env.Generation();

  // Everything empty keeps everything, but the initiator list is always the complete list.
  LogCapture capture;
  TargetCreateParam u;
  u.alias = "t1";
  u.uuid = TestUuid(1);
  // Initiator names compare without case: "TWO" is the "two" already there.
  u.initiators = {"iqn.1998-01.org.example:TWO", "iqn.1998-01.org.example:three", "gb"};
  Update(u);
  auto c = env.Read();
  EXPECT_EQ(c->conf_generation, gen + 1);
  struct target* t = ModelTarget(c.get(), "t1");
  EXPECT_EQ(PortalGroupOf(t), "pg-nuk0-3300");
  EXPECT_EQ(TargetOpt(t, "fault-domain"), "Preferred");
  EXPECT_EQ(Names(t->t_auth_group), (std::vector<std::string>{"iqn.1998-01.org.example:two",
                                                              "iqn.1998-01.org.example:three"}));
  EXPECT_EQ(GroupRefs(t->t_auth_group), std::vector<std::string>{"gb"});
  EXPECT_TRUE(capture.Contains(
      "Parser: Removing initiator iSCSI name iqn.1998-01.org.example:one from target t1."));
  EXPECT_TRUE(capture.Contains("Parser: Removing intiator group ga from target t1"));

  // New name, new portal (the old group stays: t2 still uses it), new auth, affinity cleared,
  // status set.
  u.iqn = "iqn.2024-01.com.example:Renamed";
  u.networkInterface = "nuk1";
  u.port = 3260;
  u.authType = "CHAP";
  u.chapName = "newuser";
  u.chapSecret = "newsecret123";
  u.affinitySite = "None";
  u.status = "offline";
  Update(u);
  c = env.Read();
  t = ModelTarget(c.get(), "t1");
  EXPECT_STREQ(t->t_name, "iqn.2024-01.com.example:renamed");
  EXPECT_EQ(PortalGroupOf(t), "pg-nuk1-3260");
  EXPECT_NE(portal_group_find(c.get(), "pg-nuk0-3300"), nullptr);
  EXPECT_EQ(AuthGroupOf(t), TestUuid(1));
  EXPECT_STREQ(TAILQ_FIRST(&t->t_auth_group->ag_auths)->a_user, "newuser");
  EXPECT_EQ(Names(t->t_auth_group).size(), 2u);
  EXPECT_EQ(TargetOpt(t, "fault-domain"), "<none>");
  EXPECT_EQ(TargetOpt(t, "status"), "offline");
  EXPECT_TRUE(capture.Contains("Parser: Clear affinity for target t1"));
  EXPECT_TRUE(capture.Contains("Parser: Updating target t1 status to offline"));

  // t2 leaves pg-nuk0-3300 too: now nobody uses it and it goes.
  TargetCreateParam v;
  v.alias = "t2";
  v.networkInterface = "nuk1";
  v.port = 3260;
  Update(v);
  c = env.Read();
  EXPECT_EQ(portal_group_find(c.get(), "pg-nuk0-3300"), nullptr);
  EXPECT_EQ(PortalGroupOf(ModelTarget(c.get(), "t2")), "pg-nuk1-3260");
  EXPECT_TRUE(capture.Contains("Parser: Deleted portal-group pg-nuk0-3300 successfully."));

  // A target on the shared group gets its own group for its authentication; "default" stays.
  TargetCreateParam w;
  w.alias = "t3";
  w.authType = "No-Authentication";
  Update(w);
  c = env.Read();
  EXPECT_EQ(AuthGroupOf(ModelTarget(c.get(), "t3")), TestUuid(3));
  EXPECT_EQ(ModelTarget(c.get(), "t3")->t_auth_group->ag_type, AG_TYPE_NO_AUTHENTICATION);
  EXPECT_EQ(AuthGroupOf(ModelTarget(c.get(), "t2")), "default");

  // Unknown alias (aliases match byte for byte) and unknown group: the handle's model is dropped.
  const std::string snapshot = env.Snapshot();
  TargetCreateParam missing;
  missing.alias = "T1";
  EXPECT_EQ(ErrorOf([&] { Update(missing); }), "Target T1 not found");
  TargetCreateParam badGroup;
  badGroup.alias = "t2";
  badGroup.initiators = {"nosuch"};
  EXPECT_EQ(ErrorOf([&] { Update(badGroup); }), "initiator group  \"nosuch\" not found");
  EXPECT_EQ(env.Snapshot(), snapshot);
}

TEST(ParserTargets, RemovalCleansUpWhatOnlyTheTargetUsed) {
  ParserEnv env;
  bool changed = false;
  TargetCreateParam a = TargetParam(1);
  a.networkInterface = "nuk1";
  a.port = 3270;
  a.initiators = {"iqn.1998-01.org.example:one"};
  Parser::AddNewTargetToConfFile(a, changed);
  TargetCreateParam b = TargetParam(2);
  b.networkInterface = "nuk1";
  b.port = 3270;
  Parser::AddNewTargetToConfFile(b, changed);
  const uint64_t gen = env.Generation();

  LogCapture capture;
  Parser::RemoveTargetFromConfFile("t1");
  auto c = env.Read();
  EXPECT_EQ(c->conf_generation, gen + 1);
  EXPECT_EQ(env.Published(), gen + 1);
  EXPECT_EQ(ModelTarget(c.get(), "t1"), nullptr);
  EXPECT_EQ(auth_group_find(c.get(), TestUuid(1).c_str()), nullptr);
  EXPECT_NE(portal_group_find(c.get(), "pg-nuk1-3270"), nullptr);
  EXPECT_TRUE(capture.Contains("Parser: Removing target alias t1 from config file"));
  EXPECT_TRUE(capture.Contains("Parser: Removed target successfully."));

  Parser::RemoveTargetFromConfFile("t2");
  c = env.Read();
  EXPECT_EQ(portal_group_find(c.get(), "pg-nuk1-3270"), nullptr);
  EXPECT_NE(portal_group_find(c.get(), "default"), nullptr);
  EXPECT_NE(auth_group_find(c.get(), "default"), nullptr);

  const std::string snapshot = env.Snapshot();
  EXPECT_EQ(ErrorOf([] { Parser::RemoveTargetFromConfFile("t2"); }), "Target t2 not found");
  EXPECT_TRUE(capture.Contains(
      "Parser: Failed to remove target t2 from conf file with error Target t2 not found"));
  EXPECT_EQ(env.Snapshot(), snapshot);
}

}  // namespace
