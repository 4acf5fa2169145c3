#include "keld/testing/tgt_admin_fake.h"

#include <sys/stat.h>

#include <algorithm>
#include <sstream>

namespace kel {
namespace keld {
namespace testing {
namespace {

bool Has(const std::vector<std::string>& v, const std::string& s) {
  return std::find(v.begin(), v.end(), s) != v.end();
}

void Erase(std::vector<std::string>& v, const std::string& s) {
  v.erase(std::remove(v.begin(), v.end(), s), v.end());
}

bool FileSize(const std::string& path, uint64_t* size) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return false;
  *size = static_cast<uint64_t>(st.st_size);
  return true;
}

}  // namespace

TgtResult TgtFailure(TgtError error, const std::string& message) {
  TgtResult r;
  r.error = error;
  r.exitCode = error == TgtError::kNotRunning ? 107 : 22;
  r.message = message;
  return r;
}

void FakeTgtd::FailNext(const std::string& op, TgtError error, const std::string& message) {
  fail_next_[op] = TgtFailure(error, message);
}

bool FakeTgtd::Begin(const std::string& op, TgtResult* r) {
  if (!running) {
    *r =
        TgtFailure(TgtError::kNotRunning,
                   "failed to send request hdr to tgt daemon, Transport endpoint is not connected");
    return false;
  }
  auto it = fail_next_.find(op);
  if (it != fail_next_.end()) {
    *r = it->second;
    fail_next_.erase(it);
    return false;
  }
  return true;
}

TgtResult FakeTgtd::Ok(const std::string& op, int tid, const std::string& arg) {
  calls.push_back({op, tid, arg});
  return TgtResult();
}

FakeTgtd::Target* FakeTgtd::Get(int tid, TgtResult* r) {
  auto it = targets.find(tid);
  if (it == targets.end()) {
    *r = TgtFailure(TgtError::kNotFound, "can't find the target");
    return nullptr;
  }
  return &it->second;
}

const FakeTgtd::Target* FakeTgtd::Find(const std::string& iqn) const {
  for (const auto& t : targets) {
    if (t.second.name == iqn) return &t.second;
  }
  return nullptr;
}

bool FakeTgtd::Visible(const std::string& iqn, const std::string& initiator) const {
  const Target* t = Find(iqn);
  if (t == nullptr || t->state != "ready") return false;
  return Has(t->acl, "ALL") || Has(t->acl, initiator);
}

bool FakeTgtd::CanLogin(const std::string& iqn, const std::string& initiator,
                        const std::string& user, const std::string& secret) const {
  if (!Visible(iqn, initiator)) return false;
  const Target* t = Find(iqn);
  if (t->incoming.empty()) return true;
  if (!Has(t->incoming, user)) return false;
  auto a = accounts.find(user);
  return a != accounts.end() && a->second == secret;
}

int FakeTgtd::IndexOf(const std::string& op, const std::string& arg) const {
  for (size_t i = 0; i < calls.size(); ++i) {
    if (calls[i].op == op && calls[i].arg == arg) return static_cast<int>(i);
  }
  return -1;
}

TgtResult FakeTgtd::Show(TgtState* out) {
  TgtResult r;
  if (!Begin("Show", &r)) return r;
  ++shows;
  out->targets.clear();
  for (const auto& entry : targets) {
    const Target& t = entry.second;
    TgtTarget tt;
    tt.tid = entry.first;
    tt.name = t.name;
    tt.state = t.state;
    for (size_t i = 0; i < t.sessions.size(); ++i) {
      tt.nexus.push_back({static_cast<int>(i + 1), t.sessions[i], {"127.0.0.1"}});
    }
    TgtLun controller;
    controller.lun = 0;
    controller.type = "controller";
    controller.path = "None";
    tt.luns.push_back(controller);
    for (const auto& l : t.luns) {
      TgtLun lun;
      lun.lun = l.first;
      lun.type = "disk";
      lun.path = l.second.path;
      lun.online = l.second.online;
      lun.scsiId = l.second.scsiId;
      lun.sizeMb = (l.second.openedBytes + 500000) / 1000000;
      tt.luns.push_back(lun);
    }
    tt.incomingAccounts = t.incoming;
    tt.outgoingAccount = t.outgoing;
    tt.acl = t.acl;
    out->targets.push_back(tt);
  }
  out->accounts.clear();
  for (const auto& a : accounts) out->accounts.push_back(a.first);
  out->portals = portals;
  return r;
}

TgtResult FakeTgtd::NewTarget(int tid, const std::string& name) {
  TgtResult r;
  if (!Begin("NewTarget", &r)) return r;
  if (tid <= 0) return TgtFailure(TgtError::kInvalid, "invalid request");
  if (targets.count(tid) != 0 || Find(name) != nullptr) {
    return TgtFailure(TgtError::kExists, "this target already exists");
  }
  targets[tid].name = name;
  return Ok("NewTarget", tid, name);
}

TgtResult FakeTgtd::DeleteTarget(int tid, bool force) {
  TgtResult r;
  if (!Begin("DeleteTarget", &r)) return r;
  Target* t = Get(tid, &r);
  if (t == nullptr) return r;
  if (!t->sessions.empty() && !force) {
    return TgtFailure(TgtError::kBusy, "this target is still active");
  }
  targets.erase(tid);
  return Ok("DeleteTarget", tid, force ? "force" : "");
}

TgtResult FakeTgtd::SetTargetState(int tid, const std::string& state) {
  TgtResult r;
  if (!Begin("SetTargetState", &r)) return r;
  Target* t = Get(tid, &r);
  if (t == nullptr) return r;
  if (state != "ready" && state != "offline")
    return TgtFailure(TgtError::kInvalid, "invalid request");
  t->state = state;
  return Ok("SetTargetState", tid, state);
}

TgtResult FakeTgtd::NewLun(int tid, int lun, const std::string& path) {
  TgtResult r;
  if (!Begin("NewLun", &r)) return r;
  Target* t = Get(tid, &r);
  if (t == nullptr) return r;
  if (lun == 0 || t->luns.count(lun) != 0) {
    return TgtFailure(TgtError::kExists, "this logical unit number already exists");
  }
  Lun l;
  if (!FileSize(path, &l.openedBytes)) return TgtFailure(TgtError::kInvalid, "invalid request");
  l.path = path;
  l.opens = 1;
  t->luns[lun] = l;
  return Ok("NewLun", tid, std::to_string(lun) + " " + path);
}

TgtResult FakeTgtd::DeleteLun(int tid, int lun) {
  TgtResult r;
  if (!Begin("DeleteLun", &r)) return r;
  Target* t = Get(tid, &r);
  if (t == nullptr) return r;
  if (lun == 0) return TgtFailure(TgtError::kInvalid, "invalid request");
  if (t->luns.erase(lun) == 0)
    return TgtFailure(TgtError::kNotFound, "can't find the logical unit");
  return Ok("DeleteLun", tid, std::to_string(lun));
}

TgtResult FakeTgtd::UpdateLun(int tid, int lun, const std::string& params) {
  TgtResult r;
  if (!Begin("UpdateLun", &r)) return r;
  Target* t = Get(tid, &r);
  if (t == nullptr) return r;
  auto it = t->luns.find(lun);
  if (it == t->luns.end()) return TgtFailure(TgtError::kNotFound, "can't find the logical unit");
  Lun updated = it->second;
  std::string path;
  std::istringstream in(params);
  std::string item;
  while (std::getline(in, item, ',')) {
    size_t eq = item.find('=');
    std::string name = item.substr(0, eq);
    std::string value = eq == std::string::npos ? "" : item.substr(eq + 1);
    if (name == "online") {
      updated.online = value == "1";
    } else if (name == "path") {
      path = value;
    } else if (name == "scsi_id") {
      updated.scsiId = value;
    } else {
      return TgtFailure(TgtError::kInvalid, "invalid request");
    }
  }
  if (!path.empty()) {
    if (!FileSize(path, &updated.openedBytes))
      return TgtFailure(TgtError::kInvalid, "invalid request");
    updated.path = path;
    updated.online = true;
    ++updated.opens;
  }
  it->second = updated;
  return Ok("UpdateLun", tid, std::to_string(lun) + " " + params);
}

TgtResult FakeTgtd::BindAcl(int tid, const std::string& rule) {
  TgtResult r;
  if (!Begin("BindAcl", &r)) return r;
  Target* t = Get(tid, &r);
  if (t == nullptr) return r;
  if (Has(t->acl, rule))
    return TgtFailure(TgtError::kExists, "this access control rule already exists");
  t->acl.push_back(rule);
  return Ok("BindAcl", tid, rule);
}

TgtResult FakeTgtd::UnbindAcl(int tid, const std::string& rule) {
  TgtResult r;
  if (!Begin("UnbindAcl", &r)) return r;
  Target* t = Get(tid, &r);
  if (t == nullptr) return r;
  if (!Has(t->acl, rule)) {
    return TgtFailure(TgtError::kNotFound, "this access control rule does not exist");
  }
  Erase(t->acl, rule);
  return Ok("UnbindAcl", tid, rule);
}

TgtResult FakeTgtd::NewAccount(const std::string& user, const std::string& password) {
  TgtResult r;
  if (!Begin("NewAccount", &r)) return r;
  if (accounts.count(user) != 0)
    return TgtFailure(TgtError::kExists, "this account already exists");
  accounts[user] = password;
  return Ok("NewAccount", 0, user);
}

TgtResult FakeTgtd::DeleteAccount(const std::string& user) {
  TgtResult r;
  if (!Begin("DeleteAccount", &r)) return r;
  if (accounts.erase(user) == 0) return TgtFailure(TgtError::kNotFound, "can't find the account");
  for (auto& t : targets) {  // tgtd unbinds it everywhere without a word
    Erase(t.second.incoming, user);
    if (t.second.outgoing == user) t.second.outgoing.clear();
  }
  return Ok("DeleteAccount", 0, user);
}

TgtResult FakeTgtd::BindAccount(int tid, const std::string& user, bool outgoing) {
  TgtResult r;
  if (!Begin("BindAccount", &r)) return r;
  Target* t = Get(tid, &r);
  if (t == nullptr) return r;
  if (accounts.count(user) == 0) return TgtFailure(TgtError::kNotFound, "can't find the account");
  if (outgoing) {
    if (!t->outgoing.empty()) {
      return TgtFailure(TgtError::kExists, "this target already has an outgoing account");
    }
    t->outgoing = user;
  } else {
    if (Has(t->incoming, user)) return TgtFailure(TgtError::kExists, "this account already exists");
    t->incoming.push_back(user);
  }
  return Ok("BindAccount", tid, user + (outgoing ? " outgoing" : ""));
}

TgtResult FakeTgtd::UnbindAccount(int tid, const std::string& user, bool outgoing) {
  TgtResult r;
  if (!Begin("UnbindAccount", &r)) return r;
  Target* t = Get(tid, &r);
  if (t == nullptr) return r;
  if (outgoing ? t->outgoing != user : !Has(t->incoming, user)) {
    return TgtFailure(TgtError::kNotFound, "can't find the account");
  }
  if (outgoing) {
    t->outgoing.clear();
  } else {
    Erase(t->incoming, user);
  }
  return Ok("UnbindAccount", tid, user + (outgoing ? " outgoing" : ""));
}

TgtResult FakeTgtd::NewPortal(const std::string& portal) {
  TgtResult r;
  if (!Begin("NewPortal", &r)) return r;
  if (Has(portals, portal) || unbindablePortals.count(portal) != 0) {
    return TgtFailure(TgtError::kInvalid, "invalid request");
  }
  portals.push_back(portal);
  return Ok("NewPortal", 0, portal);
}

TgtResult FakeTgtd::DeletePortal(const std::string& portal) {
  TgtResult r;
  if (!Begin("DeletePortal", &r)) return r;
  if (!Has(portals, portal)) return TgtFailure(TgtError::kInvalid, "invalid request");
  Erase(portals, portal);
  return Ok("DeletePortal", 0, portal);
}

TgtResult FakeTgtd::SetSystemState(const std::string& state) {
  TgtResult r;
  if (!Begin("SetSystemState", &r)) return r;
  return Ok("SetSystemState", 0, state);
}

TgtResult FakeTgtd::DeleteSystem() {
  TgtResult r;
  if (!Begin("DeleteSystem", &r)) return r;
  running = false;
  return Ok("DeleteSystem", 0, "");
}

}  // namespace testing
}  // namespace keld
}  // namespace kel
