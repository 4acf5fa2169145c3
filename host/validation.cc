#include "host/validation.h"

#include <strings.h>

#include <array>
#include <boost/regex.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include "host/validation_env.h"
#include "platform/exception.h"
#include "platform/log.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

using HostCtl::Lib::Orsa::OrsaCtlException;
using HostCtl::Orsa::IscsiTarget::DefaultInfo;
using HostCtl::Orsa::IscsiTarget::LunInfo;
using HostCtl::Orsa::IscsiTarget::TargetCreateParam;
using HostCtl::Orsa::IscsiTarget::TargetInfo;

namespace {

const char kTag[] = "Util";

// Compiled once at load and shared; boost::regex is safe for concurrent matching.
const boost::regex kTargetIqnPattern(
    R"(^iqn\.[0-9]{4}\-(0[1-9]|1[0-2])\.[A-Za-z0-9\-\.]+(\:[A-Za-z0-9\-\.\:]*)?)",
    boost::regex::perl);
const boost::regex kEuiPattern(
    R"(^eui\.[0-9]{4}\-(0[1-9]|1[0-2])\.[A-Za-z0-9\-\.]+(\:[A-Za-z0-9\-\.\:]*)?)",
    boost::regex::perl);
const boost::regex kNamePrefixPattern(R"(^([iI][qQ][nN]|[eE][uU][iI])\.)", boost::regex::perl);
const boost::regex kGroupNameCharsPattern(R"([a-zA-Z0-9:._-]*)", boost::regex::perl);
const boost::regex kChapUserPattern(R"(^([a-zA-Z0-9][a-zA-Z0-9_\-.@\:]*)$)", boost::regex::perl);
const boost::regex kChapSecretPattern(
    R"(^(?=.*[A-Z])(?=.*[a-z])(?=.*[0-9])(?=.*[!@#\$%\^&\*]).{12,16}$)", boost::regex::perl);
const boost::regex kAllDigitsPattern(R"(^[0-9]*$)", boost::regex::perl);
const boost::regex kOnlyWhitespacePattern(R"(^\s+$)", boost::regex::perl);

const char kNoAuthentication[] = "No-Authentication";
const char kChap[] = "CHAP";
const char kChapMutual[] = "CHAP-Mutual";

const char kUserNameRule[] =
    "Username should meet all these requirements: 1) must contain at least one character; 2) "
    "special characters allowed are ( _, ., -, @, :); 3) cannot start with special characters.";
const char kSecretRule[] =
    "User secret should meet all these requirements: 1) 12 to 16 characters in length, 2) minimum "
    "1 uppercase character, 3) minimum 1 lowercase character, 4) minimum 1 numeric digit, 5) "
    "minimum 1 special character( !, @, #, $, %, &, ^ and *), 6) only visible ASCII characters "
    "including space (excluding non-printing control characters such as BEL, Nul,...), 7) cannot "
    "start or end with spaces.";

const char kPreferredLocality[] = "\"locality\" \"Preferred\"";
const char kNonPreferredLocality[] = "\"locality\" \"NonPreferred\"";

struct SizeUnit {
  const char* name;
  uint64_t bytes;
};
// Table order is part of the "Valid units" message.
constexpr std::array<SizeUnit, 6> kSizeUnits = {{
    {"MB", 1000000ULL},
    {"GB", 1000000000ULL},
    {"TB", 1000000000000ULL},
    {"MiB", 1048576ULL},
    {"GiB", 1073741824ULL},
    {"TiB", 1099511627776ULL},
}};

// Every keyword the kel.conf scanner knows; a bare word equal to one of them is read as that
// keyword and breaks the statement it stands in.
constexpr std::array<const char*, 36> kConfKeywords = {{
    "alias",
    "auth-group",
    "auth-type",
    "backend",
    "blocksize",
    "chap",
    "chap-mutual",
    "ctl-lun",
    "debug",
    "device-id",
    "device-type",
    "discovery-auth-group",
    "discovery-filter",
    "foreign",
    "initiator-name",
    "initiator",
    "initiator-portal",
    "isns-server",
    "isns-period",
    "isns-timeout",
    "listen",
    "listen-iser",
    "lun",
    "maxproc",
    "option",
    "path",
    "port",
    "portal-group",
    "redirect",
    "serial",
    "size",
    "tag",
    "target",
    "timeout",
    "initiator-group",
    "generation",
}};

[[noreturn]] void Fail(const std::string& message) { throw OrsaCtlException(message); }

bool Matches(const std::string& text, const boost::regex& pattern) {
  return boost::regex_match(text, pattern);
}

bool HasNul(const std::string& text) { return text.find('\0') != std::string::npos; }

// Only the space counts: other control characters are left to the pattern (a leading tab passes).
bool IsBlank(char c) { return c == ' '; }

void CheckNoDoubleQuote(const std::string& value, const char* label) {
  if (value.find('"') != std::string::npos) {
    Fail(std::string("'\"' not permitted in ") + label);
  }
}

// NUL cannot be written into kel.conf: the C model and the writer stop at it.
void CheckNoNul(const std::string& value, const char* label) {
  if (HasNul(value)) {
    Fail(std::string("Invalid ") + label + ". NUL characters are not permitted.");
  }
}

// Offset of the first byte that does not belong to well-formed UTF-8 (overlong forms, surrogates
// and code points above U+10FFFF included), or npos.
size_t InvalidUtf8Offset(const std::string& text) {
  size_t i = 0;
  while (i < text.size()) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    size_t len = 0;
    unsigned char lo = 0x80, hi = 0xbf;  // bounds of the second byte
    if (c < 0x80) {
      ++i;
      continue;
    } else if (c >= 0xc2 && c <= 0xdf) {
      len = 2;
    } else if (c >= 0xe0 && c <= 0xef) {
      len = 3;
      if (c == 0xe0) lo = 0xa0;
      if (c == 0xed) hi = 0x9f;
    } else if (c >= 0xf0 && c <= 0xf4) {
      len = 4;
      if (c == 0xf0) lo = 0x90;
      if (c == 0xf4) hi = 0x8f;
    } else {
      return i;
    }
    if (i + len > text.size()) return i;
    for (size_t k = 1; k < len; ++k) {
      const unsigned char b = static_cast<unsigned char>(text[i + k]);
      if (k == 1 ? (b < lo || b > hi) : (b < 0x80 || b > 0xbf)) return i;
    }
    i += len;
  }
  return std::string::npos;
}

