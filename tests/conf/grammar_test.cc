// kel.conf grammar, load and verification: every refusal reaches the log and fails the load,
// syntax errors name the line and dump the file, the lexical rules hold, and verification fills in
// defaults and refuses what the daemon could not serve.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "conf/conf.h"
#include "platform/clog.h"
#include "platform/exception.h"
#include "platform/log.h"
#include "tests/support/test_host.h"

using HostCtl::Lib::Orsa::OrsaCtlException;
using kel::log::LogCapture;
using kel::testing::LoadConfText;

namespace {

struct Refusal {
  std::string text;
  std::string message;  // the line that must appear (without "KELD: ")
};

// Every case must fail to load and log its message (a whole line, or the end of one), then
// "Failed to parse config file".
void ExpectRefusals(const std::vector<Refusal>& cases) {
  for (const Refusal& c : cases) {
    LogCapture capture;
    auto conf = LoadConfText(c.text);
    EXPECT_EQ(conf, nullptr) << c.text;
    EXPECT_TRUE(capture.Contains(c.message)) << c.text << "\n" << capture.Joined();
    EXPECT_TRUE(capture.Contains("Failed to parse config file")) << c.text;
  }
}

const char kT[] = "iqn.2024-01.com.example:t1";

std::string Target(const std::string& body) {
  return std::string("target ") + kT + " {\n" + body + "\n}\n";
}

size_t WarningCount(const LogCapture& capture) {
  size_t n = 0;
  for (const auto& r : capture.Records()) {
    if (r.level == kel::log::Level::kWarning || r.level == kel::log::Level::kError) n++;
  }
  return n;
}

TEST(ConfGrammar, EmptyFileHasBuiltInGroupsAndDefaults) {
  LogCapture capture;
  auto conf = LoadConfText("");
  ASSERT_NE(conf, nullptr) << capture.Joined();
  EXPECT_EQ(conf->conf_generation, 1u);
  EXPECT_EQ(conf->conf_isns_period, 900);
  EXPECT_EQ(conf->conf_isns_timeout, 5);
  EXPECT_EQ(conf->conf_timeout, 60);
  EXPECT_EQ(conf->conf_maxproc, 1);
  EXPECT_TRUE(conf->conf_kernel_port_on);
  EXPECT_FALSE(conf->conf_default_ag_defined);
  EXPECT_FALSE(conf->conf_default_pg_defined);

  std::vector<std::string> names;
  struct auth_group* ag;
  TAILQ_FOREACH(ag, &conf->conf_auth_groups, ag_next) names.push_back(ag->ag_name);
  EXPECT_EQ(names, (std::vector<std::string>{"default", "no-authentication", "no-access"}));
  EXPECT_EQ(auth_group_find(conf.get(), "default")->ag_type, AG_TYPE_DENY);
  EXPECT_EQ(auth_group_find(conf.get(), "no-authentication")->ag_type, AG_TYPE_NO_AUTHENTICATION);
  EXPECT_EQ(auth_group_find(conf.get(), "no-access")->ag_type, AG_TYPE_DENY);

  struct portal_group* pg = portal_group_find(conf.get(), "default");
  ASSERT_NE(pg, nullptr);
  struct portal* portal = TAILQ_FIRST(&pg->pg_portals);
  ASSERT_NE(portal, nullptr);
  EXPECT_STREQ(portal->p_listen, "nuk0:3260");
  EXPECT_EQ(TAILQ_NEXT(portal, p_next), nullptr);
  EXPECT_TRUE(capture.Contains("KELD: auth-group \"default\" not defined; going with defaults"));
  EXPECT_TRUE(capture.Contains("KELD: portal-group \"default\" not defined; going with defaults"));
  EXPECT_TRUE(capture.Contains("KELD: obtaining configuration from "));
  // Verified again, it is silent.
  LogCapture quiet;
  EXPECT_EQ(conf_verify(conf.get()), 0);
  EXPECT_EQ(WarningCount(quiet), 0u) << quiet.Joined();
}

TEST(ConfGrammar, DefaultGroupsAreFilledOnceThenDuplicated) {
  auto conf = LoadConfText(
      "auth-group default { auth-type none }\n"
      "portal-group default { listen 127.0.0.1:3299 }\n");
  ASSERT_NE(conf, nullptr);
  EXPECT_TRUE(conf->conf_default_ag_defined);
  EXPECT_TRUE(conf->conf_default_pg_defined);
  EXPECT_EQ(auth_group_find(conf.get(), "default")->ag_type, AG_TYPE_NO_AUTHENTICATION);
  struct portal_group* pg = portal_group_find(conf.get(), "default");
  ASSERT_NE(TAILQ_FIRST(&pg->pg_portals), nullptr);
  EXPECT_STREQ(TAILQ_FIRST(&pg->pg_portals)->p_listen, "127.0.0.1:3299");
  EXPECT_EQ(TAILQ_NEXT(TAILQ_FIRST(&pg->pg_portals), p_next), nullptr);

  ExpectRefusals({
      {"auth-group default { }\nauth-group default { }\n", "duplicated auth-group \"default\""},
      {"portal-group default { }\nportal-group default { }\n",
       "duplicated portal-group \"default\""},
      {"auth-group no-access { }\n", "duplicated auth-group \"no-access\""},
      {"auth-group a { }\nauth-group a { }\n", "duplicated auth-group \"a\""},
  });
}

TEST(ConfGrammar, TopLevelStatements) {
  auto conf = LoadConfText(
      "generation 42; debug 3\ntimeout 30\nmaxproc 2k\nisns-period 10\nisns-timeout 4\n"
      "isns-server 127.0.0.1\nisns-server [::1]:4000\noption a b\noption c d\n");
  ASSERT_NE(conf, nullptr);
  EXPECT_EQ(conf->conf_generation, 42u);
  EXPECT_EQ(conf->conf_debug, 3);
  EXPECT_EQ(conf->conf_timeout, 30);
  EXPECT_EQ(conf->conf_maxproc, 2048);
  EXPECT_EQ(conf->conf_isns_period, 10);
  EXPECT_EQ(conf->conf_isns_timeout, 4);
  struct isns* is = TAILQ_FIRST(&conf->conf_isns);
  ASSERT_NE(is, nullptr);
  EXPECT_STREQ(is->i_addr, "127.0.0.1");
  ASSERT_NE(TAILQ_NEXT(is, i_next), nullptr);
  EXPECT_STREQ(TAILQ_NEXT(is, i_next)->i_addr, "[::1]:4000");
  // Only the last global option survives a parse.
  struct conf_option* co = TAILQ_FIRST(&conf->conf_options);
  ASSERT_NE(co, nullptr);
  EXPECT_STREQ(co->co_name, "c");
  EXPECT_EQ(TAILQ_NEXT(co, co_next), nullptr);

  ExpectRefusals({
      {"generation 1x\n", "error in configuration file at line 1 near '1x': invalid numeric value"},
      {"\ndebug -1\n", "error in configuration file at line 2 near '-1': invalid numeric value"},
      {"timeout 99999999999999999999\n", "invalid numeric value"},
      {"maxproc k\n", "invalid numeric value"},
      {"isns-period 1kk\n", "invalid numeric value"},
      {"isns-timeout x\n", "invalid numeric value"},
      {"isns-server [::1\n", "invalid iSNS address [::1"},
      {"isns-server [::1]x\n", "invalid iSNS address [::1]x"},
      {"option a b\noption a c\n", "duplicated config option a "},
  });
}

TEST(ConfGrammar, AuthGroupEntriesAndRefusals) {
  auto conf = LoadConfText(
      "initiator-group ig { initiator iqn.a:1 initiator-name iqn.a:2 }\n"
      "auth-group a {\n"
      "  chap \"user\" \"MTIzNDU2Nzg5MDEy\"; initiator-name iqn.x:1\n"
      "  initiator iqn.x:2\n"
      "  initiator-portal 10.1.0.0/16\n"
      "  initiator-group ig\n"
      "}\n"
      "auth-group m { chap-mutual u MTIzNDU2Nzg5MDEy mu \"YWJjZGVmZ2hpamtsbW5vcA==\" }\n");
  ASSERT_NE(conf, nullptr);
  struct auth_group* a = auth_group_find(conf.get(), "a");
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a->ag_type, AG_TYPE_CHAP);
  struct auth* auth = auth_find(a, "user");
  ASSERT_NE(auth, nullptr);
  EXPECT_STREQ(auth->a_secret, "123456789012");
  EXPECT_NE(auth_name_find(a, "IQN.X:1"), nullptr);
  EXPECT_NE(auth_name_find(a, "iqn.x:2"), nullptr);  // "initiator" is "initiator-name"
  EXPECT_TRUE(auth_group_initiator_group_defined(a));
  EXPECT_NE(auth_group_igroup_initiator_find(a, "IQN.A:2"), nullptr);
  EXPECT_EQ(auth_group_igroup_initiator_find(a, "iqn.a:3"), nullptr);
  EXPECT_TRUE(auth_portal_defined(a));

