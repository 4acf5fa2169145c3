// kel.conf's cluster-wide lock: the file layer's waits and retries against other processes, and
// the handle that reads, writes and backs up the file under it.
#include "conf/conf_handle.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "conf/conf.h"
#include "conf/conf_backup.h"
#include "conf/conf_file.h"
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
using kel::testing::TempDir;
using kel::testing::WriteFile;
using NukCtl::Orsa::IscsiTarget::ConfHandle;
using std::chrono::milliseconds;

// A host whose kel.conf holds `text` (no file when it is empty).
struct ConfEnv : kel::testing::TestHost {
  explicit ConfEnv(const std::string& text = "generation 1\n") {
    MakeConfigNamespace();
    if (!text.empty()) WriteFile(conf_path(), text, 0600);
  }
};

std::vector<milliseconds> Repeat(int n, int ms) {
  return std::vector<milliseconds>(n, milliseconds(ms));
}

// Every line logged, the level put back afterwards.
class AllLines : public ::testing::Test {
 protected:
  void SetUp() override { log_init(4); }
  void TearDown() override { log_init(saved_level_); }
  const int saved_level_ = log_get_level();
};

class ConfFile : public AllLines {
 protected:
  // One open of the file under a fake clock, closed again at once: its status, the waits it made,
  // the access mode it got and every line it logged. `onSleep` runs as each wait begins.
  struct Attempt {
    NUK_ReturnStatus status;
    std::vector<milliseconds> sleeps;
    int accessMode = -1;
    std::string log;
    bool Logged(const std::string& line) const { return log.find(line) != std::string::npos; }
  };
  Attempt Open(bool exclusive, int budgetMs, std::function<void(int)> onSleep = nullptr) {
    ScriptedClock clock(std::move(onSleep));
    LogCapture capture;
    FioHandle file;
    Attempt a;
    a.status = exclusive ? conf_file_open_exclusive_lock(path_.c_str(), &file, budgetMs)
                         : conf_file_open_share_lock(path_.c_str(), &file, budgetMs);
    EXPECT_EQ(file.Valid(), a.status == NUK_OK);
    if (file.Valid()) a.accessMode = fcntl(file.fd, F_GETFL) & O_ACCMODE;
    conf_close_file(&file);
    a.sleeps = clock.Sleeps();
    a.log = capture.Joined();
    return a;
  }

  TempDir dir_;
  const std::string path_ = dir_.Join("kel.conf");
};

TEST_F(ConfFile, MissingFileIsRetriedFiveTimesTwoSecondsApart) {
  Attempt a = Open(false, 300000);
  EXPECT_EQ(a.status, NUK_NOT_FOUND);
  EXPECT_EQ(a.sleeps, Repeat(5, 2000));
  EXPECT_TRUE(a.Logged("KELD: requesting share lock for config file " + path_)) << a.log;
  EXPECT_TRUE(a.Logged("KELD: open failed for " + path_ +
                       " after 0 lock retries and 5 not found retries due to error (" +
                       NUK_ReturnStatusToString(NUK_NOT_FOUND) + ")."));
  EXPECT_TRUE(a.Logged("KELD: unable to open and lock config file " + path_ +
                       ": No such file or directory"));
  // The not-found budget follows a shorter wait (ceil(3000 / 2000) = 2) and is capped at 10 s.
  EXPECT_EQ(Open(true, 3000).sleeps, Repeat(2, 2000));
}

TEST_F(ConfFile, FileThatAppearsWhileWaitingIsOpened) {
  Attempt a = Open(true, 300000, [&](int n) {
    if (n == 2) WriteFile(path_, "generation 3\n");
  });
  ASSERT_EQ(a.status, NUK_OK);
  EXPECT_EQ(a.accessMode, O_RDWR);
  EXPECT_EQ(a.sleeps, Repeat(2, 2000));
  EXPECT_TRUE(a.Logged("KELD: open succeeded for " + path_ +
                       " after 0 lock retries and 2 not found retries"))
      << a.log;
  EXPECT_TRUE(a.Logged("KELD: exclusive lock succeeded for config file " + path_));
  EXPECT_TRUE(a.Logged("KELD: unlocked config file"));
  // Closing a handle that is not open does nothing and logs nothing.
  LogCapture capture;
  FioHandle closed;
  EXPECT_EQ(conf_close_file(&closed), NUK_OK);
  EXPECT_EQ(capture.Records().size(), 0u);
}

