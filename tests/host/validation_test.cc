#include "host/validation.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <string>

#include "host/testing/fake_validation_env.h"
#include "host/validation_env.h"
#include "platform/exception.h"
#include "platform/log.h"

namespace {

namespace Util = NukCtl::Orsa::IscsiTarget::Util;
using HostCtl::Lib::Orsa::OrsaCtlException;
using HostCtl::Orsa::IscsiTarget::DefaultInfo;
using HostCtl::Orsa::IscsiTarget::LunInfo;
using HostCtl::Orsa::IscsiTarget::TargetCreateParam;
using HostCtl::Orsa::IscsiTarget::TargetInfo;
using Util::ScopedFakeValidationEnv;

// The message of the exception `fn` throws, or "<no exception>".
std::string ErrorOf(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const OrsaCtlException& e) {
    return e.GetMessage();
  }
  return "<no exception>";
}

const char kOk[] = "<no exception>";

const char kSecretRule[] =
    "User secret should meet all these requirements: 1) 12 to 16 characters in length, 2) minimum "
    "1 uppercase character, 3) minimum 1 lowercase character, 4) minimum 1 numeric digit, 5) "
    "minimum 1 special character( !, @, #, $, %, &, ^ and *), 6) only visible ASCII characters "
    "including space (excluding non-printing control characters such as BEL, Nul,...), 7) cannot "
    "start or end with spaces.";
const char kUserRule[] =
    "Username should meet all these requirements: 1) must contain at least one character; 2) "
    "special characters allowed are ( _, ., -, @, :); 3) cannot start with special characters.";

TargetCreateParam GoodTarget() {
  TargetCreateParam p;
  p.alias = "target1";
  p.iqn = "iqn.2024-01.com.example:target1";
  return p;
}

// An IQN of exactly `length` bytes that matches the target pattern.
std::string IqnOfLength(size_t length) {
  std::string iqn = "iqn.2024-01.com.example:";
  iqn.append(length - iqn.size(), 'x');
  return iqn;
}

TEST(ValidationTargetParams, IqnRules) {
  auto check = [](const std::string& iqn) {
    TargetCreateParam p = GoodTarget();
    p.iqn = iqn;
    return ErrorOf([&] { Util::VerifyTargetParams(p); });
  };
  EXPECT_EQ(check("iqn.2024-01.com.example:target1"), kOk);
  EXPECT_EQ(check("iqn.1998-12.com.example"), kOk);
  EXPECT_EQ(check("iqn.2024-10.a:"), kOk);
  const std::string bad_format =
      "'. Permitted characters A-Z, a-z, 0-9, '.', ':', '-' Expected format : "
      "iqn.YYYY-MM.domain:TargetName.";
  EXPECT_EQ(check("eui.2024-01.com.example:t"),
            "Invalid IQN 'eui.2024-01.com.example:t" + bad_format);
  EXPECT_EQ(check("iqn.2024-13.com.example"), "Invalid IQN 'iqn.2024-13.com.example" + bad_format);
  EXPECT_EQ(check("iqn.2024-00.com.example"), "Invalid IQN 'iqn.2024-00.com.example" + bad_format);
  EXPECT_EQ(check("iqn.24-01.com.example"), "Invalid IQN 'iqn.24-01.com.example" + bad_format);
  EXPECT_EQ(check("IQN.2024-01.com.example"), "Invalid IQN 'IQN.2024-01.com.example" + bad_format);
  EXPECT_EQ(check("iqn.2024-01.com.exa mple"),
            "Invalid IQN 'iqn.2024-01.com.exa mple" + bad_format);
  EXPECT_EQ(check("iqn.2024-01.com.example:t\n"),
            "Invalid IQN 'iqn.2024-01.com.example:t\n" + bad_format);
  EXPECT_EQ(check(""), "Invalid IQN '" + bad_format);

  EXPECT_EQ(check(IqnOfLength(223)), kOk);
  EXPECT_EQ(check(IqnOfLength(224)), "Invalid IQN '" + IqnOfLength(224) +
                                         "'. Permitted length should be less than 224 bytes.");
}