  struct auth_group* m = auth_group_find(conf.get(), "m");
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->ag_type, AG_TYPE_CHAP_MUTUAL);
  struct auth* ma = auth_find(m, "u");
  ASSERT_NE(ma, nullptr);
  EXPECT_STREQ(ma->a_mutual_user, "mu");
  EXPECT_STREQ(ma->a_mutual_secret, "abcdefghijklmnop");

  ExpectRefusals({
      {"auth-group a { auth-type open }\n", "invalid auth-type \"open\" for auth-group \"a\""},
      {"auth-group a { auth-type none; auth-type deny }\n",
       "cannot set auth-type to \"deny\" for auth-group \"a\"; already has a different type"},
      {"auth-group a { chap u MTIzNDU2Nzg5MDEy; auth-type none }\n",
       "cannot set auth-type to \"none\" for auth-group \"a\"; already has a different type"},
      {"auth-group a { initiator-group nope }\n", "initiator group  \"nope\" not found"},
      {"auth-group a { initiator-group ig }\ninitiator-group ig { }\n",
       "Failed to add initiator-group ref \"ig\" to auth-group \"a\". Please make sure initiator "
       "group \"ig\" is in configuration file and it appears ahead of auth-group \"a\""},
  });
  // Setting the same type twice is allowed. "chap" is a keyword, so as a type it must be quoted.
  EXPECT_NE(LoadConfText("auth-group a { auth-type \"chap\"; chap u MTIzNDU2Nzg5MDEy; "
                         "auth-type \"chap\" }\n"),
            nullptr);
  ExpectRefusals({{"auth-group a { auth-type chap }\n",
                   "near 'chap': syntax error, unexpected CHAP, expecting STR"}});
}

