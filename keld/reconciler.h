// Making one tgtd serve a desired state.
//
// Apply() reads what tgtd serves (show), compares it with the desired state and issues only the
// tgtadm calls that close the difference, so running it twice changes nothing the second time and
// a change to one target touches no other target. It keeps what tgtd cannot show: the passwords
// it created accounts with, the size each backing file had when tgtd opened it, and target ids.
//
// Decisions that make an initiator stop seeing something:
//  - an offline target is deleted from tgtd (with --force, dropping its sessions), so discovery no
//    longer lists it and its disks' locks are released;
//  - an offline LUN is deleted from its target, so REPORT LUNS no longer lists it and its disk's
//    lock is released; both come back when they are online again.
// Other rules:
//  - kel LUN n is SCSI LUN n + 1 (ScsiLunForKelLun);
//  - ACL: the initiator names when names or groups were given (none listed: nobody), else "ALL"
//    unless the auth rule is deny (no rule: the target is invisible);
//  - a target that cannot be applied (invalid, CHAP user clash) is left as tgtd serves it and
//    reported; a new one is not created;
//  - changes that could open a target are ordered to fail closed: accounts are bound before ACL
//    rules are added, surplus ACL rules are removed before anything else, and during a password
//    change (delete + re-create of the account) the targets it is bound to have no ACL rules;
//  - a grown backing file is re-opened online ("online=0,path=<file>" in one update).
//
// Not thread-safe: the daemon calls it from its one thread. Failures never throw; they are
// returned as problems, each with the target it concerns: a portal address that cannot be
// obtained (Outcome::kReservation) is reported once for every target served on it. Only an
// unreadable tgtd is daemon-wide; leftovers that cannot be deleted (a portal or account nobody
// uses) are reported with no target.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "keld/disk_lock.h"
#include "keld/portal.h"
#include "keld/state.h"
#include "keld/status.h"
#include "keld/tgt_admin.h"

namespace kel {
namespace keld {

struct ReconcileResult {
  std::vector<Problem> problems;
  int changes = 0;  // tgtadm calls that changed tgtd
  // The portals of the targets served: how many the desired state names (distinct addresses,
  // plus each one whose interface gave no address) and how many of them tgtd listens on now.
  int portalsWanted = 0;
  int portalsObtained = 0;
};

// The first portal of the first online target that resolves (to start tgtd with), or false.
bool FirstPortal(const DesiredState& desired, PortalResolver& resolver, ResolvedPortal* out);

// One reconciler belongs to one tgtd instance: a restarted tgtd gets a new reconciler (what it
// learnt, such as account passwords, does not carry over), while the disk locker is kept.
class KeldReconciler {
 public:
  // None of the arguments is owned; they must outlive the reconciler.
  KeldReconciler(TgtAdmin& admin, DiskLocker& locker, PortalResolver& resolver);

  ReconcileResult Apply(const DesiredState& desired);

  // What tgtd serves now, with kel's LUN numbers, aliases and the sizes the files had when opened.
  // Returns false with `*error` set when tgtd cannot be asked.
  bool Status(ServedStatus* out, std::string* error);

 private:
  struct Plan;

  bool PlanTarget(const DesiredTarget& d, Plan* plan, std::vector<Problem>* problems);
  void ApplyPortals(const std::map<std::string, ResolvedPortal>& wanted,
                    const std::map<std::string, std::vector<std::string>>& users, TgtState& cur,
                    ReconcileResult& result);
  bool EnsureAccount(const std::string& user, const std::string& secret, TgtState& cur,
                     ReconcileResult& result);
  void ApplyTarget(const Plan& plan, TgtState& cur, ReconcileResult& result);
  void ApplyLuns(const Plan& plan, TgtTarget& t, ReconcileResult& result);
  void Must(const TgtResult& r, const std::string& what, ReconcileResult& result);
  void ReleaseUnservedLocks(const TgtState& cur);

  TgtAdmin& admin_;
  DiskLocker& locker_;
  PortalResolver& resolver_;

  int next_tid_ = 1;
  std::map<std::string, std::string> secrets_;           // account -> password it was made with
  std::map<std::pair<int, int>, uint64_t> opened_size_;  // (tid, SCSI LUN) -> bytes when opened
  std::map<std::string, std::string> portal_interface_;  // portal text -> interface name
  std::map<std::string, DesiredTarget> last_desired_;    // iqn -> what was last asked for
};

}  // namespace keld
}  // namespace kel
