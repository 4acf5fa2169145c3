// The host's storage control API: namespace objects and virtual disks on the datastore.
//
// On Linux a namespace object is a directory <datastore>/<uuid> (its object UUID is also kept as
// its "uuid" attribute); a friendly name is a symbolic link <datastore>/<name> -> <uuid>. A virtual
// disk is a sparse raw file (platform/vdisk.h). Every call carries the caller's operation
// identifier, which appears in the call's log lines so that one management operation can be
// followed through the log.
//
// Each call either completes or throws HostCtl::Lib::Orsa::OrsaCtlException and leaves the
// datastore as it was (a namespace or disk half made is removed again).
//
// Thread-safety: calls may run concurrently from any thread and any host; two calls on the same
// object are not serialised here (the configuration file lock serialises the service's edits).
#pragma once

#include <cstdint>
#include <string>

namespace NukCtl {
namespace Storage {

class DiskLunApi {
 public:
  // Creates a namespace object in `datastorePath` and returns its UUID (8-4-4-4-12 text). A
  // non-empty `name` also creates the friendly-name link; an existing name is refused. An empty
  // `policy` gives the object the datastore's default policy. `size` is a quota request; this
  // build has no quotas, so only 0 is accepted. `uuid`, when given, is the UUID the object gets (so
  // that the caller can journal it before it exists).
  static std::string CreateNamespace(const std::string& datastorePath, const std::string& name,
                                     const std::string& policy, uint64_t size,
                                     const std::string& opId, const std::string& uuid = "");
  // Deletes the namespace object with everything in it and every friendly name that points to it.
  // The directory is first renamed out of sight, so other hosts see it either whole or gone; the
  // name it is removed under is journalled (platform/creation_journal.h) until it is gone.
  static void DeleteNamespace(const std::string& datastorePath, const std::string& uuid,
                              const std::string& opId);
  // Stores a new policy with the namespace object.
  static void UpdateNamespace(const std::string& datastorePath, const std::string& uuid,
                              const std::string& policy, const std::string& opId);

  // Creates a disk of `sectors` 512-byte sectors at `path` (which must not exist): a sparse file
  // with a fresh object UUID, format version 1.0, and the policy (empty: the datastore default)
  // applied, i.e. its proportional capacity reserved.
  static void CreateVirtualDisk(const std::string& path, uint64_t sectors,
                                const std::string& policy, const std::string& opId);
  // Removes the disk file and its sidecars. A missing disk is an error.
  static void RemoveVirtualDisk(const std::string& path, const std::string& opId);
};

}  // namespace Storage
}  // namespace NukCtl