TEST(ValidationTargetParams, AliasRulesInOrder) {
  auto check = [](const TargetCreateParam& p) {
    return ErrorOf([&] { Util::VerifyTargetParams(p); });
  };
  TargetCreateParam p = GoodTarget();
  p.alias = std::string(127, 'a');
  EXPECT_EQ(check(p), kOk);
  p.alias = std::string(128, 'a');
  EXPECT_EQ(check(p),
            "Invalid alias '" + p.alias + "'. Permitted length should be less than 128 bytes.");
  p.alias = "";
  EXPECT_EQ(check(p), "Invalid alias ''. Permitted length should be larger than 1 bytes.");
  p.alias = "a";
  EXPECT_EQ(check(p), kOk);
  p.alias = "   ";
  EXPECT_EQ(check(p), "Invalid alias '   '. The alias should not contain only whitespaces.");
  p.alias = " \t\n";
  EXPECT_EQ(check(p), "Invalid alias ' \t\n'. The alias should not contain only whitespaces.");
  p.alias = " my target # 1 {x} ";
  EXPECT_EQ(check(p), kOk);

  // Double quotes: alias, userid, secret, mutual userid, mutual secret, first one wins; all of
  // them before the whitespace rule.
  p = GoodTarget();
  p.chapName = "u\"";
  p.chapSecret = "s\"";
  p.mutualChapName = "m\"";
  p.mutualChapSecret = "x\"";
  EXPECT_EQ(check(p), "'\"' not permitted in userid");
  p.alias = "  \"  ";
  EXPECT_EQ(check(p), "'\"' not permitted in alias");
  p.alias = "   ";
  EXPECT_EQ(check(p), "'\"' not permitted in userid");
  p.chapName = "u";
  EXPECT_EQ(check(p), "'\"' not permitted in secret");
  p.chapSecret = "s";
  EXPECT_EQ(check(p), "'\"' not permitted in mutual userid");
  p.mutualChapName = "m";
  EXPECT_EQ(check(p), "'\"' not permitted in mutual secret");
  p.mutualChapSecret = "x";
  EXPECT_EQ(check(p), "Invalid alias '   '. The alias should not contain only whitespaces.");

  // A NUL cannot reach the file.
  p = GoodTarget();
  p.alias = std::string("ab\0cd", 5);
  EXPECT_EQ(check(p), "Invalid alias. NUL characters are not permitted.");
}

TEST(ValidationAuth, NoAuthenticationRejectsEveryValueInOrder) {
  for (const std::string type : {"", "No-Authentication"}) {
    TargetCreateParam p = GoodTarget();
    p.authType = type;
    const std::string prefix =
        "Failed to verify authentication type " + type + " for target target1 with error: ";
    EXPECT_EQ(ErrorOf([&] { Util::VerifyTargetAuthParams(p); }), kOk);
    p.mutualChapSecret = "x";
    EXPECT_EQ(ErrorOf([&] { Util::VerifyTargetAuthParams(p); }),
              prefix + "Mutual secret should not be provided.");
    p.mutualChapName = "x";
    EXPECT_EQ(ErrorOf([&] { Util::VerifyTargetAuthParams(p); }),
              prefix + "Mutual user id should not be provided.");
    p.chapSecret = "x";
    EXPECT_EQ(ErrorOf([&] { Util::VerifyTargetAuthParams(p); }),
              prefix + "Secret should not be provided.");
    p.chapName = "x";
    EXPECT_EQ(ErrorOf([&] { Util::VerifyTargetAuthParams(p); }),
              prefix + "User id should not be provided.");
  }
}