// The text is printed in listings and JSON documents, which must never fail on it afterwards. The
// message names the offending byte rather than echoing it.
void CheckUtf8(const std::string& value, const char* label) {
  const size_t bad = InvalidUtf8Offset(value);
  if (bad == std::string::npos) return;
  char byte[8];
  std::snprintf(byte, sizeof(byte), "0x%02X", static_cast<unsigned char>(value[bad]));
  Fail(std::string("Invalid ") + label + ". It is not valid UTF-8 text (byte " + byte +
       " at offset " + std::to_string(bad) + ").");
}

std::string LengthMessage(const char* label, const std::string& value, const char* reason,
                          size_t bound) {
  return std::string("Invalid ") + label + " '" + value + "'. " + reason + std::to_string(bound) +
         " bytes.";
}

void CheckUserName(const std::string& user) {
  if (!Matches(user, kChapUserPattern)) {
    Fail(kUserNameRule);
  }
}

void CheckSecret(const std::string& secret) {
  // A NUL would pass the pattern but cannot be stored; it is not a visible character either.
  if (!Matches(secret, kChapSecretPattern) || HasNul(secret) || IsBlank(secret.front()) ||
      IsBlank(secret.back())) {
    Fail(kSecretRule);
  }
}

void VerifyAuthTuple(const std::string& type, const std::string& user, const std::string& secret,
                     const std::string& mutualUser, const std::string& mutualSecret) {
  if (type.empty() || type == kNoAuthentication) {
    if (!user.empty()) Fail("User id should not be provided.");
    if (!secret.empty()) Fail("Secret should not be provided.");
    if (!mutualUser.empty()) Fail("Mutual user id should not be provided.");
    if (!mutualSecret.empty()) Fail("Mutual secret should not be provided.");
  } else if (type == kChap) {
    if (user.empty()) Fail("User id should not be empty.");
    if (secret.empty()) Fail("Secret should not be empty.");
    if (!mutualUser.empty()) Fail("Mutual user id should not be provided.");
    if (!mutualSecret.empty()) Fail("Mutual secret should not be provided.");
    CheckUserName(user);
    CheckSecret(secret);
  } else if (type == kChapMutual) {
    if (user.empty()) Fail("User id should not be empty.");
    if (secret.empty()) Fail("Secret should not be empty.");
    if (mutualUser.empty()) Fail("Mutual user id should not be empty.");
    if (mutualSecret.empty()) Fail("Mutual secret should not be empty.");
    if (secret == mutualSecret) Fail("Outgoing and incoming CHAP secret could not be the same.");
    CheckUserName(user);
    CheckUserName(mutualUser);
    CheckSecret(secret);
    CheckSecret(mutualSecret);
  } else {
    Fail("Found invalid auth type " + type);
  }
}

