#include "directory/extraction.h"

#include <cstdlib>

#include "conf/conf.h"
#include "directory/lun_paths.h"
#include "host/validation.h"
#include "platform/exception.h"
#include "platform/status.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {

using HostCtl::Lib::Orsa::OrsaCtlException;
using HostCtl::Orsa::IscsiTarget::DefaultInfo;
using HostCtl::Orsa::IscsiTarget::InitiatorgroupInfo;
using HostCtl::Orsa::IscsiTarget::LunInfo;
using HostCtl::Orsa::IscsiTarget::TargetInfo;

namespace {

constexpr int kLunPathBufferLen = 256;
constexpr int32_t kDefaultPort = 3260;

void RequireConf(const struct conf* conf) {
  if (conf == nullptr) {
    throw OrsaCtlException("Cannot find Orsa iSCSI configuration!");
  }
}

std::string Text(const char* s) { return s != nullptr ? std::string(s) : std::string(); }

// Decimal port text; a non-number reads as 0, as the portal's text was always taken.
int32_t PortNumber(const char* text) {
  return static_cast<int32_t>(std::strtol(text != nullptr ? text : "", nullptr, 10));
}

std::string TargetOption(const struct target* t, const char* name) {
  const struct target_option* to = target_option_find(t, name);
  return to != nullptr ? Text(to->to_value) : std::string();
}

const char* LunOption(const struct lun* l, const char* name) {
  const struct option* o = option_find(&l->l_options, name);
  return o != nullptr ? o->o_value : nullptr;
}

LunInfo LunRecord(const struct target* t, const struct lun* l, uint64_t bytesPerMiB) {
  LunInfo info;
  info.id = -1;
  info.inConfig = true;
  info.policyCompliant = false;

  char path[kLunPathBufferLen];
  const NUK_ReturnStatus status = GetLunAbsPath(l, sizeof(path), path);
  if (status != NUK_OK) {
    throw OrsaCtlException(std::string("Failed to get lun absolute path: ") +
                           NUK_ReturnStatusToString(status));
  }
  info.path = path;
  info.uuid = Util::GetLunUuid(info.path);
  info.id = l->l_keld_lun;
  // Sectors times 512 first, then whole MiB: a partial MiB is dropped.
  info.sizeMiB = static_cast<uint64_t>(l->l_size) * 512u / bytesPerMiB;
  info.targetAlias = Text(t->t_alias);
  info.alias = Text(LunOption(l, "lun-alias"));
  const char* lunStatus = LunOption(l, "status");
  info.status = lunStatus != nullptr ? std::string(lunStatus) : std::string("online");
  info.naa = Text(LunOption(l, "naa"));
  return info;
}

TargetInfo TargetRecord(const struct target* t, uint64_t bytesPerMiB) {
  TargetInfo info;
  info.port = kDefaultPort;
  info.alias = Text(t->t_alias);
  info.iqn = Text(t->t_name);
  info.uuid = TargetOption(t, "uuid");

  const struct auth_group* ag = t->t_auth_group;
  if (const struct auth* cred = Parser::GetAuthInfo(ag, info.authType)) {
    info.chapName = Text(cred->a_user);
    if (ag->ag_type == AG_TYPE_CHAP_MUTUAL) {
      info.mutualChapName = Text(cred->a_mutual_user);
    }
  }

  info.ownerId = TargetOption(t, "owner-id");
  info.affinitySite = TargetOption(t, "fault-domain");

  if (const struct port* p = keld_target_to_port(t)) {
    if (p->p_portal_group != nullptr) {
      if (const struct portal* portal = TAILQ_FIRST(&p->p_portal_group->pg_portals)) {
        info.networkInterface = Text(portal->p_host);
        info.port = PortNumber(portal->p_port);
      }
    }
  }

  if (ag != nullptr) {
    const struct auth_name* an;
    TAILQ_FOREACH(an, &ag->ag_names, an_next) { info.initiators.push_back(Text(an->an_initiator)); }
    const struct auth_group_igroup_ref* ref;
    TAILQ_FOREACH(ref, &ag->ag_igroup_refs, ref_next) {
      info.initiatorGroups.push_back(ref->ref_igroup != nullptr ? Text(ref->ref_igroup->ig_name)
                                                                : std::string());
    }
  }

  std::vector<LunInfo> luns;
  for (int slot = 0; slot < MAX_LUNS; ++slot) {
    if (const struct lun* l = t->t_luns[slot]) {
      luns.push_back(LunRecord(t, l, bytesPerMiB));
    }
  }
  info.luns = std::move(luns);
  return info;
}

}  // namespace

