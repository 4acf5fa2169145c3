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

const std::string kUuid = "0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a";
// Decoded and encoded secrets of the file below: show never prints any of them.
const std::vector<std::string> kSecrets = {
    "Defsecret12#x",  "RGVmc2VjcmV0MTIjeA==", "Tgtsecret12#a", "VGd0c2VjcmV0MTIjYQ==",
    "Mutual9secret$", "TXV0dWFsOXNlY3JldCQ=", "Abcdefghij1!",  "QWJjZGVmZ2hpajEh"};
const std::string kNaa = "6000C29A1B2C3D4E5F60718293A4B5C6";

const char kConf[] = R"(generation 12
initiator-group grpA { initiator iqn.1998-01.com.example:h1 }
auth-group default { chap-mutual defuser "RGVmc2VjcmV0MTIjeA==" defmutual "TXV0dWFsOXNlY3JldCQ=" }
auth-group 0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a {
  chap-mutual u1 "VGd0c2VjcmV0MTIjYQ==" m1 "QWJjZGVmZ2hpajEh"; initiator-group grpA
}
portal-group pg-nuk1-3261 { discovery-auth-group no-authentication; listen nuk1:3261 }
target iqn.2024-01.com.example:t1 {
  alias "Target One"; portal-group pg-nuk1-3261; auth-group 0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a
  option uuid 0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a
  lun 4 { backend pemo; path 0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a/b.pemo; size 4096 }
  lun 1 { backend pemo; path 0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a/a.pemo; size 204800
    option lun-alias "data disk"; option naa 6000C29A1B2C3D4E5F60718293A4B5C6 }
}
)";

class KelctlConf : public ::testing::Test {
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

  // kelctl conf show with this host's configuration, checked for secrets.
  CommandResult Show(std::vector<std::string> args) {
    args.insert(args.begin(), {"conf", "show"});
    CommandResult r = RunKelctl(args, config_);
    for (const auto& secret : kSecrets) {
      EXPECT_EQ((r.out + r.err).find(secret), std::string::npos) << secret << " printed";
    }
    return r;
  }

  // A file of the test's own holding `text`.
  std::string File(const std::string& name, const std::string& text) {
    WriteFile(dir_.Join(name), text);
    return dir_.Join(name);
  }

  TempDir dir_;
  std::string datastore_, config_, file_;
};

TEST_F(KelctlConf, CheckReportsAndExits) {
  CommandResult ok = RunKelctl({"conf", "check", file_});
  EXPECT_EQ(ok.exit_code, 0) << ok.err;
  EXPECT_NE(ok.out.find("generation 12, 1 targets, 2 LUNs, 1 initiator groups"), std::string::npos)
      << ok.out;
  // Every C-side line is mirrored at level 4, debug lines included.
  EXPECT_NE(ok.err.find("KELD: obtaining configuration from " + file_ + "\n"), std::string::npos)
      << ok.err;
  EXPECT_NE(ok.err.find("KELD: portal-group \"default\" not defined; going with defaults"),
            std::string::npos);
  auto doc = nlohmann::json::parse(RunKelctl({"--json", "conf", "check", file_}).out);
  EXPECT_TRUE(JsonHasFields(doc, R"({"valid": true, "generation": 12, "luns": 2})")) << doc;

  const std::string bad = File("bad.conf", "generation 1\ntarget iqn.x:y {\n  lun 0 { path }\n}\n");
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

  const std::string unverifiable = File("unverifiable.conf", "lun a { backend ramdisk }\n");
  CommandResult verify = RunKelctl({"conf", "check", unverifiable});
  EXPECT_EQ(verify.exit_code, 1);
  EXPECT_NE(verify.err.find("KELD: missing size for ramdisk-backed lun \"a\""), std::string::npos);
  EXPECT_NE(verify.err.find("KELD: failed to validate configuration " + unverifiable),
            std::string::npos);

  CommandResult thrown =
      RunKelctl({"conf", "check", File("secret.conf", "auth-group a { chap u \"*\" }\n")});
  EXPECT_EQ(thrown.exit_code, 1);
  EXPECT_EQ(LastLine(thrown.err), "Base64_Decode (Invalid argument)");

  CommandResult missing = RunKelctl({"conf", "check", dir_.Join("missing.conf")});
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_EQ(LastLine(missing.err), "unable to open configuration file " +
                                       dir_.Join("missing.conf") + ": No such file or directory");
}

