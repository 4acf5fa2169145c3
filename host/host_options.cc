#include "host/host_options.h"

#include "platform/exception.h"
#include "platform/host_controls.h"
#include "platform/log.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

int64_t KelGetTpiIntOpt(const std::string& component, const std::string& field) {
  try {
    NukCtl::Util::Sysinfo info(NukCtl::Util::Sysinfo::kSysinfoIntOptions);
    info.AddInstancePath(component);
    info.AddInstancePath(field);
    return info.GetIntValue();
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException& e) {
    LogWarning("%s: Failed to get component: %s, field: %s: %s", "Util", component.c_str(),
               field.c_str(), e.GetMessage().c_str());
    return 0;
  } catch (const std::exception& e) {
    LogWarning("%s: Failed to get component: %s, field: %s: %s", "Util", component.c_str(),
               field.c_str(), e.what());
    return 0;
  }
}

bool IsKelFeatureEnabled(const std::string& field) {
  bool enabled = KelGetTpiIntOpt("ORSA", field) != 0;
  LogInfo("%s: Retrieve Kel Feature (%s): %s.", "Util", field.c_str(),
          enabled ? "Enabled" : "Disabled");
  return enabled;
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
