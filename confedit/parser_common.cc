// Helpers shared by the Parser transactions, the change action and the cluster initiator limit.
#include <strings.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <exception>
#include <set>

#include "conf/conf.h"
#include "conf/conf_handle.h"
#include "conf/paths.h"
#include "confedit/parser_edit.h"
#include "confedit/parser_internal.h"
#include "directory/config_cache.h"
#include "directory/config_entry.h"
#include "directory/lun_paths.h"
#include "host/daemon_control.h"
#include "host/service_state.h"
#include "host/validation.h"
#include "platform/clog.h"
#include "platform/creation_journal.h"
#include "platform/datastore.h"
#include "platform/disk_lun_api.h"
#include "platform/exception.h"
#include "platform/fs.h"
#include "platform/log.h"
#include "platform/status.h"
#include "storage/lun_disk.h"
#include "storage/namespace.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {

using HostCtl::Lib::Orsa::OrsaCtlException;

namespace Parser {
namespace internal {

const char* const kTag = "Parser";
const char* const kServiceTag = "OrsaIscsiTargetImpl";

namespace {

constexpr int kLunPathBufferLen = 1024;

// Initiator names compare without case, as the model's own lookups do.
struct CaseInsensitiveLess {
  bool operator()(const std::string& a, const std::string& b) const {
    return strcasecmp(a.c_str(), b.c_str()) < 0;
  }
};

void CopyCredentials(struct auth_group* to, const struct auth_group* from) {
  if (from == nullptr) {
    to->ag_type = AG_TYPE_NO_AUTHENTICATION;
    return;
  }
  const struct auth* a;
  TAILQ_FOREACH(a, &from->ag_auths, a_next) {
    if (from->ag_type == AG_TYPE_CHAP_MUTUAL && a->a_mutual_user != nullptr) {
      auth_new_chap_mutual(to, a->a_user, a->a_secret, a->a_mutual_user,
                           a->a_mutual_secret != nullptr ? a->a_mutual_secret : "", false);
    } else {
      auth_new_chap(to, a->a_user, a->a_secret, false);
    }
  }
  to->ag_type = from->ag_type;
}

void DeleteCredentials(struct auth_group* ag) {
  struct auth* a;
  while ((a = TAILQ_FIRST(&ag->ag_auths)) != nullptr) auth_delete(a);
}

}  // namespace

std::string Text(const char* s) { return s != nullptr ? std::string(s) : std::string(); }

std::string Lower(std::string s) {
  for (char& ch : s) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  return s;
}

struct target* FindTargetByAlias(const struct conf* c, const std::string& alias) {
  struct target* t;
  TAILQ_FOREACH(t, &c->conf_targets, t_next) {
    if (t->t_alias != nullptr && alias == t->t_alias) return t;
  }
  return nullptr;
}

struct target* RequireTargetByAlias(const struct conf* c, const std::string& alias) {
  struct target* t = FindTargetByAlias(c, alias);
  if (t == nullptr) throw OrsaCtlException("Target " + alias + " not found");
  return t;
}

int CountTargets(const struct conf* c) {
  int n = 0;
  const struct target* t;
  TAILQ_FOREACH(t, &c->conf_targets, t_next)++ n;
  return n;
}

int CountUsedLunSlots(const struct conf* c) {
  int n = 0;
  const struct target* t;
  TAILQ_FOREACH(t, &c->conf_targets, t_next) {
    for (const struct lun* l : t->t_luns) {
      if (l != nullptr) ++n;
    }
  }
  return n;
}

int CountInitiatorGroups(const struct conf* c) {
  int n = 0;
  const struct initiator_group* ig;
  TAILQ_FOREACH(ig, &c->conf_initiator_groups, ig_next)++ n;
  return n;
}

std::string TargetOptionValue(const struct target* t, const char* name) {
  const struct target_option* to = target_option_find(t, name);
  return to != nullptr ? Text(to->to_value) : std::string();
}

void SetTargetOption(struct target* t, const char* name, const std::string& value) {
  if (struct target_option* to = target_option_find(t, name)) {
    char* copy = checked_strdup(value.c_str());
    free(to->to_value);
    to->to_value = copy;
    return;
  }
  if (target_option_new(t, name, value.c_str()) == nullptr) {
    throw OrsaCtlException("Failed to set option " + std::string(name) + " of target " +
                           Text(t->t_name));
  }
}

void ClearTargetOption(struct target* t, const char* name) {
  if (struct target_option* to = target_option_find(t, name)) target_option_delete(to);
}

void SetLunOption(struct lun* l, const char* name, const std::string& value) {
  if (struct option* o = option_find(&l->l_options, name)) {
    option_set(o, value.c_str());
    return;
  }
  if (option_new(&l->l_options, name, value.c_str()) == nullptr) {
    throw OrsaCtlException("Failed to set option " + std::string(name) + " of LUN " +
                           Text(l->l_name));
  }
}

void ClearLunOption(struct lun* l, const char* name) {
  if (struct option* o = option_find(&l->l_options, name)) option_delete(&l->l_options, o);
}

bool IsOwnAuthGroup(const struct target* t, const struct auth_group* ag) {
  if (ag == nullptr || ag->ag_name == nullptr) return false;
  const std::string uuid = TargetOptionValue(t, "uuid");
  return !uuid.empty() && uuid == ag->ag_name;
}

int TargetsUsingAuthGroup(const struct conf* c, const struct auth_group* ag) {
  int n = 0;
  const struct target* t;
  TAILQ_FOREACH(t, &c->conf_targets, t_next) {
    if (t->t_auth_group == ag) ++n;
  }
  return n;
}

struct auth_group* EnsureOwnAuthGroup(struct conf* c, struct target* t,
                                      const struct auth_group* copyFrom) {
  const std::string uuid = TargetOptionValue(t, "uuid");
  if (uuid.empty()) {
    throw OrsaCtlException("Target " + Text(t->t_alias) + " has no uuid to name its auth group");
  }
  struct auth_group* ag = auth_group_find(c, uuid.c_str());
  if (ag == nullptr) {
    ag = auth_group_new(c, uuid.c_str());
    if (ag == nullptr) throw OrsaCtlException("Failed to create auth-group " + uuid);
    CopyCredentials(ag, copyFrom);
  }
  ag->ag_target = t;
  t->t_auth_group = ag;
  return ag;
}

void UpdateTargetAuth(struct conf* c, struct target* t, const std::string& alias,
                      const std::string& type, const std::string& user, const std::string& secret,
                      const std::string& mutualUser, const std::string& mutualSecret) {
  // Credentials are replaced below, so nothing needs copying from a shared group.
  struct auth_group* ag = EnsureOwnAuthGroup(c, t, nullptr);
  LogInfo("%s: Updating auth type '%s' for target %s", kTag, type.c_str(), alias.c_str());
  const std::string lower = Lower(type);
  DeleteCredentials(ag);
  const std::string name = Text(ag->ag_name);
  if (lower == "chap") {
    if (auth_new_chap(ag, user.c_str(), secret.c_str(), false) == nullptr) {
      throw OrsaCtlException("Failed to update auth type 'CHAP' for auth-group " + name);
    }
  } else if (lower == "chap-mutual") {
    if (auth_new_chap_mutual(ag, user.c_str(), secret.c_str(), mutualUser.c_str(),
                             mutualSecret.c_str(), false) == nullptr) {
      // kept as is: no blank before the group name.
      throw OrsaCtlException("Failed to update auth type 'CHAP-Mutual' for auth-group" + name);
    }
  } else if (lower == "no-authentication") {
    ag->ag_type = AG_TYPE_NO_AUTHENTICATION;
  }
}

void CleanupPortalGroup(struct portal_group* pg) {
  if (pg == nullptr || pg->pg_name == nullptr || strcmp(pg->pg_name, "default") == 0) return;
  if (!TAILQ_EMPTY(&pg->pg_ports)) return;  // another target still listens there
  const std::string name = pg->pg_name;
  portal_group_delete(pg);
  LogInfo("%s: Deleted portal-group %s successfully.", kTag, name.c_str());
}

void UpdateTargetPortal(struct conf* c, struct target* t, const std::string& alias,
                        const std::string& nic, int port) {
  LogInfo("%s: Updating target %s with interface %s and port number %d", kTag, alias.c_str(),
          nic.c_str(), port);
  const std::string listen = nic + ":" + std::to_string(port);
  const std::string name = "pg-" + nic + "-" + std::to_string(port);
  struct portal_group* pg = portal_group_find(c, name.c_str());
  struct port* current = keld_target_to_port(t);
  if (pg != nullptr && current != nullptr && current->p_portal_group == pg) return;
  if (pg == nullptr) {
    pg = portal_group_new(c, name.c_str());
    if (pg == nullptr) throw OrsaCtlException("Failed to create portal-group " + name);
    pg->pg_discovery_auth_group = auth_group_find(c, "no-authentication");
    if (portal_group_add_listen(pg, listen.c_str(), false) != 0) {
      throw OrsaCtlException("Failed to add listen address " + listen + " to portal-group " + name);
    }
  }
  struct portal_group* old = current != nullptr ? current->p_portal_group : nullptr;
  // One portal-group link per target: the writer only keeps the first one anyway.
  struct port* p;
  while ((p = TAILQ_FIRST(&t->t_ports)) != nullptr) port_delete(p);
  if (old != pg) CleanupPortalGroup(old);
  if (port_new(c, t, pg) == nullptr) {
    throw OrsaCtlException("Failed to link portal-group " + name + " to target " + alias);
  }
}

void ApplyTargetInitiators(struct conf* c, struct target* t, const std::string& alias,
                           const std::vector<std::string>& initiators, bool removeMissing) {
  std::vector<std::string> iqns;
  std::vector<std::string> groups;
  std::set<std::string, CaseInsensitiveLess> wantedIqns;
  std::set<std::string> wantedGroups;
  for (const std::string& entry : initiators) {
    if (Util::IsValidInitiatorIQN(entry)) {
      if (wantedIqns.insert(entry).second) iqns.push_back(entry);
    } else if (wantedGroups.insert(entry).second) {
      groups.push_back(entry);
    }
  }

  struct auth_group* ag = t->t_auth_group;
  std::set<std::string, CaseInsensitiveLess> currentIqns;
  std::set<std::string> currentGroups;
  if (ag != nullptr) {
    const struct auth_name* an;
    TAILQ_FOREACH(an, &ag->ag_names, an_next) currentIqns.insert(an->an_initiator);
    const struct auth_group_igroup_ref* ref;
    TAILQ_FOREACH(ref, &ag->ag_igroup_refs, ref_next) {
      currentGroups.insert(Text(ref->ref_igroup->ig_name));
    }
  }
  bool change = false;
  for (const std::string& iqn : iqns) change = change || currentIqns.count(iqn) == 0;
  for (const std::string& group : groups) change = change || currentGroups.count(group) == 0;
  if (removeMissing) {
    for (const std::string& iqn : currentIqns) change = change || wantedIqns.count(iqn) == 0;
    for (const std::string& g : currentGroups) change = change || wantedGroups.count(g) == 0;
  }
  if (!change) return;

  // Initiator names of one target must not leak into a group that other targets share.
  if (!IsOwnAuthGroup(t, ag)) ag = EnsureOwnAuthGroup(c, t, ag);

  if (removeMissing) {
    struct auth_name* an = TAILQ_FIRST(&ag->ag_names);
    while (an != nullptr) {
      struct auth_name* next = TAILQ_NEXT(an, an_next);
      if (wantedIqns.count(an->an_initiator) == 0) {
        LogInfo("%s: Removing initiator iSCSI name %s from target %s.", kTag, an->an_initiator,
                alias.c_str());
        auth_name_delete(an);
      }
      an = next;
    }
    struct auth_group_igroup_ref* ref = TAILQ_FIRST(&ag->ag_igroup_refs);
    while (ref != nullptr) {
      struct auth_group_igroup_ref* next = TAILQ_NEXT(ref, ref_next);
      const std::string name = Text(ref->ref_igroup->ig_name);
      if (wantedGroups.count(name) == 0) {
        // kept as is: "intiator".
        LogInfo("%s: Removing intiator group %s from target %s", kTag, name.c_str(), alias.c_str());
        auth_group_igroup_ref_remove(ag, ref);
      }
      ref = next;
    }
  }

  std::vector<std::string> newIqns;
  for (const std::string& iqn : iqns) {
    if (auth_name_find(ag, iqn.c_str()) == nullptr) newIqns.push_back(iqn);
  }
  checkInitiatorCount(c, static_cast<int>(newIqns.size()));

  for (const std::string& iqn : newIqns) {
    LogInfo("%s: Adding initiator iSCSI name %s to target %s.", kTag, iqn.c_str(), alias.c_str());
    auth_name_new(ag, iqn.c_str());
  }
  for (const std::string& group : groups) {
    LogInfo("%s: %s is not a valid initiator IQN taking it as an initiator group name", kTag,
            group.c_str());
    if (auth_group_igroup_ref_find(ag, group.c_str()) != nullptr) continue;
    LogInfo("%s: Adding initiator group %s to target %s", kTag, group.c_str(), alias.c_str());
    if (auth_group_igroup_ref_add(c, ag, group.c_str()) != 0) {
      // The model's own refusal text (two blanks kept).
      throw OrsaCtlException("initiator group  \"" + group + "\" not found");
    }
  }
}

uint64_t RequestedSectors(const HostCtl::Orsa::IscsiTarget::LunInfo& info) {
  if (info.sizeSectors != 0) return info.sizeSectors;
  if (!info.sizeText.empty()) return Util::GetLunSizeInSectors(info.sizeText);
  return 0;
}

std::string LunAbsPath(const struct lun* l) {
  char path[kLunPathBufferLen];
  NUK_ReturnStatus status = GetLunAbsPath(l, sizeof(path), path);
  if (status != NUK_OK) {
    throw OrsaCtlException(std::string("Failed to get lun absolute path: ") +
                           NUK_ReturnStatusToString(status));
  }
  Util::RequirePathInDatastore(path);
  return path;
}

void RemoveLunSidecarFiles(const std::string& diskPath) {
  kel::platform::Fs& fs = kel::platform::GetFs();
  for (const std::string& path :
       {Util::GetLunPRFilePath(diskPath), Util::GetPemoLockFilePath(diskPath)}) {
    int err = fs.Unlink(path);
    if (err != 0 && err != ENOENT) {
      LogWarning("%s: Failed to remove %s: %s", kTag, path.c_str(),
                 kel::platform::ErrnoText(err).c_str());
    }
  }
}

}  // namespace internal

using internal::kTag;

void InitKelParserLib() {
  LogInfo("%s: Initializing KEL parser lib", kTag);
  log_init(4);
}

void checkInitiatorCount(struct conf* c, int newCount) {
  if (newCount < 1) return;
  long count = 0;
  const struct target* t;
  TAILQ_FOREACH(t, &c->conf_targets, t_next) {
    // A group shared by several targets counts once per target.
    if (t->t_auth_group == nullptr) continue;
    const struct auth_name* an;
    TAILQ_FOREACH(an, &t->t_auth_group->ag_names, an_next) {
      if (Util::IsValidInitiatorIQN(an->an_initiator)) ++count;
    }
  }
  const struct initiator_group* ig;
  TAILQ_FOREACH(ig, &c->conf_initiator_groups, ig_next) {
    const struct initiator* in;
    TAILQ_FOREACH(in, &ig->ig_initiators, in_next)++ count;
  }
  if (count + newCount > kMaxInitiators) {
    throw OrsaCtlException(
        "the maximum initiators allowed per cluster is: " + std::to_string(kMaxInitiators) +
        ". Current initiator count: " + std::to_string(count) +
        ". New initiators count: " + std::to_string(newCount) + ".");
  }
}

}  // namespace Parser

