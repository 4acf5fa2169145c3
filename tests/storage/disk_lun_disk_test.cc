// LUN disks on a real datastore directory: creation with its rename retries, removal waiting for
// the serving host's lock (held by another open file description or a child process), LUN ids,
// NAA identifiers and path lookup through kel.conf.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <regex>
#include <set>

#include "conf/conf.h"
#include "conf/paths.h"
#include "platform/clock.h"
#include "platform/datastore.h"
#include "platform/exception.h"
#include "platform/fs.h"
#include "platform/log.h"
#include "platform/policy.h"
#include "platform/testing/fault_fs.h"
#include "platform/vdisk.h"
#include "storage/lun_disk.h"
#include "storage/namespace.h"
#include "tests/support/test_host.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;
using kel::platform::testing::FaultFs;
using kel::platform::testing::ScopedFaultFs;
using kel::testing::ErrorOf;
using kel::testing::LockHolder;
using kel::testing::PathExists;
using kel::testing::ScriptedClock;
using kel::testing::TreeDigest;

class LunDiskTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kel::platform::DatastoreUuid();
    CreateNamespaceDir("");
    CreateConfigDirs();
    CreateTargetNamespace("", target_);
  }
  // Creates a LUN disk of `sectors` and returns its path relative to the datastore.
  std::string NewLun(uint64_t sectors = 2048, const std::string& policy = "") {
    std::string path, uuid;
    CreateLun("1", "t1", target_, sectors, policy, path, uuid);
    return path;
  }
  kel::testing::TestHost ds_;
  kel::log::LogCapture log_;
  std::string target_;
};

TEST_F(LunDiskTest, CreatedDiskIsNamedAfterItsObject) {
  kel::platform::ScopedFakeClock clock;
  std::string path, uuid;
  CreateLun("7", "t1", target_, 4096, "((\"proportionalCapacity\" i50))", path, uuid);
  EXPECT_EQ(target_ + "/" + uuid + ".pemo", path);
  EXPECT_EQ(uuid, GetObjectUuidForLun(ds_.DatastoreJoin(path)));
  EXPECT_EQ(uuid, GetObjectUuidForLun(GetTargetsDirPath() + "/" + path));  // via the target link
  EXPECT_EQ(4096u * 512u, kel::testing::FileSize(ds_.DatastoreJoin(path)));
  EXPECT_GE(kel::testing::AllocatedBytes(ds_.DatastoreJoin(path)), 4096u * 512u / 2);
  EXPECT_EQ(4096u, GetLunDiskSectors(ds_.DatastoreJoin(path)));
  EXPECT_TRUE(log_.Contains("Util: Retrieved Orsa object UUID " + uuid + " for LUN id 7."));
  std::vector<std::string> names;
  ASSERT_EQ(0, kel::platform::LinuxFs().ListDir(ds_.DatastoreJoin(target_), &names));
  EXPECT_EQ(std::vector<std::string>{uuid + ".pemo"}, names);  // no temporary disk left
  EXPECT_TRUE(clock.clock().Sleeps().empty());

  // An absolute target directory works the same way.
  std::string path2, uuid2;
  CreateLun("8", "t1", ds_.DatastoreJoin(target_), 8, "", path2, uuid2);
  EXPECT_EQ(target_ + "/" + uuid2 + ".pemo", path2);

  EXPECT_EQ(0u, ErrorOf([&] {
                  GetObjectUuidForLun(ds_.DatastoreJoin("nothing.pemo"));
                }).find("Failed to get object UUID of LUN " + ds_.DatastoreJoin("nothing.pemo")));
}

TEST_F(LunDiskTest, RenameThatWorksOnTheSecondAttemptLogsOneRetryAndSleepsOnce) {
  kel::platform::ScopedFakeClock clock;
  ScopedFaultFs faulty;
  faulty.fs().FailNext(FaultFs::Op::kRename, EBUSY, 1, ".pemo");
  std::string path = NewLun();
  EXPECT_TRUE(PathExists(ds_.DatastoreJoin(path)));
  EXPECT_EQ(1u, log_.Count("retry to rename LUN descriptor file"));
  EXPECT_TRUE(log_.Contains("Util: 1th retry to rename LUN descriptor file from "));
  ASSERT_EQ(1u, clock.clock().Sleeps().size());
  EXPECT_EQ(std::chrono::milliseconds(1000), clock.clock().Sleeps()[0]);
}

