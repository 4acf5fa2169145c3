#include "storage/lun_disk.h"

#include <uuid/uuid.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "conf/conf.h"
#include "conf/conf_handle.h"
#include "conf/paths.h"
#include "platform/clock.h"
#include "platform/creation_journal.h"
#include "platform/datastore.h"
#include "platform/disk_lun_api.h"
#include "platform/exception.h"
#include "platform/fs.h"
#include "platform/host_config.h"
#include "platform/log.h"
#include "platform/policy.h"
#include "platform/vdisk.h"
#include "storage/namespace.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;
using NukCtl::Storage::DiskLunApi;

const char* const kTag = "Util";
const int kRenameRetries = 11;      // after the first attempt: 12 in all, 1 s apart
const int kRemoveLastAttempt = 30;  // attempts 0..30: 31 probes over 30 s

// Open flags of the release probe (platform/vdisk.h: both are an exclusive probe on Linux).
const uint32_t kProbeLockFlags = 0x800A;
const uint32_t kProbeSessionFlags = 0x408002;

std::string DirName(const std::string& path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

std::string BaseName(const std::string& path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The LUN disk's format version; false when the disk carries none.
bool ReadDiskFormat(const std::string& path, unsigned* major, unsigned* minor) {
  std::string text;
  if (kel::platform::ReadObjectAttr(kel::platform::GetFs(), path, "format", &text) != 0) {
    return false;
  }
  return sscanf(text.c_str(), "%u.%u", major, minor) == 2;
}

}  // namespace

void RequirePathInDatastore(const std::string& path) {
  kel::platform::Fs& fs = kel::platform::GetFs();
  const std::string name = BaseName(path);
  std::string datastore, parent;
  kel::platform::FileInfo info;
  bool inside = name != "." && name != ".." && !name.empty() &&
                fs.RealPath(kel::platform::DatastorePath(), &datastore) == 0 &&
                fs.RealPath(DirName(path), &parent) == 0 &&
                parent.compare(0, datastore.size() + 1, datastore + "/") == 0;
  // A link in the last place could still point anywhere.
  if (inside && fs.Lstat(path, &info) == 0 && info.isLink) inside = false;
  if (!inside) {
    throw OrsaCtlException("LUN path " + path +
                           " does not lie inside the datastore; refusing to touch it");
  }
}

std::string GetObjectUuidForLun(const std::string& path) {
  char uuid[37];
  ObjStoreError err = ObjStore_GetUniqueID(path.c_str(), uuid);
  if (err != OBJSTORE_OK) {
    throw OrsaCtlException("Failed to get object UUID of LUN " + path +
                           " with error: " + ObjStore_Err2String(err));
  }
  return uuid;
}

void CreateLun(const std::string& lunIdText, const std::string& targetName,
               const std::string& targetDir, uint64_t sectors, const std::string& policy,
               std::string& path, std::string& uuid) {
  const bool absolute = !targetDir.empty() && targetDir[0] == '/';
  const std::string dir = absolute ? targetDir : kel::platform::DatastorePath() + "/" + targetDir;
  const std::string relativeDir = absolute ? BaseName(targetDir) : targetDir;
  const std::string tempPath = dir + "/" + GenerateRandomUuid() + ".pemo";
  LogInfo("%s: Creating LUN %s of target %s at %s\n", kTag, lunIdText.c_str(), targetName.c_str(),
          tempPath.c_str());

  // Journalled before it exists: a process killed before kel.conf names the LUN leaves the disk to
  // the next writer of kel.conf on this host to remove.
  kel::platform::JournalRecord(tempPath);
  try {
    DiskLunApi::CreateVirtualDisk(tempPath, sectors, policy, NewOperationId());
  } catch (const OrsaCtlException&) {
    kel::platform::JournalForget(tempPath);
    throw;
  }
  std::string finalPath;
  try {
    std::string objectUuid = GetObjectUuidForLun(tempPath);
    LogInfo("%s: Retrieved Orsa object UUID %s for LUN id %s.\n", kTag, objectUuid.c_str(),
            lunIdText.c_str());
    finalPath = dir + "/" + objectUuid + ".pemo";
    kel::platform::JournalRecord(finalPath);
    VirtDiskError err = VirtDisk_Rename(tempPath.c_str(), finalPath.c_str());
    // Kept as is: each retry logs and sleeps before its result is looked at.
    for (int attempt = 1; err != VIRTDISK_OK && attempt <= kRenameRetries; ++attempt) {
      err = VirtDisk_Rename(tempPath.c_str(), finalPath.c_str());
      LogWarning("%s: %dth retry to rename LUN descriptor file from %s to %s due to error %s.\n",
                 kTag, attempt, tempPath.c_str(), finalPath.c_str(), VirtDisk_Err2String(err));
      kel::platform::SleepMs(1000);
    }
    if (err != VIRTDISK_OK) {
      throw OrsaCtlException("Failed to rename LUN " + tempPath +
                             " with error: " + VirtDisk_Err2String(err));
    }
    path = relativeDir + "/" + objectUuid + ".pemo";
    uuid = objectUuid;
    kel::platform::JournalForget(tempPath);
  } catch (const OrsaCtlException& e) {
    LogError("%s: Failed to create LUN %s with exception %s\n", kTag, lunIdText.c_str(),
             e.GetMessage().c_str());
    try {
      DiskLunApi::RemoveVirtualDisk(tempPath, NewOperationId());
      kel::platform::JournalForget(tempPath);
      if (!finalPath.empty()) kel::platform::JournalForget(finalPath);
    } catch (const OrsaCtlException& cleanup) {
      LogError("%s: %s\n", kTag, cleanup.GetMessage().c_str());
    }
    throw;
  }
}

void RemoveLun(int id, const std::string& relativePath, const std::string& targetName) {
  const std::string path = GetTargetsDirPath() + "/" + relativePath;
  RequirePathInDatastore(path);
  LogInfo("%s: Removing disk %s of LUN %d of target %s\n", kTag, path.c_str(), id,
          targetName.c_str());
  const int64_t exclSession = kel::platform::HostOption("ORSA-iSCSI", "kelUseDomExclSession");
  unsigned major = 0, minor = 0;
  if (!ReadDiskFormat(path, &major, &minor)) {
    LogWarning(
        "%s: Failed to get iscsi version for LUN: %s. Will try to use ZOFS lock and DOM "
        "exclusive session to detect LUN released by the owner.\n",
        kTag, path.c_str());
    major = minor = 0;
  }
  const uint32_t flags =
      (exclSession == 0 || (exclSession == 1 && major < 7)) ? kProbeLockFlags : kProbeSessionFlags;

  for (int attempt = 0;; ++attempt) {
    std::string lastError;
    VirtDiskHandle* handle = nullptr;
    VirtDiskInfo* info = nullptr;
    VirtDiskError err = VirtDisk_OpenWithInfo(path.c_str(), flags, &handle, &info);
    if (err == VIRTDISK_OK) {
      // The probe got the disk exclusively: its owner has let it go.
      VirtDiskError closeErr = VirtDisk_Close(handle);
      if (closeErr != VIRTDISK_OK) {
        LogWarning("%s: Failed to close Disk handle %p: %s (%d)\n", kTag,
                   static_cast<void*>(handle), VirtDisk_Err2String(closeErr), closeErr);
      }
      VirtDisk_FreeInfo(info);
      try {
        DiskLunApi::RemoveVirtualDisk(path, NewOperationId());
        break;
      } catch (const OrsaCtlException& e) {
        lastError = e.GetMessage();
      } catch (const std::exception& e) {
        LogError("%s: Failed to delete disk %s with exception %s\n", kTag, path.c_str(), e.what());
        throw;
      }
    } else {
      lastError = VirtDisk_Err2String(err);
    }
    LogWarning("%s: Can not remove LUN disk %s, reason: %s. Retrying... %d\n", kTag, path.c_str(),
               lastError.c_str(), attempt);
    if (attempt >= kRemoveLastAttempt) {
      LogError(
          "%s: Failed to remove LUN %s after %d seconds. Giving up. For more details please "
          "see keld.log on host %s and retry removing...Last error %s.\n",
          kTag, path.c_str(), kRemoveLastAttempt,
          kel::platform::CurrentHostConfig()->hostName.c_str(), lastError.c_str());
      throw OrsaCtlException(lastError);
    }
    kel::platform::SleepMs(1000);
  }
  RemovePRFile(targetName, path);
}

std::string LunPRFilePath(const std::string& lunPath) {
  return DirName(lunPath) + "/." + BaseName(lunPath) + ".pr";
}

void RemovePRFile(const std::string& targetName, const std::string& lunPath) {
  const std::string prPath = LunPRFilePath(lunPath);
  int err = kel::platform::GetFs().Unlink(prPath);
  // No file is the common case: the LUN never saw a persistent reservation.
  if (err != 0 && err != ENOENT) {
    LogWarning("%s: Failed to remove PR info  file: %s (errno = %d)\n", kTag, prPath.c_str(), err);
  } else if (err == 0) {
    LogInfo("%s: Removed PR info file %s of target %s\n", kTag, prPath.c_str(), targetName.c_str());
  }
}

int GenerateLunIdForTarget(const struct target* t) {
  std::vector<int> ids;
  for (int slot = 0; slot < MAX_LUNS; ++slot) {
    if (t->t_luns[slot] != nullptr) ids.push_back(slot);
  }
  std::sort(ids.begin(), ids.end());
  int id = static_cast<int>(ids.size());
  for (size_t pos = 0; pos < ids.size(); ++pos) {
    if (ids[pos] != static_cast<int>(pos)) {
      id = static_cast<int>(pos);
      break;
    }
  }
  LogInfo("%s: generated lun ID %d\n", kTag, id);
  if (id >= MAX_LUNS) {
    std::string message = "Can not add more than " + std::to_string(MAX_LUNS) + " LUNs to target " +
                          (t->t_name != nullptr ? t->t_name : "");
    LogError("%s: %s\n", kTag, message.c_str());
    throw OrsaCtlException(message);
  }
  return id;
}

std::string GenerateDiskNaa() {
  // The host's text form of a UUID: byte pairs separated by blanks, a dash after the eighth.
  uuid_t raw;
  uuid_generate_random(raw);
  std::string text;
  static const char kHex[] = "0123456789abcdef";
  for (int i = 0; i < 16; ++i) {
    if (i == 8) {
      text += '-';
    } else if (i > 0) {
      text += ' ';
    }
    text += kHex[raw[i] >> 4];
    text += kHex[raw[i] & 0xf];
  }
  const size_t prefixLen = strlen(KEL_NAA_IEEE_REG_EXT_STR);
  if (text.size() <= prefixLen) {
    LogWarning("%s: Generated uuid %s length is not longer than IEEE EXT\n", kTag, text.c_str());
    return "";
  }
  text.replace(0, prefixLen, KEL_NAA_IEEE_REG_EXT_STR);
  std::string naa;
  for (char c : text) {
    if (c == ' ' || c == '-') continue;
    naa += static_cast<char>(toupper(static_cast<unsigned char>(c)));
  }
  if (naa.size() != 32) {
    LogWarning("%s: Generated NAA length %lu is not expected, return empty NAA\n", kTag,
               static_cast<unsigned long>(naa.size()));
    return "";
  }
  LogInfo("%s: Use %s for naa\n", kTag, naa.c_str());
  return naa;
}

std::string GetLunPathById(const std::string& targetName, int id) {
  ConfHandle handle(ConfHandle::kShared);
  const struct conf* conf = handle.GetConf();
  const struct target* found = nullptr;
  const struct target* t;
  TAILQ_FOREACH(t, &conf->conf_targets, t_next) {
    if (t->t_alias != nullptr && targetName == t->t_alias) {
      found = t;
      break;
    }
  }
  if (found == nullptr) {
    TAILQ_FOREACH(t, &conf->conf_targets, t_next) {
      if (t->t_name != nullptr && strcasecmp(targetName.c_str(), t->t_name) == 0) {
        found = t;
        break;
      }
    }
  }
  if (found != nullptr && id >= 0 && id < MAX_LUNS && found->t_luns[id] != nullptr &&
      found->t_luns[id]->l_path != nullptr) {
    return found->t_luns[id]->l_path;
  }
  throw OrsaCtlException("Failed to find path for LUN " + std::to_string(id) + " on target " +
                         targetName);
}

void GetLunPathById(const std::string& targetName, int id, std::string& path) {
  path = GetLunPathById(targetName, id);
}

void GrowLunDisk(const std::string& path, uint64_t newSectors) {
  RequirePathInDatastore(path);
  kel::platform::FileInfo before;
  if (int err = kel::platform::GetFs().Stat(path, &before)) {
    throw OrsaCtlException("Failed to grow LUN disk " + path + " to " + std::to_string(newSectors) +
                           " sectors with error: " + kel::platform::ErrnoText(err));
  }
  VirtDiskError err = VirtDisk_Grow(path.c_str(), newSectors);
  if (err != VIRTDISK_OK) {
    throw OrsaCtlException("Failed to grow LUN disk " + path + " to " + std::to_string(newSectors) +
                           " sectors with error: " + VirtDisk_Err2String(err));
  }
  // The reservation is a share of the capacity, so a larger disk needs more of it.
  std::string policyText;
  try {
    if (kel::platform::ReadObjectPolicy(path, &policyText) && !policyText.empty()) {
      kel::platform::ApplyPolicyToObject(path, kel::platform::ParsePolicy(policyText));
    }
  } catch (const OrsaCtlException&) {
    // A datastore that cannot hold the reservation: the disk keeps the size kel.conf still has.
    // Nobody has seen the new sectors yet, so cutting them off again loses nothing.
    int terr = kel::platform::GetFs().Truncate(path, before.size);
    if (terr != 0) {
      LogError("%s: Cannot restore the size of %s after a failed growth: %s\n", kTag, path.c_str(),
               kel::platform::ErrnoText(terr).c_str());
    }
    throw;
  }
  LogInfo("%s: Grew LUN disk %s to %llu sectors\n", kTag, path.c_str(),
          static_cast<unsigned long long>(newSectors));
}

uint64_t GetLunDiskSectors(const std::string& path) {
  VirtDiskHandle* handle = nullptr;
  VirtDiskInfo* info = nullptr;
  VirtDiskError err = VirtDisk_OpenWithInfo(path.c_str(), 0, &handle, &info);
  if (err != VIRTDISK_OK) {
    throw OrsaCtlException("Failed to get capacity of LUN disk " + path +
                           " with error: " + VirtDisk_Err2String(err));
  }
  uint64_t sectors = info->capacity;
  VirtDisk_FreeInfo(info);
  VirtDisk_Close(handle);
  return sectors;
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