namespace Parser {

std::string AuthTypeToStr(int type) {
  switch (type) {
    case AG_TYPE_NO_AUTHENTICATION:
      return "No-Authentication";
    case AG_TYPE_CHAP:
      return "CHAP";
    case AG_TYPE_CHAP_MUTUAL:
      return "CHAP-Mutual";
    default:
      return "None";
  }
}

struct auth* GetAuthInfo(const struct auth_group* ag, std::string& typeText) {
  if (ag == nullptr) {
    typeText = AuthTypeToStr(AG_TYPE_NO_AUTHENTICATION);
    return nullptr;
  }
  typeText = AuthTypeToStr(ag->ag_type);
  if (ag->ag_type == AG_TYPE_CHAP || ag->ag_type == AG_TYPE_CHAP_MUTUAL) {
    return TAILQ_FIRST(&ag->ag_auths);
  }
  return nullptr;
}

}  // namespace Parser

void _GetTargetInfos(struct conf* conf, std::vector<TargetInfo>& out) {
  RequireConf(conf);
  out.clear();
  const uint64_t bytesPerMiB = Util::GetUnitValueFromString("mib");
  const struct target* t;
  TAILQ_FOREACH(t, &conf->conf_targets, t_next) { out.push_back(TargetRecord(t, bytesPerMiB)); }
}

void _GetInitiatorGroupInfos(struct conf* conf, std::vector<InitiatorgroupInfo>& out) {
  RequireConf(conf);
  const struct initiator_group* ig;
  TAILQ_FOREACH(ig, &conf->conf_initiator_groups, ig_next) {
    InitiatorgroupInfo info;
    info.name = Text(ig->ig_name);
    const struct initiator* in;
    TAILQ_FOREACH(in, &ig->ig_initiators, in_next) { info.initiators.push_back(Text(in->in_name)); }
    const struct target* t;
    TAILQ_FOREACH(t, &conf->conf_targets, t_next) {
      if (t->t_auth_group == nullptr) {
        continue;
      }
      const struct auth_group_igroup_ref* ref;
      TAILQ_FOREACH(ref, &t->t_auth_group->ag_igroup_refs, ref_next) {
        if (ref->ref_igroup == ig) {
          // emplace keeps the first target of an alias.
          info.targets.emplace(Text(t->t_alias), Text(t->t_name));
          break;
        }
      }
    }
    out.push_back(std::move(info));
  }
}

DefaultInfo GetConfigInfoFromConf(struct conf* conf, bool withSecrets) {
  DefaultInfo info;
  info.port = kDefaultPort;
  RequireConf(conf);

  const struct auth_group* ag = auth_group_find(conf, "default");
  if (const struct auth* cred = Parser::GetAuthInfo(ag, info.authType)) {
    info.chapName = Text(cred->a_user);
    info.chapSecret = withSecrets ? Text(cred->a_secret) : std::string();
    if (ag->ag_type == AG_TYPE_CHAP_MUTUAL) {
      info.mutualChapName = Text(cred->a_mutual_user);
      info.mutualChapSecret = withSecrets ? Text(cred->a_mutual_secret) : std::string();
    }
  }

  if (const struct portal_group* pg = portal_group_find(conf, "default")) {
    const struct portal* portal;
    // Every portal overwrites the previous one: the last portal of the group wins.
    TAILQ_FOREACH(portal, &pg->pg_portals, p_next) {
      if (portal->p_host == nullptr) {
        throw OrsaCtlException("Default network interface not found.");
      }
      info.networkInterface = portal->p_host;
      info.port = PortNumber(portal->p_port);
    }
  }
  return info;
}

void GetIscsiNuknicsFromConf(struct conf* conf, std::set<std::string>& out) {
  RequireConf(conf);
  out.clear();
  const struct portal_group* pg;
  TAILQ_FOREACH(pg, &conf->conf_portal_groups, pg_next) {
    const struct portal* portal;
    TAILQ_FOREACH(portal, &pg->pg_portals, p_next) {
      if (portal->p_host != nullptr) {
        out.insert(portal->p_host);
      }
    }
  }
}

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
