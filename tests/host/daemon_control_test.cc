#include "host/daemon_control.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "host/host_options.h"
#include "host/service_state.h"
#include "platform/exception.h"
#include "platform/host_config.h"
#include "platform/host_controls.h"
#include "platform/log.h"
#include "platform/settings.h"
#include "platform/testing/fake_command_runner.h"
#include "tests/support/test_host.h"

namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;
using kel::log::Level;
using kel::log::LogCapture;
using kel::testing::ErrorOf;
using kel::testing::ReadFile;
using kel::testing::TestHost;
using kel::testing::WriteFile;
using NukCtl::Util::Sysinfo;
namespace Util = NukCtl::Orsa::IscsiTarget::Util;

bool HasLine(const LogCapture& capture, Level level, const std::string& text) {
  for (const auto& r : capture.Records()) {
    if (r.level == level && r.text == text) return true;
  }
  return false;
}

class DaemonControl : public ::testing::Test {
 protected:
  void SetUp() override {
    host_.MakeConfigNamespace();
    WriteFile(host_.conf_path(),
              "generation 4\nportal-group pg1 {\n\t discovery-auth-group no-authentication\n"
              "\t listen 127.0.0.1:3261\n}\n");
  }

  void UseConfig(const std::string& control, const std::string& firewall) {
    if (!control.empty()) host_.config().daemonControl = control;
    host_.config().firewallBackend = firewall;
    host_.Apply();
  }

  TestHost host_;
};

TEST_F(DaemonControl, CommandLinesAndExitCodes) {
  LogCapture capture;
  Util::StartKeld();
  Util::ReloadKeld();
  Util::StopKeld();
  EXPECT_EQ(host_.ControlRuns(),
            (std::vector<std::string>{"++group=serad-tmp restart", "++group=serad-tmp reload",
                                      "++group=serad-tmp io_stop"}));
  EXPECT_TRUE(HasLine(capture, Level::kInfo, "Util: Starting keld"));
  EXPECT_TRUE(HasLine(capture, Level::kInfo, "Util: keld started successfully"));

  host_.ControlExitsWith(1);
  EXPECT_EQ(ErrorOf(Util::StartKeld), "Failed to reserve keld memory (return code 1)");
  host_.ControlExitsWith(2);
  capture.Clear();
  EXPECT_EQ(ErrorOf(Util::StartKeld), "Failed to start keld (return code 2)");
  EXPECT_TRUE(HasLine(capture, Level::kInfo, "Util: Starting keld"));
  EXPECT_FALSE(capture.Contains("keld started successfully"));

  host_.ControlExitsWith(3);
  EXPECT_EQ(ErrorOf(Util::ReloadKeld), "Failed to reload keld (return code 3)");
  EXPECT_TRUE(HasLine(capture, Level::kWarning, "Util: Failed to make keld reload config."));

  host_.ControlExitsWith(4);
  EXPECT_EQ(ErrorOf(Util::StopKeld), "");  // stopping only warns
  EXPECT_TRUE(HasLine(capture, Level::kWarning, "Util: Failed to stop keld."));

  // A control program that is missing altogether is the shell's 127: a start failure.
  UseConfig(host_.Join("no-such-control"), "none");
  EXPECT_EQ(ErrorOf(Util::StartKeld), "Failed to start keld (return code 127)");
}

TEST_F(DaemonControl, DefaultControlIsTheInstalledKeld) {
  host_.config().daemonControl.clear();
  host_.Apply();
  std::string control = Util::KeldControlProgram();
  ASSERT_GE(control.size(), 4u);
  EXPECT_EQ(control.substr(control.size() - 4), "keld") << control;
  if (control != "keld") {
    // Found somewhere: an executable file.
    EXPECT_EQ(access(control.c_str(), X_OK), 0) << control;
  }
  UseConfig("/opt/kel/bin/keld --verbose", "none");
  EXPECT_EQ(Util::KeldControlProgram(), "/opt/kel/bin/keld --verbose");
}

TEST_F(DaemonControl, ModuleIsLoadedOnceAndUnloadedAlways) {
  LogCapture capture;
  std::string marker = kel::platform::ModuleMarkerPath("kel");
  EXPECT_EQ(marker, host_.state_dir() + "/run/module-kel.loaded");
  Util::LoadKelKernelModule();
  Util::LoadKelKernelModule();
  EXPECT_EQ(capture.Count("Util: Loading kel module."), 1u);
  EXPECT_TRUE(kel::testing::PathExists(marker));
  EXPECT_TRUE(NukCtl::System::ModuleApi::ModuleIsLoaded("kel"));
  Util::UnloadKelKernelModule();
  Util::UnloadKelKernelModule();
  EXPECT_FALSE(kel::testing::PathExists(marker));
  Util::LoadKelKernelModule();
  EXPECT_EQ(capture.Count("Util: Loading kel module."), 2u);
  EXPECT_THROW(NukCtl::System::ModuleApi::ModuleLoad("../escape"), OrsaCtlException);
}