TEST(ValidationAuth, ChapAndMutualRules) {
  auto target = [](const std::string& type, const std::string& user, const std::string& secret,
                   const std::string& muser, const std::string& msecret) {
    TargetCreateParam p = GoodTarget();
    p.authType = type;
    p.chapName = user;
    p.chapSecret = secret;
    p.mutualChapName = muser;
    p.mutualChapSecret = msecret;
    return ErrorOf([&] { Util::VerifyTargetAuthParams(p); });
  };
  const std::string chap =
      "Failed to verify authentication type CHAP for target target1 with error: ";
  const std::string mutual =
      "Failed to verify authentication type CHAP-Mutual for target target1 with error: ";
  const std::string good = "Abcdefghij1!";  // 12 characters
  const std::string good2 = "Zyxwvutsrq9#x";

  EXPECT_EQ(target("CHAP", "user", good, "", ""), kOk);
  EXPECT_EQ(target("CHAP", "", "", "m", ""), chap + "User id should not be empty.");
  EXPECT_EQ(target("CHAP", "user", "", "m", ""), chap + "Secret should not be empty.");
  EXPECT_EQ(target("CHAP", "user", "bad", "m", ""),
            chap + "Mutual user id should not be provided.");
  EXPECT_EQ(target("CHAP", "user", "bad", "", "x"), chap + "Mutual secret should not be provided.");
  // User name rule before the secret rule.
  EXPECT_EQ(target("CHAP", "_user", "bad", "", ""), chap + kUserRule);
  EXPECT_EQ(target("CHAP", "us er", good, "", ""), chap + kUserRule);
  EXPECT_EQ(target("CHAP", "u.s-e_r@x:y", good, "", ""), kOk);
  EXPECT_EQ(target("CHAP", "9", good, "", ""), kOk);
  EXPECT_EQ(target("CHAP", "user", "bad", "", ""), chap + kSecretRule);

  EXPECT_EQ(target("CHAP-Mutual", "user", good, "muser", good2), kOk);
  EXPECT_EQ(target("CHAP-Mutual", "", "", "", ""), mutual + "User id should not be empty.");
  EXPECT_EQ(target("CHAP-Mutual", "u", "", "", ""), mutual + "Secret should not be empty.");
  EXPECT_EQ(target("CHAP-Mutual", "u", "s", "", ""),
            mutual + "Mutual user id should not be empty.");
  EXPECT_EQ(target("CHAP-Mutual", "u", "s", "m", ""),
            mutual + "Mutual secret should not be empty.");
  // Equal secrets are refused before any pattern check, even with bad names and secrets.
  EXPECT_EQ(target("CHAP-Mutual", "_u", "x", "_m", "x"),
            mutual + "Outgoing and incoming CHAP secret could not be the same.");
  EXPECT_EQ(target("CHAP-Mutual", "_u", "x", "_m", "y"), mutual + kUserRule);
  EXPECT_EQ(target("CHAP-Mutual", "u", "x", "_m", "y"), mutual + kUserRule);
  EXPECT_EQ(target("CHAP-Mutual", "u", "x", "m", good2), mutual + kSecretRule);
  EXPECT_EQ(target("CHAP-Mutual", "u", good, "m", "y"), mutual + kSecretRule);

  EXPECT_EQ(target("chap", "user", good, "", ""),
            "Failed to verify authentication type chap for target target1 with error: Found "
            "invalid auth type chap");
  EXPECT_EQ(target("None", "", "", "", ""),
            "Failed to verify authentication type None for target target1 with error: Found "
            "invalid auth type None");

  DefaultInfo d;
  d.authType = "CHAP";
  d.chapName = "user";
  d.chapSecret = good;
  EXPECT_EQ(ErrorOf([&] { Util::VerifyDefaultAuthParams(d); }), kOk);
  d.mutualChapName = "m";
  EXPECT_EQ(ErrorOf([&] { Util::VerifyDefaultAuthParams(d); }),
            "Failed to verify default authentication type CHAP with error: Mutual user id should "
            "not be provided.");
  d = DefaultInfo();
  d.authType = "Bogus";
  EXPECT_EQ(ErrorOf([&] { Util::VerifyDefaultAuthParams(d); }),
            "Failed to verify default authentication type Bogus with error: Found invalid auth "
            "type Bogus");
}

TEST(ValidationAuth, SecretPattern) {
  auto secret = [](const std::string& s) {
    TargetCreateParam p = GoodTarget();
    p.authType = "CHAP";
    p.chapName = "user";
    p.chapSecret = s;
    return ErrorOf([&] { Util::VerifyTargetAuthParams(p); }) == kOk;
  };
  EXPECT_FALSE(secret("Abcdefghi1!"));        // 11
  EXPECT_TRUE(secret("Abcdefghij1!"));        // 12
  EXPECT_TRUE(secret("Abcdefghijklmn1!"));    // 16
  EXPECT_FALSE(secret("Abcdefghijklmno1!"));  // 17
  EXPECT_FALSE(secret("abcdefghij1!"));       // no upper case
  EXPECT_FALSE(secret("ABCDEFGHIJ1!"));       // no lower case
  EXPECT_FALSE(secret("Abcdefghijk!"));       // no digit
  EXPECT_FALSE(secret("Abcdefghijk1"));       // no special character
  EXPECT_FALSE(secret("Abcdefghijk1("));      // '(' is not one of the special characters
  for (char special : std::string("!@#$%^&*")) {
    EXPECT_TRUE(secret(std::string("Abcdefghij1") + special)) << special;
  }
  // Eleven letters, one digit and one exclamation mark (13) pass; a leading or trailing blank
  // fails although the pattern itself accepts blanks; inner blanks pass.
  EXPECT_TRUE(secret("AbcdefGhijk1!"));
  EXPECT_FALSE(secret("AbcdefGhijk1! "));
  EXPECT_FALSE(secret(" AbcdefGhijk1!"));
  EXPECT_FALSE(secret("\tAbcdefGhijk1!"));
  EXPECT_TRUE(secret("Abcdef Ghijk1!"));
  EXPECT_FALSE(secret(std::string("Abcdef\0Ghijk1!", 14)));
}

