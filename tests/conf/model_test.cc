// The configuration model's own rules: address texts, initiator portal matching, secrets, numbers,
// and what deleting an object leaves behind.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstring>
#include <string>
#include <vector>

#include "conf/conf.h"
#include "platform/clog.h"
#include "platform/exception.h"
#include "platform/log.h"
#include "tests/support/test_host.h"

using HostCtl::Lib::Orsa::OrsaCtlException;
using kel::log::LogCapture;

namespace {

struct sockaddr_storage Addr(const char* text) {
  struct sockaddr_storage ss;
  memset(&ss, 0, sizeof(ss));
  if (strchr(text, ':') != nullptr) {
    auto* sin6 = reinterpret_cast<struct sockaddr_in6*>(&ss);
    sin6->sin6_family = AF_INET6;
    EXPECT_EQ(inet_pton(AF_INET6, text, &sin6->sin6_addr), 1) << text;
  } else {
    auto* sin = reinterpret_cast<struct sockaddr_in*>(&ss);
    sin->sin_family = AF_INET;
    EXPECT_EQ(inet_pton(AF_INET, text, &sin->sin_addr), 1) << text;
  }
  return ss;
}

class ConfModel : public ::testing::Test {
 protected:
  void SetUp() override {
    log_init(4);
    conf_.reset(conf_new());
  }
  ConfPtr conf_;
};

// (Listen addresses in their text forms are read through the grammar's tests.)
TEST_F(ConfModel, RefusedAddressesLeaveNothingBehind) {
  struct portal_group* pg = portal_group_new(conf_.get(), "pg");
  ASSERT_EQ(portal_group_add_listen(pg, "10.0.0.1:iscsi-target", false), 0);
  ASSERT_EQ(portal_group_add_listen(pg, "nuk0", false), 0);
  const struct portal* first = TAILQ_FIRST(&pg->pg_portals);
  const struct portal* second = TAILQ_NEXT(first, p_next);
  EXPECT_STREQ(first->p_port, "iscsi-target");
  EXPECT_NE(first->p_ai, nullptr) << "numeric hosts are resolved";
  EXPECT_EQ(second->p_ai, nullptr) << "names are kept as text";
  for (const char* bad : {"[::1]3260", "[]:3260", "", ":3260"}) {
    LogCapture capture;
    EXPECT_EQ(portal_group_add_listen(pg, bad, false), 1) << bad;
    EXPECT_TRUE(capture.Contains(std::string("KELD: invalid listen address ") + bad));
  }
  EXPECT_EQ(TAILQ_NEXT(second, p_next), nullptr);
  EXPECT_EQ(isns_new(conf_.get(), "[::1]"), 0);
  LogCapture capture;
  EXPECT_EQ(isns_new(conf_.get(), "[::1]:"), 1);
  EXPECT_TRUE(capture.Contains("KELD: invalid iSNS address [::1]:"));
}

TEST_F(ConfModel, InitiatorPortalsMatchByPrefix) {
  struct auth_group* ag = auth_group_new(conf_.get(), "ag");
  struct sockaddr_storage any = Addr("10.0.0.1");
  EXPECT_FALSE(auth_portal_check(ag, &any));  // no portals defined: everyone passes
  ASSERT_NE(auth_portal_new(ag, "10.1.0.0/16"), nullptr);
  ASSERT_NE(auth_portal_new(ag, "192.168.7.5"), nullptr);
  ASSERT_NE(auth_portal_new(ag, "[fd00:1::]/33"), nullptr);
  ASSERT_NE(auth_portal_new(ag, "172.16.0.0/12"), nullptr);
  ASSERT_NE(auth_portal_new(ag, "0.0.0.0/0"), nullptr);
  struct auth_portal* first = TAILQ_FIRST(&ag->ag_portals);
  EXPECT_EQ(first->ap_mask, 16);
  EXPECT_EQ(TAILQ_NEXT(first, ap_next)->ap_mask, 32);

  auto find = [&](const char* text) -> std::string {
    struct sockaddr_storage ss = Addr(text);
    struct auth_portal* ap = auth_portal_find(ag, &ss);
    return ap != nullptr ? ap->ap_initiator_portal : "";
  };
  EXPECT_EQ(find("10.1.200.3"), "10.1.0.0/16");
  EXPECT_EQ(find("192.168.7.5"), "192.168.7.5");
  EXPECT_EQ(find("fd00:1:7fff::1"), "[fd00:1::]/33");  // 33rd bit clear
  EXPECT_EQ(find("fd00:1:8000::1"), "");               // 33rd bit set, no IPv6 catch-all
  EXPECT_EQ(find("172.31.255.255"), "172.16.0.0/12");  // partial byte: 0x1f & 0xf0 == 0x10
  EXPECT_EQ(find("172.32.0.1"), "0.0.0.0/0");
  EXPECT_EQ(find("192.168.7.6"), "0.0.0.0/0");

  struct auth_group* only6 = auth_group_new(conf_.get(), "only6");
  ASSERT_NE(auth_portal_new(only6, "::1"), nullptr);
  EXPECT_EQ(TAILQ_FIRST(&only6->ag_portals)->ap_mask, 128);
  struct sockaddr_storage v4 = Addr("127.0.0.1");
  EXPECT_TRUE(auth_portal_check(only6, &v4));
  struct sockaddr_storage v6 = Addr("::1");
  EXPECT_FALSE(auth_portal_check(only6, &v6));

  for (const char* bad :
       {"10.0.0.1/33", "::1/129", "10.0.0.1/", "10.0.0.1/-1", "[]", "x.y", "10.0.0.1/8/8"}) {
    try {
      auth_portal_new(ag, bad);
      ADD_FAILURE() << bad;
    } catch (const OrsaCtlException& e) {
      EXPECT_EQ(e.GetMessage(), std::string("Incorrect initiator portal '") + bad + "'");
    }
  }
  size_t count = 0;
  struct auth_portal* ap;
  TAILQ_FOREACH(ap, &ag->ag_portals, ap_next) count++;
  EXPECT_EQ(count, 5u);  // the refused ones were freed and unlinked
}

TEST_F(ConfModel, SecretsAndTheirLengthWarnings) {
  struct auth_group* named = auth_group_new(conf_.get(), "ag");
  struct target* t = target_new(conf_.get(), "iqn.x:t");
  struct auth_group* anon = auth_group_new(conf_.get(), nullptr);
  anon->ag_target = t;
  const std::string ag = "\", auth-group \"ag\", is too ";
  const std::string tg = "\", target \"iqn.x:t\", is too ";
  const struct {
    struct auth_group* group;
    const char* secret;
    const char* mutualSecret;  // null for plain CHAP
    std::vector<std::string> warnings;
  } cases[] = {
      {named, "0123456789ab", nullptr, {}},
      {named, "0123456789abcdef", nullptr, {}},
      {named,
       "01234567890",
       nullptr,
       {"secret for user \"u" + ag + "short; it should be at least 12 characters long"}},
      {anon,
       "0123456789abcdefX",
       nullptr,
       {"secret for user \"u" + tg + "long; it should be at most 16 characters long"}},
      // The target variant of "too short" says 16.
      {anon,
       "0123456789ab",
       "short",
       {"mutual secret for user \"u" + tg + "short; it should be at least 16 characters long"}},
      {named,
       "x",
       "0123456789abcdefgh",
       {"secret for user \"u" + ag + "short; it should be at least 12 characters long",
        "mutual secret for user \"u" + ag + "long; it should be at most 16 characters long"}},
  };
  for (const auto& c : cases) {
    LogCapture capture;
    if (c.mutualSecret == nullptr) {
      auth_new_chap(c.group, "u", c.secret, false);
    } else {
      auth_new_chap_mutual(c.group, "u", c.secret, "m", c.mutualSecret, false);
    }
    EXPECT_EQ(capture.Count("secret for user"), c.warnings.size()) << capture.Joined();
    for (const std::string& w : c.warnings) EXPECT_TRUE(capture.Contains("KELD: " + w)) << w;
  }
  // At most 32 decoded bytes fit.
  EXPECT_STREQ(auth_new_chap(named, "x", std::string(43, 'Q').append("=").c_str(), true)->a_user,
               "x");
  EXPECT_THROW(auth_new_chap(named, "y", std::string(44, 'Q').c_str(), true), OrsaCtlException);
  EXPECT_EQ(auth_find(named, "y"), nullptr);
}

TEST_F(ConfModel, Numbers) {
  const struct {
    const char* text;
    uint64_t value;
  } good[] = {{"0", 0},
              {"512", 512},
              {"1k", 1024},
              {"1K", 1024},
              {"3m", 3u << 20},
              {"2G", 2ull << 30},
              {"1t", 1ull << 40},
              {"1p", 1ull << 50},
              {"15e", 15ull << 60},
              {"18446744073709551615", UINT64_MAX}};
  for (const auto& g : good) {
    uint64_t v = 7;
    EXPECT_EQ(expand_number(g.text, &v), 0) << g.text;
    EXPECT_EQ(v, g.value) << g.text;
  }
  for (const char* bad : {"", "k", "-1", "+1", " 1", "1 ", "1kb", "1x", "0x10", "1.5",
                          "18446744073709551616", "16e", "99999999999999999999k"}) {
    uint64_t v = 7;
    EXPECT_EQ(expand_number(bad, &v), -1) << bad;
    EXPECT_EQ(v, 7u) << bad;
  }
}

TEST_F(ConfModel, LunsSharedByTargetsAndTheirNames) {
  struct target* t = target_new(conf_.get(), "iqn.X:Target");
  struct target* t2 = target_new(conf_.get(), "iqn.x:target2");
  char name[300];
  keld_target_lun_name(name, 10, t->t_name, 1);
  EXPECT_STREQ(name, "iqn.x:tar");  // cut to the buffer
  struct lun* lun = lun_new(conf_.get(), "iqn.x:target2,L,0x0000000000000003");
  ASSERT_NE(lun, nullptr);
  EXPECT_FALSE(lun_keld_lun_valid(lun));
  EXPECT_FALSE(lun_ctl_lun_valid(lun));
  // The first target whose name prefixes the LUN's name, case-insensitively.
  EXPECT_EQ(lun_target_find(conf_.get(), "IQN.X:TARGET2,L,0x3"), t);
  EXPECT_EQ(lun_target_find(conf_.get(), "iqn.y:target,L"), nullptr);
  EXPECT_EQ(lun_new(conf_.get(), "iqn.x:target2,L,0x0000000000000003"), nullptr);

  // A LUN in several slots is unlinked from all of them; its name is free again.
  t->t_luns[3] = lun;
  t2->t_luns[0] = lun;
  t2->t_luns[9] = lun;
  lun_delete(lun);
  EXPECT_EQ(t->t_luns[3], nullptr);
  EXPECT_EQ(t2->t_luns[0], nullptr);
  EXPECT_EQ(t2->t_luns[9], nullptr);
  EXPECT_NE(lun_new(conf_.get(), "iqn.x:target2,L,0x0000000000000003"), nullptr);
}

TEST_F(ConfModel, DeletingUnlinksEverywhere) {
  struct portal_group* pg = portal_group_new(conf_.get(), "pg");
  struct pport* pp = pport_new(conf_.get(), "isp0", 1);
  struct target* t = target_new(conf_.get(), "iqn.x:t");
  struct auth_group* ag = auth_group_new(conf_.get(), "ag");
  pg->pg_tag = 9;
  struct port* p1 = port_new(conf_.get(), t, pg);
  ASSERT_NE(p1, nullptr);
  EXPECT_EQ(p1->p_tag, 9);
  p1->p_auth_group = ag;
  struct port* p2 = port_new_pp(conf_.get(), t, pp);
  ASSERT_NE(p2, nullptr);
  EXPECT_EQ(port_find(conf_.get(), "PG-IQN.X:T"), p1);
  EXPECT_EQ(port_find_in_pg(pg, "IQN.X:T"), p1);
  LogCapture capture;
  EXPECT_EQ(port_new(conf_.get(), t, pg), nullptr);
  EXPECT_TRUE(capture.Contains("KELD: duplicate port \"pg-iqn.x:t\""));
  t->t_auth_group = ag;
  pg->pg_discovery_auth_group = ag;

  // A deleted auth group leaves no dangling pointer.
  auth_group_delete(ag);
  EXPECT_EQ(t->t_auth_group, nullptr);
  EXPECT_EQ(p1->p_auth_group, nullptr);
  EXPECT_EQ(pg->pg_discovery_auth_group, nullptr);

  // Deleting the portal group deletes its port, which leaves the target's and the conf's lists.
  portal_group_delete(pg);
  EXPECT_EQ(keld_target_to_port(t), p2);
  EXPECT_EQ(TAILQ_FIRST(&conf_->conf_ports), p2);
  EXPECT_EQ(TAILQ_NEXT(p2, p_next), nullptr);

  struct auth_group* anon = auth_group_new(conf_.get(), nullptr);
  anon->ag_target = t;
  target_delete(t);
  EXPECT_EQ(anon->ag_target, nullptr);
  EXPECT_TRUE(TAILQ_EMPTY(&pp->pp_ports));
  EXPECT_TRUE(TAILQ_EMPTY(&conf_->conf_ports));

  struct initiator_group* ig = initiator_group_new(conf_.get(), "ig");
  struct initiator_group* keep = initiator_group_new(conf_.get(), "keep");
  initiator_new(ig, "iqn.a:1");
  struct auth_group* a1 = auth_group_new(conf_.get(), "a1");
  ASSERT_EQ(auth_group_igroup_ref_add(conf_.get(), a1, "ig"), 0);
  ASSERT_EQ(auth_group_igroup_ref_add(conf_.get(), a1, "keep"), 0);
  ASSERT_EQ(auth_group_igroup_ref_add(conf_.get(), anon, "ig"), 0);
  initiator_group_delete(ig);
  EXPECT_EQ(auth_group_igroup_ref_find(a1, "ig"), nullptr);
  ASSERT_NE(auth_group_igroup_ref_find(a1, "keep"), nullptr);
  EXPECT_EQ(auth_group_igroup_ref_find(a1, "keep")->ref_igroup, keep);
  EXPECT_FALSE(auth_group_initiator_group_defined(anon));
}

}  // namespace
