#include "tests/keld/keld_test_helpers.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>

#include "keld/json_source.h"
#include "platform/clog.h"
#include "platform/directory.h"
#include "tests/support/test_host.h"

namespace kel {
namespace keld {
namespace testing {

std::string SparseFile(const std::string& path, uint64_t bytes) {
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 || ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
    if (fd >= 0) close(fd);
    throw std::runtime_error("cannot create " + path);
  }
  close(fd);
  return path;
}

DesiredTarget MakeTarget(const std::string& iqn, const std::vector<std::string>& paths,
                         const std::string& nic, int port) {
  DesiredTarget t;
  t.iqn = iqn;
  t.uuid = "uuid-" + iqn.substr(iqn.rfind(':') + 1);
  DesiredPortal p;
  p.interfaceName = nic;
  p.port = port;
  t.portals.push_back(p);
  for (size_t i = 0; i < paths.size(); ++i) {
    DesiredLun lun;
    lun.id = static_cast<int>(i);
    lun.path = paths[i];
    t.luns.push_back(lun);
  }
  return t;
}

ExclusiveDiskLock::ExclusiveDiskLock(const std::string& path) {
  fd_ = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd_ < 0) return;
  struct flock fl = {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  held_ = fcntl(fd_, F_OFD_SETLK, &fl) == 0;
}

ExclusiveDiskLock::~ExclusiveDiskLock() {
  if (fd_ >= 0) close(fd_);
}

KeldHost::KeldHost(const std::string& address, int tgtd_control_index) : address_(address) {
  platform::HostConfig config = kel::testing::MakeTestHostConfig(dir_.path(), "keld-host");
  config.networkOverride = true;
  config.interfaces["nuk0"] = {address, ""};
  config.tgtdControlPort = tgtd_control_index;
  state_dir_ = config.stateDir;
  kel::testing::WriteHostConfigFile(dir_.Join("host.json"), config);
  Write(DesiredState{});
}

KeldHost::~KeldHost() {
  Keld({"io_stop"});
  for (int pid : {KeldPid(), TgtdPid()}) {
    if (!kel::testing::ProcessAlive(pid)) continue;
    kill(pid, SIGKILL);
    for (int i = 0; i < 100 && kel::testing::ProcessAlive(pid); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
}

void KeldHost::Write(const DesiredState& state) {
  kel::testing::WriteFile(dir_.Join("desired.json"), DesiredStateToJson(state).dump(2));
}

kel::testing::CommandResult KeldHost::Keld(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {kel::testing::BinaryDir() + "/keld/keld",
                                   "--config",
                                   dir_.Join("host.json"),
                                   "--desired-state",
                                   dir_.Join("desired.json"),
                                   "++group=serad-tmp"};
  argv.insert(argv.end(), args.begin(), args.end());
  return kel::testing::RunCommand(argv, "", {}, std::chrono::milliseconds(120000));
}

ConfHostEnv::ConfHostEnv(const Nics& nics) {
  config_ = kel::testing::MakeTestHostConfig(dir_.path(), "keld-test");
  config_.networkOverride = true;
  config_.interfaces = nics;
  const std::string ns = platform::DirUuidToText(platform::RandomDirUuid());
  for (const std::string& d :
       {config_.stateDir, config_.datastorePath, config_.datastorePath + "/" + ns,
        config_.datastorePath + "/" + ns + "/etc"}) {
    mkdir(d.c_str(), 0700);
  }
  if (symlink(ns.c_str(), (config_.datastorePath + "/.iSCSI-CONFIG").c_str()) != 0) {
    throw std::runtime_error("cannot create the configuration namespace link");
  }
  platform::SetCurrentHostConfig(config_);
  platform::SetDirectoryForTest(nullptr);
  log_init(4);
}

ConfHostEnv::~ConfHostEnv() { platform::CloseDirectory(); }

void ConfHostEnv::WriteConf(const std::string& text) {
  kel::testing::WriteFile(config_.datastorePath + "/.iSCSI-CONFIG/etc/kel.conf", text, 0600);
}

void ConfHostEnv::RemoveNamespace() { unlink((config_.datastorePath + "/.iSCSI-CONFIG").c_str()); }

void ConfHostEnv::SetInterfaces(const Nics& nics) {
  config_.interfaces = nics;
  platform::SetCurrentHostConfig(config_);
}

void ConfHostEnv::SetOwner(const std::string& objectUuid, const std::string& hostUuid) {
  auto dir = platform::GetDirectory();
  platform::ObjectOwner current;
  NUK_ReturnStatus st = dir->GetObjectOwner(objectUuid, &current);
  int64_t revision = st == NUK_OK ? current.revision : 0;
  if (dir->CompareAndSwapObjectOwner(objectUuid, revision, hostUuid) != NUK_OK) {
    throw std::runtime_error("cannot set the owner of " + objectUuid);
  }
}

int KeldHost::KeldPid() const { return kel::testing::NumberInFile(state_dir_ + "/run/keld.pid"); }
int KeldHost::TgtdPid() const { return kel::testing::NumberInFile(state_dir_ + "/run/tgtd.pid"); }
int KeldHost::TgtdControlIndex() const {
  return kel::testing::NumberInFile(state_dir_ + "/run/tgtd.pid", 1);
}

}  // namespace testing
}  // namespace keld
}  // namespace kel
