#include "platform/vdisk.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "platform/disk_lun_api.h"
#include "platform/fs.h"
#include "platform/testing/fault_fs.h"
#include "tests/support/test_host.h"

namespace kel {
namespace platform {
namespace {

using kel::testing::PathExists;

// Opens `path` with `flags` and closes it again at once; returns the open's result.
VirtDiskError Probe(const std::string& path, uint32_t flags) {
  VirtDiskHandle* h = nullptr;
  VirtDiskError err = VirtDisk_OpenWithInfo(path.c_str(), flags, &h, nullptr);
  if (err == VIRTDISK_OK) {
    EXPECT_EQ(VIRTDISK_OK, VirtDisk_Close(h));
  }
  return err;
}

class VirtDiskTest : public ::testing::Test {
 protected:
  void SetUp() override {
    disk_ = ds_.DatastoreJoin("d.pemo");
    NukCtl::Storage::DiskLunApi::CreateVirtualDisk(disk_, 2048, "", "ORSA-iSCSI-OP-test");
  }
  kel::testing::TestHost ds_;
  std::string disk_;
};

TEST_F(VirtDiskTest, InfoShowsCapacityAllocationIdentityAndFormat) {
  VirtDiskHandle* h = nullptr;
  VirtDiskInfo* info = nullptr;
  ASSERT_EQ(VIRTDISK_OK, VirtDisk_OpenWithInfo(disk_.c_str(), 0, &h, &info));
  EXPECT_EQ(2048u, info->capacity);
  EXPECT_LT(info->allocatedBytes, 2048u * 512u);  // sparse
  char uuid[37];
  ASSERT_EQ(OBJSTORE_OK, ObjStore_GetUniqueID(disk_.c_str(), uuid));
  EXPECT_STREQ(uuid, info->objectUuid);
  EXPECT_EQ(36u, strlen(uuid));
  EXPECT_EQ(1u, info->formatMajor);
  EXPECT_EQ(0u, info->formatMinor);
  VirtDisk_FreeInfo(info);
  EXPECT_EQ(VIRTDISK_OK, VirtDisk_Close(h));

  EXPECT_EQ(ENOENT, Probe(ds_.DatastoreJoin("missing.pemo"), 0));
  EXPECT_EQ(VIRTDISK_E_NOT_A_DISK, Probe(ds_.datastore(), 0));
  kel::testing::WriteFile(ds_.DatastoreJoin("bare.pemo"), "");
  EXPECT_EQ(OBJSTORE_E_NO_ID, ObjStore_GetUniqueID(ds_.DatastoreJoin("bare.pemo").c_str(), uuid));
  EXPECT_STREQ("The object has no unique ID", ObjStore_Err2String(OBJSTORE_E_NO_ID));
  EXPECT_EQ(
      VIRTDISK_E_BAD_PARAM,
      VirtDisk_OpenWithInfo(disk_.c_str(), VIRTDISK_OPEN_LOCK_SHARED | VIRTDISK_OPEN_LOCK_EXCLUSIVE,
                            &h, nullptr));
}

TEST_F(VirtDiskTest, ExclusiveProbeFailsWhileAnyoneServesTheDisk) {
  // Both flag values of the removal loop are exclusive probes.
  for (uint32_t flags : {0x800Au, 0x408002u}) {
    EXPECT_EQ(VIRTDISK_OK, Probe(disk_, flags));
  }
  // A serving host holds a shared OFD lock (another open file description blocks as another
  // process would).
  VirtDiskHandle* serving = nullptr;
  ASSERT_EQ(VIRTDISK_OK,
            VirtDisk_OpenWithInfo(disk_.c_str(), VIRTDISK_OPEN_LOCK_SHARED, &serving, nullptr));
  EXPECT_EQ(VIRTDISK_OK, Probe(disk_, VIRTDISK_OPEN_LOCK_SHARED));  // shared locks coexist
  for (uint32_t flags : {0x800Au, 0x408002u}) {
    EXPECT_EQ(VIRTDISK_E_BUSY, Probe(disk_, flags));
  }
  EXPECT_STREQ("The disk is locked by another host", VirtDisk_Err2String(VIRTDISK_E_BUSY));
  EXPECT_EQ(VIRTDISK_OK, Probe(disk_, 0));  // a plain information open does not care
  ASSERT_EQ(VIRTDISK_OK, VirtDisk_Close(serving));
  EXPECT_EQ(VIRTDISK_OK, Probe(disk_, 0x800A));

  // While a remover holds the disk exclusively, nobody can start serving it.
  VirtDiskHandle* remover = nullptr;
  ASSERT_EQ(VIRTDISK_OK, VirtDisk_OpenWithInfo(disk_.c_str(), 0x800A, &remover, nullptr));
  EXPECT_EQ(VIRTDISK_E_BUSY, Probe(disk_, VIRTDISK_OPEN_LOCK_SHARED));
  ASSERT_EQ(VIRTDISK_OK, VirtDisk_Close(remover));

  // A raw OFD read lock, as the daemon takes it, is seen the same way.
  int fd = open(disk_.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  struct flock fl = {};
  fl.l_type = F_RDLCK;
  fl.l_whence = SEEK_SET;
  ASSERT_EQ(0, fcntl(fd, F_OFD_SETLK, &fl));
  EXPECT_EQ(VIRTDISK_E_BUSY, Probe(disk_, 0x408002));
  close(fd);
  EXPECT_EQ(VIRTDISK_OK, Probe(disk_, 0x408002));
}

TEST_F(VirtDiskTest, RenameKeepsIdentityAndNeverReplaces) {
  char before[37], after[37];
  ASSERT_EQ(OBJSTORE_OK, ObjStore_GetUniqueID(disk_.c_str(), before));
  const std::string moved = ds_.DatastoreJoin("e.pemo");
  ASSERT_EQ(VIRTDISK_OK, VirtDisk_Rename(disk_.c_str(), moved.c_str()));
  EXPECT_FALSE(PathExists(disk_));
  ASSERT_EQ(OBJSTORE_OK, ObjStore_GetUniqueID(moved.c_str(), after));
  EXPECT_STREQ(before, after);

  kel::testing::WriteFile(ds_.DatastoreJoin("taken.pemo"), "keep");
  EXPECT_EQ(VIRTDISK_E_EXISTS,
            VirtDisk_Rename(moved.c_str(), ds_.DatastoreJoin("taken.pemo").c_str()));
  EXPECT_EQ("keep", kel::testing::ReadFile(ds_.DatastoreJoin("taken.pemo")));
  EXPECT_TRUE(PathExists(moved));
  EXPECT_EQ(ENOENT, VirtDisk_Rename(disk_.c_str(), ds_.DatastoreJoin("x.pemo").c_str()));
}

TEST(VirtDiskNoXattr, SidecarsTravelWithTheDisk) {
  kel::testing::TestHost ds;
  testing::ScopedFaultFs faulty;
  faulty.fs().SetNoUserXattrs(true);
  const std::string disk = ds.DatastoreJoin("a.pemo");
  NukCtl::Storage::DiskLunApi::CreateVirtualDisk(disk, 64, "((\"locality\" \"None\"))", "op");
  EXPECT_TRUE(PathExists(ds.DatastoreJoin(".a.pemo.uuid")));
  EXPECT_TRUE(PathExists(ds.DatastoreJoin(".a.pemo.policy")));
  EXPECT_TRUE(PathExists(ds.DatastoreJoin(".a.pemo.format")));
  char before[37], after[37];
  ASSERT_EQ(OBJSTORE_OK, ObjStore_GetUniqueID(disk.c_str(), before));

  const std::string moved = ds.DatastoreJoin("b.pemo");
  ASSERT_EQ(VIRTDISK_OK, VirtDisk_Rename(disk.c_str(), moved.c_str()));
  EXPECT_FALSE(PathExists(ds.DatastoreJoin(".a.pemo.uuid")));
  EXPECT_TRUE(PathExists(ds.DatastoreJoin(".b.pemo.uuid")));
  ASSERT_EQ(OBJSTORE_OK, ObjStore_GetUniqueID(moved.c_str(), after));
  EXPECT_STREQ(before, after);
  VirtDiskHandle* h = nullptr;
  VirtDiskInfo* info = nullptr;
  ASSERT_EQ(VIRTDISK_OK, VirtDisk_OpenWithInfo(moved.c_str(), 0, &h, &info));
  EXPECT_EQ(1u, info->formatMajor);
  VirtDisk_FreeInfo(info);
  VirtDisk_Close(h);

  // A sidecar that cannot follow puts the disk back where it was.
  // (The uuid sidecar has already moved when the policy sidecar fails.)
  faulty.fs().FailNext(testing::FaultFs::Op::kRename, EIO, 1, ".b.pemo.policy");
  EXPECT_EQ(EIO, VirtDisk_Rename(moved.c_str(), ds.DatastoreJoin("c.pemo").c_str()));
  EXPECT_TRUE(PathExists(moved));
  EXPECT_FALSE(PathExists(ds.DatastoreJoin("c.pemo")));
  EXPECT_TRUE(PathExists(ds.DatastoreJoin(".b.pemo.uuid")));
  EXPECT_FALSE(PathExists(ds.DatastoreJoin(".c.pemo.uuid")));
  ASSERT_EQ(OBJSTORE_OK, ObjStore_GetUniqueID(moved.c_str(), after));
  EXPECT_STREQ(before, after);
}

TEST_F(VirtDiskTest, GrowOnlyGrowsAndExtentsListWrittenRangesInOrder) {
  EXPECT_EQ(VIRTDISK_OK, VirtDisk_Grow(disk_.c_str(), 2048));
  EXPECT_EQ(VIRTDISK_OK, VirtDisk_Grow(disk_.c_str(), 4096));
  EXPECT_EQ(4096u * 512u, kel::testing::FileSize(disk_));
  EXPECT_EQ(VIRTDISK_E_SHRINK, VirtDisk_Grow(disk_.c_str(), 4095));
  EXPECT_EQ(4096u * 512u, kel::testing::FileSize(disk_));
  EXPECT_EQ(VIRTDISK_E_BAD_PARAM, VirtDisk_Grow(disk_.c_str(), UINT64_MAX));
  EXPECT_EQ(ENOENT, VirtDisk_Grow(ds_.DatastoreJoin("missing").c_str(), 10));
  EXPECT_EQ(VIRTDISK_E_NOT_A_DISK, VirtDisk_Grow(ds_.datastore().c_str(), 10));

  // Extents list the written ranges in order.
  ASSERT_EQ(VIRTDISK_OK, VirtDisk_Grow(disk_.c_str(), 16384));  // 8 MiB
  int fd = open(disk_.c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  std::vector<char> block(65536, 'x');
  ASSERT_EQ(65536, pwrite(fd, block.data(), block.size(), 1 << 20));
  ASSERT_EQ(65536, pwrite(fd, block.data(), block.size(), 6 << 20));
  close(fd);

  VirtDiskHandle* h = nullptr;
  ASSERT_EQ(VIRTDISK_OK, VirtDisk_OpenWithInfo(disk_.c_str(), 0, &h, nullptr));
  std::vector<std::pair<uint64_t, uint64_t>> extents;
  auto collect = [](void* ctx, uint64_t off, uint64_t len) {
    static_cast<std::vector<std::pair<uint64_t, uint64_t>>*>(ctx)->emplace_back(off, len);
    return true;
  };
  ASSERT_EQ(VIRTDISK_OK, VirtDisk_EnumExtents(h, collect, &extents));
  ASSERT_EQ(2u, extents.size());
  EXPECT_LE(extents[0].first, uint64_t{1} << 20);
  EXPECT_GE(extents[0].first + extents[0].second, (uint64_t{1} << 20) + 65536);
  EXPECT_LT(extents[0].first + extents[0].second, uint64_t{6} << 20);
  EXPECT_LE(extents[1].first, uint64_t{6} << 20);

  std::vector<std::pair<uint64_t, uint64_t>> first;
  auto first_only = [](void* ctx, uint64_t off, uint64_t len) {
    static_cast<std::vector<std::pair<uint64_t, uint64_t>>*>(ctx)->emplace_back(off, len);
    return false;
  };
  ASSERT_EQ(VIRTDISK_OK, VirtDisk_EnumExtents(h, first_only, &first));
  EXPECT_EQ(1u, first.size());
  EXPECT_EQ(VIRTDISK_OK, VirtDisk_Close(h));
  EXPECT_EQ(VIRTDISK_E_BAD_PARAM, VirtDisk_EnumExtents(nullptr, collect, nullptr));
}

}  // namespace
}  // namespace platform
}  // namespace kel
