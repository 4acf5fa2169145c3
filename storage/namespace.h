// Namespace objects of the service on the datastore: the configuration namespace (".iSCSI-CONFIG",
// holding kel.conf and the targets directory) and one namespace per target, linked from
// ".iSCSI-CONFIG/targets/<uuid>" -> "../../<uuid>". See conf/paths.h for the layout.
//
// Every function logs with the tag "Util", throws HostCtl::Lib::Orsa::OrsaCtlException with the
// system's messages, and runs on the caller's thread. Every storage call gets its own operation
// identifier ("ORSA-iSCSI-OP-" + a random UUID) that its log lines show.
//
// Failure leaves the datastore as it was, except where noted: a target namespace whose link cannot
// be made is deleted again; DeleteTargetNamespace removes the link before the namespace, so a
// failure of the namespace deletion leaves the namespace unlinked.
#pragma once

#include <cstdint>
#include <string>

#include "platform/datastore.h"
#include "platform/status.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

// A random UUID in 8-4-4-4-12 lower-case text.
std::string GenerateRandomUuid();
// "ORSA-iSCSI-OP-" + GenerateRandomUuid(): one per storage call.
std::string NewOperationId();

// Creates the configuration namespace unless something is at its path already (then logs that it
// exists and returns).
void CreateNamespaceDir(const std::string& policy);
// Deletes the configuration namespace (found by its UUID) when it exists.
void DeleteNamespaceDir();
// The configuration namespace's UUID ("Failed to get KEL namespace UUID with status: ...").
kel::platform::Uuid16 GetNamespaceUuid();
std::string UuidToString(const kel::platform::Uuid16& uuid);
// Applies `policy` to the configuration namespace / a target namespace. The caller verified it.
void UpdateNamespacePolicy(const std::string& policy);
void UpdateTargetNamespacePolicy(const std::string& uuid, const std::string& policy);

// Creates a target namespace and links it into the targets directory; its UUID goes to `uuidOut`
// (also when linking fails and the namespace is deleted again, so the caller can log it).
// Link creation is tried 12 times, 1 s apart.
void CreateTargetNamespace(const std::string& policy, std::string& uuidOut);
// Unlinks and deletes a target namespace with everything in it.
void DeleteTargetNamespace(const std::string& uuid);
// CreateTargetNamespace journals the namespace and its link (platform/creation_journal.h) until
// the caller calls this: once kel.conf names the target, or the namespace was deleted again.
void ForgetTargetNamespaceCreation(const std::string& uuid);

// One directory inside the configuration namespace, mode 0700. An existing directory is logged
// and accepted; so is removing a missing one.
void CreateConfigDir(const std::string& path);
void RemoveConfigDir(const std::string& path);
// Creates ".iSCSI-CONFIG/etc/" and ".iSCSI-CONFIG/targets" (the namespace itself must exist).
void CreateConfigDirs();
// Removes kel.conf, then the etc and targets directories (each must be empty by then).
void DeleteConfigDirs();

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl

// Directory glue: the configuration namespace's UUID, read from the ".iSCSI-CONFIG" link.
// Returns 0, the datastore path status, or 0xbad0001 (NUK_FAILURE) with one C-side log line.
NUK_ReturnStatus KeldGetNamespaceUuid(uint8_t uuid[16]);
