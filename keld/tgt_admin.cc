#include "keld/tgt_admin.h"

#include <cstdlib>
#include <sstream>

#include "keld/tgt_exec.h"

namespace kel {
namespace keld {
namespace {

bool StartsWith(const std::string& s, const std::string& prefix) {
  return s.compare(0, prefix.size(), prefix) == 0;
}

bool EndsWith(const std::string& s, const std::string& suffix) {
  return s.size() >= suffix.size() &&
         s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool Contains(const std::string& s, const std::string& needle) {
  return s.find(needle) != std::string::npos;
}

std::string TrimRight(const std::string& s) {
  size_t end = s.find_last_not_of(" \t\r\n");
  return end == std::string::npos ? std::string() : s.substr(0, end + 1);
}

size_t Indent(const std::string& line) {
  size_t n = 0;
  while (n < line.size() && line[n] == ' ') ++n;
  return n;
}

// The value after "Key: " when `text` starts with it.
bool Field(const std::string& text, const std::string& key, std::string* value) {
  if (!StartsWith(text, key)) return false;
  *value = TrimRight(text.substr(key.size()));
  return true;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

}  // namespace

TgtResult ClassifyTgtadm(int exit_code, const std::string& err) {
  TgtResult r;
  r.exitCode = exit_code;
  if (exit_code == 0) return r;
  std::string msg = TrimRight(err);
  // tgtadm prefixes its own messages; keep only the last line, which is the reason.
  size_t nl = msg.find_last_of('\n');
  if (nl != std::string::npos) msg = msg.substr(nl + 1);
  if (StartsWith(msg, "tgtadm: ")) msg = msg.substr(8);
  r.message = msg;
  if (exit_code == 107) {
    r.error = TgtError::kNotRunning;
    if (r.message.empty()) r.message = "tgtd is not running";
  } else if (Contains(msg, "already exists") || Contains(msg, "already has")) {
    r.error = TgtError::kExists;
  } else if (Contains(msg, "can't find") || Contains(msg, "does not exist") ||
             Contains(msg, "not found")) {
    r.error = TgtError::kNotFound;
  } else if (Contains(msg, "still active") || Contains(msg, "busy")) {
    r.error = TgtError::kBusy;
  } else if (Contains(msg, "invalid request")) {
    r.error = TgtError::kInvalid;
  } else {
    r.error = TgtError::kFailed;
    if (r.message.empty()) r.message = "tgtadm exited with " + std::to_string(exit_code);
  }
  return r;
}

const TgtLun* TgtTarget::FindLun(int lun) const {
  for (const TgtLun& l : luns) {
    if (l.lun == lun) return &l;
  }
  return nullptr;
}

TgtTarget* TgtState::FindTarget(const std::string& name) {
  for (TgtTarget& t : targets) {
    if (t.name == name) return &t;
  }
  return nullptr;
}

TgtTarget* TgtState::FindTid(int tid) {
  for (TgtTarget& t : targets) {
    if (t.tid == tid) return &t;
  }
  return nullptr;
}

std::vector<TgtTarget> ParseTargetShow(const std::string& text) {
  std::vector<TgtTarget> targets;
  TgtTarget* target = nullptr;
  TgtLun* lun = nullptr;
  TgtNexus* nexus = nullptr;
  std::string section;
  for (const std::string& raw : Lines(text)) {
    std::string line = TrimRight(raw);
    if (line.empty()) continue;
    size_t indent = Indent(line);
    std::string t = line.substr(indent);
    std::string v;
    if (indent == 0) {
      target = nullptr;
      lun = nullptr;
      nexus = nullptr;
      section.clear();
      // "Target 1: iqn.2024-01.com.example:t1"
      if (!StartsWith(t, "Target ")) continue;
      size_t colon = t.find(": ");
      if (colon == std::string::npos) continue;
      targets.emplace_back();
      target = &targets.back();
      target->tid = atoi(t.c_str() + 7);
      target->name = t.substr(colon + 2);
      continue;
    }
    if (target == nullptr) continue;
    if (indent == 4) {
      section = t;
      lun = nullptr;
      nexus = nullptr;
      continue;
    }
    if (section == "System information:") {
      if (Field(t, "State: ", &v)) target->state = v;
    } else if (section == "I_T nexus information:") {
      if (Field(t, "I_T nexus: ", &v)) {
        target->nexus.emplace_back();
        nexus = &target->nexus.back();
        nexus->id = atoi(v.c_str());
      } else if (nexus != nullptr && Field(t, "Initiator: ", &v)) {
        size_t alias = v.find(" alias: ");
        nexus->initiator = alias == std::string::npos ? v : v.substr(0, alias);
      } else if (nexus != nullptr && Field(t, "IP Address: ", &v)) {
        nexus->addresses.push_back(v);
      }
    } else if (section == "LUN information:") {
      if (Field(t, "LUN: ", &v)) {
        target->luns.emplace_back();
        lun = &target->luns.back();
        lun->lun = atoi(v.c_str());
      } else if (lun != nullptr) {
        if (Field(t, "Type: ", &v)) {
          lun->type = v;
        } else if (Field(t, "SCSI ID: ", &v)) {
          lun->scsiId = v;
        } else if (Field(t, "SCSI SN: ", &v)) {
          lun->scsiSn = v;
        } else if (Field(t, "Size: ", &v)) {
          lun->sizeMb = strtoull(v.c_str(), nullptr, 10);
        } else if (Field(t, "Online: ", &v)) {
          lun->online = v == "Yes";
        } else if (Field(t, "Backing store type: ", &v)) {
          lun->backingStoreType = v;
        } else if (Field(t, "Backing store path: ", &v)) {
          lun->path = v;
        }
      }
    } else if (section == "Account information:") {
      if (EndsWith(t, " (outgoing)")) {
        target->outgoingAccount = t.substr(0, t.size() - 11);
      } else {
        target->incomingAccounts.push_back(t);
      }
    } else if (section == "ACL information:") {
      target->acl.push_back(t);
    }
  }
  return targets;
}

std::vector<std::string> ParseAccountShow(const std::string& text) {
  std::vector<std::string> users;
  for (const std::string& raw : Lines(text)) {
    std::string line = TrimRight(raw);
    if (line.empty() || Indent(line) == 0) continue;  // "Account list:"
    users.push_back(line.substr(Indent(line)));
  }
  return users;
}

std::vector<std::string> ParsePortalShow(const std::string& text) {
  std::vector<std::string> portals;
  for (const std::string& raw : Lines(text)) {
    std::string v;
    if (!Field(TrimRight(raw), "Portal: ", &v)) continue;
    size_t comma = v.rfind(',');  // ",<portal group tag>"
    if (comma != std::string::npos) v = v.substr(0, comma);
    portals.push_back(v);
  }
  return portals;
}

std::string PortalText(const std::string& address, int port) {
  if (address.find(':') != std::string::npos) {
    return "[" + address + "]:" + std::to_string(port);
  }
  return address + ":" + std::to_string(port);
}

TgtResult TgtAdmCommand::Run(const std::vector<std::string>& args, std::string* out) {
  std::vector<std::string> argv = {program_, "-C", std::to_string(control_index_), "--lld",
                                   "iscsi"};
  argv.insert(argv.end(), args.begin(), args.end());
  ExecResult ran = RunProgram(argv);
  if (!ran.failure.empty()) {
    TgtResult r;
    r.error = TgtError::kFailed;
    r.exitCode = -1;
    r.message = ran.failure;
    return r;
  }
  if (out != nullptr) *out = std::move(ran.out);
  return ClassifyTgtadm(ran.exitCode, ran.err);
}

TgtResult TgtAdmCommand::Show(TgtState* state) {
  std::string text;
  TgtResult r = Run({"--mode", "target", "--op", "show"}, &text);
  if (!r.ok()) return r;
  state->targets = ParseTargetShow(text);
  r = Run({"--mode", "account", "--op", "show"}, &text);
  if (!r.ok()) return r;
  state->accounts = ParseAccountShow(text);
  r = Run({"--mode", "portal", "--op", "show"}, &text);
  if (!r.ok()) return r;
  state->portals = ParsePortalShow(text);
  return r;
}

TgtResult TgtAdmCommand::NewTarget(int tid, const std::string& name) {
  return Run(
      {"--mode", "target", "--op", "new", "--tid", std::to_string(tid), "--targetname", name});
}

TgtResult TgtAdmCommand::DeleteTarget(int tid, bool force) {
  std::vector<std::string> args = {"--mode", "target", "--op",
                                   "delete", "--tid",  std::to_string(tid)};
  if (force) args.push_back("--force");
  return Run(args);
}

TgtResult TgtAdmCommand::SetTargetState(int tid, const std::string& state) {
  return Run({"--mode", "target", "--op", "update", "--tid", std::to_string(tid), "--name", "state",
              "--value", state});
}

TgtResult TgtAdmCommand::NewLun(int tid, int lun, const std::string& path) {
  return Run({"--mode", "logicalunit", "--op", "new", "--tid", std::to_string(tid), "--lun",
              std::to_string(lun), "--backing-store", path});
}

TgtResult TgtAdmCommand::DeleteLun(int tid, int lun) {
  return Run({"--mode", "logicalunit", "--op", "delete", "--tid", std::to_string(tid), "--lun",
              std::to_string(lun)});
}

TgtResult TgtAdmCommand::UpdateLun(int tid, int lun, const std::string& params) {
  return Run({"--mode", "logicalunit", "--op", "update", "--tid", std::to_string(tid), "--lun",
              std::to_string(lun), "--params", params});
}

TgtResult TgtAdmCommand::BindAcl(int tid, const std::string& rule) {
  return Run({"--mode", "target", "--op", "bind", "--tid", std::to_string(tid),
              rule == "ALL" ? "--initiator-address" : "--initiator-name", rule});
}

TgtResult TgtAdmCommand::UnbindAcl(int tid, const std::string& rule) {
  return Run({"--mode", "target", "--op", "unbind", "--tid", std::to_string(tid),
              rule == "ALL" ? "--initiator-address" : "--initiator-name", rule});
}

TgtResult TgtAdmCommand::NewAccount(const std::string& user, const std::string& password) {
  return Run({"--mode", "account", "--op", "new", "--user", user, "--password", password});
}

TgtResult TgtAdmCommand::DeleteAccount(const std::string& user) {
  return Run({"--mode", "account", "--op", "delete", "--user", user});
}

TgtResult TgtAdmCommand::BindAccount(int tid, const std::string& user, bool outgoing) {
  std::vector<std::string> args = {"--mode", "account",           "--op",   "bind",
                                   "--tid",  std::to_string(tid), "--user", user};
  if (outgoing) args.push_back("--outgoing");
  return Run(args);
}

TgtResult TgtAdmCommand::UnbindAccount(int tid, const std::string& user, bool outgoing) {
  std::vector<std::string> args = {"--mode", "account",           "--op",   "unbind",
                                   "--tid",  std::to_string(tid), "--user", user};
  if (outgoing) args.push_back("--outgoing");
  return Run(args);
}

TgtResult TgtAdmCommand::NewPortal(const std::string& portal) {
  return Run({"--mode", "portal", "--op", "new", "--param", "portal=" + portal});
}

TgtResult TgtAdmCommand::DeletePortal(const std::string& portal) {
  return Run({"--mode", "portal", "--op", "delete", "--param", "portal=" + portal});
}

TgtResult TgtAdmCommand::SetSystemState(const std::string& state) {
  return Run({"--mode", "sys", "--op", "update", "--name", "State", "-v", state});
}

TgtResult TgtAdmCommand::DeleteSystem() { return Run({"--mode", "system", "--op", "delete"}); }

}  // namespace keld
}  // namespace kel
