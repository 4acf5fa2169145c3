#include "conf/conf.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <strings.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <unordered_map>

#include "platform/clog.h"

struct conf_lun_index {
  std::unordered_map<std::string_view, struct lun*> by_name;  // views into l_name
};

namespace {

// Names that a message uses for an auth group: anonymous groups are named by their target.
bool IsAnonymous(const struct auth_group* ag) { return ag->ag_name == nullptr; }
const char* TargetNameOf(const struct auth_group* ag) {
  return ag->ag_target != nullptr ? ag->ag_target->t_name : "";
}

void ReplaceString(char*& dst, const char* value) {
  char* copy = value != nullptr ? checked_strdup(value) : nullptr;
  free(dst);
  dst = copy;
}

// Splits listen or iSNS address text into host and port (see the address rules in the header of
// portal_group_add_listen). Returns false for malformed brackets or an empty host or port.
bool SplitAddress(const char* text, const char* default_port, char** host, char** port) {
  *host = nullptr;
  *port = nullptr;
  if (text[0] == '[') {
    const char* close = strchr(text, ']');
    if (close == nullptr || close == text + 1) return false;
    const char* rest = close + 1;
    const char* p;
    if (*rest == '\0') {
      p = default_port;
    } else if (*rest == ':' && rest[1] != '\0') {
      p = rest + 1;
    } else {
      return false;
    }
    *host = strndup(text + 1, close - text - 1);
    if (*host == nullptr) log_err(1, "strdup");
    *port = checked_strdup(p);
    return true;
  }
  const char* colon = strchr(text, ':');
  if (colon != nullptr && strchr(colon + 1, ':') != nullptr) {
    // More than one colon and no brackets: a bare IPv6 address.
    *host = checked_strdup(text);
    *port = checked_strdup(default_port);
    return true;
  }
  if (colon == nullptr) {
    if (text[0] == '\0') return false;
    *host = checked_strdup(text);
    *port = checked_strdup(default_port);
    return true;
  }
  if (colon == text || colon[1] == '\0') return false;
  *host = strndup(text, colon - text);
  if (*host == nullptr) log_err(1, "strdup");
  *port = checked_strdup(colon + 1);
  return true;
}

bool IsNumericHost(const char* host) {
  unsigned char buf[sizeof(struct in6_addr)];
  return inet_pton(AF_INET, host, buf) == 1 || inet_pton(AF_INET6, host, buf) == 1;
}

bool IsPortNumber(const char* port) {
  if (port[0] == '\0' || strlen(port) > 5) return false;
  for (const char* p = port; *p != '\0'; p++) {
    if (!isdigit(static_cast<unsigned char>(*p))) return false;
  }
  return atoi(port) <= 65535;
}

// Numeric hosts are resolved at once (no name service involved); interface and host names are
// kept as text and only their port is checked. Returns false when the address is unusable.
bool ResolveAddress(const char* host, const char* port, struct addrinfo** ai) {
  *ai = nullptr;
  struct addrinfo hints;
  memset(&hints, 0, sizeof(hints));
  hints.ai_family = PF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE;
  bool numeric_port = IsPortNumber(port);
  if (numeric_port) hints.ai_flags |= AI_NUMERICSERV;
  if (IsNumericHost(host)) {
    hints.ai_flags |= AI_NUMERICHOST;
    return getaddrinfo(host, port, &hints, ai) == 0;
  }
  if (numeric_port) return true;
  struct addrinfo* probe = nullptr;
  if (getaddrinfo(nullptr, port, &hints, &probe) != 0) return false;
  freeaddrinfo(probe);
  return true;
}

// Decodes base64 `in` into a fresh NUL-terminated string of at most 32 bytes.
char* DecodeSecret(const char* in) {
  size_t len = strlen(in);
  if (len % 4 != 0 || len / 4 * 3 > 32 + 2) {
    errno = EINVAL;
    log_err(1, "Base64_Decode");
  }
  unsigned char out[40];
  int n = EVP_DecodeBlock(out, reinterpret_cast<const unsigned char*>(in), static_cast<int>(len));
  if (n < 0) {
    errno = EINVAL;
    log_err(1, "Base64_Decode");
  }
  // EVP_DecodeBlock counts the bytes that stand for "=" padding as well.
  if (len > 0 && in[len - 1] == '=') n--;
  if (len > 1 && in[len - 2] == '=') n--;
  if (n > 32) {
    errno = EINVAL;
    log_err(1, "Base64_Decode");
  }
  char* secret = static_cast<char*>(checked_calloc(1, static_cast<size_t>(n) + 1));
  memcpy(secret, out, static_cast<size_t>(n));
  return secret;
}

void CheckSecretLength(const struct auth* auth) {
  const struct auth_group* ag = auth->a_auth_group;
  size_t len = strlen(auth->a_secret);
  if (len > 16) {
    if (!IsAnonymous(ag))
      log_warnx("secret for user \"%s\", auth-group \"%s\", is too long; it should be at most 16 "
                "characters long",
                auth->a_user, ag->ag_name);
    else
      log_warnx("secret for user \"%s\", target \"%s\", is too long; it should be at most 16 "
                "characters long",
                auth->a_user, TargetNameOf(ag));
  }
  // kept as is: the target variants say 16 although the limit is 12.
  if (len < 12) {
    if (!IsAnonymous(ag))
      log_warnx("secret for user \"%s\", auth-group \"%s\", is too short; it should be at least "
                "12 characters long",
                auth->a_user, ag->ag_name);
    else
      log_warnx("secret for user \"%s\", target \"%s\", is too short; it should be at least 16 "
                "characters long",
                auth->a_user, TargetNameOf(ag));
  }
  if (auth->a_mutual_secret == nullptr) return;
  // The mutual texts name the same user as the plain ones (the initiator's), not the mutual user.
  len = strlen(auth->a_mutual_secret);
  if (len > 16) {
    if (!IsAnonymous(ag))
      log_warnx(
          "mutual secret for user \"%s\", auth-group \"%s\", is too long; it should be at "
          "most 16 characters long",
          auth->a_user, ag->ag_name);
    else
      log_warnx(
          "mutual secret for user \"%s\", target \"%s\", is too long; it should be at most "
          "16 characters long",
          auth->a_user, TargetNameOf(ag));
  }
  if (len < 12) {
    if (!IsAnonymous(ag))
      log_warnx(
          "mutual secret for user \"%s\", auth-group \"%s\", is too short; it should be at "
          "least 12 characters long",
          auth->a_user, ag->ag_name);
    else
      log_warnx(
          "mutual secret for user \"%s\", target \"%s\", is too short; it should be at "
          "least 16 characters long",
          auth->a_user, TargetNameOf(ag));
  }
}

struct auth* AuthNew(struct auth_group* ag) {
  auto* auth = static_cast<struct auth*>(checked_calloc(1, sizeof(struct auth)));
  auth->a_auth_group = ag;
  TAILQ_INSERT_TAIL(&ag->ag_auths, auth, a_next);
  return auth;
}

const char* OptionValue(const struct target* target, const char* name) {
  const struct target_option* to = target_option_find(target, name);
  return to != nullptr ? to->to_value : nullptr;
}

}  // namespace

