// Initiator group transactions: adding and removing groups and the initiators inside them.
#include <strings.h>

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
using namespace internal;  // NOLINT(build/namespaces): this file's own helpers

namespace {

struct initiator_group* RequireGroup(const struct conf* c, const std::string& name) {
  struct initiator_group* ig = initiator_group_find(c, name.c_str());
  if (ig == nullptr) throw OrsaCtlException("Initiator group " + name + " not found");
  return ig;
}

// Initiator names are compared without case, as the model's lookups over groups do.
struct initiator* FindInitiator(const struct initiator_group* ig, const std::string& name) {
  struct initiator* in;
  TAILQ_FOREACH(in, &ig->ig_initiators, in_next) {
    if (strcasecmp(in->in_name, name.c_str()) == 0) return in;
  }
  return nullptr;
}

// How messages name a target: its alias, or its name when it has none.
std::string TargetLabel(const struct target* t) {
  return t->t_alias != nullptr ? t->t_alias : Text(t->t_name);
}

// The targets whose auth group admits `ig`, in file order.
std::vector<struct target*> TargetsUsingGroup(const struct conf* c,
                                              const struct initiator_group* ig) {
  std::vector<struct target*> users;
  struct target* t;
  TAILQ_FOREACH(t, &c->conf_targets, t_next) {
    if (t->t_auth_group == nullptr) continue;
    const struct auth_group_igroup_ref* ref;
    TAILQ_FOREACH(ref, &t->t_auth_group->ag_igroup_refs, ref_next) {
      if (ref->ref_igroup == ig) {
        users.push_back(t);
        break;
      }
    }
  }
  return users;
}

}  // namespace

void AddNewInitiatorgroupToConfFile(const std::string& name) {
  try {
    Util::ValidateInitiatorGroupName(name);
    Util::ChangeConfFile([&](ConfHandle& handle) {
      struct conf* c = handle.GetConf();
      const int count = CountInitiatorGroups(c);
      if (count >= kMaxInitiatorGroups) {
        throw OrsaCtlException("the maximum initiator group allowed per cluster is " +
                               std::to_string(kMaxInitiatorGroups) +
                               ". Current value: " + std::to_string(count) + ".");
      }
      if (initiator_group_find(c, name.c_str()) != nullptr) {
        throw OrsaCtlException("Initiator group " + name + " already exists");
      }
      if (initiator_group_new(c, name.c_str()) == nullptr) {
        throw OrsaCtlException("Failed add new initiator group.");
      }
      return true;
    });
  } catch (const OrsaCtlException& e) {
    throw OrsaCtlException("Failed to add initiator group " + name +
                           " with error: " + e.GetMessage());
  }
  LogInfo("%s: Added new initiator group %s successfully.", kTag, name.c_str());
}

void RemoveInitiatorgroupFromConfFile(const std::string& name, bool force) {
  LogInfo("%s: Remove initiator group %s from conf file (force enabled: %d).", kTag, name.c_str(),
          force ? 1 : 0);
  try {
    std::vector<std::string> takenOffline;
    Util::ChangeConfFile(
        [&](ConfHandle& handle) {
          struct conf* c = handle.GetConf();
          struct initiator_group* ig = RequireGroup(c, name);
          const std::vector<struct target*> users = TargetsUsingGroup(c, ig);
          if (!users.empty() && !force) {
            std::string list;
            for (const struct target* t : users) {
              list += (list.empty() ? "" : ", ") + TargetLabel(t);
            }
            throw OrsaCtlException("Initiator group " + name + " is used by target(s) " + list +
                                   "; remove it from them first or use force");
          }
          initiator_group_delete_all_refs(c, ig);
          initiator_group_delete(ig);
          // A target whose auth group names no initiator and no group any more would admit
          // every initiator: forcing a removal must never open a target to everyone.
          for (struct target* t : users) {
            const struct auth_group* ag = t->t_auth_group;
            if (!TAILQ_EMPTY(&ag->ag_names) || !TAILQ_EMPTY(&ag->ag_igroup_refs)) continue;
            SetTargetOption(t, "status", "offline");
            takenOffline.push_back(TargetLabel(t));
          }
          return true;
        },
        [&](uint64_t) {
          for (const std::string& target : takenOffline) {
            LogWarning(
                "%s: Target %s has no initiator left after removing initiator group %s; taking "
                "it offline",
                kTag, target.c_str(), name.c_str());
          }
        });
  } catch (const OrsaCtlException& e) {
    throw OrsaCtlException("Failed to remove initiator group " + name + " with error " +
                           e.GetMessage());
  }
  LogInfo("%s: Removed initiator group %s successfully.", kTag, name.c_str());
}

void AddInitiatorsToInitiatorgroup(const std::string& name,
                                   const std::vector<std::string>& initiators) {
  LogInfo("%s: Adding %zd initiators to initiator group %s.", kTag, initiators.size(),
          name.c_str());
  size_t added = 0;
  Util::ChangeConfFile([&](ConfHandle& handle) {
    struct conf* c = handle.GetConf();
    struct initiator_group* ig = RequireGroup(c, name);
    // Names already in the group (or twice in the request) are not added again.
    std::vector<std::string> fresh;
    for (const std::string& initiator : initiators) {
      bool known = FindInitiator(ig, initiator) != nullptr;
      for (const std::string& f : fresh)
        known = known || strcasecmp(f.c_str(), initiator.c_str()) == 0;
      if (!known) fresh.push_back(initiator);
    }
    checkInitiatorCount(c, static_cast<int>(fresh.size()));
    for (const std::string& initiator : initiators) Util::ValidateInitiatorIQN(initiator);
    for (const std::string& initiator : fresh) initiator_new(ig, initiator.c_str());
    added = fresh.size();
    return added > 0;
  });
  LogInfo("%s: Added %zd initiators to initiator group %s", kTag, added, name.c_str());
}

void RemoveInitiatorsFromInitiatorgroup(const std::string& name,
                                        const std::vector<std::string>& initiators) {
  LogInfo("%s: Removing %zd initiators from initiator group %s.", kTag, initiators.size(),
          name.c_str());
  size_t removed = 0;
  Util::ChangeConfFile([&](ConfHandle& handle) {
    struct initiator_group* ig = RequireGroup(handle.GetConf(), name);
    for (const std::string& initiator : initiators) {
      struct initiator* in = FindInitiator(ig, initiator);
      if (in == nullptr) {
        LogWarning("%s: Initiator %s is not in initiator group %s", kTag, initiator.c_str(),
                   name.c_str());
        continue;
      }
      initiator_delete(in);
      ++removed;
    }
    return removed > 0;
  });
  LogInfo("%s: Removed %zd initiators successfully from group %s.", kTag, removed, name.c_str());
}

}  // namespace Parser
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
