#include "platform/host_controls.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "platform/exception.h"
#include "platform/exec.h"
#include "platform/host_config.h"
#include "platform/log.h"

namespace kel {
namespace platform {

std::string ModuleMarkerPath(const std::string& name) {
  return CurrentHostConfig()->stateDir + "/run/module-" + name + ".loaded";
}

}  // namespace platform
}  // namespace kel

namespace NukCtl {
namespace System {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;

// Serialises marker changes of this process; markers are plain files, so a marker that another
// process creates at the same moment is simply found existing.
std::mutex gModuleMu;

// The one place where errno becomes a message in this module.
[[noreturn]] void Fail(const std::string& what, int err) {
  throw OrsaCtlException(what + ": " + strerror(err));
}

void MakeDirs(const std::string& dir) {
  std::string cur;
  for (size_t i = 0; i <= dir.size(); ++i) {
    if (i == dir.size() || dir[i] == '/') {
      if (!cur.empty() && mkdir(cur.c_str(), 0755) != 0 && errno != EEXIST) {
        Fail("Failed to create dir " + cur, errno);
      }
    }
    if (i < dir.size()) cur.push_back(dir[i]);
  }
}

void CheckModuleName(const std::string& name) {
  if (name.empty() || name.find('/') != std::string::npos || name[0] == '.') {
    throw OrsaCtlException("Invalid module name '" + name + "'");
  }
}

void Nft(const std::vector<std::string>& args, const std::string& what) {
  std::vector<std::string> argv{"nft"};
  argv.insert(argv.end(), args.begin(), args.end());
  int code = kel::platform::GetCommandRunner().Run(argv);
  if (code != 0) {
    throw OrsaCtlException("Failed to " + what + " (nft exit code " + std::to_string(code) + ")");
  }
}

}  // namespace

namespace ModuleApi {

bool ModuleIsLoaded(const std::string& name) {
  CheckModuleName(name);
  struct stat st;
  return stat(kel::platform::ModuleMarkerPath(name).c_str(), &st) == 0;
}

void ModuleLoad(const std::string& name) {
  CheckModuleName(name);
  std::lock_guard<std::mutex> guard(gModuleMu);
  std::string marker = kel::platform::ModuleMarkerPath(name);
  MakeDirs(marker.substr(0, marker.find_last_of('/')));
  int fd = open(marker.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) Fail("Failed to load module " + name, errno);
  close(fd);
}

void ModuleUnload(const std::string& name) {
  CheckModuleName(name);
  std::lock_guard<std::mutex> guard(gModuleMu);
  if (unlink(kel::platform::ModuleMarkerPath(name).c_str()) != 0 && errno != ENOENT) {
    Fail("Failed to unload module " + name, errno);
  }
}

}  // namespace ModuleApi

namespace FirewallApi {

void ReloadFirewallModule() {}

void FirewallRulesetSetStatus(const std::string& name, bool enable, const std::set<int>& ports) {
  std::string backend = kel::platform::CurrentHostConfig()->firewallBackend;
  if (backend == "none") {
    LogInfo("%s: Firewall backend is none: ruleset %s left to the host's own firewall",
            "FirewallApi", name.c_str());
    return;
  }
  if (backend != "nftables") {
    throw OrsaCtlException("Unknown firewall backend '" + backend + "'");
  }
  // Adding the table first makes both the flush and the delete succeed when it is missing.
  Nft({"add", "table", "inet", name}, "create firewall ruleset " + name);
  if (!enable) {
    Nft({"delete", "table", "inet", name}, "disable firewall ruleset " + name);
    return;
  }
  Nft({"flush", "table", "inet", name}, "reset firewall ruleset " + name);
  Nft({"add", "chain", "inet", name, "input",
       "{ type filter hook input priority 0 ; policy accept ; }"},
      "create firewall chain " + name);
  if (ports.empty()) return;
  std::string list;
  for (int p : ports) list += (list.empty() ? "" : ", ") + std::to_string(p);
  Nft({"add", "rule", "inet", name, "input", "tcp", "dport", "{ " + list + " }", "accept"},
      "enable firewall ruleset " + name);
}

}  // namespace FirewallApi
}  // namespace System

namespace Util {
namespace {

std::mutex gReaderMu;
Sysinfo::Reader gReaderForTest;  // guarded by gReaderMu

}  // namespace

const char* const Sysinfo::kSysinfoIntOptions = "/config/options/int";

int64_t Sysinfo::GetIntValue() const {
  if (node_ != kSysinfoIntOptions) {
    throw HostCtl::Lib::Orsa::OrsaCtlException("Unknown option node " + node_);
  }
  if (path_.size() != 2) {
    throw HostCtl::Lib::Orsa::OrsaCtlException("Option path of node " + node_ +
                                               " must be a group and a name");
  }
  Reader reader;
  {
    std::lock_guard<std::mutex> guard(gReaderMu);
    reader = gReaderForTest;
  }
  if (reader) return reader(path_[0], path_[1]);
  return kel::platform::HostOption(path_[0], path_[1]);
}

void Sysinfo::SetReaderForTest(Reader reader) {
  std::lock_guard<std::mutex> guard(gReaderMu);
  gReaderForTest = std::move(reader);
}

}  // namespace Util
}  // namespace NukCtl