TEST(ConfGrammar, PortalGroupEntriesAndRefusals) {
  auto conf = LoadConfText(
      "portal-group pg {\n"
      "  discovery-auth-group no-authentication\n"
      "  discovery-filter portal-name\n"
      "  foreign\n"
      "  listen 127.0.0.1:3261; listen-iser [::1]:3262\n"
      "  listen eth0\n"
      "  option k v\n"
      "  redirect 10.0.0.9\n"
      "  tag 7\n"
      "}\n");
  ASSERT_NE(conf, nullptr);
  struct portal_group* pg = portal_group_find(conf.get(), "pg");
  ASSERT_NE(pg, nullptr);
  EXPECT_STREQ(pg->pg_discovery_auth_group->ag_name, "no-authentication");
  EXPECT_EQ(pg->pg_discovery_filter, PG_FILTER_PORTAL_NAME);
  EXPECT_EQ(pg->pg_foreign, 1);
  EXPECT_STREQ(pg->pg_redirection, "10.0.0.9");
  EXPECT_EQ(pg->pg_tag, 7);
  ASSERT_NE(option_find(&pg->pg_options, "k"), nullptr);
  std::vector<std::string> hosts, ports;
  std::vector<int> flags;
  struct portal* p;
  TAILQ_FOREACH(p, &pg->pg_portals, p_next) {
    hosts.push_back(p->p_host);
    ports.push_back(p->p_port);
    flags.push_back(p->p_flags);
  }
  EXPECT_EQ(hosts, (std::vector<std::string>{"127.0.0.1", "::1", "eth0"}));
  EXPECT_EQ(ports, (std::vector<std::string>{"3261", "3262", "3260"}));
  EXPECT_EQ(flags, (std::vector<int>{0, PORTAL_FLAG_ISER, 0}));

  ExpectRefusals({
      {"portal-group pg { discovery-auth-group default; discovery-auth-group default }\n",
       "discovery-auth-group for portal-group \"pg\" specified more than once"},
      {"portal-group pg { discovery-auth-group nope }\n",
       "unknown discovery-auth-group \"nope\" for portal-group \"pg\""},
      {"portal-group pg { discovery-filter all }\n",
       "invalid discovery-filter \"all\" for portal-group \"pg\"; valid values are \"none\", "
       "\"portal\", \"portal-name\", and \"portal-name-auth\""},
      {"portal-group pg { discovery-filter none; discovery-filter portal }\n",
       "cannot set discovery-filter to \"portal\" for portal-group \"pg\"; already has a "
       "different value"},
      {"portal-group pg { listen [::1 }\n", "invalid listen address [::1"},
      {"portal-group pg { listen 127.0.0.1: }\n", "invalid listen address 127.0.0.1:"},
      {"portal-group pg { listen 127.0.0.1:nosuchservice }\n",
       "invalid listen address 127.0.0.1:nosuchservice"},
      {"portal-group pg { redirect a; redirect b }\n",
       "cannot set redirection to \"b\" for portal-group \"pg\"; already defined"},
      {"portal-group pg { option k v; option k w }\n", "duplicated option \"k\""},
      {"portal-group pg { tag x }\n", "invalid numeric value"},
      {"portal-group pg { }\nportal-group pg { }\n", "duplicated portal-group \"pg\""},
  });
}