const SizeUnit* FindUnit(const std::string& unit) {
  for (const auto& u : kSizeUnits) {
    if (strcasecmp(unit.c_str(), u.name) == 0 && !HasNul(unit)) {
      return &u;
    }
  }
  return nullptr;
}

bool IsHex(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

std::string FormatMessage(const char* fmt, const std::string& a, int n, const std::string& b) {
  int len = std::snprintf(nullptr, 0, fmt, a.c_str(), n, b.c_str());
  std::string out(static_cast<size_t>(len > 0 ? len : 0), '\0');
  std::snprintf(out.data(), out.size() + 1, fmt, a.c_str(), n, b.c_str());
  return out;
}

}  // namespace

void VerifyTargetParams(const TargetCreateParam& param) {
  // Before any message quotes the alias.
  CheckUtf8(param.alias, "alias");
  if (!Matches(param.iqn, kTargetIqnPattern)) {
    Fail("Invalid IQN '" + param.iqn + "'. Permitted characters A-Z, a-z, 0-9, '.', ':', '-'" +
         " Expected format : iqn.YYYY-MM.domain:TargetName.");
  }
  if (param.iqn.size() > kMaxIqnLength) {
    Fail(LengthMessage("IQN", param.iqn, "Permitted length should be less than ",
                       kMaxIqnLength + 1));
  }
  if (param.alias.size() > kMaxAliasLength) {
    Fail(LengthMessage("alias", param.alias, "Permitted length should be less than ",
                       kMaxAliasLength + 1));
  }
  if (param.alias.empty()) {
    // Kept as is: "larger than 1" although a one-byte alias is accepted.
    Fail(LengthMessage("alias", param.alias, "Permitted length should be larger than ", 1));
  }
  CheckNoDoubleQuote(param.alias, "alias");
  CheckNoDoubleQuote(param.chapName, "userid");
  CheckNoDoubleQuote(param.chapSecret, "secret");
  CheckNoDoubleQuote(param.mutualChapName, "mutual userid");
  CheckNoDoubleQuote(param.mutualChapSecret, "mutual secret");
  if (Matches(param.alias, kOnlyWhitespacePattern)) {
    Fail("Invalid alias '" + param.alias + "'. The alias should not contain only whitespaces.");
  }
  CheckNoNul(param.alias, "alias");
}

void VerifyTargetAuthParams(const TargetCreateParam& param) {
  try {
    VerifyAuthTuple(param.authType, param.chapName, param.chapSecret, param.mutualChapName,
                    param.mutualChapSecret);
  } catch (const OrsaCtlException& e) {
    Fail("Failed to verify authentication type " + param.authType + " for target " + param.alias +
         " with error: " + e.GetMessage());
  }
}

void VerifyDefaultAuthParams(const DefaultInfo& info) {
  try {
    VerifyAuthTuple(info.authType, info.chapName, info.chapSecret, info.mutualChapName,
                    info.mutualChapSecret);
  } catch (const OrsaCtlException& e) {
    Fail("Failed to verify default authentication type " + info.authType +
         " with error: " + e.GetMessage());
  }
}

void VerifyNetworkConfig(const std::string& networkInterface, int port) {
  if (!networkInterface.empty()) {
    bool found = false;
    for (const auto& nic : GetValidationEnv()->NicNames()) {
      if (nic == networkInterface) {
        found = true;
        break;
      }
    }
    if (!found) {
      Fail("Network interface " + networkInterface + " is not available on this host");
    }
    VerifyNetworkInterfaceName(networkInterface);
  }
  if (port == kDefaultIscsiPort) {
    return;
  }
  if (!networkInterface.empty()) {
    // Unsigned on purpose: a negative port wraps to a huge value and fails the upper bound.
    const auto uport = static_cast<uint32_t>(port);
    if (!(uport > 1024u && uport <= 65535u)) {
      Fail("Invalid port " + std::to_string(port) + " provided for interface " + networkInterface +
           ", valid port range is 1024 < port <= 65535");
    }
    return;
  }
  const std::string message = "Network interface is not provided for port " + std::to_string(port);
  LogError("%s: %s\n", kTag, message.c_str());
  Fail(message);
}

bool IsValidInitiatorIQN(const std::string& name) {
  return Matches(name, kTargetIqnPattern) || Matches(name, kEuiPattern);
}

