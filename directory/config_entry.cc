#include "directory/config_entry.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "conf/conf_backup.h"
#include "directory/config_cache.h"
#include "host/service_state.h"
#include "platform/clog.h"
#include "platform/directory.h"
#include "platform/exception.h"
#include "platform/log.h"
#include "storage/namespace.h"

std::atomic<uint64_t> gAppliedConfigGeneration{0};

namespace {

// Where notifications are forwarded; set by the subscribe call.
std::atomic<KeldConfigChangeCb> gConfigChangeCallback{nullptr};

const Marshal_FieldDesc kConfigFields[] = {
    {"protocolVersion", MARSHAL_FIELD_UINT32,
     offsetof(LodexOrsaIscsiTargetConfig, protocolVersion)},
    {"configNamespaceUuid", MARSHAL_FIELD_UUID,
     offsetof(LodexOrsaIscsiTargetConfig, configNamespaceUuid)},
    {"configGenNumber", MARSHAL_FIELD_UINT64,
     offsetof(LodexOrsaIscsiTargetConfig, configGenNumber)},
};

const Marshal_StructDesc kConfigDesc = {"LodexOrsaIscsiTargetConfig",
                                        sizeof(LodexOrsaIscsiTargetConfig), kConfigFields,
                                        sizeof(kConfigFields) / sizeof(kConfigFields[0])};

const char kConfigStructName[] = "LodexOrsaIscsiTargetConfig";

std::string UuidText(const uint8_t* bytes) {
  kel::platform::DirUuid u;
  memcpy(u.data(), bytes, 16);
  return kel::platform::DirUuidToText(u);
}

void ForwardToCache(void* query, NUK_ReturnStatus status) {
  log_info("Trying to update the KEL config cache...");
  KeldConfigChangeCb cb = gConfigChangeCallback.load();
  if (cb != nullptr) cb(query, status);
  log_info("Updating the KEL config cache done");
}

}  // namespace

Marshal_Description* KeldConfigEntryDescription(void) {
  static Marshal_Description* description = [] {
    Marshal_Description* d = Marshal_CreateDescription();
    Marshal_RegisterStructure(d, &kConfigDesc);
    return d;
  }();
  return description;
}

// ---- completion record ----

void LodexCompletionInit(LodexCompletionRecord* record, int expected, int timeoutSeconds) {
  sem_init(&record->sem, 0, 0);
  record->result = NUK_PENDING;
  record->expected = expected;
  record->timeoutSeconds = timeoutSeconds;
}

void LodexCompletionDestroy(LodexCompletionRecord* record) { sem_destroy(&record->sem); }

void LodexEntryCallback(void* context, NUK_ReturnStatus status) {
  auto* record = static_cast<LodexCompletionRecord*>(context);
  {
    std::lock_guard<std::mutex> guard(record->mu);
    if (record->result == NUK_PENDING || record->result == NUK_OK) record->result = status;
  }
  sem_post(&record->sem);
}

NUK_ReturnStatus LodexCompletionWait(LodexCompletionRecord* record) {
  for (int i = 0; i < record->expected; ++i) {
    int rc;
    if (record->timeoutSeconds > 0) {
      struct timespec deadline;
      if (clock_gettime(CLOCK_REALTIME, &deadline) != 0) return NUK_FAILURE;
      deadline.tv_sec += record->timeoutSeconds;
      while ((rc = sem_timedwait(&record->sem, &deadline)) != 0 && errno == EINTR) {
      }
    } else {
      while ((rc = sem_wait(&record->sem)) != 0 && errno == EINTR) {
      }
    }
    if (rc != 0) return NUK_WAIT_FAILED;
  }
  std::lock_guard<std::mutex> guard(record->mu);
  return record->result;
}

// ---- reading and publishing ----

NUK_ReturnStatus KeldGetConfigGenNumInLodex(uint64_t* gen) {
  uint8_t nsUuid[16];
  NUK_ReturnStatus st = KeldGetNamespaceUuid(nsUuid);
  if (st != NUK_OK) {
    log_warn("%s: Failed to get namespace UUID (%s).", "KeldGetConfigGenNumInLodex",
             NUK_ReturnStatusToString(st));
    return st;
  }
  LODEX_Query query;
  LODEX_InitQuery(&query, 0x525, nsUuid, nullptr);
  Marshal_Allocator* allocator = Marshal_DefaultAllocator();
  LODEX_Entry* entry = nullptr;
  st = LODEX_FindFullEntryByQuery(&query, 0, allocator, &entry);
  if (st != NUK_OK) return st;
  void* structure = nullptr;
  st = Marshal_UmshSingleStructure(allocator, KeldConfigEntryDescription(), entry->data,
                                   entry->header.dataLen, kConfigStructName, &structure);
  if (st != NUK_OK) {
    log_warn("Failed to unmarshal KEL conf entry entry: %s", NUK_ReturnStatusToString(st));
  } else {
    *gen = static_cast<LodexOrsaIscsiTargetConfig*>(structure)->configGenNumber;
    Marshal_DeallocStructure(allocator, KeldConfigEntryDescription(), kConfigStructName, structure);
  }
  LODEX_FreeEntry(allocator, entry);
  return st;
}

