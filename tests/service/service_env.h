// A one-host environment for the service's tests: a host configuration in a temporary directory
// (state directory, datastore, the embedded directory, one interface "nuk0" on a loopback
// address) whose daemon control is a recording double: a shell script that appends its arguments
// to control.log, writes the $KEL_CONFIG it got to control.env, and exits with the code in
// control.code (0 when that file is missing).
// Header-only so that each test binary of this folder gets exactly what it uses.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "conf/conf.h"
#include "conf/conf_handle.h"
#include "directory/config_cache.h"
#include "platform/directory.h"
#include "platform/exception.h"
#include "platform/exec.h"
#include "platform/host_config.h"
#include "service/orsa_async_plugin.h"
#include "service/orsa_iscsi_target_impl.h"
#include "storage/paths.h"
#include "tests/support/test_support.h"

namespace kel {
namespace testing {

namespace Kel = NukCtl::Orsa::IscsiTarget;
using HostCtl::Lib::Orsa::OrsaCtlException;
using HostCtl::Orsa::IscsiTarget::DefaultInfo;
using HostCtl::Orsa::IscsiTarget::LunInfo;
using HostCtl::Orsa::IscsiTarget::NamespaceCreateParam;
using HostCtl::Orsa::IscsiTarget::OrsaIscsiTarget;
using HostCtl::Orsa::IscsiTarget::TargetCreateParam;
using HostCtl::Orsa::IscsiTarget::TargetInfo;

inline constexpr const char* kHostUuid = "5e1f0c2a-9b7d-4e3f-8a6b-1c2d3e4f5a6b";
inline constexpr const char* kNotEnabled =
    "Orsa iSCSI Target Service is not enabled or the enable task is in progress.";
// Secrets that pass the CHAP rules; tests look for them in every output.
inline constexpr const char* kSecret = "Secret#1234Ab";
inline constexpr const char* kMutualSecret = "Mutual!5678Cd";

class ServiceEnv {
 public:
  explicit ServiceEnv(bool naa = true, const std::string& address = "127.0.0.31") {
    platform::HostConfig c = platform::EmbeddedHostConfig();
    c.stateDir = dir_.Join("state");
    c.datastorePath = dir_.Join("datastore");
    c.hostUuid = kHostUuid;
    c.hostName = "host-a";
    c.networkOverride = true;
    c.interfaces["nuk0"] = {address, ""};
    c.daemonControl = platform::ShellQuote(dir_.Join("control.sh"));
    c.options["ORSA-iSCSI"]["kelLunNaaEnable"] = naa ? 1 : 0;
    c.options["ORSA"]["KelStretchedCluster"] = 1;
    mkdir(c.stateDir.c_str(), 0700);
    mkdir(c.datastorePath.c_str(), 0700);
    WriteFile(dir_.Join("control.sh"),
              "#!/bin/sh\necho \"$*\" >> '" + dir_.Join("control.log") +
                  "'\necho \"$KEL_CONFIG\" > '" + dir_.Join("control.env") + "'\nexit $(cat '" +
                  dir_.Join("control.code") + "' 2>/dev/null || echo 0)\n",
              0700);
    config_ = c;
    platform::CloseDirectory();
    platform::SetCurrentHostConfig(c);
  }

  ~ServiceEnv() {
    try {
      Kel::ConfigCache::UnsubscribeLodex();
    } catch (const OrsaCtlException&) {
    }
    Kel::ConfigCache::CleanupCachedConfig();
    platform::CloseDirectory();
  }

  const platform::HostConfig& config() const { return config_; }
  std::string Join(const std::string& name) const { return dir_.Join(name); }
  std::string datastore() const { return config_.datastorePath; }
  std::string conf_path() const { return Kel::Util::GetConfFilePath(); }
  std::string ConfText() const { return ReadFile(conf_path()); }

  // Arguments of every daemon control run so far, one per element.
  std::vector<std::string> ControlRuns() const {
    std::vector<std::string> runs;
    std::ifstream in(dir_.Join("control.log"));
    for (std::string line; std::getline(in, line);) runs.push_back(line);
    return runs;
  }
  void ControlExitsWith(int code) { WriteFile(dir_.Join("control.code"), std::to_string(code)); }

  // The host configuration as a file for kelctl and other processes.
  std::string WriteHostConfigFile() const {
    const std::string path = dir_.Join("host.json");
    WriteFile(path, HostConfigJson(config_));
    return path;
  }

  static std::string HostConfigJson(const platform::HostConfig& c) {
    nlohmann::json j;
    j["host"] = {{"uuid", c.hostUuid}, {"name", c.hostName}, {"site", c.hostSite}};
    j["stateDir"] = c.stateDir;
    j["datastore"] = {{"path", c.datastorePath}};
    if (c.directoryBackend == "etcd") {
      j["directory"] = {{"backend", "etcd"},
                        {"endpoints", c.etcdEndpoints},
                        {"prefix", c.etcdPrefix},
                        {"leaseTtlSeconds", c.leaseTtlSeconds}};
    } else {
      j["directory"] = {{"backend", "embedded"}};
    }
    nlohmann::json nics = nlohmann::json::object();
    for (const auto& [name, nic] : c.interfaces) {
      nics[name] = {{"ipv4", nic.ipv4}, {"ipv6", nic.ipv6}};
    }
    j["network"] = {{"interfaces", nics}};
    j["daemon"] = {{"control", c.daemonControl}, {"tgtdControlPort", 0}};
    j["firewall"] = {{"backend", "none"}};
    j["options"] = c.options;
    j["productEnabled"] = true;
    return j.dump(2);
  }

  // Creates the namespace with the default interface "nuk0" and enables the service.
  static void Ready(OrsaIscsiTarget& service) {
    DefaultInfo defaults;
    defaults.networkInterface = "nuk0";
    service.CreateNamespace(NamespaceCreateParam(), defaults);
    service.SetIscsiTargetStatus(true, false);
  }

 private:
  TempDir dir_;
  platform::HostConfig config_;
};

// A service object made the way a host program gets one.
inline std::shared_ptr<OrsaIscsiTarget> NewService() {
  return HostCtl::OrsaAsyncPluginFactory::GetAsyncOrsaPlugin()->GetOrsaIscsiTarget();
}

// The message of the exception `fn` throws, or "" when it throws none.
template <class Fn>
std::string ErrorOf(Fn&& fn) {
  try {
    fn();
  } catch (const OrsaCtlException& e) {
    return e.GetMessage();
  }
  return "";
}

// The model of kel.conf, read under the shared lock.
struct ConfDeleter {
  void operator()(struct conf* c) const { conf_delete(c); }
};
using ConfPtr = std::unique_ptr<struct conf, ConfDeleter>;
inline ConfPtr ReadModel() {
  Kel::ConfHandle handle(Kel::ConfHandle::kShared);
  return ConfPtr(handle.ReleaseConf());
}

inline struct target* TargetByAlias(struct conf* c, const std::string& alias) {
  struct target* t;
  TAILQ_FOREACH(t, &c->conf_targets, t_next) {
    if (t->t_alias != nullptr && alias == t->t_alias) return t;
  }
  return nullptr;
}

inline std::string TargetOption(const struct target* t, const char* name) {
  const struct target_option* o = target_option_find(t, name);
  return o != nullptr && o->to_value != nullptr ? o->to_value : "";
}

inline TargetCreateParam NewTarget(const std::string& alias) {
  TargetCreateParam p;
  p.alias = alias;
  return p;
}

}  // namespace testing
}  // namespace kel
