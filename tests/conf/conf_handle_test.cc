#include "conf/conf_handle.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "conf/conf.h"
#include "conf/conf_backup.h"
#include "platform/clock.h"
#include "platform/clog.h"
#include "platform/exception.h"
#include "platform/fio.h"
#include "platform/log.h"
#include "tests/support/test_host.h"

namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;
using kel::log::LogCapture;
using kel::testing::LockHolder;
using kel::testing::ReadFile;
using kel::testing::ScriptedClock;
using NukCtl::Orsa::IscsiTarget::ConfHandle;

// A host whose kel.conf holds `text` (no file when it is empty).
struct ConfEnv : kel::testing::TestHost {
  explicit ConfEnv(const std::string& text = "generation 1\n") {
    MakeConfigNamespace();
    if (!text.empty()) kel::testing::WriteFile(conf_path(), text, 0600);
  }
};

class ConfHandleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_level_ = log_get_level();
    log_init(4);
  }
  void TearDown() override {
    ConfHandle::SetLockWaitMsForTest(300000);
    log_init(saved_level_);
  }

  // The message of the exception that constructing a handle throws ("" if it does not).
  static std::string ConstructError(int mode) {
    try {
      ConfHandle handle(mode);
    } catch (const OrsaCtlException& e) {
      return e.GetMessage();
    }
    return "";
  }

  // True when nobody holds a lock on `path` (an exclusive lock can be taken at once).
  static bool Unlocked(const std::string& path) {
    FioHandle probe;
    if (Fio_Open(path.c_str(), FIO_OPEN_RW_EXCLUSIVE, &probe) != NUK_OK) return false;
    Fio_Close(&probe);
    return true;
  }

  int saved_level_ = 0;
};

