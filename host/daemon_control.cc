#include "host/daemon_control.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "conf/conf.h"
#include "conf/conf_handle.h"
#include "conf/paths.h"
#include "platform/exception.h"
#include "platform/exec.h"
#include "platform/host_config.h"
#include "platform/host_controls.h"
#include "platform/log.h"
#include "platform/settings.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;

const char* const kKelModule = "kel";
const char* const kKelRuleset = "kel";
constexpr int kDefaultIscsiPort = 3260;

bool IsExecutableFile(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0;
}

std::string ExecutableDir() {
  std::vector<char> buf(4096);
  ssize_t n = readlink("/proc/self/exe", buf.data(), buf.size() - 1);
  if (n <= 0) return "";
  std::string exe(buf.data(), static_cast<size_t>(n));
  size_t slash = exe.find_last_of('/');
  return slash == std::string::npos ? "" : exe.substr(0, slash);
}

std::string FindOnPath(const std::string& name) {
  const char* path = getenv("PATH");
  if (path == nullptr) return "";
  std::string dirs = path;
  size_t start = 0;
  while (start <= dirs.size()) {
    size_t end = dirs.find(':', start);
    if (end == std::string::npos) end = dirs.size();
    std::string dir = dirs.substr(start, end - start);
    if (!dir.empty() && IsExecutableFile(dir + "/" + name)) return dir + "/" + name;
    start = end + 1;
  }
  return "";
}

int RunDaemonCommand(const char* verb) {
  std::string line = KeldControlProgram() + " ++group=serad-tmp " + verb;
  return NukCtl::Util::NukCtl_Exec(line);
}

// The loader control of this build: the start-at-boot setting is the settings store's flag that
// the host agent reads when it starts. Takes the words "kel_loader on|off" like a boot-service
// tool and answers with an exit code (2: not understood); the store's failures throw.
int RunLoaderControl(const std::string& arguments) {
  std::vector<std::string> words = kel::platform::SplitArguments(arguments);
  if (words.size() != 2 || words[0] != "kel_loader" || (words[1] != "on" && words[1] != "off")) {
    return 2;
  }
  bool on = words[1] == "on";
  kel::platform::UpdateSettings([on](kel::platform::Settings& s) { s.startAtBoot = on; });
  return 0;
}

// The ports the ruleset must open: the iSCSI port, the cluster default port and every listen port
// of the configuration's portal groups. Missing or unreadable configuration only narrows the set.
std::set<int> PortalPorts() {
  std::set<int> ports{kDefaultIscsiPort};
  try {
    kel::platform::Settings settings = kel::platform::LoadSettings();
    if (settings.hasDefaults && settings.defaults.port > 0) ports.insert(settings.defaults.port);
  } catch (const OrsaCtlException& e) {
    LogWarning("%s: Cannot read the default port for the firewall: %s", "Util",
               e.GetMessage().c_str());
  }
  struct stat st;
  if (stat(GetConfFilePath().c_str(), &st) != 0) return ports;
  try {
    ConfHandle handle(ConfHandle::kShared);
    struct portal_group* pg;
    TAILQ_FOREACH(pg, &handle.GetConf()->conf_portal_groups, pg_next) {
      struct portal* p;
      TAILQ_FOREACH(p, &pg->pg_portals, p_next) {
        if (p->p_port == nullptr) continue;
        char* end = nullptr;
        long port = strtol(p->p_port, &end, 10);
        if (end != p->p_port && *end == '\0' && port > 0 && port < 65536) {
          ports.insert(static_cast<int>(port));
        }
      }
    }
  } catch (const OrsaCtlException& e) {
    LogWarning("%s: Cannot read the portal ports for the firewall: %s", "Util",
               e.GetMessage().c_str());
  }
  return ports;
}

}  // namespace

const char* const kKelLoaderControl = "kel-loader-control";

std::string KeldControlProgram() {
  std::string configured = kel::platform::CurrentHostConfig()->daemonControl;
  if (!configured.empty()) return configured;
  std::vector<std::string> candidates;
  std::string dir = ExecutableDir();
  if (!dir.empty()) {
    candidates.push_back(dir + "/keld");
    candidates.push_back(dir + "/../keld/keld");
  }
  const char* binary_dir = getenv("KEL_BINARY_DIR");
  if (binary_dir != nullptr && *binary_dir != '\0') {
    candidates.push_back(std::string(binary_dir) + "/keld/keld");
  }
  for (const std::string& c : candidates) {
    if (IsExecutableFile(c)) return kel::platform::ShellQuote(c);
  }
  std::string on_path = FindOnPath("keld");
  return on_path.empty() ? "keld" : kel::platform::ShellQuote(on_path);
}

void StartKeld() {
  LogInfo("%s: Starting keld", "Util");
  int code = RunDaemonCommand("restart");
  if (code == 0) {
    LogInfo("%s: keld started successfully", "Util");
    return;
  }
  // The control program reserves the daemon's resource group first and reports that failure
  // with exit code 1.
  if (code == 1) throw OrsaCtlException("Failed to reserve keld memory (return code 1)");
  throw OrsaCtlException("Failed to start keld (return code " + std::to_string(code) + ")");
}

void ReloadKeld() {
  int code = RunDaemonCommand("reload");
  if (code != 0) {
    LogWarning("%s: Failed to make keld reload config.", "Util");
    throw OrsaCtlException("Failed to reload keld (return code " + std::to_string(code) + ")");
  }
}

void StopKeld() {
  int code;
  try {
    code = RunDaemonCommand("io_stop");
  } catch (const OrsaCtlException&) {
    LogWarning("%s: Failed to stop keld.", "Util");
    return;
  }
  if (code != 0) LogWarning("%s: Failed to stop keld.", "Util");
}

void LoadKelKernelModule() {
  if (NukCtl::System::ModuleApi::ModuleIsLoaded(kKelModule)) return;
  LogInfo("%s: Loading kel module.", "Util");
  NukCtl::System::ModuleApi::ModuleLoad(kKelModule);
}

void UnloadKelKernelModule() {
  LogInfo("%s: Unloading kel module.", "Util");
  NukCtl::System::ModuleApi::ModuleUnload(kKelModule);
}

void SetKelLoaderChkConfig(bool on) {
  const char* argument = on ? "kel_loader on" : "kel_loader off";
  try {
    int code = RunLoaderControl(argument);
    if (code == 0) {
      LogInfo("%s: Execute \"%s %s\" done", "Util", kKelLoaderControl, argument);
    } else {
      LogError("%s: Execute \"%s %s\" failed", "Util", kKelLoaderControl, argument);
    }
  } catch (const OrsaCtlException& e) {
    LogError("%s: Failed to Execute chkconfig on kel_loader: %s", "Util", e.GetMessage().c_str());
  }
}

bool GetKelLoaderChkConfig() {
  try {
    return kel::platform::LoadSettings().startAtBoot;
  } catch (const OrsaCtlException& e) {
    LogWarning("%s: Cannot read the start-at-boot setting: %s", "Util", e.GetMessage().c_str());
    return false;
  }
}

void SetKelFirewallRulesetStatus(bool enable) {
  NukCtl::System::FirewallApi::ReloadFirewallModule();
  std::set<int> ports;
  // Only a real ruleset needs the ports; reading them takes kel.conf's shared lock.
  if (enable && kel::platform::CurrentHostConfig()->firewallBackend != "none") {
    ports = PortalPorts();
  }
  NukCtl::System::FirewallApi::FirewallRulesetSetStatus(kKelRuleset, enable, ports);
  LogInfo("%s:  %s Kel FirewallRuleset", "Util", enable ? "Enable" : "Disable");
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
