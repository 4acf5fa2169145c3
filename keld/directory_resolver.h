// Portals resolved through the cluster directory: the address that the owner host published for
// the interface (its interface entry, KeldLodexGetInterfaceAddress), IPv4 preferred, else IPv6.
//
// A portal with an explicit address is only checked. An interface that this host has not (yet)
// published is looked up among its own interfaces, so a target on an interface added after the
// last publication is still served. A host part that is neither a published interface nor a
// numeric address is reported as "Failed to get address info for <text>:<port>." (host names are
// not looked up: the daemon must not stall on name resolution).
//
// Lookups are cached per (host, interface) until Refresh(), until an interface entry changes
// (Watch() subscribes to them), or, while no subscription could be made, for 30 seconds; so the
// daemon's frequent checks cost no directory traffic while nothing changes.
//
// Thread-safety: used from the daemon's one thread; the subscription only sets a flag and calls
// the `wake` function.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "keld/portal.h"
#include "platform/directory.h"
#include "platform/status.h"

namespace kel {
namespace keld {

struct ResolverWatch;  // shared with the directory's notification thread

class DirectoryPortalResolver : public PortalResolver {
 public:
  DirectoryPortalResolver();
  ~DirectoryPortalResolver() override;  // ends the subscription; `wake` is not called afterwards
  DirectoryPortalResolver(const DirectoryPortalResolver&) = delete;
  DirectoryPortalResolver& operator=(const DirectoryPortalResolver&) = delete;

  bool Resolve(const std::string& target, const DesiredPortal& portal, ResolvedPortal* out,
               std::string* error) override;
  void Refresh() override { cache_.clear(); }
  void Watch(std::function<void()> wake) override;

  // Directory lookups made so far (tests and benchmarks).
  int LookupsForTest() const { return lookups_; }

 private:
  struct Lookup {
    NUK_ReturnStatus status = NUK_OK;
    std::string v4;
    std::string v6;
    std::chrono::steady_clock::time_point at;
  };

  const Lookup& Find(const std::string& host, const std::string& nic);
  void KeepSubscribed();

  std::map<std::pair<std::string, std::string>, Lookup> cache_;  // (host, interface)
  std::string self_;
  std::shared_ptr<ResolverWatch> watch_;
  std::shared_ptr<platform::Directory> directory_;  // that the subscription was made on
  platform::Directory::SubscriptionId subscription_ = 0;
  std::chrono::steady_clock::time_point nextSubscribe_{};
  int lookups_ = 0;
};

}  // namespace keld
}  // namespace kel
