// The in-memory model of kel.conf: one root `conf` owning every auth group, portal group, target,
// LUN, port, initiator group and global option of the file.
//
// Plain C-style structures compiled as C++. Every object is one zero-filled heap block, every
// string a private heap copy, and every collection a <sys/queue.h> tail queue, so an element can
// unlink itself without knowing its list head.
//
// Failures: creation and set functions refuse with one log_warnx line and return null (or 1 for
// the set functions). Allocation failures, undecodable secrets and malformed initiator portals
// throw HostCtl::Lib::Orsa::OrsaCtlException (through log_err/log_errx); the partly built model is
// left for its owner to delete.
//
// Ownership: the conf owns everything in its lists. Deleting an object frees its strings and what
// it owns (a portal group its portals, options and ports; a target its ports and options; a pport
// its ports; an auth group its auths, names, portals and igroup references; an initiator group its
// initiators). A port belongs to the conf and is also linked from its portal group, pport and
// target; deleting it unlinks it from all of them. Target LUN slots and igroup references point to
// objects owned elsewhere.
//
// Thread-safety: none. A model is used by one thread at a time (callers hold the configuration
// file lock or the configuration cache's lock). conf_new_from_file uses the parser's global state
// and must not run twice at once in a process (ConfHandle::_fileLock serialises it).
#pragma once

#include <sys/queue.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

struct addrinfo;

// Authentication types of an auth group (ag_type).
#define AG_TYPE_UNKNOWN 0
#define AG_TYPE_DENY 1
#define AG_TYPE_NO_AUTHENTICATION 2
#define AG_TYPE_CHAP 3
#define AG_TYPE_CHAP_MUTUAL 4

// Discovery filters of a portal group (pg_discovery_filter).
#define PG_FILTER_UNKNOWN 0
#define PG_FILTER_NONE 1
#define PG_FILTER_PORTAL 2
#define PG_FILTER_PORTAL_NAME 3
#define PG_FILTER_PORTAL_NAME_AUTH 4

// portal p_flags
#define PORTAL_FLAG_ISER 0x1

#define MAX_LUNS 256      // LUN slots of a target, numbers 0..255
#define MAX_NAME_LEN 223  // iSCSI names are at most MAX_NAME_LEN - 1 characters
#define DEFAULT_LISTEN_PORT "3260"
#define DEFAULT_ISNS_PORT "3205"

struct conf;
struct auth_group;
struct portal_group;
struct pport;
struct port;
struct target;
struct lun;
struct initiator_group;
struct conf_lun_index;

// List head types shared by several structures.
TAILQ_HEAD(options, option);
TAILQ_HEAD(ports_of_pg, port);

struct option {
  TAILQ_ENTRY(option) o_next;
  char* o_name;
  char* o_value;
};

struct conf_option {
  TAILQ_ENTRY(conf_option) co_next;
  struct conf* co_conf;
  char* co_name;
  char* co_value;
};

struct auth {
  TAILQ_ENTRY(auth) a_next;
  struct auth_group* a_auth_group;
  char* a_user;
  char* a_secret;         // decoded
  char* a_mutual_user;    // null unless chap-mutual
  char* a_mutual_secret;  // decoded; null unless chap-mutual
};

struct auth_name {
  TAILQ_ENTRY(auth_name) an_next;
  struct auth_group* an_auth_group;
  char* an_initiator;
};

struct auth_portal {
  TAILQ_ENTRY(auth_portal) ap_next;
  struct auth_group* ap_auth_group;
  char* ap_initiator_portal;  // the text as written
  struct sockaddr_storage ap_sa;
  int ap_mask;  // prefix length; 32 or 128 when the text had no "/n"
};

struct auth_group_igroup_ref {
  TAILQ_ENTRY(auth_group_igroup_ref) ref_next;
  struct initiator_group* ref_igroup;  // not owned
};

struct auth_group {
  TAILQ_ENTRY(auth_group) ag_next;
  struct conf* ag_conf;
  char* ag_name;             // null for the anonymous group of inline target authentication
  struct target* ag_target;  // owning target (anonymous group, or the target's own named group)
  int ag_type;               // AG_TYPE_*
  TAILQ_HEAD(, auth) ag_auths;
  TAILQ_HEAD(, auth_name) ag_names;
  TAILQ_HEAD(, auth_portal) ag_portals;
  TAILQ_HEAD(, auth_group_igroup_ref) ag_igroup_refs;
};

