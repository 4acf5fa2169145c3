// Driving one tgtd through its control program, tgtadm.
//
// TgtAdmin is the small interface the reconciler uses; TgtAdmCommand runs
// `tgtadm -C <index> --lld iscsi ...` for each call, and host/testing/tgt_admin_fake.h models
// tgtd's behaviour for unit tests. tgtd's rules that callers must respect:
//  - LUN 0 of every target is tgtd's controller: it cannot be replaced or deleted.
//  - ACL rules are OR'ed: "ALL" plus a name admits everyone; a target without rules is invisible.
//  - Accounts are global by user name; a target has any number of incoming accounts and at most
//    one outgoing account. Passwords cannot be changed and tgtd never shows them: a change is a
//    delete and re-create, and the delete silently unbinds the account from every target.
//
// Every call returns a TgtResult instead of throwing, because the reconciler branches on the kind
// of error (tgtadm exits 22 for all of them; only the stderr text tells them apart).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kel {
namespace keld {

enum class TgtError {
  kNone,
  kExists,      // "... already exists", "already has an outgoing account"
  kNotFound,    // "can't find ...", "... does not exist"
  kBusy,        // "this logical unit is still active", target with active nexus
  kNotRunning,  // exit 107: no tgtd on that control index
  kInvalid,     // "invalid request" (also what a portal that cannot be bound gives)
  kFailed,      // anything else, or tgtadm could not be run
};

struct TgtResult {
  TgtError error = TgtError::kNone;
  int exitCode = 0;
  std::string message;  // tgtadm's stderr without its "tgtadm: " prefix, or why it failed
  bool ok() const { return error == TgtError::kNone; }
};

// Classifies a finished tgtadm call from its exit code and stderr.
TgtResult ClassifyTgtadm(int exit_code, const std::string& err);

// tgtd's view of one logical unit, as `--mode target --op show` prints it.
struct TgtLun {
  int lun = 0;
  std::string type;  // "controller", "disk", ...
  std::string scsiId;
  std::string scsiSn;
  uint64_t sizeMb = 0;  // tgtd shows sizes in (decimal, rounded) megabytes only
  bool online = true;
  std::string backingStoreType;
  std::string path;  // "None" for the controller
};

struct TgtNexus {
  int id = 0;
  std::string initiator;
  std::vector<std::string> addresses;
};

struct TgtTarget {
  int tid = 0;
  std::string name;
  std::string state;  // "ready", "offline"
  std::vector<TgtNexus> nexus;
  std::vector<TgtLun> luns;  // includes LUN 0
  std::vector<std::string> incomingAccounts;
  std::string outgoingAccount;   // empty when none
  std::vector<std::string> acl;  // initiator names and addresses, "ALL"

  const TgtLun* FindLun(int lun) const;
};

struct TgtState {
  std::vector<TgtTarget> targets;
  std::vector<std::string> accounts;
  std::vector<std::string> portals;  // "ADDR:PORT" as given to --param portal= ("[v6]:port")

  TgtTarget* FindTarget(const std::string& name);
  TgtTarget* FindTid(int tid);
};

// Parsers of tgtadm's show output. Unknown lines are skipped, so that a newer tgtd that prints
// more does not break them.
std::vector<TgtTarget> ParseTargetShow(const std::string& text);
std::vector<std::string> ParseAccountShow(const std::string& text);
std::vector<std::string> ParsePortalShow(const std::string& text);

// The portal text tgtadm expects for an address and port: "a.b.c.d:p" or "[v6]:p".
std::string PortalText(const std::string& address, int port);

class TgtAdmin {
 public:
  virtual ~TgtAdmin() = default;

  // Reads targets, accounts and portals.
  virtual TgtResult Show(TgtState* out) = 0;

  virtual TgtResult NewTarget(int tid, const std::string& name) = 0;
  // With `force`, a target with sessions is deleted too (they are dropped).
  virtual TgtResult DeleteTarget(int tid, bool force) = 0;
  virtual TgtResult SetTargetState(int tid, const std::string& state) = 0;

  virtual TgtResult NewLun(int tid, int lun, const std::string& path) = 0;
  virtual TgtResult DeleteLun(int tid, int lun) = 0;
  // `params` is tgtadm's "name=value,..." list ("online=0,path=/x" re-opens the backing file).
  virtual TgtResult UpdateLun(int tid, int lun, const std::string& params) = 0;

  // `rule` is an initiator name, or "ALL".
  virtual TgtResult BindAcl(int tid, const std::string& rule) = 0;
  virtual TgtResult UnbindAcl(int tid, const std::string& rule) = 0;

  virtual TgtResult NewAccount(const std::string& user, const std::string& password) = 0;
  virtual TgtResult DeleteAccount(const std::string& user) = 0;
  virtual TgtResult BindAccount(int tid, const std::string& user, bool outgoing) = 0;
  virtual TgtResult UnbindAccount(int tid, const std::string& user, bool outgoing) = 0;

  virtual TgtResult NewPortal(const std::string& portal) = 0;
  virtual TgtResult DeletePortal(const std::string& portal) = 0;

  // The stop sequence's system calls: "--mode sys --op update --name State -v offline" and
  // "--mode system --op delete" (after which tgtd exits).
  virtual TgtResult SetSystemState(const std::string& state) = 0;
  virtual TgtResult DeleteSystem() = 0;
};

// The real driver: one tgtadm process per call. Thread-safe (no state besides its settings).
class TgtAdmCommand : public TgtAdmin {
 public:
  explicit TgtAdmCommand(int control_index, std::string program = "tgtadm")
      : control_index_(control_index), program_(std::move(program)) {}

  int control_index() const { return control_index_; }

  TgtResult Show(TgtState* out) override;
  TgtResult NewTarget(int tid, const std::string& name) override;
  TgtResult DeleteTarget(int tid, bool force) override;
  TgtResult SetTargetState(int tid, const std::string& state) override;
  TgtResult NewLun(int tid, int lun, const std::string& path) override;
  TgtResult DeleteLun(int tid, int lun) override;
  TgtResult UpdateLun(int tid, int lun, const std::string& params) override;
  TgtResult BindAcl(int tid, const std::string& rule) override;
  TgtResult UnbindAcl(int tid, const std::string& rule) override;
  // The password is passed on tgtadm's command line (it has no other way to take it), so it is
  // visible in the process list for the few milliseconds the call lasts.
  TgtResult NewAccount(const std::string& user, const std::string& password) override;
  TgtResult DeleteAccount(const std::string& user) override;
  TgtResult BindAccount(int tid, const std::string& user, bool outgoing) override;
  TgtResult UnbindAccount(int tid, const std::string& user, bool outgoing) override;
  TgtResult NewPortal(const std::string& portal) override;
  TgtResult DeletePortal(const std::string& portal) override;
  TgtResult SetSystemState(const std::string& state) override;
  TgtResult DeleteSystem() override;

  // Runs tgtadm with `args` after "-C N --lld iscsi"; stdout goes to `out` when given.
  TgtResult Run(const std::vector<std::string>& args, std::string* out = nullptr);

 private:
  int control_index_;
  std::string program_;
};

}  // namespace keld
}  // namespace kel
