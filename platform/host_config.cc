#include "platform/host_config.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "platform/exception.h"
#include "platform/fs.h"

namespace kel {
namespace platform {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;
using nlohmann::json;

std::mutex gConfigMu;
HostConfigPtr gConfig;  // guarded by gConfigMu

std::string DefaultStateDir() {
  const char* home = getenv("KEL_HOME");
  if (home != nullptr && *home != '\0') return home;
  if (geteuid() == 0) return "/var/lib/kel";
  const char* user_home = getenv("HOME");
  std::string base;
  if (user_home != nullptr && *user_home != '\0') {
    base = user_home;
  } else {
    struct passwd* pw = getpwuid(geteuid());
    base = pw != nullptr ? pw->pw_dir : "/tmp";
  }
  return base + "/.local/share/kel";
}

[[noreturn]] void Refuse(const std::string& file, const std::string& what) {
  throw OrsaCtlException("host configuration " + file + ": " + what);
}

// Checks that `obj` is an object holding only `allowed` keys.
void CheckObject(const std::string& file, const json& obj, const std::string& where,
                 const std::set<std::string>& allowed) {
  if (!obj.is_object()) Refuse(file, "'" + where + "' must be an object");
  for (auto it = obj.begin(); it != obj.end(); ++it) {
    if (allowed.count(it.key()) == 0) {
      Refuse(file, "unknown key '" + (where.empty() ? "" : where + ".") + it.key() + "'");
    }
  }
}

std::string GetString(const std::string& file, const json& obj, const std::string& key,
                      const std::string& where, const std::string& fallback) {
  if (!obj.contains(key)) return fallback;
  const json& v = obj.at(key);
  if (!v.is_string()) Refuse(file, "'" + where + "' must be a string");
  return v.get<std::string>();
}

int64_t GetInt(const std::string& file, const json& v, const std::string& where,
               int64_t lo = INT64_MIN, int64_t hi = INT64_MAX) {
  if (!v.is_number_integer()) Refuse(file, "'" + where + "' must be an integer");
  if ((v.is_number_unsigned() && v.get<uint64_t>() > static_cast<uint64_t>(INT64_MAX)) ||
      v.get<int64_t>() < lo || v.get<int64_t>() > hi) {
    Refuse(file,
           "'" + where + "' must be between " + std::to_string(lo) + " and " + std::to_string(hi));
  }
  return v.get<int64_t>();
}

void MakeDirs(const std::string& path, mode_t mode) {
  std::string cur;
  for (size_t i = 0; i <= path.size(); ++i) {
    if (i == path.size() || path[i] == '/') {
      if (!cur.empty() && mkdir(cur.c_str(), mode) != 0 && errno != EEXIST) {
        throw OrsaCtlException("Failed to create dir " + cur + ": " + strerror(errno));
      }
    }
    if (i < path.size()) cur.push_back(path[i]);
  }
}

bool ValidUuidText(const std::string& text) {
  uuid_t u;
  return text.size() == 36 && uuid_parse(text.c_str(), u) == 0;
}

}  // namespace

HostConfig EmbeddedHostConfig() {
  HostConfig c;
  c.stateDir = DefaultStateDir();
  c.datastorePath = c.stateDir + "/datastore";
  c.options["ORSA-iSCSI"] = {{"kelLunNaaEnable", 1},
                             {"kelNukNicCtlEnable", 1},
                             {"kelLoadBalanceMethod", 2},
                             {"kelLoadBalancePeriod", 5},
                             {"kelUseDomExclSession", 0}};
  c.options["ORSA"] = {{"KelStretchedCluster", 1}};
  return c;
}

namespace {

// A host configuration is a few hundred bytes; a megabyte is not one.
constexpr size_t kMaxHostConfigBytes = 1024 * 1024;

// Parses `text`, refusing a key given twice in one object (the JSON library would silently keep
// the last one, and a second "stateDir" would quietly move the host's state).
json ParseRefusingDuplicates(const std::string& file, const std::string& text) {
  std::vector<std::set<std::string>> seen;
  std::vector<std::string> where;  // dotted path of each open object
  std::string lastKey;
  json::parser_callback_t check = [&](int, json::parse_event_t event, json& parsed) {
    switch (event) {
      case json::parse_event_t::object_start:
        where.push_back(where.empty()          ? std::string()
                        : where.back().empty() ? lastKey
                                               : where.back() + "." + lastKey);
        seen.emplace_back();
        break;
      case json::parse_event_t::object_end:
        if (!seen.empty()) seen.pop_back();
        if (!where.empty()) where.pop_back();
        break;
      case json::parse_event_t::key: {
        lastKey = parsed.get<std::string>();
        if (!seen.empty() && !seen.back().insert(lastKey).second) {
          const std::string& at = where.back();
          Refuse(file, "key '" + (at.empty() ? lastKey : at + "." + lastKey) +
                           "' is given more than once");
        }
        break;
      }
      default:
        break;
    }
    return true;
  };
  try {
    return json::parse(text, check);
  } catch (const json::exception& e) {
    // Also number overflows ("1e999"), which are not parse errors to the library.
    Refuse(file, std::string("not valid JSON: ") + e.what());
  }
}

// An interface address must be one the system can bind: "999.1.1.1" is not.
void CheckAddress(const std::string& file, const std::string& where, const std::string& text,
                  int family) {
  if (text.empty()) return;
  unsigned char buf[sizeof(struct in6_addr)];
  if (inet_pton(family, text.c_str(), buf) != 1) {
    Refuse(file, "'" + where + "' is not an " + (family == AF_INET ? "IPv4" : "IPv6") +
                     " address: \"" + text + "\"");
  }
}

// A file named in the configuration must be readable now, not at the first connection.
void CheckReadableFile(const std::string& file, const std::string& where, const std::string& path) {
  std::string ignored;
  int err = ReadFileBounded(path, kMaxHostConfigBytes, &ignored);
  if (err != 0) Refuse(file, "'" + where + "' (" + path + ") cannot be read: " + ErrnoText(err));
}

}  // namespace

HostConfig LoadHostConfigFile(const std::string& path) {
  std::string text;
  int err = ReadFileBounded(path, kMaxHostConfigBytes, &text);
  if (err == EFBIG) {
    Refuse(path, "larger than " + std::to_string(kMaxHostConfigBytes) + " bytes");
  } else if (err == EISDIR) {
    Refuse(path, "cannot be read: it is a directory");
  } else if (err != 0) {
    Refuse(path, "cannot be read: " + ErrnoText(err));
  }
  return ParseHostConfigText(path, text);
}

HostConfig ParseHostConfigText(const std::string& path, const std::string& text) {
  json doc = ParseRefusingDuplicates(path, text);
  HostConfig c = EmbeddedHostConfig();
  c.sourcePath = path;
  CheckObject(path, doc, "",
              {"host", "stateDir", "datastore", "directory", "network", "daemon", "firewall",
               "options", "productEnabled"});
  bool datastore_given = false;
  if (doc.contains("host")) {
    const json& h = doc["host"];
    CheckObject(path, h, "host", {"uuid", "name", "site"});
    c.hostUuid = GetString(path, h, "uuid", "host.uuid", "");
    c.hostName = GetString(path, h, "name", "host.name", "");
    c.hostSite = GetString(path, h, "site", "host.site", "");
    if (!c.hostUuid.empty() && !ValidUuidText(c.hostUuid)) {
      Refuse(path, "'host.uuid' must be a UUID (8-4-4-4-12 hexadecimal digits)");
    }
  }
  c.stateDir = GetString(path, doc, "stateDir", "stateDir", c.stateDir);
  if (c.stateDir.empty()) Refuse(path, "'stateDir' must not be empty");
  if (doc.contains("datastore")) {
    const json& d = doc["datastore"];
    CheckObject(path, d, "datastore", {"path"});
    if (d.contains("path")) {
      c.datastorePath = GetString(path, d, "path", "datastore.path", "");
      datastore_given = true;
    }
  }
  if (!datastore_given) c.datastorePath = c.stateDir + "/datastore";
  if (doc.contains("directory")) {
    const json& d = doc["directory"];
    CheckObject(
        path, d, "directory",
        {"backend", "endpoints", "prefix", "leaseTtlSeconds", "tls", "username", "passwordFile"});
    c.directoryBackend = GetString(path, d, "backend", "directory.backend", "embedded");
    if (c.directoryBackend != "embedded" && c.directoryBackend != "etcd") {
      Refuse(path, "'directory.backend' must be \"embedded\" or \"etcd\"");
    }
    if (d.contains("endpoints")) {
      if (!d["endpoints"].is_array()) Refuse(path, "'directory.endpoints' must be an array");
      for (const json& e : d["endpoints"]) {
        if (!e.is_string()) Refuse(path, "'directory.endpoints' must hold strings");
        c.etcdEndpoints.push_back(e.get<std::string>());
      }
    }
    c.etcdPrefix = GetString(path, d, "prefix", "directory.prefix", "");
    if (d.contains("leaseTtlSeconds")) {
      c.leaseTtlSeconds = static_cast<int>(
          GetInt(path, d["leaseTtlSeconds"], "directory.leaseTtlSeconds", 2, 3600));
    }
    for (const std::string& e : c.etcdEndpoints) {
      if (e.rfind("http://", 0) != 0 && e.rfind("https://", 0) != 0) {
        Refuse(path, "'directory.endpoints' must be http:// or https:// URLs: \"" + e + "\"");
      }
    }
    if (d.contains("tls")) {
      const json& t = d["tls"];
      CheckObject(path, t, "directory.tls", {"caFile", "certFile", "keyFile"});
      c.etcdTls.caFile = GetString(path, t, "caFile", "directory.tls.caFile", "");
      c.etcdTls.certFile = GetString(path, t, "certFile", "directory.tls.certFile", "");
      c.etcdTls.keyFile = GetString(path, t, "keyFile", "directory.tls.keyFile", "");
      if (c.etcdTls.certFile.empty() != c.etcdTls.keyFile.empty()) {
        Refuse(path, "'directory.tls.certFile' and 'directory.tls.keyFile' go together");
      }
      CheckReadableFile(path, "directory.tls.caFile", c.etcdTls.caFile);
      CheckReadableFile(path, "directory.tls.certFile", c.etcdTls.certFile);
      CheckReadableFile(path, "directory.tls.keyFile", c.etcdTls.keyFile);
    }
    c.etcdUser = GetString(path, d, "username", "directory.username", "");
    const std::string passwordFile =
        GetString(path, d, "passwordFile", "directory.passwordFile", "");
    if (c.etcdUser.empty() != passwordFile.empty()) {
      Refuse(path, "'directory.username' and 'directory.passwordFile' go together");
    }
    if (!passwordFile.empty()) {
      int perr = ReadFileBounded(passwordFile, 4096, &c.etcdPassword);
      if (perr != 0) {
        Refuse(path, "'directory.passwordFile' (" + passwordFile +
                         ") cannot be read: " + ErrnoText(perr));
      }
      if (!c.etcdPassword.empty() && c.etcdPassword.back() == '\n') c.etcdPassword.pop_back();
    }
    if (c.directoryBackend == "etcd") {
      if (c.etcdEndpoints.empty()) Refuse(path, "'directory.endpoints' must name an endpoint");
      if (c.etcdPrefix.empty()) c.etcdPrefix = "/kel/default";
    }
  }
  if (doc.contains("network")) {
    const json& n = doc["network"];
    CheckObject(path, n, "network", {"interfaces"});
    if (n.contains("interfaces")) {
      const json& ifs = n["interfaces"];
      if (!ifs.is_object()) Refuse(path, "'network.interfaces' must be an object");
      c.networkOverride = true;
      for (auto it = ifs.begin(); it != ifs.end(); ++it) {
        std::string where = "network.interfaces." + it.key();
        CheckObject(path, it.value(), where, {"ipv4", "ipv6"});
        HostConfig::Nic nic;
        nic.ipv4 = GetString(path, it.value(), "ipv4", where + ".ipv4", "");
        nic.ipv6 = GetString(path, it.value(), "ipv6", where + ".ipv6", "");
        CheckAddress(path, where + ".ipv4", nic.ipv4, AF_INET);
        CheckAddress(path, where + ".ipv6", nic.ipv6, AF_INET6);
        c.interfaces[it.key()] = nic;
      }
    }
  }
  if (doc.contains("daemon")) {
    const json& d = doc["daemon"];
    CheckObject(path, d, "daemon", {"control", "tgtdControlPort"});
    c.daemonControl = GetString(path, d, "control", "daemon.control", "");
    if (d.contains("tgtdControlPort")) {
      c.tgtdControlPort =
          static_cast<int>(GetInt(path, d["tgtdControlPort"], "daemon.tgtdControlPort", 0, 65535));
    }
  }
  if (doc.contains("firewall")) {
    const json& f = doc["firewall"];
    CheckObject(path, f, "firewall", {"backend"});
    c.firewallBackend = GetString(path, f, "backend", "firewall.backend", "none");
    if (c.firewallBackend != "none" && c.firewallBackend != "nftables") {
      Refuse(path, "'firewall.backend' must be \"none\" or \"nftables\"");
    }
  }
  if (doc.contains("options")) {
    const json& o = doc["options"];
    if (!o.is_object()) Refuse(path, "'options' must be an object");
    for (auto g = o.begin(); g != o.end(); ++g) {
      std::string where = "options." + g.key();
      if (!g.value().is_object()) Refuse(path, "'" + where + "' must be an object");
      for (auto f = g.value().begin(); f != g.value().end(); ++f) {
        c.options[g.key()][f.key()] = GetInt(path, f.value(), where + "." + f.key());
      }
    }
  }
  if (doc.contains("productEnabled")) {
    if (!doc["productEnabled"].is_boolean()) Refuse(path, "'productEnabled' must be a boolean");
    c.productEnabled = doc["productEnabled"].get<bool>();
  }
  return c;
}

void FinishHostConfig(HostConfig& c) {
  if (c.hostName.empty()) {
    char name[256] = {0};
    if (gethostname(name, sizeof(name) - 1) == 0) c.hostName = name;
    if (c.hostName.empty()) c.hostName = "localhost";
  }
  if (!c.hostUuid.empty()) return;
  // The state directory holds the settings (with the cluster's default CHAP secrets), the backup
  // of kel.conf and the logs: the owner's alone when kel makes it. An existing directory keeps
  // the mode its administrator chose.
  MakeDirs(c.stateDir, 0700);
  std::string file = c.stateDir + "/host-uuid";
  std::ifstream in(file);
  std::string text;
  if (in && std::getline(in, text) && ValidUuidText(text)) {
    c.hostUuid = text;
    return;
  }
  uuid_t u;
  uuid_generate_random(u);
  char buf[37];
  uuid_unparse_lower(u, buf);
  // Written under a temporary name and linked into place, so that two programs starting at once
  // agree on one UUID: the first link wins and the loser reads the winner's.
  std::string tmp = file + ".tmp." + std::to_string(getpid());
  int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) throw OrsaCtlException("Failed to create " + tmp + ": " + strerror(errno));
  std::string line = std::string(buf) + "\n";
  bool ok =
      write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size()) && fsync(fd) == 0;
  close(fd);
  if (!ok) {
    unlink(tmp.c_str());
    throw OrsaCtlException("Failed to write " + tmp);
  }
  if (link(tmp.c_str(), file.c_str()) != 0 && errno != EEXIST) {
    int err = errno;
    unlink(tmp.c_str());
    throw OrsaCtlException("Failed to keep host UUID in " + file + ": " + strerror(err));
  }
  unlink(tmp.c_str());
  std::ifstream again(file);
  if (!(again && std::getline(again, text) && ValidUuidText(text))) {
    throw OrsaCtlException("Failed to read host UUID from " + file);
  }
  c.hostUuid = text;
}

