/* Grammar of kel.conf and the whole load: conf_new_from_file, KeldCleanConf. */
%code requires {
#include <cstdint>
}

%code top {
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <strings.h>
}

%code {
#include "conf/conf.h"
#include "conf/grammar.h"
#include "platform/clog.h"

void keldParser_error(const char* msg);

namespace {

// The parser's current objects. Global because the generated parser is; guarded by the caller's
// ConfHandle::_fileLock (one load at a time per process).
struct conf* gConf = nullptr;
struct auth_group* gAuthGroup = nullptr;
struct portal_group* gPortalGroup = nullptr;
struct initiator_group* gInitiatorGroup = nullptr;
struct target* gTarget = nullptr;
struct lun* gLun = nullptr;
FILE* gStream = nullptr;
// An exception raised by the model inside an action; rethrown once the parser has unwound.
std::exception_ptr gPendingError;

// Runs a model call from a grammar action. Exceptions must not cross the generated parser (its
// stack holds heap strings), so they are parked and the parse is aborted instead.
template <typename F>
bool Guarded(F&& body) {
  try {
    return body();
  } catch (...) {
    gPendingError = std::current_exception();
    return false;
  }
}

bool ParseNumber(const char* text, uint64_t* out) {
  if (expand_number(text, out) != 0) {
    keldParser_error("invalid numeric value");
    return false;
  }
  return true;
}

// A LUN number inside a target indexes the 256-slot array, so anything else is refused here.
bool ParseLunNumber(const char* text, int* out) {
  uint64_t n = 0;
  if (text[0] == '-' && expand_number(text + 1, &n) == 0) n = MAX_LUNS;
  else if (!ParseNumber(text, &n)) return false;
  if (n >= MAX_LUNS) {
    log_warnx("LUN number %s for target \"%s\" is out of range; must be between 0 and 255", text,
              gTarget->t_name);
    return false;
  }
  *out = static_cast<int>(n);
  return true;
}

bool ParseDeviceType(const char* text, int* out) {
  if (strcasecmp(text, "disk") == 0 || strcasecmp(text, "direct") == 0) {
    *out = 0;
  } else if (strcasecmp(text, "processor") == 0) {
    *out = 3;
  } else if (strcasecmp(text, "cdrom") == 0 || strcasecmp(text, "dvd") == 0 ||
             strcasecmp(text, "dvdrom") == 0) {
    *out = 5;
  } else {
    // Any other text is a number, so a word that does not convert is a bad number.
    uint64_t n;
    if (!ParseNumber(text, &n)) return false;
    if (n > 15) {
      log_warnx("invalid device-type \"%s\" for lun \"%s\"; must be either \"disk\", "
                "\"processor\", \"cdrom\", or a number between 0 and 15",
                text, gLun->l_name);
      return false;
    }
    *out = static_cast<int>(n);
  }
  return true;
}

// The target's anonymous auth group for inline authentication, created by its first entry.
// `what` names the entry for the refusal when the target already names an auth group.
struct auth_group* InlineAuthGroup(const char* what) {
  if (gTarget->t_auth_group != nullptr) {
    if (gTarget->t_auth_group->ag_name != nullptr) {
      log_warnx("cannot use both auth-group and %s for target \"%s\"", what, gTarget->t_name);
      return nullptr;
    }
    return gTarget->t_auth_group;
  }
  struct auth_group* ag = auth_group_new(gConf, nullptr);
  if (ag == nullptr) return nullptr;
  ag->ag_target = gTarget;
  gTarget->t_auth_group = ag;
  return ag;
}

}  // namespace
}

%define api.prefix {keldParser_}
%define parse.error verbose

%union {
  char* str;  // token text in the scanner's arena: valid until the load ends, never freed here
}

