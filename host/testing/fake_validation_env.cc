#include "host/testing/fake_validation_env.h"

#include "platform/exception.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

using HostCtl::Lib::Orsa::OrsaCtlException;

std::vector<std::string> FakeValidationEnv::NicNames() { return nics; }

bool FakeValidationEnv::ProductEnabled() { return productEnabled; }

std::string FakeValidationEnv::DatastorePath() { return datastorePath; }

bool FakeValidationEnv::DirExists(const std::string& path) { return dirs.count(path) != 0; }

bool FakeValidationEnv::PathExists(const std::string& path) { return paths.count(path) != 0; }

void FakeValidationEnv::VerifyPolicy(const std::string& policyText) {
  verifiedPolicies.push_back(policyText);
  if (!policyError.empty()) {
    throw OrsaCtlException(policyError);
  }
}

std::string FakeValidationEnv::DatastoreDefaultPolicy() {
  ++defaultPolicyCalls;
  return defaultPolicy;
}

HostCtl::Orsa::IscsiTarget::TargetInfo FakeValidationEnv::GetTargetInfoFromConfFile(
    const std::string& alias) {
  ++targetLookups;
  auto it = targets.find(alias);
  if (it == targets.end()) {
    throw OrsaCtlException("Target " + alias + " not found");
  }
  return it->second;
}

std::vector<HostCtl::Orsa::IscsiTarget::LunInfo> FakeValidationEnv::GetLunsForTarget(
    const std::string& alias) {
  auto it = luns.find(alias);
  if (it == luns.end()) {
    throw OrsaCtlException("Target " + alias + " not found");
  }
  return it->second;
}

ScopedFakeValidationEnv::ScopedFakeValidationEnv()
    : env_(std::make_shared<FakeValidationEnv>()), previous_(SetValidationEnv(env_)) {}

ScopedFakeValidationEnv::~ScopedFakeValidationEnv() { SetValidationEnv(previous_); }

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
