#include "host/keld_portal.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "host/tgt_admin.h"
#include "host/tgt_exec.h"
#include "platform/clog.h"
#include "platform/network.h"

namespace kel {
namespace keld {

bool LocalPortalResolver::Resolve(const DesiredPortal& portal, ResolvedPortal* out,
                                  std::string* error) {
  std::string address = portal.address;
  if (address.empty()) {
    std::string v4, v6;
    if (!NukCtl::Network::NukOSNicApi::GetPreferredKelNetworkAddressForNukNic(portal.interfaceName,
                                                                              v4, v6)) {
      *error = "network interface " + portal.interfaceName + " not found";
      return false;
    }
    address = !v4.empty() ? v4 : v6;
    if (address.empty()) {
      *error = "network interface " + portal.interfaceName + " has no address";
      return false;
    }
  }
  if (portal.port <= 0 || portal.port > 65535) {
    *error = "invalid port " + std::to_string(portal.port) + " for portal " + address;
    return false;
  }
  std::string port = std::to_string(portal.port);
  addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  addrinfo* res = nullptr;
  if (getaddrinfo(address.c_str(), port.c_str(), &hints, &res) != 0) {
    log_warnx("Failed to get address info for %s:%s.", address.c_str(), port.c_str());
    char text[512];
    snprintf(text, sizeof(text), "Failed to get address info for %s:%s.", address.c_str(),
             port.c_str());
    *error = text;
    return false;
  }
  freeaddrinfo(res);
  out->interfaceName = portal.interfaceName;
  out->address = address;
  out->port = portal.port;
  out->text = PortalText(address, portal.port);
  return true;
}

std::string ProbePortalBind(const ResolvedPortal& portal) {
  addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  addrinfo* res = nullptr;
  std::string port = std::to_string(portal.port);
  if (getaddrinfo(portal.address.c_str(), port.c_str(), &hints, &res) != 0) {
    return "Failed to get address info for " + portal.address + ":" + port + ".";
  }
  std::string reason;
  int fd = socket(res->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    reason = ErrnoText(errno);
  } else {
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));  // as tgtd binds
    if (bind(fd, res->ai_addr, res->ai_addrlen) != 0) reason = ErrnoText(errno);
    close(fd);
  }
  freeaddrinfo(res);
  return reason;
}

}  // namespace keld
}  // namespace kel
