#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "keld/disk_lock.h"
#include "keld/outcome.h"
#include "keld/portal.h"
#include "keld/reconciler.h"
#include "keld/testing/tgt_admin_fake.h"
#include "platform/host_config.h"
#include "platform/log.h"
#include "tests/keld/keld_test_helpers.h"
#include "tests/support/test_support.h"

namespace kel {
namespace keld {
namespace {

using testing::ExclusiveDiskLock;
using testing::FakeTgtd;
using testing::MakeTarget;
using testing::SparseFile;

const char kA[] = "iqn.2024-01.com.example:a";
const char kB[] = "iqn.2024-01.com.example:b";
const char kC[] = "iqn.2024-01.com.example:c";

class ReconcilerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::HostConfig config = platform::EmbeddedHostConfig();
    config.stateDir = dir_.Join("state");
    config.networkOverride = true;
    config.interfaces["nuk0"] = {"127.0.0.5", ""};
    config.interfaces["nuk1"] = {"", "::1"};
    platform::SetCurrentHostConfig(config);
  }

  std::string Disk(const std::string& name, uint64_t bytes = 8 << 20) {
    return SparseFile(dir_.Join(name), bytes);
  }

  int TidOf(const std::string& iqn) {
    for (const auto& t : tgtd_.targets) {
      if (t.second.name == iqn) return t.first;
    }
    return -1;
  }

  // Applies and expects no problems.
  ReconcileResult ApplyClean(const DesiredState& state) {
    ReconcileResult r = rec_.Apply(state);
    for (const Problem& p : r.problems) ADD_FAILURE() << p.target << ": " << p.message;
    return r;
  }

  static std::string Messages(const ReconcileResult& r) {
    std::string out;
    for (const Problem& p : r.problems) out += p.target + ": " + p.message + "\n";
    return out;
  }

