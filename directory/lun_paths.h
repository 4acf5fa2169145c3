// Paths of a LUN's files on the datastore.
//
// A LUN's `l_path` in kel.conf is relative to the datastore: "<target-namespace-uuid>/<object-uuid>
// .pemo". Next to its disk a LUN has a persistent-reservation file and a lock file whose names
// derive from the disk's name by two different rules (kept apart on purpose):
//   /a/b/c.pemo -> /a/b/.c.pemo.pr   (file name kept whole)
//   /a/b/c.pemo -> /a/b/.c.lck       (file name cut at its last '.')
//
// The C-style functions write into a caller buffer of `len` bytes (NUL included) and return a
// platform status; `out` is left untouched on failure, with one warning line in the C log. They
// never truncate: a result that does not fit is NUK_BAD_PARAM. Thread-safe (no shared state).
#pragma once

#include <string>

#include "platform/status.h"

struct lun;

// "<datastore path>/<l_path>". Fails with the datastore's status when its path is unknown, and
// with NUK_BAD_PARAM when the LUN has no path or the result does not fit.
NUK_ReturnStatus GetLunAbsPath(const struct lun* lun, int len, char* out);

// The persistent-reservation file of the disk at `lunPath`. NUK_BAD_PARAM when `lunPath` has no
// '/', is longer than 255 bytes, or the result does not fit.
NUK_ReturnStatus GetLunPRFilePath(const char* lunPath, int len, char* out);

// The lock file of the disk at `lunPath`; failures as GetLunPRFilePath.
NUK_ReturnStatus GetPemoLockFilePath(const char* lunPath, int len, char* out);

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

// The UUID part of a LUN file name: the base name of `path` without a trailing ".pemo".
std::string GetLunUuid(const std::string& path);

// String forms of the two sibling paths; throw OrsaCtlException "Invalid LUN path '<path>'" where
// the C forms return NUK_BAD_PARAM.
std::string GetLunPRFilePath(const std::string& lunPath);
std::string GetPemoLockFilePath(const std::string& lunPath);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
