// The management operations through the interface, on a real temporary datastore with the
// embedded directory and a recording daemon double: what reaches kel.conf, the datastore and the
// directory, and what a refusal leaves behind (nothing).
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
  ServiceEnv env_;
  std::shared_ptr<OrsaIscsiTarget> svc_ = NewService();

  // Everything a refusal must leave alone.
  std::string Snapshot() const {
    return Sha256OfFile(env_.conf_path()) + "|" + TreeDigest(env_.datastore());
  }
};

TEST_F(ServiceOps, EnableDisableAndTheStateCheck) {
  EXPECT_EQ(ErrorOf([&] { svc_->SetIscsiTargetStatus(true, false); }),
            "Orsa iSCSI namespace does not exist. Please create namespace if not already "
            "created.");
  DefaultInfo defaults;
  defaults.networkInterface = "nuk0";
  svc_->CreateNamespace(NamespaceCreateParam(), defaults);
  EXPECT_TRUE(env_.ControlRuns().empty());

  // Disabled: configuration operations are refused and change nothing; the lenient check passes
  // without bringing up a library.
  const std::string before = Snapshot();
  TargetCreateParam p = NewTarget("t1");
  EXPECT_EQ(ErrorOf([&] { svc_->AddTarget(p); }), kNotEnabled);
  EXPECT_EQ(ErrorOf([&] { svc_->AddInitiatorgroup("g1"); }), kNotEnabled);
  EXPECT_EQ(ErrorOf([&] { svc_->UpdateDefaultConfig(defaults); }), kNotEnabled);
  EXPECT_EQ(ErrorOf([&] { svc_->RemoveLun(0, "t1", false); }), kNotEnabled);
  EXPECT_EQ(Snapshot(), before);
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
  EXPECT_EQ(env_.ControlRuns(), std::vector<std::string>{"++group=serad-tmp restart"});
  // Namespace creation had brought the libraries up; enabling starts them afresh.
  EXPECT_TRUE(enableLog.Contains("De-initializing disk lib."));
  EXPECT_TRUE(enableLog.Contains("Initialized compliance lib."));
  EXPECT_TRUE(svc_->GetIscsiTargetStatus(true));
  EXPECT_TRUE(impl->VirtualDiskReadyForTest());
  EXPECT_TRUE(impl->ComplianceReadyForTest());
  EXPECT_TRUE(Kel::ConfigCache::IsLodexSubscribed());
  EXPECT_TRUE(PathExists(env_.config().stateDir + "/run/module-kel.loaded"));
  EXPECT_TRUE(platform::LoadSettings().serviceEnabled);
  EXPECT_TRUE(platform::LoadSettings().startAtBoot);

  // Unchanged state: nothing is done, or the caller is told.
  svc_->SetIscsiTargetStatus(true, false);
  EXPECT_EQ(env_.ControlRuns().size(), 1u);
  EXPECT_EQ(ErrorOf([&] { svc_->SetIscsiTargetStatus(true, true); }),
            "Orsa iSCSI Target service is already enabled on this host");

  // A second object of the same host sees the stored state.
  auto other = NewService();
  EXPECT_TRUE(other->GetIscsiTargetStatus(true));

  svc_->SetIscsiTargetStatus(false, false);
  EXPECT_EQ(env_.ControlRuns().back(), "++group=serad-tmp io_stop");
  EXPECT_FALSE(impl->VirtualDiskReadyForTest());
  EXPECT_FALSE(Kel::ConfigCache::IsLodexSubscribed());
  EXPECT_FALSE(PathExists(env_.config().stateDir + "/run/module-kel.loaded"));
  EXPECT_FALSE(platform::LoadSettings().startAtBoot);
  EXPECT_EQ(ErrorOf([&] { svc_->SetIscsiTargetStatus(false, true); }),
            "Orsa iSCSI Target service is already disabled on this host");
}

