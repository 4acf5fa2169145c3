#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "host/host_options.h"
#include "platform/exception.h"
#include "platform/host_config.h"
#include "platform/host_controls.h"
#include "platform/log.h"

namespace {

using kel::log::LogCapture;
using NukCtl::Util::Sysinfo;
namespace Util = NukCtl::Orsa::IscsiTarget::Util;

class HostOptions : public ::testing::Test {
 protected:
  void SetUp() override {
    kel::platform::HostConfig c = kel::platform::EmbeddedHostConfig();
    c.stateDir = "/nonexistent-kel-state";
    c.options["ORSA-iSCSI"]["kelLoadBalancePeriod"] = 7;
    c.options["ORSA-iSCSI"]["kelUseDomExclSession"] = 0;
    c.options["ORSA"]["KelStretchedCluster"] = 1;
    c.options["ORSA"]["KelNegative"] = -2;
    kel::platform::SetCurrentHostConfig(c);
  }
  void TearDown() override { Sysinfo::SetReaderForTest(nullptr); }
};

TEST_F(HostOptions, ValuesComeFromTheHostConfiguration) {
  LogCapture capture;
  EXPECT_EQ(Util::KelGetTpiIntOpt("ORSA-iSCSI", "kelLoadBalancePeriod"), 7);
  EXPECT_EQ(Util::KelGetTpiIntOpt("ORSA-iSCSI", "kelUseDomExclSession"), 0);
  EXPECT_EQ(Util::KelGetTpiIntOpt("ORSA-iSCSI", "noSuchOption"), 0);
  EXPECT_EQ(Util::KelGetTpiIntOpt("NoSuchGroup", "kelLoadBalancePeriod"), 0);
  EXPECT_FALSE(capture.Contains("Failed to get component"));  // absent is not a failure

  EXPECT_TRUE(Util::IsKelFeatureEnabled("KelStretchedCluster"));
  EXPECT_TRUE(capture.Contains("Util: Retrieve Kel Feature (KelStretchedCluster): Enabled."));
  EXPECT_TRUE(Util::IsKelFeatureEnabled("KelNegative"));  // any non-zero value
  EXPECT_FALSE(Util::IsKelFeatureEnabled("KelMissing"));
  EXPECT_TRUE(capture.Contains("Util: Retrieve Kel Feature (KelMissing): Disabled."));
  // Features live in the "ORSA" group only.
  EXPECT_FALSE(Util::IsKelFeatureEnabled("kelLoadBalancePeriod"));
}

TEST_F(HostOptions, FailedReadsAreLoggedAndReadAsZero) {
  LogCapture capture;
  Sysinfo::SetReaderForTest([](const std::string& group, const std::string& name) -> int64_t {
    if (name == "KelStretchedCluster") {
      throw HostCtl::Lib::Orsa::OrsaCtlException("option tree unavailable");
    }
    if (name == "kelOdd") throw std::runtime_error("bad value");
    return group == "ORSA-iSCSI" ? 5 : 1;
  });
  EXPECT_EQ(Util::KelGetTpiIntOpt("ORSA-iSCSI", "kelLunNaaEnable"), 5);
  EXPECT_FALSE(Util::IsKelFeatureEnabled("KelStretchedCluster"));
  EXPECT_TRUE(
      capture.Contains("Util: Failed to get component: ORSA, field: KelStretchedCluster: "
                       "option tree unavailable"))
      << capture.Joined();
  EXPECT_TRUE(capture.Contains("Util: Retrieve Kel Feature (KelStretchedCluster): Disabled."));
  EXPECT_EQ(Util::KelGetTpiIntOpt("ORSA-iSCSI", "kelOdd"), 0);
  EXPECT_TRUE(
      capture.Contains("Util: Failed to get component: ORSA-iSCSI, field: kelOdd: bad value"));

  // A node or path the option tree does not have is a failed read too.
  Sysinfo::SetReaderForTest(nullptr);
  Sysinfo wrong("/config/other");
  wrong.AddInstancePath("ORSA");
  wrong.AddInstancePath("KelStretchedCluster");
  EXPECT_THROW(wrong.GetIntValue(), HostCtl::Lib::Orsa::OrsaCtlException);
  Sysinfo shallow(Sysinfo::kSysinfoIntOptions);
  shallow.AddInstancePath("ORSA");
  EXPECT_THROW(shallow.GetIntValue(), HostCtl::Lib::Orsa::OrsaCtlException);
}

}  // namespace
