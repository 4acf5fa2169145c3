#include "keld/portal.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iterator>

#include "keld/tgt_admin.h"
#include "keld/tgt_exec.h"
#include "platform/clog.h"
#include "platform/log.h"
#include "platform/network.h"

namespace kel {
namespace keld {

bool operator==(const ResolvedPortal& a, const ResolvedPortal& b) {
  return a.interfaceName == b.interfaceName && a.address == b.address && a.port == b.port &&
         a.text == b.text;
}

bool PortalResolver::Finish(const std::string& target, const DesiredPortal& portal,
                            const std::string& address, ResolvedPortal* out, std::string* error) {
  const Key key(target, portal.ownerHostUuid + "/" + portal.interfaceName + "/" + portal.address +
                            ":" + std::to_string(portal.port));
  std::string port = std::to_string(portal.port);
  std::string failure;
  if (portal.port <= 0 || portal.port > 65535) {
    failure = "invalid port " + port + " for portal " + address;
  } else {
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo* res = nullptr;
    if (getaddrinfo(address.c_str(), port.c_str(), &hints, &res) != 0) {
      char text[512];
      snprintf(text, sizeof(text), "Failed to get address info for %s:%s.", address.c_str(),
               port.c_str());
      failure = text;
      // Periodic checks resolve again and again: say it once while it lasts.
      if (failing_[key] != failure) log_warnx("%s", failure.c_str());
    } else {
      freeaddrinfo(res);
    }
  }
  if (!failure.empty()) {
    failing_[key] = failure;
    announced_.erase(key);
    *error = failure;
    return false;
  }
  failing_.erase(key);
  out->interfaceName = portal.interfaceName;
  out->address = address;
  out->port = portal.port;
  out->text = PortalText(address, portal.port);
  std::string& last = announced_[key];
  if (last != address) {
    // The line names the interface the portal is for; a portal given by address is no nuknic
    // portal and is not announced.
    if (!portal.interfaceName.empty()) {
      LogInfo("%s: creating new nuknic portal for %s on %s:%s\n", "keld",
              portal.interfaceName.c_str(), address.c_str(), port.c_str());
    }
    last = address;
  }
  return true;
}

void PortalResolver::KeepAnnouncements(const std::set<std::string>& served) {
  for (auto* map : {&announced_, &failing_}) {
    for (auto it = map->begin(); it != map->end();) {
      it = served.count(it->first.first) != 0 ? std::next(it) : map->erase(it);
    }
  }
}

bool LocalPortalResolver::Resolve(const std::string& target, const DesiredPortal& portal,
                                  ResolvedPortal* out, std::string* error) {
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
  return Finish(target, portal, address, out, error);
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