HostConfig LoadHostConfig(const std::string& explicit_path) {
  HostConfig c;
  if (!explicit_path.empty()) {
    c = LoadHostConfigFile(explicit_path);
  } else if (const char* env = getenv("KEL_CONFIG"); env != nullptr && *env != '\0') {
    c = LoadHostConfigFile(env);
  } else if (access("/etc/kel/host.json", F_OK) == 0) {
    c = LoadHostConfigFile("/etc/kel/host.json");
  } else {
    c = EmbeddedHostConfig();
  }
  FinishHostConfig(c);
  return c;
}

HostConfigPtr CurrentHostConfig() {
  std::lock_guard<std::mutex> lock(gConfigMu);
  if (!gConfig) gConfig = std::make_shared<const HostConfig>(LoadHostConfig(""));
  return gConfig;
}

void SetCurrentHostConfig(HostConfig config) {
  auto ptr = std::make_shared<const HostConfig>(std::move(config));
  std::lock_guard<std::mutex> lock(gConfigMu);
  gConfig = std::move(ptr);
}

int64_t HostOption(const std::string& group, const std::string& name) {
  HostConfigPtr c = CurrentHostConfig();
  auto g = c->options.find(group);
  if (g == c->options.end()) return 0;
  auto f = g->second.find(name);
  return f == g->second.end() ? 0 : f->second;
}

}  // namespace platform
}  // namespace kel
