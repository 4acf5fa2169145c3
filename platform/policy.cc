#include "platform/policy.h"

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "platform/exception.h"
#include "platform/fs.h"
#include "platform/host_config.h"

namespace kel {
namespace platform {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;

const char* const kProportionalCapacity = "proportionalCapacity";
const char* const kLocality = "locality";

// Recursive descent over the policy text; every refusal names the position (1-based) or the rule.
class PolicyParser {
 public:
  explicit PolicyParser(const std::string& text) : text_(text) {}

  StoragePolicy Parse() {
    StoragePolicy policy;
    SkipBlanks();
    if (AtEnd()) return policy;
    Expect('(');
    SkipBlanks();
    while (!AtEnd() && Peek() == '(') {
      ParseRule(&policy);
      SkipBlanks();
    }
    Expect(')');
    SkipBlanks();
    if (!AtEnd()) Refuse("unexpected text after the rule list at position " + Position());
    return policy;
  }

 private:
  void ParseRule(StoragePolicy* policy) {
    Expect('(');
    SkipBlanks();
    if (AtEnd() || Peek() != '"') {
      Refuse("expected a rule name in double quotes at position " + Position());
    }
    std::string name = ParseString();
    SkipBlanks();
    if (name == kProportionalCapacity) {
      if (policy->hasProportionalCapacity) Refuse("duplicate rule \"" + name + "\"");
      if (AtEnd() || Peek() != 'i') {
        Refuse("rule \"proportionalCapacity\" needs an integer value such as i50");
      }
      ++pos_;
      std::string digits;
      if (!AtEnd() && (Peek() == '-' || Peek() == '+')) digits += text_[pos_++];
      while (!AtEnd() && Peek() >= '0' && Peek() <= '9') digits += text_[pos_++];
      if (digits.empty() || digits == "-" || digits == "+") {
        Refuse("rule \"proportionalCapacity\" needs an integer value such as i50");
      }
      // Ten digits cannot be a percentage; avoid overflowing the conversion.
      long value = digits.size() > 9 ? 1000 : strtol(digits.c_str(), nullptr, 10);
      if (value < 0 || value > 100) {
        Refuse("proportionalCapacity must be between 0 and 100, not " + digits);
      }
      policy->hasProportionalCapacity = true;
      policy->proportionalCapacity = static_cast<int>(value);
    } else if (name == kLocality) {
      if (policy->hasLocality) Refuse("duplicate rule \"" + name + "\"");
      if (AtEnd() || Peek() != '"') {
        Refuse("rule \"locality\" needs a value in double quotes such as \"Preferred\"");
      }
      std::string value = ParseString();
      if (value == "Preferred") {
        policy->locality = Locality::kPreferred;
      } else if (value == "NonPreferred") {
        policy->locality = Locality::kNonPreferred;
      } else if (value == "None") {
        policy->locality = Locality::kNone;
      } else {
        Refuse("locality must be \"Preferred\", \"NonPreferred\" or \"None\", not \"" + value +
               "\"");
      }
      policy->hasLocality = true;
    } else {
      Refuse("unknown rule \"" + name + "\" (known rules: \"proportionalCapacity\", \"locality\")");
    }
    SkipBlanks();
    Expect(')');
  }

  std::string ParseString() {
    size_t start = pos_;
    ++pos_;  // opening quote
    size_t end = text_.find('"', pos_);
    if (end == std::string::npos) {
      pos_ = start;
      Refuse("unterminated string at position " + Position());
    }
    std::string value = text_.substr(pos_, end - pos_);
    pos_ = end + 1;
    return value;
  }

  void Expect(char c) {
    if (AtEnd() || Peek() != c) {
      Refuse(std::string("expected '") + c + "' at position " + Position());
    }
    ++pos_;
  }

  void SkipBlanks() {
    while (!AtEnd() && (Peek() == ' ' || Peek() == '\t' || Peek() == '\n' || Peek() == '\r')) {
      ++pos_;
    }
  }

  bool AtEnd() const { return pos_ >= text_.size(); }
  char Peek() const { return text_[pos_]; }
  std::string Position() const { return std::to_string(pos_ + 1); }

  [[noreturn]] void Refuse(const std::string& reason) const {
    throw OrsaCtlException("Invalid storage policy '" + text_ + "': " + reason);
  }

