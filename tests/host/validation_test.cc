#include "host/validation.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <string>

#include "conf/conf.h"
#include "host/testing/fake_validation_env.h"
#include "placement/affinity.h"
#include "platform/exception.h"
#include "platform/log.h"
#include "tests/support/test_host.h"

namespace {

namespace Util = NukCtl::Orsa::IscsiTarget::Util;
using HostCtl::Lib::Orsa::OrsaCtlException;
using HostCtl::Orsa::IscsiTarget::DefaultInfo;
using HostCtl::Orsa::IscsiTarget::LunInfo;
using HostCtl::Orsa::IscsiTarget::TargetCreateParam;
using HostCtl::Orsa::IscsiTarget::TargetInfo;
using kel::testing::ErrorOf;
using kel::testing::LoadConfText;
using kel::testing::WriteConfText;

const char kOk[] = "";  // what ErrorOf says of a call that throws nothing

const char kSecretRule[] =
    "User secret should meet all these requirements: 1) 12 to 16 characters in length, 2) minimum "
    "1 uppercase character, 3) minimum 1 lowercase character, 4) minimum 1 numeric digit, 5) "
    "minimum 1 special character( !, @, #, $, %, &, ^ and *), 6) only visible ASCII characters "
    "including space (excluding non-printing control characters such as BEL, Nul,...), 7) cannot "
    "start or end with spaces.";
const char kUserRule[] =
    "Username should meet all these requirements: 1) must contain at least one character; 2) "
    "special characters allowed are ( _, ., -, @, :); 3) cannot start with special characters.";

std::string IqnOfLength(size_t length) {
  std::string iqn = "iqn.2024-01.com.example:";
  return iqn.append(length - iqn.size(), 'x');
}

std::string TargetError(const std::string& iqn, const std::string& alias,
                        const std::string& user = "", const std::string& secret = "") {
  TargetCreateParam p;
  p.iqn = iqn;
  p.alias = alias;
  p.chapName = user;
  p.chapSecret = secret;
  return ErrorOf([&] { Util::VerifyTargetParams(p); });
}

TEST(Validation, TargetIqnAndAlias) {
  const std::string iqn = "iqn.2024-01.com.example:t1";
  const std::string format =
      "'. Permitted characters A-Z, a-z, 0-9, '.', ':', '-' Expected format : "
      "iqn.YYYY-MM.domain:TargetName.";
  EXPECT_EQ(TargetError(iqn, "t"), kOk);
  EXPECT_EQ(TargetError("iqn.1998-12.com.example", "t"), kOk);
  for (const std::string bad : {"eui.2024-01.com.example:t", "iqn.2024-13.x", "iqn.24-01.x",
                                "IQN.2024-01.x", "iqn.2024-01.a b", "iqn.2024-01.x:t\n", ""}) {
    EXPECT_EQ(TargetError(bad, "t"), "Invalid IQN '" + bad + format);
  }
  EXPECT_EQ(TargetError(IqnOfLength(223), "t"), kOk);
  EXPECT_EQ(
      TargetError(IqnOfLength(224), "t"),
      "Invalid IQN '" + IqnOfLength(224) + "'. Permitted length should be less than 224 bytes.");

  EXPECT_EQ(TargetError(iqn, std::string(127, 'a')), kOk);
  EXPECT_EQ(TargetError(iqn, std::string(128, 'a')),
            "Invalid alias '" + std::string(128, 'a') +
                "'. Permitted length should be less than 128 bytes.");
  EXPECT_EQ(TargetError(iqn, ""),
            "Invalid alias ''. Permitted length should be larger than 1 bytes.");
  EXPECT_EQ(TargetError(iqn, " \t\n"),
            "Invalid alias ' \t\n'. The alias should not contain only whitespaces.");
  EXPECT_EQ(TargetError(iqn, " # {x} "), kOk);
  // Double quotes, checked in field order and before the whitespace rule.
  EXPECT_EQ(TargetError(iqn, "  \"  ", "u\""), "'\"' not permitted in alias");
  EXPECT_EQ(TargetError(iqn, "   ", "u\"", "s\""), "'\"' not permitted in userid");
  EXPECT_EQ(TargetError(iqn, "   ", "u", "s\""), "'\"' not permitted in secret");
  TargetCreateParam p;
  p.iqn = iqn;
  p.alias = "t";
  p.mutualChapName = "m\"";
  EXPECT_EQ(ErrorOf([&] { Util::VerifyTargetParams(p); }), "'\"' not permitted in mutual userid");
  p.mutualChapName = "m";
  p.mutualChapSecret = "x\"";
  EXPECT_EQ(ErrorOf([&] { Util::VerifyTargetParams(p); }), "'\"' not permitted in mutual secret");
  // A NUL cannot reach the file.
  EXPECT_EQ(TargetError(iqn, std::string("a\0b", 3)),
            "Invalid alias. NUL characters are not permitted.");
}

std::string AuthError(const std::string& type, const std::string& user, const std::string& secret,
                      const std::string& muser, const std::string& msecret) {
  TargetCreateParam p;
  p.alias = "t1";
  p.authType = type;
  p.chapName = user;
  p.chapSecret = secret;
  p.mutualChapName = muser;
  p.mutualChapSecret = msecret;
  return ErrorOf([&] { Util::VerifyTargetAuthParams(p); });
}

TEST(Validation, AuthTuplesInOrder) {
  const std::string good = "Abcdefghij1!";
  const std::string good2 = "Zyxwvutsrq9#x";
  for (const std::string type : {"", "No-Authentication"}) {
    const std::string pre =
        "Failed to verify authentication type " + type + " for target t1 with error: ";
    EXPECT_EQ(AuthError(type, "", "", "", ""), kOk);
    EXPECT_EQ(AuthError(type, "x", "x", "x", "x"), pre + "User id should not be provided.");
    EXPECT_EQ(AuthError(type, "", "x", "x", "x"), pre + "Secret should not be provided.");
    EXPECT_EQ(AuthError(type, "", "", "x", "x"), pre + "Mutual user id should not be provided.");
    EXPECT_EQ(AuthError(type, "", "", "", "x"), pre + "Mutual secret should not be provided.");
  }
  const std::string chap = "Failed to verify authentication type CHAP for target t1 with error: ";
  EXPECT_EQ(AuthError("CHAP", "u.s-e_r@x:y", good, "", ""), kOk);
  EXPECT_EQ(AuthError("CHAP", "", "", "m", ""), chap + "User id should not be empty.");
  EXPECT_EQ(AuthError("CHAP", "u", "", "m", ""), chap + "Secret should not be empty.");
  EXPECT_EQ(AuthError("CHAP", "u", "bad", "m", ""),
            chap + "Mutual user id should not be provided.");
  EXPECT_EQ(AuthError("CHAP", "u", "bad", "", "x"), chap + "Mutual secret should not be provided.");
  EXPECT_EQ(AuthError("CHAP", "_u", "bad", "", ""), chap + kUserRule);
  EXPECT_EQ(AuthError("CHAP", "u r", good, "", ""), chap + kUserRule);
  EXPECT_EQ(AuthError("CHAP", "u", "bad", "", ""), chap + kSecretRule);

  const std::string mutual =
      "Failed to verify authentication type CHAP-Mutual for target t1 with error: ";
  EXPECT_EQ(AuthError("CHAP-Mutual", "u", good, "m", good2), kOk);
  EXPECT_EQ(AuthError("CHAP-Mutual", "", "", "", ""), mutual + "User id should not be empty.");
  EXPECT_EQ(AuthError("CHAP-Mutual", "u", "", "", ""), mutual + "Secret should not be empty.");
  EXPECT_EQ(AuthError("CHAP-Mutual", "u", "s", "", ""),
            mutual + "Mutual user id should not be empty.");
  EXPECT_EQ(AuthError("CHAP-Mutual", "u", "s", "m", ""),
            mutual + "Mutual secret should not be empty.");
  // Equal secrets fail before any pattern check; then user, mutual user, secret, mutual secret.
  EXPECT_EQ(AuthError("CHAP-Mutual", "_u", "x", "_m", "x"),
            mutual + "Outgoing and incoming CHAP secret could not be the same.");
  EXPECT_EQ(AuthError("CHAP-Mutual", "u", "x", "_m", "y"), mutual + kUserRule);
  EXPECT_EQ(AuthError("CHAP-Mutual", "u", "x", "m", good2), mutual + kSecretRule);
  EXPECT_EQ(AuthError("CHAP-Mutual", "u", good, "m", "y"), mutual + kSecretRule);
  EXPECT_EQ(AuthError("chap", "u", good, "", ""),
            "Failed to verify authentication type chap for target t1 with error: Found invalid "
            "auth type chap");

  DefaultInfo d;
  d.authType = "CHAP";
  d.chapName = "user";
  d.chapSecret = good;
  EXPECT_EQ(ErrorOf([&] { Util::VerifyDefaultAuthParams(d); }), kOk);
  d.mutualChapName = "m";
  EXPECT_EQ(ErrorOf([&] { Util::VerifyDefaultAuthParams(d); }),
            "Failed to verify default authentication type CHAP with error: Mutual user id should "
            "not be provided.");
}

TEST(Validation, SecretPattern) {
  auto ok = [](const std::string& s) { return AuthError("CHAP", "u", s, "", "") == kOk; };
  EXPECT_FALSE(ok("Abcdefghi1!"));        // 11
  EXPECT_TRUE(ok("Abcdefghij1!"));        // 12
  EXPECT_TRUE(ok("Abcdefghijklmn1!"));    // 16
  EXPECT_FALSE(ok("Abcdefghijklmno1!"));  // 17
  EXPECT_FALSE(ok("abcdefghij1!"));       // no upper case
  EXPECT_FALSE(ok("ABCDEFGHIJ1!"));       // no lower case
  EXPECT_FALSE(ok("Abcdefghijk!"));       // no digit
  EXPECT_FALSE(ok("Abcdefghijk1("));      // '(' is not a special character
  for (char special : std::string("!@#$%^&*"))
    EXPECT_TRUE(ok(std::string("Abcdefghij1") + special));
  EXPECT_TRUE(ok("AbcdefGhijk1!"));
  EXPECT_TRUE(ok("Abcdef Ghijk1!"));
  EXPECT_FALSE(ok("AbcdefGhijk1! "));
  EXPECT_FALSE(ok(" AbcdefGhijk1!"));
  EXPECT_TRUE(ok("\tAbcdefGhijk1!"));  // only the space is a blank
  EXPECT_FALSE(ok(std::string("Abcdef\0Ghijk1!", 14)));
}

TEST(Validation, NetworkInterfaceAndPort) {
  Util::ScopedFakeValidationEnv env;
  env->nics = {"nuk0", "eth0:1", "br-lan.10@x"};
  auto check = [](const std::string& nic, int port) {
    return ErrorOf([&] { Util::VerifyNetworkConfig(nic, port); });
  };
  const std::string range = ", valid port range is 1024 < port <= 65535";
  EXPECT_EQ(check("", 3260), kOk);
  EXPECT_EQ(check("nuk0", 1025), kOk);
  EXPECT_EQ(check("nuk0", 65535), kOk);
  EXPECT_EQ(check("br-lan.10@x", 3261), kOk);
  EXPECT_EQ(check("nuk0", 1024), "Invalid port 1024 provided for interface nuk0" + range);
  EXPECT_EQ(check("nuk0", 65536), "Invalid port 65536 provided for interface nuk0" + range);
  EXPECT_EQ(check("nuk0", -1), "Invalid port -1 provided for interface nuk0" + range);
  EXPECT_EQ(check("nuk2", 1), "Network interface nuk2 is not available on this host");
  // Present on the host but not writable as a bare word in kel.conf.
  EXPECT_EQ(check("eth0:1", 3260),
            "Invalid network interface name 'eth0:1'. Allowed characters are A-Z, a-z, 0-9, '.', "
            "'-', '_', '@'");
  kel::log::LogCapture capture;
  EXPECT_EQ(check("", 3261), "Network interface is not provided for port 3261");
  EXPECT_EQ(check("", -5), "Network interface is not provided for port -5");
  ASSERT_EQ(capture.Records().size(), 2u);
  EXPECT_EQ(capture.Records()[0].text, "Util: Network interface is not provided for port 3261");
  EXPECT_EQ(capture.Records()[0].level, kel::log::Level::kError);
}

TEST(Validation, InitiatorAndGroupNames) {
  EXPECT_TRUE(Util::IsValidInitiatorIQN("eui.2024-01.com.example:host"));
  EXPECT_FALSE(Util::IsValidInitiatorIQN("eui.0123456789ABCDEF"));
  EXPECT_FALSE(Util::IsValidInitiatorIQN("iqn.2024-01.com.example:h x"));
  auto iqn = [](const std::string& n) { return ErrorOf([&] { Util::ValidateInitiatorIQN(n); }); };
  EXPECT_EQ(iqn(IqnOfLength(223)), kOk);
  EXPECT_EQ(iqn(IqnOfLength(224)), "Invalid initiator IQN '" + IqnOfLength(224) +
                                       "'. Maximum permitted length is 223 bytes.");
  EXPECT_EQ(iqn("host1"),
            "Invalid initiator IQN: 'host1'. Expected format for initiator IQN is "
            "'iqn.YYYY-MM.domain:initiatorName' or 'eui.YYYY-MM.domain:initiatorName'");

  auto group = [](const std::string& n) {
    return ErrorOf([&] { Util::ValidateInitiatorGroupName(n); });
  };
  const std::string chars =
      "'. Allowed characters are A-Z, a-z, 0-9, '.', ':', '-', '_', and cannot be all digits";
  EXPECT_EQ(group("group-1_a.b:c"), kOk);
  EXPECT_EQ(group("12345"), "Invalid initiator group name '12345" + chars);
  EXPECT_EQ(group(""), "Invalid initiator group name '" + chars);
  EXPECT_EQ(group("a b"), "Invalid initiator group name 'a b" + chars);
  EXPECT_EQ(group(std::string(223, 'g')), kOk);
  EXPECT_EQ(group(std::string(224, 'g')), "Invalid initiator group name '" + std::string(224, 'g') +
                                              "'. Maximum permitted length is 223 bytes.");
  EXPECT_EQ(group("IQN.x"),
            "Invalid initiator group name 'IQN.x'. Initiator group name cannot "
            "start with 'iqn.' or 'eui.'");
  EXPECT_EQ(group("eUi.x"),
            "Invalid initiator group name 'eUi.x'. Initiator group name cannot "
            "start with 'iqn.' or 'eui.'");
  // Keywords of kel.conf cannot be written as a bare group name.
  EXPECT_EQ(group("initiator-group"),
            "Invalid initiator group name 'initiator-group'. It is a "
            "reserved word of the configuration file.");
  EXPECT_EQ(group("LUN"), kOk);
}

TEST(Validation, LunPolicyAndSite) {
  Util::ScopedFakeValidationEnv env;
  TargetInfo pref, nonpref, none;
  pref.affinitySite = "Preferred";
  nonpref.affinitySite = "NonPreferred";
  none.affinitySite = "None";
  env->targets = {{"tp", pref}, {"tn", nonpref}, {"tx", none}, {"t0", TargetInfo()}};

  LunInfo lun;
  lun.alias = "a\"b";
  EXPECT_EQ(ErrorOf([&] { Util::VerifyLunParams(lun, true); }), "'\"' not permitted in alias");
  // Creation without a policy takes the default and looks at nothing else; update checks nothing.
  lun.alias = "disk 1";
  lun.targetAlias = "missing";
  EXPECT_EQ(ErrorOf([&] { Util::VerifyLunParams(lun, true); }), kOk);
  EXPECT_EQ(lun.storagePolicy, env->defaultPolicy);
  lun.storagePolicy.clear();
  EXPECT_EQ(ErrorOf([&] { Util::VerifyLunParams(lun, false); }), kOk);
  EXPECT_TRUE(lun.storagePolicy.empty());
  EXPECT_EQ(env->targetLookups, 0);
  EXPECT_TRUE(env->verifiedPolicies.empty());
  // The policy check comes first and its message passes through.
  lun.storagePolicy = "((\"bogus\" i1))";
  env->policyError = "Unknown policy rule 'bogus'";
  EXPECT_EQ(ErrorOf([&] { Util::VerifyLunParams(lun, true); }), "Unknown policy rule 'bogus'");
  EXPECT_EQ(env->targetLookups, 0);
  env->policyError.clear();

  const std::string p = "((\"proportionalCapacity\" i50) (\"locality\" \"Preferred\"))";
  const std::string n = "((\"locality\" \"NonPreferred\"))";
  const std::string mismatch = "Incompatible between target location and lun policy locality";
  const struct {
    const char* target;
    std::string policy;
    std::string expected;
  } cases[] = {{"tp", p, kOk},          {"tp", n, mismatch},
               {"tn", p, mismatch},     {"tn", n, kOk},
               {"tx", n, kOk},          {"t0", n, kOk},
               {"tn", n + p, mismatch}, {"tp", "((\"locality\"  \"NonPreferred\"))", kOk}};
  for (const auto& c : cases) {
    lun.targetAlias = c.target;
    lun.storagePolicy = c.policy;
    EXPECT_EQ(ErrorOf([&] { Util::VerifyLunParams(lun, true); }), c.expected)
        << c.target << c.policy;
    // A new target with that site and policy follows the same rule.
    TargetCreateParam t;
    t.affinitySite = env->targets[c.target].affinitySite;
    t.storagePolicy = c.policy;
    EXPECT_EQ(ErrorOf([&] { Util::VerifyNewTargetAffinity(t); }),
              c.expected.empty() ? kOk : "Incompatible between Target location and policy locality")
        << c.target << c.policy;
  }
}

TEST(Validation, LunRemoveNeedsTheBackingFile) {
  Util::ScopedFakeValidationEnv env;
  LunInfo a, b;
  a.id = 1;
  a.path = "/ds/t/a.pemo";
  b.id = 3;
  b.path = "/ds/t/b.pemo";
  env->luns["t1"] = {a, b};
  env->paths = {"/ds/t/a.pemo"};
  EXPECT_EQ(ErrorOf([] { Util::VerifyLunRemoveParam(1, "t1"); }), kOk);
  EXPECT_EQ(ErrorOf([] { Util::VerifyLunRemoveParam(3, "t1"); }),
            "Failed to find path /ds/t/b.pemo for LUN 3 of target t1");
  EXPECT_EQ(ErrorOf([] { Util::VerifyLunRemoveParam(7, "t1"); }),
            "Failed to find path  for LUN 7 of target t1");
}

TEST(Validation, LunSizes) {
  EXPECT_EQ(Util::GetLunSizeInSectors("1MB"), 1954u);
  EXPECT_EQ(Util::GetLunSizeInSectors("2MB"), 3908u);  // rounded per unit, not per total
  EXPECT_EQ(Util::GetLunSizeInSectors("10mib"), 20480u);
  EXPECT_EQ(Util::GetLunSizeInSectors("3tb"), 3ULL * 1953125000ULL);
  EXPECT_EQ(Util::GetLunSizeInSectors("007gIb"), 7u * 2097152u);
  auto check = [](const std::string& s) { return ErrorOf([&] { Util::GetLunSizeInSectors(s); }); };
  const std::string pre = "Failed to validate LUN size: ";
  const std::string units =
      ". Valid units: MB, GB, TB, MiB, GiB, TiB. Fractional sizes not permitted.";
  EXPECT_EQ(check("0GB"), pre + "LUN size must be greater than 0.");
  EXPECT_EQ(check("MB"), pre + "LUN size must be greater than 0.");
  EXPECT_EQ(check("1.5GB"), pre + "Invalid size unit: .5GB" + units);
  EXPECT_EQ(check("100"), pre + "Invalid size unit: " + units);
  EXPECT_EQ(check("-1GB"), pre + "Invalid size unit: -1GB" + units);
  const std::string range = pre + "Failed to process size string: Numerical result out of range";
  EXPECT_EQ(check("18446744073709551616MB"), range);  // does not convert
  EXPECT_EQ(check("18446744073709551615MB"), range);  // converts, the product would wrap
  EXPECT_EQ(check("9007199254740992TiB"), range);     // would wrap to exactly 0
  const uint64_t max_mib = static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) / 2048;
  EXPECT_EQ(Util::GetLunSizeInSectors(std::to_string(max_mib) + "MiB"), max_mib * 2048);
  EXPECT_EQ(check(std::to_string(max_mib + 1) + "MiB"), range);

