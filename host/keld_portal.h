// Turning a target's portal (network interface + port) into the address tgtd listens on.
#pragma once

#include <string>

#include "host/keld_state.h"

namespace kel {
namespace keld {

struct ResolvedPortal {
  std::string interfaceName;  // empty when the portal gave an address directly
  std::string address;        // numeric IPv4 or IPv6 text
  int port = 0;
  std::string text;  // tgtadm's form, "a.b.c.d:p" or "[v6]:p"
};

class PortalResolver {
 public:
  virtual ~PortalResolver() = default;
  // Fills `out`, or returns false with `*error` set (the portal is then unavailable).
  virtual bool Resolve(const DesiredPortal& portal, ResolvedPortal* out, std::string* error) = 0;
};

// Resolves interfaces of this host (platform/network.h: the host configuration's interfaces, or
// the real ones), preferring the IPv4 address. A portal with an explicit address is only checked.
// The address must be numeric; one that getaddrinfo refuses logs and reports
// "Failed to get address info for <address>:<port>.".
class LocalPortalResolver : public PortalResolver {
 public:
  bool Resolve(const DesiredPortal& portal, ResolvedPortal* out, std::string* error) override;
};

// Why `portal` cannot be bound right now ("Address already in use"), or empty when it can.
// Used to explain a portal that tgtd refused with nothing more than "invalid request".
std::string ProbePortalBind(const ResolvedPortal& portal);

}  // namespace keld
}  // namespace kel