TEST_F(LunDiskTest, RenameThatNeverWorksLeavesNoDisk) {
  kel::platform::ScopedFakeClock clock;
  const std::string before = TreeDigest(ds_.datastore());
  ScopedFaultFs faulty;
  faulty.fs().FailNext(FaultFs::Op::kRename, EBUSY, -1, ".pemo");
  std::string path = "unset", uuid = "unset";
  std::string message = ErrorOf([&] { CreateLun("3", "t1", target_, 2048, "", path, uuid); });
  EXPECT_TRUE(std::regex_match(
      message, std::regex("Failed to rename LUN " + ds_.DatastoreJoin(target_) +
                          "/[0-9a-f-]{36}\\.pemo with error: Device or resource busy")))
      << message;
  EXPECT_EQ(11u, log_.Count("retry to rename LUN descriptor file"));
  EXPECT_TRUE(log_.Contains("Util: 11th retry to rename LUN descriptor file"));
  EXPECT_TRUE(log_.Contains("Util: Failed to create LUN 3 with exception Failed to rename LUN"));
  EXPECT_EQ(11u, clock.clock().Sleeps().size());
  EXPECT_EQ(before, TreeDigest(ds_.datastore()));
  EXPECT_EQ("unset", path);  // nothing handed back
}

TEST_F(LunDiskTest, RemovalWaitsForTheServingHostAndGivesUpAfter31Probes) {
  const std::string rel = NewLun();
  const std::string disk = ds_.DatastoreJoin(rel);
  kel::testing::WriteFile(LunPRFilePath(disk), "reservation");
  LockHolder serving(disk, /*exclusive=*/false);
  ASSERT_TRUE(serving.locked());
  {
    kel::platform::ScopedFakeClock clock;
    EXPECT_EQ("The disk is locked by another host", ErrorOf([&] { RemoveLun(1, rel, "t1"); }));
    EXPECT_EQ(31u, log_.Count("Util: Can not remove LUN disk "));
    EXPECT_TRUE(log_.Contains("reason: The disk is locked by another host. Retrying... 30"));
    EXPECT_FALSE(log_.Contains("Retrying... 31"));
    EXPECT_TRUE(log_.Contains("Failed to remove LUN " + GetTargetsDirPath() + "/" + rel +
                              " after 30 seconds. Giving up. For more details please see "
                              "keld.log on host host-a and retry removing...Last error "
                              "The disk is locked by another host."))
        << log_.Joined();
    EXPECT_EQ(30u, clock.clock().Sleeps().size());
    EXPECT_EQ(std::chrono::milliseconds(30000), clock.clock().TotalSlept());
  }
  EXPECT_TRUE(PathExists(disk));
  EXPECT_TRUE(PathExists(LunPRFilePath(disk)));

  // kelUseDomExclSession 2 selects the session-based probe, which sees the lock all the same. The
  // owner lets go during the fifth wait: the next probe succeeds.
  ds_.SetOption("ORSA-iSCSI", "kelUseDomExclSession", 2);
  log_.Clear();
  ScriptedClock clock([&serving](int n) {
    if (n == 5) serving.Release();
  });
  RemoveLun(1, rel, "t1");
  EXPECT_EQ(5u, clock.Sleeps().size());
  EXPECT_EQ(5u, log_.Count("Util: Can not remove LUN disk "));
  EXPECT_FALSE(PathExists(disk));
  EXPECT_FALSE(PathExists(LunPRFilePath(disk)));
  EXPECT_FALSE(log_.Contains("Failed to get iscsi version"));
}

TEST_F(LunDiskTest, RemovalOfADiskWithoutFormatVersionWarnsAndProceeds) {
  kel::platform::ScopedFakeClock clock;
  // A disk made by hand: no object attributes at all.
  const std::string rel = target_ + "/handmade.pemo";
  kel::testing::WriteFile(ds_.DatastoreJoin(rel), "");
  ds_.SetOption("ORSA-iSCSI", "kelUseDomExclSession", 1);
  RemoveLun(4, rel, "t1");
  EXPECT_TRUE(log_.Contains("Util: Failed to get iscsi version for LUN: " + GetTargetsDirPath() +
                            "/" + rel +
                            ". Will try to use ZOFS lock and DOM exclusive session "
                            "to detect LUN released by the owner."))
      << log_.Joined();
  EXPECT_FALSE(PathExists(ds_.DatastoreJoin(rel)));
}

TEST_F(LunDiskTest, PersistentReservationFileSitsNextToTheDisk) {
  EXPECT_EQ("/a/b/.c.pemo.pr", LunPRFilePath("/a/b/c.pemo"));
  EXPECT_EQ("./.c.pemo.pr", LunPRFilePath("c.pemo"));
  const std::string disk = ds_.DatastoreJoin(NewLun());
  RemovePRFile("t1", disk);  // none there: nothing to say
  EXPECT_FALSE(log_.Contains("Failed to remove PR info"));
  kel::testing::WriteFile(LunPRFilePath(disk), "x");
  {
    ScopedFaultFs faulty;
    faulty.fs().FailNext(FaultFs::Op::kUnlink, EACCES, 1, ".pr");
    RemovePRFile("t1", disk);
  }
  EXPECT_TRUE(log_.Contains("Util: Failed to remove PR info  file: " + LunPRFilePath(disk) +
                            " (errno = 13)"))
      << log_.Joined();
  EXPECT_TRUE(PathExists(LunPRFilePath(disk)));
  RemovePRFile("t1", disk);
  EXPECT_FALSE(PathExists(LunPRFilePath(disk)));
}