void ValidateInitiatorIQN(const std::string& name) {
  if (name.size() > kMaxIqnLength) {
    char bound[16];
    std::snprintf(bound, sizeof(bound), "%d", static_cast<int>(kMaxIqnLength));
    Fail("Invalid initiator IQN '" + name + "'. Maximum permitted length is " + bound + " bytes.");
  }
  if (!IsValidInitiatorIQN(name)) {
    Fail("Invalid initiator IQN: '" + name +
         "'. Expected format for initiator IQN is 'iqn.YYYY-MM.domain:initiatorName' or "
         "'eui.YYYY-MM.domain:initiatorName'");
  }
}

bool StartsWithInitiatorIQN(const std::string& name) {
  return boost::regex_search(name, kNamePrefixPattern);
}

void ValidateInitiatorGroupName(const std::string& name) {
  if (!Matches(name, kGroupNameCharsPattern) || Matches(name, kAllDigitsPattern)) {
    Fail("Invalid initiator group name '" + name +
         "'. Allowed characters are A-Z, a-z, 0-9, '.', ':', '-', '_', and cannot be all digits");
  }
  if (name.size() > kMaxIqnLength) {
    Fail("Invalid initiator group name '" + name + "'. Maximum permitted length is " +
         std::to_string(kMaxIqnLength) + " bytes.");
  }
  if (StartsWithInitiatorIQN(name)) {
    Fail("Invalid initiator group name '" + name +
         "'. Initiator group name cannot start with 'iqn.' or 'eui.'");
  }
  if (IsConfKeyword(name)) {
    Fail("Invalid initiator group name '" + name +
         "'. It is a reserved word of the configuration file.");
  }
}

void VerifyLunParams(LunInfo& lun, bool fillDefaultPolicy) {
  CheckUtf8(lun.alias, "LUN alias");
  CheckNoDoubleQuote(lun.alias, "alias");
  CheckNoNul(lun.alias, "alias");
  if (lun.alias.size() > kMaxLunAliasLength) {
    Fail(LengthMessage("LUN alias", lun.alias, "Permitted length should be less than ",
                       kMaxLunAliasLength + 1));
  }
  if (lun.storagePolicy.empty()) {
    if (fillDefaultPolicy) {
      lun.storagePolicy = GetValidationEnv()->DatastoreDefaultPolicy();
    }
    return;
  }
  GetValidationEnv()->VerifyPolicy(lun.storagePolicy);
  VerifyLunPolicyAndAffinity(lun);
}

void VerifyLunPolicyAndAffinity(const LunInfo& lun) {
  const TargetInfo target = GetValidationEnv()->GetTargetInfoFromConfFile(lun.targetAlias);
  if (!IsPolicyLocalityCompatible(target.affinitySite, lun.storagePolicy)) {
    Fail("Incompatible between target location and lun policy locality");
  }
}

bool IsPolicyLocalityCompatible(const std::string& site, const std::string& policyText) {
  if (site.empty()) {
    return true;
  }
  if (policyText.find(kPreferredLocality) != std::string::npos) {
    return site != "NonPreferred";
  }
  if (policyText.find(kNonPreferredLocality) != std::string::npos) {
    return site != "Preferred";
  }
  return true;
}

void VerifyLunRemoveParam(int lunId, const std::string& targetName) {
  auto env = GetValidationEnv();
  std::string path;
  for (const auto& lun : env->GetLunsForTarget(targetName)) {
    if (lun.id == lunId) {
      path = lun.path;
      break;
    }
  }
  if (!env->PathExists(path)) {
    Fail(FormatMessage("Failed to find path %s for LUN %d of target %s", path, lunId, targetName));
  }
}

uint64_t GetUnitValueFromString(const char* unit) {
  return GetUnitValueFromString(std::string(unit != nullptr ? unit : ""));
}

uint64_t GetUnitValueFromString(const std::string& unit) {
  const SizeUnit* found = FindUnit(unit);
  if (found == nullptr) {
    Fail("Invalid unit : " + unit);
  }
  return found->bytes;
}

