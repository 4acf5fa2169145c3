// A host for the directory glue tests: host configuration in a temporary directory, a datastore
// with the configuration namespace (".iSCSI-CONFIG" -> <uuid>) and kel.conf, and the process's
// directory opened on it (embedded by default). Header-only so that it adds nothing to the other
// test binaries of this folder.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "conf/conf_backup.h"
#include "directory/config_cache.h"
#include "directory/config_entry.h"
#include "platform/clog.h"
#include "platform/directory.h"
#include "platform/host_config.h"
#include "storage/paths.h"
#include "tests/support/etcd_fixture.h"
#include "tests/support/test_support.h"

namespace kel {
namespace testing {

class DirTestEnv {
 public:
  // `endpoint` empty: the embedded directory.
  explicit DirTestEnv(const std::string& endpoint = "", const std::string& prefix = "/kel/env",
                      int leaseTtl = 10) {
    config_ = MakeTestHostConfig(dir_.path(), "host-a", endpoint, prefix, leaseTtl);
    config_.networkOverride = true;
    config_.interfaces["nuk0"] = {"127.0.0.11", ""};
    namespaceUuid_ = platform::DirUuidToText(platform::RandomDirUuid());
    std::string ds = config_.datastorePath;
    for (const std::string& d : {ds, ds + "/" + namespaceUuid_, ds + "/" + namespaceUuid_ + "/etc",
                                 ds + "/" + namespaceUuid_ + "/targets"}) {
      mkdir(d.c_str(), 0700);
    }
    symlink(namespaceUuid_.c_str(), (ds + "/.iSCSI-CONFIG").c_str());
    Install(config_);
    log_init(4);
  }

  ~DirTestEnv() {
    NukCtl::Orsa::IscsiTarget::ConfigCache::UnsubscribeLodex();
    NukCtl::Orsa::IscsiTarget::ConfigCache::CleanupCachedConfig();
    NukCtl::Orsa::IscsiTarget::ConfigCache::SetKelConfDirty(false);
    NukCtl::Orsa::IscsiTarget::ConfigCache::SetKelConfLodexEntryExists(false, true);
    platform::SetDirectoryForTest(nullptr);
    gAppliedConfigGeneration.store(0);
  }

  // Makes `config` the process's host configuration and opens a fresh directory for it.
  static void Install(const platform::HostConfig& config) {
    platform::SetCurrentHostConfig(config);
    platform::SetDirectoryForTest(nullptr);
  }

  // A kel.conf at `generation` with one target per alias (no LUNs).
  static std::string ConfText(uint64_t generation, const std::vector<std::string>& aliases) {
    std::string text = "generation " + std::to_string(generation) + "\n";
    text +=
        "auth-group default {\n\tauth-type none\n}\n"
        "portal-group default {\n\tdiscovery-auth-group default\n\tlisten nuk0:3260\n}\n";
    for (size_t i = 0; i < aliases.size(); ++i) {
      char uuid[40];
      snprintf(uuid, sizeof(uuid), "11111111-0000-4000-8000-%012zu", i + 1);
      text += std::string("auth-group ") + uuid + " {\n\tauth-type none\n}\n";
      text += "target iqn.2024-01.com.example:" + aliases[i] + " {\n\talias \"" + aliases[i] +
              "\"\n\tportal-group default\n\tauth-group " + uuid + "\n\toption uuid " + uuid +
              "\n\toption owner-id " + uuid + "\n}\n";
    }
    return text;
  }

  void WriteConf(uint64_t generation, const std::vector<std::string>& aliases) {
    WriteFile(NukCtl::Orsa::IscsiTarget::Util::GetConfFilePath(), ConfText(generation, aliases),
              0600);
  }

  const platform::HostConfig& config() const { return config_; }
  platform::HostConfig& mutable_config() { return config_; }
  const std::string& namespace_uuid() const { return namespaceUuid_; }
  const TempDir& dir() const { return dir_; }

 private:
  TempDir dir_;
  platform::HostConfig config_;
  std::string namespaceUuid_;
};

}  // namespace testing
}  // namespace kel
