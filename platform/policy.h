// Storage policies and the compliance library.
//
// A policy is a list of rules in text form:
//   (("proportionalCapacity" i50) ("locality" "Preferred"))
// Known rules:
//   "proportionalCapacity"  integer i0..i100: percent of a disk's capacity reserved up front
//                           (fallocate) so that later writes cannot run out of space;
//   "locality"              "Preferred", "NonPreferred" or "None": the site of a stretched
//                           cluster whose host should serve the object.
// The empty text (or only blanks) is the empty policy and always verifies; so does "()". A rule
// may appear once. Anything else is refused with OrsaCtlException naming what is wrong:
//   Invalid storage policy '<text>': <reason>
//
// A policy is kept with its object (object attribute "policy", see platform/fs.h) in the canonical
// text that PolicyToText prints, so a policy read back compares equal to any spelling of the same
// rules.
//
// Compliance compares what the policy asks with what the object has: the allocated bytes of a disk
// against proportionalCapacity, and the site of the host serving the object against locality. A
// missing object is never compliant.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "platform/status.h"

namespace kel {
namespace platform {

enum class Locality { kPreferred, kNonPreferred, kNone };

struct StoragePolicy {
  bool hasProportionalCapacity = false;
  int proportionalCapacity = 0;  // 0..100
  bool hasLocality = false;
  Locality locality = Locality::kNone;

  bool Empty() const { return !hasProportionalCapacity && !hasLocality; }
};

// Throws OrsaCtlException("Invalid storage policy '<text>': <reason>").
StoragePolicy ParsePolicy(const std::string& text);
// Canonical text; "" for the empty policy.
std::string PolicyToText(const StoragePolicy& policy);
const char* LocalityName(Locality locality);

// Bytes of a disk of `diskBytes` that the policy reserves: ceil(percent * diskBytes / 100).
uint64_t PreallocationBytes(const StoragePolicy& policy, uint64_t diskBytes);

// Stores the canonical text of `policy` with the object at `path` and, for a regular file, reserves
// its proportional capacity. Reservations only grow: a lower percentage keeps what is allocated
// (giving blocks back would mean punching holes into data). Throws OrsaCtlException
// ("Failed to apply storage policy to <path>: <reason>"). The space is reserved before the policy
// is stored, so after a failure the object still carries its previous policy.
void ApplyPolicyToObject(const std::string& path, const StoragePolicy& policy);
// The policy text stored with the object; "" when it has none. Returns false when the object is
// missing or unreadable.
bool ReadObjectPolicy(const std::string& path, std::string* text);

// Who serves an object: given the UUID of the namespace that holds it (for a namespace, its own
// UUID), the site ("Preferred"/"NonPreferred", or "" when unknown) of the host that serves it.
using SiteResolver = std::function<std::string(const std::string& namespaceUuid)>;
// Installs the resolver for the process (the cluster queries know owners and sites). Without
// one, every object is taken to be served by this host, whose site is the host configuration's
// "host.site". Passing nullptr restores that default.
void SetComplianceSiteResolver(SiteResolver resolver);

struct ComplianceResult {
  bool found = false;      // the object exists
  std::string policy;      // canonical text stored with it ("" for none)
  bool compliant = false;  // found, and every rule of the policy is met
  std::string reason;      // why not compliant (for logs); empty when compliant
};

}  // namespace platform
}  // namespace kel

// The compliance library. A handle is made by OrsaCompliance_Init and released by
// OrsaCompliance_Deinit; queries take the handle so that they cannot run on an uninitialised
// library. A handle may be used from several threads at once.
struct OrsaComplianceHandle;

// NUK_BAD_PARAM for a null out pointer; NUK_OK otherwise (*handle set).
NUK_ReturnStatus OrsaCompliance_Init(OrsaComplianceHandle** handle);
// Releases the handle (null is ignored).
void OrsaCompliance_Deinit(OrsaComplianceHandle* handle);
// Checks the object at `path`. For a namespace (a directory), only the locality rule applies:
// a namespace reserves no space of its own. `namespaceUuid` names the namespace that holds the
// object (the object itself for a namespace) and is what the site resolver is asked about.
NUK_ReturnStatus OrsaCompliance_CheckObject(OrsaComplianceHandle* handle, const std::string& path,
                                            const std::string& namespaceUuid,
                                            kel::platform::ComplianceResult* result);
