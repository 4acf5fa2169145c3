// Target transactions: creation, update inside the caller's handle, removal, status.
#include <strings.h>

#include <cctype>
#include <cstdlib>
#include <string>
#include <vector>

#include "conf/conf.h"
#include "conf/conf_handle.h"
#include "confedit/parser_edit.h"
#include "confedit/parser_internal.h"
#include "host/validation.h"
#include "platform/exception.h"
#include "platform/log.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Parser {

using HostCtl::Lib::Orsa::OrsaCtlException;
using HostCtl::Orsa::IscsiTarget::TargetCreateParam;
using namespace internal;  // NOLINT(build/namespaces): this file's own helpers

namespace {

// Everything of the request that is written into kel.conf as a bare word must read back as one.
void VerifyWrittenValues(const TargetCreateParam& param) {
  Util::VerifyTargetConfValues(param);
  Util::VerifyNetworkInterfaceName(param.networkInterface);
}

void ApplyAffinity(struct target* t, const std::string& alias, const std::string& site) {
  if (site.empty()) return;
  if (site == "None") {
    ClearTargetOption(t, "fault-domain");
    LogInfo("%s: Clear affinity for target %s", kTag, alias.c_str());
    return;
  }
  SetTargetOption(t, "fault-domain", site);
  LogInfo("%s: Update affinity faultDomain: %s", kTag, site.c_str());
}

// Gives the target a new name. Its ports are named after it, so they are linked again; its LUN
// names are derived from it as well, but only when the file is parsed, and nothing in this
// transaction looks a LUN up by name after the rename.
void RenameTarget(struct conf* c, struct target* t, const std::string& alias,
                  const std::string& iqn) {
  if (target_find(c, iqn.c_str()) != nullptr) {
    throw OrsaCtlException("Target with IQN " + iqn + " already exists");
  }
  TargetCreateParam names;
  names.alias = alias;
  names.iqn = iqn;
  Util::VerifyTargetParams(names);
  if (!valid_iscsi_name(iqn.c_str())) throw OrsaCtlException("Target name " + iqn + " is invalid");
  LogInfo("%s: Renaming target %s from %s to %s", kTag, alias.c_str(), t->t_name, iqn.c_str());
  std::vector<struct portal_group*> groups;
  struct port* p;
  while ((p = TAILQ_FIRST(&t->t_ports)) != nullptr) {
    if (p->p_portal_group != nullptr) groups.push_back(p->p_portal_group);
    port_delete(p);
  }
  char* name = checked_strdup(Lower(iqn).c_str());
  free(t->t_name);
  t->t_name = name;
  for (struct portal_group* pg : groups) {
    if (port_new(c, t, pg) == nullptr) {
      throw OrsaCtlException("Failed to link portal-group " + Text(pg->pg_name) + " to target " +
                             alias);
    }
  }
}

}  // namespace

void UpdateTargetStatus(const TargetCreateParam& param, struct target* t) {
  if (param.status.empty()) return;
  Util::VerifyTargetStatus(param.status);
  LogInfo("%s: Updating target %s status to %s", kTag, param.alias.c_str(), param.status.c_str());
  SetTargetOption(t, "status", param.status);
}

