#include "conf/writer.h"

#include <openssl/evp.h>

#include <charconv>
#include <cstdint>
#include <cstring>
#include <string>
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

// The whole text is built in memory and handed to the stream in one write: a file at the cluster
// limits is some 15,000 lines, and formatting each through the stream cost more than parsing it.
// Appends produce exactly what the former "%s" and "%d" formats printed (a null text included).
class Text {
 public:
  // The buffer of the thread's previous text is reused: after the first write of a large file, no
  // append grows it (growing means copying it and touching fresh pages, more than the appends).
  Text() : out_(Buffer()) { out_.clear(); }

  Text& operator<<(const char* s) {
    out_.append(s != nullptr ? s : "(null)");
    return *this;
  }
  Text& operator<<(char c) {
    out_.push_back(c);
    return *this;
  }
  Text& operator<<(int64_t n) { return Number(n); }
  Text& operator<<(uint64_t n) { return Number(n); }
  Text& operator<<(int n) { return Number(n); }

  const std::string& str() const { return out_; }

 private:
  static std::string& Buffer() {
    thread_local std::string buffer;
    return buffer;
  }

  template <typename T>
  Text& Number(T n) {
    char buf[24];
    auto result = std::to_chars(buf, buf + sizeof(buf), n);
    out_.append(buf, static_cast<size_t>(result.ptr - buf));
    return *this;
  }

  std::string& out_;
};

void WriteInitiatorGroups(const struct conf* conf, Text& out) {
  const struct initiator_group* ig;
  TAILQ_FOREACH(ig, &conf->conf_initiator_groups, ig_next) {
    out << "initiator-group " << ig->ig_name << " {\n";
    const struct initiator* in;
    TAILQ_FOREACH(in, &ig->ig_initiators, in_next) out << "\t initiator " << in->in_name << " \n";
    out << "}\n";
  }
}

void WriteAuthGroup(const struct auth_group* ag, Text& out) {
  out << "auth-group " << NameOrNull(ag->ag_name) << " {\n";
  if (TAILQ_EMPTY(&ag->ag_auths)) {
    out << "\t auth-type none\n";
  } else {
    const struct auth* auth;
    TAILQ_FOREACH(auth, &ag->ag_auths, a_next) {
      char secret[kEncodedSecretSize];
      // A group that took a "chap" line before a "chap-mutual" one is of the mutual type but holds
      // an entry without mutual credentials: that entry is written back as the "chap" line it was.
      const bool plain = ag->ag_type == AG_TYPE_CHAP ||
                         (ag->ag_type == AG_TYPE_CHAP_MUTUAL && auth->a_mutual_secret == nullptr);
      if (plain) {
        LogInfo("%s: found chap type auth %s", "ConfHandle", NameOrNull(ag->ag_name));
        Base64EncodeWrapper(reinterpret_cast<const unsigned char*>(auth->a_secret),
                            strlen(auth->a_secret), secret, sizeof(secret));
        out << "\t chap \"" << auth->a_user << "\" \"" << secret << "\" \n";
      } else if (ag->ag_type == AG_TYPE_CHAP_MUTUAL) {
        LogInfo("%s: found chap-mutual type auth %s", "ConfHandle", NameOrNull(ag->ag_name));
        char mutual_secret[kEncodedSecretSize];
        Base64EncodeWrapper(reinterpret_cast<const unsigned char*>(auth->a_secret),
                            strlen(auth->a_secret), secret, sizeof(secret));
        Base64EncodeWrapper(reinterpret_cast<const unsigned char*>(auth->a_mutual_secret),
                            strlen(auth->a_mutual_secret), mutual_secret, sizeof(mutual_secret));
        out << "\t chap-mutual \"" << auth->a_user << "\" \"" << secret << "\" \""
            << auth->a_mutual_user << "\" \"" << mutual_secret << "\"\n";
      } else {
        // kept as is: no line end; such a group cannot come from the service's own edits.
        out << "\t auth-type none";
      }
    }
  }
  const struct auth_group_igroup_ref* ref;
  TAILQ_FOREACH(ref, &ag->ag_igroup_refs, ref_next) {
    out << "\t initiator-group " << ref->ref_igroup->ig_name << '\n';
  }
  const struct auth_name* an;
  TAILQ_FOREACH(an, &ag->ag_names, an_next) out << "\t initiator-name " << an->an_initiator << '\n';
  out << "}\n";
}

