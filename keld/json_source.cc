#include "keld/json_source.h"

#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "platform/exception.h"

namespace kel {
namespace keld {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;
using nlohmann::json;

class Reader {
 public:
  explicit Reader(std::string where) : where_(std::move(where)) {}

  [[noreturn]] void Refuse(const std::string& what) const {
    throw OrsaCtlException("desired state " + where_ + ": " + what);
  }

  void CheckKeys(const json& obj, const std::string& at, const std::set<std::string>& allowed) {
    if (!obj.is_object())
      Refuse("'" + (at.empty() ? std::string("(top)") : at) + "' must be an object");
    for (auto it = obj.begin(); it != obj.end(); ++it) {
      if (allowed.count(it.key()) == 0) {
        Refuse("unknown key '" + (at.empty() ? "" : at + ".") + it.key() + "'");
      }
    }
  }

  std::string String(const json& obj, const std::string& key, const std::string& at) {
    if (!obj.contains(key)) return "";
    const json& v = obj.at(key);
    if (!v.is_string()) Refuse("'" + at + "." + key + "' must be a string");
    return v.get<std::string>();
  }

  int Int(const json& obj, const std::string& key, const std::string& at, int fallback) {
    if (!obj.contains(key)) return fallback;
    const json& v = obj.at(key);
    if (!v.is_number_integer()) Refuse("'" + at + "." + key + "' must be an integer");
    return v.get<int>();
  }

  std::vector<std::string> Strings(const json& obj, const std::string& key, const std::string& at) {
    std::vector<std::string> out;
    if (!obj.contains(key)) return out;
    const json& v = obj.at(key);
    if (!v.is_array()) Refuse("'" + at + "." + key + "' must be an array of strings");
    for (const json& s : v) {
      if (!s.is_string()) Refuse("'" + at + "." + key + "' must be an array of strings");
      out.push_back(s.get<std::string>());
    }
    return out;
  }

  const json& Array(const json& obj, const std::string& key, const std::string& at) {
    static const json kEmpty = json::array();
    if (!obj.contains(key)) return kEmpty;
    const json& v = obj.at(key);
    if (!v.is_array()) Refuse("'" + (at.empty() ? key : at + "." + key) + "' must be an array");
    return v;
  }

  bool Offline(const json& obj, const std::string& at) {
    std::string status = String(obj, "status", at);
    if (status.empty() || status == "online") return false;
    if (status == "offline") return true;
    Refuse("'" + at + ".status' must be \"online\" or \"offline\"");
  }