NUK_ReturnStatus KeldUpdateLodexEntryForConfig(uint64_t gen) {
  LodexOrsaIscsiTargetConfig config;
  memset(&config, 0, sizeof(config));
  NUK_ReturnStatus st = KeldGetNamespaceUuid(config.configNamespaceUuid);
  if (st != NUK_OK) {
    log_warnx("%s: Failed to get namespace UUID.", "KeldUpdateLodexEntryForConfig");
    return st;
  }
  config.protocolVersion = KELD_LODEX_CONFIG_PROTOCOL_VERSION;
  config.configGenNumber = gen;
  uint8_t buffer[KELD_LODEX_CONFIG_MAX_LEN];
  uint32_t length = sizeof(buffer);
  st = Marshal_MshSingleStructure(KeldConfigEntryDescription(), kConfigStructName, &config, &length,
                                  buffer);
  if (st != NUK_OK) {
    log_warnx("Failed to marshal LODEX KEL Config entry: %s", NUK_ReturnStatusToString(st));
    return st;
  }

  LodexCompletionRecord record;
  LodexCompletionInit(&record, 1, 0);
  LODEX_Entry* entry = LODEX_AllocEntry(Marshal_DefaultAllocator(), length);
  if (entry == nullptr) log_err(1, "Failed to allocate memory");
  memcpy(entry->header.uuid, config.configNamespaceUuid, 16);
  entry->header.type = KELD_LODEX_CONFIG_ENTRY_TYPE;
  entry->header.health = LODEX_HEALTHY;
  memcpy(entry->data, buffer, length);
  st = LODEX_UpdateEntry(entry, LodexEntryCallback, &record);
  LODEX_FreeEntry(Marshal_DefaultAllocator(), entry);
  if (st != NUK_OK) {
    LodexEntryCallback(&record, st);
    st = LodexCompletionWait(&record);
  } else {
    st = LodexCompletionWait(&record);
  }
  LodexCompletionDestroy(&record);
  if (st == NUK_OK || st == NUK_EXISTS) {
    log_debugx("Successfully updated LODEX KEL config entry: %s", NUK_ReturnStatusToString(st));
  } else {
    log_warn("Failed to update KEL config entry: %s", NUK_ReturnStatusToString(st));
  }
  return st;
}

NUK_ReturnStatus KeldAddLodexEntryForConfig(uint64_t gen) {
  uint64_t published = 0;
  NUK_ReturnStatus st = KeldGetConfigGenNumInLodex(&published);
  if (st == NUK_OK) {
    log_debugx("KEL conf entry in LODEX already exists.");
    return NUK_OK;
  }
  if (st == NUK_NOT_FOUND) {
    st = KeldUpdateLodexEntryForConfig(gen);
    if (st == NUK_OK) log_info("Added KEL config entry to LODEX successfully.");
    return st;
  }
  log_warn("Failed to get KEL config generation number: %s.", NUK_ReturnStatusToString(st));
  return st;
}

// ---- watching ----

NUK_ReturnStatus KeldLodexSubscribeToConfigEntry(KeldConfigChangeCb callback, void** handle) {
  log_debugx("Subscribing to LODEX notifications for KEL config entry");
  uint8_t nsUuid[16];
  NUK_ReturnStatus st = KeldGetNamespaceUuid(nsUuid);
  if (st != NUK_OK) {
    log_warnx("Failed to get KEL namespace UUID with status: %s", NUK_ReturnStatusToString(st));
    return st;
  }
  gConfigChangeCallback.store(callback);
  auto* query = static_cast<LODEX_Query*>(calloc(1, 64));
  if (query == nullptr) log_err(1, "Cannot to alloc memory");
  LODEX_InitQuery(query, 0xd25, nsUuid, nullptr);
  st = LODEX_Subscribe(query, KeldLodexConfUpdateCb, query);
  if (st != NUK_OK) {
    free(query);
    log_warnx("Failed to subscribe to LODEX notifications, error: %s",
              st == NUK_DIRECTORY_NOT_RUNNING ? "LODEX service is not running."
                                              : NUK_ReturnStatusToString(st));
    return st;
  }
  log_debugx("Successfully subscribed cb 0x%p to LODEX notificationsfor KEL config",
             reinterpret_cast<void*>(callback));
  if (handle != nullptr) *handle = query;
  return NUK_OK;
}

