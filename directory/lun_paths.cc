#include "directory/lun_paths.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "conf/conf.h"
#include "platform/clog.h"
#include "platform/datastore.h"
#include "platform/exception.h"

namespace {

// Longest LUN path the sibling-path rules accept (the buffer they copy into is 256 bytes).
constexpr size_t kMaxLunPathLen = 255;

struct FreeDeleter {
  void operator()(char* p) const { std::free(p); }
};

// Writes the formatted text into out[len] only when it fits whole.
NUK_ReturnStatus PutWhole(char* out, int len, const char* what, const char* a, const char* b,
                          const char* c) {
  const int n = std::snprintf(nullptr, 0, "%s/.%s%s", a, b, c);
  if (n < 0 || len <= 0 || n >= len) {
    log_warnx("%s for %s/%s does not fit in %d bytes", what, a, b, len);
    return NUK_BAD_PARAM;
  }
  std::snprintf(out, static_cast<size_t>(len), "%s/.%s%s", a, b, c);
  return NUK_OK;
}

// Splits a copy of `lunPath` at its last '/' into directory and file name. With `cutExtension`
// the file name also ends at its last '.'.
NUK_ReturnStatus SiblingPath(const char* lunPath, int len, char* out, const char* suffix,
                             bool cutExtension, const char* what) {
  if (lunPath == nullptr || std::strlen(lunPath) > kMaxLunPathLen) {
    log_warnx("%s: LUN path is missing or longer than %zu bytes", what, kMaxLunPathLen);
    return NUK_BAD_PARAM;
  }
  char copy[kMaxLunPathLen + 1];
  std::snprintf(copy, sizeof(copy), "%s", lunPath);
  char* slash = std::strrchr(copy, '/');
  if (slash == nullptr) {
    log_warnx("%s: LUN path %s has no directory", what, lunPath);
    return NUK_BAD_PARAM;
  }
  *slash = '\0';
  char* name = slash + 1;
  if (cutExtension) {
    char* dot = std::strrchr(name, '.');
    if (dot != nullptr) {
      *dot = '\0';
    }
  }
  return PutWhole(out, len, what, copy, name, suffix);
}

}  // namespace

NUK_ReturnStatus GetLunAbsPath(const struct lun* lun, int len, char* out) {
  if (len <= 0) {
    log_warnx("Invalid buffer length %d for the LUN path", len);
    return NUK_BAD_PARAM;
  }
  std::unique_ptr<char, FreeDeleter> datastore(
      static_cast<char*>(std::calloc(static_cast<size_t>(len), 1)));
  if (!datastore) {
    log_err(1, "Failed to allocate memory");
  }
  NUK_ReturnStatus status = GetOrsaDatastoreUUIDPath(len, datastore.get());
  if (status != NUK_OK) {
    log_warn("Failed to get orsa datastore Path: %s", NUK_ReturnStatusToString(status));
    return status;
  }
  if (lun == nullptr || lun->l_path == nullptr) {
    log_warnx("LUN %s has no path", lun != nullptr && lun->l_name != nullptr ? lun->l_name : "");
    return NUK_BAD_PARAM;
  }
  const int n = std::snprintf(nullptr, 0, "%s/%s", datastore.get(), lun->l_path);
  if (n < 0 || n >= len) {
    log_warnx("Path of LUN %s does not fit in %d bytes", lun->l_path, len);
    return NUK_BAD_PARAM;
  }
  std::snprintf(out, static_cast<size_t>(len), "%s/%s", datastore.get(), lun->l_path);
  return NUK_OK;
}

NUK_ReturnStatus GetLunPRFilePath(const char* lunPath, int len, char* out) {
  return SiblingPath(lunPath, len, out, ".pr", false, "PR file path");
}

NUK_ReturnStatus GetPemoLockFilePath(const char* lunPath, int len, char* out) {
  return SiblingPath(lunPath, len, out, ".lck", true, "Lock file path");
}

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

namespace {

std::string SiblingOrThrow(NUK_ReturnStatus (*fn)(const char*, int, char*),
                           const std::string& lunPath) {
  // A sibling name is at most the path plus "/." and a suffix.
  std::string out(lunPath.size() + 16, '\0');
  if (lunPath.find('\0') != std::string::npos ||
      fn(lunPath.c_str(), static_cast<int>(out.size()), out.data()) != NUK_OK) {
    throw HostCtl::Lib::Orsa::OrsaCtlException("Invalid LUN path '" + lunPath + "'");
  }
  out.resize(std::strlen(out.c_str()));
  return out;
}

}  // namespace

std::string GetLunUuid(const std::string& path) {
  static const char kExtension[] = ".pemo";
  const size_t slash = path.rfind('/');
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  const size_t ext = sizeof(kExtension) - 1;
  if (name.size() >= ext && name.compare(name.size() - ext, ext, kExtension) == 0) {
    name.resize(name.size() - ext);
  }
  return name;
}

std::string GetLunPRFilePath(const std::string& lunPath) {
  return SiblingOrThrow(&::GetLunPRFilePath, lunPath);
}

std::string GetPemoLockFilePath(const std::string& lunPath) {
  return SiblingOrThrow(&::GetPemoLockFilePath, lunPath);
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