TEST_F(LunDiskTest, GrowingKeepsThePolicyReservation) {
  const std::string disk = ds_.DatastoreJoin(NewLun(2048, "((\"proportionalCapacity\" i50))"));
  GrowLunDisk(disk, 16384);
  EXPECT_EQ(16384u, GetLunDiskSectors(disk));
  EXPECT_GE(kel::testing::AllocatedBytes(disk), 16384u * 512u / 2);
  EXPECT_EQ("Failed to grow LUN disk " + disk +
                " to 100 sectors with error: A virtual disk "
                "cannot shrink",
            ErrorOf([&] { GrowLunDisk(disk, 100); }));
  EXPECT_EQ(16384u, GetLunDiskSectors(disk));
  EXPECT_EQ("Failed to get capacity of LUN disk " + ds_.DatastoreJoin("x") +
                " with error: No such file or directory",
            ErrorOf([&] { GetLunDiskSectors(ds_.DatastoreJoin("x")); }));
}

TEST(LunIds, LowestFreeIdIsReused) {
  struct conf* conf = conf_new();
  struct target* t = target_new(conf, "iqn.2026-01.com.example:ids");
  ASSERT_NE(nullptr, t);
  std::vector<struct lun*> luns;
  auto add = [&](int id) {
    std::string name = "lun-" + std::to_string(id);
    struct lun* l = lun_new(conf, name.c_str());
    t->t_luns[id] = l;
    luns.push_back(l);
  };
  kel::log::LogCapture log;
  EXPECT_EQ(0, GenerateLunIdForTarget(t));
  add(0);
  add(1);
  add(3);
  EXPECT_EQ(2, GenerateLunIdForTarget(t));
  EXPECT_TRUE(log.Contains("Util: generated lun ID 2"));
  add(2);
  EXPECT_EQ(4, GenerateLunIdForTarget(t));
  t->t_luns[0] = nullptr;
  EXPECT_EQ(0, GenerateLunIdForTarget(t));
  t->t_luns[0] = luns[0];
  for (int id = 4; id < 255; ++id) add(id);
  EXPECT_EQ(255, GenerateLunIdForTarget(t));
  add(255);
  try {
    GenerateLunIdForTarget(t);
    FAIL() << "257th LUN accepted";
  } catch (const OrsaCtlException& e) {
    EXPECT_EQ("Can not add more than 256 LUNs to target iqn.2026-01.com.example:ids",
              e.GetMessage());
  }
  EXPECT_TRUE(log.Contains("Util: Can not add more than 256 LUNs to target"));
  conf_delete(conf);
}

TEST(Naa, IsThirtyTwoUpperHexDigitsBehindThePrefix) {
  std::string prefix;
  for (char ch : std::string(KEL_NAA_IEEE_REG_EXT_STR)) {
    if (ch != ' ') prefix += ch;
  }
  ASSERT_EQ('6', prefix[0]);  // NAA type 6: registered extended
  std::set<std::string> seen;
  for (int i = 0; i < 200; ++i) {
    std::string naa = GenerateDiskNaa();
    ASSERT_TRUE(std::regex_match(naa, std::regex("[0-9A-F]{32}"))) << naa;
    EXPECT_EQ(0u, naa.find(prefix)) << naa;
    seen.insert(naa);
  }
  EXPECT_EQ(200u, seen.size());
}

TEST_F(LunDiskTest, PathLookupReadsKelConf) {
  kel::testing::WriteFile(GetConfFilePath(),
                          "generation 4\n"
                          "target iqn.2026-01.com.example:one {\n"
                          "  alias \"one\"\n"
                          "  portal-group default\n"
                          "  lun 0 {\n    path " +
                              target_ +
                              "/a.pemo\n    size 2048\n  }\n"
                              "  lun 5 {\n    path " +
                              target_ +
                              "/b.pemo\n    size 2048\n  }\n"
                              "}\n");
  EXPECT_EQ(target_ + "/b.pemo", GetLunPathById("one", 5));
  EXPECT_EQ(target_ + "/a.pemo", GetLunPathById("one", 0));
  EXPECT_EQ(target_ + "/a.pemo", GetLunPathById("IQN.2026-01.com.example:one", 0));
  std::string out;
  GetLunPathById("one", 5, out);
  EXPECT_EQ(target_ + "/b.pemo", out);
  EXPECT_EQ("Failed to find path for LUN 1 on target one",
            ErrorOf([] { GetLunPathById("one", 1); }));
  EXPECT_EQ("Failed to find path for LUN 0 on target two",
            ErrorOf([] { GetLunPathById("two", 0); }));
  EXPECT_EQ("Failed to find path for LUN 300 on target one",
            ErrorOf([] { GetLunPathById("one", 300); }));
}

}  // namespace
}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
