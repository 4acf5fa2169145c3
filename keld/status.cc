#include "keld/status.h"

#include <sstream>

namespace kel {
namespace keld {

using nlohmann::json;

json ProblemsToJson(const std::vector<Problem>& problems) {
  json out = json::array();
  for (const Problem& p : problems) {
    out.push_back({{"code", static_cast<int>(p.code)},
                   {"target", p.target},
                   {"message", p.message},
                   {"daemonWide", p.daemonWide},
                   {"portal", p.portal}});
  }
  return out;
}

std::vector<Problem> ProblemsFromJson(const json& j) {
  std::vector<Problem> problems;
  for (const json& p : j) {
    Problem problem;
    problem.code = p.at("code").get<int>() == 1 ? Outcome::kReservation : Outcome::kFailure;
    problem.target = p.value("target", "");
    problem.message = p.value("message", "");
    problem.daemonWide = p.value("daemonWide", false);
    problem.portal = p.value("portal", "");
    problems.push_back(problem);
  }
  return problems;
}

json StatusToJson(const ServedStatus& s) {
  json targets = json::array();
  for (const TargetStatus& t : s.targets) {
    json luns = json::array();
    for (const LunStatus& l : t.luns) {
      luns.push_back({{"kelLun", l.kelLun},
                      {"scsiLun", l.scsiLun},
                      {"path", l.path},
                      {"sizeBytes", l.sizeBytes},
                      {"online", l.online},
                      {"alias", l.alias},
                      {"naa", l.naa}});
    }
    targets.push_back({{"iqn", t.iqn},
                       {"alias", t.alias},
                       {"tid", t.tid},
                       {"state", t.state},
                       {"acl", t.acl},
                       {"incomingAccounts", t.incomingAccounts},
                       {"outgoingAccount", t.outgoingAccount},
                       {"sessions", t.sessions},
                       {"luns", luns}});
  }
  json portals = json::array();
  for (const PortalStatus& p : s.portals) {
    portals.push_back({{"portal", p.portal}, {"interface", p.interfaceName}});
  }
  return {{"running", s.running},
          {"daemonPid", s.daemonPid},
          {"tgtdPid", s.tgtdPid},
          {"controlIndex", s.controlIndex},
          {"source", s.source},
          {"portals", portals},
          {"accounts", s.accounts},
          {"targets", targets},
          {"problems", ProblemsToJson(s.problems)}};
}

ServedStatus StatusFromJson(const json& j) {
  ServedStatus s;
  s.running = j.at("running").get<bool>();
  s.daemonPid = j.at("daemonPid").get<int>();
  s.tgtdPid = j.at("tgtdPid").get<int>();
  s.controlIndex = j.at("controlIndex").get<int>();
  s.source = j.at("source").get<std::string>();
  for (const json& p : j.at("portals")) {
    s.portals.push_back({p.at("portal").get<std::string>(), p.at("interface").get<std::string>()});
  }
  s.accounts = j.at("accounts").get<std::vector<std::string>>();
  for (const json& t : j.at("targets")) {
    TargetStatus ts;
    ts.iqn = t.at("iqn").get<std::string>();
    ts.alias = t.at("alias").get<std::string>();
    ts.tid = t.at("tid").get<int>();
    ts.state = t.at("state").get<std::string>();
    ts.acl = t.at("acl").get<std::vector<std::string>>();
    ts.incomingAccounts = t.at("incomingAccounts").get<std::vector<std::string>>();
    ts.outgoingAccount = t.at("outgoingAccount").get<std::string>();
    ts.sessions = t.at("sessions").get<std::vector<std::string>>();
    for (const json& l : t.at("luns")) {
      LunStatus ls;
      ls.kelLun = l.at("kelLun").get<int>();
      ls.scsiLun = l.at("scsiLun").get<int>();
      ls.path = l.at("path").get<std::string>();
      ls.sizeBytes = l.at("sizeBytes").get<uint64_t>();
      ls.online = l.at("online").get<bool>();
      ls.alias = l.at("alias").get<std::string>();
      ls.naa = l.at("naa").get<std::string>();
      ts.luns.push_back(ls);
    }
    s.targets.push_back(ts);
  }
  s.problems = ProblemsFromJson(j.at("problems"));
  return s;
}

namespace {

std::string JoinOr(const std::vector<std::string>& items, const char* empty) {
  if (items.empty()) return empty;
  std::string out;
  for (const std::string& i : items) {
    if (!out.empty()) out += ", ";
    out += i;
  }
  return out;
}

}  // namespace

std::string StatusToText(const ServedStatus& s) {
  std::ostringstream out;
  out << "keld: " << (s.running ? "running" : "not running");
  if (s.running) {
    out << " (pid " << s.daemonPid << "), tgtd pid " << s.tgtdPid << ", control index "
        << s.controlIndex;
  }
  out << "\n";
  if (!s.source.empty()) out << "source: " << s.source << "\n";
  out << "portals:";
  if (s.portals.empty()) out << " none";
  out << "\n";
  for (const PortalStatus& p : s.portals) {
    out << "  " << p.portal;
    if (!p.interfaceName.empty()) out << " (" << p.interfaceName << ")";
    out << "\n";
  }
  out << "accounts: " << JoinOr(s.accounts, "none") << "\n";
  for (const TargetStatus& t : s.targets) {
    out << "target " << t.iqn << " (tid " << t.tid;
    if (!t.alias.empty()) out << ", alias " << t.alias;
    out << ", " << t.state << ")\n";
    out << "  acl: " << JoinOr(t.acl, "none (invisible)") << "\n";
    out << "  incoming accounts: " << JoinOr(t.incomingAccounts, "none") << "\n";
    out << "  outgoing account: " << (t.outgoingAccount.empty() ? "none" : t.outgoingAccount)
        << "\n";
    out << "  sessions: " << JoinOr(t.sessions, "none") << "\n";
    for (const LunStatus& l : t.luns) {
      out << "  lun " << l.kelLun << " (scsi lun " << l.scsiLun << "): " << l.path << ", "
          << l.sizeBytes << " bytes, " << (l.online ? "online" : "offline");
      if (!l.alias.empty()) out << ", alias " << l.alias;
      if (!l.naa.empty()) out << ", naa " << l.naa;
      out << "\n";
    }
  }
  for (const Problem& p : s.problems) {
    out << "problem: " << (p.target.empty() ? "" : p.target + ": ") << p.message << "\n";
  }
  return out.str();
}

}  // namespace keld
}  // namespace kel
