#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <string>

#include "conf/conf.h"
#include "conf/conf_handle.h"
#include "confedit/parser_edit.h"
#include "directory/lun_paths.h"
#include "platform/datastore.h"
#include "platform/fs.h"
#include "platform/log.h"
#include "storage/lun_disk.h"
#include "storage/namespace.h"
#include "tests/support/test_host.h"

namespace kel {
namespace testing {
namespace {

using HostCtl::Orsa::IscsiTarget::LunInfo;
using HostCtl::Orsa::IscsiTarget::TargetCreateParam;
using log::LogCapture;
namespace IT = NukCtl::Orsa::IscsiTarget;
namespace Parser = NukCtl::Orsa::IscsiTarget::Parser;

// A target with a real namespace on the datastore; returns the namespace's uuid.
std::string MakeTarget(int n) {
  TargetCreateParam p;
  p.alias = "t" + std::to_string(n);
  p.iqn = TestIqn(n);
  IT::Util::CreateTargetNamespace("", p.uuid);
  bool changed = false;
  Parser::AddNewTargetToConfFile(p, changed);
  return p.uuid;
}

// A LUN with a real disk of `sectors` in the target's namespace, added to kel.conf.
LunInfo MakeLun(const std::string& alias, const std::string& targetUuid, int id, uint64_t sectors) {
  LunInfo lun;
  lun.id = id;
  lun.targetAlias = alias;
  lun.sizeSectors = sectors;
  IT::Util::CreateLun(std::to_string(id), alias, targetUuid, sectors, "", lun.path, lun.uuid);
  bool changed = true;
  Parser::AddNewLunToConfFile(lun, changed);
  EXPECT_FALSE(changed);
  return lun;
}

// UpdateLun as the service runs it: one transaction that writes and publishes; returns the record
// as UpdateLun left it.
LunInfo EditLun(LunInfo lun, int newId = -1, const std::string& newTarget = "") {
  IT::Util::ChangeConfFile([&](IT::ConfHandle& handle) {
    bool retry = true;
    Parser::UpdateLun(lun, newId, newTarget, handle, retry);
    return !retry;
  });
  return lun;
}

LunInfo Ref(const std::string& alias, int id) {
  LunInfo lun;
  lun.id = id;
  lun.targetAlias = alias;
  return lun;
}

std::string AbsPath(const struct conf* c, const std::string& alias, int id) {
  return platform::DatastorePath() + "/" + TargetByAlias(c, alias)->t_luns[id]->l_path;
}

class ParserLuns : public ::testing::Test {
 protected:
  void SetUp() override { env.InitConf(); }
  TestHost env;
};

TEST_F(ParserLuns, AddAndRemoveEntries) {
  const std::string uuid = MakeTarget(1);
  MakeLun("t1", uuid, -1, 2048);
  MakeLun("t1", uuid, -1, 2048);
  LunInfo named;
  named.id = 5;
  named.targetAlias = "t1";
  named.alias = "data disk";
  named.naa = "60024B45000000000000000000000001";
  named.sizeText = "1MiB";
  IT::Util::CreateLun("5", "t1", uuid, 2048, "", named.path, named.uuid);
  named.path = env.datastore() + "/" + named.path;  // absolute form of a record is accepted
  const uint64_t gen = env.Generation();
  bool changed = true;
  Parser::AddNewLunToConfFile(named, changed);
  EXPECT_FALSE(changed);

  auto c = ReadModel();
  EXPECT_EQ(c->conf_generation, gen + 1);
  EXPECT_EQ(env.Published(), gen + 1);
  struct target* t = TargetByAlias(c.get(), "t1");
  ASSERT_TRUE(t->t_luns[0] != nullptr && t->t_luns[1] != nullptr && t->t_luns[5] != nullptr);
  EXPECT_EQ(t->t_luns[2], nullptr);
  const struct lun* l = t->t_luns[5];
  EXPECT_EQ(l->l_keld_lun, 5);
  EXPECT_STREQ(l->l_backend, "pemo");
  EXPECT_EQ(std::string(l->l_path), uuid + "/" + named.uuid + ".pemo");
  EXPECT_EQ(l->l_size, 2048);
  EXPECT_EQ(LunOption(l, "lun-alias"), "data disk");
  EXPECT_EQ(LunOption(l, "naa"), named.naa);
  EXPECT_EQ(LunOption(t->t_luns[0], "lun-alias"), "<none>");
  EXPECT_EQ(LunOption(t->t_luns[0], "naa"), "<none>");

  // Refusals: the file and the datastore stay as they are.
  const std::string snapshot = env.Snapshot();
  LogCapture capture;
  LunInfo noPath = Ref("t1", 6);
  EXPECT_EQ(ErrorOf([&] { Parser::AddNewLunToConfFile(noPath, changed); }),
            "No backing disk path for LUN 6 of target t1");
  noPath.path = uuid + "/quoted.pemo";
  noPath.alias = "say \"hi\"";  // would not read back from the file
  EXPECT_EQ(ErrorOf([&] { Parser::AddNewLunToConfFile(noPath, changed); }),
            "'\"' not permitted in alias");
  EXPECT_EQ(ErrorOf([] { Parser::RemoveLunFromConfFile(7, "t1"); }),
            "Failed to find LUN 7 for target t1");
  EXPECT_TRUE(capture.Contains(
      "Parser: Failed to remove LUN from conf file with error Failed to find LUN 7 for target t1"));
  EXPECT_EQ(env.Snapshot(), snapshot);

  // Removal takes the leftover reservation and lock files along, never the disk.
  const std::string disk = AbsPath(c.get(), "t1", 0);
  const std::string pr = IT::Util::GetLunPRFilePath(disk);
  const std::string lock = IT::Util::GetPemoLockFilePath(disk);
  WriteFile(pr, "reservation");
  WriteFile(lock, "");
  Parser::RemoveLunFromConfFile(0, "t1");
  c = ReadModel();
  EXPECT_EQ(c->conf_generation, gen + 2);
  EXPECT_EQ(TargetByAlias(c.get(), "t1")->t_luns[0], nullptr);
  EXPECT_NE(TargetByAlias(c.get(), "t1")->t_luns[1], nullptr);
  EXPECT_FALSE(PathExists(pr));
  EXPECT_FALSE(PathExists(lock));
  EXPECT_TRUE(PathExists(disk));
  EXPECT_TRUE(capture.Contains("Parser: removed lun path " + disk));
  EXPECT_TRUE(capture.Contains("Parser: Removed LUN 0 for target t1 from config file"));
}

TEST_F(ParserLuns, RenumberAndMoveNeedTheLunOffline) {
  const std::string uuid1 = MakeTarget(1);
  const std::string uuid2 = MakeTarget(2);
  LunInfo lun = MakeLun("t1", uuid1, 0, 2048);
  MakeLun("t2", uuid2, 0, 2048);

  const std::string snapshot = env.Snapshot();
  EXPECT_EQ(ErrorOf([&] { EditLun(lun, -1, "t2"); }),
            "Failed to move LUN to new target: Moving an online LUN to new target is not allowed. "
            "Bring the LUN offline first.");
  // Asking for offline in the same request does not help: the number is changed first.
  LunInfo offlineToo = lun;
  offlineToo.status = "offline";
  EXPECT_NE(ErrorOf([&] { EditLun(offlineToo, 3); }), "");
  EXPECT_EQ(ErrorOf([&] { EditLun(Ref("t1", 9), 3); }), "Failed to find LUN 9 for target t1");
  EXPECT_EQ(env.Snapshot(), snapshot);

  LunInfo off = Ref("t1", 0);
  off.status = "offline";
  EditLun(off);
  EXPECT_TRUE(lun_is_offline(TargetByAlias(ReadModel().get(), "t1")->t_luns[0]));

  LogCapture capture;
  LunInfo renumbered = EditLun(Ref("t1", 0), 3);
  EXPECT_EQ(renumbered.id, 3);
  auto c = ReadModel();
  EXPECT_EQ(TargetByAlias(c.get(), "t1")->t_luns[0], nullptr);
  ASSERT_NE(TargetByAlias(c.get(), "t1")->t_luns[3], nullptr);
  EXPECT_EQ(TargetByAlias(c.get(), "t1")->t_luns[3]->l_keld_lun, 3);
  EXPECT_TRUE(capture.Contains("OrsaIscsiTargetImpl: For target 't1' updating id form 0 to 3"));

  LunInfo second = MakeLun("t1", uuid1, 4, 2048);
  LunInfo secondOff = second;
  secondOff.status = "offline";
  EditLun(secondOff);
  EXPECT_EQ(ErrorOf([&] { EditLun(Ref("t1", 3), 4); }), "LUN with id 4 already exists.");

  c = ReadModel();
  // A move with a number takes it in the new target; a refused grow moves the disk back.
  const std::string secondDisk = AbsPath(c.get(), "t1", 4);
  LunInfo shrink = Ref("t1", 4);
  shrink.sizeSectors = 1024;
  EXPECT_EQ(ErrorOf([&] { EditLun(shrink, 7, "t2"); }), "LUN size cannot be reduced");
  EXPECT_TRUE(PathExists(secondDisk));
  const LunInfo moved = EditLun(Ref("t1", 4), 7, "t2");
  EXPECT_EQ(moved.id, 7);
  c = ReadModel();
  EXPECT_NE(TargetByAlias(c.get(), "t2")->t_luns[7], nullptr);
  EXPECT_FALSE(PathExists(secondDisk));
}

// While alive, writes past `bytes` into any file fail with EFBIG, as on a full datastore (root
// ignores permissions, so a read-only folder would not stop the write).
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &saved_);
    previous_ = signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit = saved_;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &saved_);
    signal(SIGXFSZ, previous_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  struct rlimit saved_;
  void (*previous_)(int);
};

TEST_F(ParserLuns, AMoveWhoseWriteFailsLeavesTheDatastoreAsItWas) {
  const std::string uuid1 = MakeTarget(1);
  const std::string uuid2 = MakeTarget(2);
  MakeLun("t1", uuid1, 0, 2048);
  MakeLun("t2", uuid2, 0, 2048);
  LunInfo off = Ref("t1", 0);
  off.status = "offline";
  EditLun(off);
  const std::string disk = AbsPath(ReadModel().get(), "t1", 0);
  const std::string diskName = disk.substr(disk.find_last_of('/') + 1);
  const std::string movedDisk = env.datastore() + "/" + uuid2 + "/" + diskName;
  WriteFile(IT::Util::GetLunPRFilePath(disk), "reservation");
  WriteFile(IT::Util::GetPemoLockFilePath(disk), "");

  // The disk is moved before kel.conf is written; the write fails, and the disk goes back to the
  // target the file still names, its reservation and lock files untouched.
  const std::string snapshot = env.Snapshot();
  LogCapture capture;
  {
    FileSizeLimit full(64);
    EXPECT_EQ(ErrorOf([] { EditLun(Ref("t1", 0), -1, "t2"); }),
              "Failed to write temp config file: File too large");
  }
  EXPECT_EQ(env.Snapshot(), snapshot);
  EXPECT_TRUE(PathExists(disk));
  EXPECT_FALSE(PathExists(movedDisk));
  EXPECT_EQ(ReadFile(IT::Util::GetLunPRFilePath(disk)), "reservation");
  EXPECT_TRUE(PathExists(IT::Util::GetPemoLockFilePath(disk)));
  EXPECT_TRUE(capture.Contains("Parser: Moved " + movedDisk + " back to " + disk))
      << capture.Joined();

  // Written, the move sticks at the new target's lowest free number and the old reservation and
  // lock files go.
  const LunInfo moved = EditLun(Ref("t1", 0), -1, "t2");
  EXPECT_EQ(moved.targetAlias, "t2");
  EXPECT_EQ(moved.id, 1);
  EXPECT_FALSE(PathExists(disk));
  EXPECT_TRUE(PathExists(movedDisk));
  EXPECT_FALSE(PathExists(IT::Util::GetLunPRFilePath(disk)));
  EXPECT_FALSE(PathExists(IT::Util::GetPemoLockFilePath(disk)));
  EXPECT_EQ(std::string(TargetByAlias(ReadModel().get(), "t2")->t_luns[1]->l_path),
            uuid2 + "/" + diskName);
}

TEST_F(ParserLuns, GrowResizeCheckAndRollback) {
  const std::string uuid = MakeTarget(1);
  MakeLun("t1", uuid, 0, 2048);
  const std::string disk = AbsPath(ReadModel().get(), "t1", 0);

  const std::string snapshot = env.Snapshot();
  LunInfo smaller = Ref("t1", 0);
  smaller.sizeSectors = 1024;
  EXPECT_EQ(ErrorOf([&] { EditLun(smaller); }), "LUN size cannot be reduced");
  EXPECT_EQ(env.Snapshot(), snapshot);

  LogCapture capture;
  LunInfo bigger = Ref("t1", 0);
  bigger.sizeText = "2MiB";
  bigger.sizeSectors = 4096;
  bigger.alias = "grown";
  const uint64_t gen = env.Generation();
  LunInfo after = EditLun(bigger);
  auto c = ReadModel();
  EXPECT_EQ(c->conf_generation, gen + 1);
  const struct lun* l = TargetByAlias(c.get(), "t1")->t_luns[0];
  EXPECT_EQ(l->l_size, 4096);
  EXPECT_EQ(LunOption(l, "KelOnlineResize"), "<none>");
  EXPECT_EQ(LunOption(l, "lun-alias"), "grown");
  EXPECT_EQ(IT::Util::GetLunDiskSectors(disk), 4096u);
  EXPECT_TRUE(capture.Contains("Parser: GrowSize 2MiB, old: 2048, new: 4096 on LUN(" + disk + ")"));
  EXPECT_FALSE(Parser::CheckResizeDone(after, after.id));
  EXPECT_TRUE(capture.Contains("Parser: Async resize completed for LUN: " + disk));
  EXPECT_EQ(Parser::GetKelLunActualSize(TargetByAlias(c.get(), "t1")->t_luns[0]), 4096u);

  // The disk holds less than the file says: the file goes back to the disk's size.
  ASSERT_EQ(platform::GetFs().Truncate(disk, 3072 * 512), 0);
  EXPECT_EQ(ErrorOf([&] { Parser::CheckResizeDone(after, after.id); }),
            "Cannot complete resizing, no enough space on Orsa Datastore");
  EXPECT_EQ(TargetByAlias(ReadModel().get(), "t1")->t_luns[0]->l_size, 3072);

  Parser::RollbackConfigLunSize(after, 0, 2048);
  EXPECT_EQ(TargetByAlias(ReadModel().get(), "t1")->t_luns[0]->l_size, 2048);
  EXPECT_EQ(ErrorOf([&] { Parser::RollbackConfigLunSize(after, 9, 2048); }),
            "LUN not found when rollback LUN size");

  // A disk that cannot be opened is no answer yet: try again.
  ASSERT_EQ(platform::GetFs().Unlink(disk), 0);
  EXPECT_TRUE(Parser::CheckResizeDone(after, after.id));
  EXPECT_TRUE(capture.Contains("Parser: VirtDisk_OpenWithInfo failed: "));
  EXPECT_EQ(Parser::GetKelLunActualSize(TargetByAlias(ReadModel().get(), "t1")->t_luns[0]), 0u);
  EXPECT_EQ(ErrorOf([&] { Parser::RollbackConfigLunSize(after, 0, 0); }),
            "Cannot retrieve LUN actual size");
}

}  // namespace
}  // namespace testing
}  // namespace kel
