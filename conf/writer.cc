#include "conf/writer.h"

#include <openssl/evp.h>

#include <cinttypes>
#include <cstdint>
#include <cstring>
#include <vector>

#include "conf/conf.h"
#include "platform/exception.h"
#include "platform/log.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Parser {

namespace {

// The writer only ever encodes into this much room, so a secret of at most 21 bytes fits.
constexpr size_t kEncodedSecretSize = 32;

// kept as is: a missing name prints as "(null)", which the reader refuses. Only anonymous auth
// groups (inline target authentication) get here; the service never creates them.
const char* NameOrNull(const char* name) { return name != nullptr ? name : "(null)"; }

void WriteInitiatorGroups(const struct conf* conf, FILE* stream) {
  const struct initiator_group* ig;
  TAILQ_FOREACH(ig, &conf->conf_initiator_groups, ig_next) {
    fprintf(stream, "initiator-group %s {\n", ig->ig_name);
    const struct initiator* in;
    TAILQ_FOREACH(in, &ig->ig_initiators, in_next) fprintf(stream, "\t initiator %s \n", in->in_name);
    fputs("}\n", stream);
  }
}

void WriteAuthGroup(const struct auth_group* ag, FILE* stream) {
  fprintf(stream, "auth-group %s {\n", NameOrNull(ag->ag_name));
  if (TAILQ_EMPTY(&ag->ag_auths)) {
    fputs("\t auth-type none\n", stream);
  } else {
    const struct auth* auth;
    TAILQ_FOREACH(auth, &ag->ag_auths, a_next) {
      char secret[kEncodedSecretSize];
      if (ag->ag_type == AG_TYPE_CHAP) {
        LogInfo("%s: found chap type auth %s", "ConfHandle", NameOrNull(ag->ag_name));
        Base64EncodeWrapper(reinterpret_cast<const unsigned char*>(auth->a_secret),
                            strlen(auth->a_secret), secret, sizeof(secret));
        fprintf(stream, "\t chap \"%s\" \"%s\" \n", auth->a_user, secret);
      } else if (ag->ag_type == AG_TYPE_CHAP_MUTUAL) {
        LogInfo("%s: found chap-mutual type auth %s", "ConfHandle", NameOrNull(ag->ag_name));
        char mutual_secret[kEncodedSecretSize];
        Base64EncodeWrapper(reinterpret_cast<const unsigned char*>(auth->a_secret),
                            strlen(auth->a_secret), secret, sizeof(secret));
        Base64EncodeWrapper(reinterpret_cast<const unsigned char*>(auth->a_mutual_secret),
                            strlen(auth->a_mutual_secret), mutual_secret, sizeof(mutual_secret));
        fprintf(stream, "\t chap-mutual \"%s\" \"%s\" \"%s\" \"%s\"\n", auth->a_user, secret,
                auth->a_mutual_user, mutual_secret);
      } else {
        // kept as is: no line end; such a group cannot come from the service's own edits.
        fputs("\t auth-type none", stream);
      }
    }
  }
  const struct auth_group_igroup_ref* ref;
  TAILQ_FOREACH(ref, &ag->ag_igroup_refs, ref_next) {
    fprintf(stream, "\t initiator-group %s\n", ref->ref_igroup->ig_name);
  }
  const struct auth_name* an;
  TAILQ_FOREACH(an, &ag->ag_names, an_next) {
    fprintf(stream, "\t initiator-name %s\n", an->an_initiator);
  }
  fputs("}\n", stream);
}

void WriteAuthGroups(const struct conf* conf, FILE* stream) {
  const struct auth_group* ag;
  TAILQ_FOREACH(ag, &conf->conf_auth_groups, ag_next) {
    if (ag->ag_name != nullptr && (strcmp(ag->ag_name, "no-authentication") == 0 ||
                                   strcmp(ag->ag_name, "no-access") == 0)) {
      LogInfo("%s: Skipping default auth group", "ConfHandle");
      continue;
    }
    WriteAuthGroup(ag, stream);
  }
}

void WritePortalGroups(const struct conf* conf, FILE* stream) {
  const struct portal_group* pg;
  TAILQ_FOREACH(pg, &conf->conf_portal_groups, pg_next) {
    fprintf(stream, "portal-group %s {\n", pg->pg_name);
    if (pg->pg_discovery_auth_group != nullptr)
      fprintf(stream, "\t discovery-auth-group %s\n",
              NameOrNull(pg->pg_discovery_auth_group->ag_name));
    const struct portal* portal = TAILQ_FIRST(&pg->pg_portals);
    if (portal != nullptr && portal->p_host != nullptr)
      fprintf(stream, "\t listen %s:%s\n", portal->p_host, portal->p_port);
    fputs("}\n", stream);
  }
}

void WriteLun(const struct lun* lun, FILE* stream) {
  fprintf(stream, "\tlun %d {\n", lun->l_keld_lun);
  if (lun->l_backend != nullptr) fprintf(stream, "\t\tbackend %s\n", lun->l_backend);
  if (lun->l_path != nullptr) fprintf(stream, "\t\tpath %s\n", lun->l_path);
  fprintf(stream, "\t\tsize %" PRId64 "\n", lun->l_size);
  const struct option* o;
  TAILQ_FOREACH(o, &lun->l_options, o_next) {
    fprintf(stream, "\t\toption %s \"%s\"\n", o->o_name, o->o_value);
  }
  fputs("\t}\n", stream);
}

void WriteTargets(const struct conf* conf, FILE* stream) {
  const struct target* t;
  TAILQ_FOREACH(t, &conf->conf_targets, t_next) {
    fprintf(stream, "target %s {\n", t->t_name);
    if (t->t_alias != nullptr) fprintf(stream, "\talias \"%s\"\n", t->t_alias);
    const struct port* port = keld_target_to_port(t);
    if (port != nullptr && port->p_portal_group != nullptr)
      fprintf(stream, "\tportal-group %s\n", port->p_portal_group->pg_name);
    if (t->t_auth_group != nullptr)
      fprintf(stream, "\tauth-group %s\n", NameOrNull(t->t_auth_group->ag_name));
    const struct target_option* to;
    TAILQ_FOREACH(to, &t->t_options, to_next) {
      fprintf(stream, "\toption %s %s\n", to->to_name, to->to_value);
    }
    // References to top-level LUN declarations carry no number of their own and are not written.
    for (const struct lun* lun : t->t_luns) {
      if (lun != nullptr && lun_keld_lun_valid(lun)) WriteLun(lun, stream);
    }
    fputs("}\n", stream);
  }
}

}  // namespace