  EXPECT_EQ(Util::GetUnitValueFromString("mib"), 1048576u);
  EXPECT_EQ(Util::GetUnitValueFromString(std::string("TiB")), 1099511627776u);
  EXPECT_EQ(ErrorOf([] { Util::GetUnitValueFromString("KiB"); }), "Invalid unit : KiB");
  EXPECT_EQ(ErrorOf([] { Util::GetUnitValueFromString(static_cast<const char*>(nullptr)); }),
            "Invalid unit : ");
}

TEST(Validation, Environment) {
  const std::string bad =
      "Bad Orsa iSCSI target namespace configuration detected. Recreate namespace before enabling "
      "Orsa iSCSI Target.";
  {
    Util::ScopedFakeValidationEnv env;
    kel::log::LogCapture capture;
    env->productEnabled = false;
    EXPECT_EQ(ErrorOf([] { Util::VerifyEnvForEnable(); }), "Orsa is not enabled on this host.");
    EXPECT_EQ(ErrorOf([] { Util::VerifyEnvForNamespaceCreate(); }),
              "Orsa is not enabled on this host.");
    env->productEnabled = true;
    EXPECT_EQ(ErrorOf([] { Util::VerifyEnvForNamespaceCreate(); }), kOk);
    EXPECT_EQ(
        ErrorOf([] { Util::VerifyEnvForEnable(); }),
        "Orsa iSCSI namespace does not exist. Please create namespace if not already created.");
    env->dirs.insert("/ds/.iSCSI-CONFIG");
    EXPECT_EQ(ErrorOf([] { Util::VerifyEnvForEnable(); }), bad);
    EXPECT_TRUE(capture.Contains("Util: Target dir /ds/.iSCSI-CONFIG/targets does not exist"));
    env->dirs.insert("/ds/.iSCSI-CONFIG/targets");
    EXPECT_EQ(ErrorOf([] { Util::VerifyEnvForEnable(); }), bad);
    EXPECT_TRUE(capture.Contains("Util: Etc  dir /ds/.iSCSI-CONFIG/etc/ does not exist"));
    env->dirs.insert("/ds/.iSCSI-CONFIG/etc/");
    EXPECT_EQ(ErrorOf([] { Util::VerifyEnvForEnable(); }), kOk);
  }
  // Without an installed environment the host-dependent checks say so.
  EXPECT_NE(
      ErrorOf([] { Util::VerifyEnvForEnable(); }).find("Validation environment is not installed"),
      std::string::npos);
}

