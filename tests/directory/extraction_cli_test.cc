// kelctl conf show, run as a program: the records of a file or of the cluster's kel.conf, as
// tables or JSON, never with secrets.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/test_host.h"

namespace {

using kel::testing::CommandResult;
using kel::testing::JsonHasFields;
using kel::testing::LastLine;
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
    datastore_ = dir_.Join("ds");
    config_ = dir_.Join("host.json");
    WriteFile(config_, R"({"host": {"uuid": "", "name": "h1", "site": ""}, "stateDir": ")" +
                           dir_.Join("state") + R"(", "datastore": {"path": ")" + datastore_ +
                           R"("}, "productEnabled": true})");
    file_ = dir_.Join("kel.conf");
    WriteFile(file_, kConf);
  }

  // kelctl with this host's configuration; no secret may appear in what it prints.
  CommandResult Kelctl(const std::vector<std::string>& args) {
    CommandResult r = kel::testing::RunKelctl(args, config_);
    for (const auto& secret : kSecrets) {
      EXPECT_EQ((r.out + r.err).find(secret), std::string::npos) << secret << " printed";
    }
    return r;
  }

  TempDir dir_;
  std::string datastore_, config_, file_;
};

TEST_F(ConfShowCli, RecordsOfAFileOrOfTheClustersConfAsJsonOrTables) {
  CommandResult r = Kelctl({"conf", "show", file_, "--json"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const auto doc = nlohmann::json::parse(r.out);
  ASSERT_EQ(doc.size(), 4u) << r.out;
  ASSERT_EQ(doc["targets"].size(), 1u);
  EXPECT_TRUE(JsonHasFields(doc["targets"][0], R"({"alias": "Target One", "mutualChapName": "m1"})"));
  ASSERT_EQ(doc["targets"][0]["luns"].size(), 1u);
  EXPECT_TRUE(JsonHasFields(doc["targets"][0]["luns"][0],
                            R"({"naa": "6000C29A1B2C3D4E5F60718293A4B5C6", "path": ")" +
                                datastore_ + "/" + kUuid +
                                R"(/aaaa0000-0000-0000-0000-000000000003.pemo"})"));
  EXPECT_EQ(doc["initiatorGroups"], nlohmann::json::parse(R"([{"name": "grpA",
      "initiators": ["iqn.1998-01.com.example:h1"],
      "targets": {"Target One": "iqn.2024-01.com.example:t1"}}])"));
  EXPECT_TRUE(JsonHasFields(doc["defaults"], R"({"chapName": "defuser",
      "mutualChapName": "defmutual", "chapSecret": "", "mutualChapSecret": ""})"));
  EXPECT_EQ(doc["interfaces"], nlohmann::json::array({"nuk0", "nuk1"}));
  // The global --json before the noun means the same.
  r = Kelctl({"--json", "conf", "show", file_});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(nlohmann::json::parse(r.out), doc);

  r = Kelctl({"conf", "show", file_});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  for (const std::string needle :
       {"Targets:", "LUNs:", "Initiator groups:", "Defaults:", "Interfaces:", "Target One",
        "6000C29A1B2C3D4E5F60718293A4B5C6", "data disk", "CHAP-Mutual", "defuser", "grpA"}) {
    EXPECT_NE(r.out.find(needle), std::string::npos) << needle << " missing:\n" << r.out;
  }

  // Without a file: the cluster's kel.conf of the configured datastore.
  kel::testing::RunCommand({"mkdir", "-p", datastore_ + "/.iSCSI-CONFIG/etc"});
  WriteFile(datastore_ + "/.iSCSI-CONFIG/etc/kel.conf", kConf, 0600);
  r = Kelctl({"conf", "show", "--json"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(nlohmann::json::parse(r.out), doc);
}

TEST_F(ConfShowCli, FailuresAndUsage) {
  // No cluster kel.conf: the handle's own message.
  CommandResult r = Kelctl({"conf", "show"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_FALSE(r.err.empty());
  // A missing file and a file that does not parse: exit 1, the message alone on the last line.
  r = Kelctl({"conf", "show", dir_.Join("nope.conf")});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("unable to open configuration file " + dir_.Join("nope.conf")),
            std::string::npos)
      << r.err;
  WriteFile(file_, "target {\n");
  r = Kelctl({"conf", "show", file_});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(LastLine(r.err), "Failed to read conf file: " + file_);
  EXPECT_TRUE(r.out.empty()) << r.out;

  EXPECT_EQ(Kelctl({"conf", "show", "a", "b"}).exit_code, 2);
  r = Kelctl({"conf", "show", "--help"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_NE(r.out.find("--json"), std::string::npos);
}

}  // namespace