  kel::testing::TempDir dir_;
  FakeTgtd tgtd_;
  OfdDiskLocker locker_;
  LocalPortalResolver resolver_;
  KeldReconciler rec_{tgtd_, locker_, resolver_};
};

TEST_F(ReconcilerTest, ServesLunsShiftedByOneAndSecondApplyChangesNothing) {
  DesiredState state;
  state.targets.push_back(MakeTarget(kA, {Disk("a0"), Disk("a1"), Disk("a2", 3 << 20)}));
  state.targets[0].luns[1].id = 7;
  state.targets[0].luns[2].id = 255;
  state.targets[0].alias = "alpha";
  state.targets.push_back(MakeTarget(kB, {Disk("b0")}));

  ApplyClean(state);
  const FakeTgtd::Target* a = tgtd_.Find(kA);
  ASSERT_NE(a, nullptr);
  std::vector<int> scsi;
  for (const auto& l : a->luns) scsi.push_back(l.first);
  EXPECT_EQ(scsi, (std::vector<int>{1, 8, 256}));
  EXPECT_EQ(a->luns.at(256).path, dir_.Join("a2"));
  EXPECT_EQ(a->acl, std::vector<std::string>{"ALL"});
  EXPECT_EQ(tgtd_.portals, std::vector<std::string>{"127.0.0.5:3260"});
  EXPECT_TRUE(tgtd_.Visible(kB, "iqn.1994-05.com.example:anyone"));

  std::string why;
  EXPECT_FALSE(ProbeDiskReleased(dir_.Join("a1"), &why));
  EXPECT_NE(why.find("locked by another host"), std::string::npos) << why;

  ServedStatus status;
  std::string error;
  ASSERT_TRUE(rec_.Status(&status, &error)) << error;
  ASSERT_EQ(status.targets.size(), 2u);
  const TargetStatus& sa = status.targets[0].iqn == kA ? status.targets[0] : status.targets[1];
  EXPECT_EQ(sa.alias, "alpha");
  ASSERT_EQ(sa.luns.size(), 3u);
  EXPECT_EQ(sa.luns[2].kelLun, 255);
  EXPECT_EQ(sa.luns[2].scsiLun, 256);
  EXPECT_EQ(sa.luns[2].sizeBytes, 3u << 20);

  size_t calls = tgtd_.calls.size();
  ReconcileResult again = ApplyClean(state);
  EXPECT_EQ(again.changes, 0);
  EXPECT_EQ(tgtd_.calls.size(), calls);
}

TEST_F(ReconcilerTest, OneTargetChangeTouchesOnlyThatTargetAndTidsStayStable) {
  DesiredState state;
  for (const char* iqn : {kA, kB, kC}) {
    std::string name = std::string(iqn).substr(std::string(iqn).rfind(':') + 1);
    state.targets.push_back(MakeTarget(iqn, {Disk(name + "0")}));
  }
  ApplyClean(state);
  std::map<std::string, int> tids = {{kA, TidOf(kA)}, {kB, TidOf(kB)}, {kC, TidOf(kC)}};
  EXPECT_EQ(std::set<int>({tids[kA], tids[kB], tids[kC]}).size(), 3u);

  size_t mark = tgtd_.calls.size();
  state.targets[1].luns.push_back({4, Disk("b4"), false, "", ""});
  state.targets[1].initiatorsRestricted = true;
  state.targets[1].initiators = {"iqn.1994-05.com.example:host1"};
  ReconcileResult r = ApplyClean(state);
  EXPECT_GT(r.changes, 0);
  for (size_t i = mark; i < tgtd_.calls.size(); ++i) {
    EXPECT_EQ(tgtd_.calls[i].tid, tids[kB]) << tgtd_.calls[i].op << " " << tgtd_.calls[i].arg;
  }
  // Rules are OR'ed: "ALL" had to go before the name was added.
  int unbind_all = tgtd_.IndexOf("UnbindAcl", "ALL");
  int bind_name = tgtd_.IndexOf("BindAcl", "iqn.1994-05.com.example:host1");
  ASSERT_GE(unbind_all, 0);
  EXPECT_LT(unbind_all, bind_name);
  EXPECT_FALSE(tgtd_.Visible(kB, "iqn.1994-05.com.example:other"));
  EXPECT_TRUE(tgtd_.Visible(kB, "iqn.1994-05.com.example:host1"));

  // Removing A and adding D: B and C keep their ids, D gets one nobody had.
  state.targets.erase(state.targets.begin());
  state.targets.push_back(MakeTarget("iqn.2024-01.com.example:d", {Disk("d0")}));
  ApplyClean(state);
  EXPECT_EQ(tgtd_.Find(kA), nullptr);
  EXPECT_EQ(TidOf(kB), tids[kB]);
  EXPECT_EQ(TidOf(kC), tids[kC]);
  int d = TidOf("iqn.2024-01.com.example:d");
  EXPECT_GT(d, 0);
  EXPECT_EQ(std::set<int>({tids[kA], tids[kB], tids[kC], d}).size(), 4u);
  std::string why;
  EXPECT_TRUE(ProbeDiskReleased(dir_.Join("a0"), &why)) << why;
}

TEST_F(ReconcilerTest, AclFollowsInitiatorsGroupsAndAuthRule) {
  const std::string inside = "iqn.1994-05.com.example:inside";
  const std::string outside = "iqn.1994-05.com.example:outside";
  DesiredState state;
  state.targets.push_back(MakeTarget(kA, {Disk("a0")}));  // no names: everyone
  state.targets.push_back(MakeTarget(kB, {Disk("b0")}));
  state.targets[1].auth = AuthRule::kDeny;  // no names and deny: nobody
  state.targets.push_back(MakeTarget(kC, {Disk("c0")}));
  state.targets[2].initiatorsRestricted = true;
  state.targets[2].initiators = {inside, inside};
  ApplyClean(state);

  EXPECT_TRUE(tgtd_.Visible(kA, outside));
  EXPECT_TRUE(tgtd_.Find(kB)->acl.empty());
  EXPECT_FALSE(tgtd_.Visible(kB, inside));
  EXPECT_TRUE(tgtd_.Visible(kC, inside));
  EXPECT_FALSE(tgtd_.Visible(kC, outside));
  EXPECT_EQ(tgtd_.Find(kC)->acl.size(), 1u);

  // A group without members restricts to nobody; giving up the restriction opens it again.
  state.targets[2].initiators.clear();
  ApplyClean(state);
  EXPECT_FALSE(tgtd_.Visible(kC, inside));
  state.targets[2].initiatorsRestricted = false;
  ApplyClean(state);
  EXPECT_TRUE(tgtd_.Visible(kC, outside));
}

TEST_F(ReconcilerTest, ChapAccountsMutualAndPasswordChangeRebindsEverywhere) {
  const std::string who = "iqn.1994-05.com.example:init";
  DesiredState state;
  state.targets.push_back(MakeTarget(kA, {Disk("a0")}));
  state.targets[0].auth = AuthRule::kChap;
  state.targets[0].chap = {{"user1", "secret-one-12", "", ""}};
  state.targets.push_back(MakeTarget(kB, {Disk("b0")}));
  state.targets[1].auth = AuthRule::kChapMutual;
  state.targets[1].chap = {{"user1", "secret-one-12", "mutual1", "mutual-sec-12"}};
  ApplyClean(state);

  EXPECT_TRUE(tgtd_.CanLogin(kA, who, "user1", "secret-one-12"));
  EXPECT_FALSE(tgtd_.CanLogin(kA, who, "user1", "wrong-secret"));
  EXPECT_FALSE(tgtd_.CanLogin(kA, who, "", ""));
  EXPECT_EQ(tgtd_.Find(kB)->outgoing, "mutual1");
  EXPECT_EQ(tgtd_.accounts.at("mutual1"), "mutual-sec-12");
  // The account was bound before the target admitted anyone.
  EXPECT_LT(tgtd_.IndexOf("BindAccount", "user1"), tgtd_.IndexOf("BindAcl", "ALL"));

  size_t mark = tgtd_.calls.size();
  state.targets[0].chap[0].secret = "secret-two-12";
  state.targets[1].chap[0].secret = "secret-two-12";
  ApplyClean(state);
  EXPECT_EQ(tgtd_.accounts.at("user1"), "secret-two-12");
  EXPECT_TRUE(tgtd_.CanLogin(kA, who, "user1", "secret-two-12"));
  EXPECT_TRUE(tgtd_.CanLogin(kB, who, "user1", "secret-two-12"));
  EXPECT_FALSE(tgtd_.CanLogin(kB, who, "user1", "secret-one-12"));
  EXPECT_EQ(tgtd_.Find(kB)->outgoing, "mutual1");
  // While the account was gone neither target admitted anyone (tgtd would not have asked for
  // CHAP): every ACL rule went before the delete and came back after the re-binding.
  int deleted = -1, last_unbind = -1, first_bind_acl = -1, last_bind_account = -1;
  for (size_t i = mark; i < tgtd_.calls.size(); ++i) {
    const auto& c = tgtd_.calls[i];
    int at = static_cast<int>(i);
    if (c.op == "DeleteAccount") deleted = at;
    if (c.op == "UnbindAcl") last_unbind = at;
    if (c.op == "BindAcl" && first_bind_acl < 0) first_bind_acl = at;
    if (c.op == "BindAccount") last_bind_account = at;
  }
  ASSERT_GE(deleted, 0);
  EXPECT_LT(last_unbind, deleted);
  EXPECT_GT(first_bind_acl, last_bind_account);

  // A third target wanting user1 with another secret cannot have it; the others are untouched.
  state.targets.push_back(MakeTarget(kC, {Disk("c0")}));
  state.targets[2].auth = AuthRule::kChap;
  state.targets[2].chap = {{"user1", "different-sec", "", ""}};
  ReconcileResult clash = rec_.Apply(state);
  ASSERT_EQ(clash.problems.size(), 1u) << Messages(clash);
  EXPECT_EQ(clash.problems[0].target, kC);
  EXPECT_NE(clash.problems[0].message.find("user1"), std::string::npos);
  EXPECT_EQ(tgtd_.Find(kC), nullptr);
  EXPECT_EQ(tgtd_.accounts.at("user1"), "secret-two-12");

  // Accounts nobody uses any more are deleted.
  state.targets.pop_back();
  state.targets[0].auth = AuthRule::kNone;
  state.targets[0].chap.clear();
  state.targets[1].auth = AuthRule::kNone;
  state.targets[1].chap.clear();
  ApplyClean(state);
  EXPECT_TRUE(tgtd_.accounts.empty());
  EXPECT_TRUE(tgtd_.CanLogin(kA, who, "", ""));
  EXPECT_TRUE(tgtd_.Find(kB)->outgoing.empty());
}

TEST_F(ReconcilerTest, OfflineTargetsAndLunsAreWithdrawnAndTheirDisksReleased) {
  DesiredState state;
  state.targets.push_back(MakeTarget(kA, {Disk("a0"), Disk("a1")}));
  state.targets.push_back(MakeTarget(kB, {Disk("b0")}));
  ApplyClean(state);
  std::string why;

  state.targets[0].luns[1].offline = true;
  ApplyClean(state);
  EXPECT_EQ(tgtd_.Find(kA)->luns.count(2), 0u);
  EXPECT_EQ(tgtd_.Find(kA)->luns.count(1), 1u);
  EXPECT_TRUE(ProbeDiskReleased(dir_.Join("a1"), &why)) << why;
  EXPECT_FALSE(ProbeDiskReleased(dir_.Join("a0"), &why));

  state.targets[0].offline = true;
  ApplyClean(state);
  EXPECT_EQ(tgtd_.Find(kA), nullptr);
  EXPECT_TRUE(ProbeDiskReleased(dir_.Join("a0"), &why)) << why;
  EXPECT_NE(tgtd_.Find(kB), nullptr);

  state.targets[0].offline = false;
  state.targets[0].luns[1].offline = false;
  ApplyClean(state);
  ASSERT_NE(tgtd_.Find(kA), nullptr);
  EXPECT_EQ(tgtd_.Find(kA)->luns.size(), 2u);
  EXPECT_FALSE(ProbeDiskReleased(dir_.Join("a1"), &why));
}

TEST_F(ReconcilerTest, GrownDiskIsReopenedOnlineOnce) {
  DesiredState state;
  state.targets.push_back(MakeTarget(kA, {Disk("a0", 8 << 20)}));
  state.targets[0].luns[0].naa = "6ABCDEF0123456789ABCDEF012345678";
  ApplyClean(state);
  EXPECT_EQ(tgtd_.Find(kA)->luns.at(1).scsiId, "6ABCDEF0123456789ABCDEF012345678");

  SparseFile(dir_.Join("a0"), 24 << 20);
  ApplyClean(state);
  const FakeTgtd::Lun& lun = tgtd_.Find(kA)->luns.at(1);
  EXPECT_EQ(lun.opens, 2);
  EXPECT_EQ(lun.openedBytes, 24u << 20);
  EXPECT_TRUE(lun.online);
  EXPECT_GE(tgtd_.IndexOf("UpdateLun", "1 online=0,path=" + dir_.Join("a0")), 0);
  ServedStatus status;
  std::string error;
  ASSERT_TRUE(rec_.Status(&status, &error));
  EXPECT_EQ(status.targets[0].luns[0].sizeBytes, 24u << 20);

  EXPECT_EQ(ApplyClean(state).changes, 0);

  // A new backing file for the same slot replaces the LUN.
  state.targets[0].luns[0].path = Disk("a0-new", 4 << 20);
  ApplyClean(state);
  EXPECT_EQ(tgtd_.Find(kA)->luns.at(1).path, dir_.Join("a0-new"));
  std::string why;
  EXPECT_TRUE(ProbeDiskReleased(dir_.Join("a0"), &why)) << why;
}

TEST_F(ReconcilerTest, PortalsResolveInterfacesAndReportAddressesThatCannotBeHad) {
  log::LogCapture capture;
  DesiredState state;
  state.targets.push_back(MakeTarget(kA, {Disk("a0")}, "nuk0", 3260));
  state.targets.push_back(MakeTarget(kB, {Disk("b0")}, "nuk1", 3261));
  state.targets.push_back(MakeTarget(kC, {Disk("c0")}, "nuk9", 3262));
  tgtd_.unbindablePortals.insert("127.0.0.5:3260");

  ReconcileResult r = rec_.Apply(state);
  ASSERT_EQ(r.problems.size(), 2u) << Messages(r);
  EXPECT_EQ(r.problems[0].target, kC);
  EXPECT_EQ(r.problems[0].message, "network interface nuk9 not found");
  EXPECT_EQ(r.problems[1].code, Outcome::kReservation);
  EXPECT_NE(r.problems[1].message.find("portal 127.0.0.5:3260 cannot be obtained"),
            std::string::npos);
  EXPECT_EQ(r.problems[1].target, kA);
  EXPECT_EQ(r.problems[1].portal, "127.0.0.5:3260");
  EXPECT_EQ(r.portalsWanted, 3);
  EXPECT_EQ(r.portalsObtained, 1);
  EXPECT_EQ(OutcomeOf(r.problems), Outcome::kFailure);
  EXPECT_EQ(OutcomeOf({r.problems[1]}), Outcome::kReservation);
  EXPECT_EQ(tgtd_.portals, std::vector<std::string>{"[::1]:3261"});
  EXPECT_TRUE(capture.Contains("keld: creating new nuknic portal for nuk1 on ::1:3261"))
      << capture.Joined();
  // Every target is served all the same (tgtd serves all targets on all portals).
  EXPECT_NE(tgtd_.Find(kA), nullptr);
  EXPECT_NE(tgtd_.Find(kC), nullptr);

  // Once the address is free it is taken; a portal nobody names any more goes.
  tgtd_.unbindablePortals.clear();
  state.targets.erase(state.targets.begin() + 1);
  state.targets.pop_back();
  ApplyClean(state);
  EXPECT_EQ(tgtd_.portals, std::vector<std::string>{"127.0.0.5:3260"});
}

TEST_F(ReconcilerTest, DiskHeldExclusivelyIsNotServedUntilReleased) {
  DesiredState state;
  state.targets.push_back(MakeTarget(kA, {Disk("a0"), Disk("a1")}));
  ReconcileResult r;
  {
    ExclusiveDiskLock removal(dir_.Join("a1"));
    ASSERT_TRUE(removal.held());
    r = rec_.Apply(state);
  }
  ASSERT_EQ(r.problems.size(), 1u) << Messages(r);
  EXPECT_NE(r.problems[0].message.find("LUN 1 (SCSI LUN 2)"), std::string::npos);
  EXPECT_NE(r.problems[0].message.find("locked by another host"), std::string::npos);
  EXPECT_EQ(tgtd_.Find(kA)->luns.count(2), 0u);
  EXPECT_EQ(tgtd_.Find(kA)->luns.count(1), 1u);

  ApplyClean(state);
  EXPECT_EQ(tgtd_.Find(kA)->luns.count(2), 1u);
}

TEST_F(ReconcilerTest, FailuresStayWithTheirTargetAndAreRepairedNextTime) {
  DesiredState state;
  state.targets.push_back(MakeTarget(kA, {Disk("a0")}));
  state.targets.push_back(MakeTarget(kB, {Disk("b0")}));
  tgtd_.FailNext("BindAcl", TgtError::kFailed, "out of memory");
  ReconcileResult r = rec_.Apply(state);
  ASSERT_EQ(r.problems.size(), 1u) << Messages(r);
  EXPECT_EQ(r.problems[0].target, kA);
  EXPECT_EQ(r.problems[0].message, "cannot add ACL rule ALL: out of memory");
  EXPECT_FALSE(tgtd_.Visible(kA, "iqn.1994-05.com.example:x"));
  EXPECT_TRUE(tgtd_.Visible(kB, "iqn.1994-05.com.example:x"));

  ApplyClean(state);
  EXPECT_TRUE(tgtd_.Visible(kA, "iqn.1994-05.com.example:x"));

  tgtd_.running = false;
  size_t calls = tgtd_.calls.size();
  r = rec_.Apply(state);
  ASSERT_EQ(r.problems.size(), 1u);
  EXPECT_NE(r.problems[0].message.find("cannot read tgtd's state"), std::string::npos);
  EXPECT_EQ(tgtd_.calls.size(), calls);
}

TEST_F(ReconcilerTest, InvalidTargetsAreRefusedAndWhatTheyServeIsLeftAlone) {
  DesiredState state;
  state.targets.push_back(MakeTarget(kA, {Disk("a0")}));
  state.targets[0].auth = AuthRule::kChap;
  state.targets[0].chap = {{"keep-user", "keep-secret-12", "", ""}};
  ApplyClean(state);

  DesiredState bad = state;
  bad.targets[0].luns.push_back({256, Disk("a256"), false, "", ""});
  bad.targets.push_back(MakeTarget(kB, {Disk("b0"), Disk("b1")}));
  bad.targets[1].luns[1].id = 0;
  bad.targets.push_back(MakeTarget(kC, {Disk("c0")}));
  bad.targets[2].auth = AuthRule::kChapMutual;
  bad.targets[2].chap = {{"u", "some-secret-12", "", ""}};
  bad.targets.push_back(bad.targets[1]);
  ReconcileResult r = rec_.Apply(bad);
  std::vector<std::string> messages;
  for (const Problem& p : r.problems) messages.push_back(p.target + ": " + p.message);
  EXPECT_EQ(messages,
            (std::vector<std::string>{
                std::string(kA) + ": LUN id 256 is out of range (0..255)",
                std::string(kB) + ": LUN id 0 is given twice",
                std::string(kC) + ": CHAP-Mutual is required but no mutual credentials are given",
                std::string(kB) + ": the target is listed twice"}));
  // A is served as before, with its account; B and C were not created.
  ASSERT_NE(tgtd_.Find(kA), nullptr);
  EXPECT_EQ(tgtd_.Find(kA)->incoming, std::vector<std::string>{"keep-user"});
  EXPECT_EQ(tgtd_.accounts.count("keep-user"), 1u);
  EXPECT_EQ(tgtd_.Find(kB), nullptr);
  EXPECT_EQ(tgtd_.Find(kC), nullptr);
}

// What a reload or restart reports when one target cannot be served as asked: the reloads of
// other changes succeed with a warning; the one that changed that target fails.
TEST_F(ReconcilerTest, ABrokenTargetFailsOnlyTheReloadThatChangedIt) {
  const std::string broken = "127.0.0.5:3260";
  ChangeTracker tracker;
  DesiredState state;
  state.targets.push_back(MakeTarget(kA, {Disk("a0")}, "nuk0", 3260));
  state.targets.push_back(MakeTarget(kB, {Disk("b0")}, "nuk0", 3261));
  tgtd_.unbindablePortals.insert(broken);
  auto reconcile = [&](uint64_t generation) {
    ReconcileResult r = rec_.Apply(state);
    tracker.Applied(state, generation);
    return r;
  };

  CommandReport start = tracker.Restart(reconcile(1));
  EXPECT_EQ(start.code, Outcome::kOk);
  EXPECT_TRUE(start.failures.empty());
  ASSERT_EQ(start.warnings.size(), 1u);
  EXPECT_EQ(start.warnings[0].target, kA);
  EXPECT_EQ(start.warnings[0].portal, broken);

  // Generation 2 adds C: served, and A's problem is only a warning.
  state.targets.push_back(MakeTarget(kC, {Disk("c0")}, "nuk0", 3262));
  CommandReport add = tracker.Reload(reconcile(2).problems);
  EXPECT_EQ(add.code, Outcome::kOk);
  EXPECT_TRUE(add.failures.empty());
  ASSERT_EQ(add.warnings.size(), 1u);
  EXPECT_EQ(add.warnings[0].target, kA);
  EXPECT_NE(tgtd_.Find(kC), nullptr);

  // Generation 3 changes A; keld follows it on its own before the reload comes, which must still
  // report A's problem as the failure of this change.
  state.targets[0].luns.push_back({1, Disk("a1"), false, "", ""});
  reconcile(3);
  CommandReport change = tracker.Reload(reconcile(3).problems);
  EXPECT_EQ(change.code, Outcome::kFailure);
  ASSERT_EQ(change.failures.size(), 1u);
  EXPECT_EQ(change.failures[0].target, kA);
  EXPECT_TRUE(change.warnings.empty());
  // Reported once: neither a reload without a write nor the next write that leaves A alone
  // fails for it again.
  EXPECT_EQ(tracker.Reload(reconcile(3).problems).code, Outcome::kOk);
  EXPECT_EQ(tracker.Reload(reconcile(4).problems).code, Outcome::kOk);
  // Nor a reload after keld followed another host's change of A (generation 5) on its own and
  // then this host's change of B (generation 6).
  state.targets[0].alias = "changed elsewhere";
  reconcile(5);
  state.targets[1].alias = "changed here";
  EXPECT_EQ(tracker.Reload(reconcile(6).problems).code, Outcome::kOk);

  // Daemon-wide problems fail every reload, whatever changed.
  tgtd_.running = false;
  CommandReport down = tracker.Reload(reconcile(6).problems);
  tgtd_.running = true;
  EXPECT_EQ(down.code, Outcome::kFailure);
  ASSERT_EQ(down.failures.size(), 1u);
  EXPECT_TRUE(down.failures[0].daemonWide);

  // The report survives the way to the control program.
  CommandReport back;
  nlohmann::json j = CommandReportToJson(change);
  back.failures = ProblemsFromJson(j.at("problems"));
  EXPECT_EQ(j.at("code"), 2);
  ASSERT_EQ(back.failures.size(), 1u);
  EXPECT_EQ(back.failures[0].portal, broken);
  EXPECT_EQ(back.failures[0].code, Outcome::kReservation);
  EXPECT_FALSE(back.failures[0].daemonWide);

  // A restart none of whose portals can be had fails as one reservation per address, even when
  // several targets share it; with one portal that works it would not.
  state.targets = {MakeTarget(kA, {Disk("a0")}, "nuk0", 3260),
                   MakeTarget(kB, {Disk("b0")}, "nuk0", 3260)};
  ReconcileResult none = reconcile(7);
  EXPECT_EQ(none.problems.size(), 2u) << Messages(none);
  CommandReport failed = tracker.Restart(none);
  EXPECT_EQ(failed.code, Outcome::kReservation);
  ASSERT_EQ(failed.failures.size(), 1u);
  EXPECT_EQ(failed.failures[0].target, "");
  EXPECT_EQ(failed.failures[0].portal, broken);
  EXPECT_TRUE(failed.failures[0].daemonWide);
  EXPECT_TRUE(failed.warnings.empty());
  state.targets[1].portals[0].port = 3263;
  EXPECT_EQ(tracker.Restart(reconcile(8)).code, Outcome::kOk);
  // Interfaces without an address count as portals that cannot be had, too.
  state.targets = {MakeTarget(kA, {Disk("a0")}, "nuk9", 3264)};
  CommandReport nowhere = tracker.Restart(reconcile(9));
  EXPECT_EQ(nowhere.code, Outcome::kFailure);
  ASSERT_EQ(nowhere.warnings.size(), 1u);
  EXPECT_EQ(nowhere.warnings[0].message, "network interface nuk9 not found");
}

// Without generations (a JSON desired state) every different state is a change of its own.
TEST(ChangeTracker, WithoutGenerationsTheLatestDifferenceIsTheChange) {
  DesiredState state;
  state.targets.push_back(MakeTarget(kA, {"/a0"}));
  state.targets.push_back(MakeTarget(kB, {"/b0"}));
  const std::vector<Problem> problems = {{Outcome::kFailure, kA, "a is broken"},
                                         {Outcome::kFailure, kB, "b is broken"}};
  ChangeTracker tracker;
  tracker.Applied(state, 0);
  EXPECT_EQ(tracker.Restart(ReconcileResult{problems, 0, 0, 0}).code, Outcome::kOk);

  state.targets[0].alias = "first";
  tracker.Applied(state, 0);
  state.targets[1].alias = "second";
  tracker.Applied(state, 0);
  tracker.Applied(state, 0);  // the reload reads it again
  CommandReport r = tracker.Reload(problems);
  ASSERT_EQ(r.failures.size(), 1u);
  EXPECT_EQ(r.failures[0].target, kB);
  ASSERT_EQ(r.warnings.size(), 1u);
  EXPECT_EQ(r.warnings[0].target, kA);

  // A removed target is a change as well.
  state.targets.pop_back();
  tracker.Applied(state, 0);
  r = tracker.Reload(problems);
  ASSERT_EQ(r.failures.size(), 1u);
  EXPECT_EQ(r.failures[0].target, kB);
}

}  // namespace
}  // namespace keld
}  // namespace kel
