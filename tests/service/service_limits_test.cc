// The cluster limits through the service: a configuration already at a limit (written directly,
// not built by thousands of calls) refuses one more, and the refusal leaves kel.conf and the
// datastore exactly as they were, including the namespace AddTarget had already made.
#include <gtest/gtest.h>

#include <string>

#include "platform/log.h"
#include "tests/service/service_env.h"

namespace kel {
namespace testing {
namespace {

std::string Uuid(int n) {
  char text[40];
  snprintf(text, sizeof(text), "00000000-0000-4000-8000-%012d", n);
  return text;
}

// kel.conf with the default groups, `groups` initiator groups of `perGroup` initiators each, and
// `targets` targets of `lunsPerTarget` LUNs each.
std::string AtLimitConf(int targets, int lunsPerTarget, int groups, int perGroup) {
  std::string s = "generation 7\n";
  for (int g = 0; g < groups; ++g) {
    s += "initiator-group g" + std::to_string(g) + " {\n";
    for (int i = 0; i < perGroup; ++i) {
      s += "\t initiator iqn.1998-01.com.example:g" + std::to_string(g) + "-i" + std::to_string(i) +
           "\n";
    }
    s += "}\n";
  }
  s += "auth-group default {\n\t auth-type none\n}\n";
  s += "portal-group default {\n\t discovery-auth-group default\n\t listen nuk0:3260\n}\n";
  for (int t = 0; t < targets; ++t) {
    const std::string uuid = Uuid(t);
    s += "target iqn.2024-01.com.example:t" + std::to_string(t) + " {\n\talias \"t" +
         std::to_string(t) + "\"\n\tportal-group default\n\tauth-group default\n\toption uuid " +
         uuid + "\n\toption owner-id " + uuid + "\n";
    for (int l = 0; l < lunsPerTarget; ++l) {
      s += "\tlun " + std::to_string(l) + " {\n\t\tbackend pemo\n\t\tpath " + uuid + "/" +
           std::to_string(l) + ".pemo\n\t\tsize 2048\n\t}\n";
    }
    s += "}\n";
  }
  return s;
}

class ServiceLimits : public ::testing::Test {
 protected:
  void SetUp() override { ServiceEnv::Ready(*svc_); }

  void Install(const std::string& text) {
    WriteFile(env_.conf_path(), text, 0600);
    Kel::ConfigCache::CleanupCachedConfig();
  }

  // Runs `fn`, which must be refused with a message containing `expected`, and checks that
  // nothing changed.
  template <class Fn>
  void ExpectRefusedUnchanged(Fn&& fn, const std::string& expected) {
    const std::string conf = Sha256OfFile(env_.conf_path());
    const std::string datastore = TreeDigest(env_.datastore());
    const std::string message = ErrorOf(fn);
    EXPECT_NE(message.find(expected), std::string::npos) << message;
    EXPECT_EQ(Sha256OfFile(env_.conf_path()), conf);
    EXPECT_EQ(TreeDigest(env_.datastore()), datastore);
  }

  ServiceEnv env_;
  std::shared_ptr<OrsaIscsiTarget> svc_ = NewService();
};

TEST_F(ServiceLimits, TheHundredTwentyNinthTargetLeavesNoNamespaceBehind) {
  Install(AtLimitConf(128, 0, 0, 0));
  log::LogCapture capture;
  ExpectRefusedUnchanged(
      [&] {
        TargetCreateParam p = NewTarget("one-more");
        svc_->AddTarget(p);
      },
      "Limit on total number of targets (128) has been reached.");
  // The namespace had been made before the file refused the target.
  EXPECT_TRUE(
      capture.Contains("Add target one-more failed: Limit on total number of targets "
                       "(128) has been reached. rollback by deleting target namespace"));
  EXPECT_EQ(svc_->GetTargets(true, false).size(), 128u);
}

TEST_F(ServiceLimits, TheThousandTwentyFifthLun) {
  Install(AtLimitConf(4, 256, 0, 0));
  TargetCreateParam p = NewTarget("free");
  svc_->AddTarget(p);
  ExpectRefusedUnchanged(
      [&] {
        LunInfo lun;
        lun.targetAlias = "free";
        lun.sizeText = "1MiB";
        svc_->AddLun(lun);
      },
      "Limit on total number of LUNs (1024) has been reached.");
  // A target's 257th LUN has no number left.
  ExpectRefusedUnchanged(
      [&] {
        LunInfo lun;
        lun.targetAlias = "t0";
        lun.id = 256;
        lun.sizeText = "1MiB";
        svc_->AddLun(lun);
      },
      "Invalid LUN id 256");
}

TEST_F(ServiceLimits, TheTwoHundredFiftySeventhGroupAndTheEightThousandOneHundredNinetyThird) {
  Install(AtLimitConf(0, 0, 256, 0));
  ExpectRefusedUnchanged([&] { svc_->AddInitiatorgroup("g-over"); },
                         "the maximum initiator group allowed per cluster is 256. Current value: "
                         "256.");

  Install(AtLimitConf(0, 0, 32, 256));
  ExpectRefusedUnchanged(
      [&] { svc_->AddInitiatorsToInitiatorgroup("g0", {"iqn.1998-01.com.example:over"}); },
      "the maximum initiators allowed per cluster is: 8192. Current initiator count: 8192. New "
      "initiators count: 1.");
  // A target's own initiator names count as well.
  ExpectRefusedUnchanged(
      [&] {
        TargetCreateParam p = NewTarget("admits-one");
        p.initiators = {"iqn.1998-01.com.example:own"};
        svc_->AddTarget(p);
      },
      "the maximum initiators allowed per cluster is: 8192.");
}

}  // namespace
}  // namespace testing
}  // namespace kel
