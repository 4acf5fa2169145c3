#include "platform/policy.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>

#include "platform/exception.h"
#include "platform/fs.h"
#include "platform/testing/fault_fs.h"
#include "tests/platform/fs_test_util.h"
#include "tests/support/test_support.h"

namespace kel {
namespace platform {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;
using kel::testing::AllocatedBytes;

std::string RefusalOf(const std::string& text) {
  try {
    ParsePolicy(text);
  } catch (const OrsaCtlException& e) {
    return e.GetMessage();
  }
  return "accepted";
}

TEST(PolicyParser, AcceptsKnownRulesInAnySpacing) {
  struct Case {
    std::string text;
    std::string canonical;
  };
  const Case accepted[] = {
      {"", ""},
      {"  \n\t", ""},
      {"()", ""},
      {"( )", ""},
      {"((\"proportionalCapacity\" i50))", "((\"proportionalCapacity\" i50))"},
      {"((\"proportionalCapacity\" i0))", "((\"proportionalCapacity\" i0))"},
      {"((\"proportionalCapacity\" i100))", "((\"proportionalCapacity\" i100))"},
      {"((\"proportionalCapacity\" i007))", "((\"proportionalCapacity\" i7))"},
      {"((\"locality\" \"Preferred\"))", "((\"locality\" \"Preferred\"))"},
      {"((\"locality\" \"NonPreferred\"))", "((\"locality\" \"NonPreferred\"))"},
      {"((\"locality\" \"None\"))", "((\"locality\" \"None\"))"},
      {"((\"proportionalCapacity\" i50) (\"locality\" \"Preferred\"))",
       "((\"proportionalCapacity\" i50) (\"locality\" \"Preferred\"))"},
      {" ( (\"locality\"\"None\")(\"proportionalCapacity\"   i25) ) \n",
       "((\"proportionalCapacity\" i25) (\"locality\" \"None\"))"},
  };
  for (const Case& c : accepted) {
    StoragePolicy p;
    ASSERT_NO_THROW(p = ParsePolicy(c.text)) << c.text;
    EXPECT_EQ(c.canonical, PolicyToText(p)) << c.text;
    EXPECT_EQ(c.canonical.empty(), p.Empty()) << c.text;
    // The canonical text reads back as the same policy.
    EXPECT_EQ(c.canonical, PolicyToText(ParsePolicy(PolicyToText(p)))) << c.text;
  }
  StoragePolicy both =
      ParsePolicy("((\"proportionalCapacity\" i42) (\"locality\" \"NonPreferred\"))");
  EXPECT_TRUE(both.hasProportionalCapacity);
  EXPECT_EQ(42, both.proportionalCapacity);
  EXPECT_TRUE(both.hasLocality);
  EXPECT_EQ(Locality::kNonPreferred, both.locality);
}

TEST(PolicyParser, RefusesMalformedTextNamingTheProblem) {
  struct Case {
    std::string text;
    std::string reason;
  };
  const Case refused[] = {
      {"((\"stripeWidth\" i2))",
       "unknown rule \"stripeWidth\" (known rules: \"proportionalCapacity\", \"locality\")"},
      {"((\"proportionalCapacity\" i101))",
       "proportionalCapacity must be between 0 and 100, not 101"},
      {"((\"proportionalCapacity\" i-1))",
       "proportionalCapacity must be between 0 and 100, not -1"},
      {"((\"proportionalCapacity\" i99999999999999999999))",
       "proportionalCapacity must be between 0 and 100, not 99999999999999999999"},
      {"((\"proportionalCapacity\" \"50\"))",
       "rule \"proportionalCapacity\" needs an integer value such as i50"},
      {"((\"proportionalCapacity\" i))",
       "rule \"proportionalCapacity\" needs an integer value such as i50"},
      {"((\"proportionalCapacity\" 50))",
       "rule \"proportionalCapacity\" needs an integer value such as i50"},
      {"((\"locality\" \"Elsewhere\"))",
       "locality must be \"Preferred\", \"NonPreferred\" or \"None\", not \"Elsewhere\""},
      {"((\"locality\" \"preferred\"))",
       "locality must be \"Preferred\", \"NonPreferred\" or \"None\", not \"preferred\""},
      {"((\"locality\" i1))",
       "rule \"locality\" needs a value in double quotes such as \"Preferred\""},
      {"((\"locality\" \"None\") (\"locality\" \"Preferred\"))", "duplicate rule \"locality\""},
      {"((\"proportionalCapacity\" i1) (\"proportionalCapacity\" i2))",
       "duplicate rule \"proportionalCapacity\""},
      {"((\"locality \"None\"))", "unknown rule \"locality \""},  // the name ends at the next quote
      {"((\"locality\" \"None))", "unterminated string at position 14"},
      {"((\"locality\" \"None\")", "expected ')' at position 21"},
      {"((\"locality\" \"None\")))", "unexpected text after the rule list at position 22"},
      {"(\"locality\" \"None\")", "expected ')' at position 2"},
      {"((locality \"None\"))", "expected a rule name in double quotes at position 3"},
      {"locality=None", "expected '(' at position 1"},
      {"((\"locality\" \"None\" \"x\"))", "expected ')' at position 21"},
  };
  for (const Case& c : refused) {
    std::string message = RefusalOf(c.text);
    EXPECT_EQ(0u, message.find("Invalid storage policy '" + c.text + "': ")) << message;
    EXPECT_NE(std::string::npos, message.find(c.reason)) << c.text << " -> " << message;
  }
}

TEST(PolicyParser, PreallocationRoundsUpAndNeverOverflows) {
  StoragePolicy p;
  EXPECT_EQ(0u, PreallocationBytes(p, 1000));  // no rule: nothing reserved
  p.hasProportionalCapacity = true;
  p.proportionalCapacity = 50;
  EXPECT_EQ(500u, PreallocationBytes(p, 1000));
  p.proportionalCapacity = 33;
  EXPECT_EQ(34u, PreallocationBytes(p, 101));  // 33.33 rounds up
  p.proportionalCapacity = 1;
  EXPECT_EQ(1u, PreallocationBytes(p, 1));
  p.proportionalCapacity = 0;
  EXPECT_EQ(0u, PreallocationBytes(p, 1000));
  p.proportionalCapacity = 100;
  EXPECT_EQ(UINT64_MAX, PreallocationBytes(p, UINT64_MAX));
  p.proportionalCapacity = 50;
  EXPECT_EQ(UINT64_MAX / 2 + 1, PreallocationBytes(p, UINT64_MAX));
}

TEST(PolicyApply, ReservesTheProportionalCapacityOnly) {
  kel::testing::ScopedDatastore ds;
  const std::string disk = ds.Join("d.pemo");
  kel::testing::WriteFile(disk, "");
  ASSERT_EQ(0, truncate(disk.c_str(), 8 << 20));
  EXPECT_LT(AllocatedBytes(disk), uint64_t{64} << 10);  // sparse

  ApplyPolicyToObject(disk, ParsePolicy("((\"proportionalCapacity\" i50))"));
  EXPECT_GE(AllocatedBytes(disk), uint64_t{4} << 20);
  EXPECT_LT(AllocatedBytes(disk), uint64_t{5} << 20);
  EXPECT_EQ(uint64_t{8} << 20, kel::testing::FileSize(disk));
  std::string stored;
  ASSERT_TRUE(ReadObjectPolicy(disk, &stored));
  EXPECT_EQ("((\"proportionalCapacity\" i50))", stored);

  // A lower share keeps what is already reserved.
  ApplyPolicyToObject(disk, ParsePolicy("((\"proportionalCapacity\" i10))"));
  EXPECT_GE(AllocatedBytes(disk), uint64_t{4} << 20);

  // When the reservation fails, the object keeps its previous policy.
  {
    testing::ScopedFaultFs faulty;
    faulty.fs().FailNext(testing::FaultFs::Op::kFallocate, ENOSPC);
    try {
      ApplyPolicyToObject(disk, ParsePolicy("((\"proportionalCapacity\" i90))"));
      FAIL() << "reservation failure ignored";
    } catch (const OrsaCtlException& e) {
      EXPECT_NE(std::string::npos, e.GetMessage().find("Failed to apply storage policy to " + disk +
                                                       ": cannot reserve"));
      EXPECT_NE(std::string::npos, e.GetMessage().find("No space left on device"));
    }
  }
  ASSERT_TRUE(ReadObjectPolicy(disk, &stored));
  EXPECT_EQ("((\"proportionalCapacity\" i10))", stored);

  EXPECT_THROW(ApplyPolicyToObject(ds.Join("missing"), StoragePolicy()), OrsaCtlException);
  EXPECT_FALSE(ReadObjectPolicy(ds.Join("missing"), &stored));
  kel::testing::WriteFile(ds.Join("plain"), "");
  ASSERT_TRUE(ReadObjectPolicy(ds.Join("plain"), &stored));  // no policy stored: empty
  EXPECT_EQ("", stored);
}

class ComplianceTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(NUK_OK, OrsaCompliance_Init(&handle_)); }
  void TearDown() override {
    SetComplianceSiteResolver(nullptr);
    OrsaCompliance_Deinit(handle_);
  }
  ComplianceResult Check(const std::string& path, const std::string& ns = "ns") {
    ComplianceResult r;
    EXPECT_EQ(NUK_OK, OrsaCompliance_CheckObject(handle_, path, ns, &r));
    return r;
  }
  OrsaComplianceHandle* handle_ = nullptr;
};

