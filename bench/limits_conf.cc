#include "bench/limits_conf.h"

#include <cstdio>
#include <vector>

#include "conf/conf.h"

namespace kel {
namespace bench {

std::string LimitsUuid(int kind, int n) {
  char buf[64];
  snprintf(buf, sizeof(buf), "6f1d2c4a-8b3e-4c5d-9e7f-%04x%08x", kind, n);
  return buf;
}

struct conf* BuildLimitsModel() {
  struct conf* c = conf_new();
  auth_group_new(c, "default")->ag_type = AG_TYPE_NO_AUTHENTICATION;
  auth_group_new(c, "no-authentication")->ag_type = AG_TYPE_NO_AUTHENTICATION;
  auth_group_new(c, "no-access")->ag_type = AG_TYPE_DENY;
  struct portal_group* def = portal_group_new(c, "default");
  def->pg_discovery_auth_group = auth_group_find(c, "default");
  portal_group_add_listen(def, "nuk0:3260", false);
  conf_option_new(c, "kel-option", "on");
  c->conf_generation = 123456;

  for (int g = 0; g < kInitiatorGroups; g++) {
    struct initiator_group* ig = initiator_group_new(c, ("ig-" + std::to_string(g)).c_str());
    for (int i = 0; i < kInitiatorsPerGroup; i++) {
      std::string name =
          "iqn.1998-01.com.example:host-" + std::to_string(g) + "-" + std::to_string(i);
      initiator_new(ig, name.c_str());
    }
  }
  std::vector<struct portal_group*> pgs;
  for (int n = 1; n <= kNics; n++) {
    std::string nic = "nuk" + std::to_string(n);
    struct portal_group* pg = portal_group_new(c, ("pg-" + nic + "-3260").c_str());
    pg->pg_discovery_auth_group = auth_group_find(c, "no-authentication");
    portal_group_add_listen(pg, (nic + ":3260").c_str(), false);
    pgs.push_back(pg);
  }
  for (int t = 0; t < kTargets; t++) {
    std::string uuid = LimitsUuid(1, t);
    struct auth_group* ag = auth_group_new(c, uuid.c_str());
    if (t % 3 == 0) {
      auth_new_chap(ag, ("user-" + std::to_string(t)).c_str(), "secret-0123456", false);
    } else if (t % 3 == 1) {
      auth_new_chap_mutual(ag, ("user-" + std::to_string(t)).c_str(), "secret-0123456",
                           "target-user", "mutual-0123456", false);
    } else {
      ag->ag_type = AG_TYPE_NO_AUTHENTICATION;
    }
    auth_group_igroup_ref_add(c, ag, ("ig-" + std::to_string(t * 2)).c_str());
    auth_group_igroup_ref_add(c, ag, ("ig-" + std::to_string(t * 2 + 1)).c_str());
    auth_name_new(ag, ("iqn.1998-01.com.example:admin-" + std::to_string(t)).c_str());

    std::string name = "iqn.2024-01.com.example:target-" + std::to_string(t);
    struct target* target = target_new(c, name.c_str());
    target->t_alias = checked_strdup(("target " + std::to_string(t)).c_str());
    port_new(c, target, pgs[t % pgs.size()]);
    target->t_auth_group = ag;
    target_option_new(target, "uuid", uuid.c_str());
    target_option_new(target, "owner-id", LimitsUuid(2, t).c_str());
    target_option_new(target, "status", "online");
    for (int l = 0; l < kLunsPerTarget; l++) {
      int number = l * 31 % 256;
      char lun_name[300];
      keld_target_lun_name(lun_name, sizeof(lun_name), target->t_name, number);
      struct lun* lun = lun_new(c, lun_name);
      lun_set_backend(lun, "pemo");
      lun_set_path(lun, (uuid + "/" + LimitsUuid(3, t * kLunsPerTarget + l) + ".pemo").c_str());
      lun_set_size(lun, 2097152LL * (l + 1));
      lun_set_keld_lun(lun, number);
      option_new(&lun->l_options, "lun-alias", ("lun " + std::to_string(number)).c_str());
      char naa[64];
      snprintf(naa, sizeof(naa), "6000C29A%024d", t * kLunsPerTarget + l);
      option_new(&lun->l_options, "naa", naa);
      target->t_luns[number] = lun;
    }
  }
  return c;
}

}  // namespace bench
}  // namespace kel