uint64_t GetLunSizeInSectors(const std::string& size) {
  try {
    const size_t split = size.find_first_not_of("0123456789");
    const std::string digits = size.substr(0, split);
    const std::string unit = split == std::string::npos ? std::string() : size.substr(split);

    const SizeUnit* found = FindUnit(unit);
    if (found == nullptr) {
      std::string names;
      for (const auto& u : kSizeUnits) {
        if (!names.empty()) names += ", ";
        names += u.name;
      }
      Fail("Invalid size unit: " + unit + ". Valid units: " + names +
           ". Fractional sizes not permitted.");
    }
    // Each unit is rounded up to whole sectors on its own (1MB = 1954 sectors): intended.
    const uint64_t sectorsPerUnit = (found->bytes + 511) / 512;

    errno = 0;
    const unsigned long long number = std::strtoull(digits.c_str(), nullptr, 10);
    if (errno != 0) {
      Fail(std::string("Failed to process size string: ") + std::strerror(errno));
    }
    // The model keeps sectors in a signed 64-bit field: a product beyond it must not wrap.
    const uint64_t limit = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    if (number != 0 && static_cast<uint64_t>(number) > limit / sectorsPerUnit) {
      Fail(std::string("Failed to process size string: ") + std::strerror(ERANGE));
    }
    const uint64_t sectors = static_cast<uint64_t>(number) * sectorsPerUnit;
    if (sectors == 0) {
      Fail("LUN size must be greater than 0.");
    }
    return sectors;
  } catch (const OrsaCtlException& e) {
    Fail("Failed to validate LUN size: " + e.GetMessage());
  }
}

void VerifyEnvForEnable() {
  auto env = GetValidationEnv();
  if (!env->ProductEnabled()) {
    Fail("Orsa is not enabled on this host.");
  }
  const std::string ns = env->DatastorePath() + "/" + ".iSCSI-CONFIG";
  if (!env->DirExists(ns)) {
    Fail("Orsa iSCSI namespace does not exist. Please create namespace if not already created.");
  }
  const char kBadNamespace[] =
      "Bad Orsa iSCSI target namespace configuration detected. Recreate namespace before "
      "enabling Orsa iSCSI Target.";
  const std::string targetsDir = ns + "/targets";
  if (!env->DirExists(targetsDir)) {
    LogError("%s: Target dir %s does not exist", kTag, targetsDir.c_str());
    Fail(kBadNamespace);
  }
  const std::string etcDir = ns + "/etc/";
  if (!env->DirExists(etcDir)) {
    LogError("%s: Etc  dir %s does not exist", kTag, etcDir.c_str());
    Fail(kBadNamespace);
  }
}

void VerifyEnvForNamespaceCreate() {
  if (!GetValidationEnv()->ProductEnabled()) {
    Fail("Orsa is not enabled on this host.");
  }
}

void VerifyAffinitySite(const std::string& site) {
  if (site.empty() || site == "Preferred" || site == "NonPreferred" || site == "None") {
    return;
  }
  Fail("Invalid site affinity '" + site +
       "'. Valid values are 'Preferred', 'NonPreferred' and 'None'.");
}

namespace {

void VerifyStatusValue(const std::string& status, const char* what) {
  if (status.empty() || status == "online" || status == "offline") {
    return;
  }
  Fail(std::string("Invalid ") + what + " status '" + status +
       "'. Valid values are 'online' and 'offline'.");
}

}  // namespace

void VerifyTargetStatus(const std::string& status) { VerifyStatusValue(status, "target"); }

void VerifyLunStatus(const std::string& status) { VerifyStatusValue(status, "LUN"); }

void VerifyTargetUuid(const std::string& uuid) {
  if (uuid.empty()) {
    return;
  }
  bool ok = uuid.size() == 36;
  for (size_t i = 0; ok && i < uuid.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    ok = dash ? uuid[i] == '-' : IsHex(uuid[i]);
  }
  if (!ok) {
    Fail("Invalid target uuid '" + uuid + "'. Expected 8-4-4-4-12 hexadecimal digits.");
  }
}

void VerifyNetworkInterfaceName(const std::string& name) {
  for (char c : name) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '.' || c == '-' || c == '_' || c == '@';
    if (!ok) {
      Fail("Invalid network interface name '" + name +
           "'. Allowed characters are A-Z, a-z, 0-9, '.', '-', '_', '@'");
    }
  }
}

void VerifyTargetInitiators(const std::vector<std::string>& initiators) {
  for (const auto& entry : initiators) {
    if (IsValidInitiatorIQN(entry)) {
      ValidateInitiatorIQN(entry);
    } else {
      ValidateInitiatorGroupName(entry);
    }
  }
}

void VerifyTargetConfValues(const TargetCreateParam& param) {
  VerifyAffinitySite(param.affinitySite);
  VerifyTargetStatus(param.status);
  VerifyTargetUuid(param.uuid);
  VerifyTargetInitiators(param.initiators);
}

bool IsConfKeyword(const std::string& word) {
  for (const char* keyword : kConfKeywords) {
    if (word == keyword) {
      return true;
    }
  }
  return false;
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
