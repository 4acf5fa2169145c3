// Host configuration: who this host is, where its state and the datastore live, which directory
// backend it uses, which network interfaces it has, how the target daemon is controlled, and the
// host integer options.
//
// Every program reads one host configuration: --config FILE, else $KEL_CONFIG, else
// /etc/kel/host.json; with none of them the embedded default applies (one host, state under
// $KEL_HOME or /var/lib/kel for root or ~/.local/share/kel, datastore in <state>/datastore, the
// embedded directory, the host's real interfaces, tgtd for serving).
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kel {
namespace platform {

struct HostConfig {
  struct Nic {
    std::string ipv4;
    std::string ipv6;
  };

  std::string hostUuid;  // 8-4-4-4-12 lower-case hex; generated once when the file leaves it empty
  std::string hostName;  // the hostname when the file leaves it empty
  std::string hostSite;
  std::string stateDir;
  std::string datastorePath;

  std::string directoryBackend = "embedded";  // "embedded" or "etcd"
  std::vector<std::string> etcdEndpoints;
  std::string etcdPrefix;
  // TLS towards https:// endpoints: the CA that signed etcd's certificate (empty: the system's),
  // and this host's client certificate and key (both or neither).
  struct Tls {
    std::string caFile;
    std::string certFile;
    std::string keyFile;
  } etcdTls;
  // etcd user and password (read from the file named in the configuration); empty: none.
  std::string etcdUser;
  std::string etcdPassword;
  int leaseTtlSeconds = 10;

  // When set, exactly these interfaces exist (name -> addresses); otherwise the host's real ones.
  bool networkOverride = false;
  std::map<std::string, Nic> interfaces;

  std::string daemonControl;  // program run as "<control> ++group=serad-tmp restart|reload|io_stop"
  int tgtdControlPort = 0;    // tgtd's -C; 0 lets keld choose
  std::string firewallBackend = "none";  // "none" or "nftables"

  // Host integer options: group ("ORSA-iSCSI", "ORSA") -> name -> value. Absent reads as 0.
  std::map<std::string, std::map<std::string, int64_t>> options;
  bool productEnabled = true;

  std::string sourcePath;  // the file it was read from; empty for the embedded default
};

using HostConfigPtr = std::shared_ptr<const HostConfig>;

// The embedded default for this process (state directory from $KEL_HOME or the user's defaults).
HostConfig EmbeddedHostConfig();

// Parses a host configuration file over the embedded default. Unknown keys and wrong types are
// refused with OrsaCtlException naming the key ("host configuration <file>: unknown key
// 'directory.foo'"). Fills in the generated host UUID (kept in <stateDir>/host-uuid) and the name.
HostConfig LoadHostConfigFile(const std::string& path);
// The same for the text of such a file (`path` is only named in messages). Also refuses a key
// given twice, numbers out of range and interface addresses that are not addresses.
HostConfig ParseHostConfigText(const std::string& path, const std::string& text);

// Resolves the precedence: `explicit_path` (from --config) if not empty, else $KEL_CONFIG, else
// /etc/kel/host.json if it exists, else the embedded default.
HostConfig LoadHostConfig(const std::string& explicit_path);

// Completes a configuration: generates and keeps the host UUID, fills the host name.
void FinishHostConfig(HostConfig& config);

// The configuration in use. The first call without SetCurrentHostConfig loads with
// LoadHostConfig(""). Thread-safe; the returned object never changes.
HostConfigPtr CurrentHostConfig();
void SetCurrentHostConfig(HostConfig config);

// Host integer option, 0 when absent.
int64_t HostOption(const std::string& group, const std::string& name);

}  // namespace platform
}  // namespace kel
