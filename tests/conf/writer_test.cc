// The writer: exact output, the write-read-write fixed point over many generated models, what it
// drops, and where it and the reader disagree (kept on purpose).
#include "conf/writer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "conf/conf.h"
#include "platform/exception.h"
#include "platform/log.h"
#include "tests/support/test_host.h"

using HostCtl::Lib::Orsa::OrsaCtlException;
using kel::log::LogCapture;
using kel::testing::LoadConfText;
using kel::testing::WriteConfText;

namespace {

TEST(ConfWriter, ExactOutputOfEveryConstruct) {
  // Only the first listen is written, and LUNs go in slot order whatever the order they came in.
  auto conf = LoadConfText(
      "generation 18446744073709551615\noption kel-option on\n"
      "initiator-group hosts { initiator iqn.1998-01.com.example:h1\n"
      "  initiator-name iqn.1998-01.com.example:h2 }\n"
      "auth-group uuid-1 { chap alice \"MDEyMzQ1Njc4OWFiY2RlZg==\"; initiator-group hosts\n"
      "  initiator-name iqn.1998-01.com.example:h3 }\n"
      "auth-group uuid-2 { chap-mutual bob \"c2VjcmV0c2VjcmV0\" \"target\" "
      "\"MDEyMzQ1Njc4OWFiY2RlZmdoaWpr\" }\n"
      "portal-group pg-eth1-3261 { discovery-auth-group no-authentication\n"
      "  listen eth1:3261; listen eth2:3262 }\n"
      "target iqn.2024-01.com.example:t1 {\n"
      "  alias \"Target One\"; portal-group pg-eth1-3261; auth-group uuid-1; option uuid uuid-1\n"
      "  option owner-id 52d0a1c8-0000-0000-0000-000000000001\n"
      "  lun 200 { backend pemo; path uuid-1/lun200.disk; size 411648\n"
      "    option lun-alias \"disk 200\" }\n"
      "  lun 0 { backend pemo; path uuid-1/lun0.disk; size 2048; option lun-alias \"disk 0\" }\n"
      "  lun 17 { backend pemo; path uuid-1/lun17.disk; size 36864\n"
      "    option lun-alias \"disk 17\"; option status offline }\n"
      "}\n"
      "target iqn.2024-01.com.example:t2 { portal-group default; auth-group uuid-2\n"
      "  option uuid uuid-2 }\n");
  ASSERT_NE(conf, nullptr);
  LogCapture capture;
  std::string text = WriteConfText(conf.get());
  EXPECT_EQ(text,
            "generation 18446744073709551615\n"
            "option kel-option on\n"
            "initiator-group hosts {\n"
            "\t initiator iqn.1998-01.com.example:h1 \n"
            "\t initiator iqn.1998-01.com.example:h2 \n"
            "}\n"
            "auth-group default {\n"
            "\t auth-type none\n"
            "}\n"
            "auth-group uuid-1 {\n"
            "\t chap \"alice\" \"MDEyMzQ1Njc4OWFiY2RlZg==\" \n"
            "\t initiator-group hosts\n"
            "\t initiator-name iqn.1998-01.com.example:h3\n"
            "}\n"
            "auth-group uuid-2 {\n"
            "\t chap-mutual \"bob\" \"c2VjcmV0c2VjcmV0\" \"target\" "
            "\"MDEyMzQ1Njc4OWFiY2RlZmdoaWpr\"\n"
            "}\n"
            "portal-group default {\n"
            "\t discovery-auth-group default\n"
            "\t listen nuk0:3260\n"
            "}\n"
            "portal-group pg-eth1-3261 {\n"
            "\t discovery-auth-group no-authentication\n"
            "\t listen eth1:3261\n"
            "}\n"
            "target iqn.2024-01.com.example:t1 {\n"
            "\talias \"Target One\"\n"
            "\tportal-group pg-eth1-3261\n"
            "\tauth-group uuid-1\n"
            "\toption uuid uuid-1\n"
            "\toption owner-id 52d0a1c8-0000-0000-0000-000000000001\n"
            "\tlun 0 {\n"
            "\t\tbackend pemo\n"
            "\t\tpath uuid-1/lun0.disk\n"
            "\t\tsize 2048\n"
            "\t\toption lun-alias \"disk 0\"\n"
            "\t}\n"
            "\tlun 17 {\n"
            "\t\tbackend pemo\n"
            "\t\tpath uuid-1/lun17.disk\n"
            "\t\tsize 36864\n"
            "\t\toption lun-alias \"disk 17\"\n"
            "\t\toption status \"offline\"\n"
            "\t}\n"
            "\tlun 200 {\n"
            "\t\tbackend pemo\n"
            "\t\tpath uuid-1/lun200.disk\n"
            "\t\tsize 411648\n"
            "\t\toption lun-alias \"disk 200\"\n"
            "\t}\n"
            "}\n"
            "target iqn.2024-01.com.example:t2 {\n"
            "\tportal-group default\n"
            "\tauth-group uuid-2\n"
            "\toption uuid uuid-2\n"
            "}\n");
  // The built-in "no-authentication" and "no-access" groups are never written.
  EXPECT_EQ(capture.Count("ConfHandle: Skipping default auth group"), 2u) << capture.Joined();
  EXPECT_TRUE(capture.Contains("ConfHandle: found chap type auth uuid-1"));
  EXPECT_TRUE(capture.Contains("ConfHandle: found chap-mutual type auth uuid-2"));
}

TEST(ConfWriter, DropsWhatTheServiceDoesNotManage) {
  auto conf = LoadConfText(
      "debug 2\ntimeout 9\nmaxproc 4\nisns-server 127.0.0.1\nisns-period 1\nisns-timeout 2\n"
      "option first 1\noption last 2\n"
      "auth-group open { auth-type none; initiator-portal 10.0.0.0/8 }\n"
      "auth-group closed { auth-type deny }\n"
      "auth-group c { auth-type \"chap\"; chap u MTIzNDU2Nzg5MDEy }\n"
      "portal-group pg {\n"
      "  discovery-filter portal; tag 5; option k v; redirect 10.0.0.9; foreign\n"
      "  listen-iser 127.0.0.1:3300; listen 127.0.0.2\n"
      "}\n"
      "lun top { path /top; blocksize 4096; device-id d; device-type 5; serial s; ctl-lun 3 }\n"
      "target iqn.x:y {\n"
      "  portal-group pg c\n"
      "  auth-group closed\n"
      "  redirect 10.0.0.8\n"
      "  lun 1 top\n"
      "  lun 2 { path /two; blocksize 4096; size 8; serial s2; device-id d2 }\n"
      "}\n");
  ASSERT_NE(conf, nullptr);
  std::string text = WriteConfText(conf.get());
  for (const char* gone : {"debug",
                           "timeout",
                           "maxproc",
                           "isns",
                           "first",
                           "initiator-portal",
                           "auth-type chap",
                           "deny",
                           "discovery-filter",
                           "tag",
                           "option k",
                           "redirect",
                           "foreign",
                           "listen-iser",
                           "127.0.0.2",
                           "blocksize",
                           "device-id",
                           "device-type",
                           "serial",
                           "ctl-lun",
                           "lun 1",
                           "/top"}) {
    EXPECT_EQ(text.find(gone), std::string::npos) << gone << " in\n" << text;
  }
  EXPECT_NE(text.find("option last 2\n"), std::string::npos);
  EXPECT_NE(text.find("auth-group closed {\n\t auth-type none\n}\n"), std::string::npos);
  EXPECT_NE(text.find("\t listen 127.0.0.1:3300\n"), std::string::npos);
  EXPECT_NE(text.find("\tlun 2 {\n\t\tbackend block\n\t\tpath /two\n\t\tsize 8\n\t}\n"),
            std::string::npos);

  auto again = LoadConfText(text);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(again->conf_debug, 0);
  EXPECT_EQ(again->conf_timeout, 60);
  EXPECT_EQ(again->conf_isns_period, 900);
  EXPECT_TRUE(TAILQ_EMPTY(&again->conf_isns));
  // A deny group comes back open.
  EXPECT_EQ(auth_group_find(again.get(), "closed")->ag_type, AG_TYPE_NO_AUTHENTICATION);
  EXPECT_EQ(lun_find(again.get(), "top"), nullptr);
  EXPECT_EQ(WriteConfText(again.get()), text);
}

TEST(ConfWriter, DisagreementsWithTheReaderAreKept) {
  // An IPv6 listen host is written without brackets and then read as one address with the
  // default port.
  auto v6 = LoadConfText("portal-group pg { listen [::1]:3261 }\n");
  ASSERT_NE(v6, nullptr);
  std::string text = WriteConfText(v6.get());
  EXPECT_NE(text.find("\t listen ::1:3261\n"), std::string::npos) << text;
  auto v6again = LoadConfText(text);
  ASSERT_NE(v6again, nullptr);
  struct portal* p = TAILQ_FIRST(&portal_group_find(v6again.get(), "pg")->pg_portals);
  EXPECT_STREQ(p->p_host, "::1:3261");
  EXPECT_STREQ(p->p_port, "3260");
  EXPECT_NE(WriteConfText(v6again.get()).find("\t listen ::1:3261:3260\n"), std::string::npos);

  // Target option values are not quoted, so one with a blank does not read back.
  auto opt = LoadConfText("target iqn.x:y { option fault-domain \"site a\" }\n");
  ASSERT_NE(opt, nullptr);
  text = WriteConfText(opt.get());
  EXPECT_NE(text.find("\toption fault-domain site a\n"), std::string::npos) << text;
  LogCapture capture;
  EXPECT_EQ(LoadConfText(text), nullptr);
  EXPECT_TRUE(capture.Contains("near 'a': syntax error, unexpected STR")) << capture.Joined();

  // The "default" group that a file without one gets is deny; written, it becomes open.
  auto deny = LoadConfText("");
  ASSERT_EQ(auth_group_find(deny.get(), "default")->ag_type, AG_TYPE_DENY);
  auto open = LoadConfText(WriteConfText(deny.get()));
  ASSERT_NE(open, nullptr);
  EXPECT_EQ(auth_group_find(open.get(), "default")->ag_type, AG_TYPE_NO_AUTHENTICATION);

  // Inline authentication has no group name to write; the result does not read back.
  auto inline_auth = LoadConfText("target iqn.x:y { chap u MTIzNDU2Nzg5MDEy }\n");
  ASSERT_NE(inline_auth, nullptr);
  text = WriteConfText(inline_auth.get());
  EXPECT_NE(text.find("auth-group (null) {\n\t chap \"u\" \"MTIzNDU2Nzg5MDEy\" \n}\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("\tauth-group (null)\n"), std::string::npos);
  EXPECT_EQ(LoadConfText(text), nullptr);
}

// Builds a random configuration in the shape the service produces, starting from a parsed empty
// file (so that the built-in groups are where a load puts them).
class ModelGenerator {
 public:
  explicit ModelGenerator(unsigned seed) : rng_(seed) {}

  ConfPtr Make() {
    ConfPtr conf = LoadConfText("");
    struct conf* c = conf.get();
    c->conf_generation = Pick(1, 1u << 30);
    if (Chance(50)) conf_option_new(c, Word("opt").c_str(), Word("val").c_str());

    std::vector<std::string> igroups;
    for (int i = 0, n = Pick(0, 6); i < n; i++) {
      std::string name = "ig-" + std::to_string(i) + Word("");
      struct initiator_group* ig = initiator_group_new(c, name.c_str());
      for (int k = 0, m = Pick(0, 5); k < m; k++)
        initiator_new(ig, ("iqn.1998-01.com.example:" + Word("h")).c_str());
      igroups.push_back(name);
    }

    std::vector<struct auth_group*> groups = {auth_group_find(c, "default")};
    struct auth_group* def = groups[0];
    def->ag_type = AG_TYPE_NO_AUTHENTICATION;
    if (Chance(30)) AddCredentials(def);
    for (int i = 0, n = Pick(0, 6); i < n; i++) {
      struct auth_group* ag = auth_group_new(c, ("uuid-" + std::to_string(i)).c_str());
      if (Chance(66)) {
        AddCredentials(ag);
      } else {
        ag->ag_type = AG_TYPE_NO_AUTHENTICATION;
      }
      for (const std::string& ig : igroups) {
        if (Chance(30)) auth_group_igroup_ref_add(c, ag, ig.c_str());
      }
      for (int k = 0, m = Pick(0, 3); k < m; k++)
        auth_name_new(ag, ("iqn.1998-01.com.example:" + Word("i")).c_str());
      groups.push_back(ag);
    }

    std::vector<struct portal_group*> pgs = {portal_group_find(c, "default")};
    for (int i = 0, n = Pick(0, 4); i < n; i++) {
      std::string nic = Chance(50) ? "eth" + std::to_string(i) : "10.0.0." + std::to_string(i + 1);
      std::string port = std::to_string(3260 + i);
      struct portal_group* pg = portal_group_new(c, ("pg-" + nic + "-" + port).c_str());
      pg->pg_discovery_auth_group = auth_group_find(c, "no-authentication");
      portal_group_add_listen(pg, (nic + ":" + port).c_str(), false);
      pgs.push_back(pg);
    }

    for (int i = 0, n = Pick(0, 8); i < n; i++) {
      std::string name = "iqn.2024-01.com.example:" + Word("t") + "-" + std::to_string(i);
      struct target* t = target_new(c, name.c_str());
      if (Chance(70)) t->t_alias = checked_strdup(("alias " + Word("a")).c_str());
      port_new(c, t, pgs[Pick(0, pgs.size() - 1)]);
      t->t_auth_group = groups[Pick(0, groups.size() - 1)];
      target_option_new(t, "uuid", Word("u").c_str());
      if (Chance(50)) target_option_new(t, "owner-id", Word("o").c_str());
      if (Chance(30)) target_option_new(t, "status", Chance(50) ? "offline" : "online");
      std::vector<int> numbers;
      for (int k = 0, m = Pick(0, 10); k < m; k++) numbers.push_back(Pick(0, 255));
      for (int number : numbers) {
        char lun_name[300];
        keld_target_lun_name(lun_name, sizeof(lun_name), t->t_name, number);
        if (lun_find(c, lun_name) != nullptr) continue;
        struct lun* lun = lun_new(c, lun_name);
        lun_set_backend(lun, "pemo");
        lun_set_path(lun, (Word("uuid") + "/" + Word("disk") + ".pemo").c_str());
        lun_set_size(lun, static_cast<int64_t>(Pick(1, 1 << 20)) * 2048);
        lun_set_keld_lun(lun, number);
        option_new(&lun->l_options, "lun-alias", ("LUN " + Word("x") + " #1").c_str());
        if (Chance(30)) option_new(&lun->l_options, "status", "offline");
        t->t_luns[number] = lun;
      }
    }
    EXPECT_EQ(conf_verify(c), 0);
    return conf;
  }

 private:
  int Pick(size_t lo, size_t hi) {
    return static_cast<int>(std::uniform_int_distribution<size_t>(lo, hi)(rng_));
  }
  bool Chance(int percent) { return Pick(1, 100) <= percent; }

  std::string Word(const std::string& prefix) {
    static const char kChars[] = "abcdefghijklmnopqrstuvwxyz0123456789-.";
    std::string w = prefix;
    for (int i = 0, n = Pick(1, 12); i < n; i++) w += kChars[Pick(0, sizeof(kChars) - 2)];
    return w;
  }

  // Secrets are any bytes but NUL, at most 21 of them (what fits the writer's encoding).
  std::string Secret() {
    std::string s;
    for (int i = 0, n = Pick(1, 21); i < n; i++) s += static_cast<char>(Pick(1, 255));
    return s;
  }

  // A "chap" line before a "chap-mutual" one leaves a mutual-type group holding an entry without
  // mutual credentials, which the writer once dereferenced.
  void AddCredentials(struct auth_group* ag) {
    const int kind = Pick(1, 3);
    if (kind != 2) auth_new_chap(ag, Word("user").c_str(), Secret().c_str(), false);
    if (kind != 1) {
      auth_new_chap_mutual(ag, Word("user").c_str(), Secret().c_str(), Word("m").c_str(),
                           Secret().c_str(), false);
    }
  }

  std::mt19937 rng_;
};

TEST(ConfWriter, WriteReadWriteIsAFixedPoint) {
  for (unsigned seed = 1; seed <= 300; seed++) {
    ModelGenerator gen(seed);
    ConfPtr model = gen.Make();
    ASSERT_NE(model, nullptr);
    std::string first = WriteConfText(model.get());
    LogCapture capture;
    ConfPtr read = LoadConfText(first);
    ASSERT_NE(read, nullptr) << "seed " << seed << "\n" << first << capture.Joined();
    std::string second = WriteConfText(read.get());
    ASSERT_EQ(first, second) << "seed " << seed;

    // The model that comes back holds the same secrets and LUN slots, not just the same text.
    struct auth_group* ag;
    TAILQ_FOREACH(ag, &model->conf_auth_groups, ag_next) {
      struct auth_group* back = auth_group_find(read.get(), ag->ag_name);
      ASSERT_NE(back, nullptr) << ag->ag_name;
      struct auth* a = TAILQ_FIRST(&ag->ag_auths);
      struct auth* b = TAILQ_FIRST(&back->ag_auths);
      ASSERT_EQ(a == nullptr, b == nullptr) << ag->ag_name;
      if (a == nullptr) continue;
      EXPECT_EQ(ag->ag_type, back->ag_type);
      EXPECT_STREQ(a->a_secret, b->a_secret);
      if (a->a_mutual_secret != nullptr) {
        EXPECT_STREQ(a->a_mutual_secret, b->a_mutual_secret);
      }
    }
    struct target* t;
    TAILQ_FOREACH(t, &model->conf_targets, t_next) {
      struct target* back = target_find(read.get(), t->t_name);
      ASSERT_NE(back, nullptr);
      for (int i = 0; i < MAX_LUNS; i++) {
        ASSERT_EQ(t->t_luns[i] == nullptr, back->t_luns[i] == nullptr) << t->t_name << " " << i;
        if (t->t_luns[i] != nullptr) {
          EXPECT_EQ(back->t_luns[i]->l_size, t->t_luns[i]->l_size);
        }
      }
    }
  }
}

}  // namespace
