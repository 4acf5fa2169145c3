// Faults injected into every step of a kel.conf transaction (platform/fio.h's fault hook): full
// and failing disks, failing syncs and renames, and a process killed between the write and the
// publication. Whatever happens, kel.conf is old or new and whole, the generation rises by one per
// completed write, nothing is left beside the file, and the next edit works once the fault is gone.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "confedit/parser_edit.h"
#include "directory/config_cache.h"
#include "platform/fio.h"
#include "platform/log.h"
#include "service/orsa_iscsi_target_impl.h"
#include "tests/support/test_host.h"

namespace kel {
namespace testing {
namespace {

namespace IT = NukCtl::Orsa::IscsiTarget;
namespace Parser = NukCtl::Orsa::IscsiTarget::Parser;

// Removes the hook however the test ends.
struct FaultAt {
  FaultAt(FioStep step, int err) {
    Fio_SetFaultHookForTest(
        [step, err](FioStep at, const std::string&) { return at == step ? err : 0; });
  }
  ~FaultAt() { Fio_SetFaultHookForTest(nullptr); }
};

struct Edit {
  const char* name;
  std::function<void()> run;
};

std::vector<Edit> Edits() {
  return {
      {"group add", [] { Parser::AddNewInitiatorgroupToConfFile("g-new"); }},
      {"group remove", [] { Parser::RemoveInitiatorgroupFromConfFile("g0", false); }},
      {"target add",
       [] {
         HostCtl::Orsa::IscsiTarget::TargetCreateParam p;
         p.alias = "t-new";
         p.iqn = TestIqn(9);
         p.uuid = TestUuid(9);
         bool changed = false;
         Parser::AddNewTargetToConfFile(p, changed);
       }},
      {"target remove", [] { Parser::RemoveTargetFromConfFile("t0"); }},
  };
}

TEST(EditFaults, EveryStepFailsCleanlyAndTheNextEditWorks) {
  struct Fault {
    FioStep step;
    int err;
    const char* message;
  };
  const Fault faults[] = {
      {FioStep::kTempCreate, ENOSPC, "Failed to create temp config file"},
      {FioStep::kWrite, ENOSPC, "Failed to write temp config file: No space left on device"},
      {FioStep::kWrite, EIO, "Failed to write temp config file: Input/output error"},
      {FioStep::kSync, EIO, "Failed to sync temp config"},
      {FioStep::kRename, EIO, "Failed to swap config and temp config"},
  };
  for (const Fault& fault : faults) {
    for (const Edit& edit : Edits()) {
      SCOPED_TRACE(std::string(edit.name) + " / " + fault.message);
      TestHost host;
      host.InitConf(ConfText({1, {"t0"}, 0, 1, 1}));
      Parser::AddNewInitiatorgroupToConfFile("g-first");  // publishes generation 2
      const std::string before = host.Snapshot();
      {
        FaultAt at(fault.step, fault.err);
        // The transactions prefix their own sentence (" with error: ") to the step's message.
        EXPECT_THAT(ErrorOf(edit.run), ::testing::EndsWith(fault.message));
      }
      EXPECT_EQ(host.Snapshot(), before);
      EXPECT_EQ(host.Published(), 2u);
      EXPECT_TRUE(host.ConfDirLeftovers().empty());
      edit.run();
      EXPECT_EQ(host.Generation(), 3u);
      EXPECT_EQ(host.Published(), 3u);
    }
  }
}

// Only the directory's sync after the swap failed: the change is in place (and published), and
// the caller hears both the failure and that the change is saved.
TEST(EditFaults, DirectorySyncFailureAfterTheSwapCountsAsWritten) {
  TestHost host;
  host.InitConf(ConfText({4, {"t0"}, 0, 1, 1}));
  IT::Util::ChangeConfFile([](IT::ConfHandle&) { return true; });  // publishes generation 5
  bool written = false;
  std::string error;
  {
    FaultAt at(FioStep::kDirSync, EIO);
    error = ErrorOf([&] {
      IT::Util::ChangeConfFile([](IT::ConfHandle&) { return true; },
                               [&written](uint64_t) { written = true; });
    });
  }
  EXPECT_EQ(error, "Failed to swap config and temp config");
  EXPECT_TRUE(written);
  EXPECT_EQ(log::FailureReasonFor(error),
            "the change is saved: " + host.conf_path() +
                " now holds generation 6; only the step after the write failed");
  EXPECT_EQ(host.Generation(), 6u);
  EXPECT_EQ(host.Published(), 6u);
}

// A writer killed before its rename leaves the old file (and a temporary file that the next writer
// removes); one killed after the rename but before the publication leaves the new file, whole, and
// the control thread's re-publication tells the other hosts.
TEST(EditFaults, KilledWriterLeavesOldOrNewFileAndReplublicationCatchesUp) {
  for (FioStep step : {FioStep::kRename, FioStep::kDirSync}) {
    const bool afterSwap = step == FioStep::kDirSync;
    SCOPED_TRACE(afterSwap ? "killed after the swap" : "killed before the swap");
    TestHost host;
    host.InitConf(ConfText({7, {"t0"}, 0, 1, 1}));
    IT::Util::ChangeConfFile([](IT::ConfHandle&) { return true; });  // publishes 8
    const std::string before = ReadFile(host.conf_path());
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      Fio_SetFaultHookForTest([step](FioStep at, const std::string&) {
        if (at == step) raise(SIGKILL);
        return 0;
      });
      Parser::AddNewInitiatorgroupToConfFile("crash");
      _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);

    ConfPtr model = ReadModel();
    ASSERT_NE(model, nullptr);
    EXPECT_EQ(model->conf_generation, afterSwap ? 9u : 8u);
    EXPECT_EQ(initiator_group_find(model.get(), "crash") != nullptr, afterSwap);
    if (!afterSwap) EXPECT_EQ(ReadFile(host.conf_path()), before);
    EXPECT_EQ(host.Published(), 8u);

    // As the control thread calls it, with the entry known to exist.
    IT::ConfigCache::SetKelConfLodexEntryExists(true, true);
    IT::OrsaIscsiTargetImpl::KelCheckConfigLodexEntry();
    EXPECT_EQ(host.Published(), afterSwap ? 9u : 8u);

    Parser::AddNewInitiatorgroupToConfFile("after");
    EXPECT_EQ(host.Generation(), afterSwap ? 10u : 9u);
    EXPECT_TRUE(host.ConfDirLeftovers().empty());
  }
}

// kel.conf emptied (or rolled back) behind kel's back: a write would hand out a generation every
// host has applied already while the targets vanish. Refused, nothing changed; and the
// re-publication never publishes backwards either.
TEST(EditFaults, GenerationBelowThePublishedOneIsRefused) {
  TestHost host;
  host.InitConf(ConfText({5, {"t0"}, 0, 0, 0}));
  IT::Util::ChangeConfFile([](IT::ConfHandle&) { return true; });  // publishes 6
  WriteFile(host.conf_path(), "");
  const std::string before = host.Snapshot();
  EXPECT_THAT(ErrorOf([] { Parser::AddNewInitiatorgroupToConfFile("g"); }),
              ::testing::EndsWith(
                  host.conf_path() +
                  " holds generation 1, but generation 6 was already published in the directory: "
                  "the file was replaced or emptied outside kel. Nothing was changed. Restore the "
                  "newest copy of kel.conf (the host agent keeps one at " +
                  host.state_dir() + "/log/kel.conf.backup) and retry."));
  EXPECT_EQ(host.Snapshot(), before);
  IT::ConfigCache::SetKelConfLodexEntryExists(true, true);
  IT::OrsaIscsiTargetImpl::KelCheckConfigLodexEntry();
  EXPECT_EQ(host.Published(), 6u);
}

}  // namespace
}  // namespace testing
}  // namespace kel
