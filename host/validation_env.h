// What parameter validation needs to know about the host, behind one small interface.
//
// The checks in host/validation.h are stateless, but a few of them look at the host (its network
// interface names, whether the product is enabled, the configuration namespace's directories),
// at the storage policy layer, or at the current configuration file. They reach all of that
// through the ValidationEnv installed for the process, so that every check can be tested with a
// fake (host/testing/fake_validation_env.h). The Linux implementation lives with the platform
// wiring of the service.
//
// Thread-safety: SetValidationEnv/GetValidationEnv may be called from any thread; an installed
// environment must itself be safe to call from several threads at once.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "records/records.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

class ValidationEnv {
 public:
  virtual ~ValidationEnv() = default;

  // The host's network interface names that may carry iSCSI portals, in the platform's order.
  virtual std::vector<std::string> NicNames() = 0;

  // Whether the product is enabled on this host (cluster information of the platform).
  virtual bool ProductEnabled() = 0;

  // The datastore's mount path on this host, without a trailing slash.
  virtual std::string DatastorePath() = 0;

  // True when `path` names an existing directory (a symbolic link to one counts).
  virtual bool DirExists(const std::string& path) = 0;

  // True when something exists at `path` (any file type).
  virtual bool PathExists(const std::string& path) = 0;

  // Checks a storage policy text; throws OrsaCtlException with the policy layer's message when
  // the text is malformed or names an unknown rule. An empty policy always passes.
  virtual void VerifyPolicy(const std::string& policyText) = 0;

  // The datastore's default storage policy in text form. Throws OrsaCtlException on failure.
  virtual std::string DatastoreDefaultPolicy() = 0;

  // The record of the target with this alias, read from kel.conf. Throws OrsaCtlException when
  // the file cannot be read or the target does not exist.
  virtual HostCtl::Orsa::IscsiTarget::TargetInfo GetTargetInfoFromConfFile(
      const std::string& alias) = 0;

  // The LUNs of the target with this alias, read from kel.conf, with absolute backing paths.
  // Throws OrsaCtlException when the file cannot be read or the target does not exist.
  virtual std::vector<HostCtl::Orsa::IscsiTarget::LunInfo> GetLunsForTarget(
      const std::string& alias) = 0;
};

// Installs `env` for the whole process (nullptr uninstalls) and returns the previous one.
std::shared_ptr<ValidationEnv> SetValidationEnv(std::shared_ptr<ValidationEnv> env);

// The installed environment. Throws OrsaCtlException "Validation environment is not installed"
// when none was set.
std::shared_ptr<ValidationEnv> GetValidationEnv();

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
