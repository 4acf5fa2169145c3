// The host configuration file and the settings store: what is read, refused and kept, and updates
// from several processes at once.
#include "platform/host_config.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

#include "platform/exception.h"
#include "platform/fs.h"
#include "platform/settings.h"
#include "tests/support/test_host.h"

using HostCtl::Lib::Orsa::OrsaCtlException;
using kel::platform::HostConfig;
using kel::platform::LoadHostConfig;
using kel::platform::LoadHostConfigFile;
using kel::testing::TempDir;
using kel::testing::WriteFile;

namespace {

TEST(HostConfig, FileOverridesTheEmbeddedDefaultAndAnExplicitPathTheEnvironment) {
  TempDir dir;
  std::string file = dir.Join("host.json");
  WriteFile(file, R"({
    "host": {"uuid": "", "name": "h1", "site": "Preferred"},
    "stateDir": ")" + dir.Join("state") +
                      R"(",
    "directory": {"backend": "etcd", "endpoints": ["http://127.0.0.1:2379"], "prefix": "/kel/c1"},
    "network": {"interfaces": {"nuk0": {"ipv4": "127.0.0.11", "ipv6": ""}}},
    "daemon": {"control": "/bin/true", "tgtdControlPort": 7},
    "options": {"ORSA-iSCSI": {"kelLunNaaEnable": 0}},
    "productEnabled": false
  })");
  HostConfig c = LoadHostConfig(file);
  EXPECT_EQ(c.hostName, "h1");
  EXPECT_EQ(c.hostSite, "Preferred");
  EXPECT_EQ(c.datastorePath, dir.Join("state") + "/datastore");
  EXPECT_EQ(c.directoryBackend, "etcd");
  EXPECT_EQ(c.etcdPrefix, "/kel/c1");
  EXPECT_EQ(c.leaseTtlSeconds, 10);
  ASSERT_TRUE(c.networkOverride);
  EXPECT_EQ(c.interfaces.at("nuk0").ipv4, "127.0.0.11");
  EXPECT_EQ(c.tgtdControlPort, 7);
  EXPECT_EQ(c.options.at("ORSA-iSCSI").at("kelLunNaaEnable"), 0);
  // Options not named in the file keep their embedded defaults.
  EXPECT_EQ(c.options.at("ORSA-iSCSI").at("kelNukNicCtlEnable"), 1);
  EXPECT_FALSE(c.productEnabled);
  // The generated UUID is kept: loading again yields the same one.
  ASSERT_EQ(c.hostUuid.size(), 36u);
  EXPECT_EQ(LoadHostConfig(file).hostUuid, c.hostUuid);
  EXPECT_EQ(kel::testing::ReadFile(dir.Join("state/host-uuid")), c.hostUuid + "\n");

  // An explicit path wins over the environment, which wins over the default.
  WriteFile(dir.Join("b.json"),
            R"({"host": {"name": "from-env"}, "stateDir": ")" + dir.Join("s") + "\"}");
  setenv("KEL_CONFIG", dir.Join("b.json").c_str(), 1);
  EXPECT_EQ(LoadHostConfig(file).hostName, "h1");
  EXPECT_EQ(LoadHostConfig("").hostName, "from-env");
  unsetenv("KEL_CONFIG");
}

TEST(HostConfig, RefusesUnknownKeysAndWrongTypesNamingTheKey) {
  TempDir dir;
  std::string file = dir.Join("host.json");
  const std::pair<const char*, const char*> refused[] = {
      {R"({"directory": {"backend": "embedded", "bogus": 1}})", "unknown key 'directory.bogus'"},
      {R"({"daemon": {"tgtdControlPort": "7"}})", "'daemon.tgtdControlPort' must be an integer"},
      {R"({"options": {"ORSA": {"KelStretchedCluster": true}}})",
       "'options.ORSA.KelStretchedCluster'"},
      {R"({"stateDir": "/x", "extra": {}})", "unknown key 'extra'"},
      {"{ not json", "not valid JSON"},
      {R"({"stateDir": "/a", "host": {}, "stateDir": "/b"})",
       "key 'stateDir' is given more than once"},
      {R"({"network": {"interfaces": {"n": {"ipv4": "1.1.1.1", "ipv4": "2.2.2.2"}}}})",
       "key 'network.interfaces.n.ipv4' is given more than once"},
      {R"({"network": {"interfaces": {"nuk0": {"ipv4": "999.1.1.1"}}}})",
       "'network.interfaces.nuk0.ipv4' is not an IPv4 address: \"999.1.1.1\""},
      {R"({"directory": {"leaseTtlSeconds": 1e999}})", "not valid JSON"},
      {R"({"directory": {"leaseTtlSeconds": 4294967298}})",
       "'directory.leaseTtlSeconds' must be between 2 and 3600"},
      {R"({"options": {"ORSA": {"x": 18446744073709551615}}})", "'options.ORSA.x' must be between"},
  };
  for (const auto& [text, reason] : refused) {
    WriteFile(file, text);
    const std::string message = kel::testing::ErrorOf([&] { LoadHostConfigFile(file); });
    EXPECT_EQ(message.rfind("host configuration " + file + ": ", 0), 0u) << message;
    EXPECT_NE(message.find(reason), std::string::npos) << text << " -> " << message;
  }
  EXPECT_EQ(kel::testing::ErrorOf([&] { LoadHostConfigFile(dir.path()); }),
            "host configuration " + dir.path() + ": cannot be read: it is a directory");
}

