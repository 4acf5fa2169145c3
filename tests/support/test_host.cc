#include "tests/support/test_host.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>

#include "conf/conf_handle.h"
#include "conf/paths.h"
#include "conf/writer.h"
#include "confedit/parser_edit.h"
#include "directory/config_cache.h"
#include "directory/config_entry.h"
#include "platform/clog.h"
#include "platform/directory.h"
#include "platform/exception.h"
#include "platform/exec.h"
#include "platform/settings.h"
#include "storage/namespace.h"

namespace kel {
namespace testing {

namespace IT = NukCtl::Orsa::IscsiTarget;

std::string ErrorOf(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException& e) {
    return e.GetMessage();
  }
  return "";
}

ConfPtr LoadConfText(const std::string& text, int mode, struct conf* oldconf) {
  TempDir dir;
  const std::string path = dir.Join("kel.conf");
  WriteFile(path, text, mode);
  const int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) return nullptr;
  log_init(4);
  ConfPtr conf;
  try {
    conf.reset(conf_new_from_file(fd, path.c_str(), oldconf));
  } catch (...) {
    close(fd);
    throw;
  }
  close(fd);
  return conf;
}

std::string WriteConfText(const struct conf* conf) { return IT::Parser::WriteConfToString(conf); }

ConfPtr ReadModel() {
  IT::ConfHandle handle(IT::ConfHandle::kShared);
  return ConfPtr(handle.ReleaseConf());
}

struct target* TargetByAlias(const struct conf* c, const std::string& alias) {
  struct target* t;
  TAILQ_FOREACH(t, &c->conf_targets, t_next) {
    if (t->t_alias != nullptr && alias == t->t_alias) return t;
  }
  return nullptr;
}

std::string TargetOption(const struct target* t, const char* name) {
  const struct target_option* o = target_option_find(t, name);
  return o != nullptr && o->to_value != nullptr ? o->to_value : "<none>";
}

std::string LunOption(const struct lun* l, const char* name) {
  const struct option* o = option_find(&l->l_options, name);
  return o != nullptr && o->o_value != nullptr ? o->o_value : "<none>";
}

::testing::AssertionResult JsonHasFields(const nlohmann::json& actual,
                                         const std::string& expected) {
  const nlohmann::json want = nlohmann::json::parse(expected);
  std::string diffs;
  for (const auto& [key, value] : want.items()) {
    if (!actual.contains(key)) {
      diffs += " " + key + " missing;";
    } else if (actual[key] != value) {
      diffs += " " + key + " is " + actual[key].dump() + ", not " + value.dump() + ";";
    }
  }
  if (diffs.empty()) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << diffs << " in " << actual.dump();
}

NUK_ReturnStatus UpdateAndWait(platform::Directory& directory, const platform::DirEntry& entry) {
  std::mutex mu;
  std::condition_variable cv;
  bool done = false;
  NUK_ReturnStatus result = NUK_PENDING;
  const NUK_ReturnStatus st = directory.Update(entry, [&](NUK_ReturnStatus s) {
    std::lock_guard<std::mutex> guard(mu);
    result = s;
    done = true;
    cv.notify_all();
  });
  if (st != NUK_OK) return st;
  std::unique_lock<std::mutex> lock(mu);
  cv.wait(lock, [&] { return done; });
  return result;
}

std::string TestUuid(int n) {
  char buf[40];
  snprintf(buf, sizeof(buf), "0a1b2c3d-4e5f-4a6b-8c7d-%012x", n);
  return buf;
}

std::string TestIqn(int n) { return "iqn.2024-01.com.example:target" + std::to_string(n); }