TEST(ValidationNetwork, InterfaceAndPortRules) {
  ScopedFakeValidationEnv env;
  env->nics = {"nuk0", "vmk1", "eth0:1", "br-lan.10@x"};
  auto check = [](const std::string& nic, int port) {
    return ErrorOf([&] { Util::VerifyNetworkConfig(nic, port); });
  };
  EXPECT_EQ(check("", 3260), kOk);
  EXPECT_EQ(check("nuk0", 3260), kOk);
  EXPECT_EQ(check("nuk0", 1025), kOk);
  EXPECT_EQ(check("nuk0", 65535), kOk);
  const std::string range = ", valid port range is 1024 < port <= 65535";
  EXPECT_EQ(check("nuk0", 1024), "Invalid port 1024 provided for interface nuk0" + range);
  EXPECT_EQ(check("nuk0", 65536), "Invalid port 65536 provided for interface nuk0" + range);
  EXPECT_EQ(check("nuk0", -1), "Invalid port -1 provided for interface nuk0" + range);
  EXPECT_EQ(check("nuk0", 0), "Invalid port 0 provided for interface nuk0" + range);
  EXPECT_EQ(check("nuk0", std::numeric_limits<int>::min()),
            "Invalid port -2147483648 provided for interface nuk0" + range);
  EXPECT_EQ(check("nuk2", 3260), "Network interface nuk2 is not available on this host");
  EXPECT_EQ(check("NUK0", 3260), "Network interface NUK0 is not available on this host");
  // Interface existence wins over the port.
  EXPECT_EQ(check("nuk2", 1), "Network interface nuk2 is not available on this host");
  EXPECT_EQ(check("br-lan.10@x", 3261), kOk);
  // A name the host has but that cannot be written bare into kel.conf.
  EXPECT_EQ(check("eth0:1", 3260),
            "Invalid network interface name 'eth0:1'. Allowed characters are A-Z, a-z, 0-9, '.', "
            "'-', '_', '@'");

  kel::log::LogCapture capture;
  EXPECT_EQ(check("", 3261), "Network interface is not provided for port 3261");
  EXPECT_EQ(check("", -5), "Network interface is not provided for port -5");
  EXPECT_EQ(check("", 1025), "Network interface is not provided for port 1025");
  EXPECT_EQ(capture.Count("Util: Network interface is not provided for port 3261"), 1u)
      << capture.Joined();
  EXPECT_EQ(capture.Records().size(), 3u);
  EXPECT_EQ(capture.Records()[0].level, kel::log::Level::kError);
}

TEST(ValidationNetwork, InterfaceNameCharacters) {
  for (const std::string ok : {"", "nuk0", "eth0.100", "br-lan_2", "veth@if5", "A9"}) {
    EXPECT_EQ(ErrorOf([&] { Util::VerifyNetworkInterfaceName(ok); }), kOk) << ok;
  }
  for (const std::string bad : {"eth0:1", "a#b", "a\"b", "a{b", "a b", "[x]", "x/y", "a;b", "é"}) {
    EXPECT_EQ(ErrorOf([&] { Util::VerifyNetworkInterfaceName(bad); }),
              "Invalid network interface name '" + bad +
                  "'. Allowed characters are A-Z, a-z, 0-9, '.', '-', '_', '@'")
        << bad;
  }
}

TEST(ValidationInitiators, InitiatorNames) {
  EXPECT_TRUE(Util::IsValidInitiatorIQN("iqn.1991-05.com.microsoft:host1"));
  EXPECT_TRUE(Util::IsValidInitiatorIQN("eui.2024-01.com.example:host"));
  EXPECT_TRUE(Util::IsValidInitiatorIQN("eui.2024-01.x"));
  EXPECT_FALSE(Util::IsValidInitiatorIQN("eui.0123456789ABCDEF"));
  EXPECT_FALSE(Util::IsValidInitiatorIQN("iqn.2024-01.com.example:host x"));
  EXPECT_FALSE(Util::IsValidInitiatorIQN("xiqn.2024-01.com.example"));
  EXPECT_FALSE(Util::IsValidInitiatorIQN("IQN.2024-01.com.example"));

  auto check = [](const std::string& name) {
    return ErrorOf([&] { Util::ValidateInitiatorIQN(name); });
  };
  EXPECT_EQ(check("eui.2024-01.com.example:h"), kOk);
  EXPECT_EQ(check(IqnOfLength(223)), kOk);
  EXPECT_EQ(check(IqnOfLength(224)), "Invalid initiator IQN '" + IqnOfLength(224) +
                                         "'. Maximum permitted length is 223 bytes.");
  // Length is checked first, even for a malformed name.
  EXPECT_EQ(check(std::string(300, 'z')), "Invalid initiator IQN '" + std::string(300, 'z') +
                                              "'. Maximum permitted length is 223 bytes.");
  EXPECT_EQ(check("host1"),
            "Invalid initiator IQN: 'host1'. Expected format for initiator IQN is "
            "'iqn.YYYY-MM.domain:initiatorName' or 'eui.YYYY-MM.domain:initiatorName'");
}