TEST_F(ServiceOps, DaemonThatCannotReserveItsResourcesFailsTheEnable) {
  DefaultInfo defaults;
  defaults.networkInterface = "nuk0";
  svc_->CreateNamespace(NamespaceCreateParam(), defaults);
  env_.ControlExitsWith(1);
  EXPECT_EQ(ErrorOf([&] { svc_->SetIscsiTargetStatus(true, false); }),
            "Failed to reserve keld memory (return code 1)");
  EXPECT_FALSE(platform::LoadSettings().serviceEnabled);
  env_.ControlExitsWith(0);
  svc_->SetIscsiTargetStatus(true, true);
  EXPECT_TRUE(svc_->GetIscsiTargetStatus(true));
}

TEST_F(ServiceOps, TargetsWithEachAuthenticationTypeLandInTheFile) {
  ServiceEnv::Ready(*svc_);
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
    EXPECT_TRUE(PathExists(env_.datastore() + "/" + p->uuid));
    EXPECT_TRUE(PathExists(Kel::Util::GetTargetsDirPath() + "/" + p->uuid));
    EXPECT_EQ(Kel::Util::GetTargetOwnerHostUuid(p->uuid), kHostUuid);
  }

  ConfPtr model = ReadModel();
  struct target* t = TargetByAlias(model.get(), "chap");
  ASSERT_NE(t, nullptr);
  EXPECT_STREQ(t->t_name, "iqn.2024-01.com.example:chap");
  EXPECT_EQ(TargetOption(t, "uuid"), chap.uuid);
  EXPECT_EQ(TargetOption(t, "owner-id"), chap.uuid);
  ASSERT_NE(t->t_auth_group, nullptr);
  EXPECT_EQ(t->t_auth_group->ag_type, AG_TYPE_CHAP);
  const struct auth* a = TAILQ_FIRST(&t->t_auth_group->ag_auths);
  ASSERT_NE(a, nullptr);
  EXPECT_STREQ(a->a_user, "initiator-user");
  EXPECT_STREQ(a->a_secret, kSecret);
  ASSERT_NE(TAILQ_FIRST(&t->t_ports), nullptr);
  EXPECT_STREQ(TAILQ_FIRST(&t->t_ports)->p_portal_group->pg_name, "pg-nuk0-3261");

  t = TargetByAlias(model.get(), "mutual");
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->t_auth_group->ag_type, AG_TYPE_CHAP_MUTUAL);
  a = TAILQ_FIRST(&t->t_auth_group->ag_auths);
  ASSERT_NE(a, nullptr);
  EXPECT_STREQ(a->a_mutual_user, "out-user");
  EXPECT_STREQ(a->a_mutual_secret, kMutualSecret);
  EXPECT_EQ(TargetOption(t, "fault-domain"), "Preferred");
  EXPECT_NE(auth_name_find(t->t_auth_group, "iqn.1998-01.com.example:host1"), nullptr);
  EXPECT_NE(auth_group_igroup_ref_find(t->t_auth_group, "srv"), nullptr);

  // Reads: owner and name resolved, never a secret.
  const TargetInfo info = svc_->GetTargetInfo("mutual");
  EXPECT_EQ(info.authType, "CHAP-Mutual");
  EXPECT_EQ(info.mutualChapName, "out-user");
  EXPECT_EQ(info.ownerHostUuid, kHostUuid);
  EXPECT_EQ(info.ownerHostName, "host-a");
  EXPECT_EQ(info.initiators, std::vector<std::string>{"iqn.1998-01.com.example:host1"});
  EXPECT_EQ(info.initiatorGroups, std::vector<std::string>{"srv"});
  EXPECT_EQ(svc_->GetTargets(true, false).size(), 3u);
  EXPECT_EQ(svc_->GetTargets(true, true).size(), 3u);  // this host owns all of them
  EXPECT_EQ(ErrorOf([&] { svc_->GetTargetInfo("nope"); }), "Target nope not found");
}

