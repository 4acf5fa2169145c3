#include "platform/network.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>

#include "platform/host_config.h"

namespace NukCtl {
namespace Network {
namespace NukOSNicApi {
namespace {

struct IfAddrs {
  ifaddrs* list = nullptr;
  IfAddrs() {
    if (getifaddrs(&list) != 0) list = nullptr;
  }
  ~IfAddrs() {
    if (list != nullptr) freeifaddrs(list);
  }
};

}  // namespace

std::vector<std::string> GetNukOSNicNames() {
  auto config = kel::platform::CurrentHostConfig();
  std::vector<std::string> names;
  if (config->networkOverride) {
    for (const auto& kv : config->interfaces) names.push_back(kv.first);
    return names;
  }
  IfAddrs addrs;
  for (ifaddrs* a = addrs.list; a != nullptr; a = a->ifa_next) {
    if (a->ifa_name == nullptr) continue;
    if (std::find(names.begin(), names.end(), a->ifa_name) == names.end()) {
      names.push_back(a->ifa_name);
    }
  }
  return names;
}

bool GetPreferredKelNetworkAddressForNukNic(const std::string& name, std::string& v4Text,
                                            std::string& v6Text) {
  v4Text.clear();
  v6Text.clear();
  auto config = kel::platform::CurrentHostConfig();
  if (config->networkOverride) {
    auto it = config->interfaces.find(name);
    if (it == config->interfaces.end()) return false;
    v4Text = it->second.ipv4;
    v6Text = it->second.ipv6;
    return true;
  }
  IfAddrs addrs;
  bool found = false;
  bool v6_link_local = false;
  for (ifaddrs* a = addrs.list; a != nullptr; a = a->ifa_next) {
    if (a->ifa_name == nullptr || name != a->ifa_name) continue;
    found = true;
    if (a->ifa_addr == nullptr) continue;
    char buf[INET6_ADDRSTRLEN] = {0};
    if (a->ifa_addr->sa_family == AF_INET && v4Text.empty()) {
      auto* sin = reinterpret_cast<sockaddr_in*>(a->ifa_addr);
      if (inet_ntop(AF_INET, &sin->sin_addr, buf, sizeof(buf)) != nullptr) v4Text = buf;
    } else if (a->ifa_addr->sa_family == AF_INET6) {
      auto* sin6 = reinterpret_cast<sockaddr_in6*>(a->ifa_addr);
      // A global address is preferred over a link-local one, which needs a scope to be usable.
      bool link_local = IN6_IS_ADDR_LINKLOCAL(&sin6->sin6_addr);
      bool better = v6Text.empty() || (v6_link_local && !link_local);
      if (better && inet_ntop(AF_INET6, &sin6->sin6_addr, buf, sizeof(buf)) != nullptr) {
        v6Text = buf;
        v6_link_local = link_local;
      }
    }
  }
  return found;
}

}  // namespace NukOSNicApi
}  // namespace Network
}  // namespace NukCtl
