// conf_verify and valid_iscsi_name.
#include <strings.h>

#include <cctype>
#include <cstring>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "conf/conf.h"
#include "platform/clog.h"

namespace {

bool TargetHasLuns(const struct target* t) {
  for (const struct lun* lun : t->t_luns) {
    if (lun != nullptr) return true;
  }
  return false;
}

// Checks one LUN and fills its defaults; 0 when usable.
int VerifyLun(struct lun* lun,
              const std::unordered_map<std::string_view, std::vector<struct lun*>>& by_path) {
  if (lun->l_backend == nullptr) lun_set_backend(lun, "block");
  if (strcmp(lun->l_backend, "block") == 0) {
    if (lun->l_path == nullptr) {
      log_warnx("missing path for lun \"%s\"", lun->l_name);
      return 1;
    }
  } else if (strcmp(lun->l_backend, "ramdisk") == 0) {
    if (lun->l_size == 0) {
      log_warnx("missing size for ramdisk-backed lun \"%s\"", lun->l_name);
      return 1;
    }
    if (lun->l_path != nullptr) {
      log_warnx("path must not be specified for ramdisk-backed lun \"%s\"", lun->l_name);
      return 1;
    }
  }
  if (lun->l_blocksize == 0) {
    lun_set_blocksize(lun, lun->l_device_type == 5 ? 2048 : 512);
  } else if (lun->l_blocksize < 0) {
    log_warnx("invalid blocksize for lun \"%s\"; must be larger than 0", lun->l_name);
    return 1;
  }
  if (lun->l_size != 0 &&
      (static_cast<uint64_t>(lun->l_size) * 512) % static_cast<uint64_t>(lun->l_blocksize) != 0) {
    log_warnx("invalid size for lun \"%s\"; must be multiple of blocksize", lun->l_name);
    return 1;
  }
  if (lun->l_path != nullptr) {
    auto it = by_path.find(std::string_view(lun->l_path));
    if (it != by_path.end()) {
      for (const struct lun* other : it->second) {
        if (other == lun) continue;
        log_warnx("WARNING: path \"%s\" duplicated between lun \"%s\", and lun \"%s\"", lun->l_path,
                  lun->l_name, other->l_name);
      }
    }
  }
  return 0;
}

bool IsHexDigit(char c) { return isxdigit(static_cast<unsigned char>(c)) != 0; }

}  // namespace

