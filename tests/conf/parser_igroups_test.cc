#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "conf/conf.h"
#include "conf/parser_edit.h"
#include "platform/log.h"
#include "tests/conf/parser_testutil.h"

namespace {

using HostCtl::Orsa::IscsiTarget::InitiatorgroupInfo;
using HostCtl::Orsa::IscsiTarget::TargetCreateParam;
using kel::log::LogCapture;
using kel::testing::AuthGroupOf;
using kel::testing::ErrorOf;
using kel::testing::ModelTarget;
using kel::testing::ParserEnv;
using kel::testing::TargetOpt;
using kel::testing::TargetParam;
namespace Parser = NukCtl::Orsa::IscsiTarget::Parser;

std::vector<std::string> Members(const struct conf* c, const char* group) {
  std::vector<std::string> out;
  const struct initiator_group* ig = initiator_group_find(c, group);
  if (ig == nullptr) return {"<no group>"};
  const struct initiator* in;
  TAILQ_FOREACH(in, &ig->ig_initiators, in_next) out.push_back(in->in_name);
  return out;
}

TEST(ParserInitiatorGroups, AddGroupsUpToTheLimit) {
  ParserEnv env;
  const uint64_t gen = env.Generation();
  LogCapture capture;
  Parser::AddNewInitiatorgroupToConfFile("srv-hosts");
  EXPECT_EQ(env.Generation(), gen + 1);
  EXPECT_EQ(env.Published(), gen + 1);
  EXPECT_TRUE(capture.Contains("Parser: Added new initiator group srv-hosts successfully."));
  EXPECT_EQ(Members(env.Read().get(), "srv-hosts"), std::vector<std::string>{});

  const std::string snapshot = env.Snapshot();
  EXPECT_EQ(ErrorOf([] { Parser::AddNewInitiatorgroupToConfFile("srv-hosts"); }),
            "Failed to add initiator group srv-hosts with error: Initiator group srv-hosts already "
            "exists");
  EXPECT_EQ(
      ErrorOf([] { Parser::AddNewInitiatorgroupToConfFile("iqn.group"); })
          .rfind("Failed to add initiator group iqn.group with error: Invalid initiator group name",
                 0),
      0u);
  env.Edit([](struct conf* c) {
    for (int g = 1; g < 256; ++g) initiator_group_new(c, ("g" + std::to_string(g)).c_str());
  });
  const std::string full = env.Snapshot();
  EXPECT_NE(full, snapshot);
  EXPECT_EQ(ErrorOf([] { Parser::AddNewInitiatorgroupToConfFile("one-more"); }),
            "Failed to add initiator group one-more with error: the maximum initiator group "
            "allowed per cluster is 256. Current value: 256.");
  EXPECT_EQ(env.Snapshot(), full);
}

TEST(ParserInitiatorGroups, InitiatorsOfAGroup) {
  ParserEnv env;
  Parser::AddNewInitiatorgroupToConfFile("hosts");
  LogCapture capture;
  Parser::AddInitiatorsToInitiatorgroup(
      "hosts",
      {"iqn.1998-01.org.example:a", "iqn.1998-01.org.example:b", "iqn.1998-01.org.example:A"});
  EXPECT_TRUE(capture.Contains("Parser: Adding 3 initiators to initiator group hosts."));
  EXPECT_TRUE(capture.Contains("Parser: Added 2 initiators to initiator group hosts"));
  const uint64_t gen = env.Generation();
  // Already there (in any case): nothing to add, nothing written.
  Parser::AddInitiatorsToInitiatorgroup("hosts", {"iqn.1998-01.org.example:B"});
  EXPECT_EQ(env.Generation(), gen);
  EXPECT_EQ(Members(env.Read().get(), "hosts"),
            (std::vector<std::string>{"iqn.1998-01.org.example:a", "iqn.1998-01.org.example:b"}));

  const std::string snapshot = env.Snapshot();
  EXPECT_EQ(
      ErrorOf([] {
        Parser::AddInitiatorsToInitiatorgroup("hosts", {"iqn.1998-01.org.example:c", "not an iqn"});
      }).rfind("Invalid initiator IQN: 'not an iqn'", 0),
      0u);
  EXPECT_EQ(ErrorOf([] { Parser::AddInitiatorsToInitiatorgroup("nosuch", {"iqn.1998-01.a:b"}); }),
            "Initiator group nosuch not found");
  EXPECT_EQ(env.Snapshot(), snapshot);

  Parser::RemoveInitiatorsFromInitiatorgroup("hosts",
                                             {"iqn.1998-01.org.example:A", "iqn.1998-01.x:absent"});
  EXPECT_EQ(Members(env.Read().get(), "hosts"),
            std::vector<std::string>{"iqn.1998-01.org.example:b"});
  EXPECT_TRUE(capture.Contains("Parser: Removing 2 initiators from initiator group hosts."));
  EXPECT_TRUE(capture.Contains("Parser: Removed 1 initiators successfully from group hosts."));

  // The cluster's 8192 initiators count target names too; the group cannot take one more.
  bool changed = false;
  TargetCreateParam t = TargetParam(1);
  t.initiators = {"iqn.1998-01.org.example:t1"};
  Parser::AddNewTargetToConfFile(t, changed);
  env.Edit([](struct conf* c) {
    struct initiator_group* ig = initiator_group_new(c, "bulk");
    for (int i = 0; i < 8190; ++i) {
      initiator_new(ig, ("iqn.1998-01.com.example:" + std::to_string(i)).c_str());
    }
  });
  const std::string full = env.Snapshot();
  EXPECT_EQ(ErrorOf([] {
              Parser::AddInitiatorsToInitiatorgroup("hosts", {"iqn.1998-01.org.example:new"});
            }),
            "the maximum initiators allowed per cluster is: 8192. Current initiator count: 8192. "
            "New initiators count: 1.");
  EXPECT_EQ(env.Snapshot(), full);
}

TEST(ParserInitiatorGroups, RemovingAGroupTargetsStillAdmit) {
  ParserEnv env;
  Parser::AddNewInitiatorgroupToConfFile("shared");
  Parser::AddNewInitiatorgroupToConfFile("unused");
  bool changed = false;
  for (int n : {1, 2}) {
    TargetCreateParam p = TargetParam(n);
    p.initiators = {"shared", "iqn.1998-01.org.example:h" + std::to_string(n)};
    Parser::AddNewTargetToConfFile(p, changed);
  }
  // t3 admits only the group, t4 another group as well, t5 nobody in particular (the default).
  Parser::AddNewInitiatorgroupToConfFile("other");
  TargetCreateParam onlyShared = TargetParam(3);
  onlyShared.initiators = {"shared"};
  onlyShared.authType = "CHAP";
  onlyShared.chapName = "user3";
  onlyShared.chapSecret = "secret-0123456";
  Parser::AddNewTargetToConfFile(onlyShared, changed);
  TargetCreateParam twoGroups = TargetParam(4);
  twoGroups.initiators = {"shared", "other"};
  Parser::AddNewTargetToConfFile(twoGroups, changed);
  TargetCreateParam open = TargetParam(5);
  Parser::AddNewTargetToConfFile(open, changed);

  const std::string snapshot = env.Snapshot();
  EXPECT_EQ(ErrorOf([] { Parser::RemoveInitiatorgroupFromConfFile("shared", false); }),
            "Failed to remove initiator group shared with error Initiator group shared is used by "
            "target(s) t1, t2, t3, t4; remove it from them first or use force");
  EXPECT_EQ(ErrorOf([] { Parser::RemoveInitiatorgroupFromConfFile("nosuch", true); }),
            "Failed to remove initiator group nosuch with error Initiator group nosuch not found");
  EXPECT_EQ(env.Snapshot(), snapshot);

  LogCapture capture;
  Parser::RemoveInitiatorgroupFromConfFile("unused", false);
  Parser::RemoveInitiatorgroupFromConfFile("shared", true);
  EXPECT_TRUE(
      capture.Contains("Parser: Remove initiator group shared from conf file (force enabled: 1)."));
  EXPECT_TRUE(capture.Contains("Parser: Removed initiator group shared successfully."));
  auto c = env.Read();
  EXPECT_EQ(initiator_group_find(c.get(), "shared"), nullptr);
  EXPECT_EQ(initiator_group_find(c.get(), "unused"), nullptr);
  for (const char* alias : {"t1", "t2"}) {
    const struct target* t = ModelTarget(c.get(), alias);
    EXPECT_TRUE(TAILQ_EMPTY(&t->t_auth_group->ag_igroup_refs)) << alias;
    EXPECT_FALSE(TAILQ_EMPTY(&t->t_auth_group->ag_names)) << alias;
  }
  // Force never opens a target to every initiator: t3 had nobody else and went offline in the
  // same write (its CHAP credentials alone do not make it safe); the others keep their state.
  EXPECT_EQ(TargetOpt(ModelTarget(c.get(), "t3"), "status"), "offline");
  EXPECT_TRUE(
      capture.Contains("Parser: Target t3 has no initiator left after removing initiator "
                       "group shared; taking it offline"))
      << capture.Joined();
  for (const char* alias : {"t1", "t2", "t4", "t5"}) {
    EXPECT_EQ(TargetOpt(ModelTarget(c.get(), alias), "status"), "<none>") << alias;
    EXPECT_FALSE(capture.Contains("Parser: Target " + std::string(alias) + " has no initiator"))
        << alias;
  }
  EXPECT_EQ(AuthGroupOf(ModelTarget(c.get(), "t4")), TargetParam(4).uuid);
  EXPECT_EQ(std::string(TAILQ_FIRST(&ModelTarget(c.get(), "t4")->t_auth_group->ag_igroup_refs)
                            ->ref_igroup->ig_name),
            "other");
  // Its last group gone too, t4 follows.
  Parser::RemoveInitiatorgroupFromConfFile("other", true);
  EXPECT_EQ(TargetOpt(ModelTarget(env.Read().get(), "t4"), "status"), "offline");

  // Readers: all groups, one group with the targets that admit it, and an unknown name.
  Parser::AddNewInitiatorgroupToConfFile("again");
  TargetCreateParam u;
  u.alias = "t2";
  u.initiators = {"again"};
  {
    NukCtl::Orsa::IscsiTarget::ConfHandle handle(NukCtl::Orsa::IscsiTarget::ConfHandle::kExclusive);
    Parser::UpdateTargetConf(u, handle);
    handle.WriteConfFile();
  }
  NukCtl::Orsa::IscsiTarget::ConfigCache::CleanupCachedConfig();
  std::vector<InitiatorgroupInfo> groups;
  Parser::GetInitiatorgroupsFromConfFile("", groups);
  ASSERT_EQ(groups.size(), 1u);
  Parser::GetInitiatorgroupsFromConfFile("again", groups);
  ASSERT_EQ(groups.size(), 1u);
  EXPECT_EQ(groups[0].targets.at("t2"), kel::testing::TestIqn(2));
  EXPECT_EQ(ErrorOf([&] { Parser::GetInitiatorgroupsFromConfFile("nosuch", groups); }),
            "Failed to retrieve initiator group info with error Initiator group nosuch not found");
  EXPECT_TRUE(capture.Contains(
      "Parser: Failed to retrieve initiator group info with error Initiator group nosuch not "
      "found"));
}

}  // namespace