TEST(ConfGrammar, TargetEntriesAndRefusals) {
  auto conf = LoadConfText(
      "auth-group ag { auth-type none }\n"
      "portal-group pg { listen 127.0.0.1 }\n"
      "lun top { path /dev/x }\n"
      "target IQN.2024-01.COM.EXAMPLE:T1 {\n"
      "  alias \"first target\"; portal-group pg ag\n"
      "  auth-group ag\n"
      "  redirect 10.0.0.1\n"
      "  option uuid 52d0; option status offline\n"
      "  lun 7 { path /a; size 16 }\n"
      "  lun 2 top\n"
      "}\n"
      "target iqn.2024-01.com.example:t2 {\n"
      "  chap \"u\" \"MTIzNDU2Nzg5MDEyMzQ=\"\n"
      "  initiator-name iqn.x:1\n"
      "  initiator-portal [::1]/64\n"
      "}\n");
  ASSERT_NE(conf, nullptr);
  struct target* t = target_find(conf.get(), "iqn.2024-01.com.example:t1");
  ASSERT_NE(t, nullptr);
  EXPECT_STREQ(t->t_name, "iqn.2024-01.com.example:t1");  // lower-cased
  EXPECT_STREQ(t->t_alias, "first target");
  EXPECT_STREQ(t->t_redirection, "10.0.0.1");
  EXPECT_STREQ(t->t_auth_group->ag_name, "ag");
  EXPECT_TRUE(target_is_offline(t));
  struct port* port = keld_target_to_port(t);
  ASSERT_NE(port, nullptr);
  EXPECT_STREQ(port->p_name, "pg-iqn.2024-01.com.example:t1");
  EXPECT_STREQ(port->p_auth_group->ag_name, "ag");
  ASSERT_NE(t->t_luns[7], nullptr);
  EXPECT_STREQ(t->t_luns[7]->l_name, "iqn.2024-01.com.example:t1,L,0x0000000000000007");
  EXPECT_STREQ(t->t_luns[7]->l_scsiname, t->t_luns[7]->l_name);
  EXPECT_EQ(t->t_luns[7]->l_keld_lun, 7);
  ASSERT_NE(t->t_luns[2], nullptr);
  EXPECT_STREQ(t->t_luns[2]->l_name, "top");
  EXPECT_EQ(t->t_luns[2]->l_keld_lun, -1);  // a reference keeps the top-level LUN's own state

  struct target* t2 = target_find(conf.get(), "iqn.2024-01.com.example:t2");
  ASSERT_NE(t2, nullptr);
  ASSERT_NE(t2->t_auth_group, nullptr);
  EXPECT_EQ(t2->t_auth_group->ag_name, nullptr);
  EXPECT_EQ(t2->t_auth_group->ag_target, t2);
  EXPECT_EQ(t2->t_auth_group->ag_type, AG_TYPE_CHAP);
  EXPECT_TRUE(auth_name_defined(t2->t_auth_group));
  // Verification linked it to the default portal group.
  ASSERT_NE(keld_target_to_port(t2), nullptr);
  EXPECT_STREQ(keld_target_to_port(t2)->p_portal_group->pg_name, "default");

  // "%T" stands for the target's quoted name.
  const std::string ag = "auth-group ag { }\n";
  const std::vector<std::pair<std::string, std::string>> refusals = {
      {Target("alias a; alias b"), "alias for target %T specified more than once"},
      {ag + Target("auth-group ag; auth-group ag"),
       "auth-group for target %T specified more than once"},
      {ag + Target("auth-type none; auth-group ag"),
       "cannot use both auth-group and explicit authorisations for target %T"},
      {Target("auth-group nope"), "unknown auth-group \"nope\" for target %T"},
      {ag + Target("auth-group ag; auth-type none"),
       "cannot use both auth-group and auth-type for target %T"},
      {ag + Target("auth-group ag; chap u MTIzNDU2Nzg5MDEy"),
       "cannot use both auth-group and chap for target %T"},
      {ag + Target("auth-group ag; chap-mutual u MTIzNDU2Nzg5MDEy v MTIzNDU2Nzg5MDEy"),
       "cannot use both auth-group and chap-mutual for target %T"},
      {ag + Target("auth-group ag; initiator-name iqn.x:1"),
       "cannot use both auth-group and initiator-name for target %T"},
      {ag + Target("auth-group ag; initiator-portal 10.0.0.1"),
       "cannot use both auth-group and initiator-portal for target %T"},
      {Target("auth-type open"), "invalid auth-type \"open\" for target %T"},
      {Target("auth-type none; auth-type deny"),
       "cannot set auth-type to \"deny\" for target %T; already has a different type"},
      {Target("portal-group nope"), "unknown portal-group \"nope\" for target %T"},
      {Target("portal-group default nope"), "unknown auth-group \"nope\" for target %T"},
      {Target("portal-group default; portal-group default"),
       "can't link portal-group \"default\" to target %T"},
      {Target("port p0"), "unknown port \"p0\" for target %T"},
      {Target("redirect a; redirect b"),
       "cannot set redirection to \"b\" for target %T; already defined"},
      {Target("option k v; option k w"), "duplicated target option k for target %T"},
      {Target("lun 256 { path /a }"),
       "LUN number 256 for target %T is out of range; must be between 0 and 255"},
      {Target("lun -1 { path /a }"),
       "LUN number -1 for target %T is out of range; must be between 0 and 255"},
      {Target("lun 1k top"),
       "LUN number 1k for target %T is out of range; must be between 0 and 255"},
      {Target("lun 1 nope"), "unknown lun \"nope\" for target %T"},
  };
  std::vector<Refusal> cases = {
      {"target iqn.x:a { }\ntarget IQN.X:A { }\n", "duplicated target \"IQN.X:A\""},
      {"target " + std::string(223, 'a') + " { }\n",
       "target name \"" + std::string(223, 'a') + "\" is invalid"},
      {Target("lun x { path /a }"), "invalid numeric value"},
      {Target("lun 1 { path /a }\nlun 1 { path /b }"),
       "duplicated lun \"iqn.2024-01.com.example:t1,L,0x0000000000000001\""},
  };
  for (auto [text, message] : refusals) {
    message.replace(message.find("%T"), 2, std::string("\"") + kT + "\"");
    cases.push_back({text, message});
  }
  ExpectRefusals(cases);
}

