// The host's integer options ("options" of the host configuration), read the way the service
// reads kernel options: a failed read is logged and reads as 0, so that an option never fails an
// operation (0 stands for "off").
#pragma once

#include <cstdint>
#include <string>

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

// Option `field` of group `component` (e.g. "ORSA-iSCSI", "kelNukNicCtlEnable"); 0 when absent or
// unreadable. Never throws.
int64_t KelGetTpiIntOpt(const std::string& component, const std::string& field);

// Whether option ("ORSA", field) is non-zero. Never throws.
bool IsKelFeatureEnabled(const std::string& field);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