void* checked_calloc(size_t nmemb, size_t size) {
  void* p = calloc(nmemb, size);
  if (p == nullptr) log_err(1, "calloc");
  return p;
}

char* checked_strdup(const char* s) {
  char* copy = strdup(s);
  if (copy == nullptr) log_err(1, "strdup");
  return copy;
}

// ---- conf ----

struct conf* conf_new(void) {
  auto* conf = static_cast<struct conf*>(checked_calloc(1, sizeof(struct conf)));
  TAILQ_INIT(&conf->conf_luns);
  TAILQ_INIT(&conf->conf_targets);
  TAILQ_INIT(&conf->conf_auth_groups);
  TAILQ_INIT(&conf->conf_ports);
  TAILQ_INIT(&conf->conf_portal_groups);
  TAILQ_INIT(&conf->conf_pports);
  TAILQ_INIT(&conf->conf_isns);
  TAILQ_INIT(&conf->conf_initiator_groups);
  TAILQ_INIT(&conf->conf_options);
  conf->conf_isns_period = 900;
  conf->conf_isns_timeout = 5;
  conf->conf_generation = 1;
  conf->conf_debug = 0;
  conf->conf_timeout = 60;
  conf->conf_maxproc = 1;
  try {
    conf->conf_lun_index = new conf_lun_index();
  } catch (const std::bad_alloc&) {
    free(conf);
    log_err(1, "calloc");
  }
  return conf;
}

void conf_delete(struct conf* conf) {
  if (conf == nullptr) return;
  struct target* t;
  while ((t = TAILQ_FIRST(&conf->conf_targets)) != nullptr) target_delete(t);
  struct lun* lun;
  while ((lun = TAILQ_FIRST(&conf->conf_luns)) != nullptr) lun_delete(lun);
  struct portal_group* pg;
  while ((pg = TAILQ_FIRST(&conf->conf_portal_groups)) != nullptr) portal_group_delete(pg);
  struct pport* pp;
  while ((pp = TAILQ_FIRST(&conf->conf_pports)) != nullptr) pport_delete(pp);
  struct port* port;
  while ((port = TAILQ_FIRST(&conf->conf_ports)) != nullptr) port_delete(port);
  struct auth_group* ag;
  while ((ag = TAILQ_FIRST(&conf->conf_auth_groups)) != nullptr) auth_group_delete(ag);
  struct isns* is;
  while ((is = TAILQ_FIRST(&conf->conf_isns)) != nullptr) isns_delete(is);
  struct initiator_group* ig;
  while ((ig = TAILQ_FIRST(&conf->conf_initiator_groups)) != nullptr) initiator_group_delete(ig);
  struct conf_option* co;
  while ((co = TAILQ_FIRST(&conf->conf_options)) != nullptr) conf_option_delete(co);
  delete conf->conf_lun_index;
  free(conf);
}

// ---- auth groups ----

struct auth_group* auth_group_new(struct conf* conf, const char* name) {
  if (name != nullptr && auth_group_find(conf, name) != nullptr) {
    log_warnx("duplicated auth-group \"%s\"", name);
    return nullptr;
  }
  auto* ag = static_cast<struct auth_group*>(checked_calloc(1, sizeof(struct auth_group)));
  if (name != nullptr) ag->ag_name = checked_strdup(name);
  ag->ag_conf = conf;
  TAILQ_INIT(&ag->ag_auths);
  TAILQ_INIT(&ag->ag_names);
  TAILQ_INIT(&ag->ag_portals);
  TAILQ_INIT(&ag->ag_igroup_refs);
  TAILQ_INSERT_TAIL(&conf->conf_auth_groups, ag, ag_next);
  return ag;
}

void auth_group_delete(struct auth_group* ag) {
  struct conf* conf = ag->ag_conf;
  // Nothing may keep pointing at a deleted group.
  struct target* t;
  TAILQ_FOREACH(t, &conf->conf_targets, t_next) {
    if (t->t_auth_group == ag) t->t_auth_group = nullptr;
  }
  struct port* port;
  TAILQ_FOREACH(port, &conf->conf_ports, p_next) {
    if (port->p_auth_group == ag) port->p_auth_group = nullptr;
  }
  struct portal_group* pg;
  TAILQ_FOREACH(pg, &conf->conf_portal_groups, pg_next) {
    if (pg->pg_discovery_auth_group == ag) pg->pg_discovery_auth_group = nullptr;
  }
  TAILQ_REMOVE(&conf->conf_auth_groups, ag, ag_next);
  struct auth* auth;
  while ((auth = TAILQ_FIRST(&ag->ag_auths)) != nullptr) auth_delete(auth);
  struct auth_name* an;
  while ((an = TAILQ_FIRST(&ag->ag_names)) != nullptr) auth_name_delete(an);
  struct auth_portal* ap;
  while ((ap = TAILQ_FIRST(&ag->ag_portals)) != nullptr) auth_portal_delete(ap);
  struct auth_group_igroup_ref* ref;
  while ((ref = TAILQ_FIRST(&ag->ag_igroup_refs)) != nullptr) auth_group_igroup_ref_remove(ag, ref);
  free(ag->ag_name);
  free(ag);
}