namespace Util {

namespace {

void DropCachedConfig() {
  try {
    ConfigCache::CleanupCachedConfig();
  } catch (const OrsaCtlException& e) {
    LogWarning("%s: Failed to drop the cached config: %s", Parser::internal::kTag,
               e.GetMessage().c_str());
  }
}

}  // namespace

void SweepAbandonedObjects(const struct conf* c) {
  const std::string datastore = kel::platform::DatastorePath();
  std::set<std::string> named;
  bool namedKnown = false;
  kel::platform::JournalSweep([&](const std::string& path) {
    if (!namedKnown) {
      namedKnown = true;
      const struct target* t;
      TAILQ_FOREACH(t, &c->conf_targets, t_next) {
        const std::string uuid = Parser::internal::TargetOptionValue(t, "uuid");
        if (!uuid.empty()) {
          named.insert(datastore + "/" + uuid);
          named.insert(GetTargetsDirPath() + "/" + uuid);
        }
        for (const struct lun* l : t->t_luns) {
          if (l == nullptr || l->l_path == nullptr) continue;
          try {
            named.insert(l->l_path[0] == '/' ? l->l_path : Parser::internal::LunAbsPath(l));
          } catch (const OrsaCtlException&) {
          }
        }
      }
    }
    if (named.count(path) != 0) return;
    // Only ever what lies in the datastore, whatever a journal says.
    if (path.compare(0, datastore.size() + 1, datastore + "/") != 0 ||
        path.find("/../") != std::string::npos) {
      LogWarning("%s: Journal names %s outside the datastore; left alone", Parser::internal::kTag,
                 path.c_str());
      return;
    }
    kel::platform::Fs& fs = kel::platform::GetFs();
    kel::platform::FileInfo info;
    if (fs.Lstat(path, &info) != 0) return;  // never made, or already gone
    const size_t slash = path.find_last_of('/');
    const std::string name = path.substr(slash + 1);
    try {
      if (info.isDir && path.substr(0, slash) == datastore && name.find('.') == std::string::npos) {
        NukCtl::Storage::DiskLunApi::DeleteNamespace(datastore, name, NewOperationId());
      } else if (info.isDir) {
        fs.RemoveTree(path);
      } else if (info.isRegular) {
        NukCtl::Storage::DiskLunApi::RemoveVirtualDisk(path, NewOperationId());
      } else {
        fs.Unlink(path);
      }
    } catch (const OrsaCtlException& e) {
      LogWarning("%s: Cannot remove abandoned %s: %s", Parser::internal::kTag, path.c_str(),
                 e.GetMessage().c_str());
    }
  });
}

void CheckGenerationAheadOfDirectory(const ConfHandle& handle) {
  uint64_t published = 0;
  // Nothing published yet, or a directory that cannot answer: the publication after the write
  // reports the latter.
  if (KeldGetConfigGenNumInLodex(&published) != NUK_OK) return;
  const uint64_t current = handle.GetCurrentGenerationNum();
  if (current < UINT64_MAX && current + 1 > published) return;
  throw OrsaCtlException(
      handle.GetPath() + " holds generation " + std::to_string(current) + ", but generation " +
      std::to_string(published) +
      " was already published in the directory: the file was replaced or emptied outside kel. "
      "Nothing was changed. Restore the newest copy of kel.conf (the host agent keeps one at " +
      ConfHandle::BackupPath() + ") and retry.");
}

uint64_t ChangeConfFile(const std::function<bool(ConfHandle&)>& edit,
                        const std::function<void(uint64_t)>& written) {
  uint64_t generation = Parser::internal::kNothingWritten;
  std::exception_ptr failure;
  std::string path;
  {
    ConfHandle handle(ConfHandle::kExclusive);
    SweepAbandonedObjects(handle.GetConf());
    if (!edit(handle)) return generation;
    CheckGenerationAheadOfDirectory(handle);
    path = handle.GetPath();
    try {
      generation = handle.WriteConfFile();
    } catch (const OrsaCtlException&) {
      // Only the directory sync after the swap failed: the new file is what everyone reads now,
      // so it is published and the failure reported like a failed publication.
      if (handle.GetFileGenerationNum() != handle.GetCurrentGenerationNum()) throw;
      generation = handle.GetFileGenerationNum();
      failure = std::current_exception();
    }
    if (written) written(generation);
    try {
      DoActionForConfigChange(generation);
    } catch (const OrsaCtlException&) {
      if (!failure) failure = std::current_exception();
    }
  }
  if (!failure) {
    try {
      ApplyConfigChange(generation);
      return generation;
    } catch (const OrsaCtlException&) {
      failure = std::current_exception();
    }
  }
  // The file changed all the same: the cached model is older than it.
  DropCachedConfig();
  try {
    std::rethrow_exception(failure);
  } catch (const OrsaCtlException& e) {
    // The caller must be able to tell a refused change from a saved one that a later step failed.
    kel::log::NoteFailureReason(Parser::internal::kTag, e.GetMessage(),
                                "the change is saved: " + path + " now holds generation " +
                                    std::to_string(generation) +
                                    "; only the step after the write failed");
    throw;
  }
}

void ApplyConfigChange(uint64_t generation) {
  if (generation == Parser::internal::kNothingWritten) return;
  // Whatever happens to the reload, the cached model is older than the file.
  DropCachedConfig();
  // A host whose service is disabled runs no daemon (the namespace is created before the service
  // is enabled): there is nothing to reload, and asking would fail.
  bool enabled = false;
  LoadConfig(enabled);
  if (enabled) ReloadKeld();
}

}  // namespace Util

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