TEST(Validation, FileSafetyMessages) {
  TargetCreateParam p;
  p.affinitySite = "preferred";
  p.status = "on";
  p.uuid = "a b";
  p.initiators = {"iqn.2024-01.com.example:h1", "grp", "iqn.2024-01.x y"};
  EXPECT_EQ(ErrorOf([&] { Util::VerifyTargetConfValues(p); }),
            "Invalid site affinity 'preferred'. Valid values are 'Preferred', 'NonPreferred' and "
            "'None'.");
  p.affinitySite = "NonPreferred";
  EXPECT_EQ(ErrorOf([&] { Util::VerifyTargetConfValues(p); }),
            "Invalid target status 'on'. Valid values are 'online' and 'offline'.");
  p.status = "offline";
  EXPECT_EQ(ErrorOf([&] { Util::VerifyTargetConfValues(p); }),
            "Invalid target uuid 'a b'. Expected 8-4-4-4-12 hexadecimal digits.");
  p.uuid = "0F8E7D6C-5b4a-4392-8170-6f5e4d3c2b1a";
  // An entry that is not an initiator name is taken as a group name.
  EXPECT_EQ(ErrorOf([&] { Util::VerifyTargetConfValues(p); }),
            "Invalid initiator group name 'iqn.2024-01.x y'. Allowed characters are A-Z, a-z, "
            "0-9, '.', ':', '-', '_', and cannot be all digits");
  p.initiators.pop_back();
  EXPECT_EQ(ErrorOf([&] { Util::VerifyTargetConfValues(p); }), kOk);
  EXPECT_EQ(ErrorOf([] { Util::VerifyLunStatus("Offline"); }),
            "Invalid LUN status 'Offline'. Valid values are 'online' and 'offline'.");
}