TEST_F(DaemonControl, FirewallRulesetThroughNftables) {
  kel::platform::FakeCommandRunner runner;
  LogCapture capture;

  UseConfig("", "none");
  Util::SetKelFirewallRulesetStatus(true);
  EXPECT_TRUE(runner.Commands().empty());
  EXPECT_TRUE(HasLine(capture, Level::kInfo, "Util:  Enable Kel FirewallRuleset"));

  UseConfig("", "nftables");
  HostCtl::Orsa::IscsiTarget::DefaultInfo defaults;
  defaults.port = 3262;
  Util::UpdateDefaultConfigToConfigStore(defaults);
  Util::SetKelFirewallRulesetStatus(true);
  EXPECT_EQ(runner.Commands(),
            (std::vector<std::string>{
                "nft add table inet kel", "nft flush table inet kel",
                "nft add chain inet kel input { type filter hook input priority 0 ; policy "
                "accept ; }",
                "nft add rule inet kel input tcp dport { 3260, 3261, 3262 } accept"}));

  runner.Clear();
  Util::SetKelFirewallRulesetStatus(false);
  EXPECT_EQ(runner.Commands(),
            (std::vector<std::string>{"nft add table inet kel", "nft delete table inet kel"}));
  EXPECT_TRUE(HasLine(capture, Level::kInfo, "Util:  Disable Kel FirewallRuleset"));

  runner.SetExitCode("nft add rule", 1);
  capture.Clear();
  try {
    Util::SetKelFirewallRulesetStatus(true);
    ADD_FAILURE() << "a failing nft went unnoticed";
  } catch (const OrsaCtlException& e) {
    EXPECT_EQ(e.GetMessage(), "Failed to enable firewall ruleset kel (nft exit code 1)");
  }
  EXPECT_FALSE(capture.Contains("Enable Kel FirewallRuleset"));
}

TEST_F(DaemonControl, LoaderSettingAndServiceStateLiveInTheSettingsStore) {
  LogCapture capture;
  Util::SetKelLoaderChkConfig(true);
  EXPECT_TRUE(
      HasLine(capture, Level::kInfo, "Util: Execute \"kel-loader-control kel_loader on\" done"))
      << capture.Joined();
  EXPECT_TRUE(Util::GetKelLoaderChkConfig());
  Util::SetKelLoaderChkConfig(false);
  EXPECT_TRUE(capture.Contains("Util: Execute \"kel-loader-control kel_loader off\" done"));
  EXPECT_FALSE(Util::GetKelLoaderChkConfig());

  bool enabled = true;
  Util::LoadConfig(enabled);
  EXPECT_FALSE(enabled);
  Util::SetStatus(true);
  EXPECT_TRUE(HasLine(capture, Level::kInfo,
                      "Util: Stored kel status 'enabled' to config store successfully"));
  Util::LoadConfig(enabled);
  EXPECT_TRUE(enabled);
  EXPECT_FALSE(Util::GetKelLoaderChkConfig());  // each setting keeps its own value

  HostCtl::Orsa::IscsiTarget::DefaultInfo info;
  info.networkInterface = "nuk0";
  info.port = 3270;
  info.authType = "CHAP-Mutual";
  info.chapName = "u";
  info.chapSecret = "s1234567890123";
  info.mutualChapName = "m";
  info.mutualChapSecret = "t1234567890123";
  Util::UpdateDefaultConfigToConfigStore(info);
  HostCtl::Orsa::IscsiTarget::DefaultInfo back = Util::GetDefaultConfigFromConfigStore();
  EXPECT_EQ(back.networkInterface, "nuk0");
  EXPECT_EQ(back.port, 3270);
  EXPECT_EQ(back.mutualChapSecret, "t1234567890123");
  Util::LoadConfig(enabled);
  EXPECT_TRUE(enabled);

  // A store that cannot be written: the loader setting only logs, the state change throws.
  std::string settings = kel::platform::SettingsPath();
  ASSERT_EQ(unlink(settings.c_str()), 0);
  ASSERT_EQ(mkdir(settings.c_str(), 0700), 0);  // a directory where the file should be
  capture.Clear();
  Util::SetKelLoaderChkConfig(true);
  EXPECT_TRUE(capture.Contains("Util: Failed to Execute chkconfig on kel_loader: "))
      << capture.Joined();
  EXPECT_THROW(Util::SetStatus(false), OrsaCtlException);
  EXPECT_TRUE(capture.Contains(
      "Util: KEL failed to persist info for KEL status to config store with exception "));
  EXPECT_FALSE(capture.Contains("Stored kel status 'disabled'"));
}

TEST(ServiceState, ATestBinaryIsNotTheHostAgent) {
  EXPECT_FALSE(Util::IsRunningInOrsaMgmtd());  // decided by the program name
}

// ---- host integer options ----

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