struct portal {
  TAILQ_ENTRY(portal) p_next;
  struct portal_group* p_portal_group;
  int p_flags;            // PORTAL_FLAG_*
  char* p_host;           // host part, or the host interface name of an interface portal
  char* p_port;           // port or service
  char* p_listen;         // the text as written
  struct addrinfo* p_ai;  // resolved numeric address, null for names (interfaces, hosts)
  TAILQ_HEAD(, target) p_targets;
  int p_socket;
};

struct portal_group {
  TAILQ_ENTRY(portal_group) pg_next;
  struct conf* pg_conf;
  struct options pg_options;
  char* pg_name;
  struct auth_group* pg_discovery_auth_group;
  int pg_discovery_filter;  // PG_FILTER_*
  int pg_foreign;           // set by the "foreign" keyword; stored only
  bool pg_unassigned;       // computed by conf_verify
  TAILQ_HEAD(, portal) pg_portals;
  struct ports_of_pg pg_ports;
  char* pg_redirection;
  int pg_tag;  // copied into each port created on the group
};

struct isns {
  TAILQ_ENTRY(isns) i_next;
  struct conf* i_conf;
  char* i_addr;
  struct addrinfo* i_ai;  // resolved numeric address, null for host names
};

struct pport {
  TAILQ_ENTRY(pport) pp_next;
  TAILQ_HEAD(, port) pp_ports;
  struct conf* pp_conf;
  char* pp_name;
  uint32_t pp_ctl_port;
};

struct port {
  TAILQ_ENTRY(port) p_next;  // conf_ports
  TAILQ_ENTRY(port) p_pgs;   // pg_ports of p_portal_group
  TAILQ_ENTRY(port) p_pps;   // pp_ports of p_pport
  TAILQ_ENTRY(port) p_ts;    // t_ports of p_target
  struct conf* p_conf;
  char* p_name;  // "<portal group or pport name>-<target name>"
  struct auth_group* p_auth_group;
  struct portal_group* p_portal_group;
  struct pport* p_pport;
  struct target* p_target;
  int p_tag;  // copied from pg_tag
};

struct target_option {
  TAILQ_ENTRY(target_option) to_next;
  struct target* to_target;
  char* to_name;
  char* to_value;
};

struct target {
  TAILQ_ENTRY(target) t_next;
  TAILQ_HEAD(, target_option) t_options;
  struct conf* t_conf;
  struct lun* t_luns[MAX_LUNS];  // indexed by LUN number; null = empty slot; not owned
  struct auth_group* t_auth_group;
  TAILQ_HEAD(, port) t_ports;
  char* t_name;  // lower-cased at creation
  char* t_alias;
  char* t_redirection;
};

struct lun {
  TAILQ_ENTRY(lun) l_next;
  struct conf* l_conf;
  struct options l_options;  // "lun-alias", "status", ...
  char* l_name;              // unique in the conf, case-sensitive
  char* l_backend;           // "block", "ramdisk", or the service's own "pemo"
  int l_device_type;         // 5 = optical
  int l_blocksize;           // 0 = not set
  char* l_device_id;
  char* l_path;
  char* l_scsiname;
  char* l_serial;
  int64_t l_size;  // 512-byte sectors
  int l_ctl_lun;   // -1 when unset
  int l_keld_lun;  // number inside its target, -1 when unset
};

struct initiator {
  TAILQ_ENTRY(initiator) in_next;
  struct initiator_group* in_group;
  char* in_name;
};

struct initiator_group {
  TAILQ_ENTRY(initiator_group) ig_next;
  TAILQ_HEAD(, initiator) ig_initiators;
  struct conf* ig_conf;
  char* ig_name;
};

struct conf {
  TAILQ_HEAD(, lun) conf_luns;  // creation order
  TAILQ_HEAD(, target) conf_targets;
  TAILQ_HEAD(, auth_group) conf_auth_groups;
  TAILQ_HEAD(, port) conf_ports;
  TAILQ_HEAD(, portal_group) conf_portal_groups;
  TAILQ_HEAD(, pport) conf_pports;
  TAILQ_HEAD(, isns) conf_isns;
  int conf_isns_period;   // 900
  int conf_isns_timeout;  // 5
  TAILQ_HEAD(, initiator_group) conf_initiator_groups;
  TAILQ_HEAD(, conf_option) conf_options;  // at most one survives: see conf_option_new
  uint64_t conf_generation;                // 1
  int conf_debug;                          // 0
  int conf_timeout;                        // 60
  int64_t conf_maxproc;                    // 1
  bool conf_default_pg_defined;
  bool conf_default_ag_defined;
  bool conf_kernel_port_on;
  // Name index of conf_luns kept by lun_new/lun_delete so that duplicate checks stay constant
  // time at the cluster limits. Private: never touch it, always go through lun_new/lun_delete.
  struct conf_lun_index* conf_lun_index;
};

