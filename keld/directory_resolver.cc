#include "keld/directory_resolver.h"

#include <arpa/inet.h>
#include <strings.h>

#include <atomic>
#include <mutex>

#include "directory/host_queries.h"
#include "directory/interface_publication.h"
#include "platform/clock.h"
#include "platform/exception.h"
#include "platform/log.h"
#include "platform/network.h"

namespace kel {
namespace keld {

using HostCtl::Lib::Orsa::OrsaCtlException;

struct ResolverWatch {
  std::mutex mu;
  std::function<void()> wake;  // guarded by mu
  std::atomic<bool> stale{false};

  void Wake() {
    std::lock_guard<std::mutex> guard(mu);
    if (wake) wake();
  }
  void Set(std::function<void()> fn) {
    std::lock_guard<std::mutex> guard(mu);
    wake = std::move(fn);
  }
};

namespace {

const char kTag[] = "keld";
const std::chrono::seconds kUnwatchedTtl(30);
const std::chrono::seconds kSubscribeRetry(30);

}  // namespace

DirectoryPortalResolver::DirectoryPortalResolver() = default;

DirectoryPortalResolver::~DirectoryPortalResolver() {
  if (subscription_ != 0 && directory_) directory_->Unsubscribe(subscription_);
  // Unsubscribe may leave one notification running on the directory's thread; it holds its own
  // reference to the watch state, so clearing `wake` is enough to make it harmless.
  if (watch_) watch_->Set(nullptr);
}

void DirectoryPortalResolver::Watch(std::function<void()> wake) {
  watch_ = std::make_shared<ResolverWatch>();
  watch_->Set(std::move(wake));
  KeepSubscribed();
}

void DirectoryPortalResolver::KeepSubscribed() {
  if (!watch_ || subscription_ != 0) return;
  auto now = platform::GetClock().Now();
  if (now < nextSubscribe_) return;
  try {
    directory_ = platform::GetDirectory();
    platform::DirQuery query;
    query.matchType = true;
    query.type = KELD_LODEX_INTERFACE_ENTRY_TYPE;
    std::weak_ptr<ResolverWatch> weak = watch_;
    NUK_ReturnStatus st = directory_->Subscribe(
        query,
        [weak](NUK_ReturnStatus status, const platform::DirEntry*) {
          if (status == NUK_SUBSCRIPTION_ENDED) return;
          std::shared_ptr<ResolverWatch> w = weak.lock();
          if (!w) return;
          w->stale.store(true);
          w->Wake();
        },
        &subscription_);
    if (st != NUK_OK) {
      subscription_ = 0;
      throw OrsaCtlException(NUK_ReturnStatusToString(st));
    }
  } catch (const OrsaCtlException& e) {
    LogWarning("%s: Cannot follow the interface entries (%s); asking again every %lld s\n", kTag,
               e.GetMessage().c_str(), static_cast<long long>(kUnwatchedTtl.count()));
    nextSubscribe_ = now + kSubscribeRetry;
  }
}

const DirectoryPortalResolver::Lookup& DirectoryPortalResolver::Find(const std::string& host,
                                                                     const std::string& nic) {
  auto now = platform::GetClock().Now();
  auto key = std::make_pair(host, nic);
  auto it = cache_.find(key);
  if (it != cache_.end() && (subscription_ != 0 || now - it->second.at < kUnwatchedTtl)) {
    return it->second;
  }
  Lookup lookup;
  lookup.at = now;
  platform::DirUuid uuid;
  if (!platform::DirUuidFromText(host, &uuid)) {
    lookup.status = NUK_BAD_PARAM;
  } else {
    char v4[INET_ADDRSTRLEN] = "";
    char v6[INET6_ADDRSTRLEN] = "";
    ++lookups_;
    lookup.status = KeldLodexGetInterfaceAddress(nic.c_str(), uuid.data(), v4, v6);
    lookup.v4 = v4;
    lookup.v6 = v6;
  }
  return cache_[key] = lookup;
}

bool DirectoryPortalResolver::Resolve(const std::string& target, const DesiredPortal& portal,
                                      ResolvedPortal* out, std::string* error) {
  if (!portal.address.empty()) return Finish(target, portal, portal.address, out, error);
  if (watch_) {
    KeepSubscribed();
    if (watch_->stale.exchange(false)) cache_.clear();
  }
  try {
    if (self_.empty()) self_ = NukCtl::Orsa::IscsiTarget::Util::GetNodeUuid();
  } catch (const OrsaCtlException& e) {
    *error = "cannot resolve interface " + portal.interfaceName + ": " + e.GetMessage();
    return false;
  }
  DesiredPortal owned = portal;
  if (owned.ownerHostUuid.empty()) owned.ownerHostUuid = self_;
  const std::string& host = owned.ownerHostUuid;
  const Lookup& found = Find(host, portal.interfaceName);
  std::string address;
  if (found.status == NUK_OK) address = !found.v4.empty() ? found.v4 : found.v6;
  if (address.empty() && strcasecmp(host.c_str(), self_.c_str()) == 0) {
    std::string v4, v6;
    if (NukCtl::Network::NukOSNicApi::GetPreferredKelNetworkAddressForNukNic(portal.interfaceName,
                                                                             v4, v6)) {
      address = !v4.empty() ? v4 : v6;
    }
  }
  // Neither a published nor a local interface: the text may still be an address.
  if (address.empty()) address = portal.interfaceName;
  return Finish(target, owned, address, out, error);
}

}  // namespace keld
}  // namespace kel
