// kelctl conf check|format|show, run as the built program on real files and on the cluster's
// kel.conf: reports, exit codes, the records as tables or JSON, never a secret.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/test_host.h"

using kel::testing::CommandResult;
using kel::testing::JsonHasFields;
using kel::testing::LastLine;
using kel::testing::LoadConfText;
using kel::testing::RunKelctl;
using kel::testing::TempDir;
using kel::testing::WriteConfText;
using kel::testing::WriteFile;

namespace {

const char kGood[] =
    "generation 12\n"
    "initiator-group ig { initiator iqn.1998-01.com.example:h1 }\n"
    "auth-group uuid-1 { chap \"u\" \"MTIzNDU2Nzg5MDEy\"; initiator-group ig }\n"
    "target iqn.2024-01.com.example:t1 {\n"
    "  alias \"one\"\n"
    "  auth-group uuid-1\n"
    "  option uuid uuid-1\n"
    "  lun 4 { backend pemo; path uuid-1/a.pemo; size 2048; option lun-alias \"a\" }\n"
    "  lun 1 { backend pemo; path uuid-1/b.pemo; size 4096 }\n"
    "}\n";

TEST(KelctlConf, CheckReportsAndExits) {
  TempDir dir;
  std::string good = dir.Join("good.conf");
  WriteFile(good, kGood);
  CommandResult ok = RunKelctl({"conf", "check", good});
  EXPECT_EQ(ok.exit_code, 0) << ok.err;
  EXPECT_NE(ok.out.find("generation 12, 1 targets, 2 LUNs, 1 initiator groups"), std::string::npos)
      << ok.out;
  // Every C-side line is mirrored at level 4, debug lines included.
  EXPECT_NE(ok.err.find("KELD: obtaining configuration from " + good + "\n"), std::string::npos)
      << ok.err;
  EXPECT_NE(ok.err.find("KELD: portal-group \"default\" not defined; going with defaults"),
            std::string::npos);

  CommandResult json = RunKelctl({"--json", "conf", "check", good});
  EXPECT_EQ(json.exit_code, 0);
  auto doc = nlohmann::json::parse(json.out);
  EXPECT_EQ(doc["valid"], true);
  EXPECT_EQ(doc["generation"], 12);
  EXPECT_EQ(doc["luns"], 2);

  std::string bad = dir.Join("bad.conf");
  WriteFile(bad, "generation 1\ntarget iqn.x:y {\n  lun 0 { path }\n}\n");
  CommandResult fail = RunKelctl({"conf", "check", bad});
  EXPECT_EQ(fail.exit_code, 1);
  EXPECT_NE(fail.err.find("KELD: error in configuration file at line 3 near '}': syntax error, "
                          "unexpected CLOSING_BRACKET, expecting STR\n"),
            std::string::npos)
      << fail.err;
  EXPECT_NE(fail.err.find("KELD: 3:   lun 0 { path }\n"), std::string::npos);
  EXPECT_NE(fail.err.find("KELD: Failed to parse config file " + bad + "\n"), std::string::npos);
  EXPECT_EQ(LastLine(fail.err), "Failed to read conf file: " + bad);
  EXPECT_EQ(fail.out, "");

  std::string unverifiable = dir.Join("unverifiable.conf");
  WriteFile(unverifiable, "lun a { backend ramdisk }\n");
  CommandResult verify = RunKelctl({"conf", "check", unverifiable});
  EXPECT_EQ(verify.exit_code, 1);
  EXPECT_NE(verify.err.find("KELD: missing size for ramdisk-backed lun \"a\""), std::string::npos);
  EXPECT_NE(verify.err.find("KELD: failed to validate configuration " + unverifiable),
            std::string::npos);

  std::string secret = dir.Join("secret.conf");
  WriteFile(secret, "auth-group a { chap u \"*\" }\n");
  CommandResult thrown = RunKelctl({"conf", "check", secret});
  EXPECT_EQ(thrown.exit_code, 1);
  EXPECT_EQ(LastLine(thrown.err), "Base64_Decode (Invalid argument)");

  CommandResult missing = RunKelctl({"conf", "check", dir.Join("missing.conf")});
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_EQ(LastLine(missing.err), "unable to open configuration file " +
                                       dir.Join("missing.conf") + ": No such file or directory");
}

TEST(KelctlConf, FormatPrintsWhatTheWriterWrites) {
  TempDir dir;
  std::string good = dir.Join("good.conf");
  WriteFile(good, kGood);
  CommandResult out = RunKelctl({"conf", "format", good});
  ASSERT_EQ(out.exit_code, 0) << out.err;
  auto conf = LoadConfText(kGood);
  ASSERT_NE(conf, nullptr);
  EXPECT_EQ(out.out, WriteConfText(conf.get()));
  EXPECT_EQ(out.out.rfind("generation 12\n", 0), 0u);  // not incremented
  EXPECT_EQ(out.err, "");  // warnings only, and there are none

  // Formatting the output again changes nothing.
  std::string formatted = dir.Join("formatted.conf");
  WriteFile(formatted, out.out);
  CommandResult again = RunKelctl({"conf", "format", formatted});
  EXPECT_EQ(again.exit_code, 0);
  EXPECT_EQ(again.out, out.out);

  // -v mirrors the writer's service-side lines too.
  CommandResult verbose = RunKelctl({"-v", "conf", "format", good});
  EXPECT_EQ(verbose.exit_code, 0);
  EXPECT_EQ(verbose.out, out.out);
  EXPECT_NE(verbose.err.find("ConfHandle: Skipping default auth group"), std::string::npos)
      << verbose.err;

  std::string bad = dir.Join("bad.conf");
  WriteFile(bad, "generation 1\ntimeout soon\n");
  CommandResult fail = RunKelctl({"conf", "format", bad});
  EXPECT_EQ(fail.exit_code, 1);
  EXPECT_EQ(fail.out, "");
  EXPECT_NE(fail.err.find("KELD: error in configuration file at line 2 near 'soon': invalid "
                          "numeric value\n"),
            std::string::npos)
      << fail.err;
  EXPECT_EQ(LastLine(fail.err), "Failed to read conf file: " + bad);

  // A secret that the writer cannot encode prints nothing on stdout.
  std::string long_secret = dir.Join("long.conf");
  WriteFile(long_secret, "auth-group a { chap u \"MDEyMzQ1Njc4OWFiY2RlZmdoaWprbA==\" }\n");
  CommandResult unwritable = RunKelctl({"conf", "format", long_secret});
  EXPECT_EQ(unwritable.exit_code, 1);
  EXPECT_EQ(unwritable.out, "");
  EXPECT_EQ(LastLine(unwritable.err), "Base64_Encode failed: Unexpected encoding size");
}

TEST(KelctlConf, UsageErrorsAndHelp) {
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{},
                                             {"conf"},
                                             {"conf", "check"},
                                             {"conf", "check", "a", "b"},
                                             {"conf", "format", "--bogus", "x"},
                                             {"--nope", "conf", "check", "x"},
                                             {"nonsense"}}) {
    CommandResult r = RunKelctl(args);
    EXPECT_EQ(r.exit_code, 2) << testing::PrintToString(args) << r.err;
  }
  CommandResult help = RunKelctl({"conf", "check", "--help"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_NE(help.out.find("FILE"), std::string::npos);
}

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
  EXPECT_TRUE(
      JsonHasFields(doc["targets"][0], R"({"alias": "Target One", "mutualChapName": "m1"})"));
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
