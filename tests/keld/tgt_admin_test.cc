#include "keld/tgt_admin.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/test_support.h"

namespace kel {
namespace keld {
namespace {

// What tgtd 1.0.85 prints for a target with a logged-in initiator, two disks, CHAP and an ACL.
const char kTargetShow[] =
    "Target 1: iqn.2024-01.com.example:smoke\n"
    "    System information:\n"
    "        Driver: iscsi\n"
    "        State: ready\n"
    "    I_T nexus information:\n"
    "        I_T nexus: 1\n"
    "            Initiator: iqn.2000-01.com.example:holder alias: holderalias\n"
    "            Connection: 0\n"
    "                IP Address: 127.0.0.1\n"
    "    LUN information:\n"
    "        LUN: 0\n"
    "            Type: controller\n"
    "            SCSI ID: IET     00010000\n"
    "            SCSI SN: beaf10\n"
    "            Size: 0 MB, Block size: 1\n"
    "            Online: Yes\n"
    "            Removable media: No\n"
    "            Prevent removal: No\n"
    "            Readonly: No\n"
    "            SWP: No\n"
    "            Thin-provisioning: No\n"
    "            Backing store type: null\n"
    "            Backing store path: None\n"
    "            Backing store flags: \n"
    "        LUN: 1\n"
    "            Type: disk\n"
    "            SCSI ID: 6ABCDEF0123456789ABCDEF012345678\n"
    "            SCSI SN: beaf11\n"
    "            Size: 105 MB, Block size: 512\n"
    "            Online: Yes\n"
    "            Backing store type: rdwr\n"
    "            Backing store path: /tmp/h5exp/d1.img\n"
    "            Backing store flags: \n"
    "        LUN: 256\n"
    "            Type: disk\n"
    "            Size: 10 MB, Block size: 512\n"
    "            Online: No\n"
    "            Backing store path: /tmp/with space/d2.img\n"
    "    Account information:\n"
    "        u1\n"
    "        mu (outgoing)\n"
    "    ACL information:\n"
    "        ALL\n"
    "        iqn.1994-05.com.x:init\n"
    "Target 2: iqn.2024-01.com.example:empty\n"
    "    System information:\n"
    "        Driver: iscsi\n"
    "        State: offline\n"
    "    I_T nexus information:\n"
    "    LUN information:\n"
    "        LUN: 0\n"
    "            Type: controller\n"
    "    Account information:\n"
    "    ACL information:\n";

TEST(TgtAdmin, ParsesTargetShowWithSessionsLunsAccountsAndAcl) {
  std::vector<TgtTarget> targets = ParseTargetShow(kTargetShow);
  ASSERT_EQ(targets.size(), 2u);
  const TgtTarget& t = targets[0];
  EXPECT_EQ(t.tid, 1);
  EXPECT_EQ(t.name, "iqn.2024-01.com.example:smoke");
  EXPECT_EQ(t.state, "ready");
  ASSERT_EQ(t.nexus.size(), 1u);
  EXPECT_EQ(t.nexus[0].initiator, "iqn.2000-01.com.example:holder");
  EXPECT_EQ(t.nexus[0].addresses, std::vector<std::string>{"127.0.0.1"});
  ASSERT_EQ(t.luns.size(), 3u);
  EXPECT_EQ(t.luns[0].type, "controller");
  EXPECT_EQ(t.luns[0].scsiId, "IET     00010000");
  const TgtLun* disk = t.FindLun(1);
  ASSERT_NE(disk, nullptr);
  EXPECT_EQ(disk->scsiId, "6ABCDEF0123456789ABCDEF012345678");
  EXPECT_EQ(disk->sizeMb, 105u);
  EXPECT_EQ(disk->path, "/tmp/h5exp/d1.img");
  EXPECT_EQ(disk->backingStoreType, "rdwr");
  EXPECT_TRUE(disk->online);
  ASSERT_NE(t.FindLun(256), nullptr);
  EXPECT_FALSE(t.FindLun(256)->online);
  EXPECT_EQ(t.FindLun(256)->path, "/tmp/with space/d2.img");
  EXPECT_EQ(t.incomingAccounts, std::vector<std::string>{"u1"});
  EXPECT_EQ(t.outgoingAccount, "mu");
  EXPECT_EQ(t.acl, (std::vector<std::string>{"ALL", "iqn.1994-05.com.x:init"}));

  EXPECT_EQ(targets[1].state, "offline");
  EXPECT_TRUE(targets[1].acl.empty());
  EXPECT_TRUE(targets[1].incomingAccounts.empty());
  EXPECT_EQ(targets[1].luns.size(), 1u);
  EXPECT_TRUE(ParseTargetShow("").empty());
}

TEST(TgtAdmin, ParsesAccountAndPortalLists) {
  EXPECT_EQ(ParseAccountShow("Account list:\n    mu\n    u1\n"),
            (std::vector<std::string>{"mu", "u1"}));
  EXPECT_TRUE(ParseAccountShow("Account list:\n").empty());
  EXPECT_EQ(ParsePortalShow("Portal: 127.0.0.77:13260,1\nPortal: [::1]:3260,1\n"),
            (std::vector<std::string>{"127.0.0.77:13260", "[::1]:3260"}));
  EXPECT_EQ(PortalText("10.0.0.1", 3260), "10.0.0.1:3260");
  EXPECT_EQ(PortalText("fe80::1", 3261), "[fe80::1]:3261");
}

TEST(TgtAdmin, ClassifiesErrorsByTheirText) {
  struct Case {
    int code;
    const char* err;
    TgtError want;
    const char* message;
  } cases[] = {
      {0, "", TgtError::kNone, ""},
      {22, "tgtadm: this target already exists\n", TgtError::kExists, "this target already exists"},
      {22, "tgtadm: this logical unit number already exists\n", TgtError::kExists, nullptr},
      {22, "tgtadm: this target already has an outgoing account\n", TgtError::kExists, nullptr},
      {22, "tgtadm: can't find the target\n", TgtError::kNotFound, "can't find the target"},
      {22, "tgtadm: this access control rule does not exist\n", TgtError::kNotFound, nullptr},
      {22, "tgtadm: this logical unit is still active\n", TgtError::kBusy, nullptr},
      {22, "tgtadm: invalid request\n", TgtError::kInvalid, "invalid request"},
      {107,
       "tgtadm: failed to send request hdr to tgt daemon, Transport endpoint is not connected\n",
       TgtError::kNotRunning, nullptr},
      {22, "tgtadm: out of memory\n", TgtError::kFailed, "out of memory"},
      {3, "", TgtError::kFailed, "tgtadm exited with 3"},
  };
  for (const Case& c : cases) {
    TgtResult r = ClassifyTgtadm(c.code, c.err);
    EXPECT_EQ(r.error, c.want) << c.err;
    EXPECT_EQ(r.exitCode, c.code);
    if (c.message != nullptr) {
      EXPECT_EQ(r.message, c.message);
    }
  }
}

// A stand-in tgtadm that records its arguments one per line and answers like tgtd.
class TgtAdmCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    program_ = dir_.Join("tgtadm");
    kel::testing::WriteFile(
        program_,
        "#!/bin/sh\n"
        "for a in \"$@\"; do printf '%s|' \"$a\" >> " +
            dir_.Join("args") +
            "; done\n"
            "echo >> " +
            dir_.Join("args") +
            "\n"
            "case \"$*\" in\n"
            "  *'--mode target --op show'*) printf 'Target 3: iqn.x:t\\n    System information:\\n"
            "        State: ready\\n' ;;\n"
            "  *'--mode account --op show'*) printf 'Account list:\\n    u\\n' ;;\n"
            "  *'--mode portal --op show'*) printf 'Portal: 127.0.0.9:3260,1\\n' ;;\n"
            "  *'--tid 9'*) echo 'tgtadm: can'\"'\"'t find the target' >&2; exit 22 ;;\n"
            "  *'--tid 10'*) exit 107 ;;\n"
            "esac\n",
        0755);
  }

