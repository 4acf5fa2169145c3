// kelctl conf show, run as a program: the records of a file or of the cluster's kel.conf, as
// tables or JSON, never with secrets.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/test_support.h"

namespace {

using kel::testing::CommandResult;
using kel::testing::RunCommand;
using kel::testing::TempDir;
using kel::testing::WriteFile;

const char kUuid[] = "0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a";
// Decoded and encoded secrets of the file below: none may ever be printed.
const std::vector<std::string> kSecrets = {
    "Defsecret12#x",  "RGVmc2VjcmV0MTIjeA==", "Tgtsecret12#a", "VGd0c2VjcmV0MTIjYQ==",
    "Mutual9secret$", "TXV0dWFsOXNlY3JldCQ=", "Abcdefghij1!",  "QWJjZGVmZ2hpajEh"};

const char kConf[] = R"(generation 3
initiator-group grpA {
	 initiator iqn.1998-01.com.example:h1 
}
auth-group default {
	 chap-mutual "defuser" "RGVmc2VjcmV0MTIjeA==" "defmutual" "TXV0dWFsOXNlY3JldCQ="
}
auth-group 0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a {
	 chap-mutual "u1" "VGd0c2VjcmV0MTIjYQ==" "m1" "QWJjZGVmZ2hpajEh"
	 initiator-group grpA
}
portal-group default {
	 discovery-auth-group no-authentication
	 listen nuk0:3260
}
portal-group pg-nuk1-3261 {
	 discovery-auth-group no-authentication
	 listen nuk1:3261
}
target iqn.2024-01.com.example:t1 {
	alias "Target One"
	portal-group pg-nuk1-3261
	auth-group 0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a
	option uuid 0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a
	lun 3 {
		backend pemo
		path 0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a/aaaa0000-0000-0000-0000-000000000003.pemo
		size 204800
		option lun-alias "data disk"
		option naa "6000C29A1B2C3D4E5F60718293A4B5C6"
	}
}
)";

class ConfShowCli : public ::testing::Test {
 protected:
  void SetUp() override {
    kelctl_ = kel::testing::BinaryDir() + "/cli/kelctl";
    ASSERT_TRUE(kel::testing::PathExists(kelctl_)) << kelctl_ << " is not built";
    datastore_ = dir_.Join("ds");
    config_ = dir_.Join("host.json");
    WriteFile(config_, R"({"host": {"uuid": "", "name": "h1", "site": ""}, "stateDir": ")" +
                           dir_.Join("state") + R"(", "datastore": {"path": ")" + datastore_ +
                           R"("}, "productEnabled": true})");
  }

  CommandResult Kelctl(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {kelctl_, "--config", config_};
    argv.insert(argv.end(), args.begin(), args.end());
    return RunCommand(argv, "", {{"KEL_HOME", dir_.Join("home")}});
  }

  static void ExpectNoSecrets(const CommandResult& r) {
    for (const auto& s : kSecrets) {
      EXPECT_EQ(r.out.find(s), std::string::npos) << "secret " << s << " printed:\n" << r.out;
      EXPECT_EQ(r.err.find(s), std::string::npos) << "secret " << s << " printed:\n" << r.err;
    }
  }

  TempDir dir_;
  std::string kelctl_;
  std::string datastore_;
  std::string config_;
};

