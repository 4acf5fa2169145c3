// LUN transactions: adding and removing LUNs, and the changes UpdateLun makes inside the caller's
// handle (number, target, alias, status, size), with the resize checks.
#include <cstring>
#include <string>

#include "conf/conf.h"
#include "conf/conf_handle.h"
#include "confedit/parser_edit.h"
#include "confedit/parser_internal.h"
#include "host/validation.h"
#include "platform/datastore.h"
#include "platform/exception.h"
#include "platform/log.h"
#include "platform/vdisk.h"
#include "storage/lun_disk.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Parser {

using HostCtl::Lib::Orsa::OrsaCtlException;
using HostCtl::Orsa::IscsiTarget::LunInfo;
using namespace internal;  // NOLINT(build/namespaces): this file's own helpers

namespace {

constexpr const char* kResizeMark = "KelOnlineResize";

// LUN option values are written in double quotes without escapes.
void CheckQuotable(const std::string& value, const char* label) {
  if (value.find('"') != std::string::npos) {
    throw OrsaCtlException(std::string("'\"' not permitted in ") + label);
  }
}

bool ValidLunId(int id) { return id >= 0 && id < MAX_LUNS; }

struct lun* FindLun(const struct target* t, int id) {
  return ValidLunId(id) ? t->t_luns[id] : nullptr;
}

struct lun* RequireLun(const struct target* t, int id, const std::string& alias) {
  struct lun* l = FindLun(t, id);
  if (l == nullptr) {
    throw OrsaCtlException("Failed to find LUN " + std::to_string(id) + " for target " + alias);
  }
  return l;
}

// kel.conf keeps LUN paths relative to the datastore; a record may carry the absolute form.
std::string RelativeLunPath(const std::string& path) {
  const std::string prefix = kel::platform::DatastorePath() + "/";
  if (path.compare(0, prefix.size(), prefix) == 0) return path.substr(prefix.size());
  return path;
}

std::string BaseName(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Capacity of the disk at `path` in sectors.
VirtDiskError DiskCapacity(const std::string& path, uint64_t* sectors) {
  VirtDiskHandle* handle = nullptr;
  VirtDiskInfo* info = nullptr;
  VirtDiskError err = VirtDisk_OpenWithInfo(path.c_str(), 0, &handle, &info);
  if (err != VIRTDISK_OK) return err;
  *sectors = info->capacity;
  VirtDisk_FreeInfo(info);
  VirtDisk_Close(handle);
  return VIRTDISK_OK;
}

}  // namespace

void AddNewLunToConfFile(LunInfo lun, bool& changed) {
  try {
    int id = lun.id;
    Util::ChangeConfFile([&](ConfHandle& handle) {
      struct conf* c = handle.GetConf();
      struct target* t = RequireTargetByAlias(c, lun.targetAlias);
      LogInfo("%s: Target found %s for alias %s.", kTag, t->t_name, lun.targetAlias.c_str());
      if (id == -1) id = Util::GenerateLunIdForTarget(t);
      if (!ValidLunId(id)) {
        throw OrsaCtlException("Invalid LUN id " + std::to_string(id) + ": valid ids are 0 to " +
                               std::to_string(MAX_LUNS - 1));
      }
      char name[MAX_NAME_LEN + 32];
      keld_target_lun_name(name, sizeof(name), t->t_name, id);
      if (lun_find(c, name) != nullptr || t->t_luns[id] != nullptr) {
        throw OrsaCtlException("LUN id " + std::to_string(id) + " already exists for target " +
                               lun.targetAlias);
      }
      const std::string path = RelativeLunPath(lun.path);
      if (path.empty()) {
        throw OrsaCtlException("No backing disk path for LUN " + std::to_string(id) +
                               " of target " + lun.targetAlias);
      }
      CheckQuotable(lun.alias, "alias");
      CheckQuotable(lun.naa, "naa");
      const int used = CountUsedLunSlots(c);
      struct lun* l = lun_new(c, name);
      if (l == nullptr) throw OrsaCtlException("Failed to create LUN " + std::string(name));
      t->t_luns[id] = l;
      lun_set_keld_lun(l, id);
      lun_set_scsiname(l, name);
      lun_set_size(l, static_cast<int64_t>(RequestedSectors(lun)));
      lun_set_path(l, path.c_str());
      lun_set_backend(l, "pemo");
      if (!lun.alias.empty()) SetLunOption(l, "lun-alias", lun.alias);
      if (!lun.naa.empty()) SetLunOption(l, "naa", lun.naa);
      if (used > kMaxLuns - 1) {
        throw OrsaCtlException("Limit on total number of LUNs (" + std::to_string(kMaxLuns) +
                               ") has been reached.");
      }
      return true;
    });
    // kept as is: the flag reads false after a successful write.
    changed = false;
    LogInfo("%s: Added LUN %d for target %s successfully.", kTag, id, lun.targetAlias.c_str());
  } catch (const OrsaCtlException& e) {
    LogError("%s: Failed to add LUN to conf file with error %s", kTag, e.GetMessage().c_str());
    throw;
  }
}

void RemoveLunFromConfFile(int lunId, const std::string& targetAlias) {
  LogInfo("%s: Removing LUN %d for target %s from config file", kTag, lunId, targetAlias.c_str());
  try {
    std::string path;
    Util::ChangeConfFile(
        [&](ConfHandle& handle) {
          struct conf* c = handle.GetConf();
          struct target* t = RequireTargetByAlias(c, targetAlias);
          struct lun* l = RequireLun(t, lunId, targetAlias);
          // An entry without a path (not one of ours), or with one leading out of the datastore,
          // has no files to clean up, but still goes.
          try {
            path = l->l_path != nullptr ? LunAbsPath(l) : std::string();
          } catch (const OrsaCtlException& e) {
            LogWarning("%s: %s", kTag, e.GetMessage().c_str());
            path.clear();
          }
          lun_delete(l);
          return true;
        },
        [&](uint64_t) {
          // Only once the entry is gone for good: a failed edit leaves the datastore as it was.
          if (path.empty()) return;
          RemoveLunSidecarFiles(path);
          LogInfo("%s: removed lun path %s", kTag, path.c_str());
        });
  } catch (const OrsaCtlException& e) {
    LogError("%s: Failed to remove LUN from conf file with error %s", kTag, e.GetMessage().c_str());
    throw;
  }
  LogInfo("%s: Removed LUN %d for target %s from config file", kTag, lunId, targetAlias.c_str());
}

void UpdateLunId(int newId, struct lun* l, struct target* t) {
  if (!lun_is_offline(l)) {
    throw OrsaCtlException(
        "Changing the ID of an online LUN is not allowed. Bring the LUN offline first.");
  }
  if (!ValidLunId(newId)) {
    throw OrsaCtlException("Invalid LUN id " + std::to_string(newId) + ": valid ids are 0 to " +
                           std::to_string(MAX_LUNS - 1));
  }
  if (t->t_luns[newId] != nullptr) {
    throw OrsaCtlException("LUN with id " + std::to_string(newId) + " already exists.");
  }
  for (struct lun*& slot : t->t_luns) {
    if (slot == l) slot = nullptr;
  }
  t->t_luns[newId] = l;
  lun_set_keld_lun(l, newId);
}

void UpdateLunAlias(const LunInfo& info, struct lun* l) {
  if (info.alias.empty()) return;
  CheckQuotable(info.alias, "alias");
  SetLunOption(l, "lun-alias", info.alias);
}

void UpdateLunStatus(const LunInfo& info, struct lun* l) {
  if (info.status.empty()) return;
  Util::VerifyLunStatus(info.status);
  SetLunOption(l, "status", info.status);
}

namespace {

struct DiskMove {
  std::string from;
  std::string to;
};

// Moves the offline LUN to the lowest free slot of `to` and its disk into `to`'s namespace. The
// reservation and lock files of the disk's old path are left for the caller.
DiskMove MoveLunAndDisk(struct lun* l, struct target* from, struct target* to) {
  if (!lun_is_offline(l)) {
    throw OrsaCtlException(
        "Moving an online LUN to new target is not allowed. Bring the LUN offline first.");
  }
  const std::string toUuid = TargetOptionValue(to, "uuid");
  if (toUuid.empty()) throw OrsaCtlException("Target " + Text(to->t_alias) + " has no uuid");
  const int newId = Util::GenerateLunIdForTarget(to);
  to->t_luns[newId] = l;
  lun_set_keld_lun(l, newId);
  for (struct lun*& slot : from->t_luns) {
    if (slot == l) {
      slot = nullptr;
      break;
    }
  }

  DiskMove move;
  move.from = LunAbsPath(l);
  lun_modify_target_path(l, (toUuid + "/" + BaseName(Text(l->l_path))).c_str());
  move.to = LunAbsPath(l);
  if (VirtDisk_Rename(move.from.c_str(), move.to.c_str()) != VIRTDISK_OK) {
    throw OrsaCtlException("Failed to move src PEMO: " + move.from);
  }
  return move;
}

}  // namespace

void MoveLunToNewTarget(struct lun* l, struct target* from, struct target* to) {
  try {
    const DiskMove move = MoveLunAndDisk(l, from, to);
    RemoveLunSidecarFiles(move.from);
    LogInfo("%s: Successfully moved %s to new path %s", kTag, move.from.c_str(), move.to.c_str());
  } catch (const OrsaCtlException& e) {
    throw OrsaCtlException("Failed to move LUN to new target: " + e.GetMessage());
  }
}

bool GrowLunSize(const LunInfo& info, struct lun* l) {
  const uint64_t requested = RequestedSectors(info);
  const uint64_t old = static_cast<uint64_t>(l->l_size);
  if (requested == 0 || requested == old) return false;
  if (requested < old) throw OrsaCtlException("LUN size cannot be reduced");
  const std::string path = LunAbsPath(l);
  LogInfo("%s: GrowSize %s, old: %lu, new: %lu on LUN(%s)", kTag, info.sizeText.c_str(),
          static_cast<unsigned long>(old), static_cast<unsigned long>(requested), path.c_str());
  // The disk grows synchronously here; the mark covers exactly that window.
  SetLunOption(l, kResizeMark, std::to_string(old));
  try {
    Util::GrowLunDisk(path, requested);
  } catch (const OrsaCtlException&) {
    ClearLunOption(l, kResizeMark);
    throw;
  }
  lun_set_size(l, static_cast<int64_t>(requested));
  ClearLunOption(l, kResizeMark);
  return true;
}

void UpdateLun(LunInfo& lun, int newId, const std::string& newTarget, ConfHandle& handle,
               bool& retry) {
  retry = false;
  struct conf* c = handle.GetConf();
  struct target* from = RequireTargetByAlias(c, lun.targetAlias);
  struct lun* l = RequireLun(from, lun.id, lun.targetAlias);
  struct target* to = from;
  std::string toAlias = lun.targetAlias;
  if (!newTarget.empty() && newTarget != lun.targetAlias) {
    to = RequireTargetByAlias(c, newTarget);
    toAlias = newTarget;
  }

  // Everything that can be refused is refused before the disk is touched.
  Util::VerifyLunStatus(lun.status);
  const uint64_t requested = RequestedSectors(lun);
  if (requested != 0 && requested < static_cast<uint64_t>(l->l_size)) {
    throw OrsaCtlException("LUN size cannot be reduced");
  }
  const bool changeId = newId >= 0 && (to != from || newId != l->l_keld_lun);
  if (changeId && to != from && ValidLunId(newId) && to->t_luns[newId] != nullptr) {
    throw OrsaCtlException("LUN with id " + std::to_string(newId) + " already exists.");
  }

  if (to == from) {
    if (changeId) {
      LogInfo("%s: For target '%s' updating id form %d to %d", kServiceTag, lun.targetAlias.c_str(),
              l->l_keld_lun, newId);
      UpdateLunId(newId, l, from);
    }
  } else {
    LogInfo("%s: Move LUN %d from target '%s' to new Target '%s'", kServiceTag, lun.id,
            lun.targetAlias.c_str(), newTarget.c_str());
    DiskMove move;
    try {
      move = MoveLunAndDisk(l, from, to);
    } catch (const OrsaCtlException& e) {
      throw OrsaCtlException("Failed to move LUN to new target: " + e.GetMessage());
    }
    // Until the file names the new path, the disk belongs where the file says: if anything
    // below or the write fails, the handle puts it back; the old reservation and lock files stay
    // until the write makes them obsolete.
    handle.AddDatastoreStep(
        [move] {
          if (VirtDisk_Rename(move.to.c_str(), move.from.c_str()) != VIRTDISK_OK) {
            LogError("%s: Failed to move %s back to %s", kTag, move.to.c_str(), move.from.c_str());
          } else {
            LogInfo("%s: Moved %s back to %s", kTag, move.to.c_str(), move.from.c_str());
          }
        },
        [move] { RemoveLunSidecarFiles(move.from); });
    LogInfo("%s: Successfully moved %s to new path %s", kTag, move.from.c_str(), move.to.c_str());
  }

  if (to != from && changeId && newId != l->l_keld_lun) {
    LogInfo("%s: For target '%s' updating id form %d to %d", kServiceTag, toAlias.c_str(),
            l->l_keld_lun, newId);
    UpdateLunId(newId, l, to);
  }
  UpdateLunAlias(lun, l);
  UpdateLunStatus(lun, l);
  GrowLunSize(lun, l);
  lun.id = l->l_keld_lun;
  lun.targetAlias = toAlias;
}

void RollbackConfigLunSize(const LunInfo& info, const int& lunId, const unsigned long& oldSize) {
  Util::ChangeConfFile([&](ConfHandle& handle) {
    struct conf* c = handle.GetConf();
    struct target* t = RequireTargetByAlias(c, info.targetAlias);
    struct lun* l = FindLun(t, lunId);
    if (l == nullptr) throw OrsaCtlException("LUN not found when rollback LUN size");
    uint64_t size = oldSize;
    if (size == 0) {
      size = GetKelLunActualSize(l);
      if (size == 0) throw OrsaCtlException("Cannot retrieve LUN actual size");
    }
    if (static_cast<uint64_t>(l->l_size) == size) return false;
    LogInfo("%s: Rolling back size of LUN %d of target %s from %lu to %lu", kTag, lunId,
            info.targetAlias.c_str(), static_cast<unsigned long>(l->l_size),
            static_cast<unsigned long>(size));
    lun_set_size(l, static_cast<int64_t>(size));
    return true;
  });
}

bool CheckResizeDone(const LunInfo& info, const int& lunId) {
  const uint64_t requested = RequestedSectors(info);
  if (requested == 0) return false;
  const int id = lunId >= 0 ? lunId : info.id;
  std::string path;
  {
    ConfHandle handle(ConfHandle::kShared);
    struct target* t = RequireTargetByAlias(handle.GetConf(), info.targetAlias);
    path = LunAbsPath(RequireLun(t, id, info.targetAlias));
  }
  uint64_t capacity = 0;
  VirtDiskError err = DiskCapacity(path, &capacity);
  if (err != VIRTDISK_OK) {
    // Not an answer either way: the caller tries again within its attempt limit.
    LogWarning("%s: VirtDisk_OpenWithInfo failed: %s", kTag, VirtDisk_Err2String(err));
    return true;
  }
  if (capacity >= requested) {
    LogInfo("%s: Async resize completed for LUN: %s", kTag, path.c_str());
    return false;
  }
  // The file promises more than the disk has: bring the file back to what the disk holds.
  RollbackConfigLunSize(info, id, capacity);
  throw OrsaCtlException("Cannot complete resizing, no enough space on Orsa Datastore");
}

uint64_t GetKelLunActualSize(struct lun* l) {
  const std::string path = LunAbsPath(l);
  uint64_t capacity = 0;
  VirtDiskError err = DiskCapacity(path, &capacity);
  if (err != VIRTDISK_OK) {
    LogError("%s: Check Size and VirtDisk_OpenWithInfo failed: %s", kTag, VirtDisk_Err2String(err));
    return 0;
  }
  LogInfo("%s: Actual capacity: %lu, Lun path: %s", kTag, static_cast<unsigned long>(capacity),
          path.c_str());
  return capacity;
}

}  // namespace Parser
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
