// Where the service's files live on the datastore.
//
//   <datastore>/.iSCSI-CONFIG            the configuration namespace (a link to <datastore>/<uuid>)
//   <datastore>/.iSCSI-CONFIG/etc/       holds kel.conf
//   <datastore>/.iSCSI-CONFIG/targets    one link per target: <target-uuid> -> ../../<target-uuid>
//   <datastore>/<target-uuid>/           a target's namespace, holding its LUN disks
#pragma once

#include <string>

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

extern const char* const kConfigNamespaceName;  // ".iSCSI-CONFIG"

std::string GetConfigNamespacePath();  // <datastore>/.iSCSI-CONFIG
std::string GetConfigDirPath();        // <datastore>/.iSCSI-CONFIG/etc/   (trailing slash kept)
std::string GetTargetsDirPath();       // <datastore>/.iSCSI-CONFIG/targets
std::string GetConfFilePath();         // <datastore>/.iSCSI-CONFIG/etc/kel.conf

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
