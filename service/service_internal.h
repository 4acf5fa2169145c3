// Helpers shared by the operation files of the service (private to service/).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "service/orsa_iscsi_target.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {

class ConfHandle;

namespace ServiceInternal {

extern const char* const kTag;  // "OrsaIscsiTargetImpl"

// Writes the handle's model with generation + 1 and publishes that generation in the directory,
// both while the handle still holds the file exclusively, so that a later writer's generation
// can never be overtaken by this one's. Returns the new generation.
uint64_t WriteAndPublish(ConfHandle& handle);
// The rest of the change action, to run once the handle is closed: the local daemon reloads
// (it reads kel.conf under the shared lock, so it must not be asked while the file is held
// exclusively) and the cached copy is dropped. A failed reload propagates.
void ReloadAfterWrite();

// The update parameters that leave a target as it is except for what the caller sets: the
// current IQN and uuid, every other keep-able field empty, the initiator list complete.
HostCtl::Orsa::IscsiTarget::TargetCreateParam KeepParamsOf(
    const HostCtl::Orsa::IscsiTarget::TargetInfo& target);

}  // namespace ServiceInternal

// Moves every local target away when the cluster has two or more nodes (`nodeCount` points to an
// unsigned 32-bit count), after this node's decommissioning completed. Never throws: a failure is
// logged ("Failed to transfer all targets (...)").
void TransferAllLocalTargets(void* nodeCount, HostCtl::Orsa::IscsiTarget::OrsaIscsiTarget* service);

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
