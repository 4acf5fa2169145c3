#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "platform/exception.h"
#include "platform/host_config.h"
#include "tests/support/test_support.h"

using HostCtl::Lib::Orsa::OrsaCtlException;
using kel::platform::HostConfig;
using kel::platform::LoadHostConfig;
using kel::platform::LoadHostConfigFile;
using kel::testing::TempDir;
using kel::testing::WriteFile;

namespace {

std::string RefusalOf(const std::string& path) {
  try {
    LoadHostConfigFile(path);
  } catch (const OrsaCtlException& e) {
    return e.GetMessage();
  }
  return "";
}

TEST(HostConfig, FileOverridesTheEmbeddedDefault) {
  TempDir dir;
  std::string file = dir.Join("host.json");
  WriteFile(file, R"({
    "host": {"uuid": "", "name": "h1", "site": "Preferred"},
    "stateDir": ")" + dir.Join("state") + R"(",
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
}

TEST(HostConfig, RefusesUnknownKeysAndWrongTypesNamingTheKey) {
  TempDir dir;
  std::string file = dir.Join("host.json");
  WriteFile(file, R"({"directory": {"backend": "embedded", "bogus": 1}})");
  EXPECT_NE(RefusalOf(file).find("unknown key 'directory.bogus'"), std::string::npos);
  WriteFile(file, R"({"daemon": {"tgtdControlPort": "7"}})");
  EXPECT_NE(RefusalOf(file).find("'daemon.tgtdControlPort' must be an integer"),
            std::string::npos);
  WriteFile(file, R"({"options": {"ORSA": {"KelStretchedCluster": true}}})");
  EXPECT_NE(RefusalOf(file).find("'options.ORSA.KelStretchedCluster'"), std::string::npos);
  WriteFile(file, R"({"stateDir": "/x", "extra": {}})");
  EXPECT_NE(RefusalOf(file).find("unknown key 'extra'"), std::string::npos);
  WriteFile(file, "{ not json");
  EXPECT_NE(RefusalOf(file).find("not valid JSON"), std::string::npos);
}

TEST(HostConfig, PrecedenceOfExplicitPathOverEnvironment) {
  TempDir dir;
  WriteFile(dir.Join("a.json"), R"({"host": {"name": "from-flag"}, "stateDir": ")" +
                                    dir.Join("s") + "\"}");
  WriteFile(dir.Join("b.json"), R"({"host": {"name": "from-env"}, "stateDir": ")" +
                                    dir.Join("s") + "\"}");
  setenv("KEL_CONFIG", dir.Join("b.json").c_str(), 1);
  EXPECT_EQ(LoadHostConfig(dir.Join("a.json")).hostName, "from-flag");
  EXPECT_EQ(LoadHostConfig("").hostName, "from-env");
  unsetenv("KEL_CONFIG");
}

}  // namespace