TEST(ConfGrammar, PhysicalPortsComeFromTheOldConf) {
  auto old = LoadConfText("");
  ASSERT_NE(old, nullptr);
  ASSERT_NE(pport_new(old.get(), "isp0", 5), nullptr);
  auto conf = LoadConfText(Target("port ISP0"), 0600, old.get());
  ASSERT_NE(conf, nullptr);
  struct pport* pp = pport_find(conf.get(), "isp0");
  ASSERT_NE(pp, nullptr);
  EXPECT_EQ(pp->pp_ctl_port, 5u);
  struct port* port = TAILQ_FIRST(&pp->pp_ports);
  ASSERT_NE(port, nullptr);
  EXPECT_STREQ(port->p_name, "isp0-iqn.2024-01.com.example:t1");

  LogCapture capture;
  EXPECT_EQ(LoadConfText(Target("port isp0") + "target iqn.2024-01.com.example:t2 { port isp0 }",
                         0600, old.get()),
            nullptr);
  EXPECT_TRUE(capture.Contains(
      "can't link port \"isp0\" to target \"iqn.2024-01.com.example:t2\", port already linked to "
      "some target"));
}

TEST(ConfGrammar, LunEntriesAndRefusals) {
  auto conf = LoadConfText(
      "lun a {\n"
      "  backend ramdisk; blocksize 4096; size 8\n"
      "  device-id dev1; device-type CDROM; ctl-lun 12\n"
      "  option lun-alias \"my lun\"; serial s1\n"
      "}\n"
      "lun b { path /x; device-type 15 }\n"
      "lun c { path /y; device-type processor; size 1m }\n");
  ASSERT_NE(conf, nullptr);
  struct lun* a = lun_find(conf.get(), "a");
  ASSERT_NE(a, nullptr);
  EXPECT_STREQ(a->l_backend, "ramdisk");
  EXPECT_EQ(a->l_blocksize, 4096);
  EXPECT_EQ(a->l_size, 8);
  EXPECT_STREQ(a->l_device_id, "dev1");
  EXPECT_EQ(a->l_device_type, 5);
  EXPECT_EQ(a->l_ctl_lun, 12);
  EXPECT_EQ(lun_find_by_ctl_id(conf.get(), 12), a);
  EXPECT_STREQ(a->l_serial, "s1");
  EXPECT_STREQ(option_find(&a->l_options, "lun-alias")->o_value, "my lun");
  EXPECT_EQ(lun_find(conf.get(), "b")->l_device_type, 15);
  EXPECT_EQ(lun_find(conf.get(), "c")->l_device_type, 3);
  EXPECT_EQ(lun_find(conf.get(), "c")->l_size, 1 << 20);
  EXPECT_EQ(lun_find(conf.get(), "A"), nullptr);  // LUN names are case-sensitive

  ExpectRefusals({
      {"lun a { }\nlun a { }\n", "duplicated lun \"a\""},
      {"lun a { backend block; backend block }\n",
       "backend for lun \"a\" specified more than once"},
      {"lun a { blocksize 512; blocksize 512 }\n",
       "blocksize for lun \"a\" specified more than once"},
      {"lun a { device-id x; device-id y }\n", "device_id for lun \"a\" specified more than once"},
      {"lun a { ctl-lun 1; ctl-lun 2 }\n", "ctl_lun for lun \"a\" specified more than once"},
      {"lun a { path /x; path /y }\n", "path for lun \"a\" specified more than once"},
      {"lun a { serial x; serial y }\n", "serial for lun \"a\" specified more than once"},
      {"lun a { size 1; size 2 }\n", "size for lun \"a\" specified more than once"},
      {"lun a { option k v; option k w }\n", "duplicated option \"k\""},
      {"lun a { device-type 16 }\n", "invalid device-type \"16\" for lun \"a\""},
      {"lun a { device-type tape }\n", "near 'tape': invalid numeric value"},
      {"lun a { size 1.5 }\n", "invalid numeric value"},
  });
}

