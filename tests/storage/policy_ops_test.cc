// The service's policy operations over real namespaces and disks.
#include "storage/policy_ops.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>

#include "conf/paths.h"
#include "platform/datastore.h"
#include "platform/exception.h"
#include "platform/policy.h"
#include "storage/lun_disk.h"
#include "storage/namespace.h"
#include "tests/support/test_host.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;
using HostCtl::Orsa::IscsiTarget::LunInfo;
using HostCtl::Orsa::IscsiTarget::NamespaceInfo;

class PolicyOpsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ds_.config().hostSite = "Preferred";
    ds_.Apply();
    ASSERT_EQ(NUK_OK, OrsaCompliance_Init(&handle_));
    CreateNamespaceDir("((\"locality\" \"Preferred\"))");
    CreateConfigDirs();
  }
  void TearDown() override {
    kel::platform::SetComplianceSiteResolver(nullptr);
    OrsaCompliance_Deinit(handle_);
  }
  kel::testing::TestHost ds_;
  OrsaComplianceHandle* handle_ = nullptr;
};

TEST_F(PolicyOpsTest, VerifyAndDatastoreDefault) {
  VerifyPolicy("");
  VerifyPolicy("((\"proportionalCapacity\" i10) (\"locality\" \"None\"))");
  EXPECT_EQ(
      "Invalid storage policy '((\"speed\" i1))': unknown rule \"speed\" (known rules: "
      "\"proportionalCapacity\", \"locality\")",
      kel::testing::ErrorOf([] { VerifyPolicy("((\"speed\" i1))"); }));

  EXPECT_EQ("", GetDatastoreDefaultPolicy());
  SetDatastoreDefaultPolicy(" ((\"proportionalCapacity\"  i30)) ");
  EXPECT_EQ("((\"proportionalCapacity\" i30))", GetDatastoreDefaultPolicy());
  EXPECT_EQ(0u, kel::testing::ErrorOf([] {
                  SetDatastoreDefaultPolicy("((");
                }).find("Invalid storage policy"));
  EXPECT_EQ("((\"proportionalCapacity\" i30))", GetDatastoreDefaultPolicy());

  // A disk created with an empty policy gets the default and its reservation.
  std::string target, path, uuid;
  CreateTargetNamespace("", target);
  CreateLun("0", "t", target, 8192, "", path, uuid);
  std::string stored;
  ASSERT_TRUE(kel::platform::ReadObjectPolicy(ds_.DatastoreJoin(path), &stored));
  EXPECT_EQ("((\"proportionalCapacity\" i30))", stored);
  EXPECT_GE(kel::testing::AllocatedBytes(ds_.DatastoreJoin(path)), 8192u * 512u * 30 / 100);
}

TEST_F(PolicyOpsTest, ComplianceOfTargetNamespacesAndDisksByUuid) {
  std::string target;
  CreateTargetNamespace("((\"locality\" \"Preferred\"))", target);
  std::string policy = "stale";
  bool compliant = false;
  GetPolicyComplianceStatusForObject(handle_, target, policy, compliant, true);
  EXPECT_EQ("((\"locality\" \"Preferred\"))", policy);
  EXPECT_TRUE(compliant);

  std::string asked;
  kel::platform::SetComplianceSiteResolver([&asked](const std::string& ns) {
    asked = ns;
    return std::string("NonPreferred");
  });
  GetPolicyComplianceStatusForObject(handle_, target, policy, compliant, true);
  EXPECT_FALSE(compliant);
  EXPECT_EQ(target, asked);

  // A LUN disk found by its object UUID; the site asked about is its target's.
  std::string path, uuid;
  CreateLun("0", "t", target, 2048, "((\"locality\" \"NonPreferred\"))", path, uuid);
  asked.clear();
  GetPolicyComplianceStatusForObject(handle_, uuid, policy, compliant, false);
  EXPECT_EQ("((\"locality\" \"NonPreferred\"))", policy);
  EXPECT_TRUE(compliant);
  EXPECT_EQ(target, asked);

  // Missing objects, and texts that are not UUIDs at all, are never compliant.
  for (const std::string& id : {std::string("00000000-0000-4000-8000-000000000000"),
                                std::string("../etc"), std::string("")}) {
    for (bool isNamespace : {true, false}) {
      policy = "stale";
      compliant = true;
      GetPolicyComplianceStatusForObject(handle_, id, policy, compliant, isNamespace);
      EXPECT_EQ("", policy) << id;
      EXPECT_FALSE(compliant) << id;
    }
  }
  GetPolicyComplianceStatusForObject(handle_, uuid, policy, compliant, true);  // not a namespace
  EXPECT_FALSE(compliant);

  EXPECT_EQ("Orsa compliance lib is not initialized", kel::testing::ErrorOf([&] {
              GetPolicyComplianceStatusForObject(nullptr, target, policy, compliant, true);
            }));
}