struct auth_group* auth_group_find(const struct conf* conf, const char* name) {
  struct auth_group* ag;
  TAILQ_FOREACH(ag, &conf->conf_auth_groups, ag_next) {
    if (ag->ag_name != nullptr && strcmp(ag->ag_name, name) == 0) return ag;
  }
  return nullptr;
}

int auth_group_set_type(struct auth_group* ag, const char* str) {
  int type;
  if (strcmp(str, "none") == 0) {
    type = AG_TYPE_NO_AUTHENTICATION;
  } else if (strcmp(str, "deny") == 0) {
    type = AG_TYPE_DENY;
  } else if (strcmp(str, "chap") == 0) {
    type = AG_TYPE_CHAP;
  } else if (strcmp(str, "chap-mutual") == 0) {
    type = AG_TYPE_CHAP_MUTUAL;
  } else {
    if (!IsAnonymous(ag))
      log_warnx("invalid auth-type \"%s\" for auth-group \"%s\"", str, ag->ag_name);
    else
      log_warnx("invalid auth-type \"%s\" for target \"%s\"", str, TargetNameOf(ag));
    return 1;
  }
  if (ag->ag_type != AG_TYPE_UNKNOWN && ag->ag_type != type) {
    if (!IsAnonymous(ag))
      log_warnx("cannot set auth-type to \"%s\" for auth-group \"%s\"; already has a different "
                "type",
                str, ag->ag_name);
    else
      log_warnx("cannot set auth-type to \"%s\" for target \"%s\"; already has a different type",
                str, TargetNameOf(ag));
    return 1;
  }
  ag->ag_type = type;
  return 0;
}

struct auth* auth_new_chap(struct auth_group* ag, const char* user, const char* secret,
                           bool encoded) {
  char* stored = encoded ? DecodeSecret(secret) : checked_strdup(secret);
  struct auth* auth;
  try {
    auth = AuthNew(ag);
  } catch (...) {
    free(stored);
    throw;
  }
  auth->a_secret = stored;
  auth->a_user = checked_strdup(user);
  ag->ag_type = AG_TYPE_CHAP;
  CheckSecretLength(auth);
  return auth;
}

struct auth* auth_new_chap_mutual(struct auth_group* ag, const char* user, const char* secret,
                                  const char* user2, const char* secret2, bool encoded) {
  struct auth* auth = AuthNew(ag);
  auth->a_user = checked_strdup(user);
  auth->a_secret = encoded ? DecodeSecret(secret) : checked_strdup(secret);
  auth->a_mutual_user = checked_strdup(user2);
  auth->a_mutual_secret = encoded ? DecodeSecret(secret2) : checked_strdup(secret2);
  ag->ag_type = AG_TYPE_CHAP_MUTUAL;
  CheckSecretLength(auth);
  return auth;
}

struct auth* auth_find(const struct auth_group* ag, const char* user) {
  struct auth* auth;
  TAILQ_FOREACH(auth, &ag->ag_auths, a_next) {
    if (auth->a_user != nullptr && strcmp(auth->a_user, user) == 0) return auth;
  }
  return nullptr;
}

void auth_delete(struct auth* auth) {
  TAILQ_REMOVE(&auth->a_auth_group->ag_auths, auth, a_next);
  free(auth->a_user);
  free(auth->a_secret);
  free(auth->a_mutual_user);
  free(auth->a_mutual_secret);
  free(auth);
}

struct auth_name* auth_name_new(struct auth_group* ag, const char* name) {
  auto* an = static_cast<struct auth_name*>(checked_calloc(1, sizeof(struct auth_name)));
  an->an_auth_group = ag;
  TAILQ_INSERT_TAIL(&ag->ag_names, an, an_next);
  an->an_initiator = checked_strdup(name);
  return an;
}

bool auth_name_defined(const struct auth_group* ag) { return !TAILQ_EMPTY(&ag->ag_names); }

struct auth_name* auth_name_find(const struct auth_group* ag, const char* name) {
  struct auth_name* an;
  TAILQ_FOREACH(an, &ag->ag_names, an_next) {
    if (strcasecmp(an->an_initiator, name) == 0) return an;
  }
  return nullptr;
}

bool auth_name_check(const struct auth_group* ag, const char* initiator_name) {
  return auth_name_defined(ag) && auth_name_find(ag, initiator_name) == nullptr;
}

void auth_name_delete(struct auth_name* an) {
  TAILQ_REMOVE(&an->an_auth_group->ag_names, an, an_next);
  free(an->an_initiator);
  free(an);
}

struct auth_portal* auth_portal_new(struct auth_group* ag, const char* portal) {
  auto* ap = static_cast<struct auth_portal*>(checked_calloc(1, sizeof(struct auth_portal)));
  ap->ap_auth_group = ag;
  TAILQ_INSERT_TAIL(&ag->ag_portals, ap, ap_next);
  char* copy = nullptr;
  try {
    ap->ap_initiator_portal = checked_strdup(portal);
    copy = checked_strdup(portal);
  } catch (...) {
    free(copy);
    auth_portal_delete(ap);
    throw;
  }