std::string ConfText(const ConfShape& shape) {
  std::string s = "generation " + std::to_string(shape.generation) + "\n";
  for (int g = 0; g < shape.groups; ++g) {
    s += "initiator-group g" + std::to_string(g) + " {\n";
    for (int i = 0; i < shape.initiatorsPerGroup; ++i) {
      s += "\t initiator iqn.1998-01.com.example:g" + std::to_string(g) + "-i" + std::to_string(i) +
           "\n";
    }
    s += "}\n";
  }
  s += "auth-group default {\n\t auth-type none\n}\n";
  s += "portal-group default {\n\t discovery-auth-group default\n\t listen nuk0:3260\n}\n";
  for (size_t t = 0; t < shape.targets.size(); ++t) {
    const std::string& alias = shape.targets[t];
    const std::string uuid = TestUuid(static_cast<int>(t) + 1);
    s += "target iqn.2024-01.com.example:" + alias + " {\n\talias \"" + alias +
         "\"\n\tportal-group default\n\tauth-group default\n\toption uuid " + uuid +
         "\n\toption owner-id " + uuid + "\n";
    for (int l = 0; l < shape.lunsPerTarget; ++l) {
      s += "\tlun " + std::to_string(l) + " {\n\t\tbackend pemo\n\t\tpath " + uuid + "/" +
           std::to_string(l) + ".pemo\n\t\tsize 2048\n\t}\n";
    }
    s += "}\n";
  }
  return s;
}

CommandResult RunKelctl(const std::vector<std::string>& args, const std::string& config,
                        const std::string& input) {
  std::vector<std::string> argv = {BinaryDir() + "/cli/kelctl"};
  if (!config.empty()) argv.insert(argv.end(), {"--config", config});
  argv.insert(argv.end(), args.begin(), args.end());
  return RunCommand(argv, input);
}

std::string LastLine(const std::string& text) {
  std::string t = text;
  while (!t.empty() && t.back() == '\n') t.pop_back();
  const size_t nl = t.rfind('\n');
  return nl == std::string::npos ? t : t.substr(nl + 1);
}

platform::MemberRecord Member(const std::string& uuid, const std::string& name,
                              const std::string& site) {
  platform::MemberRecord m;
  m.uuid = uuid;
  m.name = name;
  m.site = site;
  m.diskFormatVersion = platform::kDiskFormatVersion;
  return m;
}

platform::HostConfig MakeTestHostConfig(const std::string& root, const std::string& name,
                                        const std::string& endpoint, const std::string& prefix,
                                        int leaseTtl) {
  platform::HostConfig c;
  c.hostUuid = platform::DirUuidToText(platform::RandomDirUuid());
  c.hostName = name;
  c.stateDir = root + "/" + name;
  c.datastorePath = root + "/datastore";
  if (!endpoint.empty()) {
    c.directoryBackend = "etcd";
    c.etcdEndpoints = {endpoint};
    c.etcdPrefix = prefix.empty() ? "/kel/test" : prefix;
    c.leaseTtlSeconds = leaseTtl;
  }
  return c;
}

void WriteHostConfigFile(const std::string& path, const platform::HostConfig& c) {
  nlohmann::json doc;
  doc["host"] = {{"uuid", c.hostUuid}, {"name", c.hostName}, {"site", c.hostSite}};
  doc["stateDir"] = c.stateDir;
  doc["datastore"] = {{"path", c.datastorePath}};
  if (c.directoryBackend == "etcd") {
    doc["directory"] = {{"backend", "etcd"},
                        {"endpoints", c.etcdEndpoints},
                        {"prefix", c.etcdPrefix},
                        {"leaseTtlSeconds", c.leaseTtlSeconds}};
  } else {
    doc["directory"] = {{"backend", "embedded"}};
  }
  if (c.networkOverride) {
    nlohmann::json nics = nlohmann::json::object();
    for (const auto& [name, nic] : c.interfaces) {
      nics[name] = {{"ipv4", nic.ipv4}, {"ipv6", nic.ipv6}};
    }
    doc["network"] = {{"interfaces", nics}};
  }
  if (!c.daemonControl.empty() || c.tgtdControlPort != 0) {
    doc["daemon"] = {{"control", c.daemonControl}, {"tgtdControlPort", c.tgtdControlPort}};
  }
  doc["firewall"] = {{"backend", c.firewallBackend}};
  doc["options"] = c.options;
  doc["productEnabled"] = c.productEnabled;
  WriteFile(path, doc.dump(2), 0644);
}

