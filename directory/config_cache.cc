#include "directory/config_cache.h"

#include <atomic>
#include <mutex>
#include <shared_mutex>

#include "conf/conf.h"
#include "conf/conf_handle.h"
#include "directory/config_entry.h"
#include "directory/extraction.h"
#include "platform/exception.h"
#include "platform/log.h"

using HostCtl::Orsa::IscsiTarget::DefaultInfo;
using HostCtl::Orsa::IscsiTarget::InitiatorgroupInfo;
using HostCtl::Orsa::IscsiTarget::TargetInfo;

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace ConfigCache {
namespace {

const char* kTag = "KelConfigCache";

std::shared_mutex gKelConfigCacheLock;
struct conf* gKelConfig = nullptr;                  // guarded by gKelConfigCacheLock
std::atomic<bool> gKelConfDirty{false};             // written under the lock
std::atomic<bool> gIsLodexSubscribed{false};        // written under the lock
void* gLodexSubscribeInstance = nullptr;            // guarded by gKelConfigCacheLock
std::atomic<bool> gKelConfLodexEntryExists{false};  // written under the lock
// Mirror of gKelConfig's generation (all ones without a model), readable without the lock.
std::atomic<uint64_t> gCachedGeneration{UINT64_MAX};

void SetCachedModel(struct conf* model) {
  if (gKelConfig != nullptr) conf_delete(gKelConfig);
  gKelConfig = model;
  gCachedGeneration.store(model != nullptr ? model->conf_generation : UINT64_MAX);
}

// The getters' pattern: serve the cached copy under the shared lock when it is usable, otherwise
// read the file, convert it and install it.
template <typename T, typename Convert>
T GetFromCacheOrFile(const char* missLine, Convert convert) {
  {
    std::shared_lock<std::shared_mutex> lock(gKelConfigCacheLock);
    if (IsKelConfCacheAvailable()) return convert(gKelConfig);
  }
  LogInfo(missLine, kTag);
  struct conf* fresh = _CreateKelConf();
  T result;
  try {
    result = convert(fresh);
  } catch (...) {
    conf_delete(fresh);
    throw;
  }
  _UpdateKelConfWithLock(fresh, &gKelConfig);
  return result;
}

}  // namespace

bool IsKelConfDirty() { return gKelConfDirty.load(); }
void SetKelConfDirty(bool dirty) { gKelConfDirty.store(dirty); }
bool IsLodexSubscribed() { return gIsLodexSubscribed.load(); }
uint64_t GetCachedConfGenNumber() { return gCachedGeneration.load(); }

bool IsKelConfCacheAvailable() {
  return gKelConfig != nullptr && gIsLodexSubscribed.load() && !gKelConfDirty.load();
}

bool GetKelConfLodexEntryExists(bool withLock) {
  if (!withLock) return gKelConfLodexEntryExists.load();
  std::shared_lock<std::shared_mutex> lock(gKelConfigCacheLock);
  return gKelConfLodexEntryExists.load();
}

void SetKelConfLodexEntryExists(bool value, bool withLock) {
  if (!withLock) {
    gKelConfLodexEntryExists.store(value);
    return;
  }
  std::unique_lock<std::shared_mutex> lock(gKelConfigCacheLock);
  gKelConfLodexEntryExists.store(value);
}

struct conf* _CreateKelConf() {
  ConfHandle handle(ConfHandle::kShared);
  return handle.ReleaseConf();
}

void _UpdateKelConf(struct conf* newConf, struct conf** slot) {
  if (slot == &gKelConfig) {
    SetCachedModel(newConf);
    return;
  }
  if (*slot != nullptr) conf_delete(*slot);
  *slot = newConf;
}

void _UpdateKelConfWithLock(struct conf* newConf, struct conf** slot) {
  std::unique_lock<std::shared_mutex> lock(gKelConfigCacheLock);
  _UpdateKelConf(newConf, slot);
  SetKelConfDirty(false);
}

struct conf** CachedConfSlotForTest() {
  return &gKelConfig;
}

void SubscribeLodex() {
  std::unique_lock<std::shared_mutex> lock(gKelConfigCacheLock);
  if (gIsLodexSubscribed.load()) return;
  LogInfo("%s: Subscribing KEL config info from LODEX", kTag);
  void* handle = nullptr;
  NUK_ReturnStatus st = KeldLodexSubscribeToConfigEntry(UpdateKelConfigCacheAPI, &handle);
  if (st != NUK_OK) {
    throw HostCtl::Lib::Orsa::OrsaCtlException(
        std::string("Failed to subscribe LODEX KEL config entry: ") + NUK_ReturnStatusToString(st));
  }
  // The handle is recorded here so that unsubscribing cancels the directory watch.
  gLodexSubscribeInstance = handle;
  gIsLodexSubscribed.store(true);
  LogInfo("%s: Subscribing KEL config is done", kTag);
}

void UnsubscribeLodexNoLock() {
  if (!gIsLodexSubscribed.load()) return;
  LogInfo("%s: Unsubscribing KEL config info from LODEX", kTag);
  if (gLodexSubscribeInstance != nullptr) {
    KeldLodexUnsubscribeToConfigEntry(gLodexSubscribeInstance);
    gLodexSubscribeInstance = nullptr;
  }
  gIsLodexSubscribed.store(false);
  SetCachedModel(nullptr);
  LogInfo("%s: Unsubscribing KEL config info is done", kTag);
}

void UnsubscribeLodex() {
  std::unique_lock<std::shared_mutex> lock(gKelConfigCacheLock);
  UnsubscribeLodexNoLock();
}

void CleanupCachedConfig() {
  std::unique_lock<std::shared_mutex> lock(gKelConfigCacheLock);
  if (gKelConfig == nullptr) return;
  LogInfo("%s: Cleanup cached kel config", kTag);
  SetCachedModel(nullptr);
  LogInfo("%s: Cleanup cached kel config is done", kTag);
}

void UpdateKelConfigCache(void* instance) {
  LogInfo("%s: Updating the KEL config cache.", kTag);
  try {
    struct conf* fresh = _CreateKelConf();
    {
      std::unique_lock<std::shared_mutex> lock(gKelConfigCacheLock);
      if (instance != nullptr && gLodexSubscribeInstance == nullptr) {
        gLodexSubscribeInstance = instance;
      }
      // The dirty flag stays as it is: only a getter's install clears it.
      _UpdateKelConf(fresh, &gKelConfig);
    }
    LogInfo("%s: Done with the KEL config cache update.", kTag);
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException& e) {
    LogError("%s: Failed to update the config cache due to: %s", kTag, e.GetMessage().c_str());
    CleanupCachedConfig();
  }
}

void UpdateKelConfigCacheAPI(void*, NUK_ReturnStatus status) {
  std::unique_lock<std::shared_mutex> lock(gKelConfigCacheLock);
  if (status == NUK_NOT_FOUND) {
    gKelConfLodexEntryExists.store(false);
    return;
  }
  gKelConfLodexEntryExists.store(true);
  SetKelConfDirty(true);
}

DefaultInfo GetConfigInfo(bool withSecrets) {
  return GetFromCacheOrFile<DefaultInfo>(
      "%s: GetConfigInfo from conf file",
      [withSecrets](struct conf* c) { return GetConfigInfoFromConf(c, withSecrets); });
}

std::vector<TargetInfo> GetTargetsInfos() {
  return GetFromCacheOrFile<std::vector<TargetInfo>>("%s: GetTargetsInfos from conf file",
                                                     [](struct conf* c) {
                                                       std::vector<TargetInfo> out;
                                                       _GetTargetInfos(c, out);
                                                       return out;
                                                     });
}

std::vector<InitiatorgroupInfo> GetInitiatorGroupInfos() {
  return GetFromCacheOrFile<std::vector<InitiatorgroupInfo>>(
      "%s: GetInitiatorGroupInfos from conf file", [](struct conf* c) {
        std::vector<InitiatorgroupInfo> out;
        _GetInitiatorGroupInfos(c, out);
        return out;
      });
}

std::set<std::string> GetAllIscsiNuknics() {
  return GetFromCacheOrFile<std::set<std::string>>("%s: GetAllIscsiNuknics from conf file",
                                                   [](struct conf* c) {
                                                     std::set<std::string> out;
                                                     GetIscsiNuknicsFromConf(c, out);
                                                     return out;
                                                   });
}

}  // namespace ConfigCache

namespace Util {

bool IsRefreshConfNeeded(uint64_t& lastSeen) {
  uint64_t gen = ConfigCache::GetCachedConfGenNumber();
  if (lastSeen >= gen) return false;
  lastSeen = gen;
  return true;
}

}  // namespace Util

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