%token ALIAS AUTH_GROUP AUTH_TYPE BACKEND BLOCKSIZE CHAP CHAP_MUTUAL CLOSING_BRACKET CTL_LUN
%token DEBUG DEVICE_ID DEVICE_TYPE DISCOVERY_AUTH_GROUP DISCOVERY_FILTER FOREIGN INITIATOR_NAME
%token INITIATOR_PORTAL ISNS_SERVER ISNS_PERIOD ISNS_TIMEOUT LISTEN LISTEN_ISER LUN MAXPROC
%token OPENING_BRACKET OPTION PATH PIDFILE PORT PORTAL_GROUP REDIRECT SEMICOLON SERIAL SIZE
%token <str> STR
%token TAG TARGET TIMEOUT INITIATOR_GROUP GENERATION


%%

statements:
        %empty
        | statements statement
        | statements statement SEMICOLON
        ;

statement:
        generation
        | debug
        | timeout
        | maxproc
        | option
        | isns_server
        | isns_period
        | isns_timeout
        | auth_group
        | portal_group
        | initiator_group
        | lun
        | target
        ;

generation: GENERATION STR
        {
          uint64_t n = 0;
          bool ok = ParseNumber($2, &n);
          if (!ok) YYABORT;
          gConf->conf_generation = n;
        }
        ;

debug: DEBUG STR
        {
          uint64_t n = 0;
          bool ok = ParseNumber($2, &n);
          if (!ok) YYABORT;
          gConf->conf_debug = static_cast<int>(n);
        }
        ;

timeout: TIMEOUT STR
        {
          uint64_t n = 0;
          bool ok = ParseNumber($2, &n);
          if (!ok) YYABORT;
          gConf->conf_timeout = static_cast<int>(n);
        }
        ;

maxproc: MAXPROC STR
        {
          uint64_t n = 0;
          bool ok = ParseNumber($2, &n);
          if (!ok) YYABORT;
          gConf->conf_maxproc = static_cast<int64_t>(n);
        }
        ;

option: OPTION STR STR
        {
          bool ok = Guarded([&] { return conf_option_new(gConf, $2, $3) != nullptr; });
          if (!ok) YYABORT;
        }
        ;

isns_server: ISNS_SERVER STR
        {
          bool ok = Guarded([&] { return isns_new(gConf, $2) == 0; });
          if (!ok) YYABORT;
        }
        ;

isns_period: ISNS_PERIOD STR
        {
          uint64_t n = 0;
          bool ok = ParseNumber($2, &n);
          if (!ok) YYABORT;
          gConf->conf_isns_period = static_cast<int>(n);
        }
        ;

isns_timeout: ISNS_TIMEOUT STR
        {
          uint64_t n = 0;
          bool ok = ParseNumber($2, &n);
          if (!ok) YYABORT;
          gConf->conf_isns_timeout = static_cast<int>(n);
        }
        ;

auth_group: AUTH_GROUP auth_group_name OPENING_BRACKET auth_group_entries CLOSING_BRACKET
        {
          gAuthGroup = nullptr;
        }
        ;

auth_group_name: STR
        {
          bool ok = Guarded([&] {
            // The built-in "default" group is filled by the first block of that name.
            if (strcmp($1, "default") == 0 && !gConf->conf_default_ag_defined) {
              gAuthGroup = auth_group_find(gConf, $1);
              gConf->conf_default_ag_defined = true;
            } else {
              gAuthGroup = auth_group_new(gConf, $1);
            }
            return gAuthGroup != nullptr;
          });
          if (!ok) YYABORT;
        }
        ;

auth_group_entries:
        %empty
        | auth_group_entries auth_group_entry
        | auth_group_entries auth_group_entry SEMICOLON
        ;

auth_group_entry:
        auth_group_auth_type
        | auth_group_chap
        | auth_group_chap_mutual
        | auth_group_initiator_name
        | auth_group_initiator_portal
        | auth_group_initiator_group
        ;

auth_group_auth_type: AUTH_TYPE STR
        {
          bool ok = Guarded([&] { return auth_group_set_type(gAuthGroup, $2) == 0; });
          if (!ok) YYABORT;
        }
        ;