// ---- what validation accepts must survive a trip through the kel.conf writer and grammar
// unchanged; what it refuses is exactly what would not ----

// Everything caller text can become in kel.conf.
struct Values {
  std::string iqn = "iqn.2024-01.com.example:t1";
  std::string alias = "target one";
  std::string uuid = "0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a";
  std::string nic = "nuk1";
  int port = 3261;
  std::string chapUser = "user";
  std::string chapSecret = "Abcdefghij1!";
  std::string mutualUser = "muser";
  std::string mutualSecret = "Zyxwvutsrq9#";
  std::string site = "Preferred";
  std::string targetStatus = "online";
  std::string group = "grp";
  std::string initiator = "iqn.1998-01.com.example:h1";
  std::string lunAlias = "disk one";
  std::string lunStatus = "offline";
};

bool Accepted(const std::function<void()>& check) { return ErrorOf(check).empty(); }

// What validation says about every value of `v`, as the service would run it.
bool ValidationAccepts(const Values& v) {
  Util::ScopedFakeValidationEnv env;
  env->nics = {v.nic};
  TargetCreateParam p;
  p.iqn = v.iqn;
  p.alias = v.alias;
  p.uuid = v.uuid;
  p.networkInterface = v.nic;
  p.port = v.port;
  p.authType = "CHAP-Mutual";
  p.chapName = v.chapUser;
  p.chapSecret = v.chapSecret;
  p.mutualChapName = v.mutualUser;
  p.mutualChapSecret = v.mutualSecret;
  p.affinitySite = v.site;
  p.status = v.targetStatus;
  p.initiators = {v.initiator, v.group};
  LunInfo lun;
  lun.alias = v.lunAlias;
  lun.status = v.lunStatus;
  return Accepted([&] {
    Util::VerifyTargetParams(p);
    Util::VerifyNetworkConfig(p.networkInterface, p.port);
    Util::VerifyTargetAuthParams(p);
    Util::VerifyTargetConfValues(p);
    Util::ValidateInitiatorGroupName(v.group);
    Util::ValidateInitiatorIQN(v.initiator);
    Util::VerifyLunParams(lun, false);
    Util::VerifyLunStatus(lun.status);
  });
}