  bool ok = true;
  long mask = -1;
  char* slash = strchr(copy, '/');
  if (slash != nullptr) {
    *slash = '\0';
    const char* num = slash + 1;
    char* end = nullptr;
    errno = 0;
    if (!isdigit(static_cast<unsigned char>(*num))) {
      ok = false;
    } else {
      mask = strtol(num, &end, 10);
      if (errno != 0 || *end != '\0') ok = false;
    }
  }
  char* addr = copy;
  size_t len = strlen(addr);
  if (len > 0 && addr[0] == '[') {
    addr++;
    len--;
  }
  if (len > 0 && addr[len - 1] == ']') addr[--len] = '\0';
  if (ok && len == 0) ok = false;
  if (ok) {
    if (strchr(addr, ':') != nullptr) {
      auto* sin6 = reinterpret_cast<struct sockaddr_in6*>(&ap->ap_sa);
      if (inet_pton(AF_INET6, addr, &sin6->sin6_addr) != 1 || mask > 128) {
        ok = false;
      } else {
        sin6->sin6_family = AF_INET6;
        ap->ap_mask = mask < 0 ? 128 : static_cast<int>(mask);
      }
    } else {
      auto* sin = reinterpret_cast<struct sockaddr_in*>(&ap->ap_sa);
      if (inet_pton(AF_INET, addr, &sin->sin_addr) != 1 || mask > 32) {
        ok = false;
      } else {
        sin->sin_family = AF_INET;
        ap->ap_mask = mask < 0 ? 32 : static_cast<int>(mask);
      }
    }
  }
  free(copy);
  if (!ok) {
    auth_portal_delete(ap);
    log_errx(1, "Incorrect initiator portal '%s'", portal);
  }
  return ap;
}

bool auth_portal_defined(const struct auth_group* ag) { return !TAILQ_EMPTY(&ag->ag_portals); }

struct auth_portal* auth_portal_find(const struct auth_group* ag,
                                     const struct sockaddr_storage* ss) {
  const unsigned char* want;
  size_t addr_len;
  if (ss->ss_family == AF_INET) {
    want = reinterpret_cast<const unsigned char*>(
        &reinterpret_cast<const struct sockaddr_in*>(ss)->sin_addr);
    addr_len = sizeof(struct in_addr);
  } else if (ss->ss_family == AF_INET6) {
    want = reinterpret_cast<const unsigned char*>(
        &reinterpret_cast<const struct sockaddr_in6*>(ss)->sin6_addr);
    addr_len = sizeof(struct in6_addr);
  } else {
    return nullptr;
  }
  struct auth_portal* ap;
  TAILQ_FOREACH(ap, &ag->ag_portals, ap_next) {
    if (ap->ap_sa.ss_family != ss->ss_family) continue;
    const unsigned char* have =
        ss->ss_family == AF_INET
            ? reinterpret_cast<const unsigned char*>(
                  &reinterpret_cast<const struct sockaddr_in*>(&ap->ap_sa)->sin_addr)
            : reinterpret_cast<const unsigned char*>(
                  &reinterpret_cast<const struct sockaddr_in6*>(&ap->ap_sa)->sin6_addr);
    size_t whole = static_cast<size_t>(ap->ap_mask) / 8;
    int bits = ap->ap_mask % 8;
    if (whole > addr_len) continue;
    if (memcmp(have, want, whole) != 0) continue;
    if (bits != 0) {
      unsigned char bmask = static_cast<unsigned char>(0xff << (8 - bits));
      if ((have[whole] & bmask) != (want[whole] & bmask)) continue;
    }
    return ap;
  }
  return nullptr;
}

bool auth_portal_check(const struct auth_group* ag, const struct sockaddr_storage* sa) {
  return auth_portal_defined(ag) && auth_portal_find(ag, sa) == nullptr;
}

void auth_portal_delete(struct auth_portal* ap) {
  TAILQ_REMOVE(&ap->ap_auth_group->ag_portals, ap, ap_next);
  free(ap->ap_initiator_portal);
  free(ap);
}

int auth_group_igroup_ref_add(struct conf* conf, struct auth_group* ag, const char* igroup_name) {
  struct initiator_group* ig = initiator_group_find(conf, igroup_name);
  if (ig == nullptr) {
    log_warnx("initiator group  \"%s\" not found", igroup_name);
    return 1;
  }
  auto* ref = static_cast<struct auth_group_igroup_ref*>(
      checked_calloc(1, sizeof(struct auth_group_igroup_ref)));
  ref->ref_igroup = ig;
  TAILQ_INSERT_TAIL(&ag->ag_igroup_refs, ref, ref_next);
  return 0;
}

struct auth_group_igroup_ref* auth_group_igroup_ref_find(const struct auth_group* ag,
                                                         const char* igroup_name) {
  struct auth_group_igroup_ref* ref;
  TAILQ_FOREACH(ref, &ag->ag_igroup_refs, ref_next) {
    if (strcmp(ref->ref_igroup->ig_name, igroup_name) == 0) return ref;
  }
  return nullptr;
}

void auth_group_igroup_ref_remove(struct auth_group* ag, struct auth_group_igroup_ref* ref) {
  TAILQ_REMOVE(&ag->ag_igroup_refs, ref, ref_next);
  free(ref);
}

bool auth_group_initiator_group_defined(const struct auth_group* ag) {
  return !TAILQ_EMPTY(&ag->ag_igroup_refs);
}

struct initiator* auth_group_igroup_initiator_find(const struct auth_group* ag,
                                                   const char* initiator_name) {
  struct auth_group_igroup_ref* ref;
  TAILQ_FOREACH(ref, &ag->ag_igroup_refs, ref_next) {
    struct initiator* in;
    TAILQ_FOREACH(in, &ref->ref_igroup->ig_initiators, in_next) {
      if (strcasecmp(in->in_name, initiator_name) == 0) return in;
    }
  }
  return nullptr;
}

// ---- portal groups, portals, iSNS ----