TEST_F(ServiceOps, UpdateKeepsWhatIsNotGivenAndRemoveGoesOfflineFirst) {
  ServiceEnv::Ready(*svc_);
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
  const size_t runsBefore = env_.ControlRuns().size();
  svc_->UpdateTargetConfig(change);
  EXPECT_EQ(change.uuid, uuid);
  EXPECT_EQ(env_.ControlRuns().size(), runsBefore + 1);
  EXPECT_EQ(env_.ControlRuns().back(), "++group=serad-tmp reload");

  ConfPtr model = ReadModel();
  struct target* t = TargetByAlias(model.get(), "t1");
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(TargetOption(t, "status"), "offline");
  EXPECT_STREQ(TAILQ_FIRST(&t->t_ports)->p_portal_group->pg_name, "pg-nuk0-3270");
  EXPECT_EQ(t->t_auth_group->ag_type, AG_TYPE_CHAP);  // empty auth type: kept
  EXPECT_STREQ(TAILQ_FIRST(&t->t_auth_group->ag_auths)->a_secret, kSecret);
  EXPECT_EQ(auth_name_find(t->t_auth_group, "iqn.1998-01.com.example:a"), nullptr);
  EXPECT_NE(auth_name_find(t->t_auth_group, "iqn.1998-01.com.example:b"), nullptr);

  // A bad IQN on update is refused like on creation, before anything changes.
  const std::string before = Sha256OfFile(env_.conf_path());
  TargetCreateParam badIqn = NewTarget("t1");
  badIqn.iqn = "iqn.bad name";
  EXPECT_EQ(ErrorOf([&] { svc_->UpdateTargetConfig(badIqn); }).rfind("Invalid IQN", 0), 0u);
  EXPECT_EQ(Sha256OfFile(env_.conf_path()), before);

  LunInfo lun;
  lun.targetAlias = "t1";
  lun.sizeText = "4MiB";
  svc_->AddLun(lun);
  platform::ObjectOwner owner;
  ASSERT_EQ(platform::GetDirectory()->GetObjectOwner(uuid, &owner), NUK_OK);
  EXPECT_EQ(owner.hostUuid, kHostUuid);
  log::LogCapture capture;
  svc_->RemoveTarget("t1");
  // Offline (written and reloaded) before the namespace goes.
  std::vector<std::string> order;
  for (const auto& r : capture.Records()) {
    if (r.text.find("Updating target t1 status to offline") != std::string::npos ||
        r.text.find("Delete target namespace") != std::string::npos ||
        r.text.find("Removing target alias t1") != std::string::npos) {
      order.push_back(r.text);
    }
  }
  ASSERT_EQ(order.size(), 3u) << capture.Joined();
  EXPECT_NE(order[0].find("status to offline"), std::string::npos);
  EXPECT_NE(order[1].find("Delete target namespace"), std::string::npos);
  EXPECT_NE(order[2].find("Removing target alias t1"), std::string::npos);
  EXPECT_FALSE(PathExists(env_.datastore() + "/" + uuid));
  EXPECT_FALSE(PathExists(Kel::Util::GetTargetsDirPath() + "/" + uuid));
  model = ReadModel();
  EXPECT_EQ(TargetByAlias(model.get(), "t1"), nullptr);
  // The owner record went with the target.
  EXPECT_EQ(platform::GetDirectory()->GetObjectOwner(uuid, &owner), NUK_NOT_FOUND);
  EXPECT_EQ(ErrorOf([&] { svc_->RemoveTarget("t1"); }), "Target t1 not found");
}