// Allocation helpers: zero-filled block / string copy, or throw through log_err.
void* checked_calloc(size_t nmemb, size_t size);
char* checked_strdup(const char* s);

struct conf* conf_new(void);
void conf_delete(struct conf* conf);

// Auth groups. `name` may be null (anonymous group of a target's inline authentication).
struct auth_group* auth_group_new(struct conf* conf, const char* name);
void auth_group_delete(struct auth_group* ag);
struct auth_group* auth_group_find(const struct conf* conf, const char* name);
// "none", "deny", "chap", "chap-mutual"; 0 on success, 1 when refused.
int auth_group_set_type(struct auth_group* ag, const char* type);

// Credentials. With `encoded`, the secrets are base64 text, decoded (at most 32 bytes) before they
// are stored; an undecodable secret throws "Base64_Decode (...)".
struct auth* auth_new_chap(struct auth_group* ag, const char* user, const char* secret,
                           bool encoded);
struct auth* auth_new_chap_mutual(struct auth_group* ag, const char* user, const char* secret,
                                  const char* user2, const char* secret2, bool encoded);
struct auth* auth_find(const struct auth_group* ag, const char* user);
void auth_delete(struct auth* auth);

struct auth_name* auth_name_new(struct auth_group* ag, const char* initiator_name);
bool auth_name_defined(const struct auth_group* ag);
struct auth_name* auth_name_find(const struct auth_group* ag, const char* initiator_name);
// True when names are defined and `initiator_name` is not one of them.
bool auth_name_check(const struct auth_group* ag, const char* initiator_name);
void auth_name_delete(struct auth_name* an);

// Throws "Incorrect initiator portal '<text>'" on malformed text.
struct auth_portal* auth_portal_new(struct auth_group* ag, const char* initiator_portal);
bool auth_portal_defined(const struct auth_group* ag);
struct auth_portal* auth_portal_find(const struct auth_group* ag,
                                     const struct sockaddr_storage* sa);
bool auth_portal_check(const struct auth_group* ag, const struct sockaddr_storage* sa);
void auth_portal_delete(struct auth_portal* ap);

// Initiator-group references of an auth group (the group itself is not owned).
int auth_group_igroup_ref_add(struct conf* conf, struct auth_group* ag, const char* igroup_name);
struct auth_group_igroup_ref* auth_group_igroup_ref_find(const struct auth_group* ag,
                                                         const char* igroup_name);
void auth_group_igroup_ref_remove(struct auth_group* ag, struct auth_group_igroup_ref* ref);
bool auth_group_initiator_group_defined(const struct auth_group* ag);
// Case-insensitive search over the initiators of every referenced group.
struct initiator* auth_group_igroup_initiator_find(const struct auth_group* ag,
                                                   const char* initiator_name);

struct portal_group* portal_group_new(struct conf* conf, const char* name);
void portal_group_delete(struct portal_group* pg);
struct portal_group* portal_group_find(const struct conf* conf, const char* name);
// 0 on success; 1 (portal not kept) on "invalid listen address".
int portal_group_add_listen(struct portal_group* pg, const char* listen, bool iser);
int portal_group_set_filter(struct portal_group* pg, const char* filter);
int portal_group_set_redirection(struct portal_group* pg, const char* addr);
void portal_delete(struct portal* portal);

int isns_new(struct conf* conf, const char* addr);
void isns_delete(struct isns* is);

struct pport* pport_new(struct conf* conf, const char* name, uint32_t ctl_port);
struct pport* pport_find(const struct conf* conf, const char* name);
struct pport* pport_copy(struct pport* pp, struct conf* conf);
void pport_delete(struct pport* pp);

struct port* port_new(struct conf* conf, struct target* target, struct portal_group* pg);
struct port* port_new_pp(struct conf* conf, struct target* target, struct pport* pp);
struct port* port_find(const struct conf* conf, const char* name);
struct port* port_find_in_pg(const struct portal_group* pg, const char* target_name);
void port_delete(struct port* port);

