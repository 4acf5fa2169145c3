// The kel.conf transactions of targets, defaults and initiator groups on one host: what each
// writes, what a refusal leaves (nothing), and the change action (publication under the lock,
// daemon reload after it). Limits and the service-level checks are covered through the service.
#include "confedit/parser_edit.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "conf/conf.h"
#include "conf/conf_file.h"
#include "conf/conf_handle.h"
#include "conf/paths.h"
#include "directory/config_cache.h"
#include "directory/config_entry.h"
#include "platform/directory.h"
#include "platform/log.h"
#include "platform/testing/fake_command_runner.h"
#include "platform/testing/fake_directory.h"
#include "tests/support/test_host.h"

namespace kel {
namespace testing {
namespace {

using HostCtl::Orsa::IscsiTarget::DefaultInfo;
using HostCtl::Orsa::IscsiTarget::InitiatorgroupInfo;
using HostCtl::Orsa::IscsiTarget::LunInfo;
using HostCtl::Orsa::IscsiTarget::TargetCreateParam;
using HostCtl::Orsa::IscsiTarget::TargetInfo;
using log::LogCapture;
namespace IT = NukCtl::Orsa::IscsiTarget;
namespace Parser = NukCtl::Orsa::IscsiTarget::Parser;

// A request for the target `alias`, on `nic`:`port` when given, with everything else empty.
TargetCreateParam Request(const std::string& alias, std::vector<std::string> initiators = {},
                          const std::string& nic = "", int port = 0) {
  TargetCreateParam p;
  p.alias = alias;
  p.initiators = std::move(initiators);
  p.networkInterface = nic;
  p.port = port;
  return p;
}

// The creation request for target number `n`: alias "t<n>", its own name and uuid.
TargetCreateParam TargetParam(int n, std::vector<std::string> initiators = {},
                              const std::string& nic = "", int port = 0) {
  TargetCreateParam p = Request("t" + std::to_string(n), std::move(initiators), nic, port);
  p.iqn = TestIqn(n);
  p.uuid = TestUuid(n);
  return p;
}

void Add(TargetCreateParam p) {
  bool changed = false;
  Parser::AddNewTargetToConfFile(p, changed);
  EXPECT_TRUE(changed);
}

void Update(const TargetCreateParam& param) {
  IT::ConfHandle handle(IT::ConfHandle::kExclusive);
  Parser::UpdateTargetConf(param, handle);
  handle.WriteConfFile();
}

std::string PortalGroupOf(const struct target* t) {
  const struct port* p = keld_target_to_port(t);
  return p != nullptr && p->p_portal_group != nullptr ? p->p_portal_group->pg_name : "<none>";
}

std::string AuthGroupOf(const struct target* t) {
  return t->t_auth_group != nullptr && t->t_auth_group->ag_name != nullptr
             ? t->t_auth_group->ag_name
             : "<none>";
}

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

std::vector<std::string> Members(const struct conf* c, const char* group) {
  std::vector<std::string> out;
  const struct initiator_group* ig = initiator_group_find(c, group);
  if (ig == nullptr) return {"<no group>"};
  const struct initiator* in;
  TAILQ_FOREACH(in, &ig->ig_initiators, in_next) out.push_back(in->in_name);
  return out;
}

// Whether `path` can be locked shared right now, without waiting.
bool LockableNow(const std::string& path) {
  FioHandle file;
  if (conf_file_open_share_lock(path.c_str(), &file, 0) != NUK_OK) return false;
  conf_close_file(&file);
  return true;
}

class ParserEdit : public ::testing::Test {
 protected:
  void SetUp() override { host_.InitConf(); }
  TestHost host_;
};

TEST_F(ParserEdit, InitConfCreatesOnlyAMissingFile) {
  EXPECT_EQ(ReadFile(host_.conf_path()), "generation 1\n");
  struct stat st;
  ASSERT_EQ(stat(host_.conf_path().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  Parser::AddNewInitiatorgroupToConfFile("keep");
  const std::string text = ReadFile(host_.conf_path());
  Parser::InitConf();
  EXPECT_EQ(ReadFile(host_.conf_path()), text);
  ASSERT_EQ(unlink(host_.conf_path().c_str()), 0);
  Parser::InitConf();
  EXPECT_EQ(ReadFile(host_.conf_path()), "generation 1\n");
  EXPECT_TRUE(host_.ConfDirLeftovers().empty());
}

// Daemon control that notes, at each reload, whether kel.conf could be read (locked shared) then.
class ReloadProbe : public platform::FakeCommandRunner {
 public:
  explicit ReloadProbe(std::string confPath) : confPath_(std::move(confPath)) {}
  int RunShell(const std::string& line) override {
    if (line.find("reload") != std::string::npos) {
      ++reloads;
      if (!LockableNow(confPath_)) ++lockedReloads;
    }
    return FakeCommandRunner::RunShell(line);
  }
  std::atomic<int> reloads{0};
  std::atomic<int> lockedReloads{0};

 private:
  const std::string confPath_;
};

// Two writers racing while the first one's publication is slow: it still cannot overwrite the
// second one's newer generation, because each publishes while it holds the file; and a
// transaction's daemon reload comes once its handle has let the file go, so the daemon can read.
TEST_F(ParserEdit, PublicationHappensUnderTheLockAndTheReloadAfterIt) {
  Parser::AddNewInitiatorgroupToConfFile("first");
  auto directory = std::make_shared<platform::FakeDirectory>(kHostUuid);
  platform::SetDirectoryForTest(directory);
  std::mutex mu;
  std::condition_variable cv;
  int publications = 0, unlocked = 0;
  bool hold = true, held = false;
  directory->SetUpdateHook([&](const platform::DirEntry& e) {
    if (e.type != KELD_LODEX_CONFIG_ENTRY_TYPE) return;
    const bool free = LockableNow(host_.conf_path());
    std::unique_lock<std::mutex> lock(mu);
    ++publications;
    unlocked += free ? 1 : 0;
    cv.notify_all();
    if (hold) {  // the widest gap two racing writers can leave: until the other one publishes
      hold = false;
      held = true;
      const int seen = publications;
      cv.wait_for(lock, std::chrono::seconds(1), [&] { return publications > seen; });
    }
  });
  ReloadProbe reloads(host_.conf_path());

  std::thread slow([] { Parser::AddNewInitiatorgroupToConfFile("slow"); });
  {
    std::unique_lock<std::mutex> lock(mu);
    cv.wait(lock, [&] { return held; });
  }
  std::thread fast([] { Parser::AddNewInitiatorgroupToConfFile("fast"); });
  slow.join();
  fast.join();
  EXPECT_EQ(host_.Generation(), 4u);
  EXPECT_EQ(host_.Published(), 4u);
  EXPECT_EQ(reloads.reloads.load(), 2);
  // (While the two raced, one's reload could meet the other's lock: checked one at a time below.)
  const int lockedDuringRace = reloads.lockedReloads.load();

  // Every transaction takes the same path.
  Add(TargetParam(1));
  DefaultInfo info;
  info.authType = "No-Authentication";
  Parser::UpdateDefaultConfig(info);
  Parser::AddInitiatorsToInitiatorgroup("fast", {"iqn.1998-01.org.example:h1"});
  Parser::RemoveInitiatorsFromInitiatorgroup("fast", {"iqn.1998-01.org.example:h1"});
  Parser::RemoveInitiatorgroupFromConfFile("slow", false);
  Parser::RemoveTargetFromConfFile("t1");
  std::lock_guard<std::mutex> guard(mu);
  EXPECT_EQ(publications, 8);
  EXPECT_EQ(unlocked, 0);
  EXPECT_EQ(reloads.reloads.load(), 8);
  EXPECT_EQ(reloads.lockedReloads.load(), lockedDuringRace);
  EXPECT_EQ(host_.Published(), host_.Generation());
}

TEST_F(ParserEdit, ADaemonThatCannotReloadStillGetsTheWrittenAndPublishedFile) {
  Add(TargetParam(1));
  EXPECT_EQ(Parser::GetTargets().size(), 1u);  // installs a cached model
  host_.ControlExitsWith(3);
  const uint64_t gen = host_.Generation();
  bool changed = false;
  TargetCreateParam q = TargetParam(2);
  EXPECT_EQ(ErrorOf([&] { Parser::AddNewTargetToConfFile(q, changed); }),
            "Failed to reload keld (return code 3)");
  EXPECT_TRUE(changed);
  EXPECT_EQ(host_.Generation(), gen + 1);
  EXPECT_EQ(host_.Published(), gen + 1);
  EXPECT_EQ(IT::ConfigCache::GetCachedConfGenNumber(), UINT64_MAX);  // dropped all the same
  host_.ControlExitsWith(0);

  // All ones is what a transaction that wrote nothing reports: no publication, no reload.
  const int reloads = host_.Reloads();
  IT::Util::ApplyConfigChange(UINT64_MAX);
  EXPECT_EQ(host_.Reloads(), reloads);
  EXPECT_EQ(host_.Published(), gen + 1);
}

TEST_F(ParserEdit, ReadersOfTheFile) {
  Add(TargetParam(1));
  std::vector<LunInfo> luns{LunInfo()};
  Parser::GetLunsForTarget("t1", luns);
  EXPECT_TRUE(luns.empty());
  EXPECT_EQ(ErrorOf([&] { Parser::GetLunsForTarget("t3", luns); }), "Target t3 not found");
  TargetInfo info;
  EXPECT_EQ(ErrorOf([&] { IT::Util::GetTargetInfoFromConfFile("T1", info); }),
            "Target T1 not found");  // aliases match byte for byte

  // An unreadable file: the readers log and pass the handle's error on.
  WriteFile(host_.conf_path(), "generation 7\ntarget {\n");
  IT::ConfigCache::CleanupCachedConfig();
  LogCapture capture;
  const std::string error = ErrorOf([] { Parser::GetTargets(); });
  EXPECT_EQ(error, "Failed to read conf file: " + host_.conf_path());
  EXPECT_TRUE(capture.Contains("Parser: Failed to load targets from config file, error " + error));
  EXPECT_EQ(ErrorOf([] { Parser::GetDefaultInfo(false); }), error);
  EXPECT_TRUE(capture.Contains("Parser: Failed to retrieve default config info with error "));
}

TEST_F(ParserEdit, DefaultsAreWhatNewTargetsInherit) {
  DefaultInfo info;
  info.networkInterface = "nuk1";
  info.port = 3270;
  info.authType = "CHAP-Mutual";
  info.chapName = "duser";
  info.chapSecret = "dsecret12345";
  info.mutualChapName = "dmutual";
  info.mutualChapSecret = "dmsecret1234";
  Parser::UpdateDefaultConfig(info);
  DefaultInfo read = Parser::GetDefaultInfo(true);
  EXPECT_EQ(read.networkInterface, "nuk1");
  EXPECT_EQ(read.port, 3270);
  EXPECT_EQ(read.chapSecret, "dsecret12345");
  EXPECT_EQ(read.mutualChapSecret, "dmsecret1234");
  EXPECT_EQ(Parser::GetDefaultInfo(false).chapSecret, "");
  {
    ConfPtr model = ReadModel();
    const struct portal_group* pg = portal_group_find(model.get(), "default");
    EXPECT_EQ(TAILQ_NEXT(TAILQ_FIRST(&pg->pg_portals), p_next), nullptr) << "one portal only";
  }

  // A plain target shares the default groups; its record shows what it inherits.
  TargetCreateParam plain = TargetParam(1);
  plain.affinitySite = "None";
  Add(plain);
  TargetInfo t;
  IT::Util::GetTargetInfoFromConfFile("t1", t);
  EXPECT_EQ(t.networkInterface, "nuk1");
  EXPECT_EQ(t.port, 3270);
  EXPECT_EQ(t.authType, "CHAP-Mutual");
  EXPECT_EQ(t.chapName, "duser");
  // Initiators without authentication of their own: a copy of the default group, which stays
  // clean.
  Add(TargetParam(2, {"iqn.1998-01.org.example:host-b"}));
  auto c = ReadModel();
  const struct target* t1 = TargetByAlias(c.get(), "t1");
  EXPECT_EQ(PortalGroupOf(t1), "default");
  EXPECT_EQ(AuthGroupOf(t1), "default");
  EXPECT_EQ(TargetOption(t1, "fault-domain"), "<none>");
  EXPECT_EQ(TargetOption(t1, "status"), "<none>");
  const struct target* t2 = TargetByAlias(c.get(), "t2");
  EXPECT_EQ(AuthGroupOf(t2), TestUuid(2));
  EXPECT_EQ(t2->t_auth_group->ag_type, AG_TYPE_CHAP_MUTUAL);
  EXPECT_STREQ(TAILQ_FIRST(&t2->t_auth_group->ag_auths)->a_mutual_secret, "dmsecret1234");
  EXPECT_EQ(Names(t2->t_auth_group), std::vector<std::string>{"iqn.1998-01.org.example:host-b"});
  EXPECT_TRUE(Names(auth_group_find(c.get(), "default")).empty());

  // No-Authentication drops the credentials; an empty interface keeps the portal.
  DefaultInfo open;
  open.authType = "No-Authentication";
  Parser::UpdateDefaultConfig(open);
  read = Parser::GetDefaultInfo(true);
  EXPECT_EQ(read.authType, "No-Authentication");
  EXPECT_EQ(read.chapName, "");
  EXPECT_EQ(read.networkInterface, "nuk1");
  EXPECT_TRUE(TAILQ_EMPTY(&auth_group_find(ReadModel().get(), "default")->ag_auths));
}

TEST_F(ParserEdit, NewTargetsShareTheirPortalGroupAndRefusalsChangeNothing) {
  Parser::AddNewInitiatorgroupToConfFile("hosts");
  TargetCreateParam a = TargetParam(1, {"iqn.1998-01.org.example:host-a", "hosts"}, "nuk1", 3261);
  a.authType = "chap-mutual";  // the type is compared without case
  a.chapName = "u1";
  a.chapSecret = "secret111111";
  a.mutualChapName = "m1";
  a.mutualChapSecret = "msecret11111";
  a.status = "offline";
  a.affinitySite = "NonPreferred";
  Add(a);
  Add(TargetParam(2, {}, "nuk1", 3261));
  auto c = ReadModel();
  const struct target* ta = TargetByAlias(c.get(), "t1");
  EXPECT_EQ(PortalGroupOf(ta), "pg-nuk1-3261");
  EXPECT_EQ(PortalGroupOf(TargetByAlias(c.get(), "t2")), "pg-nuk1-3261");
  const struct portal_group* pg = portal_group_find(c.get(), "pg-nuk1-3261");
  EXPECT_STREQ(pg->pg_discovery_auth_group->ag_name, "no-authentication");
  EXPECT_EQ(TAILQ_NEXT(TAILQ_FIRST(&pg->pg_portals), p_next), nullptr);
  EXPECT_EQ(ta->t_auth_group->ag_type, AG_TYPE_CHAP_MUTUAL);
  EXPECT_STREQ(TAILQ_FIRST(&ta->t_auth_group->ag_auths)->a_mutual_user, "m1");
  EXPECT_EQ(GroupRefs(ta->t_auth_group), std::vector<std::string>{"hosts"});
  EXPECT_EQ(TargetOption(ta, "status"), "offline");
  EXPECT_EQ(TargetOption(ta, "fault-domain"), "NonPreferred");

  const std::string snapshot = host_.Snapshot();
  const int reloads = host_.Reloads();
  LogCapture capture;
  bool changed = true;
  TargetCreateParam unknownGroup = TargetParam(3, {"iqn.1998-01.org.example:x", "nosuchgroup"});
  EXPECT_EQ(ErrorOf([&] { Parser::AddNewTargetToConfFile(unknownGroup, changed); }),
            "initiator group  \"nosuchgroup\" not found");
  EXPECT_FALSE(changed);
  EXPECT_TRUE(capture.Contains("Parser: Failed to add target t3 to conf file with error"));
  TargetCreateParam sameIqn = TargetParam(4);
  sameIqn.iqn = TestIqn(1);
  EXPECT_NE(ErrorOf([&] { Parser::AddNewTargetToConfFile(sameIqn, changed); }), "");
  TargetCreateParam badSite = TargetParam(5);
  badSite.affinitySite = "Elsewhere";
  EXPECT_NE(ErrorOf([&] { Parser::AddNewTargetToConfFile(badSite, changed); }), "");
  EXPECT_EQ(host_.Snapshot(), snapshot);
  EXPECT_EQ(host_.Reloads(), reloads);
}

TEST_F(ParserEdit, UpdateChangesOnlyWhatIsAsked) {
  Parser::AddNewInitiatorgroupToConfFile("ga");
  Parser::AddNewInitiatorgroupToConfFile("gb");
  TargetCreateParam a = TargetParam(
      1, {"iqn.1998-01.org.example:one", "iqn.1998-01.org.example:two", "ga"}, "nuk0", 3300);
  a.affinitySite = "Preferred";
  Add(a);
  Add(TargetParam(2, {}, "nuk0", 3300));
  Add(TargetParam(3));
  const uint64_t gen = host_.Generation();

  // Everything empty keeps everything, but the initiator list is always the complete list; names
  // compare without case ("TWO" is the "two" already there).
  LogCapture capture;
  TargetCreateParam u =
      Request("t1", {"iqn.1998-01.org.example:TWO", "iqn.1998-01.org.example:three", "gb"});
  u.uuid = TestUuid(1);
  Update(u);
  auto c = ReadModel();
  EXPECT_EQ(c->conf_generation, gen + 1);
  struct target* t = TargetByAlias(c.get(), "t1");
  EXPECT_EQ(PortalGroupOf(t), "pg-nuk0-3300");
  EXPECT_EQ(TargetOption(t, "fault-domain"), "Preferred");
  EXPECT_EQ(Names(t->t_auth_group), (std::vector<std::string>{"iqn.1998-01.org.example:two",
                                                              "iqn.1998-01.org.example:three"}));
  EXPECT_EQ(GroupRefs(t->t_auth_group), std::vector<std::string>{"gb"});
  EXPECT_TRUE(capture.Contains(
      "Parser: Removing initiator iSCSI name iqn.1998-01.org.example:one from target t1."));
  EXPECT_TRUE(capture.Contains("Parser: Removing intiator group ga from target t1"));

  // New name (lower-cased), new portal (the old group stays: t2 still uses it), new
  // authentication, affinity cleared, status set.
  u.iqn = "iqn.2024-01.com.example:Renamed";
  u.networkInterface = "nuk1";
  u.port = 3260;
  u.authType = "CHAP";
  u.chapName = "newuser";
  u.chapSecret = "newsecret123";
  u.affinitySite = "None";
  u.status = "offline";
  Update(u);
  c = ReadModel();
  t = TargetByAlias(c.get(), "t1");
  EXPECT_STREQ(t->t_name, "iqn.2024-01.com.example:renamed");
  EXPECT_EQ(PortalGroupOf(t), "pg-nuk1-3260");
  EXPECT_NE(portal_group_find(c.get(), "pg-nuk0-3300"), nullptr);
  EXPECT_STREQ(TAILQ_FIRST(&t->t_auth_group->ag_auths)->a_user, "newuser");
  EXPECT_EQ(TargetOption(t, "fault-domain"), "<none>");
  EXPECT_EQ(TargetOption(t, "status"), "offline");
  EXPECT_TRUE(capture.Contains("Parser: Clear affinity for target t1"));
  EXPECT_TRUE(capture.Contains("Parser: Updating target t1 status to offline"));

  // t2 leaves pg-nuk0-3300 too: now nobody uses it and it goes.
  Update(Request("t2", {}, "nuk1", 3260));
  EXPECT_EQ(portal_group_find(ReadModel().get(), "pg-nuk0-3300"), nullptr);
  EXPECT_TRUE(capture.Contains("Parser: Deleted portal-group pg-nuk0-3300 successfully."));

  // A target on the shared default group gets its own group for its authentication.
  TargetCreateParam w = Request("t3");
  w.authType = "No-Authentication";
  Update(w);
  c = ReadModel();
  EXPECT_EQ(AuthGroupOf(TargetByAlias(c.get(), "t3")), TestUuid(3));
  EXPECT_EQ(TargetByAlias(c.get(), "t3")->t_auth_group->ag_type, AG_TYPE_NO_AUTHENTICATION);
  EXPECT_EQ(AuthGroupOf(TargetByAlias(c.get(), "t2")), "default");

  const std::string snapshot = host_.Snapshot();
  EXPECT_EQ(ErrorOf([] { Update(Request("T1")); }), "Target T1 not found");
  EXPECT_EQ(ErrorOf([] { Update(Request("t2", {"nosuch"})); }),
            "initiator group  \"nosuch\" not found");
  EXPECT_EQ(host_.Snapshot(), snapshot);
}

TEST_F(ParserEdit, RemovalCleansUpWhatOnlyTheTargetUsed) {
  for (int n : {1, 2}) Add(TargetParam(n, {"iqn.1998-01.org.example:one"}, "nuk1", 3270));
  LogCapture capture;
  Parser::RemoveTargetFromConfFile("t1");
  auto c = ReadModel();
  EXPECT_EQ(TargetByAlias(c.get(), "t1"), nullptr);
  EXPECT_EQ(auth_group_find(c.get(), TestUuid(1).c_str()), nullptr);
  EXPECT_NE(portal_group_find(c.get(), "pg-nuk1-3270"), nullptr);

  Parser::RemoveTargetFromConfFile("t2");
  c = ReadModel();
  EXPECT_EQ(portal_group_find(c.get(), "pg-nuk1-3270"), nullptr);
  EXPECT_NE(portal_group_find(c.get(), "default"), nullptr);
  EXPECT_NE(auth_group_find(c.get(), "default"), nullptr);
  const std::string snapshot = host_.Snapshot();
  EXPECT_EQ(ErrorOf([] { Parser::RemoveTargetFromConfFile("t2"); }), "Target t2 not found");
  EXPECT_TRUE(capture.Contains(
      "Parser: Failed to remove target t2 from conf file with error Target t2 not found"));
  EXPECT_EQ(host_.Snapshot(), snapshot);
}

TEST_F(ParserEdit, InitiatorGroupsAndTheirMembers) {
  LogCapture capture;
  Parser::AddNewInitiatorgroupToConfFile("hosts");
  Parser::AddInitiatorsToInitiatorgroup(
      "hosts",
      {"iqn.1998-01.org.example:a", "iqn.1998-01.org.example:b", "iqn.1998-01.org.example:A"});
  EXPECT_TRUE(capture.Contains("Parser: Added 2 initiators to initiator group hosts"));
  // Already there (in any case): nothing to add, nothing written.
  const std::string snapshot = host_.Snapshot();
  Parser::AddInitiatorsToInitiatorgroup("hosts", {"iqn.1998-01.org.example:B"});
  EXPECT_EQ(host_.Snapshot(), snapshot);
  EXPECT_EQ(Members(ReadModel().get(), "hosts"),
            (std::vector<std::string>{"iqn.1998-01.org.example:a", "iqn.1998-01.org.example:b"}));
  EXPECT_EQ(ErrorOf([] { Parser::AddNewInitiatorgroupToConfFile("hosts"); }),
            "Failed to add initiator group hosts with error: Initiator group hosts already exists");
  EXPECT_EQ(ErrorOf([] { Parser::AddInitiatorsToInitiatorgroup("nosuch", {"iqn.1998-01.a:b"}); }),
            "Initiator group nosuch not found");
  EXPECT_EQ(host_.Snapshot(), snapshot);

  Parser::RemoveInitiatorsFromInitiatorgroup("hosts",
                                             {"iqn.1998-01.org.example:A", "iqn.1998-01.x:absent"});
  EXPECT_EQ(Members(ReadModel().get(), "hosts"),
            std::vector<std::string>{"iqn.1998-01.org.example:b"});
  EXPECT_TRUE(capture.Contains("Parser: Removed 1 initiators successfully from group hosts."));
}

// Found with force removal: a target left with no initiator at all must not become open to every
// initiator.
TEST_F(ParserEdit, ForcedGroupRemovalTakesOfflineTheTargetsItLeavesWithNobody) {
  Parser::AddNewInitiatorgroupToConfFile("shared");
  Parser::AddNewInitiatorgroupToConfFile("other");
  Parser::AddNewInitiatorgroupToConfFile("unused");
  for (int n : {1, 2})
    Add(TargetParam(n, {"shared", "iqn.1998-01.org.example:h" + std::to_string(n)}));
  // t3 admits only the group (its CHAP credentials alone do not make it safe), t4 another group
  // as well, t5 nobody in particular (the default).
  TargetCreateParam onlyShared = TargetParam(3, {"shared"});
  onlyShared.authType = "CHAP";
  onlyShared.chapName = "user3";
  onlyShared.chapSecret = "secret-0123456";
  Add(onlyShared);
  Add(TargetParam(4, {"shared", "other"}));
  Add(TargetParam(5));

  const std::string snapshot = host_.Snapshot();
  EXPECT_EQ(ErrorOf([] { Parser::RemoveInitiatorgroupFromConfFile("shared", false); }),
            "Failed to remove initiator group shared with error Initiator group shared is used by "
            "target(s) t1, t2, t3, t4; remove it from them first or use force");
  EXPECT_EQ(ErrorOf([] { Parser::RemoveInitiatorgroupFromConfFile("nosuch", true); }),
            "Failed to remove initiator group nosuch with error Initiator group nosuch not found");
  EXPECT_EQ(host_.Snapshot(), snapshot);

  LogCapture capture;
  Parser::RemoveInitiatorgroupFromConfFile("unused", false);
  Parser::RemoveInitiatorgroupFromConfFile("shared", true);
  auto c = ReadModel();
  EXPECT_EQ(initiator_group_find(c.get(), "shared"), nullptr);
  EXPECT_EQ(initiator_group_find(c.get(), "unused"), nullptr);
  for (const char* alias : {"t1", "t2"}) {
    const struct target* t = TargetByAlias(c.get(), alias);
    EXPECT_TRUE(TAILQ_EMPTY(&t->t_auth_group->ag_igroup_refs)) << alias;
    EXPECT_FALSE(TAILQ_EMPTY(&t->t_auth_group->ag_names)) << alias;
  }
  EXPECT_EQ(TargetOption(TargetByAlias(c.get(), "t3"), "status"), "offline");
  EXPECT_TRUE(
      capture.Contains("Parser: Target t3 has no initiator left after removing initiator "
                       "group shared; taking it offline"));
  for (const char* alias : {"t1", "t2", "t4", "t5"}) {
    EXPECT_EQ(TargetOption(TargetByAlias(c.get(), alias), "status"), "<none>") << alias;
  }
  EXPECT_EQ(GroupRefs(TargetByAlias(c.get(), "t4")->t_auth_group),
            std::vector<std::string>{"other"});
  // Its last group gone too, t4 follows.
  Parser::RemoveInitiatorgroupFromConfFile("other", true);
  EXPECT_EQ(TargetOption(TargetByAlias(ReadModel().get(), "t4"), "status"), "offline");
}

}  // namespace
}  // namespace testing
}  // namespace kel