// A model holding `v` the way the editing operations shape it.
ConfPtr ModelOf(const Values& v) {
  ConfPtr conf = LoadConfText("");
  struct conf* c = conf.get();
  struct initiator_group* ig = initiator_group_new(c, v.group.c_str());
  initiator_new(ig, v.initiator.c_str());
  struct auth_group* ag = auth_group_new(c, v.uuid.c_str());
  auth_new_chap_mutual(ag, v.chapUser.c_str(), v.chapSecret.c_str(), v.mutualUser.c_str(),
                       v.mutualSecret.c_str(), false);
  auth_group_igroup_ref_add(c, ag, v.group.c_str());
  auth_name_new(ag, v.initiator.c_str());
  const std::string pg_name = "pg-" + v.nic + "-" + std::to_string(v.port);
  struct portal_group* pg = portal_group_new(c, pg_name.c_str());
  pg->pg_discovery_auth_group = auth_group_find(c, "no-authentication");
  portal_group_add_listen(pg, (v.nic + ":" + std::to_string(v.port)).c_str(), false);
  struct target* t = target_new(c, v.iqn.c_str());
  if (t == nullptr) return nullptr;
  t->t_alias = checked_strdup(v.alias.c_str());
  t->t_auth_group = ag;
  port_new(c, t, pg);
  target_option_new(t, "uuid", v.uuid.c_str());
  target_option_new(t, "fault-domain", v.site.c_str());
  target_option_new(t, "status", v.targetStatus.c_str());
  char name[512];
  keld_target_lun_name(name, sizeof(name), t->t_name, 1);
  struct lun* l = lun_new(c, name);
  t->t_luns[1] = l;
  lun_set_keld_lun(l, 1);
  lun_set_backend(l, "pemo");
  lun_set_path(l, (v.uuid + "/aaaa.pemo").c_str());
  lun_set_size(l, 2048);
  option_new(&l->l_options, "lun-alias", v.lunAlias.c_str());
  option_new(&l->l_options, "status", v.lunStatus.c_str());
  return conf;
}

