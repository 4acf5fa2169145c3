// The host's network interfaces as kel sees them: the names that may carry iSCSI portals and each
// one's preferred IPv4 and IPv6 address. With "network.interfaces" in the host configuration,
// exactly those exist (tests run several hosts on one machine that way); otherwise the host's real
// interfaces are read with getifaddrs.
#pragma once

#include <string>
#include <vector>

namespace NukCtl {
namespace Network {
namespace NukOSNicApi {

// Interface names, in the platform's order (configuration order, or the kernel's order).
std::vector<std::string> GetNukOSNicNames();

// The preferred addresses of `name` as text; empty text where the interface has none.
// Returns false when the interface does not exist.
bool GetPreferredKelNetworkAddressForNukNic(const std::string& name, std::string& v4Text,
                                            std::string& v6Text);

}  // namespace NukOSNicApi
}  // namespace Network
}  // namespace NukCtl