TEST_F(KelctlConf, FormatPrintsWhatTheWriterWrites) {
  CommandResult out = RunKelctl({"conf", "format", file_});
  ASSERT_EQ(out.exit_code, 0) << out.err;
  EXPECT_EQ(out.out, WriteConfText(LoadConfText(kConf).get()));  // generation not raised
  EXPECT_EQ(out.err, "");  // warnings only, and there are none
  // Formatting the output again changes nothing.
  EXPECT_EQ(RunKelctl({"conf", "format", File("formatted.conf", out.out)}).out, out.out);

  // -v mirrors the writer's service-side lines too.
  CommandResult verbose = RunKelctl({"-v", "conf", "format", file_});
  EXPECT_EQ(verbose.out, out.out);
  EXPECT_NE(verbose.err.find("ConfHandle: Skipping default auth group"), std::string::npos)
      << verbose.err;

  const std::string bad = File("bad.conf", "generation 1\ntimeout soon\n");
  CommandResult fail = RunKelctl({"conf", "format", bad});
  EXPECT_EQ(fail.exit_code, 1);
  EXPECT_EQ(fail.out, "");
  EXPECT_NE(fail.err.find("KELD: error in configuration file at line 2 near 'soon': invalid "
                          "numeric value\n"),
            std::string::npos)
      << fail.err;
  EXPECT_EQ(LastLine(fail.err), "Failed to read conf file: " + bad);

  // A 22-byte secret, one more than the writer can encode, prints nothing on stdout.
  CommandResult unwritable = RunKelctl(
      {"conf", "format",
       File("long.conf", "auth-group a { chap u \"MDEyMzQ1Njc4OWFiY2RlZmdoaWprbA==\" }\n")});
  EXPECT_EQ(unwritable.exit_code, 1);
  EXPECT_EQ(unwritable.out, "");
  EXPECT_EQ(LastLine(unwritable.err), "Base64_Encode failed: Unexpected encoding size");
}

TEST_F(KelctlConf, ShowRecordsOfAFileOrOfTheClustersConfAsJsonOrTables) {
  CommandResult r = Show({file_, "--json"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const auto doc = nlohmann::json::parse(r.out);
  ASSERT_EQ(doc.size(), 4u) << r.out;
  ASSERT_EQ(doc["targets"].size(), 1u);
  EXPECT_TRUE(
      JsonHasFields(doc["targets"][0], R"({"alias": "Target One", "mutualChapName": "m1"})"));
  ASSERT_EQ(doc["targets"][0]["luns"].size(), 2u);
  EXPECT_TRUE(JsonHasFields(
      doc["targets"][0]["luns"][0],
      R"({"naa": ")" + kNaa + R"(", "path": ")" + datastore_ + "/" + kUuid + R"(/a.pemo"})"));
  EXPECT_EQ(doc["initiatorGroups"], nlohmann::json::parse(R"([{"name": "grpA",
      "initiators": ["iqn.1998-01.com.example:h1"],
      "targets": {"Target One": "iqn.2024-01.com.example:t1"}}])"));
  EXPECT_TRUE(JsonHasFields(doc["defaults"], R"({"chapName": "defuser",
      "mutualChapName": "defmutual", "chapSecret": "", "mutualChapSecret": ""})"));
  EXPECT_EQ(doc["interfaces"], nlohmann::json::array({"nuk0", "nuk1"}));
  // The global --json before the noun means the same.
  r = RunKelctl({"--json", "conf", "show", file_}, config_);
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(nlohmann::json::parse(r.out), doc);

  r = Show({file_});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  for (const std::string needle :
       {"Targets:", "LUNs:", "Initiator groups:", "Defaults:", "Interfaces:", "Target One",
        kNaa.c_str(), "data disk", "CHAP-Mutual", "defuser", "grpA"}) {
    EXPECT_NE(r.out.find(needle), std::string::npos) << needle << " missing:\n" << r.out;
  }

  // Without a file: the cluster's kel.conf of the configured datastore, or the handle's own
  // message when there is none.
  r = Show({});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_FALSE(r.err.empty());
  kel::testing::RunCommand({"mkdir", "-p", datastore_ + "/.iSCSI-CONFIG/etc"});
  WriteFile(datastore_ + "/.iSCSI-CONFIG/etc/kel.conf", kConf, 0600);
  r = Show({"--json"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(nlohmann::json::parse(r.out), doc);

  // A missing file and a file that does not parse: exit 1, the message alone on the last line.
  r = Show({dir_.Join("nope.conf")});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("unable to open configuration file " + dir_.Join("nope.conf")),
            std::string::npos)
      << r.err;
  r = Show({File("kel.conf", "target {\n")});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(LastLine(r.err), "Failed to read conf file: " + file_);
  EXPECT_TRUE(r.out.empty()) << r.out;
}

TEST(KelctlConfUsage, UsageErrorsAndHelp) {
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{},
                                             {"conf"},
                                             {"conf", "check"},
                                             {"conf", "check", "a", "b"},
                                             {"conf", "format", "--bogus", "x"},
                                             {"--nope", "conf", "check", "x"},
                                             {"conf", "show", "a", "b"},
                                             {"nonsense"}}) {
    CommandResult r = RunKelctl(args);
    EXPECT_EQ(r.exit_code, 2) << testing::PrintToString(args) << r.err;
  }
  for (const auto& [noun, word] :
       {std::pair<std::string, std::string>{"check", "FILE"}, {"show", "--json"}}) {
    CommandResult help = RunKelctl({"conf", noun, "--help"});
    EXPECT_EQ(help.exit_code, 0) << noun;
    EXPECT_NE(help.out.find(word), std::string::npos) << noun;
  }
}

}  // namespace