TEST(ConfGrammar, SyntaxErrorsNameTheLineAndDumpTheFile) {
  LogCapture capture;
  // CRLF counts as one line end; a newline inside quotes does not count, so "bogus", on the sixth
  // line of the file, is reported on line 5.
  EXPECT_EQ(LoadConfText("generation 1\r\n# comment\ntarget iqn.x:y {\n alias \"a\nb\"\n"
                         " bogus\n}\n"),
            nullptr);
  EXPECT_EQ(capture.Count("error in configuration file"), 1u);
  EXPECT_TRUE(
      capture.Contains("KELD: error in configuration file at line 5 near 'bogus': syntax "
                       "error, unexpected STR"))
      << capture.Joined();
  const std::vector<std::string> dumped = {
      "1: generation 1", "2: # comment", "3: target iqn.x:y {", "4:  alias \"a", "5: b\"",
      "6:  bogus",       "7: }"};
  auto records = capture.Records();
  size_t dump = 0;
  while (dump < records.size() && records[dump].text != "KELD: Dumping kel.conf file...") dump++;
  ASSERT_LT(dump + dumped.size(), records.size()) << capture.Joined();
  for (size_t i = 0; i < dumped.size(); ++i) {
    EXPECT_EQ(records[dump + 1 + i].text, "KELD: " + dumped[i]);
  }
  EXPECT_TRUE(capture.Contains("KELD: Failed to parse config file"));

  ExpectRefusals({
      {"pidfile /var/run/x\n",
       "error in configuration file at line 1 near 'pidfile': syntax error, unexpected STR"},
      {"target iqn.x:y\n",
       "near '': syntax error, unexpected end of file, expecting "
       "OPENING_BRACKET"},
      {"lun a { path }\n", "syntax error, unexpected CLOSING_BRACKET, expecting STR"},
      {"initiator-group g { initiator a; }\n",
       "syntax error, unexpected SEMICOLON, expecting CLOSING_BRACKET or INITIATOR_NAME"},
      {"}\n", "syntax error, unexpected CLOSING_BRACKET"},
      // A quote without its mate is a token of its own and scanning goes on after it.
      {Target("alias \"abc"), "near 'abc': syntax error, unexpected STR"},
      // So is a carriage return that does not end a line.
      {"generation 1 \r timeout 5\n",
       "error in configuration file at line 1 near '\r': syntax error, unexpected STR"},
      {"\n\r\n\t\n generation 1 \r\n\r", "at line 5 near '\r': syntax error, unexpected STR"},
      // Bytes above 127 are single-character tokens like any other character.
      {"generation \xb1\n", "near '\xb1': invalid numeric value"},
      {Target("alias \"\xff\" option k v\xc3\xa9"), "near '\xc3': syntax error, unexpected STR"},
      // A comma is a token of its own: the value is "a", then "," is one token too many.
      {Target("option k a,b"), "near ',': syntax error, unexpected STR"},
  });
}