struct portal_group* portal_group_new(struct conf* conf, const char* name) {
  if (portal_group_find(conf, name) != nullptr) {
    log_warnx("duplicated portal-group \"%s\"", name);
    return nullptr;
  }
  auto* pg = static_cast<struct portal_group*>(checked_calloc(1, sizeof(struct portal_group)));
  pg->pg_name = checked_strdup(name);
  pg->pg_conf = conf;
  TAILQ_INIT(&pg->pg_options);
  TAILQ_INIT(&pg->pg_portals);
  TAILQ_INIT(&pg->pg_ports);
  TAILQ_INSERT_TAIL(&conf->conf_portal_groups, pg, pg_next);
  return pg;
}

void portal_group_delete(struct portal_group* pg) {
  struct port* port;
  while ((port = TAILQ_FIRST(&pg->pg_ports)) != nullptr) port_delete(port);
  struct portal* portal;
  while ((portal = TAILQ_FIRST(&pg->pg_portals)) != nullptr) portal_delete(portal);
  struct option* o;
  while ((o = TAILQ_FIRST(&pg->pg_options)) != nullptr) option_delete(&pg->pg_options, o);
  TAILQ_REMOVE(&pg->pg_conf->conf_portal_groups, pg, pg_next);
  free(pg->pg_name);
  free(pg->pg_redirection);
  free(pg);
}

struct portal_group* portal_group_find(const struct conf* conf, const char* name) {
  struct portal_group* pg;
  TAILQ_FOREACH(pg, &conf->conf_portal_groups, pg_next) {
    if (strcmp(pg->pg_name, name) == 0) return pg;
  }
  return nullptr;
}

int portal_group_add_listen(struct portal_group* pg, const char* value, bool iser) {
  auto* portal = static_cast<struct portal*>(checked_calloc(1, sizeof(struct portal)));
  portal->p_portal_group = pg;
  portal->p_socket = -1;
  TAILQ_INIT(&portal->p_targets);
  TAILQ_INSERT_TAIL(&pg->pg_portals, portal, p_next);
  if (iser) portal->p_flags |= PORTAL_FLAG_ISER;
  try {
    portal->p_listen = checked_strdup(value);
    if (!SplitAddress(value, DEFAULT_LISTEN_PORT, &portal->p_host, &portal->p_port) ||
        !ResolveAddress(portal->p_host, portal->p_port, &portal->p_ai)) {
      log_warnx("invalid listen address %s", portal->p_listen);
      portal_delete(portal);
      return 1;
    }
  } catch (...) {
    portal_delete(portal);
    throw;
  }
  return 0;
}

void portal_delete(struct portal* portal) {
  TAILQ_REMOVE(&portal->p_portal_group->pg_portals, portal, p_next);
  if (portal->p_ai != nullptr) freeaddrinfo(portal->p_ai);
  free(portal->p_host);
  free(portal->p_port);
  free(portal->p_listen);
  free(portal);
}

int portal_group_set_filter(struct portal_group* pg, const char* str) {
  int filter;
  if (strcmp(str, "none") == 0) {
    filter = PG_FILTER_NONE;
  } else if (strcmp(str, "portal") == 0) {
    filter = PG_FILTER_PORTAL;
  } else if (strcmp(str, "portal-name") == 0) {
    filter = PG_FILTER_PORTAL_NAME;
  } else if (strcmp(str, "portal-name-auth") == 0) {
    filter = PG_FILTER_PORTAL_NAME_AUTH;
  } else {
    log_warnx("invalid discovery-filter \"%s\" for portal-group \"%s\"; valid values are "
              "\"none\", \"portal\", \"portal-name\", and \"portal-name-auth\"",
              str, pg->pg_name);
    return 1;
  }
  if (pg->pg_discovery_filter != PG_FILTER_UNKNOWN && pg->pg_discovery_filter != filter) {
    log_warnx("cannot set discovery-filter to \"%s\" for portal-group \"%s\"; already has a "
              "different value",
              str, pg->pg_name);
    return 1;
  }
  pg->pg_discovery_filter = filter;
  return 0;
}

int portal_group_set_redirection(struct portal_group* pg, const char* addr) {
  if (pg->pg_redirection != nullptr) {
    log_warnx("cannot set redirection to \"%s\" for portal-group \"%s\"; already defined", addr,
              pg->pg_name);
    return 1;
  }
  pg->pg_redirection = checked_strdup(addr);
  return 0;
}

int isns_new(struct conf* conf, const char* addr) {
  auto* is = static_cast<struct isns*>(checked_calloc(1, sizeof(struct isns)));
  is->i_conf = conf;
  TAILQ_INSERT_TAIL(&conf->conf_isns, is, i_next);
  char* host = nullptr;
  char* port = nullptr;
  bool ok = false;
  try {
    is->i_addr = checked_strdup(addr);
    ok = SplitAddress(addr, DEFAULT_ISNS_PORT, &host, &port) &&
         ResolveAddress(host, port, &is->i_ai);
  } catch (...) {
    free(host);
    free(port);
    isns_delete(is);
    throw;
  }
  free(host);
  free(port);
  if (!ok) {
    log_warnx("invalid iSNS address %s", is->i_addr);
    isns_delete(is);
    return 1;
  }
  return 0;
}

void isns_delete(struct isns* is) {
  TAILQ_REMOVE(&is->i_conf->conf_isns, is, i_next);
  if (is->i_ai != nullptr) freeaddrinfo(is->i_ai);
  free(is->i_addr);
  free(is);
}

// ---- physical ports and ports ----

struct pport* pport_new(struct conf* conf, const char* name, uint32_t ctl_port) {
  auto* pp = static_cast<struct pport*>(checked_calloc(1, sizeof(struct pport)));
  pp->pp_conf = conf;
  TAILQ_INIT(&pp->pp_ports);
  TAILQ_INSERT_TAIL(&conf->conf_pports, pp, pp_next);
  pp->pp_name = checked_strdup(name);
  pp->pp_ctl_port = ctl_port;
  return pp;
}