// True when the model of `v`, written and read back, holds every value unchanged: the text the
// read-back model writes is the same text (the writer prints each value it holds, secrets
// base64-encoded), and the target's name, alias, secret and interface are still `v`'s (a NUL, or
// a listen address the model refuses, would have lost them before the writer saw them).
::testing::AssertionResult SurvivesRoundTrip(const Values& v) {
  ConfPtr model = ModelOf(v);
  if (!model) return ::testing::AssertionFailure() << "the model refuses the name";
  const std::string text = WriteConfText(model.get());
  ConfPtr back;
  try {
    back = LoadConfText(text);
  } catch (const OrsaCtlException& e) {
    return ::testing::AssertionFailure() << e.GetMessage() << "\n" << text;
  }
  if (!back) return ::testing::AssertionFailure() << "does not parse back:\n" << text;
  const struct target* t = TAILQ_FIRST(&back->conf_targets);
  if (t == nullptr) return ::testing::AssertionFailure() << "no target:\n" << text;
  const struct auth* a =
      t->t_auth_group != nullptr ? TAILQ_FIRST(&t->t_auth_group->ag_auths) : nullptr;
  const struct port* p = keld_target_to_port(t);
  const struct portal* portal =
      p != nullptr ? TAILQ_FIRST(&p->p_portal_group->pg_portals) : nullptr;
  if (a == nullptr || portal == nullptr || v.iqn != t->t_name || t->t_alias == nullptr ||
      v.alias != t->t_alias || v.chapSecret != a->a_secret || v.nic != portal->p_host) {
    return ::testing::AssertionFailure() << "name, alias, secret or interface changed:\n" << text;
  }
  const std::string again = WriteConfText(back.get());
  if (again != text) return ::testing::AssertionFailure() << text << "\nbecame\n" << again;
  return ::testing::AssertionSuccess();
}

