// Verification after a load, and target name checks.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "conf/conf.h"
#include "platform/clog.h"
#include "platform/log.h"
#include "tests/support/test_host.h"

using kel::log::LogCapture;
using kel::testing::LoadConfText;

namespace {

size_t WarningCount(const LogCapture& capture) {
  size_t n = 0;
  for (const auto& r : capture.Records()) {
    if (r.level == kel::log::Level::kWarning || r.level == kel::log::Level::kError) n++;
  }
  return n;
}

TEST(ConfVerify, EmptyConfigurationVerifiesSilently) {
  log_init(4);
  auto conf = LoadConfText("");
  ASSERT_NE(conf, nullptr);
  LogCapture capture;
  EXPECT_EQ(conf_verify(conf.get()), 0);
  EXPECT_EQ(WarningCount(capture), 0u) << capture.Joined();
}

TEST(ConfVerify, LunDefaultsAndSizeRules) {
  auto conf = LoadConfText(
      "lun a { path /a; blocksize 4096; size 8 }\n"
      "lun b { path /b; device-type cdrom }\n"
      "lun c { path /c }\n"
      "lun d { backend pemo }\n"
      "lun e { backend ramdisk; size 1 }\n");
  ASSERT_NE(conf, nullptr);
  EXPECT_STREQ(lun_find(conf.get(), "a")->l_backend, "block");
  EXPECT_EQ(lun_find(conf.get(), "a")->l_blocksize, 4096);
  EXPECT_EQ(lun_find(conf.get(), "b")->l_blocksize, 2048);
  EXPECT_EQ(lun_find(conf.get(), "c")->l_blocksize, 512);
  // Backends other than block and ramdisk are not checked.
  EXPECT_STREQ(lun_find(conf.get(), "d")->l_backend, "pemo");

  const struct {
    std::string text;
    std::string message;
  } failures[] = {
      {"lun a { path /a; blocksize 4096; size 7 }\n",
       "invalid size for lun \"a\"; must be multiple of blocksize"},
      {"lun a { path /a; device-type 5; size 3 }\n",
       "invalid size for lun \"a\"; must be multiple of blocksize"},
      {"lun a { size 8 }\n", "missing path for lun \"a\""},
      {"target iqn.x:t { lun 0 { size 8 } }\n",
       "missing path for lun \"iqn.x:t,L,0x0000000000000000\""},
      {"lun a { backend ramdisk }\n", "missing size for ramdisk-backed lun \"a\""},
      {"lun a { backend ramdisk; size 8; path /x }\n",
       "path must not be specified for ramdisk-backed lun \"a\""},
      // 2^31 does not fit the 32-bit block size.
      {"lun a { path /a; blocksize 2g }\n",
       "invalid blocksize for lun \"a\"; must be larger than 0"},
  };
  for (const auto& f : failures) {
    LogCapture capture;
    EXPECT_EQ(LoadConfText(f.text), nullptr) << f.text;
    EXPECT_TRUE(capture.Contains("KELD: " + f.message)) << f.text << "\n" << capture.Joined();
    EXPECT_TRUE(capture.Contains("KELD: failed to validate configuration ")) << f.text;
    EXPECT_FALSE(capture.Contains("Failed to parse config file")) << "not a syntax error";
  }
}

TEST(ConfVerify, FirstFailingLunEndsVerification) {
  LogCapture capture;
  EXPECT_EQ(LoadConfText("lun a { size 1 }\nlun b { size 1 }\n"), nullptr);
  EXPECT_TRUE(capture.Contains("missing path for lun \"a\""));
  EXPECT_FALSE(capture.Contains("missing path for lun \"b\""));
}

TEST(ConfVerify, DuplicatedPathsWarnBothWays) {
  LogCapture capture;
  auto conf = LoadConfText(
      "lun a { path /same }\nlun b { path /other }\nlun c { path /same }\n"
      "lun d { path /same }\n");
  ASSERT_NE(conf, nullptr);
  std::vector<std::string> dups;
  for (const auto& r : capture.Records()) {
    if (r.text.find("duplicated between") != std::string::npos) dups.push_back(r.text);
  }
  const std::string p = "KELD: WARNING: path \"/same\" duplicated between lun ";
  EXPECT_EQ(dups, (std::vector<std::string>{
                      p + "\"a\", and lun \"c\"", p + "\"a\", and lun \"d\"",
                      p + "\"c\", and lun \"a\"", p + "\"c\", and lun \"d\"",
                      p + "\"d\", and lun \"a\"", p + "\"d\", and lun \"c\""}));
}

TEST(ConfVerify, TargetsGetDefaultsAndGroupsAreChecked) {
  LogCapture capture;
  auto conf = LoadConfText(
      "auth-group unused { }\n"
      "auth-group disc { }\n"
      "auth-group linked { }\n"
      "portal-group lonely { }\n"
      "portal-group redir { redirect 10.0.0.1; discovery-auth-group disc }\n"
      "portal-group used { }\n"
      "target iqn.x:plain { }\n"
      "target iqn.x:redirected { redirect 10.0.0.2; lun 0 { path /a } }\n"
      "target iqn.x:linked { portal-group used linked; portal-group redir }\n");
  ASSERT_NE(conf, nullptr);
  struct target* plain = target_find(conf.get(), "iqn.x:plain");
  EXPECT_STREQ(plain->t_auth_group->ag_name, "default");
  ASSERT_NE(keld_target_to_port(plain), nullptr);
  EXPECT_STREQ(keld_target_to_port(plain)->p_portal_group->pg_name, "default");
  EXPECT_STREQ(target_find(conf.get(), "iqn.x:linked")->t_auth_group->ag_name, "default");

  struct portal_group* lonely = portal_group_find(conf.get(), "lonely");
  EXPECT_TRUE(lonely->pg_unassigned);
  EXPECT_STREQ(lonely->pg_discovery_auth_group->ag_name, "default");
  EXPECT_EQ(lonely->pg_discovery_filter, PG_FILTER_NONE);
  EXPECT_FALSE(portal_group_find(conf.get(), "redir")->pg_unassigned);
  EXPECT_FALSE(portal_group_find(conf.get(), "used")->pg_unassigned);
  EXPECT_FALSE(portal_group_find(conf.get(), "default")->pg_unassigned);

  EXPECT_TRUE(capture.Contains("KELD: portal-group \"lonely\" not assigned to any target"));
  EXPECT_FALSE(capture.Contains("portal-group \"default\" not assigned"));
  EXPECT_TRUE(capture.Contains(
      "KELD: portal-group \"redir\" assigned to target, but configured for redirection"));
  EXPECT_TRUE(capture.Contains(
      "KELD: target \"iqn.x:redirected\" contains luns,  but configured for redirection"));
  EXPECT_TRUE(capture.Contains("KELD: no LUNs defined for target \"iqn.x:plain\""));
  EXPECT_FALSE(capture.Contains("no LUNs defined for target \"iqn.x:redirected\""));
  // In use through a port's auth group or a discovery auth group counts too.
  EXPECT_TRUE(capture.Contains("KELD: auth-group \"unused\" not assigned to any target"));
  EXPECT_FALSE(capture.Contains("auth-group \"disc\" not assigned"));
  EXPECT_FALSE(capture.Contains("auth-group \"linked\" not assigned"));
  EXPECT_FALSE(capture.Contains("auth-group \"no-access\" not assigned"));
  EXPECT_FALSE(capture.Contains("auth-group \"no-authentication\" not assigned"));
}

TEST(ConfVerify, TargetNames) {
  log_init(4);
  const std::string iqn = "iqn.2024-01.com.example:";
  {
    LogCapture capture;
    EXPECT_TRUE(valid_iscsi_name((iqn + std::string(222 - iqn.size(), 'a')).c_str()));
    EXPECT_EQ(WarningCount(capture), 0u) << capture.Joined();
  }
  {
    LogCapture capture;
    std::string name = iqn + std::string(223 - iqn.size(), 'a');
    EXPECT_FALSE(valid_iscsi_name(name.c_str()));
    // The line is cut at 255 characters by the C log, so only its start is checked.
    EXPECT_TRUE(capture.Contains("KELD: overlong name for target \"" + name.substr(0, 100)));
  }
  // Accepted without a word.
  for (const char* name : {"eui.0123456789ABCDEF", "eui.0123456789abcdef", "IQN.2024-01.COM.X:Y",
                           "naa.0123456789abcdef0123456789ABCDEF", "naa.1"}) {
    LogCapture capture;
    EXPECT_TRUE(valid_iscsi_name(name)) << name;
    EXPECT_EQ(WarningCount(capture), 0u) << name << ": " << capture.Joined();
  }
  // Accepted with a warning.
  const struct {
    const char* name;
    const char* message;
  } warned[] = {
      {"iqn.2024-01.com.x:a_b",
       "invalid character \"_\" in target name \"iqn.2024-01.com.x:a_b\"; allowed characters are "
       "letters, digits, '-', '.', and ':'"},
      {"eui.0123",
       "invalid target name \"eui.0123\"; the \"eui.\" should be followed by exactly 16 "
       "hexadecimal digits"},
      {"eui.0123456789abcdeg",
       "invalid character \"g\" in target name \"eui.0123456789abcdeg\"; allowed characters are "
       "1-9 and A-F"},
      {"naa.0123456789abcdef0123456789abcdef0",
       "invalid target name \"naa.0123456789abcdef0123456789abcdef0\"; the \"naa.\" should be "
       "followed by at most 32 hexadecimal digits"},
      {"NAA.12x4", "invalid character \"x\" in target name \"NAA.12x4\"; allowed characters are "
                   "1-9 and A-F"},
      {"target0", "invalid target name \"target0\"; should start with either \"iqn.\", \"eui.\", "
                  "or \"naa.\""},
  };
  for (const auto& w : warned) {
    LogCapture capture;
    EXPECT_TRUE(valid_iscsi_name(w.name)) << w.name;
    EXPECT_TRUE(capture.Contains(std::string("KELD: ") + w.message)) << capture.Joined();
    EXPECT_EQ(WarningCount(capture), 1u) << capture.Joined();
  }
}

}  // namespace
