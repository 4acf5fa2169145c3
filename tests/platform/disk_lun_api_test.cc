#include "platform/disk_lun_api.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <regex>

#include "platform/datastore.h"
#include "platform/exception.h"
#include "platform/fs.h"
#include "platform/log.h"
#include "platform/policy.h"
#include "platform/testing/fault_fs.h"
#include "tests/platform/fs_test_util.h"
#include "tests/support/test_support.h"

namespace NukCtl {
namespace Storage {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;
using kel::platform::testing::FaultFs;
using kel::platform::testing::ScopedFaultFs;
using kel::testing::PathExists;
using kel::testing::TreeDigest;

std::string MessageOf(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const OrsaCtlException& e) {
    return e.GetMessage();
  }
  return "no failure";
}

std::string StoredPolicy(const std::string& path) {
  std::string text;
  EXPECT_TRUE(kel::platform::ReadObjectPolicy(path, &text)) << path;
  return text;
}

TEST(DiskLunApiNamespace, CreateNameAndDelete) {
  kel::testing::ScopedDatastore ds;
  kel::log::LogCapture log;
  const std::string op = "ORSA-iSCSI-OP-1234";
  std::string uuid = DiskLunApi::CreateNamespace(ds.path(), ".named", "", 0, op);
  EXPECT_TRUE(std::regex_match(uuid, std::regex("[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}")));
  EXPECT_TRUE(log.Contains("[" + op + "] Creating namespace '.named'")) << log.Joined();
  EXPECT_TRUE(log.Contains("[" + op + "] Created namespace " + uuid)) << log.Joined();
  struct stat st;
  ASSERT_EQ(0, lstat(ds.Join(uuid).c_str(), &st));
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  char link[64] = {};
  ASSERT_EQ(36, readlink(ds.Join(".named").c_str(), link, sizeof(link)));
  EXPECT_EQ(uuid, link);
  std::string attr;
  ASSERT_EQ(0, kel::platform::ReadObjectAttr(kel::platform::GetFs(), ds.Join(uuid), "uuid", &attr));
  EXPECT_EQ(uuid, attr);

  // A second, unnamed namespace with content; deleting the first leaves it alone.
  std::string other = DiskLunApi::CreateNamespace(ds.path(), "", "", 0, op);
  kel::testing::WriteFile(ds.Join(uuid) + "/disk.pemo", "data");
  ASSERT_EQ(0, symlink(uuid.c_str(), ds.Join("second-name").c_str()));
  const std::string otherDigest = TreeDigest(ds.Join(other));
  DiskLunApi::DeleteNamespace(ds.path(), uuid, op);
  EXPECT_FALSE(PathExists(ds.Join(uuid)));
  EXPECT_FALSE(PathExists(ds.Join(".named")));
  EXPECT_FALSE(PathExists(ds.Join("second-name")));
  EXPECT_FALSE(PathExists(ds.Join(".deleting-" + uuid)));
  EXPECT_EQ(otherDigest, TreeDigest(ds.Join(other)));

  EXPECT_EQ("Failed to delete namespace " + uuid + ": No such file or directory",
            MessageOf([&] { DiskLunApi::DeleteNamespace(ds.path(), uuid, op); }));
  // Only a UUID may name what is removed recursively.
  const std::string before = TreeDigest(ds.path());
  EXPECT_EQ("Failed to delete namespace '../datastore': not a namespace UUID",
            MessageOf([&] { DiskLunApi::DeleteNamespace(ds.Join(other), "../datastore", op); }));
  EXPECT_EQ(before, TreeDigest(ds.path()));
}

TEST(DiskLunApiNamespace, RefusedCreationsLeaveNothingBehind) {
  kel::testing::ScopedDatastore ds;
  kel::platform::DatastoreUuid();  // the metadata file exists before the digest is taken
  DiskLunApi::CreateNamespace(ds.path(), ".taken", "", 0, "op");
  const std::string before = TreeDigest(ds.path());

  EXPECT_EQ("Failed to create namespace .taken: the name already exists in " + ds.path(),
            MessageOf([&] { DiskLunApi::CreateNamespace(ds.path(), ".taken", "", 0, "op"); }));
  EXPECT_EQ("Failed to create namespace x: namespace quotas are not supported",
            MessageOf([&] { DiskLunApi::CreateNamespace(ds.path(), "x", "", 4096, "op"); }));
  EXPECT_EQ(0u, MessageOf([&] {
                  DiskLunApi::CreateNamespace(ds.path(), "x", "((\"bad\" i1))", 0, "op");
                }).find("Invalid storage policy"));
  EXPECT_EQ("Failed to create namespace ../x: invalid namespace name",
            MessageOf([&] { DiskLunApi::CreateNamespace(ds.path(), "../x", "", 0, "op"); }));
  {
    ScopedFaultFs faulty;
    faulty.fs().FailNext(FaultFs::Op::kSymlink, EIO);
    EXPECT_EQ("Failed to create namespace y: cannot link its name (Input/output error)",
              MessageOf([&] { DiskLunApi::CreateNamespace(ds.path(), "y", "", 0, "op"); }));
    faulty.fs().SetNoUserXattrs(true);
    faulty.fs().FailNext(FaultFs::Op::kWriteFileAtomic, ENOSPC, 1, ".policy");
    EXPECT_NE(std::string::npos, MessageOf([&] {
                                   DiskLunApi::CreateNamespace(ds.path(), "z", "", 0, "op");
                                 }).find("cannot store the policy (No space left on device)"));
  }
  EXPECT_EQ(before, TreeDigest(ds.path()));
}

TEST(DiskLunApiNamespace, PoliciesAreStoredCanonicallyWithTheDefaultForEmpty) {
  kel::testing::ScopedDatastore ds;
  kel::platform::SetDatastoreDefaultPolicy("((\"locality\" \"None\"))");
  std::string a = DiskLunApi::CreateNamespace(ds.path(), "", "", 0, "op");
  EXPECT_EQ("((\"locality\" \"None\"))", StoredPolicy(ds.Join(a)));
  std::string b =
      DiskLunApi::CreateNamespace(ds.path(), "", " ( (\"locality\" \"Preferred\") ) ", 0, "op");
  EXPECT_EQ("((\"locality\" \"Preferred\"))", StoredPolicy(ds.Join(b)));

  DiskLunApi::UpdateNamespace(ds.path(), b, "((\"proportionalCapacity\" i20))", "op");
  EXPECT_EQ("((\"proportionalCapacity\" i20))", StoredPolicy(ds.Join(b)));
  EXPECT_NE(std::string::npos, MessageOf([&] {
                                 DiskLunApi::UpdateNamespace(ds.path(), b, "((\"x\" i1))", "op");
                               }).find("Invalid storage policy"));
  EXPECT_EQ("((\"proportionalCapacity\" i20))", StoredPolicy(ds.Join(b)));
  const std::string missing = "00000000-0000-4000-8000-000000000000";
  EXPECT_EQ("Failed to update namespace " + missing + ": No such file or directory",
            MessageOf([&] { DiskLunApi::UpdateNamespace(ds.path(), missing, "", "op"); }));
}

TEST(DiskLunApiDisk, CreatesSparseDiskWithIdentityAndReservation) {
  kel::testing::ScopedDatastore ds;
  const std::string disk = ds.Join("d.pemo");
  DiskLunApi::CreateVirtualDisk(disk, 16384, "((\"proportionalCapacity\" i25))", "op");
  EXPECT_EQ(16384u * 512u, kel::testing::FileSize(disk));
  EXPECT_GE(kel::testing::AllocatedBytes(disk), 16384u * 512u / 4);
  EXPECT_LT(kel::testing::AllocatedBytes(disk), 16384u * 512u / 2);
  EXPECT_EQ(36u, kel::testing::XattrOf(disk, "user.kel.uuid").size());
  EXPECT_EQ("1.0", kel::testing::XattrOf(disk, "user.kel.format"));
  EXPECT_EQ("((\"proportionalCapacity\" i25))", StoredPolicy(disk));
  struct stat st;
  ASSERT_EQ(0, stat(disk.c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 0777);

  // An existing path is never overwritten.
  kel::testing::WriteFile(ds.Join("busy.pemo"), "keep me");
  EXPECT_EQ("Failed to create virtual disk " + ds.Join("busy.pemo") + ": File exists",
            MessageOf([&] { DiskLunApi::CreateVirtualDisk(ds.Join("busy.pemo"), 8, "", "op"); }));
  EXPECT_EQ("keep me", kel::testing::ReadFile(ds.Join("busy.pemo")));
  EXPECT_EQ(
      "Failed to create virtual disk " + ds.Join("z.pemo") + ": the size must be greater than 0",
      MessageOf([&] { DiskLunApi::CreateVirtualDisk(ds.Join("z.pemo"), 0, "", "op"); }));
  EXPECT_FALSE(PathExists(ds.Join("z.pemo")));

  DiskLunApi::RemoveVirtualDisk(disk, "op");
  EXPECT_FALSE(PathExists(disk));
  EXPECT_EQ("Failed to remove virtual disk " + disk + ": No such file or directory",
            MessageOf([&] { DiskLunApi::RemoveVirtualDisk(disk, "op"); }));
}

TEST(DiskLunApiDisk, FailedCreationOrRemovalLeavesTheDatastoreAsItWas) {
  kel::testing::ScopedDatastore ds;
  kel::platform::DatastoreUuid();
  const std::string before = TreeDigest(ds.path());
  ScopedFaultFs faulty;
  faulty.fs().SetNoUserXattrs(true);
  for (FaultFs::Op op :
       {FaultFs::Op::kTruncate, FaultFs::Op::kWriteFileAtomic, FaultFs::Op::kFallocate}) {
    faulty.fs().FailNext(op, ENOSPC);
    EXPECT_NE(std::string::npos, MessageOf([&] {
                                   DiskLunApi::CreateVirtualDisk(
                                       ds.Join("d.pemo"), 4096, "((\"proportionalCapacity\" i100))",
                                       "op");
                                 }).find("No space left on device"));
    EXPECT_EQ(before, TreeDigest(ds.path())) << static_cast<int>(op);
  }
  // Removal on a file system without xattrs also removes the sidecars.
  DiskLunApi::CreateVirtualDisk(ds.Join("d.pemo"), 4096, "", "op");
  EXPECT_TRUE(PathExists(ds.Join(".d.pemo.uuid")));
  faulty.fs().FailNext(FaultFs::Op::kUnlink, EPERM, 1, "d.pemo");
  EXPECT_EQ("Failed to remove virtual disk " + ds.Join("d.pemo") + ": Operation not permitted",
            MessageOf([&] { DiskLunApi::RemoveVirtualDisk(ds.Join("d.pemo"), "op"); }));
  EXPECT_TRUE(PathExists(ds.Join(".d.pemo.uuid")));
  DiskLunApi::RemoveVirtualDisk(ds.Join("d.pemo"), "op");
  EXPECT_EQ(before, TreeDigest(ds.path()));
}

}  // namespace
}  // namespace Storage
}  // namespace NukCtl