TEST(ConfGrammar, CommentsStartOnlyOutsideQuotesAndWords) {
  auto conf = LoadConfText(
      "timeout 5 # trailing comment\n"
      "target iqn.x:y { alias \"has # and  blanks\"\n  option owner-id v#w }\n");
  ASSERT_NE(conf, nullptr);
  EXPECT_EQ(conf->conf_timeout, 5);
  struct target* t = target_find(conf.get(), "iqn.x:y");
  ASSERT_NE(t, nullptr);
  EXPECT_STREQ(t->t_alias, "has # and  blanks");
  EXPECT_STREQ(target_option_find(t, "owner-id")->to_value, "v#w");
}

TEST(ConfGrammar, ModelExceptionsPropagateAndLeaveNothingBehind) {
  // An undecodable secret and a malformed initiator portal throw out of the load; the parser's
  // state is reset, so the next load works and nothing leaks (LeakSanitizer checks the latter).
  const struct {
    std::string text;
    std::string message;
  } cases[] = {
      {"auth-group a { chap u \"not base64!\" }\n", "Base64_Decode (Invalid argument)"},
      {Target("chap-mutual u MTIzNDU2Nzg5MDEy m ====="), "Base64_Decode (Invalid argument)"},
      // 36 decoded bytes do not fit the 32-byte secret buffer.
      {"auth-group a { chap u " + std::string(48, 'A') + " }\n",
       "Base64_Decode (Invalid argument)"},
      {"auth-group a { initiator-portal 10.0.0.1/33 }\n",
       "Incorrect initiator portal '10.0.0.1/33'"},
      {Target("initiator-portal ::1/129"), "Incorrect initiator portal '::1/129'"},
      {Target("initiator-portal 10.0.0.1/8x"), "Incorrect initiator portal '10.0.0.1/8x'"},
      {Target("initiator-portal /8"), "Incorrect initiator portal '/8'"},
      {Target("initiator-portal 10.0.0"), "Incorrect initiator portal '10.0.0'"},
      {Target("initiator-portal \"\""), "Incorrect initiator portal ''"},
  };
  for (const auto& c : cases) {
    try {
      LoadConfText("initiator-group g { initiator a }\nlun x { path /p }\n" + c.text);
      ADD_FAILURE() << "no exception for " << c.text;
    } catch (const OrsaCtlException& e) {
      EXPECT_EQ(e.GetMessage(), c.message) << c.text;
    }
    KeldCleanConf();
    auto conf = LoadConfText(Target("lun 0 { path /p }"));
    ASSERT_NE(conf, nullptr) << "state left behind by " << c.text;
    EXPECT_NE(target_find(conf.get(), kT), nullptr);
  }
}

