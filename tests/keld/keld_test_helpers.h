// Helpers shared by keld's tests.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "keld/state.h"
#include "platform/host_config.h"
#include "tests/support/test_support.h"

namespace kel {
namespace keld {
namespace testing {

// Creates (or resizes) a sparse file of `bytes` bytes; returns its path.
std::string SparseFile(const std::string& path, uint64_t bytes);

// A desired target on interface `nic` port `port` with one LUN per path (ids 0, 1, ...).
DesiredTarget MakeTarget(const std::string& iqn, const std::vector<std::string>& paths,
                         const std::string& nic = "nuk0", int port = 3260);

// An exclusive OFD lock held on a file for the life of the object (a LUN removal in progress).
class ExclusiveDiskLock {
 public:
  explicit ExclusiveDiskLock(const std::string& path);
  ~ExclusiveDiskLock();
  ExclusiveDiskLock(const ExclusiveDiskLock&) = delete;
  ExclusiveDiskLock& operator=(const ExclusiveDiskLock&) = delete;
  bool held() const { return held_; }

 private:
  int fd_ = -1;
  bool held_ = false;
};

// One host running the real keld program (built next to the tests) with its own state directory,
// a host configuration whose interface "nuk0" has `address`, and a desired-state JSON file.
// The destructor runs io_stop and then stops by PID whatever is left (keld, tgtd).
class KeldHost {
 public:
  explicit KeldHost(const std::string& address, int tgtd_control_index = 0);
  ~KeldHost();
  KeldHost(const KeldHost&) = delete;
  KeldHost& operator=(const KeldHost&) = delete;

  const std::string& address() const { return address_; }
  const std::string& stateDir() const { return state_dir_; }
  std::string Path(const std::string& name) const { return dir_.Join(name); }

  void Write(const DesiredState& state);
  // Runs `keld --config <host> --desired-state <file> ++group=serad-tmp <args...>`.
  kel::testing::CommandResult Keld(const std::vector<std::string>& args);
  // PIDs from the pid files (-1 when absent).
  int KeldPid() const;
  int TgtdPid() const;
  int TgtdControlIndex() const;

 private:
  kel::testing::TempDir dir_;
  std::string address_;
  std::string state_dir_;
};

// This process as a host with kel.conf, for the kel.conf source and the directory resolver: a
// host configuration in a temporary directory (embedded directory, exactly the interfaces given),
// a datastore with the configuration namespace (".iSCSI-CONFIG" -> <uuid>/etc), and the process's
// directory opened on it. The destructor closes that directory.
class ConfHostEnv {
 public:
  using Nics = std::map<std::string, platform::HostConfig::Nic>;
  explicit ConfHostEnv(const Nics& nics);
  ~ConfHostEnv();
  ConfHostEnv(const ConfHostEnv&) = delete;
  ConfHostEnv& operator=(const ConfHostEnv&) = delete;

  // Replaces kel.conf (mode 0600) / removes the configuration namespace link.
  void WriteConf(const std::string& text);
  void RemoveNamespace();
  // Installs the same host with other interfaces (the directory stays open).
  void SetInterfaces(const Nics& nics);
  // Records `hostUuid` as the owner of `objectUuid` whatever it was.
  void SetOwner(const std::string& objectUuid, const std::string& hostUuid);

  const platform::HostConfig& config() const { return config_; }
  const std::string& selfUuid() const { return config_.hostUuid; }
  std::string datastore() const { return config_.datastorePath; }

 private:
  kel::testing::TempDir dir_;
  platform::HostConfig config_;
};

}  // namespace testing
}  // namespace keld
}  // namespace kel
