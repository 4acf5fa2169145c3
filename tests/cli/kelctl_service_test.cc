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

  ASSERT_EQ(k.Run({"namespace", "create"}).exit_code, 0) << k.transcript();
  EXPECT_EQ(k.Run({"service", "status"}).out, "disabled\n");
  CommandResult r = k.Run({"target", "add", "--alias", "early"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(LastLine(r.err), kNotEnabled);

  ASSERT_EQ(k.Run({"service", "enable"}).exit_code, 0) << k.transcript();
  EXPECT_EQ(env.ControlRuns(), std::vector<std::string>{"++group=serad-tmp restart"});
  // The daemon reads the host configuration kelctl was given.
  EXPECT_EQ(ReadFile(env.Join("control.env")), k.config() + "\n");
  r = k.Run({"service", "enable", "--fail-if-unchanged"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(LastLine(r.err), "Orsa iSCSI Target service is already enabled on this host");
  EXPECT_EQ(json::parse(k.Run({"service", "status", "--json"}).out), json({{"enabled", true}}));

  // Targets with each authentication type; secrets from a file, from stdin and as an option.
  ASSERT_EQ(k.Run({"target", "add", "--alias", "plain"}).exit_code, 0) << k.transcript();
  ASSERT_EQ(k.Run({"target", "add", "--alias", "chap", "--iqn", "iqn.2024-01.com.example:chap",
                   "--auth-type", "CHAP", "--chap-user", "u1", "--chap-secret-file", secretFile})
                .exit_code,
            0)
      << k.transcript();
  ASSERT_EQ(k.Run({"target", "add", "--alias", "mutual", "--auth-type", "CHAP-Mutual",
                   "--chap-user", "u2", "--chap-secret-file", "-", "--mutual-user", "m2",
                   "--mutual-secret", kMutualSecret, "--site", "Preferred"},
                  std::string(kSecret) + "\n")
                .exit_code,
            0)
      << k.transcript();
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
  json shown = json::parse(k.Run({"target", "show", "--alias", "chap", "--json"}).out);
  EXPECT_EQ(shown["iqn"], "iqn.2024-01.com.example:chap");
  EXPECT_EQ(shown["authType"], "CHAP");
  EXPECT_EQ(shown["chapName"], "u1");
  EXPECT_EQ(shown["ownerHostName"], "host-a");
  json listed = json::parse(k.Run({"target", "list", "--json"}).out);
  ASSERT_EQ(listed.size(), 3u);
  r = k.Run({"target", "list"});
  EXPECT_NE(r.out.find("mutual"), std::string::npos);
  EXPECT_NE(r.out.find("CHAP-Mutual"), std::string::npos);

  // LUNs: rows carry the NAA; numbers and targets change only offline.
  r = k.Run({"lun", "add", "--target", "chap", "--size", "10MiB", "--alias", "data"});
  ASSERT_EQ(r.exit_code, 0) << k.transcript();
  EXPECT_NE(r.out.find("NAA"), std::string::npos);
  ASSERT_EQ(k.Run({"lun", "add", "--target", "chap", "--size", "1GB", "--id", "5"}).exit_code, 0);
  json luns = json::parse(k.Run({"lun", "list", "--target", "chap", "--json"}).out);
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
  ASSERT_EQ(
      k.Run({"lun", "update", "--target", "chap", "--id", "5", "--status", "offline"}).exit_code,
      0);
  ASSERT_EQ(k.Run({"lun", "update", "--target", "chap", "--id", "5", "--new-id", "6"}).exit_code,
            0);
  EXPECT_EQ(
      json::parse(k.Run({"lun", "show", "--target", "chap", "--id", "6", "--json"}).out)["status"],
      "offline");
  ASSERT_EQ(
      k.Run({"lun", "update", "--target", "chap", "--id", "6", "--new-target", "plain"}).exit_code,
      0)
      << k.transcript();
  EXPECT_EQ(json::parse(k.Run({"lun", "list", "--target", "plain", "--json"}).out).size(), 1u);
  ASSERT_EQ(k.Run({"lun", "remove", "--target", "plain", "--id", "0"}).exit_code, 0);
  EXPECT_TRUE(json::parse(k.Run({"lun", "list", "--target", "plain", "--json"}).out).empty());

  // Initiator groups, and a target's initiator list replaced and cleared.
  ASSERT_EQ(k.Run({"initiator-group", "add", "srv"}).exit_code, 0);
  ASSERT_EQ(k.Run({"initiator-group", "add-initiators", "srv", "iqn.1998-01.com.example:a",
                   "iqn.1998-01.com.example:b"})
                .exit_code,
            0);
  ASSERT_EQ(k.Run({"target", "update", "--alias", "plain", "--initiator", "srv", "--initiator",
                   "iqn.1998-01.com.example:c"})
                .exit_code,
            0)
      << k.transcript();
  json group = json::parse(k.Run({"initiator-group", "show", "srv", "--json"}).out);
  EXPECT_EQ(group["initiators"], json({"iqn.1998-01.com.example:a", "iqn.1998-01.com.example:b"}));
  EXPECT_TRUE(group["targets"].contains("plain"));
  shown = json::parse(k.Run({"target", "show", "--alias", "plain", "--json"}).out);
  EXPECT_EQ(shown["initiators"], json({"iqn.1998-01.com.example:c"}));
  EXPECT_EQ(shown["initiatorGroups"], json({"srv"}));
  // An update that does not name initiators keeps them; --no-initiators clears them.
  ASSERT_EQ(k.Run({"target", "update", "--alias", "plain", "--port", "3265"}).exit_code, 0)
      << k.transcript();
  shown = json::parse(k.Run({"target", "show", "--alias", "plain", "--json"}).out);
  EXPECT_EQ(shown["port"], 3265);
  EXPECT_EQ(shown["networkInterface"], "nuk0");
  EXPECT_EQ(shown["initiatorGroups"], json({"srv"}));
  ASSERT_EQ(k.Run({"target", "update", "--alias", "plain", "--no-initiators"}).exit_code, 0);
  shown = json::parse(k.Run({"target", "show", "--alias", "plain", "--json"}).out);
  EXPECT_TRUE(shown["initiators"].empty());
  EXPECT_TRUE(shown["initiatorGroups"].empty());
  r = k.Run({"initiator-group", "remove", "iqn.x"});
  EXPECT_EQ(r.exit_code, 1);

  // Defaults: set, shown without secrets.
  ASSERT_EQ(k.Run({"defaults", "set", "--auth-type", "CHAP", "--chap-user", "def",
                   "--chap-secret-file", secretFile, "--port", "3263"})
                .exit_code,
            0)
      << k.transcript();
  json defaults = json::parse(k.Run({"defaults", "show", "--json"}).out);
  EXPECT_EQ(defaults["authType"], "CHAP");
  EXPECT_EQ(defaults["chapName"], "def");
  EXPECT_EQ(defaults["port"], 3263);
  EXPECT_EQ(defaults["networkInterface"], "nuk0");
  EXPECT_EQ(defaults["chapSecret"], "");
  EXPECT_NE(k.Run({"defaults", "show"}).out.find("def"), std::string::npos);

  json ns = json::parse(k.Run({"namespace", "show", "--json"}).out);
  EXPECT_EQ(ns["path"], Kel::Util::GetConfigNamespacePath());

  // Refusals: the message alone on the last stderr line, exit 1, nothing changed.
  const std::string before = Sha256OfFile(env.conf_path());
  r = k.Run({"target", "add", "--alias", "bad", "--iqn", "iqn.bad"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(LastLine(r.err).rfind("Invalid IQN 'iqn.bad'.", 0), 0u) << r.err;
  r = k.Run({"lun", "add", "--target", "chap", "--size", "5", "--id", "9"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(LastLine(r.err).rfind("Failed to validate LUN size: ", 0), 0u) << r.err;
  r = k.Run({"target", "remove", "--alias", "nope"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(LastLine(r.err), "Target nope not found");
  EXPECT_EQ(Sha256OfFile(env.conf_path()), before);
  // Usage errors.
  EXPECT_EQ(k.Run({"target", "add"}).exit_code, 2);
  EXPECT_EQ(k.Run({"target", "add", "--alias", "x", "--port", "many"}).exit_code, 2);
  EXPECT_EQ(k.Run({"target", "add", "--alias", "x", "--chap-secret", "a", "--chap-secret-file",
                   secretFile})
                .exit_code,
            2);
  EXPECT_EQ(Sha256OfFile(env.conf_path()), before);

  ASSERT_EQ(k.Run({"target", "remove", "--alias", "mutual"}).exit_code, 0);
  EXPECT_EQ(json::parse(k.Run({"target", "list", "--json"}).out).size(), 2u);

  // -v mirrors the service's log lines on stderr.
  r = k.Run({"-v", "target", "list"});
  EXPECT_NE(r.err.find("OrsaIscsiTargetImpl: Constructing OrsaIscsiTargetImpl()"),
            std::string::npos);

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