using kel::platform::LoadSettings;
using kel::platform::Settings;
using kel::platform::UpdateSettings;

class SettingsStore : public ::testing::Test {
 protected:
  void SetUp() override {
    kel::platform::HostConfig c = kel::platform::EmbeddedHostConfig();
    c.stateDir = dir_.Join("state");
    c.datastorePath = dir_.Join("datastore");
    c.hostUuid = "11111111-2222-3333-4444-555555555555";
    c.hostName = "h1";
    kel::platform::SetCurrentHostConfig(c);
    path_ = dir_.Join("state/settings.json");
  }

  // Replaces the file the way another process would (new inode).
  void ReplaceFile(const std::string& text) {
    kel::testing::WriteFile(path_ + ".other", text);
    ASSERT_EQ(rename((path_ + ".other").c_str(), path_.c_str()), 0);
  }

  TempDir dir_;
  std::string path_;
};

TEST_F(SettingsStore, StoresPrivatelyAndFollowsChangesOfOtherProcesses) {
  EXPECT_EQ(kel::platform::SettingsPath(), path_);
  Settings empty = LoadSettings();  // nothing stored yet, not even the directory
  EXPECT_FALSE(empty.serviceEnabled);
  EXPECT_FALSE(empty.startAtBoot);
  EXPECT_FALSE(empty.hasDefaults);

  UpdateSettings([](Settings& s) {
    s.serviceEnabled = true;
    s.defaults.networkInterface = "nuk0";
    s.defaults.port = 3261;
    s.defaults.authType = "CHAP";
    s.defaults.chapName = "user";
    s.defaults.chapSecret = "secret-123456";
    s.hasDefaults = true;
  });
  struct stat st;
  ASSERT_EQ(stat(path_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  Settings s = LoadSettings();
  EXPECT_TRUE(s.serviceEnabled);
  EXPECT_TRUE(s.hasDefaults);
  EXPECT_EQ(s.defaults.port, 3261);
  EXPECT_EQ(s.defaults.chapSecret, "secret-123456");

  // A second update keeps what it does not touch.
  UpdateSettings([](Settings& x) { x.startAtBoot = true; });
  s = LoadSettings();
  EXPECT_TRUE(s.serviceEnabled);
  EXPECT_TRUE(s.startAtBoot);
  EXPECT_EQ(s.defaults.networkInterface, "nuk0");

  // Another process replaced the file: the cache notices.
  ReplaceFile(R"({"serviceEnabled": false, "startAtBoot": true, "future": 1})");
  s = LoadSettings();
  EXPECT_FALSE(s.serviceEnabled);
  EXPECT_TRUE(s.startAtBoot);
  EXPECT_FALSE(s.hasDefaults);

  // Unreadable contents are an error naming the file, and a failed update changes nothing.
  ReplaceFile("{not json");
  try {
    LoadSettings();
    ADD_FAILURE() << "a corrupt store was read";
  } catch (const OrsaCtlException& e) {
    EXPECT_NE(e.GetMessage().find(path_), std::string::npos) << e.GetMessage();
  }
  ReplaceFile(R"({"serviceEnabled": true})");
  EXPECT_THROW(UpdateSettings([](Settings& x) {
                 x.serviceEnabled = false;
                 throw OrsaCtlException("refused");
               }),
               OrsaCtlException);
  EXPECT_TRUE(LoadSettings().serviceEnabled);
  EXPECT_EQ(kel::testing::ReadFile(path_), R"({"serviceEnabled": true})");
  // Nothing but the store and its lock file is left in the state directory.
  std::vector<std::string> names;
  ASSERT_EQ(kel::platform::LinuxFs().ListDir(dir_.Join("state"), &names), 0);
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()),
            (std::set<std::string>{"settings.json", "settings.lock"}));
}

TEST_F(SettingsStore, ConcurrentUpdatesFromSeveralProcessesAreNotLost) {
  UpdateSettings([](Settings& s) {
    s.hasDefaults = true;
    s.defaults.port = 1000;
  });
  constexpr int kProcs = 4;
  constexpr int kUpdates = 25;
  pid_t pids[kProcs];
  for (int p = 0; p < kProcs; ++p) {
    pids[p] = fork();
    ASSERT_GE(pids[p], 0);
    if (pids[p] == 0) {
      int code = 0;
      try {
        for (int i = 0; i < kUpdates; ++i) {
          UpdateSettings([](Settings& s) { s.defaults.port += 1; });
          if (LoadSettings().defaults.port < 1001) code = 3;  // a read must see its own write
        }
      } catch (...) {
        code = 2;
      }
      _exit(code);
    }
  }
  for (pid_t pid : pids) {
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }
  EXPECT_EQ(LoadSettings().defaults.port, 1000 + kProcs * kUpdates);
}

}  // namespace