auth_group_chap: CHAP STR STR
        {
          bool ok = Guarded([&] { return auth_new_chap(gAuthGroup, $2, $3, true) != nullptr; });
          if (!ok) YYABORT;
        }
        ;

auth_group_chap_mutual: CHAP_MUTUAL STR STR STR STR
        {
          bool ok = Guarded([&] {
            return auth_new_chap_mutual(gAuthGroup, $2, $3, $4, $5, true) != nullptr;
          });
          if (!ok) YYABORT;
        }
        ;

auth_group_initiator_name: INITIATOR_NAME STR
        {
          bool ok = Guarded([&] { return auth_name_new(gAuthGroup, $2) != nullptr; });
          if (!ok) YYABORT;
        }
        ;

auth_group_initiator_portal: INITIATOR_PORTAL STR
        {
          bool ok = Guarded([&] { return auth_portal_new(gAuthGroup, $2) != nullptr; });
          if (!ok) YYABORT;
        }
        ;

auth_group_initiator_group: INITIATOR_GROUP STR
        {
          bool ok = Guarded([&] {
            if (auth_group_igroup_ref_add(gConf, gAuthGroup, $2) == 0) return true;
            log_warnx("Failed to add initiator-group ref \"%s\" to auth-group \"%s\". Please make "
                      "sure initiator group \"%s\" is in configuration file and it appears ahead "
                      "of auth-group \"%s\"",
                      $2, gAuthGroup->ag_name, $2, gAuthGroup->ag_name);
            return false;
          });
          if (!ok) YYABORT;
        }
        ;

portal_group: PORTAL_GROUP portal_group_name OPENING_BRACKET portal_group_entries CLOSING_BRACKET
        {
          gPortalGroup = nullptr;
        }
        ;

portal_group_name: STR
        {
          bool ok = Guarded([&] {
            // The built-in "default" group is filled by the first block of that name.
            if (strcmp($1, "default") == 0 && !gConf->conf_default_pg_defined) {
              gPortalGroup = portal_group_find(gConf, $1);
              gConf->conf_default_pg_defined = true;
            } else {
              gPortalGroup = portal_group_new(gConf, $1);
            }
            return gPortalGroup != nullptr;
          });
          if (!ok) YYABORT;
        }
        ;

portal_group_entries:
        %empty
        | portal_group_entries portal_group_entry
        | portal_group_entries portal_group_entry SEMICOLON
        ;

portal_group_entry:
        portal_group_discovery_auth_group
        | portal_group_discovery_filter
        | portal_group_foreign
        | portal_group_listen
        | portal_group_listen_iser
        | portal_group_option
        | portal_group_redirect
        | portal_group_tag
        ;

portal_group_discovery_auth_group: DISCOVERY_AUTH_GROUP STR
        {
          bool ok = true;
          if (gPortalGroup->pg_discovery_auth_group != nullptr) {
            log_warnx("discovery-auth-group for portal-group \"%s\" specified more than once",
                      gPortalGroup->pg_name);
            ok = false;
          } else {
            gPortalGroup->pg_discovery_auth_group = auth_group_find(gConf, $2);
            if (gPortalGroup->pg_discovery_auth_group == nullptr) {
              log_warnx("unknown discovery-auth-group \"%s\" for portal-group \"%s\"", $2,
                        gPortalGroup->pg_name);
              ok = false;
            }
          }
          if (!ok) YYABORT;
        }
        ;

portal_group_discovery_filter: DISCOVERY_FILTER STR
        {
          bool ok = portal_group_set_filter(gPortalGroup, $2) == 0;
          if (!ok) YYABORT;
        }
        ;

portal_group_foreign: FOREIGN
        {
          gPortalGroup->pg_foreign = 1;
        }
        ;

portal_group_listen: LISTEN STR
        {
          bool ok = Guarded([&] { return portal_group_add_listen(gPortalGroup, $2, false) == 0; });
          if (!ok) YYABORT;
        }
        ;

portal_group_listen_iser: LISTEN_ISER STR
        {
          bool ok = Guarded([&] { return portal_group_add_listen(gPortalGroup, $2, true) == 0; });
          if (!ok) YYABORT;
        }
        ;