struct pport* pport_find(const struct conf* conf, const char* name) {
  struct pport* pp;
  TAILQ_FOREACH(pp, &conf->conf_pports, pp_next) {
    if (strcasecmp(pp->pp_name, name) == 0) return pp;
  }
  return nullptr;
}

struct pport* pport_copy(struct pport* pp, struct conf* conf) {
  return pport_new(conf, pp->pp_name, pp->pp_ctl_port);
}

void pport_delete(struct pport* pp) {
  struct port* port;
  while ((port = TAILQ_FIRST(&pp->pp_ports)) != nullptr) port_delete(port);
  TAILQ_REMOVE(&pp->pp_conf->conf_pports, pp, pp_next);
  free(pp->pp_name);
  free(pp);
}

namespace {

struct port* PortNew(struct conf* conf, struct target* target, const char* group_name) {
  char* name = nullptr;
  if (asprintf(&name, "%s-%s", group_name, target->t_name) < 0) log_err(1, "asprintf");
  if (port_find(conf, name) != nullptr) {
    log_warnx("duplicate port \"%s\"", name);
    free(name);
    return nullptr;
  }
  struct port* port;
  try {
    port = static_cast<struct port*>(checked_calloc(1, sizeof(struct port)));
  } catch (...) {
    free(name);
    throw;
  }
  port->p_conf = conf;
  port->p_name = name;
  port->p_target = target;
  TAILQ_INSERT_TAIL(&conf->conf_ports, port, p_next);
  TAILQ_INSERT_TAIL(&target->t_ports, port, p_ts);
  return port;
}

}  // namespace

struct port* port_new(struct conf* conf, struct target* target, struct portal_group* pg) {
  struct port* port = PortNew(conf, target, pg->pg_name);
  if (port == nullptr) return nullptr;
  port->p_portal_group = pg;
  port->p_tag = pg->pg_tag;
  TAILQ_INSERT_TAIL(&pg->pg_ports, port, p_pgs);
  return port;
}

struct port* port_new_pp(struct conf* conf, struct target* target, struct pport* pp) {
  struct port* port = PortNew(conf, target, pp->pp_name);
  if (port == nullptr) return nullptr;
  port->p_pport = pp;
  TAILQ_INSERT_TAIL(&pp->pp_ports, port, p_pps);
  return port;
}

struct port* port_find(const struct conf* conf, const char* name) {
  struct port* port;
  TAILQ_FOREACH(port, &conf->conf_ports, p_next) {
    if (strcasecmp(port->p_name, name) == 0) return port;
  }
  return nullptr;
}

struct port* port_find_in_pg(const struct portal_group* pg, const char* target_name) {
  struct port* port;
  TAILQ_FOREACH(port, &pg->pg_ports, p_pgs) {
    if (strcasecmp(port->p_target->t_name, target_name) == 0) return port;
  }
  return nullptr;
}

void port_delete(struct port* port) {
  if (port->p_portal_group != nullptr)
    TAILQ_REMOVE(&port->p_portal_group->pg_ports, port, p_pgs);
  if (port->p_pport != nullptr) TAILQ_REMOVE(&port->p_pport->pp_ports, port, p_pps);
  if (port->p_target != nullptr) TAILQ_REMOVE(&port->p_target->t_ports, port, p_ts);
  TAILQ_REMOVE(&port->p_conf->conf_ports, port, p_next);
  free(port->p_name);
  free(port);
}

// ---- targets ----

struct target* target_new(struct conf* conf, const char* name) {
  if (target_find(conf, name) != nullptr) {
    log_warnx("duplicated target \"%s\"", name);
    return nullptr;
  }
  if (!valid_iscsi_name(name)) {
    log_warnx("target name \"%s\" is invalid", name);
    return nullptr;
  }
  auto* target = static_cast<struct target*>(checked_calloc(1, sizeof(struct target)));
  target->t_conf = conf;
  TAILQ_INIT(&target->t_options);
  TAILQ_INIT(&target->t_ports);
  TAILQ_INSERT_TAIL(&conf->conf_targets, target, t_next);
  target->t_name = checked_strdup(name);
  for (char* p = target->t_name; *p != '\0'; p++) *p = static_cast<char>(tolower(*p));
  return target;
}

struct target* target_find(const struct conf* conf, const char* name) {
  struct target* t;
  TAILQ_FOREACH(t, &conf->conf_targets, t_next) {
    if (strcasecmp(t->t_name, name) == 0) return t;
  }
  return nullptr;
}

void target_delete(struct target* target) {
  struct conf* conf = target->t_conf;
  struct port* port;
  while ((port = TAILQ_FIRST(&target->t_ports)) != nullptr) port_delete(port);
  struct target_option* to;
  while ((to = TAILQ_FIRST(&target->t_options)) != nullptr) target_option_delete(to);
  struct auth_group* ag;
  TAILQ_FOREACH(ag, &conf->conf_auth_groups, ag_next) {
    if (ag->ag_target == target) ag->ag_target = nullptr;
  }
  TAILQ_REMOVE(&conf->conf_targets, target, t_next);
  free(target->t_name);
  free(target->t_alias);
  free(target->t_redirection);
  free(target);
}

int target_set_redirection(struct target* target, const char* addr) {
  if (target->t_redirection != nullptr) {
    log_warnx("cannot set redirection to \"%s\" for target \"%s\"; already defined", addr,
              target->t_name);
    return 1;
  }
  target->t_redirection = checked_strdup(addr);
  return 0;
}

struct target_option* target_option_new(struct target* target, const char* name,
                                        const char* value) {
  if (target_option_find(target, name) != nullptr) {
    log_warnx("duplicated target option %s for target \"%s\"", name, target->t_name);
    return nullptr;
  }
  auto* to = static_cast<struct target_option*>(checked_calloc(1, sizeof(struct target_option)));
  to->to_target = target;
  TAILQ_INSERT_TAIL(&target->t_options, to, to_next);
  to->to_name = checked_strdup(name);
  to->to_value = checked_strdup(value);
  return to;
}