  const std::string& text_;
  size_t pos_ = 0;
};

std::mutex gResolverMu;
SiteResolver gResolver;  // guarded by gResolverMu

std::string ResolveSite(const std::string& namespaceUuid) {
  SiteResolver resolver;
  {
    std::lock_guard<std::mutex> lock(gResolverMu);
    resolver = gResolver;
  }
  if (resolver) return resolver(namespaceUuid);
  return CurrentHostConfig()->hostSite;
}

}  // namespace

StoragePolicy ParsePolicy(const std::string& text) { return PolicyParser(text).Parse(); }

const char* LocalityName(Locality locality) {
  switch (locality) {
    case Locality::kPreferred:
      return "Preferred";
    case Locality::kNonPreferred:
      return "NonPreferred";
    case Locality::kNone:
      return "None";
  }
  return "None";
}

std::string PolicyToText(const StoragePolicy& policy) {
  if (policy.Empty()) return "";
  std::string out = "(";
  if (policy.hasProportionalCapacity) {
    out += "(\"proportionalCapacity\" i" + std::to_string(policy.proportionalCapacity) + ")";
  }
  if (policy.hasLocality) {
    if (out.size() > 1) out += " ";
    out += std::string("(\"locality\" \"") + LocalityName(policy.locality) + "\")";
  }
  return out + ")";
}

uint64_t PreallocationBytes(const StoragePolicy& policy, uint64_t diskBytes) {
  if (!policy.hasProportionalCapacity || policy.proportionalCapacity <= 0) return 0;
  const uint64_t pct = static_cast<uint64_t>(policy.proportionalCapacity);
  // Split the product so that disks near 2^64 bytes cannot overflow it.
  return (diskBytes / 100) * pct + ((diskBytes % 100) * pct + 99) / 100;
}

void ApplyPolicyToObject(const std::string& path, const StoragePolicy& policy) {
  Fs& fs = GetFs();
  auto fail = [&path](const std::string& reason) {
    throw OrsaCtlException("Failed to apply storage policy to " + path + ": " + reason);
  };
  FileInfo info;
  if (int err = fs.Stat(path, &info)) fail(ErrnoText(err));
  if (info.isRegular) {
    uint64_t need = PreallocationBytes(policy, info.size);
    if (need > info.allocatedBytes) {
      if (int err = fs.Fallocate(path, 0, need))
        fail("cannot reserve " + std::to_string(need) + " bytes (" + ErrnoText(err) + ")");
    }
  }
  if (int err = WriteObjectAttr(fs, path, "policy", PolicyToText(policy))) {
    fail("cannot store the policy (" + ErrnoText(err) + ")");
  }
}

bool ReadObjectPolicy(const std::string& path, std::string* text) {
  int err = ReadObjectAttr(GetFs(), path, "policy", text);
  if (err == ENODATA) {
    text->clear();
    return true;
  }
  return err == 0;
}

void SetComplianceSiteResolver(SiteResolver resolver) {
  std::lock_guard<std::mutex> lock(gResolverMu);
  gResolver = std::move(resolver);
}

}  // namespace platform
}  // namespace kel

struct OrsaComplianceHandle {
  // Nothing to keep yet besides proof of initialisation; the site resolver is process-wide
  // because the cluster queries that answer it are.
  int magic = 0x6b656c63;
};

NUK_ReturnStatus OrsaCompliance_Init(OrsaComplianceHandle** handle) {
  if (handle == nullptr) return NUK_BAD_PARAM;
  *handle = new OrsaComplianceHandle();
  return NUK_OK;
}

void OrsaCompliance_Deinit(OrsaComplianceHandle* handle) { delete handle; }

NUK_ReturnStatus OrsaCompliance_CheckObject(OrsaComplianceHandle* handle, const std::string& path,
                                            const std::string& namespaceUuid,
                                            kel::platform::ComplianceResult* result) {
  using namespace kel::platform;
  if (handle == nullptr || result == nullptr) return NUK_BAD_PARAM;
  *result = ComplianceResult();
  Fs& fs = GetFs();
  FileInfo info;
  if (path.empty() || fs.Stat(path, &info) != 0) {
    result->reason = "object " + path + " not found";
    return NUK_OK;
  }
  result->found = true;
  if (!ReadObjectPolicy(path, &result->policy)) {
    result->reason = "cannot read the policy of " + path;
    return NUK_OK;
  }
  StoragePolicy policy;
  try {
    policy = ParsePolicy(result->policy);
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException& e) {
    result->reason = e.GetMessage();
    return NUK_OK;
  }
  if (info.isRegular) {
    uint64_t need = PreallocationBytes(policy, info.size);
    if (info.allocatedBytes < need) {
      result->reason = std::to_string(info.allocatedBytes) + " bytes allocated, policy reserves " +
                       std::to_string(need);
      return NUK_OK;
    }
  }
  if (policy.hasLocality && policy.locality != Locality::kNone) {
    std::string site = ResolveSite(namespaceUuid);
    if (site != LocalityName(policy.locality)) {
      result->reason = std::string("served from site '") + site + "', policy asks for " +
                       LocalityName(policy.locality);
      return NUK_OK;
    }
  }
  result->compliant = true;
  return NUK_OK;
}