portal_group_option: OPTION STR STR
        {
          bool ok = Guarded([&] {
            return option_new(&gPortalGroup->pg_options, $2, $3) != nullptr;
          });
          if (!ok) YYABORT;
        }
        ;

portal_group_redirect: REDIRECT STR
        {
          bool ok = Guarded([&] { return portal_group_set_redirection(gPortalGroup, $2) == 0; });
          if (!ok) YYABORT;
        }
        ;

portal_group_tag: TAG STR
        {
          uint64_t n = 0;
          bool ok = ParseNumber($2, &n);
          if (!ok) YYABORT;
          gPortalGroup->pg_tag = static_cast<uint16_t>(n);
        }
        ;

initiator_group: INITIATOR_GROUP initiator_group_name OPENING_BRACKET initiator_group_entries
        CLOSING_BRACKET
        {
          gInitiatorGroup = nullptr;
        }
        ;

initiator_group_name: STR
        {
          bool ok = Guarded([&] {
            gInitiatorGroup = initiator_group_new(gConf, $1);
            return gInitiatorGroup != nullptr;
          });
          if (!ok) YYABORT;
        }
        ;

initiator_group_entries:
        %empty
        | initiator_group_entries initiator_group_entry
        ;

initiator_group_entry: INITIATOR_NAME STR
        {
          bool ok = Guarded([&] { return initiator_new(gInitiatorGroup, $2) != nullptr; });
          if (!ok) YYABORT;
        }
        ;

lun: LUN lun_name OPENING_BRACKET lun_entries CLOSING_BRACKET
        {
          gLun = nullptr;
        }
        ;

lun_name: STR
        {
          bool ok = Guarded([&] {
            gLun = lun_new(gConf, $1);
            return gLun != nullptr;
          });
          if (!ok) YYABORT;
        }
        ;

target: TARGET target_name OPENING_BRACKET target_entries CLOSING_BRACKET
        {
          gTarget = nullptr;
        }
        ;

target_name: STR
        {
          bool ok = Guarded([&] {
            gTarget = target_new(gConf, $1);
            return gTarget != nullptr;
          });
          if (!ok) YYABORT;
        }
        ;

target_entries:
        %empty
        | target_entries target_entry
        | target_entries target_entry SEMICOLON
        ;

target_entry:
        target_alias
        | target_auth_group
        | target_auth_type
        | target_chap
        | target_chap_mutual
        | target_initiator_name
        | target_initiator_portal
        | target_portal_group
        | target_port
        | target_redirect
        | target_option
        | target_lun
        | target_lun_ref
        ;

target_alias: ALIAS STR
        {
          bool ok = Guarded([&] {
            if (gTarget->t_alias != nullptr) {
              log_warnx("alias for target \"%s\" specified more than once", gTarget->t_name);
              return false;
            }
            gTarget->t_alias = checked_strdup($2);
            return true;
          });
          if (!ok) YYABORT;
        }
        ;

target_auth_group: AUTH_GROUP STR
        {
          bool ok = true;
          if (gTarget->t_auth_group != nullptr) {
            if (gTarget->t_auth_group->ag_name != nullptr)
              log_warnx("auth-group for target \"%s\" specified more than once", gTarget->t_name);
            else
              log_warnx("cannot use both auth-group and explicit authorisations for target \"%s\"",
                        gTarget->t_name);
            ok = false;
          } else {
            gTarget->t_auth_group = auth_group_find(gConf, $2);
            if (gTarget->t_auth_group == nullptr) {
              log_warnx("unknown auth-group \"%s\" for target \"%s\"", $2, gTarget->t_name);
              ok = false;
            }
          }
          if (!ok) YYABORT;
        }
        ;

target_auth_type: AUTH_TYPE STR
        {
          bool ok = Guarded([&] {
            struct auth_group* ag = InlineAuthGroup("auth-type");
            return ag != nullptr && auth_group_set_type(ag, $2) == 0;
          });
          if (!ok) YYABORT;
        }
        ;

