// The management operations through the interface, on a real temporary datastore with the
// embedded directory and a recording daemon double: what reaches kel.conf, the datastore and the
// directory, what a refusal leaves behind (nothing), and the cluster limits.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "directory/host_queries.h"
#include "host/validation.h"
#include "platform/clock.h"
#include "platform/host_controls.h"
#include "platform/log.h"
#include "platform/settings.h"
#include "service/default_iqn.h"
#include "service/service_internal.h"
#include "tests/service/service_env.h"

namespace kel {
namespace testing {
namespace {

class ServiceOps : public ::testing::Test {
 protected:
  TestHost host_;
  std::shared_ptr<OrsaIscsiTarget> svc_ = NewService();
};

TEST_F(ServiceOps, EnableDisableAndTheStateCheck) {
  EXPECT_EQ(ErrorOf([&] { svc_->SetIscsiTargetStatus(true, false); }),
            "Orsa iSCSI namespace does not exist. Please create namespace if not already "
            "created.");
  DefaultInfo defaults;
  defaults.networkInterface = "nuk0";
  svc_->CreateNamespace(NamespaceCreateParam(), defaults);
  EXPECT_TRUE(host_.ControlRuns().empty());

  // Disabled: configuration operations are refused and change nothing; the lenient check passes
  // without bringing up a library.
  const std::string before = host_.Snapshot();
  EXPECT_EQ(ErrorOf([&] { AddTarget(*svc_, "t1"); }), kNotEnabled);
  EXPECT_EQ(ErrorOf([&] { svc_->AddInitiatorgroup("g1"); }), kNotEnabled);
  EXPECT_EQ(ErrorOf([&] { svc_->UpdateDefaultConfig(defaults); }), kNotEnabled);
  EXPECT_EQ(ErrorOf([&] { svc_->RemoveLun(0, "t1", false); }), kNotEnabled);
  EXPECT_EQ(host_.Snapshot(), before);
  {
    auto fresh = std::make_shared<Kel::OrsaIscsiTargetImpl>();
    fresh->CheckIscsiServiceStatus(true);
    EXPECT_FALSE(fresh->VirtualDiskReadyForTest());
    EXPECT_FALSE(fresh->ComplianceReadyForTest());
  }
  auto* impl = dynamic_cast<Kel::OrsaIscsiTargetImpl*>(svc_.get());
  ASSERT_NE(impl, nullptr);

  log::LogCapture enableLog;
  svc_->SetIscsiTargetStatus(true, false);
  EXPECT_EQ(host_.ControlRuns(), std::vector<std::string>{"++group=serad-tmp restart"});
  // Namespace creation had brought the libraries up; enabling starts them afresh.
  EXPECT_TRUE(enableLog.Contains("De-initializing disk lib."));
  EXPECT_TRUE(enableLog.Contains("Initialized compliance lib."));
  EXPECT_TRUE(svc_->GetIscsiTargetStatus(true));
  EXPECT_TRUE(impl->VirtualDiskReadyForTest());
  EXPECT_TRUE(impl->ComplianceReadyForTest());
  EXPECT_TRUE(Kel::ConfigCache::IsLodexSubscribed());
  EXPECT_TRUE(PathExists(host_.state_dir() + "/run/module-kel.loaded"));
  EXPECT_TRUE(platform::LoadSettings().serviceEnabled);
  EXPECT_TRUE(platform::LoadSettings().startAtBoot);

  // Unchanged state: nothing is done, or the caller is told.
  svc_->SetIscsiTargetStatus(true, false);
  EXPECT_EQ(host_.ControlRuns().size(), 1u);
  EXPECT_EQ(ErrorOf([&] { svc_->SetIscsiTargetStatus(true, true); }),
            "Orsa iSCSI Target service is already enabled on this host");
  EXPECT_TRUE(NewService()->GetIscsiTargetStatus(true)) << "another object sees the stored state";

  svc_->SetIscsiTargetStatus(false, false);
  EXPECT_EQ(host_.ControlRuns().back(), "++group=serad-tmp io_stop");
  EXPECT_FALSE(impl->VirtualDiskReadyForTest());
  EXPECT_FALSE(Kel::ConfigCache::IsLodexSubscribed());
  EXPECT_FALSE(PathExists(host_.state_dir() + "/run/module-kel.loaded"));
  EXPECT_FALSE(platform::LoadSettings().startAtBoot);
  EXPECT_EQ(ErrorOf([&] { svc_->SetIscsiTargetStatus(false, true); }),
            "Orsa iSCSI Target service is already disabled on this host");

  // A daemon that cannot reserve its resources fails the enable, which may be tried again.
  host_.ControlExitsWith(1);
  EXPECT_EQ(ErrorOf([&] { svc_->SetIscsiTargetStatus(true, false); }),
            "Failed to reserve keld memory (return code 1)");
  EXPECT_FALSE(platform::LoadSettings().serviceEnabled);
  host_.ControlExitsWith(0);
  svc_->SetIscsiTargetStatus(true, true);
  EXPECT_TRUE(svc_->GetIscsiTargetStatus(true));
}

TEST_F(ServiceOps, TargetsWithEachAuthenticationTypeLandInTheFile) {
  Ready(*svc_);
  svc_->AddInitiatorgroup("srv");
  TargetCreateParam none = NewTarget("plain");
  svc_->AddTarget(none);
  TargetCreateParam chap = NewTarget("chap");
  chap.iqn = "iqn.2024-01.com.example:chap";
  chap.authType = "CHAP";
  chap.chapName = "initiator-user";
  chap.chapSecret = kSecret;
  chap.networkInterface = "nuk0";
  chap.port = 3261;
  svc_->AddTarget(chap);
  TargetCreateParam mutual = NewTarget("mutual");
  mutual.authType = "CHAP-Mutual";
  mutual.chapName = "in-user";
  mutual.chapSecret = kSecret;
  mutual.mutualChapName = "out-user";
  mutual.mutualChapSecret = kMutualSecret;
  mutual.initiators = {"iqn.1998-01.com.example:host1", "srv"};
  mutual.affinitySite = "Preferred";
  svc_->AddTarget(mutual);

  // The generated IQN replaced the empty one and the namespace's uuid came back.
  EXPECT_EQ(none.iqn.rfind("iqn.", 0), 0u);
  EXPECT_NE(none.iqn.find(".local.kel:"), std::string::npos);
  for (const TargetCreateParam* p : {&none, &chap, &mutual}) {
    EXPECT_EQ(p->uuid.size(), 36u);
    EXPECT_TRUE(PathExists(host_.DatastoreJoin(p->uuid)));
    EXPECT_TRUE(PathExists(Kel::Util::GetTargetsDirPath() + "/" + p->uuid));
    EXPECT_EQ(Kel::Util::GetTargetOwnerHostUuid(p->uuid), kHostUuid);
  }

  ConfPtr model = ReadModel();
  const struct target* t = TargetByAlias(model.get(), "chap");
  ASSERT_NE(t, nullptr);
  EXPECT_STREQ(t->t_name, "iqn.2024-01.com.example:chap");
  EXPECT_EQ(TargetOption(t, "uuid"), chap.uuid);
  EXPECT_EQ(TargetOption(t, "owner-id"), chap.uuid);
  EXPECT_EQ(t->t_auth_group->ag_type, AG_TYPE_CHAP);
  EXPECT_STREQ(TAILQ_FIRST(&t->t_auth_group->ag_auths)->a_secret, kSecret);
  EXPECT_STREQ(TAILQ_FIRST(&t->t_ports)->p_portal_group->pg_name, "pg-nuk0-3261");
  t = TargetByAlias(model.get(), "mutual");
  EXPECT_STREQ(TAILQ_FIRST(&t->t_auth_group->ag_auths)->a_mutual_secret, kMutualSecret);

  // Reads: owner and name resolved, never a secret.
  const TargetInfo info = svc_->GetTargetInfo("mutual");
  EXPECT_EQ(info.authType, "CHAP-Mutual");
  EXPECT_EQ(info.mutualChapName, "out-user");
  EXPECT_EQ(info.affinitySite, "Preferred");
  EXPECT_EQ(info.ownerHostUuid, kHostUuid);
  EXPECT_EQ(info.ownerHostName, "host-a");
  EXPECT_EQ(info.initiators, std::vector<std::string>{"iqn.1998-01.com.example:host1"});
  EXPECT_EQ(info.initiatorGroups, std::vector<std::string>{"srv"});
  EXPECT_EQ(svc_->GetTargets(true, false).size(), 3u);
  EXPECT_EQ(svc_->GetTargets(true, true).size(), 3u);  // this host owns all of them
}

TEST_F(ServiceOps, UpdateKeepsWhatIsNotGivenAndRemoveGoesOfflineFirst) {
  Ready(*svc_);
  TargetCreateParam p = NewTarget("t1");
  p.authType = "CHAP";
  p.chapName = "user1";
  p.chapSecret = kSecret;
  p.initiators = {"iqn.1998-01.com.example:a", "iqn.1998-01.com.example:b"};
  svc_->AddTarget(p);
  const std::string uuid = p.uuid;

  TargetCreateParam change = NewTarget("t1");
  change.networkInterface = "nuk0";
  change.port = 3270;
  change.status = "offline";
  change.initiators = {"iqn.1998-01.com.example:b"};
  const size_t runsBefore = host_.ControlRuns().size();
  svc_->UpdateTargetConfig(change);
  EXPECT_EQ(change.uuid, uuid);
  EXPECT_EQ(host_.ControlRuns().size(), runsBefore + 1);
  EXPECT_EQ(host_.ControlRuns().back(), "++group=serad-tmp reload");
  const TargetInfo info = svc_->GetTargetInfo("t1");
  EXPECT_EQ(info.port, 3270);
  EXPECT_EQ(info.authType, "CHAP");  // empty auth type: kept
  EXPECT_EQ(info.initiators, std::vector<std::string>{"iqn.1998-01.com.example:b"});
  EXPECT_EQ(TargetOption(TargetByAlias(ReadModel().get(), "t1"), "status"), "offline");

  AddLun(*svc_, "t1", "4MiB");
  log::LogCapture capture;
  svc_->RemoveTarget("t1");
  // Offline (written and reloaded) before the namespace goes.
  std::vector<std::string> order;
  for (const auto& r : capture.Records()) {
    for (const char* step : {"Updating target t1 status to offline", "Delete target namespace",
                             "Removing target alias t1"}) {
      if (r.text.find(step) != std::string::npos) order.push_back(step);
    }
  }
  EXPECT_EQ(order,
            (std::vector<std::string>{"Updating target t1 status to offline",
                                      "Delete target namespace", "Removing target alias t1"}))
      << capture.Joined();
  EXPECT_FALSE(PathExists(host_.DatastoreJoin(uuid)));
  EXPECT_FALSE(PathExists(Kel::Util::GetTargetsDirPath() + "/" + uuid));
  EXPECT_EQ(TargetByAlias(ReadModel().get(), "t1"), nullptr);
  platform::ObjectOwner owner;
  EXPECT_EQ(platform::GetDirectory()->GetObjectOwner(uuid, &owner), NUK_NOT_FOUND);
}

TEST_F(ServiceOps, RefusalsChangeNothing) {
  Ready(*svc_);
  TargetCreateParam existing = NewTarget("t1");
  existing.iqn = "iqn.2024-01.com.example:t1";
  svc_->AddTarget(existing);
  AddLun(*svc_, "t1", "1MiB", 0);
  svc_->AddInitiatorgroup("g1");

  auto addTarget = [&](std::function<void(TargetCreateParam&)> edit) {
    return [this, edit] {
      TargetCreateParam p = NewTarget("x");
      edit(p);
      svc_->AddTarget(p);
    };
  };
  auto addLun = [&](LunInfo l) { return [this, l]() mutable { svc_->AddLun(l); }; };
  const struct {
    std::function<void()> run;
    std::string expected;  // the whole message, or its start when it ends in "*"
  } cases[] = {
      {addTarget([](TargetCreateParam& p) { p.iqn = "iqn.20-01.bad"; }),
       "Invalid IQN 'iqn.20-01.bad'*"},
      {addTarget([](TargetCreateParam& p) { p.alias = "a\"b"; }), "'\"' not permitted in alias"},
      {addTarget([](TargetCreateParam& p) {
         p.authType = "CHAP";
         p.chapName = "u";
         p.chapSecret = "short";
       }),
       "Failed to verify authentication type CHAP for target x with error: User secret*"},
      {addTarget([](TargetCreateParam& p) { p.authType = "Kerberos"; }),
       "Failed to verify authentication type Kerberos for target x with error: Found invalid "
       "auth type Kerberos"},
      {addTarget([](TargetCreateParam& p) {
         p.networkInterface = "nuk0";
         p.port = 80;
       }),
       "Invalid port 80 provided for interface nuk0, valid port range is 1024 < port <= 65535"},
      {addTarget([](TargetCreateParam& p) { p.affinitySite = "Mars"; }),
       "Invalid site affinity 'Mars'*"},
      {addTarget([](TargetCreateParam& p) { p.alias = "t1"; }), "Target t1 already exists"},
      {addTarget([](TargetCreateParam& p) { p.iqn = "iqn.2024-01.com.example:T1"; }), "*"},
      {addTarget([](TargetCreateParam& p) { p.initiators = {"nogroup"}; }),
       "initiator group  \"nogroup\" not found"},
      {[&] {
         TargetCreateParam p = NewTarget("nope");
         svc_->UpdateTargetConfig(p);
       },
       "Target nope not found"},
      {[&] {
         TargetCreateParam p = NewTarget("t1");
         p.iqn = "iqn.bad name";
         svc_->UpdateTargetConfig(p);
       },
       "Invalid IQN 'iqn.bad name'*"},
      {[&] { svc_->RemoveTarget("nope"); }, "Target nope not found"},
      {addLun(NewLun("t1", "1MiB", 0)), "LUN id 0 already exists for target t1"},
      {addLun(NewLun("t1", "10XB")), "Failed to validate LUN size: *"},
      {addLun(NewLun("nope", "1MiB")), "Target nope not found"},
      {[&] {
         LunInfo l = NewLun("t1", "", 0);
         svc_->UpdateLun(l, 7, "", true);
       },
       "Changing the ID of an online LUN is not allowed. Bring the LUN offline first."},
      {[&] { svc_->GetLunInfo("t1", 9); }, "LUN id 9 not found for target t1"},
      {[&] { svc_->AddInitiatorgroup("iqn.group"); },
       "Invalid initiator group name 'iqn.group'. Initiator group name cannot start with 'iqn.' "
       "or 'eui.'"},
      {[&] { svc_->AddInitiatorsToInitiatorgroup("g1", {"not-an-iqn"}); },
       "Invalid initiator IQN: 'not-an-iqn'*"},
      {[&] { svc_->GetInitiatorgroupInfo("none"); },
       "Failed to retrieve initiator group info with error Initiator group none not found"},
      {[&] {
         DefaultInfo d;
         d.port = 3300;
         svc_->UpdateDefaultConfig(d);
       },
       "Network interface is not provided for port 3300"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    const std::string before = host_.Snapshot();
    const std::string message = ErrorOf(c.run);
    ASSERT_FALSE(message.empty()) << "not refused";
    if (c.expected.back() == '*') {
      EXPECT_EQ(message.rfind(c.expected.substr(0, c.expected.size() - 1), 0), 0u) << message;
    } else {
      EXPECT_EQ(message, c.expected);
    }
    EXPECT_EQ(host_.Snapshot(), before);
  }
}

TEST_F(ServiceOps, LunSizesIdChangesAndMovesBetweenTargets) {
  Ready(*svc_);
  AddTarget(*svc_, "t1");
  const TargetCreateParam t2 = AddTarget(*svc_, "t2");

  // Each unit is rounded up to whole sectors on its own.
  const std::vector<std::pair<std::string, int64_t>> sizes = {
      {"1MB", 1954},  {"1GB", 1953125},  {"1TB", 1953125000},
      {"3mib", 6144}, {"1GiB", 2097152}, {"1TiB", 2147483648LL}};
  for (const auto& [text, sectors] : sizes) {
    LunInfo l = NewLun("t1", text);
    l.alias = "disk-" + text;
    svc_->AddLun(l);
  }
  std::vector<LunInfo> luns;
  svc_->GetLuns("t1", luns, true);
  ASSERT_EQ(luns.size(), sizes.size());
  ConfPtr model = ReadModel();
  const struct target* t = TargetByAlias(model.get(), "t1");
  for (size_t i = 0; i < sizes.size(); ++i) {
    SCOPED_TRACE(sizes[i].first);
    ASSERT_NE(t->t_luns[i], nullptr);
    EXPECT_EQ(t->t_luns[i]->l_size, sizes[i].second);
    EXPECT_EQ(luns[i].alias, "disk-" + sizes[i].first);
    EXPECT_EQ(luns[i].naa.size(), 32u);  // NAA identifiers are on in this environment
    EXPECT_EQ(static_cast<int64_t>(FileSize(luns[i].path)), sizes[i].second * 512);
  }

  // Number change and move, each only once the LUN is offline.
  LunInfo offline = NewLun("t1", "", 1);
  offline.status = "offline";
  svc_->UpdateLun(offline, -1, "", true);
  LunInfo renumber = NewLun("t1", "", 1);
  svc_->UpdateLun(renumber, 9, "", true);
  EXPECT_EQ(svc_->GetLunInfo("t1", 9).alias, "disk-1GB");
  EXPECT_EQ(ErrorOf([&] { svc_->GetLunInfo("t1", 1); }), "LUN id 1 not found for target t1");
  const std::string oldPath = svc_->GetLunInfo("t1", 9).path;
  LunInfo move = NewLun("t1", "", 9);
  svc_->UpdateLun(move, -1, "t2", true);
  const LunInfo moved = svc_->GetLunInfo("t2", 0);
  EXPECT_EQ(moved.alias, "disk-1GB");
  EXPECT_EQ(moved.status, "offline");
  EXPECT_NE(moved.path.find("/" + t2.uuid + "/"), std::string::npos);
  EXPECT_TRUE(PathExists(moved.path));
  EXPECT_FALSE(PathExists(oldPath));

  // A policy given on update reaches the disk; an update without one leaves it alone.
  LunInfo withPolicy = NewLun("t1", "", 0);
  withPolicy.storagePolicy = "((\"proportionalCapacity\" i5))";
  svc_->UpdateLun(withPolicy, -1, "", true);
  LunInfo aliasOnly = NewLun("t1", "", 0);
  aliasOnly.alias = "renamed";
  svc_->UpdateLun(aliasOnly, -1, "", true);
  std::vector<LunInfo> checked;
  svc_->GetLuns("t1", checked, true);
  EXPECT_EQ(checked[0].alias, "renamed");
  EXPECT_EQ(checked[0].storagePolicy, "((\"proportionalCapacity\" i5))");

  // Grow, then removal of a LUN whose disk is already gone removes the entry with a warning.
  LunInfo grow = NewLun("t1", "2MB", 0);
  svc_->UpdateLun(grow, -1, "", true);
  EXPECT_EQ(svc_->GetLunInfo("t1", 0).sizeMiB, 3908u * 512 / 1048576);
  log::LogCapture capture;
  ASSERT_EQ(unlink(moved.path.c_str()), 0);
  svc_->RemoveLun(0, "t2", false);
  EXPECT_TRUE(capture.Contains("not found, try remove related entry from kel.conf"));
  luns.clear();
  svc_->GetLuns("t2", luns, false);
  EXPECT_TRUE(luns.empty());
  const std::string diskPath = svc_->GetLunInfo("t1", 0).path;
  svc_->RemoveLun(0, "t1", false);
  EXPECT_FALSE(PathExists(diskPath));
}

TEST_F(ServiceOps, InitiatorGroupsAndDefaults) {
  Ready(*svc_);
  svc_->AddInitiatorgroup("srv");
  svc_->AddInitiatorsToInitiatorgroup("srv",
                                      {"iqn.1998-01.com.example:a", "eui.2001-02.com.example:b"});
  TargetCreateParam t = NewTarget("t1");
  t.iqn = "iqn.2024-01.com.example:t1";
  t.initiators = {"srv"};
  svc_->AddTarget(t);
  auto g = svc_->GetInitiatorgroupInfo("srv");
  EXPECT_EQ(g.initiators,
            (std::vector<std::string>{"iqn.1998-01.com.example:a", "eui.2001-02.com.example:b"}));
  EXPECT_EQ(g.targets, (std::map<std::string, std::string>{{"t1", "iqn.2024-01.com.example:t1"}}));
  svc_->RemoveInitiatorsFromInitiatorgroup("srv", {"iqn.1998-01.com.example:a"});
  EXPECT_EQ(svc_->GetInitiatorgroupInfo("srv").initiators,
            std::vector<std::string>{"eui.2001-02.com.example:b"});

  // Still used by t1: refused without force, detached with it.
  EXPECT_EQ(ErrorOf([&] { svc_->RemoveInitiatorgroup("srv", false); }),
            "Failed to remove initiator group srv with error Initiator group srv is used by "
            "target(s) t1; remove it from them first or use force");
  svc_->RemoveInitiatorgroup("srv", true);
  EXPECT_TRUE(svc_->GetInitiatorgroups().empty());
  EXPECT_TRUE(svc_->GetTargetInfo("t1").initiatorGroups.empty());

  DefaultInfo d;
  d.networkInterface = "nuk0";
  d.port = 3262;
  d.authType = "CHAP-Mutual";
  d.chapName = "def-user";
  d.chapSecret = kSecret;
  d.mutualChapName = "def-target";
  d.mutualChapSecret = kMutualSecret;
  svc_->UpdateDefaultConfig(d);
  const DefaultInfo read = svc_->GetDefaultInfo();
  EXPECT_EQ(read.port, 3262);
  EXPECT_EQ(read.authType, "CHAP-Mutual");
  EXPECT_EQ(read.mutualChapName, "def-target");
  EXPECT_EQ(read.chapSecret, "");
  EXPECT_EQ(read.mutualChapSecret, "");
  // The host's own copy keeps the secrets (it is readable by its owner only).
  EXPECT_EQ(platform::LoadSettings().defaults.chapSecret, kSecret);
}

TEST_F(ServiceOps, NamespaceInfoPolicyAndDeletion) {
  Ready(*svc_);
  const auto info = svc_->GetNamespaceInfo(false);
  EXPECT_EQ(info.uuid.size(), 36u);
  EXPECT_TRUE(info.path.empty());
  EXPECT_EQ(svc_->GetNamespaceInfo(true).path, Kel::Util::GetConfigNamespacePath());

  const std::string before = TreeDigest(host_.datastore());
  svc_->UpdateNamespaceConfig(NamespaceCreateParam());  // empty policy: nothing happens
  EXPECT_EQ(TreeDigest(host_.datastore()), before);
  NamespaceCreateParam bad;
  bad.storagePolicy = "((\"locality\" \"Moon\"))";
  EXPECT_EQ(ErrorOf([&] { svc_->UpdateNamespaceConfig(bad); }).rfind("Invalid storage policy", 0),
            0u);
  NamespaceCreateParam good;
  good.storagePolicy = "((\"proportionalCapacity\" i10))";
  svc_->UpdateNamespaceConfig(good);
  EXPECT_EQ(svc_->GetNamespaceInfo(false).storagePolicy, "((\"proportionalCapacity\" i10))");

  svc_->SetIscsiTargetStatus(false, false);
  log::LogCapture capture;
  svc_->DeleteNamespace();
  EXPECT_FALSE(PathExists(Kel::Util::GetConfigNamespacePath()));
  EXPECT_FALSE(PathExists(host_.DatastoreJoin(info.uuid)));
  const std::string lines = capture.Joined();
  const size_t dirs = lines.find("Removing dir");
  ASSERT_NE(dirs, std::string::npos) << lines;
  EXPECT_NE(lines.find(info.uuid, dirs), std::string::npos) << "the namespace goes last";
}

TEST_F(ServiceOps, TransferOnOneHostMakesOnePassPerRetryAndKeepsTheTarget) {
  Ready(*svc_);
  const TargetCreateParam p = AddTarget(*svc_, "t1");
  platform::ScopedFakeClock clock;
  log::LogCapture capture;
  std::vector<TargetInfo> targets = svc_->GetTargets(true, true);
  ASSERT_EQ(targets.size(), 1u);
  svc_->TransferTargetsOwner(targets, 0);
  EXPECT_EQ(targets.size(), 1u);
  EXPECT_EQ(clock.clock().Sleeps(),
            std::vector<std::chrono::milliseconds>{std::chrono::milliseconds(1000)});
  EXPECT_TRUE(capture.Contains("still remain on host"));
  EXPECT_TRUE(capture.Contains("Retry transfer target, remain retry -1"));
  EXPECT_TRUE(capture.Contains("Not all targets successfully transfered"));
  svc_->TransferTargetsOwner(targets, 2);
  EXPECT_EQ(clock.clock().Sleeps().size(), 4u);
  EXPECT_EQ(Kel::Util::GetTargetOwnerHostUuid(p.uuid), kHostUuid);

  uint32_t nodes = 1;
  Kel::TransferAllLocalTargets(&nodes, svc_.get());
  EXPECT_TRUE(capture.Contains("Skip target transfer since there is only one node."));
  EXPECT_EQ(clock.clock().Sleeps().size(), 4u);
}

std::vector<std::string> Aliases(int n) {
  std::vector<std::string> out;
  for (int i = 0; i < n; ++i) out.push_back("t" + std::to_string(i));
  return out;
}

// The cluster limits: a configuration already at a limit (written directly, not built by
// thousands of calls) refuses one more, and the refusal leaves kel.conf and the datastore exactly
// as they were, including the namespace AddTarget had already made; one below the limit is still
// accepted.
class ServiceLimits : public ::testing::Test {
 protected:
  void SetUp() override { Ready(*svc_); }

  void Install(const ConfShape& shape) {
    WriteFile(host_.conf_path(), ConfText(shape), 0600);
    Kel::ConfigCache::CleanupCachedConfig();
  }

  // Runs `fn`, which must be refused with `expected`, and checks that nothing changed.
  void ExpectRefusedUnchanged(const std::function<void()>& fn, const std::string& expected) {
    const std::string before = host_.Snapshot();
    EXPECT_EQ(ErrorOf(fn), expected);
    EXPECT_EQ(host_.Snapshot(), before);
  }

  TestHost host_;
  std::shared_ptr<OrsaIscsiTarget> svc_ = NewService();
};

TEST_F(ServiceLimits, TheHundredTwentyNinthTargetLeavesNoNamespaceBehind) {
  Install({7, Aliases(128)});
  log::LogCapture capture;
  ExpectRefusedUnchanged([&] { AddTarget(*svc_, "one-more"); },
                         "Limit on total number of targets (128) has been reached.");
  // The namespace had been made before the file refused the target.
  EXPECT_TRUE(
      capture.Contains("Add target one-more failed: Limit on total number of targets "
                       "(128) has been reached. rollback by deleting target namespace"));
  EXPECT_EQ(svc_->GetTargets(true, false).size(), 128u);
  svc_->RemoveTarget("t127");
  AddTarget(*svc_, "one-more");
}

TEST_F(ServiceLimits, TheThousandTwentyFifthLun) {
  Install({7, Aliases(4), 256});
  AddTarget(*svc_, "free");
  ExpectRefusedUnchanged([&] { AddLun(*svc_, "free", "1MiB"); },
                         "Limit on total number of LUNs (1024) has been reached.");
  // A target's 257th LUN has no number left.
  ExpectRefusedUnchanged([&] { AddLun(*svc_, "t0", "1MiB", 256); },
                         "Invalid LUN id 256: valid ids are 0 to 255");
  // One LUN fewer (its disk never existed: only the entry goes) and the next one fits.
  svc_->RemoveLun(255, "t3", false);
  EXPECT_EQ(ErrorOf([&] { AddLun(*svc_, "free", "1MiB"); }), "");
}

TEST_F(ServiceLimits, TheTwoHundredFiftySeventhGroupAndTheEightThousandOneHundredNinetyThird) {
  Install({7, {}, 0, 256});
  ExpectRefusedUnchanged([&] { svc_->AddInitiatorgroup("g-over"); },
                         "Failed to add initiator group g-over with error: the maximum initiator "
                         "group allowed per cluster is 256. Current value: 256.");

  Install({7, {}, 0, 32, 256});
  const std::string over =
      "the maximum initiators allowed per cluster is: 8192. Current initiator count: 8192. New "
      "initiators count: 1.";
  ExpectRefusedUnchanged(
      [&] { svc_->AddInitiatorsToInitiatorgroup("g0", {"iqn.1998-01.com.example:over"}); }, over);
  // A target's own initiator names count as well; a reference to a group is not an initiator.
  ExpectRefusedUnchanged(
      [&] {
        TargetCreateParam p = NewTarget("admits-one");
        p.initiators = {"iqn.1998-01.com.example:own", "g1"};
        svc_->AddTarget(p);
      },
      over);
  TargetCreateParam groupOnly = NewTarget("admits-group");
  groupOnly.initiators = {"g1"};
  svc_->AddTarget(groupOnly);
}

TEST(ServiceObject, SingletonConstructionAndDestruction) {
  TestHost host;
  host.SetOption("ORSA-iSCSI", "kelLunNaaEnable", 0);
  std::shared_ptr<Kel::OrsaIscsiTargetImpl> a, b;
  std::thread first([&a] { Kel::OrsaIscsiTargetImpl::GetOrsaIscsiTargetImpl(a); });
  std::thread second([&b] { Kel::OrsaIscsiTargetImpl::GetOrsaIscsiTargetImpl(b); });
  first.join();
  second.join();
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a, b);
  EXPECT_FALSE(a->LunNaaEnabledForTest());

  // A factory object is a new one each time, never the singleton.
  auto made = NewService();
  EXPECT_NE(dynamic_cast<Kel::OrsaIscsiTargetImpl*>(made.get()), a.get());
  log::LogCapture capture;
  made.reset();
  EXPECT_EQ(capture.Count("Destructing OrsaIscsiTargetImpl()"), 1u);
  EXPECT_FALSE(capture.Contains("De-initializing"));
}

TEST(ServiceObject, NaaFollowsTheOptionAndAnUnreadableOptionLeavesItOff) {
  TestHost host;
  NukCtl::Util::Sysinfo::SetReaderForTest([](const std::string&, const std::string& name) {
    if (name == "kelLunNaaEnable") throw OrsaCtlException("option store unreadable");
    return int64_t{0};
  });
  log::LogCapture capture;
  {
    Kel::OrsaIscsiTargetImpl impl;
    NukCtl::Util::Sysinfo::SetReaderForTest(nullptr);
    EXPECT_FALSE(impl.LunNaaEnabledForTest());
  }
  EXPECT_TRUE(capture.Contains(
      "OrsaIscsiTargetImpl: Get ORSA CONFIG kelLunNaaEnable failure, do not enable NAA"));
  EXPECT_TRUE(capture.Contains("lunNaa: Disabled"));
  EXPECT_TRUE(Kel::OrsaIscsiTargetImpl().LunNaaEnabledForTest());

  // Off: LUNs get no NAA at all.
  host.SetOption("ORSA-iSCSI", "kelLunNaaEnable", 0);
  auto svc = NewService();
  Ready(*svc);
  AddTarget(*svc, "t1");
  EXPECT_EQ(AddLun(*svc, "t1", "1MiB").naa, "");
  EXPECT_EQ(svc->GetLunInfo("t1", 0).naa, "");
  EXPECT_EQ(ReadFile(host.conf_path()).find("naa"), std::string::npos);
}

TEST(ServiceObject, DefaultIqnIsValidCurrentAndUnique) {
  std::set<std::string> seen;
  char yearMonth[16];
  const std::time_t now = std::time(nullptr);
  struct tm utc;
  gmtime_r(&now, &utc);
  std::strftime(yearMonth, sizeof(yearMonth), "%Y-%m", &utc);
  for (int i = 0; i < 100; ++i) {
    const std::string iqn = Kel::Util::GetDefautltIQN();
    EXPECT_EQ(iqn.rfind(std::string("iqn.") + yearMonth + ".local.kel:", 0), 0u) << iqn;
    TargetCreateParam p = NewTarget("a");
    p.iqn = iqn;
    EXPECT_NO_THROW(Kel::Util::VerifyTargetParams(p));
    seen.insert(iqn);
  }
  EXPECT_EQ(seen.size(), 100u);
}

}  // namespace
}  // namespace testing
}  // namespace kel
