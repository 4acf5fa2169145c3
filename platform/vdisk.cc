#include "platform/vdisk.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "platform/fs.h"

struct VirtDiskHandle {
  int fd = -1;
  std::string path;
};

namespace {

using kel::platform::FileInfo;
using kel::platform::Fs;
using kel::platform::GetFs;

std::atomic<int> gInitCount{0};

bool WantsExclusive(uint32_t flags) {
  return (flags & (VIRTDISK_OPEN_LOCK_EXCLUSIVE | VIRTDISK_OPEN_EXCL_SESSION)) != 0;
}

// Takes an OFD lock without waiting; busy becomes VIRTDISK_E_BUSY.
VirtDiskError LockWhole(int fd, short type) {
  struct flock fl;
  memset(&fl, 0, sizeof(fl));
  fl.l_type = type;
  fl.l_whence = SEEK_SET;
  if (fcntl(fd, F_OFD_SETLK, &fl) == 0) return VIRTDISK_OK;
  return (errno == EAGAIN || errno == EACCES) ? VIRTDISK_E_BUSY : errno;
}

void ReadFormat(Fs& fs, const std::string& path, VirtDiskInfo* info) {
  std::string text;
  if (kel::platform::ReadObjectAttr(fs, path, "format", &text) != 0) return;
  unsigned major = 0, minor = 0;
  if (sscanf(text.c_str(), "%u.%u", &major, &minor) == 2) {
    info->formatMajor = major;
    info->formatMinor = minor;
  }
}

}  // namespace

VirtDiskError VirtDisk_Init(void) {
  gInitCount.fetch_add(1);
  return VIRTDISK_OK;
}

void VirtDisk_Exit(void) {
  int count = gInitCount.load();
  while (count > 0 && !gInitCount.compare_exchange_weak(count, count - 1)) {
  }
}

bool VirtDisk_IsInitialized(void) { return gInitCount.load() > 0; }

VirtDiskError VirtDisk_OpenWithInfo(const char* path, uint32_t flags, VirtDiskHandle** handle,
                                    VirtDiskInfo** info) {
  if (path == nullptr || handle == nullptr) return VIRTDISK_E_BAD_PARAM;
  if (WantsExclusive(flags) && (flags & VIRTDISK_OPEN_LOCK_SHARED) != 0) {
    return VIRTDISK_E_BAD_PARAM;
  }
  // An exclusive OFD lock needs a descriptor open for writing.
  bool write = (flags & VIRTDISK_OPEN_READ_WRITE) != 0 || WantsExclusive(flags);
  int fd = open(path, (write ? O_RDWR : O_RDONLY) | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return errno;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    return VIRTDISK_E_NOT_A_DISK;
  }
  VirtDiskError err = VIRTDISK_OK;
  if (WantsExclusive(flags)) {
    err = LockWhole(fd, F_WRLCK);
  } else if ((flags & VIRTDISK_OPEN_LOCK_SHARED) != 0) {
    err = LockWhole(fd, F_RDLCK);
  }
  if (err != VIRTDISK_OK) {
    close(fd);
    return err;
  }
  if (info != nullptr) {
    VirtDiskInfo* out = new VirtDiskInfo();
    memset(out, 0, sizeof(*out));
    out->capacity = static_cast<uint64_t>(st.st_size) / VIRTDISK_SECTOR_SIZE;
    out->allocatedBytes = static_cast<uint64_t>(st.st_blocks) * 512u;
    ObjStore_GetUniqueID(path, out->objectUuid);
    ReadFormat(GetFs(), path, out);
    *info = out;
  }
  *handle = new VirtDiskHandle{fd, path};
  return VIRTDISK_OK;
}

VirtDiskError VirtDisk_Close(VirtDiskHandle* handle) {
  if (handle == nullptr) return VIRTDISK_E_BAD_PARAM;
  int rc = close(handle->fd);
  int err = errno;
  delete handle;
  return rc == 0 ? VIRTDISK_OK : err;
}

void VirtDisk_FreeInfo(VirtDiskInfo* info) { delete info; }

