// kelctl on the management service, run as the built program against a one-host environment
// whose daemon control is a recording double: every noun and verb, what reaches kel.conf, exit
// codes and messages, and that no secret is ever printed or logged.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/cli/kelctl_testutil.h"

namespace kel {
namespace testing {
namespace {

using nlohmann::json;

TEST(KelctlService, EveryNounAgainstTheService) {
  TestHost env;
  Kelctl k(env);
  const std::string secretFile = env.Join("secret");
  WriteFile(secretFile, std::string(kSecret) + "\n");

  k.Ok({"namespace", "create"});
  EXPECT_EQ(k.Run({"service", "status"}).out, "disabled\n");
  CommandResult r = k.Run({"target", "add", "--alias", "early"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(LastLine(r.err), kNotEnabled);

  k.Ok({"service", "enable"});
  EXPECT_EQ(env.ControlRuns(), std::vector<std::string>{"++group=serad-tmp restart"});
  // The daemon reads the host configuration kelctl was given.
  EXPECT_EQ(ReadFile(env.Join("control.env")), k.config() + "\n");
  r = k.Run({"service", "enable", "--fail-if-unchanged"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(LastLine(r.err), "Orsa iSCSI Target service is already enabled on this host");
  EXPECT_EQ(k.Json({"service", "status"}), json({{"enabled", true}}));

  // Targets with each authentication type; secrets from a file, from stdin and as an option.
  k.Ok({"target", "add", "--alias", "plain"});
  k.Ok({"target", "add", "--alias", "chap", "--iqn", "iqn.2024-01.com.example:chap", "--auth-type",
        "CHAP", "--chap-user", "u1", "--chap-secret-file", secretFile});
  k.Ok({"target", "add", "--alias", "mutual", "--auth-type", "CHAP-Mutual", "--chap-user", "u2",
        "--chap-secret-file", "-", "--mutual-user", "m2", "--mutual-secret", kMutualSecret,
        "--site", "Preferred"},
       std::string(kSecret) + "\n");
  {
    ConfPtr model = ReadModel();
    struct target* t = TargetByAlias(model.get(), "chap");
    ASSERT_NE(t, nullptr);
    EXPECT_STREQ(TAILQ_FIRST(&t->t_auth_group->ag_auths)->a_secret, kSecret);
    t = TargetByAlias(model.get(), "mutual");
    ASSERT_NE(t, nullptr);
    const struct auth* a = TAILQ_FIRST(&t->t_auth_group->ag_auths);
    EXPECT_STREQ(a->a_secret, kSecret);
    EXPECT_STREQ(a->a_mutual_user, "m2");
    EXPECT_STREQ(a->a_mutual_secret, kMutualSecret);
    EXPECT_EQ(TargetOption(t, "fault-domain"), "Preferred");
  }
  EXPECT_TRUE(JsonHasFields(k.Json({"target", "show", "--alias", "chap"}),
                            R"({"iqn": "iqn.2024-01.com.example:chap", "authType": "CHAP",
                                "chapName": "u1", "ownerHostName": "host-a"})"));
  EXPECT_EQ(k.Json({"target", "list"}).size(), 3u);
  r = k.Run({"target", "list"});
  EXPECT_NE(r.out.find("mutual"), std::string::npos);
  EXPECT_NE(r.out.find("CHAP-Mutual"), std::string::npos);

  // LUNs: rows carry the NAA; numbers and targets change only offline.
  EXPECT_NE(k.Ok({"lun", "add", "--target", "chap", "--size", "10MiB", "--alias", "data"})
                .out.find("NAA"),
            std::string::npos);
  k.Ok({"lun", "add", "--target", "chap", "--size", "1GB", "--id", "5"});
  json luns = k.Json({"lun", "list", "--target", "chap"});
  ASSERT_EQ(luns.size(), 2u);
  EXPECT_EQ(luns[0]["alias"], "data");
  EXPECT_EQ(luns[0]["naa"].get<std::string>().size(), 32u);
  EXPECT_EQ(luns[1]["id"], 5);
  EXPECT_EQ(luns[1]["sizeMiB"], 1953125ull * 512 / 1048576);
  EXPECT_NE(k.Run({"lun", "list", "--target", "chap"}).out.find(luns[0]["naa"].get<std::string>()),
            std::string::npos);
  r = k.Run({"lun", "update", "--target", "chap", "--id", "5", "--new-id", "6"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(LastLine(r.err),
            "Changing the ID of an online LUN is not allowed. Bring the LUN offline first.");
  k.Ok({"lun", "update", "--target", "chap", "--id", "5", "--status", "offline"});
  k.Ok({"lun", "update", "--target", "chap", "--id", "5", "--new-id", "6"});
  EXPECT_EQ(k.Json({"lun", "show", "--target", "chap", "--id", "6"})["status"], "offline");
  k.Ok({"lun", "update", "--target", "chap", "--id", "6", "--new-target", "plain"});
  EXPECT_EQ(k.Json({"lun", "list", "--target", "plain"}).size(), 1u);
  k.Ok({"lun", "remove", "--target", "plain", "--id", "0"});
  EXPECT_TRUE(k.Json({"lun", "list", "--target", "plain"}).empty());

  // Initiator groups, and a target's initiator list replaced and cleared.
  k.Ok({"initiator-group", "add", "srv"});
  k.Ok({"initiator-group", "add-initiators", "srv", "iqn.1998-01.com.example:a",
        "iqn.1998-01.com.example:b"});
  k.Ok({"target", "update", "--alias", "plain", "--initiator", "srv", "--initiator",
        "iqn.1998-01.com.example:c"});
  json group = k.Json({"initiator-group", "show", "srv"});
  EXPECT_EQ(group["initiators"], json({"iqn.1998-01.com.example:a", "iqn.1998-01.com.example:b"}));
  EXPECT_TRUE(group["targets"].contains("plain"));
  EXPECT_TRUE(JsonHasFields(k.Json({"target", "show", "--alias", "plain"}),
                            R"({"initiators": ["iqn.1998-01.com.example:c"],
                                "initiatorGroups": ["srv"]})"));
  // An update that does not name initiators keeps them; --no-initiators clears them.
  k.Ok({"target", "update", "--alias", "plain", "--port", "3265"});
  EXPECT_TRUE(JsonHasFields(k.Json({"target", "show", "--alias", "plain"}),
                            R"({"port": 3265, "networkInterface": "nuk0",
                                "initiatorGroups": ["srv"]})"));
  k.Ok({"target", "update", "--alias", "plain", "--no-initiators"});
  EXPECT_TRUE(JsonHasFields(k.Json({"target", "show", "--alias", "plain"}),
                            R"({"initiators": [], "initiatorGroups": []})"));
  EXPECT_EQ(k.Run({"initiator-group", "remove", "iqn.x"}).exit_code, 1);

  // Defaults: set, shown without secrets.
  k.Ok({"defaults", "set", "--auth-type", "CHAP", "--chap-user", "def", "--chap-secret-file",
        secretFile, "--port", "3263"});
  EXPECT_TRUE(JsonHasFields(k.Json({"defaults", "show"}),
                            R"({"authType": "CHAP", "chapName": "def", "port": 3263,
                                "networkInterface": "nuk0", "chapSecret": ""})"));
  EXPECT_NE(k.Run({"defaults", "show"}).out.find("def"), std::string::npos);
  EXPECT_EQ(k.Json({"namespace", "show"})["path"], Kel::Util::GetConfigNamespacePath());

  // Refusals: the message alone on the last stderr line, exit 1, nothing changed; usage errors
  // exit 2.
  const std::string before = Sha256OfFile(env.conf_path());
  const struct {
    std::vector<std::string> args;
    int code;
    std::string start;  // of the last stderr line
  } refusals[] = {
      {{"target", "add", "--alias", "bad", "--iqn", "iqn.bad"}, 1, "Invalid IQN 'iqn.bad'."},
      {{"lun", "add", "--target", "chap", "--size", "5", "--id", "9"},
       1,
       "Failed to validate LUN size: "},
      {{"target", "remove", "--alias", "nope"}, 1, "Target nope not found"},
      {{"target", "add"}, 2, ""},
      {{"target", "add", "--alias", "x", "--port", "many"}, 2, ""},
      {{"target", "add", "--alias", "x", "--chap-secret", "a", "--chap-secret-file", secretFile},
       2,
       ""},
  };
  for (const auto& c : refusals) {
    r = k.Run(c.args);
    EXPECT_EQ(r.exit_code, c.code) << ::testing::PrintToString(c.args);
    EXPECT_EQ(LastLine(r.err).rfind(c.start, 0), 0u) << r.err;
  }
  EXPECT_EQ(Sha256OfFile(env.conf_path()), before);

  k.Ok({"target", "remove", "--alias", "mutual"});
  EXPECT_EQ(k.Json({"target", "list"}).size(), 2u);

  // -v mirrors the service's log lines on stderr.
  EXPECT_NE(k.Run({"-v", "target", "list"})
                .err.find("OrsaIscsiTargetImpl: Constructing OrsaIscsiTargetImpl()"),
            std::string::npos);

  // A one-node cluster keeps its targets in maintenance; leaving the cluster disables the service.
  EXPECT_EQ(k.Json({"host", "maintenance", "enter"})["targetsOnThisHost"], json({"plain", "chap"}));
  k.Ok({"host", "leave"});
  EXPECT_EQ(k.Run({"service", "status"}).out, "disabled\n");
  EXPECT_EQ(env.ControlRuns().back(), "++group=serad-tmp io_stop");

  // No secret in any output, nor in the host log every run wrote to.
  const std::string log = ReadFile(env.config().stateDir + "/log/kel.log");
  EXPECT_NE(log.find("Adding new target to conf file."), std::string::npos);
  for (const char* secret : {kSecret, kMutualSecret}) {
    EXPECT_EQ(k.transcript().find(secret), std::string::npos) << secret;
    EXPECT_EQ(log.find(secret), std::string::npos) << secret;
  }
}

}  // namespace
}  // namespace testing
}  // namespace kel
