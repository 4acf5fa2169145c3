// The ValidationEnv of this Linux build (host/validation_env.h): the host configuration's network
// interfaces and product switch, the datastore mount, the storage policy layer and kel.conf read
// through the configuration readers.
//
// Thread-safety: stateless; every method may run on any thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/validation_env.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

class LinuxValidationEnv : public ValidationEnv {
 public:
  std::vector<std::string> NicNames() override;
  bool ProductEnabled() override;
  std::string DatastorePath() override;
  bool DirExists(const std::string& path) override;
  bool PathExists(const std::string& path) override;
  void VerifyPolicy(const std::string& policyText) override;
  std::string DatastoreDefaultPolicy() override;
  HostCtl::Orsa::IscsiTarget::TargetInfo GetTargetInfoFromConfFile(
      const std::string& alias) override;
  std::vector<HostCtl::Orsa::IscsiTarget::LunInfo> GetLunsForTarget(
      const std::string& alias) override;
};

// Installs a LinuxValidationEnv unless an environment is installed already (tests install fakes
// first). Thread-safe; an installed environment is never removed here, so validation running on
// other threads meanwhile keeps working.
void InstallLinuxValidationEnv();

// True when something exists at `path` (stat follows links).
bool PathExists(const std::string& path);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
