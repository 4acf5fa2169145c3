#include "conf/paths.h"

#include "platform/datastore.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

const char* const kConfigNamespaceName = ".iSCSI-CONFIG";

std::string GetConfigNamespacePath() {
  return kel::platform::DatastorePath() + "/" + kConfigNamespaceName;
}

std::string GetConfigDirPath() { return GetConfigNamespacePath() + "/etc/"; }

std::string GetTargetsDirPath() { return GetConfigNamespacePath() + "/targets"; }

std::string GetConfFilePath() { return GetConfigDirPath() + "kel.conf"; }

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