TEST(ValidationInitiators, GroupNames) {
  auto check = [](const std::string& name) {
    return ErrorOf([&] { Util::ValidateInitiatorGroupName(name); });
  };
  const std::string chars =
      "'. Allowed characters are A-Z, a-z, 0-9, '.', ':', '-', '_', and cannot be all digits";
  EXPECT_EQ(check("group-1_a.b:c"), kOk);
  EXPECT_EQ(check("12345"), "Invalid initiator group name '12345" + chars);
  EXPECT_EQ(check(""), "Invalid initiator group name '" + chars);
  EXPECT_EQ(check("a b"), "Invalid initiator group name 'a b" + chars);
  EXPECT_EQ(check("a\"b"), "Invalid initiator group name 'a\"b" + chars);
  EXPECT_EQ(check("1a"), kOk);
  EXPECT_EQ(check(std::string(223, 'g')), kOk);
  EXPECT_EQ(check(std::string(224, 'g')), "Invalid initiator group name '" + std::string(224, 'g') +
                                              "'. Maximum permitted length is 223 bytes.");
  // Characters before length: a long name with a blank names the character rule.
  EXPECT_EQ(check(std::string(224, 'g') + " "),
            "Invalid initiator group name '" + std::string(224, 'g') + " " + chars);
  const std::string prefix = "'. Initiator group name cannot start with 'iqn.' or 'eui.'";
  EXPECT_EQ(check("IQN.group"), "Invalid initiator group name 'IQN.group" + prefix);
  EXPECT_EQ(check("eUi.group"), "Invalid initiator group name 'eUi.group" + prefix);
  EXPECT_EQ(check("iqn-group"), kOk);
  EXPECT_TRUE(Util::StartsWithInitiatorIQN("iqn."));
  EXPECT_FALSE(Util::StartsWithInitiatorIQN("x.iqn.a"));

  // Words the configuration file reads as keywords cannot name a group.
  for (const std::string keyword : {"lun", "target", "initiator", "initiator-group", "option",
                                    "chap-mutual", "generation", "tag", "size", "path"}) {
    EXPECT_TRUE(Util::IsConfKeyword(keyword)) << keyword;
    EXPECT_EQ(check(keyword), "Invalid initiator group name '" + keyword +
                                  "'. It is a reserved word of the configuration file.");
  }
  EXPECT_EQ(check("LUN"), kOk);
  EXPECT_EQ(check("lun1"), kOk);
  EXPECT_FALSE(Util::IsConfKeyword("pidfile"));
}