TEST(ValidationConfRoundTrip, AcceptedValuesReadBackUnchanged) {
  std::vector<std::function<void(Values&)>> edits = {
      [](Values&) {},
      [](Values& v) { v.alias = std::string(127, 'x'); },
      [](Values& v) { v.alias = " # not a comment { } ; 'single' \\ back"; },
      [](Values& v) { v.alias = "line one\nline two\r\n\ttabbed"; },
      [](Values& v) { v.alias = "caf\xc3\xa9 \xe2\x9c\x93"; },
      [](Values& v) { v.alias = "target"; },
      [](Values& v) { v.lunAlias = " # { } ; \\ \n x"; },
      [](Values& v) { v.lunAlias = "lun"; },
      [](Values& v) { v.iqn = "iqn.2024-01.com.example:" + std::string(198, 'x'); },
      [](Values& v) { v.iqn = "iqn.2024-01.a-b.c:d:e.f-g"; },
      [](Values& v) { v.nic = "br-lan.10@x_1"; },
      [](Values& v) {
        v.nic = "A9";
        v.port = 65535;
      },
      [](Values& v) { v.chapUser = "u.s-e_r@x:y"; },
      [](Values& v) { v.chapUser = "lun"; },
      [](Values& v) { v.chapSecret = "Ab1!@#$%^&*x y"; },
      [](Values& v) {
        v.chapSecret = "Abcdef\"ghij1!";
        v.mutualSecret = "Zyx wvu#tsrq9";
      },
      [](Values& v) { v.site = "NonPreferred"; },
      [](Values& v) {
        v.targetStatus = "offline";
        v.lunStatus = "online";
      },
      [](Values& v) { v.group = "a:b.c_d-e"; },
      [](Values& v) { v.group = "9a"; },
      [](Values& v) { v.group = "LUN"; },
      [](Values& v) { v.group = std::string(223, 'g'); },
      [](Values& v) { v.initiator = "eui.2020-01.com.example:e1"; },
      [](Values& v) { v.initiator = "iqn.1998-01.com.example:" + std::string(199, 'h'); },
      [](Values& v) { v.uuid = "0F8E7D6C-5B4A-4392-8170-6F5E4D3C2B1A"; },
  };
  for (size_t i = 0; i < edits.size(); ++i) {
    Values v;
    edits[i](v);
    // A double quote in a secret is refused by validation although base64 would carry it; every
    // other case here is accepted.
    if (v.chapSecret.find('"') != std::string::npos) {
      EXPECT_FALSE(ValidationAccepts(v)) << "case " << i;
    } else {
      EXPECT_TRUE(ValidationAccepts(v)) << "case " << i;
    }
    EXPECT_TRUE(SurvivesRoundTrip(v)) << "case " << i;
  }
  // A 223-byte IQN passes validation but not the model's name check (222): the edit is refused
  // before anything is written, never written half.
  Values longest;
  longest.iqn = "iqn.2024-01.com.example:" + std::string(199, 'x');
  EXPECT_TRUE(ValidationAccepts(longest));
  EXPECT_EQ(ModelOf(longest), nullptr);
}

