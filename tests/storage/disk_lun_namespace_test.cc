// Namespaces of the service on a real datastore directory, with failures injected into the file
// system and the retry waits on a fake clock.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <regex>

#include "conf/paths.h"
#include "platform/clock.h"
#include "platform/clog.h"
#include "platform/datastore.h"
#include "platform/exception.h"
#include "platform/log.h"
#include "platform/policy.h"
#include "platform/testing/fault_fs.h"
#include "storage/namespace.h"
#include "tests/support/test_host.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;
using kel::platform::testing::FaultFs;
using kel::platform::testing::ScopedFaultFs;
using kel::testing::PathExists;
using kel::testing::TreeDigest;

std::string LinkText(const std::string& path) {
  char buf[256] = {};
  ssize_t n = readlink(path.c_str(), buf, sizeof(buf) - 1);
  return n < 0 ? std::string() : std::string(buf, static_cast<size_t>(n));
}

class NamespaceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log_init(4);
    kel::platform::DatastoreUuid();  // the metadata file is not part of what the tests compare
  }
  // The configuration namespace with its directories, as namespace creation leaves it.
  void MakeConfigNamespace() {
    CreateNamespaceDir("");
    CreateConfigDirs();
  }
  kel::testing::TestHost ds_;
  kel::platform::ScopedFakeClock clock_;
  kel::log::LogCapture log_;
};

TEST_F(NamespaceTest, ConfigurationNamespaceIsCreatedOnceAndFoundByItsLink) {
  CreateNamespaceDir("((\"locality\" \"None\"))");
  const std::string link = GetConfigNamespacePath();
  const std::string uuid = LinkText(link);
  ASSERT_EQ(36u, uuid.size());
  EXPECT_TRUE(PathExists(ds_.DatastoreJoin(uuid)));
  EXPECT_EQ(uuid, UuidToString(GetNamespaceUuid()));
  uint8_t raw[16];
  ASSERT_EQ(NUK_OK, KeldGetNamespaceUuid(raw));
  kel::platform::Uuid16 copy;
  std::copy(raw, raw + 16, copy.begin());
  EXPECT_EQ(uuid, UuidToString(copy));
  std::string policy;
  ASSERT_TRUE(kel::platform::ReadObjectPolicy(link, &policy));
  EXPECT_EQ("((\"locality\" \"None\"))", policy);
  EXPECT_TRUE(std::regex_search(
      log_.Joined(), std::regex("\\[ORSA-iSCSI-OP-[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}\\] "
                                "Creating namespace '.iSCSI-CONFIG'")))
      << log_.Joined();

  const std::string before = TreeDigest(ds_.datastore());
  log_.Clear();
  CreateNamespaceDir("((\"locality\" \"Preferred\"))");
  EXPECT_EQ(before, TreeDigest(ds_.datastore()));
  EXPECT_TRUE(log_.Contains(
      "Util: Orsa iSCSI Target namespace already exists. Skipping namespace creation.."))
      << log_.Joined();
  EXPECT_FALSE(log_.Contains("ORSA-iSCSI-OP-"));  // no storage call was made

  UpdateNamespacePolicy("((\"proportionalCapacity\" i5))");
  ASSERT_TRUE(kel::platform::ReadObjectPolicy(link, &policy));
  EXPECT_EQ("((\"proportionalCapacity\" i5))", policy);

  DeleteNamespaceDir();
  EXPECT_FALSE(PathExists(link));
  EXPECT_FALSE(PathExists(ds_.DatastoreJoin(uuid)));
  DeleteNamespaceDir();  // nothing there: nothing to do
  EXPECT_EQ(
      "Failed to update policy of Orsa iSCSI target namespace with error: Failed to get "
      "KEL namespace UUID with status: Failure",
      kel::testing::ErrorOf([] { UpdateNamespacePolicy(""); }));
}

TEST_F(NamespaceTest, NamespaceUuidLookupFailuresAreStatuses) {
  uint8_t raw[16];
  EXPECT_EQ(NUK_FAILURE, KeldGetNamespaceUuid(raw));
  EXPECT_TRUE(log_.Contains("KELD: Failed to read symlink for KEL namespace path " +
                            GetConfigNamespacePath() + ".: No such file or directory"))
      << log_.Joined();
  EXPECT_EQ("Failed to get KEL namespace UUID with status: Failure",
            kel::testing::ErrorOf([] { GetNamespaceUuid(); }));

  ASSERT_EQ(0, symlink("not-a-uuid", GetConfigNamespacePath().c_str()));
  EXPECT_EQ(NUK_FAILURE, KeldGetNamespaceUuid(raw));
  EXPECT_TRUE(
      log_.Contains("KELD: KeldGetNamespaceUuid: Failed to convert KEL namespace UUID "
                    "string not-a-uuid to ORSA object type."))
      << log_.Joined();
  // Only the first 36 bytes of the link are read.
  ASSERT_EQ(0, unlink(GetConfigNamespacePath().c_str()));
  ASSERT_EQ(0, symlink("0f0e0d0c-0b0a-4909-8807-060504030201/x", GetConfigNamespacePath().c_str()));
  EXPECT_EQ(NUK_OK, KeldGetNamespaceUuid(raw));
  EXPECT_EQ(0x0f, raw[0]);
  EXPECT_EQ(0x01, raw[15]);

  ds_.config().datastorePath = std::string(5000, 'd');  // does not fit the platform's buffer
  ds_.Apply();
  EXPECT_EQ(NUK_BAD_PARAM, KeldGetNamespaceUuid(raw));
  EXPECT_TRUE(log_.Contains("KELD: KeldGetNamespaceUuid: Failed to get orsaDataStoreUUIDPath."))
      << log_.Joined();
}