TEST_F(ComplianceTest, ComparesAllocationWithTheStoredPolicy) {
  kel::testing::ScopedDatastore ds;
  ComplianceResult r = Check(ds.Join("missing.pemo"));
  EXPECT_FALSE(r.found);
  EXPECT_FALSE(r.compliant);
  EXPECT_EQ("", r.policy);

  const std::string disk = ds.Join("d.pemo");
  kel::testing::WriteFile(disk, "");
  ASSERT_EQ(0, truncate(disk.c_str(), 4 << 20));
  r = Check(disk);
  EXPECT_TRUE(r.found);
  EXPECT_TRUE(r.compliant);  // no policy asks for nothing
  EXPECT_EQ("", r.policy);

  ApplyPolicyToObject(disk, ParsePolicy("((\"proportionalCapacity\" i25))"));
  r = Check(disk);
  EXPECT_TRUE(r.compliant) << r.reason;
  EXPECT_EQ("((\"proportionalCapacity\" i25))", r.policy);

  // The disk grew without a new reservation: a quarter of it is no longer reserved.
  ASSERT_EQ(0, truncate(disk.c_str(), 64 << 20));
  r = Check(disk);
  EXPECT_FALSE(r.compliant);
  EXPECT_NE(std::string::npos, r.reason.find("bytes allocated")) << r.reason;

  // A stored policy that no longer parses is never compliant.
  ASSERT_EQ(0, WriteObjectAttr(GetFs(), disk, "policy", "((\"bogus\" i1))"));
  r = Check(disk);
  EXPECT_TRUE(r.found);
  EXPECT_FALSE(r.compliant);

  ComplianceResult unused;
  EXPECT_EQ(NUK_BAD_PARAM, OrsaCompliance_CheckObject(nullptr, disk, "ns", &unused));
  EXPECT_EQ(NUK_BAD_PARAM, OrsaCompliance_Init(nullptr));
}

