#include "platform/disk_lun_api.h"

#include <uuid/uuid.h>

#include <cerrno>
#include <vector>

#include "platform/creation_journal.h"
#include "platform/datastore.h"
#include "platform/exception.h"
#include "platform/fs.h"
#include "platform/log.h"
#include "platform/policy.h"
#include "platform/vdisk.h"

namespace NukCtl {
namespace Storage {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;
using kel::platform::ErrnoText;
using kel::platform::FileInfo;
using kel::platform::Fs;
using kel::platform::GetFs;
using kel::platform::StoragePolicy;

const char* const kTag = "DiskLunApi";

std::string NewUuidText() {
  uuid_t raw;
  char text[37];
  uuid_generate_random(raw);
  uuid_unparse_lower(raw, text);
  return text;
}

bool IsUuidText(const std::string& text) {
  uuid_t raw;
  return text.size() == 36 && uuid_parse(text.c_str(), raw) == 0;
}

// The policy an object gets: the given one, or the datastore default for an empty text.
StoragePolicy EffectivePolicy(const std::string& policy) {
  if (!policy.empty()) return kel::platform::ParsePolicy(policy);
  return kel::platform::ParsePolicy(kel::platform::DatastoreDefaultPolicy());
}

// Removes the sidecars an object may have left next to it (file systems without user xattrs).
void RemoveSidecars(Fs& fs, const std::string& dir, const std::string& name) {
  for (const std::string& key : kel::platform::ObjectAttrKeys()) {
    fs.Unlink(dir + "/." + name + "." + key);
  }
}

}  // namespace

std::string DiskLunApi::CreateNamespace(const std::string& datastorePath, const std::string& name,
                                        const std::string& policy, uint64_t size,
                                        const std::string& opId, const std::string& wantedUuid) {
  LogInfo("%s: [%s] Creating namespace '%s' in %s with policy '%s'\n", kTag, opId.c_str(),
          name.c_str(), datastorePath.c_str(), policy.c_str());
  const std::string what = name.empty() ? std::string("namespace") : "namespace " + name;
  if (size != 0) {
    throw OrsaCtlException("Failed to create " + what + ": namespace quotas are not supported");
  }
  if (name.find('/') != std::string::npos || name == "." || name == "..") {
    throw OrsaCtlException("Failed to create " + what + ": invalid namespace name");
  }
  StoragePolicy effective = EffectivePolicy(policy);
  Fs& fs = GetFs();
  if (!name.empty() && fs.Exists(datastorePath + "/" + name)) {
    throw OrsaCtlException("Failed to create " + what + ": the name already exists in " +
                           datastorePath);
  }
  if (!wantedUuid.empty() && !IsUuidText(wantedUuid)) {
    throw OrsaCtlException("Failed to create " + what + ": '" + wantedUuid + "' is not a UUID");
  }
  const std::string uuid = wantedUuid.empty() ? NewUuidText() : wantedUuid;
  const std::string dir = datastorePath + "/" + uuid;
  if (int err = fs.MakeDir(dir, 0700)) {
    throw OrsaCtlException("Failed to create " + what + " in " + datastorePath + ": " +
                           ErrnoText(err));
  }
  try {
    if (int err = kel::platform::WriteObjectAttr(fs, dir, "uuid", uuid)) {
      throw OrsaCtlException("Failed to create " + what + ": cannot store its UUID (" +
                             ErrnoText(err) + ")");
    }
    kel::platform::ApplyPolicyToObject(dir, effective);
    if (!name.empty()) {
      if (int err = fs.Symlink(uuid, datastorePath + "/" + name)) {
        throw OrsaCtlException("Failed to create " + what + ": cannot link its name (" +
                               ErrnoText(err) + ")");
      }
    }
  } catch (const OrsaCtlException& e) {
    LogError("%s: [%s] %s\n", kTag, opId.c_str(), e.GetMessage().c_str());
    fs.RemoveTree(dir);
    RemoveSidecars(fs, datastorePath, uuid);
    throw;
  }
  LogInfo("%s: [%s] Created namespace %s (%s)\n", kTag, opId.c_str(), uuid.c_str(),
          name.empty() ? "no name" : name.c_str());
  return uuid;
}

void DiskLunApi::DeleteNamespace(const std::string& datastorePath, const std::string& uuid,
                                 const std::string& opId) {
  LogInfo("%s: [%s] Deleting namespace %s in %s\n", kTag, opId.c_str(), uuid.c_str(),
          datastorePath.c_str());
  // The UUID becomes part of a path that is removed recursively: nothing but a UUID may pass.
  if (!IsUuidText(uuid)) {
    throw OrsaCtlException("Failed to delete namespace '" + uuid + "': not a namespace UUID");
  }
  Fs& fs = GetFs();
  const std::string dir = datastorePath + "/" + uuid;
  FileInfo info;
  int err = fs.Lstat(dir, &info);
  if (err == 0 && !info.isDir) err = ENOTDIR;
  if (err != 0) {
    throw OrsaCtlException("Failed to delete namespace " + uuid + ": " + ErrnoText(err));
  }
  const std::string tombstone = datastorePath + "/.deleting-" + uuid;
  kel::platform::JournalRecord(tombstone);
  if (int rerr = fs.Rename(dir, tombstone)) {
    kel::platform::JournalForget(tombstone);
    throw OrsaCtlException("Failed to delete namespace " + uuid + ": " + ErrnoText(rerr));
  }
  std::vector<std::string> names;
  if (fs.ListDir(datastorePath, &names) == 0) {
    for (const std::string& entry : names) {
      std::string text;
      const std::string path = datastorePath + "/" + entry;
      if (fs.Lstat(path, &info) == 0 && info.isLink && fs.ReadLink(path, 4096, &text) == 0 &&
          text == uuid) {
        fs.Unlink(path);
      }
    }
  }
  err = fs.RemoveTree(tombstone);
  RemoveSidecars(fs, datastorePath, uuid);
  if (err == 0 || err == ENOENT) kel::platform::JournalForget(tombstone);
  if (err != 0) {
    // The namespace is already out of sight; what is left is garbage under a hidden name.
    LogWarning("%s: [%s] Namespace %s deleted, but removing %s failed: %s\n", kTag, opId.c_str(),
               uuid.c_str(), tombstone.c_str(), ErrnoText(err).c_str());
  }
  LogInfo("%s: [%s] Deleted namespace %s\n", kTag, opId.c_str(), uuid.c_str());
}

void DiskLunApi::UpdateNamespace(const std::string& datastorePath, const std::string& uuid,
                                 const std::string& policy, const std::string& opId) {
  LogInfo("%s: [%s] Updating namespace %s with policy '%s'\n", kTag, opId.c_str(), uuid.c_str(),
          policy.c_str());
  if (!IsUuidText(uuid)) {
    throw OrsaCtlException("Failed to update namespace '" + uuid + "': not a namespace UUID");
  }
  StoragePolicy effective = EffectivePolicy(policy);
  const std::string dir = datastorePath + "/" + uuid;
  FileInfo info;
  int err = GetFs().Lstat(dir, &info);
  if (err == 0 && !info.isDir) err = ENOTDIR;
  if (err != 0) {
    throw OrsaCtlException("Failed to update namespace " + uuid + ": " + ErrnoText(err));
  }
  kel::platform::ApplyPolicyToObject(dir, effective);
  LogInfo("%s: [%s] Updated namespace %s\n", kTag, opId.c_str(), uuid.c_str());
}

void DiskLunApi::CreateVirtualDisk(const std::string& path, uint64_t sectors,
                                   const std::string& policy, const std::string& opId) {
  LogInfo("%s: [%s] Creating virtual disk %s of %llu sectors with policy '%s'\n", kTag,
          opId.c_str(), path.c_str(), static_cast<unsigned long long>(sectors), policy.c_str());
  auto fail = [&path](const std::string& reason) -> void {
    throw OrsaCtlException("Failed to create virtual disk " + path + ": " + reason);
  };
  if (sectors == 0) fail("the size must be greater than 0");
  if (sectors > (UINT64_MAX >> 1) / VIRTDISK_SECTOR_SIZE) fail("the size is too large");
  StoragePolicy effective = EffectivePolicy(policy);
  Fs& fs = GetFs();
  if (int err = fs.CreateFile(path, 0600)) fail(ErrnoText(err));
  try {
    if (int err = fs.Truncate(path, sectors * VIRTDISK_SECTOR_SIZE)) fail(ErrnoText(err));
    if (int err = kel::platform::WriteObjectAttr(fs, path, "uuid", NewUuidText())) {
      fail("cannot store its object UUID (" + ErrnoText(err) + ")");
    }
    if (int err = kel::platform::WriteObjectAttr(fs, path, "format", "1.0")) {
      fail("cannot store its format version (" + ErrnoText(err) + ")");
    }
    kel::platform::ApplyPolicyToObject(path, effective);
  } catch (const OrsaCtlException& e) {
    LogError("%s: [%s] %s\n", kTag, opId.c_str(), e.GetMessage().c_str());
    size_t slash = path.find_last_of('/');
    std::string dir = slash == std::string::npos ? "." : path.substr(0, slash);
    RemoveSidecars(fs, dir, path.substr(slash == std::string::npos ? 0 : slash + 1));
    fs.Unlink(path);
    throw;
  }
  LogInfo("%s: [%s] Created virtual disk %s\n", kTag, opId.c_str(), path.c_str());
}

void DiskLunApi::RemoveVirtualDisk(const std::string& path, const std::string& opId) {
  LogInfo("%s: [%s] Removing virtual disk %s\n", kTag, opId.c_str(), path.c_str());
  Fs& fs = GetFs();
  // Sidecars are located through the disk's real path, so find them before it goes.
  std::vector<std::string> sidecars;
  for (const std::string& key : kel::platform::ObjectAttrKeys()) {
    sidecars.push_back(kel::platform::ObjectAttrSidecarPath(fs, path, key));
  }
  FileInfo info;
  int err = fs.Lstat(path, &info);
  if (err == 0 && !info.isRegular) err = EISDIR;
  if (err == 0) err = fs.Unlink(path);
  if (err != 0) {
    throw OrsaCtlException("Failed to remove virtual disk " + path + ": " + ErrnoText(err));
  }
  for (const std::string& sidecar : sidecars) fs.Unlink(sidecar);
  LogInfo("%s: [%s] Removed virtual disk %s\n", kTag, opId.c_str(), path.c_str());
}

}  // namespace Storage
}  // namespace NukCtl