TEST(ValidationLun, PolicyFillAndSiteAgreement) {
  ScopedFakeValidationEnv env;
  TargetInfo preferred;
  preferred.alias = "tp";
  preferred.affinitySite = "Preferred";
  TargetInfo nonpreferred;
  nonpreferred.affinitySite = "NonPreferred";
  TargetInfo none;
  none.affinitySite = "None";
  env->targets = {{"tp", preferred}, {"tn", nonpreferred}, {"tx", none}, {"t0", TargetInfo()}};

  LunInfo lun;
  lun.targetAlias = "tp";
  lun.alias = "has \"quote";
  EXPECT_EQ(ErrorOf([&] { Util::VerifyLunParams(lun, true); }), "'\"' not permitted in alias");
  lun.alias = std::string("a\0b", 3);
  EXPECT_EQ(ErrorOf([&] { Util::VerifyLunParams(lun, true); }),
            "Invalid alias. NUL characters are not permitted.");

  // Creation with no policy: the default is filled in and nothing else is looked at.
  lun.alias = "disk 1";
  EXPECT_EQ(ErrorOf([&] { Util::VerifyLunParams(lun, true); }), kOk);
  EXPECT_EQ(lun.storagePolicy, env->defaultPolicy);
  EXPECT_EQ(env->defaultPolicyCalls, 1);
  EXPECT_TRUE(env->verifiedPolicies.empty());
  EXPECT_EQ(env->targetLookups, 0);

  // Update with no policy: no check at all.
  lun.storagePolicy.clear();
  lun.targetAlias = "missing";
  EXPECT_EQ(ErrorOf([&] { Util::VerifyLunParams(lun, false); }), kOk);
  EXPECT_TRUE(lun.storagePolicy.empty());
  EXPECT_EQ(env->defaultPolicyCalls, 1);
  EXPECT_EQ(env->targetLookups, 0);

  // A policy is verified first; its error passes through unchanged.
  lun.storagePolicy = "((\"bogus\" i1))";
  env->policyError = "Unknown policy rule 'bogus'";
  EXPECT_EQ(ErrorOf([&] { Util::VerifyLunParams(lun, true); }), "Unknown policy rule 'bogus'");
  EXPECT_EQ(env->targetLookups, 0);
  env->policyError.clear();
  // Then the target is looked up; a missing target's error passes through.
  EXPECT_EQ(ErrorOf([&] { Util::VerifyLunParams(lun, false); }), "Target missing not found");

  const std::string pref = "((\"proportionalCapacity\" i50) (\"locality\" \"Preferred\"))";
  const std::string nonpref = "((\"locality\" \"NonPreferred\"))";
  const std::string plain = "((\"proportionalCapacity\" i10))";
  const std::string mismatch = "Incompatible between target location and lun policy locality";
  struct Case {
    const char* target;
    std::string policy;
    std::string expected;
  } cases[] = {
      {"tp", pref, kOk},
      {"tp", nonpref, mismatch},
      {"tp", plain, kOk},
      {"tn", pref, mismatch},
      {"tn", nonpref, kOk},
      {"tn", plain, kOk},
      {"tx", pref, kOk},
      {"tx", nonpref, kOk},
      {"t0", nonpref, kOk},
      // Only the exact text form counts (one blank between the two quoted words).
      {"tp", "((\"locality\"  \"NonPreferred\"))", kOk},
  };
  for (const auto& c : cases) {
    lun.targetAlias = c.target;
    lun.storagePolicy = c.policy;
    EXPECT_EQ(ErrorOf([&] { Util::VerifyLunParams(lun, true); }), c.expected)
        << c.target << " " << c.policy;
    EXPECT_EQ(ErrorOf([&] { Util::VerifyLunPolicyAndAffinity(lun); }), c.expected);
  }
  // A policy naming both localities is judged by the Preferred rule.
  lun.targetAlias = "tn";
  lun.storagePolicy = nonpref + pref;
  EXPECT_EQ(ErrorOf([&] { Util::VerifyLunPolicyAndAffinity(lun); }), mismatch);
}

TEST(ValidationLun, RemoveNeedsTheBackingFile) {
  ScopedFakeValidationEnv env;
  LunInfo a;
  a.id = 1;
  a.path = "/ds/t-uuid/a.pemo";
  LunInfo b;
  b.id = 3;
  b.path = "/ds/t-uuid/b.pemo";
  env->luns["t1"] = {a, b};
  env->paths = {"/ds/t-uuid/a.pemo"};
  EXPECT_EQ(ErrorOf([] { Util::VerifyLunRemoveParam(1, "t1"); }), kOk);
  EXPECT_EQ(ErrorOf([] { Util::VerifyLunRemoveParam(3, "t1"); }),
            "Failed to find path /ds/t-uuid/b.pemo for LUN 3 of target t1");
  EXPECT_EQ(ErrorOf([] { Util::VerifyLunRemoveParam(7, "t1"); }),
            "Failed to find path  for LUN 7 of target t1");
  EXPECT_EQ(ErrorOf([] { Util::VerifyLunRemoveParam(1, "nope"); }), "Target nope not found");
}

