#include "platform/policy.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>

#include "platform/exception.h"
#include "platform/fs.h"
#include "platform/testing/fault_fs.h"
#include "tests/support/test_host.h"

namespace kel {
namespace platform {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;
using kel::testing::AllocatedBytes;

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
    std::string message = kel::testing::ErrorOf([&] { ParsePolicy(c.text); });
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

TEST(PolicyApply, ReservesTheProportionalCapacityOnlyAndKeepsThePolicyOfAFailure) {
  kel::testing::TestHost host;
  const std::string disk = host.DatastoreJoin("d.pemo");
  kel::testing::WriteFile(disk, "");
  ASSERT_EQ(0, truncate(disk.c_str(), 8 << 20));
  ApplyPolicyToObject(disk, ParsePolicy("((\"proportionalCapacity\" i50))"));
  EXPECT_GE(AllocatedBytes(disk), uint64_t{4} << 20);
  EXPECT_LT(AllocatedBytes(disk), uint64_t{5} << 20);
  EXPECT_EQ(uint64_t{8} << 20, kel::testing::FileSize(disk));
  // A lower share keeps what is already reserved.
  ApplyPolicyToObject(disk, ParsePolicy("((\"proportionalCapacity\" i10))"));
  EXPECT_GE(AllocatedBytes(disk), uint64_t{4} << 20);
  {
    testing::ScopedFaultFs faulty;
    faulty.fs().FailNext(testing::FaultFs::Op::kFallocate, ENOSPC);
    const std::string message = kel::testing::ErrorOf(
        [&] { ApplyPolicyToObject(disk, ParsePolicy("((\"proportionalCapacity\" i90))")); });
    EXPECT_EQ(0u, message.find("Failed to apply storage policy to " + disk + ": cannot reserve"));
    EXPECT_NE(std::string::npos, message.find("No space left on device"));
  }
  std::string stored;
  ASSERT_TRUE(ReadObjectPolicy(disk, &stored));
  EXPECT_EQ("((\"proportionalCapacity\" i10))", stored);

  EXPECT_THROW(ApplyPolicyToObject(host.DatastoreJoin("missing"), StoragePolicy()),
               OrsaCtlException);
  EXPECT_FALSE(ReadObjectPolicy(host.DatastoreJoin("missing"), &stored));
  kel::testing::WriteFile(host.DatastoreJoin("plain"), "");
  ASSERT_TRUE(ReadObjectPolicy(host.DatastoreJoin("plain"), &stored));  // nothing stored: empty
  EXPECT_EQ("", stored);
}

// (The share a grown disk no longer has, and a site the resolver reports, are checked through the
// storage layer's compliance queries.)
TEST(Compliance, NoPolicyOrAnUnreadableOneAndSitesOfNamespaces) {
  kel::testing::TestHost host;
  host.config().hostSite = "Preferred";
  host.Apply();
  OrsaComplianceHandle* handle = nullptr;
  ASSERT_EQ(NUK_OK, OrsaCompliance_Init(&handle));
  auto check = [&](const std::string& path) {
    ComplianceResult r;
    EXPECT_EQ(NUK_OK, OrsaCompliance_CheckObject(handle, path, "ns", &r));
    return r;
  };
  const std::string disk = host.DatastoreJoin("d.pemo");
  kel::testing::WriteFile(disk, "");
  ASSERT_EQ(0, truncate(disk.c_str(), 4 << 20));
  ComplianceResult r = check(disk);
  EXPECT_TRUE(r.found && r.compliant) << "no policy asks for nothing";
  EXPECT_EQ("", r.policy);
  ApplyPolicyToObject(disk, ParsePolicy("((\"proportionalCapacity\" i25))"));
  ASSERT_EQ(0, truncate(disk.c_str(), 64 << 20));
  EXPECT_NE(std::string::npos, check(disk).reason.find("bytes allocated"));
  ASSERT_EQ(0, WriteObjectAttr(GetFs(), disk, "policy", "((\"bogus\" i1))"));
  r = check(disk);
  EXPECT_TRUE(r.found);
  EXPECT_FALSE(r.compliant) << "a stored policy that no longer parses";

  // A namespace reserves nothing itself; without a resolver this host (site Preferred) serves
  // it, and "None" asks for no site at all.
  const std::string ns = host.DatastoreJoin("ns-dir");
  ASSERT_EQ(0, mkdir(ns.c_str(), 0700));
  ApplyPolicyToObject(
      ns, ParsePolicy("((\"locality\" \"Preferred\") (\"proportionalCapacity\" i100))"));
  EXPECT_TRUE(check(ns).compliant);
  ApplyPolicyToObject(ns, ParsePolicy("((\"locality\" \"None\"))"));
  SetComplianceSiteResolver([](const std::string&) { return std::string(); });
  EXPECT_TRUE(check(ns).compliant);
  SetComplianceSiteResolver(nullptr);

  ComplianceResult unused;
  EXPECT_EQ(NUK_BAD_PARAM, OrsaCompliance_CheckObject(nullptr, disk, "ns", &unused));
  EXPECT_EQ(NUK_BAD_PARAM, OrsaCompliance_Init(nullptr));
  OrsaCompliance_Deinit(handle);
}

}  // namespace
}  // namespace platform
}  // namespace kel