struct target_option* target_option_find(const struct target* target, const char* name) {
  struct target_option* to;
  TAILQ_FOREACH(to, &target->t_options, to_next) {
    if (to->to_name != nullptr && strcmp(to->to_name, name) == 0) return to;
  }
  return nullptr;
}

void target_option_delete(struct target_option* to) {
  TAILQ_REMOVE(&to->to_target->t_options, to, to_next);
  free(to->to_name);
  free(to->to_value);
  free(to);
}

bool target_is_offline(const struct target* target) {
  const char* status = OptionValue(target, "status");
  return status != nullptr && strcmp(status, "offline") == 0;
}

// ---- LUNs ----

struct lun* lun_new(struct conf* conf, const char* name) {
  if (lun_find(conf, name) != nullptr) {
    log_warnx("duplicated lun \"%s\"", name);
    return nullptr;
  }
  auto* lun = static_cast<struct lun*>(checked_calloc(1, sizeof(struct lun)));
  try {
    lun->l_name = checked_strdup(name);
    if (conf->conf_lun_index != nullptr)
      conf->conf_lun_index->by_name.emplace(std::string_view(lun->l_name), lun);
  } catch (const std::bad_alloc&) {
    free(lun->l_name);
    free(lun);
    log_err(1, "calloc");
  } catch (...) {
    free(lun);
    throw;
  }
  lun->l_conf = conf;
  TAILQ_INIT(&lun->l_options);
  lun->l_ctl_lun = -1;
  lun->l_keld_lun = -1;
  TAILQ_INSERT_TAIL(&conf->conf_luns, lun, l_next);
  return lun;
}

void lun_delete(struct lun* lun) {
  struct conf* conf = lun->l_conf;
  struct target* t;
  TAILQ_FOREACH(t, &conf->conf_targets, t_next) {
    for (auto& slot : t->t_luns) {
      if (slot == lun) slot = nullptr;
    }
  }
  if (conf->conf_lun_index != nullptr) {
    auto it = conf->conf_lun_index->by_name.find(std::string_view(lun->l_name));
    if (it != conf->conf_lun_index->by_name.end() && it->second == lun)
      conf->conf_lun_index->by_name.erase(it);
  }
  TAILQ_REMOVE(&conf->conf_luns, lun, l_next);
  struct option* o;
  while ((o = TAILQ_FIRST(&lun->l_options)) != nullptr) option_delete(&lun->l_options, o);
  free(lun->l_name);
  free(lun->l_backend);
  free(lun->l_device_id);
  free(lun->l_path);
  free(lun->l_scsiname);
  free(lun->l_serial);
  free(lun);
}

struct lun* lun_find(const struct conf* conf, const char* name) {
  if (conf->conf_lun_index != nullptr) {
    auto it = conf->conf_lun_index->by_name.find(std::string_view(name));
    return it != conf->conf_lun_index->by_name.end() ? it->second : nullptr;
  }
  struct lun* lun;
  TAILQ_FOREACH(lun, &conf->conf_luns, l_next) {
    if (strcmp(lun->l_name, name) == 0) return lun;
  }
  return nullptr;
}

struct lun* lun_find_by_ctl_id(const struct conf* conf, uint32_t ctl_id) {
  struct lun* lun;
  TAILQ_FOREACH(lun, &conf->conf_luns, l_next) {
    if (lun->l_ctl_lun == static_cast<int>(ctl_id)) return lun;
  }
  return nullptr;
}

struct target* lun_target_find(const struct conf* conf, const char* lun_name) {
  struct target* t;
  TAILQ_FOREACH(t, &conf->conf_targets, t_next) {
    if (strncasecmp(t->t_name, lun_name, strlen(t->t_name)) == 0) return t;
  }
  return nullptr;
}

void lun_set_backend(struct lun* lun, const char* value) { ReplaceString(lun->l_backend, value); }
void lun_set_blocksize(struct lun* lun, size_t value) {
  lun->l_blocksize = static_cast<int>(value);
}
void lun_set_device_type(struct lun* lun, uint8_t value) { lun->l_device_type = value; }
void lun_set_device_id(struct lun* lun, const char* value) {
  ReplaceString(lun->l_device_id, value);
}
void lun_set_path(struct lun* lun, const char* value) { ReplaceString(lun->l_path, value); }
void lun_set_scsiname(struct lun* lun, const char* value) {
  ReplaceString(lun->l_scsiname, value);
}
void lun_set_serial(struct lun* lun, const char* value) { ReplaceString(lun->l_serial, value); }
void lun_set_size(struct lun* lun, int64_t value) { lun->l_size = value; }
void lun_set_ctl_lun(struct lun* lun, int value) { lun->l_ctl_lun = value; }
void lun_set_keld_lun(struct lun* lun, int value) { lun->l_keld_lun = value; }
bool lun_ctl_lun_valid(const struct lun* lun) { return lun->l_ctl_lun != -1; }
bool lun_keld_lun_valid(const struct lun* lun) { return lun->l_keld_lun != -1; }

void lun_modify_target_path(struct lun* lun, const char* new_path) {
  ReplaceString(lun->l_path, new_path);
}

bool lun_is_offline(const struct lun* lun) {
  const struct option* o = option_find(&lun->l_options, "status");
  return o != nullptr && o->o_value != nullptr && strcmp(o->o_value, "offline") == 0;
}

void keld_target_lun_name(char* buf, size_t len, const char* target_name, int lun) {
  snprintf(buf, len, "%s,L,0x%016x", target_name, static_cast<unsigned>(lun));
}

struct port* keld_target_to_port(const struct target* target) {
  return TAILQ_FIRST(&target->t_ports);
}

// ---- options ----