TEST_F(ComplianceTest, LocalityFollowsTheSiteOfTheServingHost) {
  kel::testing::ScopedDatastore ds("Preferred");
  const std::string ns = ds.Join("ns-dir");
  ASSERT_EQ(0, mkdir(ns.c_str(), 0700));
  ApplyPolicyToObject(
      ns, ParsePolicy("((\"locality\" \"Preferred\") (\"proportionalCapacity\" i100))"));
  // A namespace reserves nothing itself; without a resolver this host (site Preferred) serves it.
  EXPECT_TRUE(Check(ns).compliant);

  std::string asked;
  SetComplianceSiteResolver([&asked](const std::string& nsUuid) {
    asked = nsUuid;
    return std::string("NonPreferred");
  });
  ComplianceResult r = Check(ns, "1234");
  EXPECT_FALSE(r.compliant);
  EXPECT_EQ("1234", asked);
  ApplyPolicyToObject(ns, ParsePolicy("((\"locality\" \"NonPreferred\"))"));
  EXPECT_TRUE(Check(ns).compliant);
  ApplyPolicyToObject(ns, ParsePolicy("((\"locality\" \"None\"))"));
  SetComplianceSiteResolver([](const std::string&) { return std::string(); });
  EXPECT_TRUE(Check(ns).compliant);  // "None" asks for no site
  ApplyPolicyToObject(ns, ParsePolicy("((\"locality\" \"Preferred\"))"));
  EXPECT_FALSE(Check(ns).compliant);  // an unknown site is not the asked one
}

}  // namespace
}  // namespace platform
}  // namespace kel
