// The shared datastore: a directory that every host mounts (a local directory for one host).
//
// Its identity is a UUID kept in <datastore>/.kel-datastore, created by the first host that asks
// for it; the same file holds the datastore's metadata (the default storage policy). The file is
// only ever replaced atomically, so every host reads a whole one. When two hosts create it at the
// same moment, exactly one creation wins and both end up with the winner's UUID.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "platform/status.h"

namespace kel {
namespace platform {

using Uuid16 = std::array<uint8_t, 16>;

// The datastore's mount path on this host (from the host configuration).
std::string DatastorePath();

// Name of the identity and metadata file inside the datastore.
extern const char* const kDatastoreMetaFile;  // ".kel-datastore"

// The datastore's identity, created on first use. Throws OrsaCtlException when the datastore is
// not there or its metadata file cannot be read or written.
Uuid16 DatastoreUuid();
// "orsa:" + 16 hex digits + "-" + 16 hex digits (bytes 0-7 and 8-15, lower case).
std::string DatastoreUuidText();
std::string FormatDatastoreUuid(const Uuid16& uuid);

// The datastore's default storage policy text; empty when none was set. Throws like
// DatastoreUuid().
std::string DatastoreDefaultPolicy();
// Stores `policyText` as given (callers verify it first). Last writer wins.
void SetDatastoreDefaultPolicy(const std::string& policyText);

}  // namespace platform
}  // namespace kel

// Writes the datastore's mount path into `out` (at most `len` bytes, NUL included).
// NUK_BAD_PARAM when it does not fit.
NUK_ReturnStatus GetOrsaDatastoreUUIDPath(int len, char* out);