int conf_verify(struct conf* conf) {
  // LUNs sharing a path, in list order; grouped once so that the check is not quadratic at the
  // cluster's LUN limit.
  std::unordered_map<std::string_view, std::vector<struct lun*>> by_path;
  struct lun* lun;
  TAILQ_FOREACH(lun, &conf->conf_luns, l_next) {
    if (lun->l_path != nullptr) by_path[std::string_view(lun->l_path)].push_back(lun);
  }
  for (auto it = by_path.begin(); it != by_path.end();) {
    it = it->second.size() < 2 ? by_path.erase(it) : std::next(it);
  }
  TAILQ_FOREACH(lun, &conf->conf_luns, l_next) {
    if (VerifyLun(lun, by_path) != 0) return 1;
  }

  struct target* target;
  TAILQ_FOREACH(target, &conf->conf_targets, t_next) {
    if (target->t_auth_group == nullptr) target->t_auth_group = auth_group_find(conf, "default");
    if (TAILQ_EMPTY(&target->t_ports)) {
      struct portal_group* pg = portal_group_find(conf, "default");
      if (pg == nullptr || port_new(conf, target, pg) == nullptr) return 1;
    }
    bool has_luns = TargetHasLuns(target);
    if (has_luns && target->t_redirection != nullptr) {
      log_debugx("target \"%s\" contains luns,  but configured for redirection", target->t_name);
    } else if (!has_luns && target->t_redirection == nullptr) {
      log_debugx("no LUNs defined for target \"%s\"", target->t_name);
    }
  }

  struct portal_group* pg;
  TAILQ_FOREACH(pg, &conf->conf_portal_groups, pg_next) {
    if (pg->pg_discovery_auth_group == nullptr)
      pg->pg_discovery_auth_group = auth_group_find(conf, "default");
    if (pg->pg_discovery_filter == PG_FILTER_UNKNOWN) pg->pg_discovery_filter = PG_FILTER_NONE;
    if (pg->pg_redirection != nullptr) {
      if (!TAILQ_EMPTY(&pg->pg_ports))
        log_debugx("portal-group \"%s\" assigned to target, but configured for redirection",
                   pg->pg_name);
      pg->pg_unassigned = false;
    } else if (!TAILQ_EMPTY(&pg->pg_ports)) {
      pg->pg_unassigned = false;
    } else {
      pg->pg_unassigned = true;
      if (strcmp(pg->pg_name, "default") != 0)
        log_warnx("portal-group \"%s\" not assigned to any target", pg->pg_name);
    }
  }

  // The grammar allows it, but every command that names a target by its alias then acts on
  // whichever comes first.
  std::unordered_map<std::string_view, const struct target*> by_alias;
  TAILQ_FOREACH(target, &conf->conf_targets, t_next) {
    if (target->t_alias == nullptr) continue;
    auto [it, fresh] = by_alias.emplace(target->t_alias, target);
    if (!fresh) {
      log_warnx(
          "targets \"%s\" and \"%s\" have the same alias \"%s\"; commands that name the "
          "alias act on the first one only",
          it->second->t_name, target->t_name, target->t_alias);
    }
  }

  std::unordered_set<const struct auth_group*> used;
  TAILQ_FOREACH(target, &conf->conf_targets, t_next) used.insert(target->t_auth_group);
  struct port* port;
  TAILQ_FOREACH(port, &conf->conf_ports, p_next) used.insert(port->p_auth_group);
  TAILQ_FOREACH(pg, &conf->conf_portal_groups, pg_next) used.insert(pg->pg_discovery_auth_group);
  struct auth_group* ag;
  TAILQ_FOREACH(ag, &conf->conf_auth_groups, ag_next) {
    if (used.count(ag) != 0 || ag->ag_name == nullptr) continue;
    if (strcmp(ag->ag_name, "default") == 0 || strcmp(ag->ag_name, "no-authentication") == 0 ||
        strcmp(ag->ag_name, "no-access") == 0)
      continue;
    log_warnx("auth-group \"%s\" not assigned to any target", ag->ag_name);
  }
  return 0;
}

bool valid_iscsi_name(const char* name) {
  size_t len = strlen(name);
  if (len >= MAX_NAME_LEN) {
    log_warnx(
        "overlong name for target \"%s\"; max length allowed by iSCSI specification is %d "
        "characters",
        name, MAX_NAME_LEN);
    return false;
  }
  // Everything below only warns: such names are accepted on purpose.
  if (strncasecmp(name, "iqn.", 4) == 0) {
    for (size_t i = 4; i < len; i++) {
      char c = name[i];
      if (isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.' || c == ':') continue;
      log_warnx(
          "invalid character \"%c\" in target name \"%s\"; allowed characters are letters, "
          "digits, '-', '.', and ':'",
          c, name);
      break;
    }
  } else if (strncasecmp(name, "eui.", 4) == 0 || strncasecmp(name, "naa.", 4) == 0) {
    if (tolower(static_cast<unsigned char>(name[0])) == 'e') {
      if (len != 20)
        log_warnx(
            "invalid target name \"%s\"; the \"eui.\" should be followed by exactly 16 "
            "hexadecimal digits",
            name);
    } else if (len > 36) {
      log_warnx(
          "invalid target name \"%s\"; the \"naa.\" should be followed by at most 32 "
          "hexadecimal digits",
          name);
    }
    for (size_t i = 4; i < len; i++) {
      if (IsHexDigit(name[i])) continue;
      // kept as is: the text says 1-9 although 0 and lower-case digits pass.
      log_warnx(
          "invalid character \"%c\" in target name \"%s\"; allowed characters are 1-9 and "
          "A-F",
          name[i], name);
      break;
    }
  } else {
    log_warnx(
        "invalid target name \"%s\"; should start with either \"iqn.\", \"eui.\", or "
        "\"naa.\"",
        name);
  }
  return true;
}