  std::vector<std::string> Args() {
    std::vector<std::string> lines;
    std::string all = kel::testing::ReadFile(dir_.Join("args"));
    size_t start = 0;
    for (size_t nl; (nl = all.find('\n', start)) != std::string::npos; start = nl + 1) {
      lines.push_back(all.substr(start, nl - start));
    }
    return lines;
  }

  kel::testing::TempDir dir_;
  std::string program_;
};

TEST_F(TgtAdmCommandTest, BuildsArgumentVectorsWithoutAShell) {
  TgtAdmCommand admin(7, program_);
  EXPECT_TRUE(admin.BindAcl(3, "ALL").ok());
  EXPECT_TRUE(admin.BindAcl(3, "iqn.1994-05.com.x:a b;$(reboot)").ok());
  EXPECT_TRUE(admin.UpdateLun(3, 2, "online=0,path=/d/x.pemo").ok());
  EXPECT_TRUE(admin.BindAccount(3, "mu", true).ok());
  EXPECT_TRUE(admin.NewPortal("[::1]:3260").ok());
  EXPECT_TRUE(admin.DeleteTarget(3, true).ok());
  EXPECT_TRUE(admin.SetSystemState("offline").ok());
  TgtResult missing = admin.NewLun(9, 1, "/d/y");
  EXPECT_EQ(missing.error, TgtError::kNotFound);
  EXPECT_EQ(missing.message, "can't find the target");
  EXPECT_EQ(admin.DeleteLun(10, 1).error, TgtError::kNotRunning);

  const std::string head = "-C|7|--lld|iscsi|";
  std::vector<std::string> want = {
      head + "--mode|target|--op|bind|--tid|3|--initiator-address|ALL|",
      head + "--mode|target|--op|bind|--tid|3|--initiator-name|iqn.1994-05.com.x:a b;$(reboot)|",
      head + "--mode|logicalunit|--op|update|--tid|3|--lun|2|--params|online=0,path=/d/x.pemo|",
      head + "--mode|account|--op|bind|--tid|3|--user|mu|--outgoing|",
      head + "--mode|portal|--op|new|--param|portal=[::1]:3260|",
      head + "--mode|target|--op|delete|--tid|3|--force|",
      head + "--mode|sys|--op|update|--name|State|-v|offline|",
      head + "--mode|logicalunit|--op|new|--tid|9|--lun|1|--backing-store|/d/y|",
      head + "--mode|logicalunit|--op|delete|--tid|10|--lun|1|",
  };
  EXPECT_EQ(Args(), want);

  TgtState state;
  ASSERT_TRUE(admin.Show(&state).ok());
  ASSERT_EQ(state.targets.size(), 1u);
  EXPECT_EQ(state.targets[0].tid, 3);
  EXPECT_EQ(state.accounts, std::vector<std::string>{"u"});
  EXPECT_EQ(state.portals, std::vector<std::string>{"127.0.0.9:3260"});

  TgtAdmCommand absent(7, dir_.Join("no-such-program"));
  TgtResult r = absent.DeleteSystem();
  EXPECT_EQ(r.error, TgtError::kFailed);
  EXPECT_NE(r.message.find("No such file or directory"), std::string::npos) << r.message;
}

}  // namespace
}  // namespace keld
}  // namespace kel
