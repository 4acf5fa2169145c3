// Turning a target's portal (network interface + port) into the address tgtd listens on.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "keld/state.h"

namespace kel {
namespace keld {

struct ResolvedPortal {
  std::string interfaceName;  // empty when the portal gave an address directly
  std::string address;        // numeric IPv4 or IPv6 text
  int port = 0;
  std::string text;  // tgtadm's form, "a.b.c.d:p" or "[v6]:p"
};
bool operator==(const ResolvedPortal& a, const ResolvedPortal& b);

// Resolvers are used from the daemon's one thread (only the `wake` function given to Watch may be
// called from elsewhere).
//
// Every resolver logs "keld: creating new nuknic portal for <interface> on <address>:<port>" when
// a target's interface portal resolves to an address it did not resolve to before (once per
// target while it is served; portals given by address are not announced), and reports an address
// that getaddrinfo refuses as "Failed to get address info for <address>:<port>." (logged once per
// target and portal while the failure lasts).
class PortalResolver {
 public:
  virtual ~PortalResolver() = default;
  // Fills `out`, or returns false with `*error` set (the portal is then unavailable). `target` is
  // the IQN of the target that has the portal.
  virtual bool Resolve(const std::string& target, const DesiredPortal& portal, ResolvedPortal* out,
                       std::string* error) = 0;
  // Forget cached lookups: the next Resolve asks afresh.
  virtual void Refresh() {}
  // Asks the resolver to call `wake` (from any thread) when its answers may have changed. A
  // resolver without change notifications ignores it.
  virtual void Watch(std::function<void()> wake) { (void)wake; }

  // Forgets what was logged for targets other than `served`, so that a target served again later
  // (owned again, back online) has its portals logged again.
  void KeepAnnouncements(const std::set<std::string>& served);

 protected:
  // Checks that `address`:`port` is numeric and fills `out`; logs and reports as described above.
  bool Finish(const std::string& target, const DesiredPortal& portal, const std::string& address,
              ResolvedPortal* out, std::string* error);

 private:
  using Key = std::pair<std::string, std::string>;  // (target, portal)
  std::map<Key, std::string> announced_;            // address last logged
  std::map<Key, std::string> failing_;              // failure last logged
};

// Resolves interfaces of this host (platform/network.h: the host configuration's interfaces, or
// the real ones), preferring the IPv4 address. A portal with an explicit address is only checked.
class LocalPortalResolver : public PortalResolver {
 public:
  bool Resolve(const std::string& target, const DesiredPortal& portal, ResolvedPortal* out,
               std::string* error) override;
};

// Why `portal` cannot be bound right now ("Address already in use"), or empty when it can.
// Used to explain a portal that tgtd refused with nothing more than "invalid request".
std::string ProbePortalBind(const ResolvedPortal& portal);

}  // namespace keld
}  // namespace kel