// The name must pass valid_iscsi_name; it is stored lower-cased. Deleting a target frees its
// ports and options, and clears ag_target of the groups that pointed at it; its LUNs and auth
// groups stay in the conf.
struct target* target_new(struct conf* conf, const char* name);
struct target* target_find(const struct conf* conf, const char* name);
void target_delete(struct target* target);
int target_set_redirection(struct target* target, const char* addr);
struct target_option* target_option_new(struct target* target, const char* name, const char* value);
struct target_option* target_option_find(const struct target* target, const char* name);
void target_option_delete(struct target_option* to);
// The option "status" equals "offline".
bool target_is_offline(const struct target* target);

// LUNs. Deleting a LUN first clears every target slot that points to it.
struct lun* lun_new(struct conf* conf, const char* name);
void lun_delete(struct lun* lun);
struct lun* lun_find(const struct conf* conf, const char* name);
struct lun* lun_find_by_ctl_id(const struct conf* conf, uint32_t ctl_id);
// First target whose name is a case-insensitive prefix of `lun_name`.
struct target* lun_target_find(const struct conf* conf, const char* lun_name);
void lun_set_backend(struct lun* lun, const char* value);
void lun_set_blocksize(struct lun* lun, size_t value);
void lun_set_device_type(struct lun* lun, uint8_t value);
void lun_set_device_id(struct lun* lun, const char* value);
void lun_set_path(struct lun* lun, const char* value);
void lun_set_scsiname(struct lun* lun, const char* value);
void lun_set_serial(struct lun* lun, const char* value);
void lun_set_size(struct lun* lun, int64_t value);
void lun_set_ctl_lun(struct lun* lun, int value);
void lun_set_keld_lun(struct lun* lun, int value);
bool lun_ctl_lun_valid(const struct lun* lun);
bool lun_keld_lun_valid(const struct lun* lun);
// Replaces the stored path with `new_path` (a copy).
void lun_modify_target_path(struct lun* lun, const char* new_path);
// The option "status" equals "offline".
bool lun_is_offline(const struct lun* lun);

// "%s,L,0x%016x" of the target name and LUN number, truncated to `len` bytes.
void keld_target_lun_name(char* buf, size_t len, const char* target_name, int lun);
// The target's first port, or null.
struct port* keld_target_to_port(const struct target* target);

// Options of portal groups and LUNs.
struct option* option_new(struct options* options, const char* name, const char* value);
void option_delete(struct options* options, struct option* o);
struct option* option_find(const struct options* options, const char* name);
void option_set(struct option* o, const char* value);

// Global options. Kept as is: a new option replaces the list's content (earlier elements are
// dropped without being freed), so at most the last one survives.
struct conf_option* conf_option_new(struct conf* conf, const char* name, const char* value);
struct conf_option* conf_option_find(const struct conf* conf, const char* name);
void conf_option_delete(struct conf_option* co);

// Initiator groups. Deleting a group also removes every auth group's reference to it.
struct initiator_group* initiator_group_new(struct conf* conf, const char* name);
struct initiator_group* initiator_group_find(const struct conf* conf, const char* name);
void initiator_group_delete(struct initiator_group* ig);
void initiator_group_delete_all_refs(struct conf* conf, struct initiator_group* ig);
struct initiator* initiator_new(struct initiator_group* ig, const char* name);
struct initiator* initiator_find(const struct initiator_group* ig, const char* name);
void initiator_delete(struct initiator* in);

// Fills in defaults and checks the model after a parse: 0 usable, 1 not (conf/verify.cc).
int conf_verify(struct conf* conf);
// False only for names longer than 222 characters; other oddities only warn.
bool valid_iscsi_name(const char* name);
// A decimal number with an optional binary suffix k, m, g, t, p, e (any case): 0 ok, -1 bad.
int expand_number(const char* text, uint64_t* out);

// Parses the already opened (and locked) file `fd`, which stays open and locked: the parser reads
// a dup of it. `path` is used in messages; `oldconf` (may be null) lends its physical ports.
// Returns the verified conf (owned by the caller) or null after logging why. Exceptions of the
// model (undecodable secret, bad initiator portal, allocation) propagate after everything the
// parse allocated has been freed. Not re-entrant (see above).
struct conf* conf_new_from_file(int fd, const char* path, struct conf* oldconf);
// Why the last conf_new_from_file that returned null refused the file (the syntax error with its
// line, the rule or check that failed, a file that is not regular or too large); "" otherwise.
// Read it under the same lock as the load.
const char* conf_load_failure(void);
// Deletes the parser's current conf if an aborted parse left one behind.
void KeldCleanConf(void);