 private:
  std::string where_;
};

AuthRule ParseAuth(Reader& r, const std::string& text, const std::string& at) {
  if (text.empty() || text == "none") return AuthRule::kNone;
  if (text == "deny") return AuthRule::kDeny;
  if (text == "chap") return AuthRule::kChap;
  if (text == "chap-mutual") return AuthRule::kChapMutual;
  r.Refuse("'" + at + ".authType' must be \"none\", \"deny\", \"chap\" or \"chap-mutual\"");
}

}  // namespace

DesiredState DesiredStateFromJson(const json& j, const std::string& where) {
  Reader r(where);
  r.CheckKeys(j, "", {"targets", "initiatorGroups"});
  std::map<std::string, std::vector<std::string>> groups;
  if (j.contains("initiatorGroups")) {
    const json& g = j.at("initiatorGroups");
    if (!g.is_object()) r.Refuse("'initiatorGroups' must be an object");
    for (auto it = g.begin(); it != g.end(); ++it) {
      groups[it.key()] = r.Strings(g, it.key(), "initiatorGroups");
    }
  }
  DesiredState state;
  const json& targets = r.Array(j, "targets", "");
  for (size_t i = 0; i < targets.size(); ++i) {
    const json& t = targets[i];
    const std::string at = "targets[" + std::to_string(i) + "]";
    r.CheckKeys(t, at,
                {"iqn", "alias", "uuid", "status", "portals", "authType", "chap", "initiators",
                 "initiatorGroups", "luns"});
    DesiredTarget d;
    d.iqn = r.String(t, "iqn", at);
    if (d.iqn.empty()) r.Refuse("'" + at + ".iqn' is missing");
    d.alias = r.String(t, "alias", at);
    d.uuid = r.String(t, "uuid", at);
    d.offline = r.Offline(t, at);
    d.auth = ParseAuth(r, r.String(t, "authType", at), at);
    const json& portals = r.Array(t, "portals", at);
    for (size_t k = 0; k < portals.size(); ++k) {
      const std::string pat = at + ".portals[" + std::to_string(k) + "]";
      r.CheckKeys(portals[k], pat, {"interface", "address", "port", "owner"});
      DesiredPortal p;
      p.interfaceName = r.String(portals[k], "interface", pat);
      p.address = r.String(portals[k], "address", pat);
      p.port = r.Int(portals[k], "port", pat, 3260);
      p.ownerHostUuid = r.String(portals[k], "owner", pat);
      if (p.interfaceName.empty() && p.address.empty()) {
        r.Refuse("'" + pat + "' needs an interface or an address");
      }
      d.portals.push_back(p);
    }
    const json& chap = r.Array(t, "chap", at);
    for (size_t k = 0; k < chap.size(); ++k) {
      const std::string cat = at + ".chap[" + std::to_string(k) + "]";
      r.CheckKeys(chap[k], cat, {"user", "secret", "mutualUser", "mutualSecret"});
      d.chap.push_back({r.String(chap[k], "user", cat), r.String(chap[k], "secret", cat),
                        r.String(chap[k], "mutualUser", cat),
                        r.String(chap[k], "mutualSecret", cat)});
    }
    d.initiators = r.Strings(t, "initiators", at);
    std::vector<std::string> refs = r.Strings(t, "initiatorGroups", at);
    for (const std::string& ref : refs) {
      auto g = groups.find(ref);
      if (g == groups.end()) r.Refuse("initiator group '" + ref + "' of " + at + " is not defined");
      for (const std::string& name : g->second) d.initiators.push_back(name);
    }
    d.initiatorsRestricted = !r.Strings(t, "initiators", at).empty() || !refs.empty();
    const json& luns = r.Array(t, "luns", at);
    for (size_t k = 0; k < luns.size(); ++k) {
      const std::string lat = at + ".luns[" + std::to_string(k) + "]";
      r.CheckKeys(luns[k], lat, {"id", "path", "status", "alias", "naa"});
      if (!luns[k].contains("id")) r.Refuse("'" + lat + ".id' is missing");
      DesiredLun l;
      l.id = r.Int(luns[k], "id", lat, 0);
      l.path = r.String(luns[k], "path", lat);
      if (l.path.empty()) r.Refuse("'" + lat + ".path' is missing");
      l.offline = r.Offline(luns[k], lat);
      l.alias = r.String(luns[k], "alias", lat);
      l.naa = r.String(luns[k], "naa", lat);
      d.luns.push_back(l);
    }
    state.targets.push_back(d);
  }
  return state;
}

json DesiredStateToJson(const DesiredState& state) {
  json targets = json::array();
  for (const DesiredTarget& d : state.targets) {
    json t = {{"iqn", d.iqn}, {"authType", AuthRuleName(d.auth)}};
    if (!d.alias.empty()) t["alias"] = d.alias;
    if (!d.uuid.empty()) t["uuid"] = d.uuid;
    if (d.offline) t["status"] = "offline";
    json portals = json::array();
    for (const DesiredPortal& p : d.portals) {
      json pj = {{"port", p.port}};
      if (!p.interfaceName.empty()) pj["interface"] = p.interfaceName;
      if (!p.address.empty()) pj["address"] = p.address;
      if (!p.ownerHostUuid.empty()) pj["owner"] = p.ownerHostUuid;
      portals.push_back(pj);
    }
    t["portals"] = portals;
    json chap = json::array();
    for (const ChapCredential& c : d.chap) {
      json cj = {{"user", c.user}, {"secret", c.secret}};
      if (!c.mutualUser.empty()) cj["mutualUser"] = c.mutualUser;
      if (!c.mutualSecret.empty()) cj["mutualSecret"] = c.mutualSecret;
      chap.push_back(cj);
    }
    if (!chap.empty()) t["chap"] = chap;
    if (d.initiatorsRestricted) {
      if (d.initiators.empty()) {
        // Restricted to nobody: an empty group keeps that meaning across a round trip.
        t["initiatorGroups"] = json::array({"no-initiators"});
      } else {
        t["initiators"] = d.initiators;
      }
    }
    json luns = json::array();
    for (const DesiredLun& l : d.luns) {
      json lj = {{"id", l.id}, {"path", l.path}};
      if (l.offline) lj["status"] = "offline";
      if (!l.alias.empty()) lj["alias"] = l.alias;
      if (!l.naa.empty()) lj["naa"] = l.naa;
      luns.push_back(lj);
    }
    t["luns"] = luns;
    targets.push_back(t);
  }
  json out = {{"targets", targets}};
  bool nobody = false;
  for (const DesiredTarget& d : state.targets)
    nobody |= d.initiatorsRestricted && d.initiators.empty();
  if (nobody) out["initiatorGroups"] = {{"no-initiators", json::array()}};
  return out;
}

DesiredState JsonFileStateSource::Load() {
  std::ifstream in(path_);
  if (!in) throw OrsaCtlException("desired state " + path_ + ": cannot be read");
  std::stringstream text;
  text << in.rdbuf();
  json j;
  try {
    j = json::parse(text.str());
  } catch (const json::exception& e) {
    throw OrsaCtlException("desired state " + path_ + ": " + e.what());
  }
  return DesiredStateFromJson(j, path_);
}

}  // namespace keld
}  // namespace kel
