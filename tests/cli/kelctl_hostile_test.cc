// kelctl used as a hostile user would: bad bytes, huge or wrong files, hand-edited and broken
// kel.conf files, links out of the datastore. Every refusal says why, changes nothing, and the
// cluster's listings keep working.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/cli/kelctl_testutil.h"

namespace kel {
namespace testing {
namespace {

struct Refusal {
  std::vector<std::string> args;
  int exitCode;
  std::string lastLine;  // exact; "" when only the exit code matters
};

TEST(KelctlHostile, RefusalsChangeNothingAndListingsKeepWorking) {
  TestHost env;
  Kelctl k(env);
  k.Ok({"namespace", "create"});
  k.Ok({"service", "enable"});
  k.Ok({"target", "add", "--alias", "t1"});
  k.Ok({"lun", "add", "--target", "t1", "--size", "1MiB"});
  const std::string dir = env.Join("a-directory");
  ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
  const std::vector<Refusal> refusals = {
      {{"target", "add", "--alias",
        "ab\xff"
        "cd"},
       1,
       "Invalid alias. It is not valid UTF-8 text (byte 0xFF at offset 2)."},
      {{"lun", "add", "--target", "t1", "--size", "1MiB", "--alias", "x\xc3"},
       1,
       "Invalid LUN alias. It is not valid UTF-8 text (byte 0xC3 at offset 1)."},
      {{"target", "add", "--alias", std::string(200, 'a')}, 1, ""},
      {{"initiator-group", "add", "../g"}, 1, ""},
      {{"lun", "add", "--target", "t1", "--size", "64MiB\n"},
       1,
       "Failed to validate LUN size: Invalid size unit: MiB\\n. Valid units: MB, GB, TB, MiB, GiB, "
       "TiB. Fractional sizes not permitted."},
      {{"target", "add", "--alias", "t2", "--auth-type", "CHAP", "--chap-user", "u",
        "--chap-secret-file", "/dev/zero"},
       1,
       "secret file /dev/zero holds more than 4096 bytes: not a secret"},
      {{"target", "add", "--alias", "t2", "--auth-type", "CHAP", "--chap-user", "u",
        "--chap-secret-file", dir},
       1,
       "cannot read secret file " + dir + ": Is a directory"},
      {{"target", "transfer", "--alias", "t1", "--retries", "65535"}, 2, ""},
      {{"target", "transfer-local", "--retries", "-1"}, 2, ""},
  };
  const std::string before = env.Snapshot();
  for (const Refusal& r : refusals) {
    CommandResult result = k.Run(r.args);
    EXPECT_EQ(result.exit_code, r.exitCode) << ::testing::PrintToString(r.args) << result.err;
    if (!r.lastLine.empty()) EXPECT_EQ(LastLine(result.err), r.lastLine);
    EXPECT_EQ(env.Snapshot(), before) << ::testing::PrintToString(r.args);
  }

  // Aliases that look like paths are only text; a hand-edited alias with bad bytes still lists.
  k.Ok({"target", "add", "--alias", "../../etc/x"});
  std::string text = ReadFile(env.conf_path());
  text.replace(text.find("alias \"t1\""), 10, "alias \"t\xff\"");
  WriteFile(env.conf_path(), text);
  EXPECT_EQ(k.Json({"target", "list", "--skip-compliance"}).size(), 2u);

  // A second target of an existing alias, hand-written, is worth a warning.
  const std::string copy = env.Join("dup.conf");
  text = ReadFile(env.conf_path());
  WriteFile(copy, text + "target iqn.2024-01.x:dup {\n\talias \"../../etc/x\"\n}\n");
  CommandResult r = k.Run({"conf", "check", copy});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_NE(r.err.find("have the same alias \"../../etc/x\""), std::string::npos) << r.err;
}

// Broken kel.conf files: the fixed message stays the last line, the line above says why.
TEST(KelctlHostile, BrokenConfigurationFilesSayWhy) {
  TestHost env;
  Kelctl k(env);
  k.Ok({"namespace", "create"});
  k.Ok({"service", "enable"});
  const std::string conf = env.conf_path();
  const std::string good = ReadFile(conf);
  const std::string lockFailed = "Parser: share lock failed on " + conf;
  auto expect = [&](const std::string& lastLine, const std::string& reason) {
    CommandResult r = k.Run({"target", "list"});
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(LastLine(r.err), lastLine);
    EXPECT_NE(r.err.find(reason), std::string::npos) << r.err;
  };
  ASSERT_EQ(unlink(conf.c_str()), 0);
  expect(lockFailed, conf + " does not exist (No such file or directory)");
  ASSERT_EQ(symlink("nowhere", conf.c_str()), 0);
  expect(lockFailed, conf + " is a dangling symbolic link to nowhere");
  ASSERT_EQ(unlink(conf.c_str()), 0);
  ASSERT_EQ(mkdir(conf.c_str(), 0700), 0);
  expect(lockFailed, conf + " is a directory, not a file");
  ASSERT_EQ(rmdir(conf.c_str()), 0);
  WriteFile(conf, good.substr(0, good.size() - 3));
  expect("Failed to read conf file: " + conf, "error in configuration file at line");
  CommandResult r = k.Run({"conf", "check", env.Join("")});
  EXPECT_EQ(r.exit_code, 1);

  // Emptied: valid (with a warning), but no write may hand out an old generation again.
  WriteFile(conf, "");
  r = k.Run({"conf", "check", conf});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_NE(r.err.find("is empty"), std::string::npos);
  r = k.Run({"target", "add", "--alias", "t2"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(LastLine(r.err).find("was already published in the directory"), std::string::npos);
  EXPECT_EQ(ReadFile(conf), "");

  // A failed reload after the write: add and remove both carry the change through, and say so.
  WriteFile(conf, good);
  env.ControlExitsWith(2);
  for (const char* verb : {"add", "remove"}) {
    r = k.Run({"target", verb, "--alias", "t3"});
    EXPECT_EQ(r.exit_code, 1) << verb;
    EXPECT_NE(r.err.find("the change is saved"), std::string::npos) << r.err;
    EXPECT_EQ(ReadFile(conf).find("\"t3\"") != std::string::npos, std::string(verb) == "add");
  }
}

// Hand-written LUN paths and links that lead out of the datastore are never followed.
TEST(KelctlHostile, NothingOutsideTheDatastoreIsTouched) {
  TestHost env;
  Kelctl k(env);
  k.Ok({"namespace", "create"});
  k.Ok({"service", "enable"});
  k.Ok({"target", "add", "--alias", "t1"});
  k.Ok({"lun", "add", "--target", "t1", "--size", "1MiB"});
  const std::string outside = env.Join("outside.img");
  WriteFile(outside, std::string(4096, 'x'));
  std::string text = ReadFile(env.conf_path());
  const size_t path = text.find("\t\tpath ") + 7;
  text.replace(path, text.find('\n', path) - path, "../../../outside.img");
  WriteFile(env.conf_path(), text);
  CommandResult r = k.Run({"lun", "update", "--target", "t1", "--id", "0", "--size", "2MiB"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(LastLine(r.err).find("does not lie inside the datastore"), std::string::npos) << r.err;
  r = k.Run({"lun", "remove", "--target", "t1", "--id", "0"});
  EXPECT_EQ(r.exit_code, 1);
  k.Ok({"lun", "remove", "--target", "t1", "--id", "0", "--force"});
  EXPECT_EQ(ReadFile(outside), std::string(4096, 'x'));
}

}  // namespace
}  // namespace testing
}  // namespace kel