void Base64EncodeWrapper(const unsigned char* in, size_t len, char* out, size_t out_size) {
  if (len > INT32_MAX / 2) throw HostCtl::Lib::Orsa::OrsaCtlException("Base64_Encode failed");
  // EVP_EncodeBlock writes 4 characters per started 3 bytes plus a NUL.
  std::vector<unsigned char> encoded(4 * ((len + 2) / 3) + 1);
  int n = EVP_EncodeBlock(encoded.data(), in, static_cast<int>(len));
  if (n < 0) throw HostCtl::Lib::Orsa::OrsaCtlException("Base64_Encode failed");
  if (static_cast<size_t>(n) >= out_size)
    throw HostCtl::Lib::Orsa::OrsaCtlException("Base64_Encode failed: Unexpected encoding size");
  memcpy(out, encoded.data(), static_cast<size_t>(n));
  out[n] = '\0';
}

void WriteConfToStream(const struct conf* conf, FILE* stream) {
  fprintf(stream, "generation %" PRIu64 "\n", conf->conf_generation);
  const struct conf_option* co;
  TAILQ_FOREACH(co, &conf->conf_options, co_next) {
    fprintf(stream, "option %s %s\n", co->co_name, co->co_value);
  }
  WriteInitiatorGroups(conf, stream);
  WriteAuthGroups(conf, stream);
  WritePortalGroups(conf, stream);
  WriteTargets(conf, stream);
}

}  // namespace Parser
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