struct option* option_new(struct options* options, const char* name, const char* value) {
  if (option_find(options, name) != nullptr) {
    log_warnx("duplicated option \"%s\"", name);
    return nullptr;
  }
  auto* o = static_cast<struct option*>(checked_calloc(1, sizeof(struct option)));
  TAILQ_INSERT_TAIL(options, o, o_next);
  o->o_name = checked_strdup(name);
  o->o_value = checked_strdup(value);
  return o;
}

void option_delete(struct options* options, struct option* o) {
  TAILQ_REMOVE(options, o, o_next);
  free(o->o_name);
  free(o->o_value);
  free(o);
}

struct option* option_find(const struct options* options, const char* name) {
  struct option* o;
  TAILQ_FOREACH(o, options, o_next) {
    if (o->o_name != nullptr && strcmp(o->o_name, name) == 0) return o;
  }
  return nullptr;
}

void option_set(struct option* o, const char* value) { ReplaceString(o->o_value, value); }

struct conf_option* conf_option_new(struct conf* conf, const char* name, const char* value) {
  if (conf_option_find(conf, name) != nullptr) {
    log_warnx("duplicated config option %s ", name);
    return nullptr;
  }
  auto* co = static_cast<struct conf_option*>(checked_calloc(1, sizeof(struct conf_option)));
  co->co_conf = conf;
  try {
    co->co_name = checked_strdup(name);
    co->co_value = checked_strdup(value);
  } catch (...) {
    free(co->co_name);
    free(co);
    throw;
  }
  // kept as is: the new option becomes the only one. The dropped ones are freed here so that the
  // quirk does not also leak.
  struct conf_option* old;
  while ((old = TAILQ_FIRST(&conf->conf_options)) != nullptr) conf_option_delete(old);
  TAILQ_INSERT_TAIL(&conf->conf_options, co, co_next);
  return co;
}

struct conf_option* conf_option_find(const struct conf* conf, const char* name) {
  struct conf_option* co;
  TAILQ_FOREACH(co, &conf->conf_options, co_next) {
    if (co->co_name != nullptr && strcmp(co->co_name, name) == 0) return co;
  }
  return nullptr;
}

void conf_option_delete(struct conf_option* co) {
  TAILQ_REMOVE(&co->co_conf->conf_options, co, co_next);
  free(co->co_name);
  free(co->co_value);
  free(co);
}

// ---- initiator groups ----

struct initiator_group* initiator_group_new(struct conf* conf, const char* name) {
  auto* ig =
      static_cast<struct initiator_group*>(checked_calloc(1, sizeof(struct initiator_group)));
  ig->ig_conf = conf;
  TAILQ_INIT(&ig->ig_initiators);
  TAILQ_INSERT_TAIL(&conf->conf_initiator_groups, ig, ig_next);
  ig->ig_name = checked_strdup(name);
  return ig;
}

struct initiator_group* initiator_group_find(const struct conf* conf, const char* name) {
  struct initiator_group* ig;
  TAILQ_FOREACH(ig, &conf->conf_initiator_groups, ig_next) {
    if (ig->ig_name != nullptr && strcmp(ig->ig_name, name) == 0) return ig;
  }
  return nullptr;
}

void initiator_group_delete_all_refs(struct conf* conf, struct initiator_group* ig) {
  struct auth_group* ag;
  TAILQ_FOREACH(ag, &conf->conf_auth_groups, ag_next) {
    struct auth_group_igroup_ref* ref = TAILQ_FIRST(&ag->ag_igroup_refs);
    while (ref != nullptr) {
      struct auth_group_igroup_ref* next = TAILQ_NEXT(ref, ref_next);
      if (ref->ref_igroup == ig) auth_group_igroup_ref_remove(ag, ref);
      ref = next;
    }
  }
}

void initiator_group_delete(struct initiator_group* ig) {
  initiator_group_delete_all_refs(ig->ig_conf, ig);
  struct initiator* in;
  while ((in = TAILQ_FIRST(&ig->ig_initiators)) != nullptr) initiator_delete(in);
  TAILQ_REMOVE(&ig->ig_conf->conf_initiator_groups, ig, ig_next);
  free(ig->ig_name);
  free(ig);
}

struct initiator* initiator_new(struct initiator_group* ig, const char* name) {
  auto* in = static_cast<struct initiator*>(checked_calloc(1, sizeof(struct initiator)));
  in->in_group = ig;
  TAILQ_INSERT_TAIL(&ig->ig_initiators, in, in_next);
  in->in_name = checked_strdup(name);
  return in;
}

struct initiator* initiator_find(const struct initiator_group* ig, const char* name) {
  struct initiator* in;
  TAILQ_FOREACH(in, &ig->ig_initiators, in_next) {
    if (in->in_name != nullptr && strcmp(in->in_name, name) == 0) return in;
  }
  return nullptr;
}

void initiator_delete(struct initiator* in) {
  TAILQ_REMOVE(&in->in_group->ig_initiators, in, in_next);
  free(in->in_name);
  free(in);
}

// ---- numbers ----

int expand_number(const char* text, uint64_t* out) {
  if (text == nullptr || !isdigit(static_cast<unsigned char>(text[0]))) return -1;
  uint64_t value = 0;
  const char* p = text;
  for (; isdigit(static_cast<unsigned char>(*p)); p++) {
    unsigned digit = static_cast<unsigned>(*p - '0');
    if (value > (UINT64_MAX - digit) / 10) return -1;
    value = value * 10 + digit;
  }
  unsigned shift = 0;
  if (*p != '\0') {
    switch (tolower(static_cast<unsigned char>(*p))) {
      case 'k': shift = 10; break;
      case 'm': shift = 20; break;
      case 'g': shift = 30; break;
      case 't': shift = 40; break;
      case 'p': shift = 50; break;
      case 'e': shift = 60; break;
      default: return -1;
    }
    if (p[1] != '\0') return -1;
    if (value > (UINT64_MAX >> shift)) return -1;
  }
  *out = value << shift;
  return 0;
}