target_chap: CHAP STR STR
        {
          bool ok = Guarded([&] {
            struct auth_group* ag = InlineAuthGroup("chap");
            return ag != nullptr && auth_new_chap(ag, $2, $3, true) != nullptr;
          });
          if (!ok) YYABORT;
        }
        ;

target_chap_mutual: CHAP_MUTUAL STR STR STR STR
        {
          bool ok = Guarded([&] {
            struct auth_group* ag = InlineAuthGroup("chap-mutual");
            return ag != nullptr && auth_new_chap_mutual(ag, $2, $3, $4, $5, true) != nullptr;
          });
          if (!ok) YYABORT;
        }
        ;

target_initiator_name: INITIATOR_NAME STR
        {
          bool ok = Guarded([&] {
            struct auth_group* ag = InlineAuthGroup("initiator-name");
            return ag != nullptr && auth_name_new(ag, $2) != nullptr;
          });
          if (!ok) YYABORT;
        }
        ;

target_initiator_portal: INITIATOR_PORTAL STR
        {
          bool ok = Guarded([&] {
            struct auth_group* ag = InlineAuthGroup("initiator-portal");
            return ag != nullptr && auth_portal_new(ag, $2) != nullptr;
          });
          if (!ok) YYABORT;
        }
        ;

target_portal_group: PORTAL_GROUP STR STR
        {
          bool ok = Guarded([&] {
            struct portal_group* pg = portal_group_find(gConf, $2);
            if (pg == nullptr) {
              log_warnx("unknown portal-group \"%s\" for target \"%s\"", $2, gTarget->t_name);
              return false;
            }
            struct auth_group* ag = auth_group_find(gConf, $3);
            if (ag == nullptr) {
              log_warnx("unknown auth-group \"%s\" for target \"%s\"", $3, gTarget->t_name);
              return false;
            }
            struct port* port = port_new(gConf, gTarget, pg);
            if (port == nullptr) {
              log_warnx("can't link portal-group \"%s\" to target \"%s\"", $2, gTarget->t_name);
              return false;
            }
            port->p_auth_group = ag;
            return true;
          });
          if (!ok) YYABORT;
        }
        | PORTAL_GROUP STR
        {
          bool ok = Guarded([&] {
            struct portal_group* pg = portal_group_find(gConf, $2);
            if (pg == nullptr) {
              log_warnx("unknown portal-group \"%s\" for target \"%s\"", $2, gTarget->t_name);
              return false;
            }
            if (port_new(gConf, gTarget, pg) == nullptr) {
              log_warnx("can't link portal-group \"%s\" to target \"%s\"", $2, gTarget->t_name);
              return false;
            }
            return true;
          });
          if (!ok) YYABORT;
        }
        ;

target_port: PORT STR
        {
          bool ok = Guarded([&] {
            struct pport* pp = pport_find(gConf, $2);
            if (pp == nullptr) {
              log_warnx("unknown port \"%s\" for target \"%s\"", $2, gTarget->t_name);
              return false;
            }
            if (!TAILQ_EMPTY(&pp->pp_ports)) {
              log_warnx("can't link port \"%s\" to target \"%s\", port already linked to some "
                        "target",
                        $2, gTarget->t_name);
              return false;
            }
            if (port_new_pp(gConf, gTarget, pp) == nullptr) {
              log_warnx("can't link port \"%s\" to target \"%s\"", $2, gTarget->t_name);
              return false;
            }
            return true;
          });
          if (!ok) YYABORT;
        }
        ;

target_redirect: REDIRECT STR
        {
          bool ok = Guarded([&] { return target_set_redirection(gTarget, $2) == 0; });
          if (!ok) YYABORT;
        }
        ;

target_option: OPTION STR STR
        {
          bool ok = Guarded([&] { return target_option_new(gTarget, $2, $3) != nullptr; });
          if (!ok) YYABORT;
        }
        ;

