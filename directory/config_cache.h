// The configuration cache: one parsed copy of the cluster's kel.conf per process, trusted only
// while the process is subscribed to the configuration entry and no notification arrived since the
// copy was loaded.
//
// State (all guarded by the cache's reader/writer lock, the last lock in the system's lock order):
//   gKelConfig                 the cached model (owned; freed with conf_delete when replaced)
//   gKelConfDirty              a notification arrived after the copy was loaded
//   gIsLodexSubscribed         this process holds the subscription to the configuration entry
//   gLodexSubscribeInstance    the subscription's handle, passed back when unsubscribing
//   gKelConfLodexEntryExists   the entry was seen in the directory (false after "not found")
//
// Getters hold the lock shared for the whole conversion of the cached copy. On a miss they read
// the file outside the lock (ConfHandle, shared), convert it, and install it as the new copy, which
// clears the dirty flag. Failures are OrsaCtlException from the file handle or the conversion.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "platform/status.h"
#include "records/records.h"

struct conf;

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace ConfigCache {

// Unlocked accessors: the caller holds the cache lock (or accepts a momentary value).
bool IsKelConfDirty();
void SetKelConfDirty(bool dirty);
bool IsLodexSubscribed();
// The cached model's generation, or all ones (-1) without a cached model. Safe without the lock.
uint64_t GetCachedConfGenNumber();
// A cached model exists, the process is subscribed, and the copy is not dirty.
bool IsKelConfCacheAvailable();

bool GetKelConfLodexEntryExists(bool withLock);
void SetKelConfLodexEntryExists(bool value, bool withLock);

// Subscribes to the configuration entry unless already subscribed. Throws "Failed to subscribe
// LODEX KEL config entry: " + status text; the process stays unsubscribed then.
void SubscribeLodex();
// Drops the subscription (cancelling the directory watch) and the cached model. The NoLock form is
// for callers that cannot take the lock (the unload hook).
void UnsubscribeLodex();
void UnsubscribeLodexNoLock();
// Drops the cached model; the next getter reads the file.
void CleanupCachedConfig();

// Reloads the copy from the file; records `instance` as the subscription handle when none is
// recorded yet. A failure is logged and leaves no cached model. The dirty flag is left as it is.
void UpdateKelConfigCache(void* instance);
// The directory notification handler: "not found" (0xbad0003) clears the entry-exists flag;
// every other status sets it and marks the copy dirty. Never reloads.
void UpdateKelConfigCacheAPI(void* instance, NUK_ReturnStatus status);

HostCtl::Orsa::IscsiTarget::DefaultInfo GetConfigInfo(bool withSecrets);
std::vector<HostCtl::Orsa::IscsiTarget::TargetInfo> GetTargetsInfos();
std::vector<HostCtl::Orsa::IscsiTarget::InitiatorgroupInfo> GetInitiatorGroupInfos();
std::set<std::string> GetAllIscsiNuknics();

// Internals, visible for tests: read the file into a new model (throws the handle's exception);
// replace the model in `slot`; the same under the exclusive lock, clearing the dirty flag.
struct conf* _CreateKelConf();
void _UpdateKelConf(struct conf* newConf, struct conf** slot);
void _UpdateKelConfWithLock(struct conf* newConf, struct conf** slot);
// The slot of the cached model (for _UpdateKelConf* callers).
struct conf** CachedConfSlotForTest();

}  // namespace ConfigCache

namespace Util {

// With gen = the cached generation: false when lastSeen >= gen (unsigned); otherwise stores gen
// in lastSeen and returns true. Kept as is: without a cache gen is all ones, so the first call
// returns true and stores all ones, and later calls return false until the caller resets lastSeen.
bool IsRefreshConfNeeded(uint64_t& lastSeen);

}  // namespace Util

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
