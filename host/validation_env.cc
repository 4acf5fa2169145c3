#include "host/validation_env.h"

#include <mutex>
#include <utility>

#include "platform/exception.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

namespace {

std::mutex gValidationEnvLock;
std::shared_ptr<ValidationEnv> gValidationEnv;  // guarded by gValidationEnvLock

}  // namespace

std::shared_ptr<ValidationEnv> SetValidationEnv(std::shared_ptr<ValidationEnv> env) {
  std::lock_guard<std::mutex> guard(gValidationEnvLock);
  std::swap(gValidationEnv, env);
  return env;
}

std::shared_ptr<ValidationEnv> GetValidationEnv() {
  std::lock_guard<std::mutex> guard(gValidationEnvLock);
  if (!gValidationEnv) {
    throw HostCtl::Lib::Orsa::OrsaCtlException(
        "Validation environment is not installed: the service must call Util::SetValidationEnv "
        "before validating host-dependent parameters");
  }
  return gValidationEnv;
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
