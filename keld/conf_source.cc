#include "keld/conf_source.h"

#include <limits.h>
#include <strings.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

#include "conf/conf.h"
#include "conf/conf_handle.h"
#include "conf/paths.h"
#include "directory/config_entry.h"
#include "directory/host_queries.h"
#include "directory/lun_paths.h"
#include "platform/clock.h"
#include "platform/directory.h"
#include "platform/exception.h"
#include "platform/host_config.h"
#include "platform/log.h"

namespace kel {
namespace keld {

using HostCtl::Lib::Orsa::OrsaCtlException;
namespace IT = NukCtl::Orsa::IscsiTarget;

namespace {

const char kTag[] = "keld";
// A subscription that failed (directory unreachable) is tried again this much later; every
// attempt logs, and the periodic checks follow the file meanwhile.
const std::chrono::seconds kSubscribeRetry(30);

std::string OptionText(const struct target* t, const char* name) {
  const struct target_option* o = target_option_find(t, name);
  return o != nullptr && o->to_value != nullptr ? o->to_value : "";
}

std::string LunOptionText(const struct lun* l, const char* name) {
  const struct option* o = option_find(&l->l_options, name);
  return o != nullptr && o->o_value != nullptr ? o->o_value : "";
}

// -1 when `text` is not a decimal port number.
int PortNumber(const char* text) {
  if (text == nullptr || *text == '\0') return -1;
  char* end = nullptr;
  long port = strtol(text, &end, 10);
  if (*end != '\0' || port < 0 || port > 65535) return -1;
  return static_cast<int>(port);
}

void FillPortal(const struct target* t, DesiredTarget* d) {
  const struct port* port = keld_target_to_port(t);
  if (port == nullptr || port->p_portal_group == nullptr) return;
  const struct portal* p;
  TAILQ_FOREACH(p, &port->p_portal_group->pg_portals, p_next) {
    if (p->p_host == nullptr || *p->p_host == '\0') continue;
    DesiredPortal portal;
    // The model resolved numeric hosts when it was parsed; anything else names an interface.
    if (p->p_ai != nullptr) {
      portal.address = p->p_host;
    } else {
      portal.interfaceName = p->p_host;
    }
    portal.port = PortNumber(p->p_port);
    d->portals.push_back(portal);
    return;
  }
}

void FillAuth(const struct auth_group* ag, DesiredTarget* d) {
  if (ag == nullptr) return;  // read as No-Authentication, as the management side shows it
  switch (ag->ag_type) {
    case AG_TYPE_DENY:
      d->auth = AuthRule::kDeny;
      break;
    case AG_TYPE_CHAP:
      d->auth = AuthRule::kChap;
      break;
    case AG_TYPE_CHAP_MUTUAL:
      d->auth = AuthRule::kChapMutual;
      break;
    default:
      d->auth = AuthRule::kNone;
      break;
  }
  if (d->auth == AuthRule::kChap || d->auth == AuthRule::kChapMutual) {
    const struct auth* a;
    TAILQ_FOREACH(a, &ag->ag_auths, a_next) {
      ChapCredential c;
      c.user = a->a_user != nullptr ? a->a_user : "";
      c.secret = a->a_secret != nullptr ? a->a_secret : "";
      if (d->auth == AuthRule::kChapMutual) {
        c.mutualUser = a->a_mutual_user != nullptr ? a->a_mutual_user : "";
        c.mutualSecret = a->a_mutual_secret != nullptr ? a->a_mutual_secret : "";
      }
      d->chap.push_back(c);
    }
  }
  const struct auth_name* an;
  TAILQ_FOREACH(an, &ag->ag_names, an_next) {
    d->initiatorsRestricted = true;
    if (an->an_initiator != nullptr) d->initiators.push_back(an->an_initiator);
  }
  const struct auth_group_igroup_ref* ref;
  TAILQ_FOREACH(ref, &ag->ag_igroup_refs, ref_next) {
    d->initiatorsRestricted = true;
    if (ref->ref_igroup == nullptr) continue;
    const struct initiator* in;
    TAILQ_FOREACH(in, &ref->ref_igroup->ig_initiators, in_next) {
      if (in->in_name != nullptr) d->initiators.push_back(in->in_name);
    }
  }
}

void FillLuns(const struct target* t, DesiredTarget* d) {
  for (int i = 0; i < MAX_LUNS; ++i) {
    const struct lun* l = t->t_luns[i];
    if (l == nullptr) continue;
    DesiredLun lun;
    lun.id = i;
    if (l->l_path != nullptr && l->l_path[0] == '/') {
      lun.path = l->l_path;  // a hand-written absolute path is taken as it is
    } else {
      char path[PATH_MAX];
      if (GetLunAbsPath(l, sizeof(path), path) == NUK_OK) lun.path = path;
    }
    lun.offline = lun_is_offline(l);
    lun.alias = LunOptionText(l, "lun-alias");
    lun.naa = LunOptionText(l, "naa");
    d->luns.push_back(lun);
  }
}

bool SameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
         a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
         a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

bool SameUuid(const std::string& a, const std::string& b) {
  return !a.empty() && a.size() == b.size() && strcasecmp(a.c_str(), b.c_str()) == 0;
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string ReadLinkText(const std::string& path) {
  char buf[PATH_MAX];
  ssize_t n = readlink(path.c_str(), buf, sizeof(buf) - 1);
  return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

}  // namespace

// The configuration entry callback is a plain function, so it finds the watching source through
// gWatch.
struct ConfSourceWatch {
  std::function<void()> wake;
  std::atomic<bool> notified{false};
};

namespace {

std::mutex gWatchMutex;
std::shared_ptr<ConfSourceWatch> gWatch;  // guarded by gWatchMutex

// The callback of the configuration entry subscription (directory notification thread). Any
// notification counts, a deleted or unreadable entry included: the file is what gets read.
void OnConfigEntryChange(void* handle, NUK_ReturnStatus status) {
  (void)handle;
  (void)status;
  std::lock_guard<std::mutex> guard(gWatchMutex);
  if (!gWatch) return;
  gWatch->notified.store(true);
  if (gWatch->wake) gWatch->wake();
}

}  // namespace

std::vector<ConfTarget> ConfTargetsFromModel(const struct conf* conf) {
  std::vector<ConfTarget> out;
  if (conf == nullptr) return out;
  const struct target* t;
  TAILQ_FOREACH(t, &conf->conf_targets, t_next) {
    ConfTarget ct;
    DesiredTarget& d = ct.target;
    d.iqn = t->t_name != nullptr ? t->t_name : "";
    d.alias = t->t_alias != nullptr ? t->t_alias : "";
    d.uuid = OptionText(t, "uuid");
    ct.ownerId = OptionText(t, "owner-id");
    if (ct.ownerId.empty()) ct.ownerId = d.uuid;
    d.offline = target_is_offline(t);
    FillPortal(t, &d);
    FillAuth(t->t_auth_group, &d);
    FillLuns(t, &d);
    out.push_back(std::move(ct));
  }
  return out;
}

KelConfStateSource::KelConfStateSource() = default;

KelConfStateSource::~KelConfStateSource() { Unsubscribe(); }

std::string KelConfStateSource::Describe() const {
  return "kel.conf " + IT::Util::GetConfFilePath();
}

void KelConfStateSource::Watch(std::function<void()> wake) {
  auto state = std::make_shared<ConfSourceWatch>();
  state->wake = std::move(wake);
  {
    std::lock_guard<std::mutex> guard(gWatchMutex);
    gWatch = state;
  }
  watch_ = state;
  nextSubscribe_ = {};
  KeepSubscribed();
}

void KelConfStateSource::Unsubscribe() {
  if (subscription_ != nullptr) {
    KeldLodexUnsubscribeToConfigEntry(subscription_);
    subscription_ = nullptr;
    subscribedNamespace_.clear();
  }
  if (watch_) {
    std::lock_guard<std::mutex> guard(gWatchMutex);
    if (gWatch == watch_) gWatch.reset();
  }
}

// The entry is keyed by the configuration namespace's UUID, so the subscription is made once the
// namespace exists and made again when it was re-created under a new UUID.
void KelConfStateSource::KeepSubscribed() {
  if (!watch_) return;
  const std::string ns = ReadLinkText(IT::Util::GetConfigNamespacePath());
  if (subscription_ != nullptr && ns == subscribedNamespace_) return;
  if (subscription_ != nullptr) {
    KeldLodexUnsubscribeToConfigEntry(subscription_);
    subscription_ = nullptr;
    subscribedNamespace_.clear();
  }
  if (ns.empty()) return;  // not created yet: nothing to subscribe to
  auto now = platform::GetClock().Now();
  if (now < nextSubscribe_) return;
  void* handle = nullptr;
  NUK_ReturnStatus st = KeldLodexSubscribeToConfigEntry(OnConfigEntryChange, &handle);
  if (st != NUK_OK) {
    LogWarning("%s: Cannot follow the configuration entry (%s); checking kel.conf periodically\n",
               kTag, NUK_ReturnStatusToString(st));
    nextSubscribe_ = now + kSubscribeRetry;
    return;
  }
  subscription_ = handle;
  subscribedNamespace_ = ns;
  LogInfo("%s: Following the configuration entry of namespace %s\n", kTag, ns.c_str());
}

void KelConfStateSource::ReadIfChanged() {
  if (watch_ && watch_->notified.exchange(false)) fresh_ = false;
  const std::string path = IT::Util::GetConfFilePath();
  struct stat now;
  if (stat(path.c_str(), &now) != 0) {
    int err = errno;
    if (err != ENOENT && err != ENOTDIR) {
      throw OrsaCtlException("Cannot read " + path + ": " + strerror(err));
    }
    parsed_.clear();
    generation_ = 0;
    have_file_ = false;
    fresh_ = true;
    return;
  }
  if (fresh_ && have_file_ && SameFile(now, stat_)) return;

  std::vector<ConfTarget> parsed;
  uint64_t generation = 0;
  struct stat locked = {};
  {
    IT::ConfHandle handle(IT::ConfHandle::kShared);
    parsed = ConfTargetsFromModel(handle.GetConf());
    generation = handle.GetCurrentGenerationNum();
    // Writers replace the file only under the exclusive lock, so while ours is held this is the
    // file just parsed.
    if (stat(handle.GetPath().c_str(), &locked) != 0) locked = {};
  }
  parsed_ = std::move(parsed);
  generation_ = generation;
  stat_ = locked;
  have_file_ = true;
  fresh_ = true;
}

DesiredState KelConfStateSource::Load() {
  KeepSubscribed();
  ReadIfChanged();
  DesiredState state;
  if (parsed_.empty()) return state;

  const std::string self = IT::Util::GetNodeUuid();
  // One listing answers for every recorded object; the others go through the owner query, which
  // knows what an object without a record means on this directory.
  std::map<std::string, platform::ObjectOwner> owners;
  NUK_ReturnStatus st = platform::GetDirectory()->ListObjectOwners(&owners);
  if (st != NUK_OK && st != NUK_NOT_FOUND) {
    throw OrsaCtlException(std::string("Failed to read the target owners: ") +
                           NUK_ReturnStatusToString(st));
  }
  const bool one_host = platform::CurrentHostConfig()->directoryBackend == "embedded";
  for (const ConfTarget& ct : parsed_) {
    std::string owner;
    if (ct.ownerId.empty()) {
      owner = one_host ? self : "";
    } else {
      auto it = owners.find(Lower(ct.ownerId));
      owner =
          it != owners.end() ? it->second.hostUuid : IT::Util::GetTargetOwnerHostUuid(ct.ownerId);
    }
    if (!SameUuid(owner, self)) continue;
    DesiredTarget d = ct.target;
    for (DesiredPortal& p : d.portals) p.ownerHostUuid = self;
    state.targets.push_back(std::move(d));
  }
  return state;
}

}  // namespace keld
}  // namespace kel
