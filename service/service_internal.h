// Helpers shared by the operation files of the service (private to service/).
#pragma once

#include <string>
#include <vector>

#include "service/orsa_iscsi_target.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {

namespace ServiceInternal {

extern const char* const kTag;  // "OrsaIscsiTargetImpl"

// The update parameters that leave a target as it is except for what the caller sets: the
// current IQN and uuid, every other keep-able field empty, the initiator list complete.
HostCtl::Orsa::IscsiTarget::TargetCreateParam KeepParamsOf(
    const HostCtl::Orsa::IscsiTarget::TargetInfo& target);

}  // namespace ServiceInternal

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