TEST_F(PolicyOpsTest, LunComplianceFollowsReservationAndUpdates) {
  std::string target, path, uuid;
  CreateTargetNamespace("", target);
  CreateLun("2", "t", target, 4096, "((\"proportionalCapacity\" i50))", path, uuid);
  LunInfo lun;
  lun.id = 2;
  lun.targetAlias = "t";
  lun.path = ds_.DatastoreJoin(path);
  GetPolicyComplianceStatusForLun(handle_, lun);
  EXPECT_EQ("((\"proportionalCapacity\" i50))", lun.storagePolicy);
  EXPECT_TRUE(lun.policyCompliant);

  // Grown behind the policy's back: no longer half reserved. GrowLunDisk keeps the promise.
  ASSERT_EQ(0, truncate(lun.path.c_str(), 64 << 20));
  GetPolicyComplianceStatusForLun(handle_, lun);
  EXPECT_FALSE(lun.policyCompliant);
  GrowLunDisk(lun.path, (64 << 20) / 512);
  GetPolicyComplianceStatusForLun(handle_, lun);
  EXPECT_TRUE(lun.policyCompliant);

  // A new policy raises the reservation and is what the query reports afterwards.
  LunInfo update;
  update.id = 2;
  update.targetAlias = "t";
  update.path = GetTargetsDirPath() + "/" + path;  // through the target's link
  update.storagePolicy = "((\"proportionalCapacity\" i90) (\"locality\" \"Preferred\"))";
  UpdateLunPolicy(update);
  EXPECT_GE(kel::testing::AllocatedBytes(lun.path), uint64_t{64 << 20} * 90 / 100);
  GetPolicyComplianceStatusForLun(handle_, lun);
  EXPECT_EQ("((\"proportionalCapacity\" i90) (\"locality\" \"Preferred\"))", lun.storagePolicy);
  EXPECT_TRUE(lun.policyCompliant);

  update.storagePolicy = "((\"locality\" \"Nowhere\"))";
  EXPECT_EQ(0u, kel::testing::ErrorOf([&] { UpdateLunPolicy(update); })
                    .find("Failed to update policy of LUN 2 on target t with error: Invalid "
                          "storage policy"));

  LunInfo gone;
  gone.path = ds_.DatastoreJoin(target + "/missing.pemo");
  gone.storagePolicy = "stale";
  gone.policyCompliant = true;
  GetPolicyComplianceStatusForLun(handle_, gone);
  EXPECT_EQ("", gone.storagePolicy);
  EXPECT_FALSE(gone.policyCompliant);
  LunInfo noPath;
  GetPolicyComplianceStatusForLun(handle_, noPath);
  EXPECT_FALSE(noPath.policyCompliant);
}

TEST_F(PolicyOpsTest, UpdateLunPolicyFindsTheDiskThroughKelConf) {
  std::string target, path, uuid;
  CreateTargetNamespace("", target);
  CreateLun("3", "t", target, 4096, "", path, uuid);
  kel::testing::WriteFile(GetConfFilePath(),
                          "target iqn.2026-01.com.example:t {\n  alias t\n"
                          "  portal-group default\n"
                          "  lun 3 {\n    path " +
                              path + "\n    size 4096\n  }\n}\n");
  LunInfo lun;
  lun.id = 3;
  lun.targetAlias = "t";
  lun.storagePolicy = "((\"proportionalCapacity\" i100))";
  UpdateLunPolicy(lun);
  EXPECT_GE(kel::testing::AllocatedBytes(ds_.DatastoreJoin(path)), 4096u * 512u);
  lun.id = 4;
  EXPECT_EQ(
      "Failed to update policy of LUN 4 on target t with error: Failed to find path for "
      "LUN 4 on target t",
      kel::testing::ErrorOf([&] { UpdateLunPolicy(lun); }));
}

TEST_F(PolicyOpsTest, NamespaceComplianceReportsItsPolicy) {
  NamespaceInfo info;
  GetPolicyComplianceStatusForNamespace(handle_, info);
  EXPECT_EQ("((\"locality\" \"Preferred\"))", info.storagePolicy);
  EXPECT_TRUE(info.policyCompliant);
  kel::platform::SetComplianceSiteResolver([](const std::string&) { return std::string(); });
  GetPolicyComplianceStatusForNamespace(handle_, info);
  EXPECT_FALSE(info.policyCompliant);

  DeleteConfigDirs();
  DeleteNamespaceDir();
  info.storagePolicy = "stale";
  GetPolicyComplianceStatusForNamespace(handle_, info);
  EXPECT_EQ("", info.storagePolicy);
  EXPECT_FALSE(info.policyCompliant);
  EXPECT_EQ("Orsa compliance lib is not initialized",
            kel::testing::ErrorOf([&] { GetPolicyComplianceStatusForNamespace(nullptr, info); }));
}

}  // namespace
}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
