// In-memory ValidationEnv for tests: every answer is a public field that the test sets.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "host/validation_env.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

class FakeValidationEnv : public ValidationEnv {
 public:
  std::vector<std::string> NicNames() override;
  bool ProductEnabled() override;
  std::string DatastorePath() override;
  bool DirExists(const std::string& path) override;
  bool PathExists(const std::string& path) override;
  // Throws `policyError` when it is set; records every verified text in `verifiedPolicies`.
  void VerifyPolicy(const std::string& policyText) override;
  std::string DatastoreDefaultPolicy() override;
  // Throws "Target <alias> not found" for an alias that is not in `targets`.
  HostCtl::Orsa::IscsiTarget::TargetInfo GetTargetInfoFromConfFile(
      const std::string& alias) override;
  std::vector<HostCtl::Orsa::IscsiTarget::LunInfo> GetLunsForTarget(
      const std::string& alias) override;

  std::vector<std::string> nics{"nuk0", "nuk1"};
  bool productEnabled = true;
  std::string datastorePath = "/ds";
  std::set<std::string> dirs;   // answers DirExists
  std::set<std::string> paths;  // answers PathExists
  std::string policyError;      // when not empty, VerifyPolicy throws it
  std::string defaultPolicy = "((\"proportionalCapacity\" i0))";
  std::map<std::string, HostCtl::Orsa::IscsiTarget::TargetInfo> targets;         // by alias
  std::map<std::string, std::vector<HostCtl::Orsa::IscsiTarget::LunInfo>> luns;  // by alias

  std::vector<std::string> verifiedPolicies;
  int defaultPolicyCalls = 0;
  int targetLookups = 0;
};

// Installs a fresh FakeValidationEnv for the life of the object and restores the previous one.
class ScopedFakeValidationEnv {
 public:
  ScopedFakeValidationEnv();
  ~ScopedFakeValidationEnv();
  ScopedFakeValidationEnv(const ScopedFakeValidationEnv&) = delete;
  ScopedFakeValidationEnv& operator=(const ScopedFakeValidationEnv&) = delete;

  FakeValidationEnv& env() { return *env_; }
  FakeValidationEnv* operator->() { return env_.get(); }

 private:
  std::shared_ptr<FakeValidationEnv> env_;
  std::shared_ptr<ValidationEnv> previous_;
};

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
