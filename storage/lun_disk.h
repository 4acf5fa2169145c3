// LUN backing disks: creating a LUN's disk and naming it after its storage object, removing it once
// the serving host has let it go, LUN ids, NAA identifiers, and finding a LUN's file.
//
// Paths: a LUN's path as kel.conf stores it is relative to the datastore,
// "<target-namespace-uuid>/<object-uuid>.pemo"; the same text relative to the targets directory
// (".iSCSI-CONFIG/targets", whose entries link to the namespaces) names the same file.
//
// Tag "Util"; failures are HostCtl::Lib::Orsa::OrsaCtlException with the system's messages. All
// functions run on the caller's thread; retries sleep through kel::platform::SleepMs.
#pragma once

#include <cstdint>
#include <string>

struct target;

// The maker's IEEE company identifier in front of every NAA identifier: NAA type 6 followed by the
// 24-bit identifier 0x024B45, written as stored (blanks between byte pairs, 10 characters). The
// first octet 0x02 has the locally-administered (U/L) bit set, so the value cannot collide with a
// registered IEEE identifier; this build has none of its own.
#define KEL_NAA_IEEE_REG_EXT_STR "60 24 B4 5"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

// Creates the disk of a new LUN in the target namespace `targetDir` (the namespace's UUID, i.e. its
// directory relative to the datastore; an absolute directory is accepted too). The disk is made
// under a temporary name, then renamed after its object UUID (12 attempts, 1 s apart). Returns the
// path relative to the datastore ("<target-uuid>/<object-uuid>.pemo") and the object UUID. A
// failure after the disk exists removes it again.
// Throws "LUN path <path> does not lie inside the datastore; refusing to touch it" unless the
// directory of `path` resolves to one inside the datastore and `path` itself is not a link: a
// hand-edited kel.conf (a path with "..") or a link replaced on the datastore must never make kel
// grow, move or remove a file elsewhere.
void RequirePathInDatastore(const std::string& path);

// The new disk stays journalled (platform/creation_journal.h) under its absolute path until the
// caller calls kel::platform::JournalForget with it: once kel.conf names the LUN, or the disk was
// removed again.
void CreateLun(const std::string& lunIdText, const std::string& targetName,
               const std::string& targetDir, uint64_t sectors, const std::string& policy,
               std::string& path, std::string& uuid);

// Removes the disk of LUN `id` at `relativePath` (relative to the targets directory) once no host
// holds it (31 probes, 1 s apart), then its persistent-reservation file. A disk still held after
// the last probe stays in place and the last error is thrown.
void RemoveLun(int id, const std::string& relativePath, const std::string& targetName);

// Removes the persistent-reservation file of the LUN disk `lunPath`; only logs on failure.
void RemovePRFile(const std::string& targetName, const std::string& lunPath);
// "/a/b/c.pemo" -> "/a/b/.c.pemo.pr". The same rule as GetLunPRFilePath of directory/lun_paths.h,
// which sits above this layer; unlike it, no length limit applies.
std::string LunPRFilePath(const std::string& lunPath);

// The lowest LUN id the target does not use; "Can not add more than 256 LUNs to target <name>"
// when all 256 are taken.
int GenerateLunIdForTarget(const struct target* t);

// A new NAA identifier: 32 upper-case hex digits starting with the prefix above (blanks removed),
// or "" if one could not be made.
std::string GenerateDiskNaa();

// The path kel.conf stores for LUN `id` of the target with alias (or name) `targetName`, read
// under the shared file lock. "Failed to find path for LUN <id> on target <name>" when absent.
std::string GetLunPathById(const std::string& targetName, int id);
// The same, for callers that take the path through an out argument.
void GetLunPathById(const std::string& targetName, int id, std::string& path);

// The storage object UUID behind the disk at `path`.
std::string GetObjectUuidForLun(const std::string& path);

// Grows the disk at `path` (absolute) to `newSectors` and reserves what its policy asks of the new
// size. Shrinking is refused.
void GrowLunDisk(const std::string& path, uint64_t newSectors);
// Capacity of the disk at `path` in 512-byte sectors (the resize check compares it).
uint64_t GetLunDiskSectors(const std::string& path);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