TEST_F(NamespaceTest, ConfigDirectoriesAreMadeAndRemovedWithTheirMessages) {
  EXPECT_EQ("Failed to create dir " + GetConfigDirPath() + " with errno (2).",
            kel::testing::ErrorOf([] { CreateConfigDirs(); }));  // no namespace yet
  EXPECT_TRUE(log_.Contains("Util: Failed to create dir " + GetConfigDirPath()));
  MakeConfigNamespace();
  struct stat st;
  ASSERT_EQ(0, stat(GetConfigDirPath().c_str(), &st));
  EXPECT_EQ(0700u, st.st_mode & 0777);
  ASSERT_EQ(0, stat(GetTargetsDirPath().c_str(), &st));
  EXPECT_EQ(0700u, st.st_mode & 0777);

  log_.Clear();
  CreateConfigDirs();
  EXPECT_TRUE(log_.Contains("Util: Config dir " + GetConfigDirPath() + " already exists."));
  EXPECT_TRUE(log_.Contains("Util: Config dir " + GetTargetsDirPath() + " already exists."));

  kel::testing::WriteFile(GetConfFilePath(), "generation 1\n");
  kel::testing::WriteFile(GetTargetsDirPath() + "/stray", "");
  EXPECT_EQ("Failed to remove dir " + GetTargetsDirPath() + " with (errno 39).",
            kel::testing::ErrorOf([] { DeleteConfigDirs(); }));
  EXPECT_FALSE(PathExists(GetConfFilePath()));
  EXPECT_FALSE(PathExists(GetConfigDirPath()));
  ASSERT_EQ(0, unlink((GetTargetsDirPath() + "/stray").c_str()));

  log_.Clear();
  DeleteConfigDirs();
  EXPECT_TRUE(log_.Contains("Util: Config file " + GetConfFilePath() + " does not exist."));
  EXPECT_TRUE(log_.Contains("Util: Dir " + GetConfigDirPath() + " does not exist."));
  EXPECT_TRUE(log_.Contains("Util: Removing dir " + GetTargetsDirPath()));
  EXPECT_FALSE(PathExists(GetTargetsDirPath()));
  EXPECT_TRUE(PathExists(GetConfigNamespacePath()));

  ScopedFaultFs faulty;
  faulty.fs().FailNext(FaultFs::Op::kUnlink, EACCES, 1, "kel.conf");
  EXPECT_EQ("Failed to remove config file " + GetConfFilePath() + " (Permission denied)",
            kel::testing::ErrorOf([] { DeleteConfigDirs(); }));
  faulty.fs().FailNext(FaultFs::Op::kMakeDir, EACCES);
  EXPECT_EQ("Failed to create dir " + GetConfigDirPath() + " with errno (13).",
            kel::testing::ErrorOf([] { CreateConfigDirs(); }));
}

TEST_F(NamespaceTest, TargetNamespaceIsLinkedIntoTheTargetsDirectory) {
  MakeConfigNamespace();
  std::string uuid;
  CreateTargetNamespace("((\"proportionalCapacity\" i50))", uuid);
  const std::string link = GetTargetsDirPath() + "/" + uuid;
  EXPECT_EQ("../../" + uuid, LinkText(link));
  struct stat st;
  ASSERT_EQ(0, stat(link.c_str(), &st));  // the link resolves to the namespace
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_TRUE(clock_.clock().Sleeps().empty());
  EXPECT_FALSE(log_.Contains("retry to create target symlink"));

  UpdateTargetNamespacePolicy(uuid, "((\"locality\" \"Preferred\"))");
  std::string policy;
  ASSERT_TRUE(kel::platform::ReadObjectPolicy(ds_.DatastoreJoin(uuid), &policy));
  EXPECT_EQ("((\"locality\" \"Preferred\"))", policy);
  const std::string missing = "00000000-0000-4000-8000-000000000000";
  EXPECT_EQ("Failed to update policy of target namespace " + missing +
                " with error: Failed to update namespace " + missing +
                ": No such file or directory",
            kel::testing::ErrorOf([&] { UpdateTargetNamespacePolicy(missing, ""); }));

  kel::testing::WriteFile(ds_.DatastoreJoin(uuid) + "/lun.pemo", "data");
  DeleteTargetNamespace(uuid);
  EXPECT_FALSE(PathExists(link));
  EXPECT_FALSE(PathExists(ds_.DatastoreJoin(uuid)));
  EXPECT_TRUE(log_.Contains("Util: Delete target namespace, target uuid: " + uuid));
}