VirtDiskError VirtDisk_Rename(const char* from, const char* to) {
  if (from == nullptr || to == nullptr) return VIRTDISK_E_BAD_PARAM;
  Fs& fs = GetFs();
  if (fs.Exists(to)) return VIRTDISK_E_EXISTS;
  // Sidecar paths are computed before the rename, while `from` still resolves.
  std::vector<std::string> sidecars;
  for (const std::string& key : kel::platform::ObjectAttrKeys()) {
    sidecars.push_back(kel::platform::ObjectAttrSidecarPath(fs, from, key));
  }
  if (int err = fs.Rename(from, to)) return err;
  std::vector<std::pair<std::string, std::string>> moved;
  size_t i = 0;
  for (const std::string& key : kel::platform::ObjectAttrKeys()) {
    const std::string& oldSidecar = sidecars[i++];
    if (!fs.Exists(oldSidecar)) continue;
    std::string newSidecar = kel::platform::ObjectAttrSidecarPath(fs, to, key);
    if (int err = fs.Rename(oldSidecar, newSidecar)) {
      // Put everything back so that the disk's identity is never split from it.
      for (const auto& m : moved) fs.Rename(m.second, m.first);
      fs.Rename(to, from);
      return err;
    }
    moved.emplace_back(oldSidecar, newSidecar);
  }
  return VIRTDISK_OK;
}

VirtDiskError VirtDisk_Grow(const char* path, uint64_t newCapacity) {
  if (path == nullptr || newCapacity > UINT64_MAX / VIRTDISK_SECTOR_SIZE) {
    return VIRTDISK_E_BAD_PARAM;
  }
  Fs& fs = GetFs();
  FileInfo info;
  if (int err = fs.Stat(path, &info)) return err;
  if (!info.isRegular) return VIRTDISK_E_NOT_A_DISK;
  uint64_t bytes = newCapacity * VIRTDISK_SECTOR_SIZE;
  if (bytes < info.size) return VIRTDISK_E_SHRINK;
  if (bytes == info.size) return VIRTDISK_OK;
  return fs.Truncate(path, bytes);
}

VirtDiskError VirtDisk_EnumExtents(VirtDiskHandle* handle,
                                   bool (*fn)(void* ctx, uint64_t offset, uint64_t length),
                                   void* ctx) {
  if (handle == nullptr || fn == nullptr) return VIRTDISK_E_BAD_PARAM;
  struct stat st;
  if (fstat(handle->fd, &st) != 0) return errno;
  const off_t size = st.st_size;
  off_t pos = 0;
  while (pos < size) {
    off_t data = lseek(handle->fd, pos, SEEK_DATA);
    if (data < 0) {
      if (errno == ENXIO) break;  // only a hole up to the end
      if (errno == EINVAL && pos == 0) {
        fn(ctx, 0, static_cast<uint64_t>(size));  // no hole reporting here
        return VIRTDISK_OK;
      }
      return errno;
    }
    off_t hole = lseek(handle->fd, data, SEEK_HOLE);
    if (hole < 0) return errno;
    if (!fn(ctx, static_cast<uint64_t>(data), static_cast<uint64_t>(hole - data))) break;
    pos = hole;
  }
  return VIRTDISK_OK;
}

const char* VirtDisk_Err2String(VirtDiskError error) {
  switch (error) {
    case VIRTDISK_OK:
      return "Success";
    case VIRTDISK_E_BUSY:
      return "The disk is locked by another host";
    case VIRTDISK_E_BAD_PARAM:
      return "Invalid parameter";
    case VIRTDISK_E_NOT_A_DISK:
      return "Not a virtual disk";
    case VIRTDISK_E_EXISTS:
      return "A disk with that name already exists";
    case VIRTDISK_E_SHRINK:
      return "A virtual disk cannot shrink";
    default:
      break;
  }
  return error > 0 ? strerror(error) : "Unknown virtual disk error";
}

ObjStoreError ObjStore_GetUniqueID(const char* path, char out[37]) {
  if (path == nullptr || out == nullptr) return OBJSTORE_E_BAD_PARAM;
  out[0] = '\0';
  std::string value;
  int err = kel::platform::ReadObjectAttr(GetFs(), path, "uuid", &value);
  if (err == ENODATA) return OBJSTORE_E_NO_ID;
  if (err != 0) return err;
  uuid_t parsed;
  if (value.size() != 36 || uuid_parse(value.c_str(), parsed) != 0) return OBJSTORE_E_NO_ID;
  memcpy(out, value.c_str(), 37);
  return OBJSTORE_OK;
}

const char* ObjStore_Err2String(ObjStoreError error) {
  switch (error) {
    case OBJSTORE_OK:
      return "Success";
    case OBJSTORE_E_NO_ID:
      return "The object has no unique ID";
    case OBJSTORE_E_BAD_PARAM:
      return "Invalid parameter";
    default:
      break;
  }
  return error > 0 ? strerror(error) : "Unknown object store error";
}
