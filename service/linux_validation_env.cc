#include "service/linux_validation_env.h"

#include <sys/stat.h>

#include <mutex>

#include "confedit/parser_edit.h"
#include "platform/datastore.h"
#include "platform/exception.h"
#include "platform/host_config.h"
#include "platform/network.h"
#include "storage/policy_ops.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

using HostCtl::Orsa::IscsiTarget::LunInfo;
using HostCtl::Orsa::IscsiTarget::TargetInfo;

std::vector<std::string> LinuxValidationEnv::NicNames() {
  return NukCtl::Network::NukOSNicApi::GetNukOSNicNames();
}

bool LinuxValidationEnv::ProductEnabled() {
  return kel::platform::CurrentHostConfig()->productEnabled;
}

std::string LinuxValidationEnv::DatastorePath() {
  std::string path = kel::platform::DatastorePath();
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

bool LinuxValidationEnv::DirExists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool LinuxValidationEnv::PathExists(const std::string& path) { return Util::PathExists(path); }

void LinuxValidationEnv::VerifyPolicy(const std::string& policyText) {
  Util::VerifyPolicy(policyText);
}

std::string LinuxValidationEnv::DatastoreDefaultPolicy() { return GetDatastoreDefaultPolicy(); }

TargetInfo LinuxValidationEnv::GetTargetInfoFromConfFile(const std::string& alias) {
  TargetInfo info;
  Util::GetTargetInfoFromConfFile(alias, info);
  return info;
}

std::vector<LunInfo> LinuxValidationEnv::GetLunsForTarget(const std::string& alias) {
  std::vector<LunInfo> luns;
  Parser::GetLunsForTarget(alias, luns);
  return luns;
}

void InstallLinuxValidationEnv() {
  static std::mutex installLock;
  std::lock_guard<std::mutex> guard(installLock);
  try {
    GetValidationEnv();
    return;  // one is installed already (a test's fake, or ours)
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException&) {
  }
  SetValidationEnv(std::make_shared<LinuxValidationEnv>());
}

bool PathExists(const std::string& path) {
  struct stat st;
  return !path.empty() && stat(path.c_str(), &st) == 0;
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
