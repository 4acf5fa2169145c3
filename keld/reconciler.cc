#include "keld/reconciler.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>

#include "keld/tgt_exec.h"
#include "platform/exception.h"
#include "platform/log.h"

namespace kel {
namespace keld {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;

const char kTag[] = "keld";

bool Has(const std::vector<std::string>& items, const std::string& item) {
  return std::find(items.begin(), items.end(), item) != items.end();
}

void Erase(std::vector<std::string>& items, const std::string& item) {
  items.erase(std::remove(items.begin(), items.end(), item), items.end());
}

void AddUnique(std::vector<std::string>& items, const std::string& item) {
  if (!Has(items, item)) items.push_back(item);
}

// tgtd shows sizes only in rounded decimal megabytes; within one of them counts as the same.
bool SameMegabytes(uint64_t bytes, uint64_t shown_mb) {
  uint64_t mb = bytes / 1000000;
  return mb + 1 >= shown_mb && shown_mb + 1 >= mb;
}

std::string LunName(const DesiredLun& lun) {
  return "LUN " + std::to_string(lun.id) + " (SCSI LUN " +
         std::to_string(ScsiLunForKelLun(lun.id)) + ")";
}

}  // namespace

struct KeldReconciler::Plan {
  const DesiredTarget* target = nullptr;
  std::vector<ResolvedPortal> portals;
  std::vector<std::string> incoming;           // account users bound for logins
  std::string outgoing;                        // account the target answers mutual CHAP with
  std::map<std::string, std::string> secrets;  // every account it needs -> password
  std::vector<std::string> acl;                // initiator names or "ALL"
  std::map<int, const DesiredLun*> luns;       // SCSI LUN -> online LUN
  int unresolved = 0;                          // portals whose interface gave no address
};

KeldReconciler::KeldReconciler(TgtAdmin& admin, DiskLocker& locker, PortalResolver& resolver)
    : admin_(admin), locker_(locker), resolver_(resolver) {}

bool KeldReconciler::PlanTarget(const DesiredTarget& d, Plan* plan,
                                std::vector<Problem>* problems) {
  auto refuse = [&](const std::string& message) {
    problems->push_back({Outcome::kFailure, d.iqn, message});
    return false;
  };
  if (d.iqn.empty()) return refuse("a target has no IQN");
  if (d.iqn.find_first_of(" \t\n") != std::string::npos) return refuse("invalid target name");
  plan->target = &d;

  std::set<int> ids;
  for (const DesiredLun& lun : d.luns) {
    if (lun.id < 0 || lun.id > 255) {
      return refuse("LUN id " + std::to_string(lun.id) + " is out of range (0..255)");
    }
    if (!ids.insert(lun.id).second)
      return refuse("LUN id " + std::to_string(lun.id) + " is given twice");
    if (lun.path.empty() || lun.path[0] != '/') {
      return refuse(LunName(lun) + " has no absolute backing file path");
    }
    // tgtadm splits its parameter lists at commas, so such a path could not be re-opened.
    if (lun.path.find(',') != std::string::npos || lun.naa.find(',') != std::string::npos) {
      return refuse(LunName(lun) + ": a comma in the backing file path or NAA is not supported");
    }
    if (!lun.offline) plan->luns[ScsiLunForKelLun(lun.id)] = &lun;
  }

  if (d.auth == AuthRule::kChap || d.auth == AuthRule::kChapMutual) {
    // Without an account tgtd would not ask for CHAP at all, so such a target is not served.
    if (d.chap.empty()) return refuse("CHAP is required but no CHAP credentials are given");
    for (const ChapCredential& c : d.chap) {
      if (c.user.empty() || c.secret.empty()) return refuse("a CHAP user or secret is empty");
      if (plan->secrets.count(c.user) != 0 && plan->secrets[c.user] != c.secret) {
        return refuse("CHAP user " + c.user + " is given twice with different secrets");
      }
      plan->secrets[c.user] = c.secret;
      AddUnique(plan->incoming, c.user);
    }
    if (d.auth == AuthRule::kChapMutual) {
      const ChapCredential& c = d.chap.front();  // tgtd has one outgoing account per target
      if (c.mutualUser.empty() || c.mutualSecret.empty()) {
        return refuse("CHAP-Mutual is required but no mutual credentials are given");
      }
      if (plan->secrets.count(c.mutualUser) != 0 && plan->secrets[c.mutualUser] != c.mutualSecret) {
        return refuse("CHAP user " + c.mutualUser + " is given twice with different secrets");
      }
      plan->secrets[c.mutualUser] = c.mutualSecret;
      plan->outgoing = c.mutualUser;
    }
  }

  if (d.initiatorsRestricted) {
    for (const std::string& name : d.initiators) {
      if (!name.empty()) AddUnique(plan->acl, name);
    }
  } else if (d.auth != AuthRule::kDeny) {
    plan->acl.push_back("ALL");
  }

  if (!d.offline) {
    for (const DesiredPortal& p : d.portals) {
      ResolvedPortal resolved;
      std::string error;
      if (resolver_.Resolve(d.iqn, p, &resolved, &error)) {
        plan->portals.push_back(resolved);
      } else {
        // The target is still served on the portals that work.
        problems->push_back({Outcome::kFailure, d.iqn, error});
        ++plan->unresolved;
      }
    }
  }
  return true;
}

void KeldReconciler::Must(const TgtResult& r, const std::string& what, ReconcileResult& result) {
  if (!r.ok()) throw OrsaCtlException(what + ": " + r.message);
  ++result.changes;
}

ReconcileResult KeldReconciler::Apply(const DesiredState& desired) {
  ReconcileResult result;
  TgtState cur;
  TgtResult shown = admin_.Show(&cur);
  if (!shown.ok()) {
    result.problems.push_back(DaemonProblem("cannot read tgtd's state: " + shown.message));
    return result;
  }
  for (const TgtTarget& t : cur.targets) next_tid_ = std::max(next_tid_, t.tid + 1);

  std::vector<Plan> plans;
  plans.reserve(desired.targets.size());
  std::set<std::string> keep;  // not applied, left as tgtd serves them
  std::set<std::string> seen;
  std::map<std::string, std::pair<std::string, std::string>> accounts;  // user -> (secret, iqn)
  last_desired_.clear();
  for (const DesiredTarget& d : desired.targets) {
    if (!seen.insert(d.iqn).second) {
      result.problems.push_back({Outcome::kFailure, d.iqn, "the target is listed twice"});
      continue;
    }
    last_desired_[d.iqn] = d;
    Plan plan;
    if (!PlanTarget(d, &plan, &result.problems)) {
      keep.insert(d.iqn);
      continue;
    }
    if (d.offline) continue;
    // tgtd's accounts are global by user name: one user cannot have two secrets.
    bool clash = false;
    for (const auto& s : plan.secrets) {
      auto it = accounts.find(s.first);
      if (it != accounts.end() && it->second.first != s.second) {
        result.problems.push_back({Outcome::kFailure, d.iqn,
                                   "CHAP user " + s.first + " is used by target " +
                                       it->second.second + " with a different secret"});
        clash = true;
      }
    }
    if (clash) {
      keep.insert(d.iqn);
      continue;
    }
    for (const auto& s : plan.secrets) accounts.emplace(s.first, std::make_pair(s.second, d.iqn));
    plans.push_back(std::move(plan));
  }

  std::set<std::string> served;
  for (const Plan& plan : plans) served.insert(plan.target->iqn);
  resolver_.KeepAnnouncements(served);

  std::map<std::string, ResolvedPortal> portals;
  std::map<std::string, std::vector<std::string>> users;  // portal text -> IQNs served on it
  for (const Plan& plan : plans) {
    for (const ResolvedPortal& p : plan.portals) {
      portals.emplace(p.text, p);
      AddUnique(users[p.text], plan.target->iqn);
    }
    result.portalsWanted += plan.unresolved;
  }
  ApplyPortals(portals, users, cur, result);
  result.portalsWanted += static_cast<int>(portals.size());
  for (const auto& p : portals) {
    if (Has(cur.portals, p.first)) ++result.portalsObtained;
  }

  std::set<std::string> failed_accounts;
  for (const auto& a : accounts) {
    if (!EnsureAccount(a.first, a.second.first, cur, result)) failed_accounts.insert(a.first);
  }

  std::set<std::string> wanted;
  for (const Plan& plan : plans) wanted.insert(plan.target->iqn);
  for (auto it = cur.targets.begin(); it != cur.targets.end();) {
    if (wanted.count(it->name) != 0 || keep.count(it->name) != 0) {
      ++it;
      continue;
    }
    TgtResult r = admin_.DeleteTarget(it->tid, true);
    if (!r.ok() && r.error != TgtError::kNotFound) {
      result.problems.push_back(
          {Outcome::kFailure, it->name, "cannot withdraw target: " + r.message});
      ++it;
      continue;
    }
    ++result.changes;
    LogInfo("%s: Withdrew target %s (tid %d)\n", kTag, it->name.c_str(), it->tid);
    for (const TgtLun& l : it->luns) opened_size_.erase({it->tid, l.lun});
    it = cur.targets.erase(it);
  }

  for (const Plan& plan : plans) {
    std::string failed;
    for (const auto& s : plan.secrets) {
      if (failed_accounts.count(s.first) != 0) failed = s.first;
    }
    if (!failed.empty()) {
      result.problems.push_back({Outcome::kFailure, plan.target->iqn,
                                 "not applied: CHAP account " + failed + " could not be set up"});
      continue;
    }
    try {
      ApplyTarget(plan, cur, result);
    } catch (const OrsaCtlException& e) {
      result.problems.push_back({Outcome::kFailure, plan.target->iqn, e.GetMessage()});
    }
  }

  // Accounts nobody asks for go, unless a target left as it was still uses them: deleting
  // them would silently take CHAP away from it.
  std::set<std::string> bound;
  for (const TgtTarget& t : cur.targets) {
    bound.insert(t.incomingAccounts.begin(), t.incomingAccounts.end());
    if (!t.outgoingAccount.empty()) bound.insert(t.outgoingAccount);
  }
  for (const std::string& user : std::vector<std::string>(cur.accounts)) {
    if (accounts.count(user) != 0 || bound.count(user) != 0) continue;
    TgtResult r = admin_.DeleteAccount(user);
    if (!r.ok() && r.error != TgtError::kNotFound) {
      result.problems.push_back(
          {Outcome::kFailure, "", "cannot delete CHAP account " + user + ": " + r.message});
      continue;
    }
    ++result.changes;
    Erase(cur.accounts, user);
    secrets_.erase(user);
  }

  ReleaseUnservedLocks(cur);
  return result;
}

void KeldReconciler::ApplyPortals(const std::map<std::string, ResolvedPortal>& wanted,
                                  const std::map<std::string, std::vector<std::string>>& users,
                                  TgtState& cur, ReconcileResult& result) {
  for (const auto& w : wanted) {
    const ResolvedPortal& p = w.second;
    if (Has(cur.portals, p.text)) {
      portal_interface_[p.text] = p.interfaceName;
      continue;
    }
    TgtResult r = admin_.NewPortal(p.text);
    if (!r.ok()) {
      // tgtd only says "invalid request"; binding the address ourselves tells why.
      std::string reason = ProbePortalBind(p);
      if (reason.empty()) reason = r.message;
      std::string message = "portal " + p.text + " cannot be obtained: " + reason;
      LogError("%s: %s\n", kTag, message.c_str());
      // The problem belongs to the targets that listen there; the others are served as usual.
      auto on = users.find(p.text);
      for (const std::string& iqn : on != users.end() ? on->second : std::vector<std::string>{}) {
        Problem problem{Outcome::kReservation, iqn, message};
        problem.portal = p.text;
        result.problems.push_back(problem);
      }
      continue;
    }
    ++result.changes;
    LogInfo("%s: Listening on %s%s\n", kTag, p.text.c_str(),
            p.interfaceName.empty() ? "" : (" (" + p.interfaceName + ")").c_str());
    cur.portals.push_back(p.text);
    portal_interface_[p.text] = p.interfaceName;
  }
  for (const std::string& text : std::vector<std::string>(cur.portals)) {
    if (wanted.count(text) != 0) continue;
    TgtResult r = admin_.DeletePortal(text);
    if (!r.ok()) {
      result.problems.push_back(
          {Outcome::kFailure, "", "cannot delete portal " + text + ": " + r.message});
      continue;
    }
    ++result.changes;
    Erase(cur.portals, text);
    portal_interface_.erase(text);
  }
}

bool KeldReconciler::EnsureAccount(const std::string& user, const std::string& secret,
                                   TgtState& cur, ReconcileResult& result) {
  const bool exists = Has(cur.accounts, user);
  auto known = secrets_.find(user);
  if (exists && known != secrets_.end() && known->second == secret) return true;
  auto fail = [&](const std::string& what, const TgtResult& r) {
    result.problems.push_back(
        {Outcome::kFailure, "", what + " CHAP account " + user + ": " + r.message});
    return false;
  };
  if (!exists) {
    TgtResult r = admin_.NewAccount(user, secret);
    if (!r.ok()) return fail("cannot create", r);
    ++result.changes;
    cur.accounts.push_back(user);
    secrets_[user] = secret;
    return true;
  }

  // A new (or unknown) password: tgtd cannot change one, so the account is deleted and
  // re-created, which unbinds it everywhere. Without its account a target would not ask for
  // CHAP, so the targets that use it admit nobody until it is bound again.
  struct Binding {
    int tid;
    bool outgoing;
  };
  std::vector<Binding> bindings;
  std::vector<std::pair<int, std::vector<std::string>>> hidden;
  for (TgtTarget& t : cur.targets) {
    bool in = Has(t.incomingAccounts, user);
    bool out = t.outgoingAccount == user;
    if (in) bindings.push_back({t.tid, false});
    if (out) bindings.push_back({t.tid, true});
    if (!in || t.acl.empty()) continue;
    std::vector<std::string> removed;
    for (const std::string& rule : std::vector<std::string>(t.acl)) {
      TgtResult r = admin_.UnbindAcl(t.tid, rule);
      if (!r.ok() && r.error != TgtError::kNotFound) return fail("cannot hide the targets of", r);
      ++result.changes;
      Erase(t.acl, rule);
      removed.push_back(rule);
    }
    hidden.emplace_back(t.tid, removed);
  }
  TgtResult r = admin_.DeleteAccount(user);
  if (!r.ok() && r.error != TgtError::kNotFound) return fail("cannot delete", r);
  ++result.changes;
  Erase(cur.accounts, user);
  secrets_.erase(user);
  for (TgtTarget& t : cur.targets) {
    Erase(t.incomingAccounts, user);
    if (t.outgoingAccount == user) t.outgoingAccount.clear();
  }
  r = admin_.NewAccount(user, secret);
  if (!r.ok()) return fail("cannot re-create", r);
  ++result.changes;
  cur.accounts.push_back(user);
  secrets_[user] = secret;
  LogInfo("%s: Re-created CHAP account %s for its new secret\n", kTag, user.c_str());
  bool all_bound = true;
  for (const Binding& b : bindings) {
    TgtTarget* t = cur.FindTid(b.tid);
    r = admin_.BindAccount(b.tid, user, b.outgoing);
    if (!r.ok()) {
      fail("cannot bind again", r);
      all_bound = false;
      continue;
    }
    ++result.changes;
    if (b.outgoing) {
      t->outgoingAccount = user;
    } else {
      t->incomingAccounts.push_back(user);
    }
  }
  if (!all_bound) return false;  // the hidden targets stay hidden
  for (const auto& h : hidden) {
    TgtTarget* t = cur.FindTid(h.first);
    for (const std::string& rule : h.second) {
      r = admin_.BindAcl(h.first, rule);
      if (!r.ok()) {
        fail("cannot restore the ACL of a target using", r);
        continue;
      }
      ++result.changes;
      t->acl.push_back(rule);
    }
  }
  return true;
}

void KeldReconciler::ApplyTarget(const Plan& plan, TgtState& cur, ReconcileResult& result) {
  const DesiredTarget& d = *plan.target;
  TgtTarget* t = cur.FindTarget(d.iqn);
  if (t == nullptr) {
    int tid = next_tid_++;
    Must(admin_.NewTarget(tid, d.iqn), "cannot create the target", result);
    TgtTarget created;
    created.tid = tid;
    created.name = d.iqn;
    created.state = "ready";
    TgtLun controller;
    controller.lun = 0;
    controller.type = "controller";
    created.luns.push_back(controller);
    cur.targets.push_back(created);
    t = &cur.targets.back();
    LogInfo("%s: Created target %s with tid %d\n", kTag, d.iqn.c_str(), tid);
  }
  const int tid = t->tid;
  if (t->state != "ready") {
    Must(admin_.SetTargetState(tid, "ready"), "cannot set the target ready", result);
    t->state = "ready";
  }

  // Accounts before anything that admits initiators.
  for (const std::string& user : plan.incoming) {
    if (Has(t->incomingAccounts, user)) continue;
    Must(admin_.BindAccount(tid, user, false), "cannot bind CHAP account " + user, result);
    t->incomingAccounts.push_back(user);
  }
  if (t->outgoingAccount != plan.outgoing) {
    if (!t->outgoingAccount.empty()) {
      Must(admin_.UnbindAccount(tid, t->outgoingAccount, true),
           "cannot unbind mutual CHAP account " + t->outgoingAccount, result);
      t->outgoingAccount.clear();
    }
    if (!plan.outgoing.empty()) {
      Must(admin_.BindAccount(tid, plan.outgoing, true),
           "cannot bind mutual CHAP account " + plan.outgoing, result);
      t->outgoingAccount = plan.outgoing;
    }
  }
  // Rules are OR'ed: surplus ones go first, so that the target never admits more than either
  // the old or the new rules.
  for (const std::string& rule : std::vector<std::string>(t->acl)) {
    if (Has(plan.acl, rule)) continue;
    Must(admin_.UnbindAcl(tid, rule), "cannot remove ACL rule " + rule, result);
    Erase(t->acl, rule);
  }

  ApplyLuns(plan, *t, result);

  for (const std::string& user : std::vector<std::string>(t->incomingAccounts)) {
    if (Has(plan.incoming, user)) continue;
    Must(admin_.UnbindAccount(tid, user, false), "cannot unbind CHAP account " + user, result);
    Erase(t->incomingAccounts, user);
  }
  for (const std::string& rule : plan.acl) {
    if (Has(t->acl, rule)) continue;
    Must(admin_.BindAcl(tid, rule), "cannot add ACL rule " + rule, result);
    t->acl.push_back(rule);
  }
}

void KeldReconciler::ApplyLuns(const Plan& plan, TgtTarget& t, ReconcileResult& result) {
  const DesiredTarget& d = *plan.target;
  auto problem = [&](const std::string& message) {
    result.problems.push_back({Outcome::kFailure, d.iqn, message});
  };

  // Withdraw LUNs that are no longer wanted, or whose backing file is another one now.
  for (auto it = t.luns.begin(); it != t.luns.end();) {
    auto w = it->lun == 0 ? plan.luns.end() : plan.luns.find(it->lun);
    if (it->lun == 0 || (w != plan.luns.end() && w->second->path == it->path)) {
      ++it;
      continue;
    }
    TgtResult r = admin_.DeleteLun(t.tid, it->lun);
    if (!r.ok() && r.error != TgtError::kNotFound) {
      problem("cannot withdraw SCSI LUN " + std::to_string(it->lun) + ": " + r.message);
      ++it;
      continue;
    }
    ++result.changes;
    LogInfo("%s: Withdrew SCSI LUN %d of target %s\n", kTag, it->lun, d.iqn.c_str());
    opened_size_.erase({t.tid, it->lun});
    it = t.luns.erase(it);
  }

  for (const auto& w : plan.luns) {
    const int scsi = w.first;
    const DesiredLun& lun = *w.second;
    auto have = std::find_if(t.luns.begin(), t.luns.end(),
                             [scsi](const TgtLun& l) { return l.lun == scsi; });
    std::string error;
    if (!locker_.Lock(lun.path, &error)) {
      problem(LunName(lun) + ": " + error);
      continue;  // an already served LUN stays as it is
    }
    struct stat st;
    if (stat(lun.path.c_str(), &st) != 0) {
      problem(LunName(lun) + ": cannot stat " + lun.path + ": " + ErrnoText(errno));
      continue;
    }
    const uint64_t size = static_cast<uint64_t>(st.st_size);
    const std::pair<int, int> key(t.tid, scsi);

    if (have == t.luns.end()) {
      TgtResult r = admin_.NewLun(t.tid, scsi, lun.path);
      if (!r.ok()) {
        problem("cannot serve " + LunName(lun) + " from " + lun.path + ": " + r.message);
        continue;
      }
      ++result.changes;
      TgtLun served;
      served.lun = scsi;
      served.type = "disk";
      served.path = lun.path;
      served.sizeMb = (size + 500000) / 1000000;
      t.luns.push_back(served);
      opened_size_[key] = size;
      LogInfo("%s: Serving LUN %d of target %s as SCSI LUN %d from %s\n", kTag, lun.id,
              d.iqn.c_str(), scsi, lun.path.c_str());
      if (!lun.naa.empty()) {
        r = admin_.UpdateLun(t.tid, scsi, "scsi_id=" + lun.naa);
        if (!r.ok()) {
          problem("cannot set the NAA of " + LunName(lun) + ": " + r.message);
        } else {
          ++result.changes;
          t.luns.back().scsiId = lun.naa;
        }
      }
      continue;
    }

    auto known = opened_size_.find(key);
    bool resized =
        known != opened_size_.end() ? known->second != size : !SameMegabytes(size, have->sizeMb);
    if (resized) {
      // Re-opening the file is what makes tgtd see the new size; it stays online.
      TgtResult r = admin_.UpdateLun(t.tid, scsi, "online=0,path=" + lun.path);
      if (!r.ok()) {
        problem("cannot re-open " + LunName(lun) + " at its new size: " + r.message);
      } else {
        ++result.changes;
        opened_size_[key] = size;
        have->online = true;
        LogInfo("%s: Re-opened LUN %d of target %s at %llu bytes\n", kTag, lun.id, d.iqn.c_str(),
                static_cast<unsigned long long>(size));
      }
    } else if (known == opened_size_.end()) {
      opened_size_[key] = size;
    }
    if (!have->online) {
      TgtResult r = admin_.UpdateLun(t.tid, scsi, "online=1");
      if (!r.ok()) {
        problem("cannot bring " + LunName(lun) + " online: " + r.message);
      } else {
        ++result.changes;
        have->online = true;
      }
    }
    if (!lun.naa.empty() && have->scsiId != lun.naa) {
      TgtResult r = admin_.UpdateLun(t.tid, scsi, "scsi_id=" + lun.naa);
      if (!r.ok()) {
        problem("cannot set the NAA of " + LunName(lun) + ": " + r.message);
      } else {
        ++result.changes;
        have->scsiId = lun.naa;
      }
    }
  }
}

void KeldReconciler::ReleaseUnservedLocks(const TgtState& cur) {
  std::set<std::string> served;
  for (const TgtTarget& t : cur.targets) {
    for (const TgtLun& l : t.luns) {
      if (l.lun != 0) served.insert(l.path);
    }
  }
  for (const std::string& path : locker_.Held()) {
    if (served.count(path) == 0) locker_.Unlock(path);
  }
}

bool KeldReconciler::Status(ServedStatus* out, std::string* error) {
  TgtState cur;
  TgtResult r = admin_.Show(&cur);
  if (!r.ok()) {
    *error = "cannot read tgtd's state: " + r.message;
    return false;
  }
  out->portals.clear();
  for (const std::string& p : cur.portals) {
    auto it = portal_interface_.find(p);
    out->portals.push_back({p, it == portal_interface_.end() ? std::string() : it->second});
  }
  out->accounts = cur.accounts;
  out->targets.clear();
  for (const TgtTarget& t : cur.targets) {
    TargetStatus ts;
    ts.iqn = t.name;
    ts.tid = t.tid;
    ts.state = t.state;
    ts.acl = t.acl;
    ts.incomingAccounts = t.incomingAccounts;
    ts.outgoingAccount = t.outgoingAccount;
    for (const TgtNexus& n : t.nexus) ts.sessions.push_back(n.initiator);
    auto desired = last_desired_.find(t.name);
    if (desired != last_desired_.end()) ts.alias = desired->second.alias;
    for (const TgtLun& l : t.luns) {
      if (l.lun == 0) continue;
      LunStatus ls;
      ls.scsiLun = l.lun;
      ls.kelLun = KelLunForScsiLun(l.lun);
      ls.path = l.path;
      ls.online = l.online;
      auto size = opened_size_.find({t.tid, l.lun});
      ls.sizeBytes = size != opened_size_.end() ? size->second : l.sizeMb * 1000000;
      if (desired != last_desired_.end()) {
        for (const DesiredLun& dl : desired->second.luns) {
          if (dl.id != ls.kelLun) continue;
          ls.alias = dl.alias;
          ls.naa = dl.naa;
        }
      }
      ts.luns.push_back(ls);
    }
    out->targets.push_back(ts);
  }
  return true;
}

bool FirstPortal(const DesiredState& desired, PortalResolver& resolver, ResolvedPortal* out) {
  for (const DesiredTarget& d : desired.targets) {
    if (d.offline) continue;
    for (const DesiredPortal& p : d.portals) {
      std::string error;
      if (resolver.Resolve(d.iqn, p, out, &error)) return true;
    }
  }
  return false;
}

}  // namespace keld
}  // namespace kel
