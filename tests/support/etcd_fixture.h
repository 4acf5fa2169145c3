// A real etcd for tests: one member on free loopback ports (client and peer) with its data in a
// temporary directory, started by the test and stopped by its own PID. Start-up is kept short
// (small heartbeat and election timeout, low snapshot count) and readiness is awaited on the
// /health endpoint.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/etcd_client.h"
#include "tests/support/test_host.h"
#include "tests/support/test_support.h"

namespace kel {
namespace testing {

class EtcdServer {
 public:
  EtcdServer();
  ~EtcdServer();  // stops the server
  EtcdServer(const EtcdServer&) = delete;
  EtcdServer& operator=(const EtcdServer&) = delete;

  // True when an etcd binary is installed.
  static bool Available();

  // Before Start(): serve https with `certFile`/`keyFile` and admit only clients whose certificate
  // `caFile` signed; the fixture's own checks present `client` (CA, certificate, key).
  void UseTls(const std::string& certFile, const std::string& keyFile, const std::string& caFile,
              const platform::EtcdSecurity& client);

  // Starts etcd and waits until /health answers true. `error` gets a reason on failure.
  bool Start(std::string* error = nullptr);
  // Stops it by PID (SIGTERM, then SIGKILL after a grace period). The data directory is kept.
  void Stop();
  // Stops and starts again on the same ports and data directory.
  bool Restart(std::string* error = nullptr);
  bool Running();

  std::string Endpoint() const;  // http://127.0.0.1:<client port> (https with UseTls)

  // Store revision now; compacts the history up to `revision` (physical compaction).
  int64_t CurrentRevision();
  bool Compact(int64_t revision);

 private:
  bool WaitHealthy(std::string* error);

  TempDir dir_;
  std::unique_ptr<ChildProcess> proc_;
  int clientPort_ = 0;
  int peerPort_ = 0;
  std::vector<std::string> tlsFlags_;
  platform::EtcdSecurity client_;
};

}  // namespace testing
}  // namespace kel