target_lun: LUN target_lun_number OPENING_BRACKET lun_entries CLOSING_BRACKET
        {
          gLun = nullptr;
        }
        ;

target_lun_number: STR
        {
          bool ok = Guarded([&] {
            int number = 0;
            if (!ParseLunNumber($1, &number)) return false;
            char name[MAX_NAME_LEN + 32];
            keld_target_lun_name(name, sizeof(name), gTarget->t_name, number);
            gLun = lun_new(gConf, name);
            if (gLun == nullptr) return false;
            lun_set_scsiname(gLun, name);
            gTarget->t_luns[number] = gLun;
            lun_set_keld_lun(gLun, number);
            return true;
          });
          if (!ok) YYABORT;
        }
        ;

target_lun_ref: LUN STR STR
        {
          bool ok = Guarded([&] {
            int number = 0;
            if (!ParseLunNumber($2, &number)) return false;
            struct lun* lun = lun_find(gConf, $3);
            if (lun == nullptr) {
              log_warnx("unknown lun \"%s\" for target \"%s\"", $3, gTarget->t_name);
              return false;
            }
            gTarget->t_luns[number] = lun;
            return true;
          });
          if (!ok) YYABORT;
        }
        ;

lun_entries:
        %empty
        | lun_entries lun_entry
        | lun_entries lun_entry SEMICOLON
        ;

lun_entry:
        lun_backend
        | lun_blocksize
        | lun_device_id
        | lun_device_type
        | lun_ctl_lun
        | lun_option
        | lun_path
        | lun_serial
        | lun_size
        ;

lun_backend: BACKEND STR
        {
          bool ok = Guarded([&] {
            if (gLun->l_backend != nullptr) {
              log_warnx("backend for lun \"%s\" specified more than once", gLun->l_name);
              return false;
            }
            lun_set_backend(gLun, $2);
            return true;
          });
          if (!ok) YYABORT;
        }
        ;

lun_blocksize: BLOCKSIZE STR
        {
          uint64_t n = 0;
          bool ok = ParseNumber($2, &n);
          if (!ok) YYABORT;
          if (gLun->l_blocksize != 0) {
            log_warnx("blocksize for lun \"%s\" specified more than once", gLun->l_name);
            YYABORT;
          }
          lun_set_blocksize(gLun, n);
        }
        ;

lun_device_id: DEVICE_ID STR
        {
          bool ok = Guarded([&] {
            if (gLun->l_device_id != nullptr) {
              log_warnx("device_id for lun \"%s\" specified more than once", gLun->l_name);
              return false;
            }
            lun_set_device_id(gLun, $2);
            return true;
          });
          if (!ok) YYABORT;
        }
        ;

lun_device_type: DEVICE_TYPE STR
        {
          int type = 0;
          bool ok = ParseDeviceType($2, &type);
          if (!ok) YYABORT;
          lun_set_device_type(gLun, static_cast<uint8_t>(type));
        }
        ;

lun_ctl_lun: CTL_LUN STR
        {
          uint64_t n = 0;
          bool ok = ParseNumber($2, &n);
          if (!ok) YYABORT;
          if (gLun->l_ctl_lun >= 0) {
            log_warnx("ctl_lun for lun \"%s\" specified more than once", gLun->l_name);
            YYABORT;
          }
          lun_set_ctl_lun(gLun, static_cast<int>(n));
        }
        ;

lun_option: OPTION STR STR
        {
          bool ok = Guarded([&] { return option_new(&gLun->l_options, $2, $3) != nullptr; });
          if (!ok) YYABORT;
        }
        ;

lun_path: PATH STR
        {
          bool ok = Guarded([&] {
            if (gLun->l_path != nullptr) {
              log_warnx("path for lun \"%s\" specified more than once", gLun->l_name);
              return false;
            }
            lun_set_path(gLun, $2);
            return true;
          });
          if (!ok) YYABORT;
        }
        ;

