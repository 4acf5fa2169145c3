// The virtual-disk library and the object library of this Linux build.
//
// A virtual disk is a sparse raw image file "<target-namespace>/<object-uuid>.pemo" that tgtd
// serves as is. Its capacity is the file size (in 512-byte sectors); its object UUID is assigned
// at creation and kept with the file (object attribute "uuid", platform/fs.h), so it survives a
// rename; its format version is the object attribute "format" ("<major>.<minor>").
//
// Who holds a disk: the host serving a LUN keeps a shared OFD lock on the disk file for as long as
// it serves it. An exclusive probe (an exclusive OFD lock taken without waiting) therefore succeeds
// only once no host serves the disk any more, which is what removal waits for.
//
// Open flags. The removal loop uses two flag values; on Linux both mean "exclusive probe":
//   0x800A   = READ_WRITE | LOCK_EXCLUSIVE | RELEASE_PROBE (lock-based detection)
//   0x408002 = READ_WRITE | RELEASE_PROBE | EXCL_SESSION   (session-based detection)
// Linux has one mechanism for both, the exclusive OFD lock on the disk file. LOCK_SHARED is what a
// serving host uses. No lock is ever waited for: a held lock fails the open with VIRTDISK_E_BUSY.
// Without lock bits the disk is opened read-only for its information only.
//
// Errors: VIRTDISK_OK (0); a positive value is an errno value; negative values are the library's
// own codes below. VirtDisk_Err2String gives the text of either.
//
// Thread-safety: all functions may be called from any thread; a handle belongs to one thread.
#pragma once

#include <cstdint>

typedef int VirtDiskError;

#define VIRTDISK_OK 0
#define VIRTDISK_E_BUSY (-1)  // another holder has the disk locked
#define VIRTDISK_E_BAD_PARAM (-2)
#define VIRTDISK_E_NOT_A_DISK (-3)  // not a regular file
#define VIRTDISK_E_EXISTS (-4)      // rename target already exists
#define VIRTDISK_E_SHRINK (-5)      // a disk can only grow

#define VIRTDISK_OPEN_READ_WRITE 0x0002u
#define VIRTDISK_OPEN_LOCK_EXCLUSIVE 0x0008u
#define VIRTDISK_OPEN_LOCK_SHARED 0x0010u
#define VIRTDISK_OPEN_RELEASE_PROBE 0x8000u
#define VIRTDISK_OPEN_EXCL_SESSION 0x400000u

#define VIRTDISK_SECTOR_SIZE 512u

struct VirtDiskHandle;

struct VirtDiskInfo {
  uint64_t capacity;        // sectors of 512 bytes (the file size, rounded down)
  uint64_t allocatedBytes;  // what the file occupies on the file system
  char objectUuid[37];      // "" when the disk has none
  uint32_t formatMajor;     // 0.0 when the disk carries no format version
  uint32_t formatMinor;
};

// Starts the library: checks nothing global on Linux but counts users, so that VirtDisk_Exit
// pairs with it. Always VIRTDISK_OK.
VirtDiskError VirtDisk_Init(void);
void VirtDisk_Exit(void);
// True between the first Init and the matching last Exit.
bool VirtDisk_IsInitialized(void);

// Opens a disk with `flags` (see above). On success *handle is set (close it with VirtDisk_Close)
// and, when `info` is not null, *info (free it with VirtDisk_FreeInfo). On failure nothing is
// allocated.
VirtDiskError VirtDisk_OpenWithInfo(const char* path, uint32_t flags, VirtDiskHandle** handle,
                                    VirtDiskInfo** info);
// Closes the descriptor (dropping its lock) and frees the handle, also when closing fails.
VirtDiskError VirtDisk_Close(VirtDiskHandle* handle);
void VirtDisk_FreeInfo(VirtDiskInfo* info);
// rename(2) of the disk file; its attributes move with it (the sidecars too, where they are used).
// VIRTDISK_E_EXISTS when `to` exists: a disk is never replaced by a rename.
VirtDiskError VirtDisk_Rename(const char* from, const char* to);
// Extends the disk to `newCapacity` sectors. Equal capacity is a no-op; smaller is
// VIRTDISK_E_SHRINK.
VirtDiskError VirtDisk_Grow(const char* path, uint64_t newCapacity);
// Calls `fn` for each allocated byte range of the open disk, in ascending order; stops early when
// `fn` returns false. File systems without hole reporting report the whole file as one extent.
VirtDiskError VirtDisk_EnumExtents(VirtDiskHandle* handle,
                                   bool (*fn)(void* ctx, uint64_t offset, uint64_t length),
                                   void* ctx);
const char* VirtDisk_Err2String(VirtDiskError error);

// The object library: the unique ID (8-4-4-4-12 text) of the storage object at `path`.
typedef int ObjStoreError;
#define OBJSTORE_OK 0
#define OBJSTORE_E_NO_ID (-1)  // the object carries no ID
#define OBJSTORE_E_BAD_PARAM (-2)

ObjStoreError ObjStore_GetUniqueID(const char* path, char out[37]);
const char* ObjStore_Err2String(ObjStoreError error);
