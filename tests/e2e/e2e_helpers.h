// End-to-end helpers: one host driven by the built kelctl, with the built keld as its daemon
// control program and tgtd serving on a loopback address of its own, and libiscsi as the
// initiator.
#pragma once

#include <iscsi/iscsi.h>

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "platform/host_config.h"
#include "tests/support/test_support.h"

namespace kel {
namespace e2e {

using kel::testing::CommandResult;
using kel::testing::Eventually;
using kel::testing::ProcessAlive;
// How long a liveness wait may take (keld following a change, a daemon going away).
constexpr std::chrono::seconds kLiveness{30};

// A host configuration in a temporary directory: a state directory of its own, a datastore of
// its own unless `datastore` is given, the embedded directory unless etcd's `endpoint` is given,
// exactly one interface "nuk0" with `address`, daemon.control = the built keld, and a tgtd control
// index of its own. The destructor disables the service and then stops, by their PIDs, a keld or
// tgtd that would still run.
class KelHost {
 public:
  struct Setup {
    std::string name = "e2e-host";
    std::string datastore;
    std::string endpoint;
  };
  explicit KelHost(const std::string& address) : KelHost(address, Setup()) {}
  KelHost(const std::string& address, const Setup& setup);
  ~KelHost();
  KelHost(const KelHost&) = delete;
  KelHost& operator=(const KelHost&) = delete;

  // kelctl --config <host> <args...>. `config` names another configuration file of this host.
  CommandResult Kelctl(const std::vector<std::string>& args, const std::string& config = "") const;
  // kelctl --json ...; fails the test (and returns null) unless it exits 0 with JSON.
  nlohmann::json KelctlJson(const std::vector<std::string>& args) const;
  // keld --config <host> ++group=serad-tmp <args...>, as the service runs it.
  CommandResult Keld(const std::vector<std::string>& args) const;
  // A second configuration file of the same host whose daemon control does nothing: changes
  // made through it reach keld only by keld's own following of the cluster.
  std::string QuietConfig() const;

  const std::string& address() const { return config_.interfaces.at("nuk0").ipv4; }
  int port() const { return port_; }
  std::string portal() const { return address() + ":" + std::to_string(port_); }
  const platform::HostConfig& config() const { return config_; }
  const std::string& hostUuid() const { return config_.hostUuid; }
  std::string keldLog() const;

  // PIDs from the pid files (-1 when absent).
  int KeldPid() const;
  int TgtdPid() const;

 private:
  std::string WriteConfig(const std::string& name, const std::string& control) const;

  kel::testing::TempDir dir_;
  platform::HostConfig config_;
  int port_ = 0;
  std::string configPath_;
};

// libiscsi's tools, each bounded to 60 s.
class Initiator {
 public:
  explicit Initiator(std::string portal) : portal_(std::move(portal)) {}

  CommandResult Tool(const std::vector<std::string>& args) const;
  // Target names that discovery returns to `initiator`.
  std::vector<std::string> Discover(const std::string& initiator) const;
  bool Lists(const std::string& iqn, const std::string& initiator) const;
  // SCSI LUNs that REPORT LUNS shows for `iqn` (through iscsi-ls -s), controller included.
  std::vector<int> Luns(const std::string& iqn, const std::string& initiator) const;
  // "iscsi://[chap@]portal/iqn/lun".
  std::string Url(const std::string& iqn, int scsi_lun, const std::string& chap = "") const;
  // Blocks and block size from READ CAPACITY(16), or false with the tool's output in `*why`.
  bool Capacity(const std::string& url, const std::string& initiator, uint64_t* blocks,
                uint32_t* block_size, std::string* why = nullptr) const;
  // Bytes from READ CAPACITY(16), or -1.
  long long Bytes(const std::string& url, const std::string& initiator,
                  std::string* why = nullptr) const;

 private:
  std::string portal_;
};

// A libiscsi session for block I/O; every call is bounded by the library's timeout.
class Session {
 public:
  Session(const std::string& url, const std::string& initiator);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  bool connected() const { return connected_; }
  std::string error() const;
  bool Write(uint64_t lba, const std::vector<unsigned char>& data);
  std::vector<unsigned char> Read(uint64_t lba, uint32_t bytes);
  // The first NAA designator of the LUN's device identification page, as upper-case hex.
  std::string NaaHex();

 private:
  iscsi_context* ctx_ = nullptr;
  iscsi_url* url_ = nullptr;
  bool connected_ = false;
};

}  // namespace e2e
}  // namespace kel