lun_serial: SERIAL STR
        {
          bool ok = Guarded([&] {
            if (gLun->l_serial != nullptr) {
              log_warnx("serial for lun \"%s\" specified more than once", gLun->l_name);
              return false;
            }
            lun_set_serial(gLun, $2);
            return true;
          });
          if (!ok) YYABORT;
        }
        ;

lun_size: SIZE STR
        {
          uint64_t n = 0;
          bool ok = ParseNumber($2, &n);
          if (!ok) YYABORT;
          if (gLun->l_size != 0) {
            log_warnx("size for lun \"%s\" specified more than once", gLun->l_name);
            YYABORT;
          }
          lun_set_size(gLun, static_cast<int64_t>(n));
        }
        ;

%%

// Why the last load failed, in one line (guarded, like the parser, by the parser lock).
std::string gLoadFailure;

void keldParser_error(const char* msg) {
  log_warnx("error in configuration file at line %d near '%s': %s", gKeldConfLineno,
            keldParser_text != nullptr ? keldParser_text : "", msg);
  if (gLoadFailure.empty()) gLoadFailure = log_last_warning();
  if (gStream == nullptr) return;
  // Dump the file so that the log shows the context of the error; the scanner's position in the
  // stream is restored afterwards.
  long saved = ftell(gStream);
  if (saved < 0 || fseek(gStream, 0, SEEK_SET) != 0) return;
  log_warnx("Dumping kel.conf file...");
  char piece[1024];
  int line = 1;
  while (fgets(piece, sizeof(piece), gStream) != nullptr) {
    size_t len = strlen(piece);
    bool line_end = len > 0 && piece[len - 1] == '\n';
    if (line_end) piece[--len] = '\0';
    if (len > 0 && piece[len - 1] == '\r') piece[--len] = '\0';
    log_warnx("%d: %s", line, piece);
    if (line_end) line++;
  }
  clearerr(gStream);
  fseek(gStream, saved, SEEK_SET);
}