TEST_F(ConfShowCli, JsonOfAFileHoldsEveryRecordWithoutSecrets) {
  const std::string file = dir_.Join("kel.conf");
  WriteFile(file, kConf);
  CommandResult r = Kelctl({"conf", "show", file, "--json"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  ExpectNoSecrets(r);
  const auto doc = nlohmann::json::parse(r.out);
  ASSERT_EQ(doc.size(), 4u) << r.out;
  ASSERT_EQ(doc["targets"].size(), 1u);
  const auto& t = doc["targets"][0];
  EXPECT_EQ(t["alias"], "Target One");
  EXPECT_EQ(t["mutualChapName"], "m1");
  ASSERT_EQ(t["luns"].size(), 1u);
  const auto& l = t["luns"][0];
  EXPECT_EQ(l["naa"], "6000C29A1B2C3D4E5F60718293A4B5C6");
  EXPECT_EQ(l["path"], datastore_ + "/" + kUuid + "/aaaa0000-0000-0000-0000-000000000003.pemo");

  ASSERT_EQ(doc["initiatorGroups"].size(), 1u);
  EXPECT_EQ(doc["initiatorGroups"][0]["name"], "grpA");
  EXPECT_EQ(doc["initiatorGroups"][0]["targets"]["Target One"], "iqn.2024-01.com.example:t1");

  const auto& d = doc["defaults"];
  EXPECT_EQ(d["chapName"], "defuser");
  EXPECT_EQ(d["mutualChapName"], "defmutual");
  EXPECT_EQ(d["chapSecret"], "");
  EXPECT_EQ(d["mutualChapSecret"], "");
  EXPECT_EQ(doc["interfaces"], nlohmann::json::array({"nuk0", "nuk1"}));

  // The global --json before the noun means the same.
  CommandResult global = RunCommand({kelctl_, "--config", config_, "--json", "conf", "show", file});
  ASSERT_EQ(global.exit_code, 0) << global.err;
  EXPECT_EQ(nlohmann::json::parse(global.out), doc);
}

TEST_F(ConfShowCli, TablesShowLunsWithTheirNaa) {
  const std::string file = dir_.Join("kel.conf");
  WriteFile(file, kConf);
  CommandResult r = Kelctl({"conf", "show", file});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  ExpectNoSecrets(r);
  for (const std::string needle :
       {"Targets:", "LUNs:", "Initiator groups:", "Defaults:", "Interfaces:", "Target One",
        "6000C29A1B2C3D4E5F60718293A4B5C6", "data disk", "CHAP-Mutual", "defuser", "grpA"}) {
    EXPECT_NE(r.out.find(needle), std::string::npos) << needle << " missing:\n" << r.out;
  }
}

TEST_F(ConfShowCli, WithoutFileReadsTheClustersConf) {
  kel::testing::RunCommand({"mkdir", "-p", datastore_ + "/.iSCSI-CONFIG/etc"});
  WriteFile(datastore_ + "/.iSCSI-CONFIG/etc/kel.conf", kConf, 0600);
  CommandResult r = Kelctl({"conf", "show", "--json"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  ExpectNoSecrets(r);
  const auto doc = nlohmann::json::parse(r.out);
  ASSERT_EQ(doc["targets"].size(), 1u);
  EXPECT_EQ(doc["targets"][0]["luns"][0]["naa"], "6000C29A1B2C3D4E5F60718293A4B5C6");
}

TEST_F(ConfShowCli, FailuresAndUsage) {
  // A missing file and a file that does not parse: exit 1, the message alone on the last line.
  CommandResult missing = Kelctl({"conf", "show", dir_.Join("nope.conf")});
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_NE(missing.err.find("unable to open configuration file " + dir_.Join("nope.conf")),
            std::string::npos)
      << missing.err;

  const std::string bad = dir_.Join("bad.conf");
  WriteFile(bad, "target {\n");
  CommandResult broken = Kelctl({"conf", "show", bad});
  EXPECT_EQ(broken.exit_code, 1);
  ASSERT_FALSE(broken.err.empty());
  std::string last = broken.err.substr(0, broken.err.size() - 1);
  last = last.substr(last.rfind('\n') + 1);
  EXPECT_EQ(last, "Failed to read conf file: " + bad);
  EXPECT_TRUE(broken.out.empty()) << broken.out;

  // No cluster kel.conf: the handle's own message.
  CommandResult nocluster = Kelctl({"conf", "show"});
  EXPECT_EQ(nocluster.exit_code, 1);
  EXPECT_FALSE(nocluster.err.empty());

  CommandResult usage = Kelctl({"conf", "show", "a", "b"});
  EXPECT_EQ(usage.exit_code, 2);
  CommandResult help = Kelctl({"conf", "show", "--help"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_NE(help.out.find("--json"), std::string::npos);
}

}  // namespace