TEST_F(ConfHandleTest, WritesRaiseTheGenerationAndKeepTheFileLockedAndPrivate) {
  ConfEnv env;
  LogCapture capture;
  {
    ConfHandle writer(ConfHandle::kExclusive);
    EXPECT_EQ(writer.GetPath(), env.conf_path());
    EXPECT_EQ(writer.GetCurrentGenerationNum(), 1u);
    ASSERT_NE(initiator_group_new(writer.GetConf(), "ig-one"), nullptr);
    EXPECT_EQ(writer.WriteConfFile(), 2u);
    ASSERT_NE(initiator_group_new(writer.GetConf(), "ig-two"), nullptr);
    EXPECT_EQ(writer.WriteConfFile(), 3u);
    EXPECT_EQ(writer.GetCurrentGenerationNum(), 3u);
    std::string text = ReadFile(env.conf_path());
    EXPECT_EQ(text.rfind("generation 3\n", 0), 0u) << text;
    EXPECT_NE(text.find("initiator-group ig-two {"), std::string::npos) << text;
    struct stat st;
    ASSERT_EQ(stat(env.conf_path().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_TRUE(env.ConfDirLeftovers().empty());

    // Still locked across both swaps: a reader gives up after its (shortened) budget.
    ScriptedClock clock;
    ConfHandle::SetLockWaitMsForTest(1000);
    EXPECT_EQ(ConstructError(ConfHandle::kShared),
              "Parser: share lock failed on " + env.conf_path());
    EXPECT_EQ(clock.Sleeps().size(), 5u);
  }
  EXPECT_TRUE(capture.Contains("KELD: unlocked config file"));
  ConfHandle reader(ConfHandle::kShared);
  EXPECT_EQ(reader.GetCurrentGenerationNum(), 3u);
  EXPECT_NE(initiator_group_find(reader.GetConf(), "ig-one"), nullptr);
  EXPECT_NE(initiator_group_find(reader.GetConf(), "ig-two"), nullptr);
  // Readers share: a second reader gets in at once.
  ConfHandle second(ConfHandle::kShared);
  struct conf* taken = second.ReleaseConf();
  ASSERT_NE(taken, nullptr);
  EXPECT_EQ(second.GetConf(), nullptr);
  conf_delete(taken);
}

TEST_F(ConfHandleTest, FailedConstructionLeavesNoLockBehind) {
  {
    // Missing file: retried 5 times, 2 s apart.
    ConfEnv env("");
    ScriptedClock clock;
    EXPECT_EQ(ConstructError(ConfHandle::kExclusive),
              "Parser: exclusive lock failed on " + env.conf_path());
    EXPECT_EQ(clock.Sleeps(),
              std::vector<std::chrono::milliseconds>(5, std::chrono::milliseconds(2000)));
  }
  {
    // Held exclusively by another process: the reader waits, then fails.
    ConfEnv env;
    LockHolder holder(env.conf_path(), /*exclusive=*/true);
    ASSERT_TRUE(holder.locked());
    ScriptedClock clock;
    ConfHandle::SetLockWaitMsForTest(2000);
    EXPECT_EQ(ConstructError(ConfHandle::kShared),
              "Parser: share lock failed on " + env.conf_path());
    EXPECT_EQ(clock.Sleeps(),
              std::vector<std::chrono::milliseconds>(10, std::chrono::milliseconds(200)));
    holder.Release();
    EXPECT_TRUE(Unlocked(env.conf_path()));
  }
  {
    // A file that does not parse: the lock is dropped again.
    ConfEnv env("generation 1\ntarget {\n");
    LogCapture capture;
    EXPECT_EQ(ConstructError(ConfHandle::kExclusive),
              "Failed to read conf file: " + env.conf_path());
    EXPECT_TRUE(capture.Contains("KELD: unlocked config file")) << capture.Joined();
    EXPECT_TRUE(Unlocked(env.conf_path()));
    // The parser's state is clean: the next good file reads.
    kel::testing::WriteFile(env.conf_path(), "generation 7\n");
    ConfHandle ok(ConfHandle::kShared);
    EXPECT_EQ(ok.GetCurrentGenerationNum(), 7u);
  }
  {
    // An undecodable secret throws from inside the parse.
    ConfEnv env("generation 1\nauth-group ag1 {\n\t chap \"u\" \"!!!notbase64\" \n}\n");
    std::string error = ConstructError(ConfHandle::kShared);
    EXPECT_FALSE(error.empty());
    EXPECT_NE(error.find("Base64_Decode"), std::string::npos) << error;
    EXPECT_TRUE(Unlocked(env.conf_path()));
  }
}

TEST_F(ConfHandleTest, FailedWriteLeavesTheFileAsItWas) {
  ConfEnv env;
  std::string before = ReadFile(env.conf_path());
  ConfHandle writer(ConfHandle::kExclusive);
  struct auth_group* ag = auth_group_new(writer.GetConf(), "ag-long");
  ASSERT_NE(ag, nullptr);
  ASSERT_EQ(auth_group_set_type(ag, "chap"), 0);
  // 30 bytes encode to 40 characters: more than the writer accepts.
  ASSERT_NE(auth_new_chap(ag, "user", "abcdefghijklmnopqrstuvwxyz0123", false), nullptr);
  try {
    writer.WriteConfFile();
    ADD_FAILURE() << "an oversized secret was written";
  } catch (const OrsaCtlException& e) {
    EXPECT_EQ(e.GetMessage(), "Base64_Encode failed: Unexpected encoding size");
  }
  EXPECT_EQ(writer.GetCurrentGenerationNum(), 2u);  // raised in memory only
  EXPECT_EQ(ReadFile(env.conf_path()), before);
  EXPECT_TRUE(env.ConfDirLeftovers().empty());
  // The handle is still usable once the model is fixed.
  auth_group_delete(ag);
  EXPECT_EQ(writer.WriteConfFile(), 3u);
  EXPECT_EQ(ReadFile(env.conf_path()).rfind("generation 3\n", 0), 0u);
}

TEST_F(ConfHandleTest, BackupIsWrittenOncePerGeneration) {
  namespace Util = NukCtl::Orsa::IscsiTarget::Util;
  ConfEnv env;
  std::string backup = env.state_dir() + "/log/kel.conf.backup";
  EXPECT_EQ(ConfHandle::BackupPath(), backup);
  Util::backupConfGenNumber = UINT64_MAX;
  LogCapture capture;

  {
    ConfHandle writer(ConfHandle::kExclusive);
    initiator_group_new(writer.GetConf(), "ig-backup");
    ASSERT_EQ(writer.WriteConfFile(), 2u);
  }
  Util::CopyKelConfWithLock();
  EXPECT_EQ(Util::backupConfGenNumber.load(), 2u);
  EXPECT_EQ(ReadFile(backup), ReadFile(env.conf_path()));
  struct stat st;
  ASSERT_EQ(stat(backup.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);

  kel::testing::WriteFile(backup, "stale");
  Util::CopyKelConfWithLock();
  EXPECT_TRUE(capture.Contains("Util: backup kel.conf gen: 2, global kel.conf gen: 2, skip backup"))
      << capture.Joined();
  EXPECT_EQ(ReadFile(backup), "stale");

  {
    ConfHandle writer(ConfHandle::kExclusive);
    ASSERT_EQ(writer.WriteConfFile(), 3u);
  }
  Util::CopyKelConfWithLock();
  EXPECT_EQ(Util::backupConfGenNumber.load(), 3u);
  EXPECT_EQ(ReadFile(backup), ReadFile(env.conf_path()));

  // A failure is logged and leaves the remembered generation alone.
  capture.Clear();
  ASSERT_EQ(unlink(env.conf_path().c_str()), 0);
  ScriptedClock clock;
  Util::CopyKelConfWithLock();
  EXPECT_TRUE(capture.Contains("Util: Failed to copy file from " + env.conf_path() +
                               " due to: Parser: share lock failed on " + env.conf_path()))
      << capture.Joined();
  EXPECT_EQ(Util::backupConfGenNumber.load(), 3u);
  Util::backupConfGenNumber = UINT64_MAX;
}

}  // namespace