namespace {

void ResetParserState() {
  gAuthGroup = nullptr;
  gPortalGroup = nullptr;
  gInitiatorGroup = nullptr;
  gTarget = nullptr;
  gLun = nullptr;
}

// Steps 1 to 3 of a load: a fresh conf with the built-in groups. Null after logging on failure.
bool PrepareConf(struct conf* oldconf) {
  gConf = conf_new();
  if (gConf == nullptr) {
    log_warnx("%s: conf_new() failed.", "conf_new_from_file");
    return false;
  }
  if (oldconf != nullptr) {
    struct pport* pp;
    TAILQ_FOREACH(pp, &oldconf->conf_pports, pp_next) pport_copy(pp, gConf);
  }
  if (auth_group_new(gConf, "default") == nullptr) {
    log_warnx("%s: auth_group_new() for default failed.", "conf_new_from_file");
    return false;
  }
  struct auth_group* ag = auth_group_new(gConf, "no-authentication");
  if (ag == nullptr) {
    log_warnx("%s: auth_group_new() for no-authentication failed.", "conf_new_from_file");
    return false;
  }
  ag->ag_type = AG_TYPE_NO_AUTHENTICATION;
  ag = auth_group_new(gConf, "no-access");
  if (ag == nullptr) {
    log_warnx("%s: auth_group_new() for no-access failed.", "conf_new_from_file");
    return false;
  }
  ag->ag_type = AG_TYPE_DENY;
  if (portal_group_new(gConf, "default") == nullptr) {
    log_warnx("%s: portal_group_new() failed.", "conf_new_from_file");
    return false;
  }
  return true;
}

void CheckFileMode(int fd, const char* path) {
  struct stat sb;
  if (fstat(fd, &sb) != 0) {
    log_warn("stat");
    return;
  }
  if (sb.st_mode & S_IWOTH) {
    log_warnx("%s is world-writable", path);
  } else if (sb.st_mode & S_IROTH) {
    log_warnx("%s is world-readable", path);
  } else if (sb.st_mode & S_IXOTH) {
    log_warnx("%s is world-executable", path);
  }
}

// Runs the parser over gStream; true when the file parsed.
bool RunParser() {
  rewind(gStream);
  gKeldConfLineno = 1;
  keldParser_restart(gStream);
  int error = 1;
  try {
    error = keldParser_parse();
  } catch (...) {
    ResetParserState();
    keldParser_lex_destroy();
    KeldReleaseTokens();
    throw;
  }
  ResetParserState();
  keldParser_lex_destroy();
  KeldReleaseTokens();
  return error == 0;
}

void CloseStream() {
  if (gStream != nullptr) {
    fclose(gStream);
    gStream = nullptr;
  }
}

// A kel.conf at the cluster limits is well under a megabyte; far more is not a configuration.
constexpr off_t kMaxConfBytes = 16 * 1024 * 1024;

// Steps 4 to 8, on gConf; false after logging when the load failed.
bool LoadInto(int fd, const char* path) {
  struct stat st;
  if (fstat(fd, &st) != 0) {
    log_warn("cannot stat configuration file %s", path);
    return false;
  }
  if (!S_ISREG(st.st_mode)) {
    log_warnx("configuration file %s is %s, not a regular file", path,
              S_ISDIR(st.st_mode) ? "a directory" : "a device, pipe or socket");
    gLoadFailure = log_last_warning();
    return false;
  }
  if (st.st_size > kMaxConfBytes) {
    log_warnx("configuration file %s holds %lld bytes, more than the %lld a configuration may have",
              path, static_cast<long long>(st.st_size), static_cast<long long>(kMaxConfBytes));
    gLoadFailure = log_last_warning();
    return false;
  }
  int dup_fd = dup(fd);
  if (dup_fd >= 0) {
    gStream = fdopen(dup_fd, "r");
    if (gStream == nullptr) close(dup_fd);
  }
  if (gStream == nullptr) {
    log_warn("unable to open configuration file %s", path);
    return false;
  }
  CheckFileMode(fd, path);
  bool parsed = RunParser();
  CloseStream();
  if (gPendingError) return false;
  if (!parsed) {
    // A rule that refuses logs its reason last; a syntax error has recorded its own line.
    if (gLoadFailure.empty()) gLoadFailure = log_last_warning();
    log_warnx("Failed to parse config file %s", path);
    return false;
  }
  if (!gConf->conf_default_ag_defined) {
    log_debugx("auth-group \"default\" not defined; going with defaults");
    auth_group_find(gConf, "default")->ag_type = AG_TYPE_DENY;
  }
  if (!gConf->conf_default_pg_defined) {
    log_debugx("portal-group \"default\" not defined; going with defaults");
    if (portal_group_add_listen(portal_group_find(gConf, "default"), "nuk0:3260", false) != 0)
      return false;
  }
  gConf->conf_kernel_port_on = true;
  if (conf_verify(gConf) != 0) {
    gLoadFailure = log_last_warning();
    log_warnx("failed to validate configuration %s", path);
    return false;
  }
  return true;
}

}  // namespace

const char* conf_load_failure(void) { return gLoadFailure.c_str(); }

struct conf* conf_new_from_file(int fd, const char* path, struct conf* oldconf) {
  log_debugx("obtaining configuration from %s", path);
  KeldCleanConf();
  gLoadFailure.clear();
  gPendingError = nullptr;
  bool ok = false;
  try {
    ok = PrepareConf(oldconf) && LoadInto(fd, path);
  } catch (...) {
    gPendingError = std::current_exception();
  }
  if (!ok || gPendingError) {
    ResetParserState();
    KeldReleaseTokens();
    CloseStream();
    KeldCleanConf();
    if (gPendingError) {
      std::exception_ptr error = gPendingError;
      gPendingError = nullptr;
      std::rethrow_exception(error);
    }
    return nullptr;
  }
  struct conf* conf = gConf;
  gConf = nullptr;
  return conf;
}

void KeldCleanConf(void) {
  if (gConf != nullptr) {
    conf_delete(gConf);
    gConf = nullptr;
  }
}