NUK_ReturnStatus KeldLodexUnsubscribeToConfigEntry(void* handle) {
  log_debugx("Unsubscribing the KEL config LODEX entry");
  NUK_ReturnStatus st =
      LODEX_Unsubscribe(static_cast<LODEX_Query*>(handle), KeldLodexConfUpdateCb, handle);
  gAppliedConfigGeneration.store(0);
  return st;
}

NUK_ReturnStatus KeldLodexConfUpdateCb(void* query, const LODEX_Entry* entry, int length,
                                       NUK_ReturnStatus status) {
  log_debugx("%s: Config entry callback, len:%d/%d, status:0x%08X (%s)", "KeldLodexConfUpdateCb",
             entry != nullptr ? static_cast<int>(entry->header.dataLen) : -1, length, status,
             NUK_ReturnStatusToString(status));
  if (entry != nullptr) {
    log_debugx("%s: Config entry UUID %s, type 0x%02x, owner %s, health %s",
               "KeldLodexConfUpdateCb", UuidText(entry->header.uuid).c_str(), entry->header.type,
               UuidText(entry->header.owner).c_str(),
               entry->header.health != LODEX_UNHEALTHY ? "Healthy" : "Unhealthy");
  }
  Marshal_Allocator* allocator = Marshal_DefaultAllocator();
  LODEX_Entry* full = nullptr;
  NUK_ReturnStatus lookup;
  if (status == NUK_ENTRY_CHANGED) {
    lookup = LODEX_FindFullEntryByQuery(static_cast<LODEX_Query*>(query), 0, allocator, &full);
  } else if (status == NUK_SUBSCRIPTION_ENDED) {
    free(query);
    return NUK_OK;
  } else if (status == NUK_NOT_FOUND) {
    log_warnx("Config entry NOT FOUND, marking it as need to republished");
    ForwardToCache(query, status);
    return NUK_OK;
  } else if (status != NUK_OK) {
    log_warnx("Unexpected config entry callback with status 0x%08X (%s)", status,
              NUK_ReturnStatusToString(status));
    ForwardToCache(query, status);
    return status;
  } else if (entry == nullptr) {
    lookup = NUK_BAD_PARAM;
  } else {
    lookup = LODEX_FindFullEntryByHeader(&entry->header, 0, allocator, 1, &full);
  }

  if (lookup != NUK_OK) {
    if (lookup == NUK_NOT_FOUND) {
      log_warnx("Config entry doesn't exist, waiting for it to get published");
      return NUK_OK;
    }
    log_warnx("Failed to query config entry with status 0x%08X (%s)", lookup,
              NUK_ReturnStatusToString(lookup));
    ForwardToCache(query, status);
    return lookup;
  }

  void* structure = nullptr;
  NUK_ReturnStatus umsh =
      Marshal_UmshSingleStructure(allocator, KeldConfigEntryDescription(), full->data,
                                  full->header.dataLen, kConfigStructName, &structure);
  LODEX_FreeEntry(allocator, full);
  if (umsh != NUK_OK) {
    log_warnx("Can't unmarshal KEL config entry from LODEX");
    ForwardToCache(query, status);
    return NUK_OK;
  }
  uint64_t gen = static_cast<LodexOrsaIscsiTargetConfig*>(structure)->configGenNumber;
  Marshal_DeallocStructure(allocator, KeldConfigEntryDescription(), kConfigStructName, structure);
  uint64_t applied = gAppliedConfigGeneration.load();
  if (gen <= applied) {
    log_info("Ignoring config generation %ld because generation %ld already applied",
             static_cast<long>(gen), static_cast<long>(applied));
    return NUK_OK;
  }
  log_info("Applying config generation %ld", static_cast<long>(gen));
  gAppliedConfigGeneration.store(gen);
  ForwardToCache(query, status);
  return NUK_OK;
}

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

void DoActionForConfigChange(uint64_t gen) {
  if (gen == UINT64_MAX) return;
  NUK_ReturnStatus st = KeldUpdateLodexEntryForConfig(gen);
  if (st == NUK_OK) return;
  if (st == NUK_EXISTS) {
    LogWarning(
        "%s: Update KEL conf entry into LODEX with config genration number %ld failed with "
        "NUK_EXISTS",
        "Util", static_cast<long>(gen));
    return;
  }
  throw HostCtl::Lib::Orsa::OrsaCtlException(
      std::string("Failed to Update KEL conf entry into LODEX with error: ") +
      NUK_ReturnStatusToString(st));
}

bool IsBackupConfNeeded() {
  uint64_t backup = backupConfGenNumber.load();
  if (backup == UINT64_MAX) return true;
  return ConfigCache::GetCachedConfGenNumber() > backup;
}

void BackupConfigFile() {
  if (!IsRunningInOrsaMgmtd()) return;
  if (IsBackupConfNeeded()) CopyKelConfWithLock();
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