TEST(ValidationSize, UnitsRoundingAndFailures) {
  EXPECT_EQ(Util::GetLunSizeInSectors("1MB"), 1954u);
  EXPECT_EQ(Util::GetLunSizeInSectors("2MB"), 3908u);  // per unit, not per total
  EXPECT_EQ(Util::GetLunSizeInSectors("10mib"), 20480u);
  EXPECT_EQ(Util::GetLunSizeInSectors("1GB"), 1953125u);
  EXPECT_EQ(Util::GetLunSizeInSectors("3tb"), 3ULL * 1953125000ULL);
  EXPECT_EQ(Util::GetLunSizeInSectors("1GiB"), 2097152u);
  EXPECT_EQ(Util::GetLunSizeInSectors("2TiB"), 2ULL * 2147483648ULL);
  EXPECT_EQ(Util::GetLunSizeInSectors("007gIb"), 7u * 2097152u);

  auto check = [](const std::string& s) { return ErrorOf([&] { Util::GetLunSizeInSectors(s); }); };
  const std::string units =
      ". Valid units: MB, GB, TB, MiB, GiB, TiB. Fractional sizes not permitted.";
  EXPECT_EQ(check("0GB"), "Failed to validate LUN size: LUN size must be greater than 0.");
  EXPECT_EQ(check("MB"), "Failed to validate LUN size: LUN size must be greater than 0.");
  EXPECT_EQ(check("1.5GB"), "Failed to validate LUN size: Invalid size unit: .5GB" + units);
  EXPECT_EQ(check("100"), "Failed to validate LUN size: Invalid size unit: " + units);
  EXPECT_EQ(check(""), "Failed to validate LUN size: Invalid size unit: " + units);
  EXPECT_EQ(check("10 GB"), "Failed to validate LUN size: Invalid size unit:  GB" + units);
  EXPECT_EQ(check("-1GB"), "Failed to validate LUN size: Invalid size unit: -1GB" + units);
  EXPECT_EQ(check("1KB"), "Failed to validate LUN size: Invalid size unit: KB" + units);
  EXPECT_EQ(check("1GBx"), "Failed to validate LUN size: Invalid size unit: GBx" + units);

  const std::string range =
      "Failed to validate LUN size: Failed to process size string: Numerical result out of range";
  EXPECT_EQ(check("18446744073709551616MB"), range);  // 2^64: does not convert
  EXPECT_EQ(check("99999999999999999999999999GiB"), range);
  EXPECT_EQ(check("18446744073709551615MB"), range);  // converts, product would wrap
  EXPECT_EQ(check("9007199254740992TiB"), range);     // 2^53 TiB: wraps to 0 in 64 bits
  // The largest count the model's signed 64-bit sector field holds.
  const uint64_t max_mib = static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) / 2048;
  EXPECT_EQ(Util::GetLunSizeInSectors(std::to_string(max_mib) + "MiB"), max_mib * 2048);
  EXPECT_EQ(check(std::to_string(max_mib + 1) + "MiB"), range);
}

TEST(ValidationSize, UnitLookup) {
  EXPECT_EQ(Util::GetUnitValueFromString("mib"), 1048576u);
  EXPECT_EQ(Util::GetUnitValueFromString(std::string("MB")), 1000000u);
  EXPECT_EQ(Util::GetUnitValueFromString("gb"), 1000000000u);
  EXPECT_EQ(Util::GetUnitValueFromString("Tb"), 1000000000000u);
  EXPECT_EQ(Util::GetUnitValueFromString("GIB"), 1073741824u);
  EXPECT_EQ(Util::GetUnitValueFromString("tib"), 1099511627776u);
  EXPECT_EQ(ErrorOf([] { Util::GetUnitValueFromString("KiB"); }), "Invalid unit : KiB");
  EXPECT_EQ(ErrorOf([] { Util::GetUnitValueFromString(""); }), "Invalid unit : ");
  EXPECT_EQ(ErrorOf([] { Util::GetUnitValueFromString(static_cast<const char*>(nullptr)); }),
            "Invalid unit : ");
  EXPECT_EQ(ErrorOf([] { Util::GetUnitValueFromString(std::string("MB\0", 3)); }),
            std::string("Invalid unit : MB\0", 18));
}

TEST(ValidationEnvironment, EnableAndNamespaceCreate) {
  ScopedFakeValidationEnv env;
  kel::log::LogCapture capture;
  const std::string bad =
      "Bad Orsa iSCSI target namespace configuration detected. Recreate namespace before enabling "
      "Orsa iSCSI Target.";
  env->productEnabled = false;
  EXPECT_EQ(ErrorOf([] { Util::VerifyEnvForEnable(); }), "Orsa is not enabled on this host.");
  EXPECT_EQ(ErrorOf([] { Util::VerifyEnvForNamespaceCreate(); }),
            "Orsa is not enabled on this host.");
  env->productEnabled = true;
  EXPECT_EQ(ErrorOf([] { Util::VerifyEnvForNamespaceCreate(); }), kOk);
  EXPECT_EQ(ErrorOf([] { Util::VerifyEnvForEnable(); }),
            "Orsa iSCSI namespace does not exist. Please create namespace if not already created.");
  env->dirs.insert("/ds/.iSCSI-CONFIG");
  EXPECT_EQ(ErrorOf([] { Util::VerifyEnvForEnable(); }), bad);
  EXPECT_TRUE(capture.Contains("Util: Target dir /ds/.iSCSI-CONFIG/targets does not exist"))
      << capture.Joined();
  env->dirs.insert("/ds/.iSCSI-CONFIG/targets");
  EXPECT_EQ(ErrorOf([] { Util::VerifyEnvForEnable(); }), bad);
  EXPECT_TRUE(capture.Contains("Util: Etc  dir /ds/.iSCSI-CONFIG/etc/ does not exist"))
      << capture.Joined();
  env->dirs.insert("/ds/.iSCSI-CONFIG/etc/");
  EXPECT_EQ(ErrorOf([] { Util::VerifyEnvForEnable(); }), kOk);
}