TestHost::TestHost(const Options& o) {
  config_ = platform::EmbeddedHostConfig();
  config_.hostUuid = kHostUuid;
  config_.hostName = o.name;
  config_.hostSite = o.site;
  config_.stateDir = dir_.Join("state");
  config_.datastorePath = dir_.Join("datastore");
  if (!o.endpoint.empty()) {
    config_.directoryBackend = "etcd";
    config_.etcdEndpoints = {o.endpoint};
    config_.etcdPrefix = o.prefix;
    config_.leaseTtlSeconds = o.leaseTtl;
  }
  config_.networkOverride = true;
  config_.interfaces["nuk0"] = {o.address, ""};
  config_.interfaces["nuk1"] = {"127.0.0.12", ""};
  const std::string control = dir_.Join("daemon control");  // a blank to quote, on purpose
  WriteFile(control,
            "#!/bin/sh\necho \"$*\" >> '" + dir_.Join("control.log") +
                "'\necho \"$KEL_CONFIG\" > '" + dir_.Join("control.env") + "'\nexit $(cat '" +
                dir_.Join("control.code") + "' 2>/dev/null || echo 0)\n",
            0700);
  config_.daemonControl = platform::ShellQuote(control);
  mkdir(config_.stateDir.c_str(), 0700);
  mkdir(config_.datastorePath.c_str(), 0700);
  log_init(4);
  platform::CloseDirectory();
  IT::ConfigCache::CleanupCachedConfig();
  platform::SetCurrentHostConfig(config_);
}

TestHost::~TestHost() {
  try {
    IT::ConfigCache::UnsubscribeLodex();
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException&) {
  }
  IT::ConfigCache::CleanupCachedConfig();
  IT::ConfigCache::SetKelConfDirty(false);
  IT::ConfigCache::SetKelConfLodexEntryExists(false, true);
  platform::SetDirectoryForTest(nullptr);
  platform::CloseDirectory();
  gAppliedConfigGeneration.store(0);
}

void TestHost::Apply() { platform::SetCurrentHostConfig(config_); }

void TestHost::SetOption(const std::string& group, const std::string& name, int64_t value) {
  config_.options[group][name] = value;
  Apply();
}

std::string TestHost::conf_path() const { return IT::Util::GetConfFilePath(); }

void TestHost::MakeConfigNamespace() {
  IT::Util::CreateNamespaceDir("");
  IT::Util::CreateConfigDirs();
}

void TestHost::InitConf(const std::string& text) {
  MakeConfigNamespace();
  if (text.empty()) {
    IT::Parser::InitConf();
  } else {
    WriteFile(conf_path(), text, 0600);
  }
  platform::UpdateSettings([](platform::Settings& s) { s.serviceEnabled = true; });
}

std::vector<std::string> TestHost::ConfDirLeftovers() const {
  std::vector<std::string> names;
  DIR* d = opendir(IT::Util::GetConfigDirPath().c_str());
  while (struct dirent* e = d != nullptr ? readdir(d) : nullptr) {
    const std::string n = e->d_name;
    if (n != "." && n != ".." && n != "kel.conf" && n != ".kel.conf.intent") names.push_back(n);
  }
  if (d != nullptr) closedir(d);
  return names;
}

std::vector<std::string> TestHost::ControlRuns() const {
  std::vector<std::string> runs;
  std::ifstream in(dir_.Join("control.log"));
  for (std::string line; std::getline(in, line);) runs.push_back(line);
  return runs;
}

int TestHost::Reloads() const {
  int n = 0;
  for (const std::string& run : ControlRuns()) n += run.find("reload") != std::string::npos;
  return n;
}

void TestHost::ControlExitsWith(int code) {
  WriteFile(dir_.Join("control.code"), std::to_string(code) + "\n");
}

std::string TestHost::Snapshot() const {
  return Sha256OfFile(conf_path()) + "|" + TreeDigest(datastore());
}

uint64_t TestHost::Generation() const { return ReadModel()->conf_generation; }

uint64_t TestHost::Published() const {
  uint64_t gen = 0;
  return KeldGetConfigGenNumInLodex(&gen) == NUK_OK ? gen : 0;
}

std::string TestHost::WriteHostConfigFile() const {
  const std::string path = dir_.Join("host.json");
  testing::WriteHostConfigFile(path, config_);
  return path;
}

}  // namespace testing
}  // namespace kel