TEST_F(ConfFile, LockHeldByAnotherProcessIsWaitedForWithinTheBudget) {
  WriteFile(path_, "generation 1\n");
  LockHolder holder(path_, /*exclusive=*/true);
  ASSERT_TRUE(holder.locked());
  Attempt a = Open(false, 1000);
  EXPECT_EQ(a.status, NUK_BUSY);
  EXPECT_EQ(a.sleeps, Repeat(5, 200));
  EXPECT_TRUE(a.Logged("KELD: open failed for " + path_ +
                       " after 5 lock retries and 0 not found retries due to error (" +
                       NUK_ReturnStatusToString(NUK_BUSY) + ")."))
      << a.log;
  EXPECT_TRUE(a.Logged("KELD: unable to open and lock config file " + path_));

  // Budgets round up, nothing is retried or reported without a budget, and the lock budget is
  // capped at 600 s.
  EXPECT_EQ(Open(true, 1001).sleeps, Repeat(6, 200));
  a = Open(true, 0);
  EXPECT_EQ(a.status, NUK_BUSY);
  EXPECT_TRUE(a.sleeps.empty());
  EXPECT_FALSE(a.Logged("open failed for"));
  EXPECT_TRUE(a.Logged("unable to open and lock config file"));
  EXPECT_EQ(Open(false, 900000).sleeps.size(), 3000u);

  // Released after the third sleep: the fourth attempt gets it.
  a = Open(false, 300000, [&](int n) {
    if (n == 3) holder.Release();
  });
  ASSERT_EQ(a.status, NUK_OK);
  EXPECT_EQ(a.accessMode, O_RDONLY);
  EXPECT_EQ(a.sleeps, Repeat(3, 200));
  EXPECT_TRUE(a.Logged("KELD: open succeeded for " + path_ +
                       " after 3 lock retries and 0 not found retries"))
      << a.log;
}

TEST_F(ConfFile, AWaitingWriterKeepsNewReadersOutUntilItHasTheFile) {
  WriteFile(path_, "generation 1\n");
  LockHolder reader(path_, /*exclusive=*/false);
  ASSERT_TRUE(reader.locked());
  // While the writer waits for the reader that is inside, a reader that comes later does not get
  // in (without the intent file it would, and back-to-back readers would keep the writer out);
  // the writer gets the file as soon as the first reader leaves.
  std::vector<NUK_ReturnStatus> latecomers;
  ScriptedClock clock([&](int n) {
    FioHandle late;
    latecomers.push_back(conf_file_open_share_lock(path_.c_str(), &late, 0));
    conf_close_file(&late);
    if (n == 3) reader.Release();
  });
  LogCapture capture;
  FioHandle writer;
  ASSERT_EQ(conf_file_open_exclusive_lock(path_.c_str(), &writer, 300000), NUK_OK);
  EXPECT_EQ(clock.Sleeps(), Repeat(3, 200));
  EXPECT_EQ(latecomers, std::vector<NUK_ReturnStatus>(3, NUK_BUSY));
  EXPECT_TRUE(capture.Contains("KELD: open succeeded for " + path_ +
                               " after 3 lock retries and 0 not found retries"))
      << capture.Joined();

  // Holding the file, the writer no longer holds the intent: readers wait for the file itself,
  // and get it once the writer is done. The intent file is private like kel.conf.
  const std::string intent = dir_.Join(".kel.conf.intent");
  struct stat st;
  ASSERT_EQ(stat(intent.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  LockHolder intentProbe(intent, /*exclusive=*/true);
  EXPECT_TRUE(intentProbe.locked());
  intentProbe.Release();
  Attempt late = Open(false, 400);
  EXPECT_EQ(late.status, NUK_BUSY);
  EXPECT_EQ(late.sleeps, Repeat(2, 200));
  conf_close_file(&writer);
  EXPECT_EQ(Open(false, 0).status, NUK_OK);
}

// Several processes reading back to back, each holding the file a while, so that at every moment
// one of them holds it. A writer still gets in within a few polling rounds of its budget.
TEST_F(ConfFile, OverlappingReaderProcessesDoNotStarveAWriter) {
  WriteFile(path_, "generation 1\n");
  log_init(0);  // the readers' lines are of no interest here
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  std::vector<pid_t> readers;
  for (int i = 0; i < 4; ++i) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      close(ready[0]);
      usleep(static_cast<useconds_t>(i) * 10000);  // staggered, so their holds overlap
      for (bool first = true;; first = false) {
        FioHandle file;
        if (conf_file_open_share_lock(path_.c_str(), &file, 300000) != NUK_OK) _exit(3);
        if (first && write(ready[1], "r", 1) != 1) _exit(2);
        usleep(40000);
        conf_close_file(&file);
      }
    }
    readers.push_back(pid);
  }
  close(ready[1]);
  for (size_t i = 0; i < readers.size(); ++i) {
    char c;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
  }
  close(ready[0]);

  // Real waits, counted: 15 rounds of 200 ms are the writer's whole budget here.
  ScriptedClock clock([](int) { std::this_thread::sleep_for(std::chrono::milliseconds(200)); });
  FioHandle writer;
  const NUK_ReturnStatus status = conf_file_open_exclusive_lock(path_.c_str(), &writer, 3000);
  const size_t rounds = clock.Sleeps().size();
  conf_close_file(&writer);
  for (pid_t pid : readers) {
    kill(pid, SIGKILL);
    int ignored;
    waitpid(pid, &ignored, 0);
  }
  EXPECT_EQ(status, NUK_OK);
  EXPECT_LE(rounds, 3u);
}

class ConfHandleTest : public AllLines {
 protected:
  void TearDown() override {
    ConfHandle::SetLockWaitMsForTest(300000);
    AllLines::TearDown();
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
    // Missing file (the file layer's retries are checked above).
    ConfEnv env("");
    ScriptedClock clock;
    EXPECT_EQ(ConstructError(ConfHandle::kExclusive),
              "Parser: exclusive lock failed on " + env.conf_path());
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
