// The cluster limits through the service: a configuration already at a limit (written directly,
// not built by thousands of calls) refuses one more, and the refusal leaves kel.conf and the
// datastore exactly as they were, including the namespace AddTarget had already made; one below
// the limit is still accepted.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/log.h"
#include "tests/service/service_env.h"

namespace kel {
namespace testing {
namespace {

std::vector<std::string> Aliases(int n) {
  std::vector<std::string> out;
  for (int i = 0; i < n; ++i) out.push_back("t" + std::to_string(i));
  return out;
}

class ServiceLimits : public ::testing::Test {
 protected:
  void SetUp() override { Ready(*svc_); }

  void Install(const ConfSpec& spec) {
    WriteFile(host_.conf_path(), ConfText(spec), 0600);
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
  ExpectRefusedUnchanged([&] { AddLun(*svc_, "t0", "1MiB", 256); }, "Invalid LUN id 256: valid ids are 0 to 255");
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

}  // namespace
}  // namespace testing
}  // namespace kel