TEST_F(ServiceOps, RefusalsChangeNothing) {
  ServiceEnv::Ready(*svc_);
  TargetCreateParam existing = NewTarget("t1");
  svc_->AddTarget(existing);
  LunInfo lun0;
  lun0.id = 0;
  lun0.targetAlias = "t1";
  lun0.sizeText = "1MiB";
  svc_->AddLun(lun0);
  svc_->AddInitiatorgroup("g1");

  struct Case {
    std::string what;
    std::function<void()> run;
    std::string expected;  // the whole message, or its start when it ends in "*"
  };
  auto target = [](const std::string& alias, std::function<void(TargetCreateParam&)> edit) {
    TargetCreateParam p = NewTarget(alias);
    edit(p);
    return p;
  };
  std::vector<Case> cases = {
      {"invalid IQN",
       [&] {
         auto p = target("x", [](TargetCreateParam& p) { p.iqn = "iqn.20-01.bad"; });
         svc_->AddTarget(p);
       },
       "Invalid IQN 'iqn.20-01.bad'*"},
      {"quote in alias",
       [&] {
         auto p = target("a\"b", [](TargetCreateParam&) {});
         svc_->AddTarget(p);
       },
       "'\"' not permitted in alias"},
      {"weak CHAP secret",
       [&] {
         auto p = target("x", [](TargetCreateParam& p) {
           p.authType = "CHAP";
           p.chapName = "u";
           p.chapSecret = "short";
         });
         svc_->AddTarget(p);
       },
       "Failed to verify authentication type CHAP for target x with error: User secret*"},
      {"unknown auth type",
       [&] {
         auto p = target("x", [](TargetCreateParam& p) { p.authType = "Kerberos"; });
         svc_->AddTarget(p);
       },
       "Failed to verify authentication type Kerberos for target x with error: Found invalid "
       "auth type Kerberos"},
      {"privileged port",
       [&] {
         auto p = target("x", [](TargetCreateParam& p) {
           p.networkInterface = "nuk0";
           p.port = 80;
         });
         svc_->AddTarget(p);
       },
       "Invalid port 80 provided for interface nuk0, valid port range is 1024 < port <= 65535"},
      {"port without interface",
       [&] {
         auto p = target("x", [](TargetCreateParam& p) { p.port = 3300; });
         svc_->AddTarget(p);
       },
       "Network interface is not provided for port 3300"},
      {"unknown site",
       [&] {
         auto p = target("x", [](TargetCreateParam& p) { p.affinitySite = "Mars"; });
         svc_->AddTarget(p);
       },
       "Invalid site affinity 'Mars'*"},
      {"duplicate alias",
       [&] {
         auto p = target("t1", [](TargetCreateParam&) {});
         svc_->AddTarget(p);
       },
       "Target t1 already exists"},
      {"unknown initiator group",
       [&] {
         auto p = target("x", [](TargetCreateParam& p) { p.initiators = {"nogroup"}; });
         svc_->AddTarget(p);
       },
       "*"},
      {"update of an unknown target",
       [&] {
         auto p = target("nope", [](TargetCreateParam&) {});
         svc_->UpdateTargetConfig(p);
       },
       "Target nope not found"},
      {"removal of an unknown target", [&] { svc_->RemoveTarget("nope"); },
       "Target nope not found"},
      {"duplicate LUN id",
       [&] {
         LunInfo l = lun0;
         svc_->AddLun(l);
       },
       "LUN id 0 already exists for target t1"},
      {"LUN size unit",
       [&] {
         LunInfo l;
         l.targetAlias = "t1";
         l.sizeText = "10XB";
         svc_->AddLun(l);
       },
       "Failed to validate LUN size: *"},
      {"LUN of an unknown target",
       [&] {
         LunInfo l;
         l.targetAlias = "nope";
         l.sizeText = "1MiB";
         svc_->AddLun(l);
       },
       "Target nope not found"},
      {"online LUN id change",
       [&] {
         LunInfo l;
         l.id = 0;
         l.targetAlias = "t1";
         svc_->UpdateLun(l, 7, "", true);
       },
       "Changing the ID of an online LUN is not allowed. Bring the LUN offline first."},
      {"unknown LUN", [&] { svc_->GetLunInfo("t1", 9); }, "LUN id 9 not found for target t1"},
      {"group name shaped like an IQN", [&] { svc_->AddInitiatorgroup("iqn.group"); },
       "Invalid initiator group name 'iqn.group'. Initiator group name cannot start with 'iqn.' "
       "or 'eui.'"},
      {"bad initiator name", [&] { svc_->AddInitiatorsToInitiatorgroup("g1", {"not-an-iqn"}); },
       "Invalid initiator IQN: 'not-an-iqn'*"},
      {"default port without interface",
       [&] {
         DefaultInfo d;
         d.port = 3300;
         svc_->UpdateDefaultConfig(d);
       },
       "Network interface is not provided for port 3300"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string before = Snapshot();
    const std::string message = ErrorOf(c.run);
    ASSERT_FALSE(message.empty()) << "not refused";
    if (!c.expected.empty() && c.expected.back() == '*') {
      EXPECT_EQ(message.rfind(c.expected.substr(0, c.expected.size() - 1), 0), 0u) << message;
    } else {
      EXPECT_EQ(message, c.expected);
    }
    EXPECT_EQ(Snapshot(), before);
  }
}

TEST_F(ServiceOps, LunSizesIdChangesAndMovesBetweenTargets) {
  ServiceEnv::Ready(*svc_);
  TargetCreateParam t1 = NewTarget("t1");
  svc_->AddTarget(t1);
  TargetCreateParam t2 = NewTarget("t2");
  svc_->AddTarget(t2);

  const std::vector<std::pair<std::string, int64_t>> sizes = {
      {"1MB", 1954},  {"1GB", 1953125},  {"1TB", 1953125000},
      {"3mib", 6144}, {"1GiB", 2097152}, {"1TiB", 2147483648LL}};
  for (const auto& [text, sectors] : sizes) {
    LunInfo l;
    l.targetAlias = "t1";
    l.sizeText = text;
    l.alias = "disk-" + text;
    svc_->AddLun(l);
  }
  std::vector<LunInfo> luns;
  svc_->GetLuns("t1", luns, true);
  ASSERT_EQ(luns.size(), sizes.size());
  ConfPtr model = ReadModel();
  struct target* t = TargetByAlias(model.get(), "t1");
  for (size_t i = 0; i < sizes.size(); ++i) {
    SCOPED_TRACE(sizes[i].first);
    ASSERT_NE(t->t_luns[i], nullptr);
    EXPECT_EQ(t->t_luns[i]->l_size, sizes[i].second);
    EXPECT_EQ(luns[i].alias, "disk-" + sizes[i].first);
    EXPECT_EQ(luns[i].naa.size(), 32u);  // NAA identifiers are on in this environment
    struct stat st;
    ASSERT_EQ(stat(luns[i].path.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, sizes[i].second * 512);
  }

  // Number change and move, each only once the LUN is offline.
  LunInfo offline;
  offline.id = 1;
  offline.targetAlias = "t1";
  offline.status = "offline";
  svc_->UpdateLun(offline, -1, "", true);
  LunInfo renumber;
  renumber.id = 1;
  renumber.targetAlias = "t1";
  svc_->UpdateLun(renumber, 9, "", true);
  EXPECT_EQ(svc_->GetLunInfo("t1", 9).alias, "disk-1GB");
  EXPECT_EQ(ErrorOf([&] { svc_->GetLunInfo("t1", 1); }), "LUN id 1 not found for target t1");

  LunInfo move;
  move.id = 9;
  move.targetAlias = "t1";
  const std::string oldPath = svc_->GetLunInfo("t1", 9).path;
  svc_->UpdateLun(move, -1, "t2", true);
  const LunInfo moved = svc_->GetLunInfo("t2", 0);
  EXPECT_EQ(moved.alias, "disk-1GB");
  EXPECT_EQ(moved.status, "offline");
  EXPECT_NE(moved.path.find("/" + t2.uuid + "/"), std::string::npos);
  EXPECT_TRUE(PathExists(moved.path));
  EXPECT_FALSE(PathExists(oldPath));

  // A policy given on update reaches the disk; an empty one leaves it alone.
  LunInfo withPolicy;
  withPolicy.id = 0;
  withPolicy.targetAlias = "t1";
  withPolicy.storagePolicy = "((\"proportionalCapacity\" i5))";
  svc_->UpdateLun(withPolicy, -1, "", true);
  std::vector<LunInfo> checked;
  svc_->GetLuns("t1", checked, true);
  EXPECT_EQ(checked[0].storagePolicy, "((\"proportionalCapacity\" i5))");
  LunInfo aliasOnly;
  aliasOnly.id = 0;
  aliasOnly.targetAlias = "t1";
  aliasOnly.alias = "renamed";
  svc_->UpdateLun(aliasOnly, -1, "", true);
  checked.clear();
  svc_->GetLuns("t1", checked, true);
  EXPECT_EQ(checked[0].alias, "renamed");
  EXPECT_EQ(checked[0].storagePolicy, "((\"proportionalCapacity\" i5))");

  // Grow, then removal of a LUN whose disk is already gone removes the entry with a warning.
  LunInfo grow;
  grow.id = 0;
  grow.targetAlias = "t1";
  grow.sizeText = "2MB";
  svc_->UpdateLun(grow, -1, "", true);
  EXPECT_EQ(svc_->GetLunInfo("t1", 0).sizeMiB, 3908u * 512 / 1048576);
  log::LogCapture capture;
  ASSERT_EQ(unlink(moved.path.c_str()), 0);
  svc_->RemoveLun(0, "t2", false);
  EXPECT_TRUE(capture.Contains("pemo file"));
  EXPECT_TRUE(capture.Contains("not found, try remove related entry from kel.conf"));
  luns.clear();
  svc_->GetLuns("t2", luns, false);
  EXPECT_TRUE(luns.empty());

  const std::string diskPath = svc_->GetLunInfo("t1", 0).path;
  svc_->RemoveLun(0, "t1", false);
  EXPECT_FALSE(PathExists(diskPath));
  EXPECT_EQ(ErrorOf([&] { svc_->GetLunInfo("t1", 0); }), "LUN id 0 not found for target t1");
}

TEST_F(ServiceOps, InitiatorGroupsAndDefaults) {
  ServiceEnv::Ready(*svc_);
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
  EXPECT_EQ(svc_->GetInitiatorgroups().size(), 1u);
  EXPECT_EQ(svc_->GetInitiatorgroupInfo("srv").initiators,
            std::vector<std::string>{"eui.2001-02.com.example:b"});
  EXPECT_FALSE(ErrorOf([&] { svc_->GetInitiatorgroupInfo("none"); }).empty());

  // Still used by t1: refused without force, detached with it.
  EXPECT_FALSE(ErrorOf([&] { svc_->RemoveInitiatorgroup("srv", false); }).empty());
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
  EXPECT_EQ(read.networkInterface, "nuk0");
  EXPECT_EQ(read.port, 3262);
  EXPECT_EQ(read.authType, "CHAP-Mutual");
  EXPECT_EQ(read.chapName, "def-user");
  EXPECT_EQ(read.mutualChapName, "def-target");
  EXPECT_EQ(read.chapSecret, "");
  EXPECT_EQ(read.mutualChapSecret, "");
  // The host's own copy keeps the secrets (it is readable by its owner only).
  EXPECT_EQ(platform::LoadSettings().defaults.chapSecret, kSecret);
}

TEST_F(ServiceOps, NamespaceInfoAndPolicy) {
  ServiceEnv::Ready(*svc_);
  const auto info = svc_->GetNamespaceInfo(false);
  EXPECT_EQ(info.uuid.size(), 36u);
  EXPECT_TRUE(info.path.empty());
  EXPECT_EQ(svc_->GetNamespaceInfo(true).path, Kel::Util::GetConfigNamespacePath());

  const std::string before = TreeDigest(env_.datastore());
  svc_->UpdateNamespaceConfig(NamespaceCreateParam());  // empty policy: nothing happens
  EXPECT_EQ(TreeDigest(env_.datastore()), before);
  NamespaceCreateParam bad;
  bad.storagePolicy = "((\"locality\" \"Moon\"))";
  EXPECT_EQ(ErrorOf([&] { svc_->UpdateNamespaceConfig(bad); }).rfind("Invalid storage policy", 0),
            0u);
  NamespaceCreateParam good;
  good.storagePolicy = "((\"proportionalCapacity\" i10))";
  svc_->UpdateNamespaceConfig(good);
  EXPECT_EQ(svc_->GetNamespaceInfo(false).storagePolicy, "((\"proportionalCapacity\" i10))");
}

TEST_F(ServiceOps, DeleteNamespaceRemovesTheFileTheDirectoriesAndTheNamespace) {
  DefaultInfo defaults;
  defaults.networkInterface = "nuk0";
  svc_->CreateNamespace(NamespaceCreateParam(), defaults);
  const std::string uuid = svc_->GetNamespaceInfo(false).uuid;
  ASSERT_TRUE(PathExists(env_.conf_path()));
  log::LogCapture capture;
  svc_->DeleteNamespace();
  EXPECT_FALSE(PathExists(Kel::Util::GetConfigNamespacePath()));
  EXPECT_FALSE(PathExists(env_.datastore() + "/" + uuid));
  const std::string lines = capture.Joined();
  const size_t dirs = lines.find("Removing dir");
  ASSERT_NE(dirs, std::string::npos) << lines;
  EXPECT_NE(lines.find(uuid, dirs), std::string::npos) << lines;  // the namespace comes after
}

TEST_F(ServiceOps, TransferOnOneHostMakesOnePassPerRetryAndKeepsTheTarget) {
  ServiceEnv::Ready(*svc_);
  TargetCreateParam p = NewTarget("t1");
  svc_->AddTarget(p);
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

TEST(ServiceObject, SingletonConstructionAndDestruction) {
  ServiceEnv env(false);
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

TEST(ServiceObject, UnreadableNaaOptionLeavesNaaOff) {
  ServiceEnv env(true);
  NukCtl::Util::Sysinfo::SetReaderForTest([](const std::string&, const std::string& name) {
    if (name == "kelLunNaaEnable") throw OrsaCtlException("option store unreadable");
    return int64_t{0};
  });
  log::LogCapture capture;
  Kel::OrsaIscsiTargetImpl impl;
  NukCtl::Util::Sysinfo::SetReaderForTest(nullptr);
  EXPECT_FALSE(impl.LunNaaEnabledForTest());
  EXPECT_TRUE(capture.Contains(
      "OrsaIscsiTargetImpl: Get ORSA CONFIG kelLunNaaEnable failure, do not enable NAA"));
  EXPECT_TRUE(capture.Contains("lunNaa: Disabled"));
  EXPECT_TRUE(Kel::OrsaIscsiTargetImpl().LunNaaEnabledForTest());
}

TEST(ServiceObject, LunsGetNoNaaWhenTheOptionIsOff) {
  ServiceEnv env(false);
  auto svc = NewService();
  ServiceEnv::Ready(*svc);
  TargetCreateParam t = NewTarget("t1");
  svc->AddTarget(t);
  LunInfo lun;
  lun.targetAlias = "t1";
  lun.sizeText = "1MiB";
  svc->AddLun(lun);
  EXPECT_EQ(lun.naa, "");
  EXPECT_EQ(svc->GetLunInfo("t1", 0).naa, "");
  EXPECT_EQ(env.ConfText().find("naa"), std::string::npos);
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
