// A one-host environment for the Parser transactions: host configuration in a temporary directory,
// the configuration namespace and its directories on a temporary datastore, a first kel.conf
// (InitConf), the embedded directory under the state directory, and a recording double of the
// daemon control program so that the change action's reload is seen. Header-only so that it adds
// nothing to the other test binaries of this folder.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "conf/conf.h"
#include "conf/conf_handle.h"
#include "conf/parser_edit.h"
#include "directory/config_cache.h"
#include "directory/config_entry.h"
#include "platform/directory.h"
#include "platform/exception.h"
#include "platform/exec.h"
#include "platform/host_config.h"
#include "platform/settings.h"
#include "storage/namespace.h"
#include "storage/paths.h"
#include "tests/support/test_support.h"

namespace kel {
namespace testing {

namespace IT = NukCtl::Orsa::IscsiTarget;
using HostCtl::Lib::Orsa::OrsaCtlException;
using HostCtl::Orsa::IscsiTarget::TargetCreateParam;

struct ConfFree {
  void operator()(struct conf* c) const { conf_delete(c); }
};
using ConfPtr = std::unique_ptr<struct conf, ConfFree>;

// The message `fn` throws, or "" when it does not throw.
inline std::string ErrorOf(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const OrsaCtlException& e) {
    return e.GetMessage();
  }
  return "";
}

class ParserEnv {
 public:
  ParserEnv() {
    platform::HostConfig c = platform::EmbeddedHostConfig();
    c.stateDir = dir_.Join("state");
    c.datastorePath = dir_.Join("datastore");
    c.hostUuid = "11111111-2222-3333-4444-555555555555";
    c.hostName = "h1";
    c.directoryBackend = "embedded";
    c.networkOverride = true;
    c.interfaces["nuk0"] = {"127.0.0.11", ""};
    c.interfaces["nuk1"] = {"127.0.0.12", ""};
    mkdir(c.stateDir.c_str(), 0700);
    mkdir(c.datastorePath.c_str(), 0700);
    record_ = c.stateDir + "/control.log";
    code_file_ = c.stateDir + "/control.code";
    const std::string script = c.stateDir + "/control";
    WriteFile(script,
              "#!/bin/sh\necho \"$*\" >> '" + record_ + "'\nexit $(cat '" + code_file_ +
                  "' 2>/dev/null || echo 0)\n",
              0700);
    c.daemonControl = platform::ShellQuote(script);
    platform::SetCurrentHostConfig(c);
    // The change action reloads the daemon only where the service is enabled.
    platform::UpdateSettings([](platform::Settings& s) { s.serviceEnabled = true; });
    platform::CloseDirectory();
    IT::ConfigCache::CleanupCachedConfig();
    IT::Util::CreateNamespaceDir("");
    IT::Util::CreateConfigDirs();
    IT::Parser::InitConf();
  }

  ~ParserEnv() {
    IT::ConfigCache::CleanupCachedConfig();
    platform::CloseDirectory();
  }

  std::string conf_path() const { return IT::Util::GetConfFilePath(); }
  std::string datastore() const { return dir_.Join("datastore"); }

  // Fingerprint of everything a refused edit must leave alone: kel.conf and the datastore.
  std::string Snapshot() const { return Sha256OfFile(conf_path()) + "/" + TreeDigest(datastore()); }

  // The file as the grammar reads it back.
  ConfPtr Read() const {
    IT::ConfHandle handle(IT::ConfHandle::kShared);
    return ConfPtr(handle.ReleaseConf());
  }
  uint64_t Generation() const { return Read()->conf_generation; }

  // Generation published in the directory (0 when none is).
  uint64_t Published() const {
    uint64_t gen = 0;
    return KeldGetConfigGenNumInLodex(&gen) == NUK_OK ? gen : 0;
  }

  // Daemon reloads requested so far.
  int Reloads() const {
    if (!PathExists(record_)) return 0;
    const std::string log = ReadFile(record_);
    int n = 0;
    for (size_t pos = log.find("reload"); pos != std::string::npos;
         pos = log.find("reload", pos + 1)) {
      ++n;
    }
    return n;
  }
  void DaemonExitsWith(int code) { WriteFile(code_file_, std::to_string(code) + "\n"); }

  // Changes the file directly through the model and the writer (one write): fast set-up of files
  // at the cluster limits.
  void Edit(const std::function<void(struct conf*)>& change) {
    IT::ConfHandle handle(IT::ConfHandle::kExclusive);
    change(handle.GetConf());
    handle.WriteConfFile();
    IT::ConfigCache::CleanupCachedConfig();
  }

 private:
  TempDir dir_;
  std::string record_;
  std::string code_file_;
};

// 8-4-4-4-12 text unique per `n` (a target's namespace uuid in tests).
inline std::string TestUuid(int n) {
  char buf[40];
  snprintf(buf, sizeof(buf), "0a1b2c3d-4e5f-4a6b-8c7d-%012x", n);
  return buf;
}

inline std::string TestIqn(int n) { return "iqn.2024-01.com.example:target" + std::to_string(n); }

// A creation request for target number `n` with everything optional left empty.
inline TargetCreateParam TargetParam(int n) {
  TargetCreateParam p;
  p.alias = "t" + std::to_string(n);
  p.iqn = TestIqn(n);
  p.uuid = TestUuid(n);
  return p;
}

// A target as the service writes it, added straight into a model.
inline struct target* AddModelTarget(struct conf* c, int n) {
  struct target* t = target_new(c, TestIqn(n).c_str());
  t->t_alias = checked_strdup(("t" + std::to_string(n)).c_str());
  target_option_new(t, "uuid", TestUuid(n).c_str());
  target_option_new(t, "owner-id", TestUuid(n).c_str());
  t->t_auth_group = auth_group_find(c, "default");
  port_new(c, t, portal_group_find(c, "default"));
  return t;
}

inline struct target* ModelTarget(const struct conf* c, const std::string& alias) {
  struct target* t;
  TAILQ_FOREACH(t, &c->conf_targets, t_next) {
    if (t->t_alias != nullptr && alias == t->t_alias) return t;
  }
  return nullptr;
}

inline std::string TargetOpt(const struct target* t, const char* name) {
  const struct target_option* to = target_option_find(t, name);
  return to != nullptr ? to->to_value : "<none>";
}

inline std::string LunOpt(const struct lun* l, const char* name) {
  const struct option* o = option_find(&l->l_options, name);
  return o != nullptr ? o->o_value : "<none>";
}

inline std::string PortalGroupOf(const struct target* t) {
  const struct port* p = keld_target_to_port(t);
  return p != nullptr && p->p_portal_group != nullptr ? p->p_portal_group->pg_name : "<none>";
}

inline std::string AuthGroupOf(const struct target* t) {
  return t->t_auth_group != nullptr && t->t_auth_group->ag_name != nullptr
             ? t->t_auth_group->ag_name
             : "<none>";
}

}  // namespace testing
}  // namespace kel