TEST(ValidationConfRoundTrip, RefusedValuesWouldNotReadBack) {
  struct Case {
    const char* why;
    std::function<void(Values&)> edit;
  };
  const std::vector<Case> cases = {
      {"group named like a keyword", [](Values& v) { v.group = "lun"; }},
      {"interface with a colon", [](Values& v) { v.nic = "eth0:1"; }},
      {"interface starting with a hash", [](Values& v) { v.nic = "#br1"; }},
      {"interface with a quote", [](Values& v) { v.nic = "br\"1"; }},
      {"interface starting with a bracket", [](Values& v) { v.nic = "[x]"; }},
      {"site with a blank", [](Values& v) { v.site = "Non Preferred"; }},
      {"site starting with a hash", [](Values& v) { v.site = "#x"; }},
      {"site like a keyword", [](Values& v) { v.site = "lun"; }},
      {"target status with a blank", [](Values& v) { v.targetStatus = "on line"; }},
      {"uuid with a blank", [](Values& v) { v.uuid = "a b"; }},
      {"uuid like a keyword", [](Values& v) { v.uuid = "target"; }},
      {"alias with a NUL", [](Values& v) { v.alias = std::string("ab\0cd", 5); }},
      {"secret with a NUL", [](Values& v) { v.chapSecret = std::string("Abcdef\0ghij1!", 13); }},
  };
  for (const auto& c : cases) {
    Values v;
    c.edit(v);
    EXPECT_FALSE(ValidationAccepts(v)) << c.why;
    EXPECT_FALSE(SurvivesRoundTrip(v)) << c.why << " unexpectedly survives the file";
  }
}

}  // namespace
