// Several processes editing one kel.conf through ConfHandle at once, and writers killed midway.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "conf/conf.h"
#include "conf/conf_handle.h"
#include "platform/clock.h"
#include "platform/clog.h"
#include "platform/exception.h"
#include "tests/support/test_host.h"

namespace {

using NukCtl::Orsa::IscsiTarget::ConfHandle;

int CountGroups(const struct conf* c) {
  int n = 0;
  const struct initiator_group* ig;
  TAILQ_FOREACH(ig, &c->conf_initiator_groups, ig_next)++ n;
  return n;
}

// The global option "counter", which every kill-test edit raises together with the generation.
uint64_t Counter(const struct conf* c) {
  const struct conf_option* co = conf_option_find(c, "counter");
  return co == nullptr ? 0 : strtoull(co->co_value, nullptr, 10);
}

// Runs `body` in a child process; returns its PID. The child exits 0 when `body` returns true.
template <typename Body>
pid_t Fork(Body body) {
  pid_t pid = fork();
  if (pid == 0) {
    bool ok = false;
    try {
      ok = body();
    } catch (const std::exception& e) {
      fprintf(stderr, "child %d: %s\n", static_cast<int>(getpid()), e.what());
    }
    _exit(ok ? 0 : 1);
  }
  return pid;
}

bool ExitedCleanly(pid_t pid) {
  int status = 0;
  return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Real sleeps of a hundredth of the asked time: processes really wait for each other's locks,
// without the test taking minutes.
class ShortSleepClock : public kel::platform::Clock {
 public:
  void SleepFor(std::chrono::milliseconds d) override {
    usleep(static_cast<useconds_t>(d.count() * 10));
  }
  std::chrono::steady_clock::time_point Now() override { return std::chrono::steady_clock::now(); }
};

class ConfHandleProcesses : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_level_ = log_get_level();
    log_init(0);  // thousands of lock lines would only slow the children down
    kel::platform::SetClockForTest(&clock_);
  }
  void TearDown() override {
    kel::platform::SetClockForTest(nullptr);
    log_init(saved_level_);
  }
  ShortSleepClock clock_;
  int saved_level_ = 0;
};

TEST_F(ConfHandleProcesses, ConcurrentWritersLoseNoEditAndReadersNeverSeeAPartialFile) {
  kel::testing::TestHost env;
  env.InitConf();
  constexpr int kWriters = 4;
  constexpr int kEdits = 50;
  std::string stop_file = env.Join("stop-readers");

  // A reader: every read must parse, and every file holds exactly one group per generation step.
  const pid_t reader = Fork([&] {
    uint64_t last = 0;
    for (int reads = 0; !kel::testing::PathExists(stop_file) || reads == 0; ++reads) {
      ConfHandle handle(ConfHandle::kShared);
      const uint64_t gen = handle.GetCurrentGenerationNum();
      if (gen < last || static_cast<uint64_t>(CountGroups(handle.GetConf())) != gen - 1) {
        return false;
      }
      last = gen;
      usleep(5000);  // real readers come and go
    }
    return true;
  });
  ASSERT_GT(reader, 0);

  std::vector<pid_t> writers;
  for (int w = 0; w < kWriters; ++w) {
    writers.push_back(Fork([w] {
      // Two writes per handle: the handle must keep other writers out across its own swaps.
      for (int i = 0; i < kEdits; i += 2) {
        ConfHandle handle(ConfHandle::kExclusive);
        uint64_t before = handle.GetCurrentGenerationNum();
        for (int k = 0; k < 2; ++k) {
          std::string name = "ig-w" + std::to_string(w) + "-" + std::to_string(i + k);
          if (initiator_group_new(handle.GetConf(), name.c_str()) == nullptr) return false;
          if (handle.WriteConfFile() != before + 1 + k) return false;
          usleep(1000);  // gives a writer that could sneak in between the time to do so
        }
      }
      return true;
    }));
    ASSERT_GT(writers.back(), 0);
  }
  for (pid_t pid : writers) EXPECT_TRUE(ExitedCleanly(pid)) << "writer " << pid;
  kel::testing::WriteFile(stop_file, "");
  EXPECT_TRUE(ExitedCleanly(reader));

  ConfHandle final_read(ConfHandle::kShared);
  EXPECT_EQ(final_read.GetCurrentGenerationNum(), 1u + kWriters * kEdits);
  EXPECT_EQ(CountGroups(final_read.GetConf()), kWriters * kEdits);
  for (int w = 0; w < kWriters; ++w) {
    for (int i = 0; i < kEdits; ++i) {
      std::string name = "ig-w" + std::to_string(w) + "-" + std::to_string(i);
      EXPECT_NE(initiator_group_find(final_read.GetConf(), name.c_str()), nullptr) << name;
    }
  }
  EXPECT_TRUE(env.ConfDirLeftovers().empty());
}

TEST_F(ConfHandleProcesses, WriterKilledAtAnyPointLeavesAFileThatParses) {
  kel::testing::TestHost env;
  env.InitConf("generation 1\noption counter 0\n");
  std::mt19937 rng(12345);
  std::uniform_int_distribution<int> delay_us(0, 20000);
  for (int round = 0; round < 25; ++round) {
    pid_t writer = Fork([] {
      for (;;) {
        ConfHandle handle(ConfHandle::kExclusive);
        struct conf_option* co = conf_option_find(handle.GetConf(), "counter");
        if (co == nullptr) return false;
        std::string next = std::to_string(strtoull(co->co_value, nullptr, 10) + 1);
        free(co->co_value);
        co->co_value = checked_strdup(next.c_str());
        handle.WriteConfFile();
      }
    });
    ASSERT_GT(writer, 0);
    usleep(static_cast<useconds_t>(delay_us(rng)));
    kill(writer, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(writer, &status, 0), writer);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped by itself in round " << round;

    // The lock died with the writer; the file is one complete generation, old or new.
    ConfHandle reader(ConfHandle::kShared);
    EXPECT_EQ(Counter(reader.GetConf()), reader.GetCurrentGenerationNum() - 1) << round;
  }
  // A dead writer's temporary file is swept by the next exclusive writer.
  {
    ConfHandle writer(ConfHandle::kExclusive);
    writer.WriteConfFile();
  }
  EXPECT_TRUE(env.ConfDirLeftovers().empty());
}

}  // namespace