void WriteAuthGroups(const struct conf* conf, Text& out) {
  const struct auth_group* ag;
  TAILQ_FOREACH(ag, &conf->conf_auth_groups, ag_next) {
    if (ag->ag_name != nullptr &&
        (strcmp(ag->ag_name, "no-authentication") == 0 || strcmp(ag->ag_name, "no-access") == 0)) {
      LogInfo("%s: Skipping default auth group", "ConfHandle");
      continue;
    }
    WriteAuthGroup(ag, out);
  }
}

void WritePortalGroups(const struct conf* conf, Text& out) {
  const struct portal_group* pg;
  TAILQ_FOREACH(pg, &conf->conf_portal_groups, pg_next) {
    out << "portal-group " << pg->pg_name << " {\n";
    if (pg->pg_discovery_auth_group != nullptr) {
      out << "\t discovery-auth-group " << NameOrNull(pg->pg_discovery_auth_group->ag_name) << '\n';
    }
    const struct portal* portal = TAILQ_FIRST(&pg->pg_portals);
    if (portal != nullptr && portal->p_host != nullptr) {
      out << "\t listen " << portal->p_host << ':' << portal->p_port << '\n';
    }
    out << "}\n";
  }
}

void WriteLun(const struct lun* lun, Text& out) {
  out << "\tlun " << lun->l_keld_lun << " {\n";
  if (lun->l_backend != nullptr) out << "\t\tbackend " << lun->l_backend << '\n';
  if (lun->l_path != nullptr) out << "\t\tpath " << lun->l_path << '\n';
  out << "\t\tsize " << static_cast<int64_t>(lun->l_size) << '\n';
  const struct option* o;
  TAILQ_FOREACH(o, &lun->l_options, o_next) {
    out << "\t\toption " << o->o_name << " \"" << o->o_value << "\"\n";
  }
  out << "\t}\n";
}

void WriteTargets(const struct conf* conf, Text& out) {
  const struct target* t;
  TAILQ_FOREACH(t, &conf->conf_targets, t_next) {
    out << "target " << t->t_name << " {\n";
    if (t->t_alias != nullptr) out << "\talias \"" << t->t_alias << "\"\n";
    const struct port* port = keld_target_to_port(t);
    if (port != nullptr && port->p_portal_group != nullptr) {
      out << "\tportal-group " << port->p_portal_group->pg_name << '\n';
    }
    if (t->t_auth_group != nullptr) {
      out << "\tauth-group " << NameOrNull(t->t_auth_group->ag_name) << '\n';
    }
    const struct target_option* to;
    TAILQ_FOREACH(to, &t->t_options, to_next) {
      out << "\toption " << to->to_name << ' ' << to->to_value << '\n';
    }
    // References to top-level LUN declarations carry no number of their own and are not written.
    for (const struct lun* lun : t->t_luns) {
      if (lun != nullptr && lun_keld_lun_valid(lun)) WriteLun(lun, out);
    }
    out << "}\n";
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

namespace {

void WriteConf(const struct conf* conf, Text& out) {
  out << "generation " << static_cast<uint64_t>(conf->conf_generation) << '\n';
  const struct conf_option* co;
  TAILQ_FOREACH(co, &conf->conf_options, co_next) {
    out << "option " << co->co_name << ' ' << co->co_value << '\n';
  }
  WriteInitiatorGroups(conf, out);
  WriteAuthGroups(conf, out);
  WritePortalGroups(conf, out);
  WriteTargets(conf, out);
}

}  // namespace

void WriteConfToStream(const struct conf* conf, FILE* stream) {
  Text out;
  WriteConf(conf, out);
  // A short write shows in the stream's error state, which the callers check.
  fwrite(out.str().data(), 1, out.str().size(), stream);
}

std::string WriteConfToString(const struct conf* conf) {
  Text out;
  WriteConf(conf, out);
  return out.str();
}

}  // namespace Parser
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
