// An in-memory tgtd for unit tests of what drives TgtAdmin.
//
// It keeps tgtd's rules: LUN 0 is the controller and cannot be created or deleted; ACL rules are
// OR'ed ("ALL" admits everyone) and a target without rules is invisible; accounts are global,
// deleting one unbinds it everywhere, a target has one outgoing account at most; a LUN update
// with "path=" re-opens the file (at its current size) and leaves the LUN online; errors carry
// tgtd's texts. Every call that changes something is recorded, with its target id.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "keld/tgt_admin.h"

namespace kel {
namespace keld {
namespace testing {

class FakeTgtd : public TgtAdmin {
 public:
  struct Lun {
    std::string path;
    bool online = true;
    std::string scsiId;
    uint64_t openedBytes = 0;
    int opens = 0;
  };
  struct Target {
    std::string name;
    std::string state = "ready";
    std::map<int, Lun> luns;  // without the controller
    std::vector<std::string> incoming;
    std::string outgoing;
    std::vector<std::string> acl;
    std::vector<std::string> sessions;  // initiators logged in (set by tests)
  };
  struct Call {
    std::string op;  // "NewTarget", "BindAcl", ...
    int tid = 0;     // 0 for calls that concern no target
    std::string arg;
  };

  // Model, open to tests.
  std::map<int, Target> targets;
  std::map<std::string, std::string> accounts;  // user -> password
  std::vector<std::string> portals;
  std::set<std::string> unbindablePortals;  // NewPortal of these fails like a taken address
  bool running = true;
  std::vector<Call> calls;
  int shows = 0;

  // The next call of `op` fails with `error` and `message`.
  void FailNext(const std::string& op, TgtError error, const std::string& message);

  const Target* Find(const std::string& iqn) const;
  // Whether `initiator` may see and log in to `iqn` (ACL only).
  bool Visible(const std::string& iqn, const std::string& initiator) const;
  // Whether a login with CHAP `user`/`secret` (empty: none) is accepted: visible, and when the
  // target has incoming accounts, one of them with this password.
  bool CanLogin(const std::string& iqn, const std::string& initiator, const std::string& user,
                const std::string& secret) const;
  // Index of the first recorded call of `op` with `arg` (-1 when none), to check orderings.
  int IndexOf(const std::string& op, const std::string& arg) const;

  TgtResult Show(TgtState* out) override;
  TgtResult NewTarget(int tid, const std::string& name) override;
  TgtResult DeleteTarget(int tid, bool force) override;
  TgtResult SetTargetState(int tid, const std::string& state) override;
  TgtResult NewLun(int tid, int lun, const std::string& path) override;
  TgtResult DeleteLun(int tid, int lun) override;
  TgtResult UpdateLun(int tid, int lun, const std::string& params) override;
  TgtResult BindAcl(int tid, const std::string& rule) override;
  TgtResult UnbindAcl(int tid, const std::string& rule) override;
  TgtResult NewAccount(const std::string& user, const std::string& password) override;
  TgtResult DeleteAccount(const std::string& user) override;
  TgtResult BindAccount(int tid, const std::string& user, bool outgoing) override;
  TgtResult UnbindAccount(int tid, const std::string& user, bool outgoing) override;
  TgtResult NewPortal(const std::string& portal) override;
  TgtResult DeletePortal(const std::string& portal) override;
  TgtResult SetSystemState(const std::string& state) override;
  TgtResult DeleteSystem() override;

 private:
  // Checks running/injected failures; records the call when it succeeds later.
  bool Begin(const std::string& op, TgtResult* r);
  TgtResult Ok(const std::string& op, int tid, const std::string& arg);
  Target* Get(int tid, TgtResult* r);

  std::map<std::string, TgtResult> fail_next_;
};

TgtResult TgtFailure(TgtError error, const std::string& message);

}  // namespace testing
}  // namespace keld
}  // namespace kel
