// The storage calls beneath namespaces and LUN disks: what they refuse, and that a refusal or a
// failure midway leaves the datastore as it was. (What they make is checked through the
// namespace and LUN disk tests of the storage layer.)
#include "platform/disk_lun_api.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <regex>

#include "platform/datastore.h"
#include "platform/fs.h"
#include "platform/log.h"
#include "platform/testing/fault_fs.h"
#include "tests/support/test_host.h"

namespace NukCtl {
namespace Storage {
namespace {

using kel::platform::testing::FaultFs;
using kel::platform::testing::ScopedFaultFs;
using kel::testing::ErrorOf;
using kel::testing::PathExists;
using kel::testing::TreeDigest;

class DiskLunApiTest : public ::testing::Test {
 protected:
  void SetUp() override { kel::platform::DatastoreUuid(); }  // the metadata exists before digests
  std::string Join(const std::string& name) const { return host_.DatastoreJoin(name); }
  kel::testing::TestHost host_;
  const std::string& ds_ = host_.datastore();
};

TEST_F(DiskLunApiTest, NamespacesAreNamedByALinkAndOnlyAUuidIsRemoved) {
  kel::log::LogCapture log;
  const std::string op = "ORSA-iSCSI-OP-1234";
  const std::string uuid = DiskLunApi::CreateNamespace(ds_, ".named", "", 0, op);
  EXPECT_TRUE(std::regex_match(uuid, std::regex("[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}")));
  EXPECT_TRUE(log.Contains("[" + op + "] Creating namespace '.named'")) << log.Joined();
  EXPECT_TRUE(log.Contains("[" + op + "] Created namespace " + uuid)) << log.Joined();
  std::string attr;
  ASSERT_EQ(0, kel::platform::ReadObjectAttr(kel::platform::GetFs(), Join(uuid), "uuid", &attr));
  EXPECT_EQ(uuid, attr);

  // Every name of a deleted namespace goes with it; another namespace stays as it is.
  const std::string other = DiskLunApi::CreateNamespace(ds_, "", "", 0, op);
  kel::testing::WriteFile(Join(uuid) + "/disk.pemo", "data");
  ASSERT_EQ(0, symlink(uuid.c_str(), Join("second-name").c_str()));
  const std::string otherDigest = TreeDigest(Join(other));
  DiskLunApi::DeleteNamespace(ds_, uuid, op);
  for (const std::string& gone :
       {uuid, std::string(".named"), std::string("second-name"), ".deleting-" + uuid}) {
    EXPECT_FALSE(PathExists(Join(gone))) << gone;
  }
  EXPECT_EQ(otherDigest, TreeDigest(Join(other)));
  EXPECT_EQ("Failed to delete namespace " + uuid + ": No such file or directory",
            ErrorOf([&] { DiskLunApi::DeleteNamespace(ds_, uuid, op); }));
  const std::string before = TreeDigest(ds_);
  EXPECT_EQ("Failed to delete namespace '../datastore': not a namespace UUID",
            ErrorOf([&] { DiskLunApi::DeleteNamespace(Join(other), "../datastore", op); }));
  EXPECT_EQ(before, TreeDigest(ds_));
  const std::string missing = "00000000-0000-4000-8000-000000000000";
  EXPECT_EQ("Failed to update namespace " + missing + ": No such file or directory",
            ErrorOf([&] { DiskLunApi::UpdateNamespace(ds_, missing, "", "op"); }));
}

TEST_F(DiskLunApiTest, RefusedNamespacesLeaveNothingBehind) {
  DiskLunApi::CreateNamespace(ds_, ".taken", "", 0, "op");
  const std::string before = TreeDigest(ds_);
  EXPECT_EQ("Failed to create namespace .taken: the name already exists in " + ds_,
            ErrorOf([&] { DiskLunApi::CreateNamespace(ds_, ".taken", "", 0, "op"); }));
  EXPECT_EQ("Failed to create namespace x: namespace quotas are not supported",
            ErrorOf([&] { DiskLunApi::CreateNamespace(ds_, "x", "", 4096, "op"); }));
  EXPECT_EQ(0u, ErrorOf([&] {
                  DiskLunApi::CreateNamespace(ds_, "x", "((\"bad\" i1))", 0, "op");
                }).find("Invalid storage policy"));
  EXPECT_EQ("Failed to create namespace ../x: invalid namespace name",
            ErrorOf([&] { DiskLunApi::CreateNamespace(ds_, "../x", "", 0, "op"); }));
  {
    ScopedFaultFs faulty;
    faulty.fs().FailNext(FaultFs::Op::kSymlink, EIO);
    EXPECT_EQ("Failed to create namespace y: cannot link its name (Input/output error)",
              ErrorOf([&] { DiskLunApi::CreateNamespace(ds_, "y", "", 0, "op"); }));
    faulty.fs().SetNoUserXattrs(true);
    faulty.fs().FailNext(FaultFs::Op::kWriteFileAtomic, ENOSPC, 1, ".policy");
    EXPECT_NE(std::string::npos, ErrorOf([&] {
                                   DiskLunApi::CreateNamespace(ds_, "z", "", 0, "op");
                                 }).find("cannot store the policy (No space left on device)"));
  }
  EXPECT_EQ(before, TreeDigest(ds_));
}

TEST_F(DiskLunApiTest, DisksAreNeverOverwrittenAndFailuresLeaveNothingBehind) {
  kel::testing::WriteFile(Join("busy.pemo"), "keep me");
  EXPECT_EQ("Failed to create virtual disk " + Join("busy.pemo") + ": File exists",
            ErrorOf([&] { DiskLunApi::CreateVirtualDisk(Join("busy.pemo"), 8, "", "op"); }));
  EXPECT_EQ("keep me", kel::testing::ReadFile(Join("busy.pemo")));
  EXPECT_EQ("Failed to create virtual disk " + Join("z.pemo") + ": the size must be greater than 0",
            ErrorOf([&] { DiskLunApi::CreateVirtualDisk(Join("z.pemo"), 0, "", "op"); }));
  const std::string before = TreeDigest(ds_);
  ScopedFaultFs faulty;
  faulty.fs().SetNoUserXattrs(true);
  for (FaultFs::Op op :
       {FaultFs::Op::kTruncate, FaultFs::Op::kWriteFileAtomic, FaultFs::Op::kFallocate}) {
    faulty.fs().FailNext(op, ENOSPC);
    EXPECT_NE(std::string::npos, ErrorOf([&] {
                                   DiskLunApi::CreateVirtualDisk(
                                       Join("d.pemo"), 4096, "((\"proportionalCapacity\" i100))",
                                       "op");
                                 }).find("No space left on device"));
    EXPECT_EQ(before, TreeDigest(ds_)) << static_cast<int>(op);
  }
  // A disk is private; without xattrs its removal takes the sidecars along, after the disk.
  DiskLunApi::CreateVirtualDisk(Join("d.pemo"), 4096, "", "op");
  struct stat st;
  ASSERT_EQ(0, stat(Join("d.pemo").c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 0777);
  EXPECT_TRUE(PathExists(Join(".d.pemo.uuid")));
  faulty.fs().FailNext(FaultFs::Op::kUnlink, EPERM, 1, "d.pemo");
  EXPECT_EQ("Failed to remove virtual disk " + Join("d.pemo") + ": Operation not permitted",
            ErrorOf([&] { DiskLunApi::RemoveVirtualDisk(Join("d.pemo"), "op"); }));
  EXPECT_TRUE(PathExists(Join(".d.pemo.uuid")));
  DiskLunApi::RemoveVirtualDisk(Join("d.pemo"), "op");
  EXPECT_EQ(before, TreeDigest(ds_));
  EXPECT_EQ("Failed to remove virtual disk " + Join("d.pemo") + ": No such file or directory",
            ErrorOf([&] { DiskLunApi::RemoveVirtualDisk(Join("d.pemo"), "op"); }));
}

}  // namespace
}  // namespace Storage
}  // namespace NukCtl