TEST_F(NamespaceTest, LinkThatWorksOnTheSecondAttemptLogsOneRetryAndSleepsOnce) {
  MakeConfigNamespace();
  ScopedFaultFs faulty;
  faulty.fs().FailNext(FaultFs::Op::kSymlink, EIO, 1, "/targets/");
  std::string uuid;
  CreateTargetNamespace("", uuid);
  const std::string link = GetTargetsDirPath() + "/" + uuid;
  EXPECT_EQ("../../" + uuid, LinkText(link));
  EXPECT_EQ(2, faulty.fs().Calls(FaultFs::Op::kSymlink));
  EXPECT_EQ(1u, log_.Count("retry to create target symlink"));
  EXPECT_TRUE(log_.Contains("Util: 1th retry to create target symlink(" + link + "->../../" + uuid +
                            ") due to Input/output error (5)"))
      << log_.Joined();
  ASSERT_EQ(1u, clock_.clock().Sleeps().size());
  EXPECT_EQ(std::chrono::milliseconds(1000), clock_.clock().Sleeps()[0]);
}

TEST_F(NamespaceTest, LinkThatNeverWorksLeavesNoNamespaceBehind) {
  MakeConfigNamespace();
  const std::string before = TreeDigest(ds_.datastore());
  ScopedFaultFs faulty;
  faulty.fs().FailNext(FaultFs::Op::kSymlink, EACCES, -1, "/targets/");
  std::string uuid;
  std::string message = kel::testing::ErrorOf([&] { CreateTargetNamespace("", uuid); });
  const std::string link = GetTargetsDirPath() + "/" + uuid;
  EXPECT_EQ("Failed to create target symlink(" + link + "->../../" + uuid +
                ") with error: Permission denied (13)",
            message);
  EXPECT_EQ(12, faulty.fs().Calls(FaultFs::Op::kSymlink));
  EXPECT_EQ(11u, log_.Count("retry to create target symlink"));
  EXPECT_TRUE(log_.Contains("Util: 11th retry to create target symlink"));
  EXPECT_TRUE(log_.Contains("Util: Failed to create target symlink(" + link + "->../../" + uuid +
                            ") witherror: Permission denied (13)"))
      << log_.Joined();
  EXPECT_EQ(11u, clock_.clock().Sleeps().size());
  EXPECT_EQ(std::chrono::milliseconds(11000), clock_.clock().TotalSlept());
  EXPECT_EQ(before, TreeDigest(ds_.datastore()));
}

TEST_F(NamespaceTest, DeletingATargetWithoutLinkDeletesNothing) {
  MakeConfigNamespace();
  std::string uuid;
  CreateTargetNamespace("", uuid);
  ASSERT_EQ(0, unlink((GetTargetsDirPath() + "/" + uuid).c_str()));
  const std::string before = TreeDigest(ds_.datastore());
  EXPECT_EQ("Util: Cannot find target namespace dir for target " + uuid,
            kel::testing::ErrorOf([&] { DeleteTargetNamespace(uuid); }));
  EXPECT_EQ(before, TreeDigest(ds_.datastore()));
  EXPECT_TRUE(PathExists(ds_.DatastoreJoin(uuid)));

  // A link that cannot be removed stops before the namespace is touched.
  ASSERT_EQ(0, symlink(("../../" + uuid).c_str(), (GetTargetsDirPath() + "/" + uuid).c_str()));
  ScopedFaultFs faulty;
  faulty.fs().FailNext(FaultFs::Op::kUnlink, EPERM, 1, "/targets/");
  EXPECT_EQ("Util: Failed to remove target symlink: " + GetTargetsDirPath() + "/" + uuid +
                " with error: Operation not permitted",
            kel::testing::ErrorOf([&] { DeleteTargetNamespace(uuid); }));
  EXPECT_TRUE(PathExists(ds_.DatastoreJoin(uuid)));
  // A namespace that cannot be deleted is reported with the target's UUID.
  faulty.fs().FailNext(FaultFs::Op::kRename, EBUSY, 1, uuid);
  EXPECT_EQ("Failed to delete namespace for target with UUID " + uuid +
                " with error: Failed to delete namespace " + uuid + ": Device or resource busy",
            kel::testing::ErrorOf([&] { DeleteTargetNamespace(uuid); }));
  EXPECT_TRUE(PathExists(ds_.DatastoreJoin(uuid)));
}

}  // namespace
}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