TEST(ConfGrammar, FileModeWarningsOnly) {
  for (const auto& [mode, message] :
       std::vector<std::pair<int, std::string>>{{0602, "is world-writable"},
                                                {0604, "is world-readable"},
                                                {0601, "is world-executable"},
                                                {0640, ""}}) {
    LogCapture capture;
    EXPECT_NE(LoadConfText("", mode), nullptr);
    EXPECT_EQ(capture.Contains("is world-"), !message.empty()) << capture.Joined();
    EXPECT_TRUE(message.empty() || capture.Contains(message)) << capture.Joined();
  }
}

// ---- verification after a load, and target names ----

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
      // The first failing LUN ends verification: "b" is never looked at.
      {"lun a { size 8 }\nlun b { size 1 }\n", "missing path for lun \"a\""},
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
    EXPECT_FALSE(capture.Contains("lun \"b\""));
  }
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
  EXPECT_EQ(dups,
            (std::vector<std::string>{p + "\"a\", and lun \"c\"", p + "\"a\", and lun \"d\"",
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
  const std::string longest = iqn + std::string(222 - iqn.size(), 'a');
  // Accepted, without a word or with one warning.
  const std::vector<std::pair<std::string, std::string>> accepted = {
      {longest, ""},
      {"eui.0123456789ABCDEF", ""},
      {"eui.0123456789abcdef", ""},
      {"IQN.2024-01.COM.X:Y", ""},
      {"naa.0123456789abcdef0123456789ABCDEF", ""},
      {"naa.1", ""},
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
      {"NAA.12x4",
       "invalid character \"x\" in target name \"NAA.12x4\"; allowed characters are "
       "1-9 and A-F"},
      {"target0",
       "invalid target name \"target0\"; should start with either \"iqn.\", \"eui.\", "
       "or \"naa.\""},
  };
  for (const auto& [name, warning] : accepted) {
    LogCapture capture;
    EXPECT_TRUE(valid_iscsi_name(name.c_str())) << name;
    EXPECT_EQ(WarningCount(capture), warning.empty() ? 0u : 1u) << name << capture.Joined();
    EXPECT_TRUE(warning.empty() || capture.Contains("KELD: " + warning)) << capture.Joined();
  }
  LogCapture capture;
  const std::string overlong = longest + "a";
  EXPECT_FALSE(valid_iscsi_name(overlong.c_str()));
  // The line is cut at 255 characters by the C log, so only its start is checked.
  EXPECT_TRUE(capture.Contains("KELD: overlong name for target \"" + overlong.substr(0, 100)));
}

}  // namespace
