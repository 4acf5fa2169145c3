#include "conf/conf_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "platform/clog.h"
#include "platform/log.h"
#include "tests/conf/conf_file_testutil.h"
#include "tests/support/test_support.h"

namespace {

using kel::log::LogCapture;
using kel::testing::LockHolder;
using kel::testing::ScriptedClock;
using kel::testing::TempDir;
using kel::testing::WriteFile;
using std::chrono::milliseconds;

class ConfFile : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_level_ = log_get_level();
    log_init(4);
    path_ = dir_.Join("kel.conf");
  }
  void TearDown() override { log_init(saved_level_); }

  std::vector<milliseconds> Repeat(int n, int ms) {
    return std::vector<milliseconds>(n, milliseconds(ms));
  }

  TempDir dir_;
  std::string path_;
  int saved_level_ = 0;
};

TEST_F(ConfFile, MissingFileIsRetriedFiveTimesTwoSecondsApart) {
  ScriptedClock clock;
  LogCapture capture;
  FioHandle file;
  EXPECT_EQ(conf_file_open_share_lock(path_.c_str(), &file, 300000), NUK_NOT_FOUND);
  EXPECT_FALSE(file.Valid());
  EXPECT_EQ(clock.Sleeps(), Repeat(5, 2000));
  EXPECT_TRUE(capture.Contains("KELD: requesting share lock for config file " + path_));
  EXPECT_TRUE(capture.Contains("KELD: open failed for " + path_ +
                               " after 0 lock retries and 5 not found retries due to error (" +
                               NUK_ReturnStatusToString(NUK_NOT_FOUND) + ")."))
      << capture.Joined();
  EXPECT_TRUE(capture.Contains("KELD: unable to open and lock config file " + path_ +
                               ": No such file or directory"))
      << capture.Joined();

  // The not-found budget follows a shorter wait (ceil(3000 / 2000) = 2) and is capped at 10 s.
  ScriptedClock short_clock;
  EXPECT_EQ(conf_file_open_exclusive_lock(path_.c_str(), &file, 3000), NUK_NOT_FOUND);
  EXPECT_EQ(short_clock.Sleeps(), Repeat(2, 2000));
}

TEST_F(ConfFile, FileThatAppearsWhileWaitingIsOpened) {
  ScriptedClock clock([&](int n) {
    if (n == 2) WriteFile(path_, "generation 3\n");
  });
  LogCapture capture;
  FioHandle file;
  ASSERT_EQ(conf_file_open_exclusive_lock(path_.c_str(), &file, 300000), NUK_OK);
  EXPECT_TRUE(file.Valid());
  EXPECT_EQ(fcntl(file.fd, F_GETFL) & O_ACCMODE, O_RDWR);
  EXPECT_EQ(clock.Sleeps(), Repeat(2, 2000));
  EXPECT_TRUE(capture.Contains("KELD: open succeeded for " + path_ +
                               " after 0 lock retries and 2 not found retries"))
      << capture.Joined();
  EXPECT_TRUE(capture.Contains("KELD: exclusive lock succeeded for config file " + path_));
  capture.Clear();
  EXPECT_EQ(conf_close_file(&file), NUK_OK);
  EXPECT_FALSE(file.Valid());
  EXPECT_TRUE(capture.Contains("KELD: unlocked config file"));
  capture.Clear();
  EXPECT_EQ(conf_close_file(&file), NUK_OK);  // already closed: nothing to do, nothing logged
  EXPECT_EQ(capture.Records().size(), 0u);
}

TEST_F(ConfFile, LockHeldByAnotherProcessIsWaitedForWithinTheBudget) {
  WriteFile(path_, "generation 1\n");
  LockHolder holder(path_, /*exclusive=*/true);
  ASSERT_TRUE(holder.locked());
  {
    ScriptedClock clock;
    LogCapture capture;
    FioHandle file;
    EXPECT_EQ(conf_file_open_share_lock(path_.c_str(), &file, 1000), NUK_BUSY);
    EXPECT_FALSE(file.Valid());
    EXPECT_EQ(clock.Sleeps(), Repeat(5, 200));
    EXPECT_TRUE(capture.Contains("KELD: open failed for " + path_ +
                                 " after 5 lock retries and 0 not found retries due to error (" +
                                 NUK_ReturnStatusToString(NUK_BUSY) + ")."))
        << capture.Joined();
    EXPECT_TRUE(capture.Contains("KELD: unable to open and lock config file " + path_));
  }
  {
    // Budgets round up, and nothing is retried or reported without a budget.
    ScriptedClock clock;
    FioHandle file;
    EXPECT_EQ(conf_file_open_exclusive_lock(path_.c_str(), &file, 1001), NUK_BUSY);
    EXPECT_EQ(clock.Sleeps(), Repeat(6, 200));
    ScriptedClock no_wait;
    LogCapture capture;
    EXPECT_EQ(conf_file_open_exclusive_lock(path_.c_str(), &file, 0), NUK_BUSY);
    EXPECT_TRUE(no_wait.Sleeps().empty());
    EXPECT_FALSE(capture.Contains("open failed for"));
    EXPECT_TRUE(capture.Contains("unable to open and lock config file"));
  }
  {
    // The lock budget is capped at 600 s.
    ScriptedClock clock;
    FioHandle file;
    EXPECT_EQ(conf_file_open_share_lock(path_.c_str(), &file, 900000), NUK_BUSY);
    EXPECT_EQ(clock.Sleeps().size(), 3000u);
  }
  {
    // Released after the third sleep: the fourth attempt gets it.
    ScriptedClock clock([&](int n) {
      if (n == 3) holder.Release();
    });
    LogCapture capture;
    FioHandle file;
    ASSERT_EQ(conf_file_open_share_lock(path_.c_str(), &file, 300000), NUK_OK);
    EXPECT_EQ(fcntl(file.fd, F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(clock.Sleeps(), Repeat(3, 200));
    EXPECT_TRUE(capture.Contains("KELD: open succeeded for " + path_ +
                                 " after 3 lock retries and 0 not found retries"))
        << capture.Joined();
    conf_close_file(&file);
  }
}

TEST_F(ConfFile, SharedHoldersDoNotWaitForEachOther) {
  WriteFile(path_, "generation 1\n");
  LockHolder reader(path_, /*exclusive=*/false);
  ASSERT_TRUE(reader.locked());
  ScriptedClock clock;
  FioHandle file;
  ASSERT_EQ(conf_file_open_share_lock(path_.c_str(), &file, 300000), NUK_OK);
  EXPECT_TRUE(clock.Sleeps().empty());
  conf_close_file(&file);
  EXPECT_EQ(conf_file_open_exclusive_lock(path_.c_str(), &file, 400), NUK_BUSY);
  EXPECT_EQ(clock.Sleeps(), Repeat(2, 200));
}

}  // namespace
