// The shared datastore: a directory that every host mounts (a local directory for one host).
#pragma once

#include <string>

#include "platform/status.h"

namespace kel {
namespace platform {

// The datastore's mount path on this host (from the host configuration).
std::string DatastorePath();

}  // namespace platform
}  // namespace kel

// Writes the datastore's mount path into `out` (at most `len` bytes, NUL included).
// NUK_BAD_PARAM when it does not fit.
NUK_ReturnStatus GetOrsaDatastoreUUIDPath(int len, char* out);
