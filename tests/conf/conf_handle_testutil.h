// A one-host environment with a kel.conf for ConfHandle tests: host configuration in a temporary
// directory, the configuration directory on its datastore and a first file at generation 1.
// Header-only so that it adds nothing to the other test binaries of this folder.
#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <set>
#include <string>

#include "platform/host_config.h"
#include "storage/paths.h"
#include "tests/support/test_support.h"

namespace kel {
namespace testing {

class ConfEnv {
 public:
  explicit ConfEnv(const std::string& initial = "generation 1\n") {
    platform::HostConfig c = platform::EmbeddedHostConfig();
    c.stateDir = dir_.Join("state");
    c.datastorePath = dir_.Join("datastore");
    c.hostUuid = "11111111-2222-3333-4444-555555555555";
    c.hostName = "h1";
    c.networkOverride = true;
    c.interfaces["nuk0"] = {"127.0.0.11", ""};
    platform::SetCurrentHostConfig(c);
    for (const std::string& d : {c.datastorePath, c.datastorePath + "/.iSCSI-CONFIG",
                                 c.datastorePath + "/.iSCSI-CONFIG/etc"}) {
      mkdir(d.c_str(), 0700);
    }
    conf_path_ = NukCtl::Orsa::IscsiTarget::Util::GetConfFilePath();
    if (!initial.empty()) WriteFile(conf_path_, initial, 0600);
  }

  const std::string& conf_path() const { return conf_path_; }
  std::string conf_dir() const { return conf_path_.substr(0, conf_path_.find_last_of('/')); }
  std::string state_dir() const { return dir_.Join("state"); }

  // Names in the configuration directory other than kel.conf and its permanent intent file
  // (leftover temporary files).
  std::set<std::string> Leftovers() const {
    std::set<std::string> names;
    DIR* d = opendir(conf_dir().c_str());
    if (d == nullptr) return names;
    while (struct dirent* e = readdir(d)) {
      std::string n = e->d_name;
      if (n != "." && n != ".." && n != "kel.conf" && n != ".kel.conf.intent") names.insert(n);
    }
    closedir(d);
    return names;
  }

 private:
  TempDir dir_;
  std::string conf_path_;
};

}  // namespace testing
}  // namespace kel