void AddNewTargetToConfFile(TargetCreateParam& param, bool& changed) {
  changed = false;
  LogInfo("%s: Adding new target to conf file.", kTag);
  try {
    // The name, the alias and the CHAP texts are written too.
    Util::VerifyTargetParams(param);
    VerifyWrittenValues(param);
    Util::ChangeConfFile(
        [&](ConfHandle& handle) {
          struct conf* c = handle.GetConf();
          if (CountTargets(c) >= kMaxTargets) {
            throw OrsaCtlException("Limit on total number of targets (" +
                                   std::to_string(kMaxTargets) + ") has been reached.");
          }
          if (FindTargetByAlias(c, param.alias) != nullptr) {
            throw OrsaCtlException("Target " + param.alias + " already exists");
          }
          if (param.uuid.empty()) {
            throw OrsaCtlException("Target " + param.alias + " has no uuid to name its auth group");
          }
          if (target_find(c, param.iqn.c_str()) != nullptr) {
            throw OrsaCtlException("Target with IQN " + param.iqn + " already exists");
          }
          struct target* t = target_new(c, param.iqn.c_str());
          if (t == nullptr) throw OrsaCtlException("Failed to add target " + param.iqn);
          if (!param.alias.empty()) t->t_alias = checked_strdup(param.alias.c_str());
          SetTargetOption(t, "uuid", param.uuid);
          // The target's own namespace object decides which host serves it.
          SetTargetOption(t, "owner-id", param.uuid);
          if (param.affinitySite != "None") ApplyAffinity(t, param.alias, param.affinitySite);
          if (param.status == "offline") UpdateTargetStatus(param, t);

          if (param.networkInterface.empty()) {
            struct portal_group* pg = portal_group_find(c, "default");
            if (pg == nullptr || port_new(c, t, pg) == nullptr) {
              throw OrsaCtlException("Failed to link portal-group default to target " +
                                     param.alias);
            }
          } else {
            UpdateTargetPortal(c, t, param.alias, param.networkInterface, param.port);
          }

          if (param.authType.empty()) {
            // The shared group; ApplyTargetInitiators moves the target to a copy of it when it
            // has initiators of its own.
            t->t_auth_group = auth_group_find(c, "default");
          } else {
            UpdateTargetAuth(c, t, param.alias, param.authType, param.chapName, param.chapSecret,
                             param.mutualChapName, param.mutualChapSecret);
          }
          ApplyTargetInitiators(c, t, param.alias, param.initiators, false);
          return true;
        },
        [&](uint64_t) { changed = true; });
  } catch (const OrsaCtlException& e) {
    // Once written, the target exists; only the change action failed, and the caller hears it.
    if (!changed) {
      LogError("%s: Failed to add target %s to conf file with error %s", kTag, param.alias.c_str(),
               e.GetMessage().c_str());
    }
    throw;
  }
  LogInfo("%s: Added target %s successfully.", kTag, param.alias.c_str());
}

void UpdateTargetConf(const TargetCreateParam& param, ConfHandle& handle) {
  VerifyWrittenValues(param);
  struct conf* c = handle.GetConf();
  struct target* t = RequireTargetByAlias(c, param.alias);
  if (TargetOptionValue(t, "uuid").empty() && !param.uuid.empty()) {
    SetTargetOption(t, "uuid", param.uuid);
  }
  if (!param.iqn.empty() && strcasecmp(param.iqn.c_str(), t->t_name) != 0) {
    RenameTarget(c, t, param.alias, param.iqn);
  }
  if (!param.networkInterface.empty()) {
    UpdateTargetPortal(c, t, param.alias, param.networkInterface, param.port);
  }
  if (!param.authType.empty()) {
    UpdateTargetAuth(c, t, param.alias, param.authType, param.chapName, param.chapSecret,
                     param.mutualChapName, param.mutualChapSecret);
  }
  ApplyTargetInitiators(c, t, param.alias, param.initiators, true);
  ApplyAffinity(t, param.alias, param.affinitySite);
  UpdateTargetStatus(param, t);
}

void RemoveTargetFromConfFile(std::string alias, const std::function<void(uint64_t)>& written) {
  LogInfo("%s: Removing target alias %s from config file", kTag, alias.c_str());
  try {
    Util::ChangeConfFile(
        [&](ConfHandle& handle) {
          struct conf* c = handle.GetConf();
          struct target* t = RequireTargetByAlias(c, alias);
          const std::string uuid = TargetOptionValue(t, "uuid");
          struct port* p = keld_target_to_port(t);
          struct portal_group* pg = p != nullptr ? p->p_portal_group : nullptr;
          // The LUNs live inside the target in the file; left in the model they would only linger
          // unnumbered until the next parse.
          for (struct lun*& slot : t->t_luns) {
            if (slot != nullptr) lun_delete(slot);
          }
          target_delete(t);
          struct auth_group* own = uuid.empty() ? nullptr : auth_group_find(c, uuid.c_str());
          if (own != nullptr && TargetsUsingAuthGroup(c, own) == 0) auth_group_delete(own);
          CleanupPortalGroup(pg);
          return true;
        },
        written);
  } catch (const OrsaCtlException& e) {
    LogError("%s: Failed to remove target %s from conf file with error %s", kTag, alias.c_str(),
             e.GetMessage().c_str());
    throw;
  }
  LogInfo("%s: Removed target successfully.", kTag);
}

}  // namespace Parser
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