TEST(ValidationEnvironment, MissingEnvironmentIsAClearError) {
  auto previous = Util::SetValidationEnv(nullptr);
  const std::string message = ErrorOf([] { Util::VerifyEnvForNamespaceCreate(); });
  EXPECT_NE(message.find("Validation environment is not installed"), std::string::npos) << message;
  // Checks that do not need the host still work.
  EXPECT_EQ(ErrorOf([] { Util::VerifyNetworkConfig("", 3260); }), kOk);
  Util::SetValidationEnv(previous);
}

TEST(ValidationFileSafety, TargetValues) {
  for (const std::string site : {"", "Preferred", "NonPreferred", "None"}) {
    EXPECT_EQ(ErrorOf([&] { Util::VerifyAffinitySite(site); }), kOk) << site;
  }
  for (const std::string site : {"preferred", "Preferred ", "a b", "Secondary"}) {
    EXPECT_EQ(ErrorOf([&] { Util::VerifyAffinitySite(site); }),
              "Invalid site affinity '" + site +
                  "'. Valid values are 'Preferred', 'NonPreferred' and 'None'.");
  }
  EXPECT_EQ(ErrorOf([] { Util::VerifyTargetStatus("offline"); }), kOk);
  EXPECT_EQ(ErrorOf([] { Util::VerifyTargetStatus("online x"); }),
            "Invalid target status 'online x'. Valid values are 'online' and 'offline'.");
  EXPECT_EQ(ErrorOf([] { Util::VerifyLunStatus("Offline"); }),
            "Invalid LUN status 'Offline'. Valid values are 'online' and 'offline'.");
  EXPECT_EQ(ErrorOf([] { Util::VerifyLunStatus(""); }), kOk);

  EXPECT_EQ(ErrorOf([] { Util::VerifyTargetUuid("0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a"); }), kOk);
  EXPECT_EQ(ErrorOf([] { Util::VerifyTargetUuid("0F8E7D6C-5B4A-4392-8170-6F5E4D3C2B1A"); }), kOk);
  for (const std::string bad :
       {"lun", "0f8e7d6c5b4a43928170-6f5e4d3c2b1a0", "0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1g",
        "0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a "}) {
    EXPECT_EQ(ErrorOf([&] { Util::VerifyTargetUuid(bad); }),
              "Invalid target uuid '" + bad + "'. Expected 8-4-4-4-12 hexadecimal digits.");
  }

  EXPECT_EQ(ErrorOf([] {
              Util::VerifyTargetInitiators({"iqn.2024-01.com.example:h1", "eui.2024-01.x", "grp"});
            }),
            kOk);
  EXPECT_EQ(ErrorOf([] { Util::VerifyTargetInitiators({"iqn.2024-01.com.example:h 1"}); }),
            "Invalid initiator group name 'iqn.2024-01.com.example:h 1'. Allowed characters are "
            "A-Z, a-z, 0-9, '.', ':', '-', '_', and cannot be all digits");
  EXPECT_EQ(ErrorOf([] {
              Util::VerifyTargetInitiators({"grp", "target"});
            }),
            "Invalid initiator group name 'target'. It is a reserved word of the configuration "
            "file.");
  EXPECT_EQ(
      ErrorOf([] { Util::VerifyTargetInitiators({IqnOfLength(224)}); }),
      "Invalid initiator IQN '" + IqnOfLength(224) + "'. Maximum permitted length is 223 bytes.");

  TargetCreateParam p = GoodTarget();
  p.affinitySite = "x";
  p.status = "y";
  EXPECT_EQ(ErrorOf([&] { Util::VerifyTargetConfValues(p); }),
            "Invalid site affinity 'x'. Valid values are 'Preferred', 'NonPreferred' and 'None'.");
  p.affinitySite = "None";
  EXPECT_EQ(ErrorOf([&] { Util::VerifyTargetConfValues(p); }),
            "Invalid target status 'y'. Valid values are 'online' and 'offline'.");
  p.status = "online";
  p.uuid = "a b";
  EXPECT_EQ(ErrorOf([&] { Util::VerifyTargetConfValues(p); }),
            "Invalid target uuid 'a b'. Expected 8-4-4-4-12 hexadecimal digits.");
  p.uuid.clear();
  p.initiators = {"12"};
  EXPECT_NE(ErrorOf([&] { Util::VerifyTargetConfValues(p); }), kOk);
  p.initiators.clear();
  EXPECT_EQ(ErrorOf([&] { Util::VerifyTargetConfValues(p); }), kOk);
}

}  // namespace
