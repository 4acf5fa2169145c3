#include "platform/lodex.h"

#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/directory.h"
#include "platform/exception.h"
#include "platform/log.h"

using kel::platform::Directory;
using kel::platform::DirEntry;
using kel::platform::DirQuery;
using kel::platform::DirUuid;

struct LODEX_HandleRec {
  std::shared_ptr<Directory> directory;
};

struct LODEX_EntryList {
  uint32_t count;
  LODEX_Entry** entries;
};

namespace {

std::shared_ptr<Directory> OpenDir() {
  try {
    return kel::platform::GetDirectory();
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException& e) {
    LogWarning("%s: %s\n", "LODEX", e.GetMessage().c_str());
    return nullptr;
  }
}

DirQuery ToDirQuery(const LODEX_Query* query) {
  DirQuery q;
  q.matchUuid = (query->matchFlags & LODEX_MATCH_UUID) != 0;
  q.matchOwner = (query->matchFlags & LODEX_MATCH_OWNER) != 0;
  q.matchType = (query->matchFlags & LODEX_MATCH_TYPE) != 0;
  q.type = static_cast<uint8_t>(query->matchFlags & LODEX_MATCH_TYPE_MASK);
  memcpy(q.uuid.data(), query->header.uuid, 16);
  memcpy(q.owner.data(), query->header.owner, 16);
  return q;
}

void FillHeader(const DirEntry& e, LODEX_EntryHeader* h) {
  memset(h, 0, sizeof(*h));
  memcpy(h->uuid, e.uuid.data(), 16);
  memcpy(h->owner, e.owner.data(), 16);
  h->type = e.type;
  h->health = e.healthy ? LODEX_HEALTHY : LODEX_UNHEALTHY;
  h->dataLen = static_cast<uint32_t>(e.data.size());
}

LODEX_Entry* ToLodexEntry(Marshal_Allocator* allocator, const DirEntry& e) {
  LODEX_Entry* entry = LODEX_AllocEntry(allocator, static_cast<uint32_t>(e.data.size()));
  if (entry == nullptr) return nullptr;
  FillHeader(e, &entry->header);
  if (!e.data.empty()) memcpy(entry->data, e.data.data(), e.data.size());
  return entry;
}

DirEntry FromLodexEntry(const LODEX_Entry* entry) {
  DirEntry e;
  memcpy(e.uuid.data(), entry->header.uuid, 16);
  memcpy(e.owner.data(), entry->header.owner, 16);
  e.type = entry->header.type;
  e.healthy = entry->header.health != LODEX_UNHEALTHY;
  if (entry->header.dataLen > 0 && entry->data != nullptr) {
    e.data.assign(reinterpret_cast<const char*>(entry->data), entry->header.dataLen);
  }
  return e;
}

// The entries that match `query` in the open directory.
NUK_ReturnStatus FindByQuery(const LODEX_Query* query, std::vector<DirEntry>* found) {
  auto dir = OpenDir();
  if (!dir) return NUK_DIRECTORY_NOT_RUNNING;
  return dir->Find(ToDirQuery(query), found);
}

// Subscriptions made through this API, by their handle (the query record).
struct Registration {
  std::weak_ptr<Directory> directory;
  Directory::SubscriptionId id = 0;
  LODEX_NotifyCb cb = nullptr;
  void* context = nullptr;
};

std::mutex gRegistryMutex;
std::map<LODEX_Query*, Registration> gRegistry;  // guarded by gRegistryMutex

}  // namespace

void LODEX_InitQuery(LODEX_Query* query, uint16_t flags, const uint8_t* uuid,
                     const uint8_t* owner) {
  memset(query, 0, sizeof(*query));
  query->matchFlags = flags;
  query->header.type = static_cast<uint8_t>(flags & LODEX_MATCH_TYPE_MASK);
  if (uuid != nullptr) memcpy(query->header.uuid, uuid, 16);
  if (owner != nullptr) memcpy(query->header.owner, owner, 16);
}

LODEX_Entry* LODEX_AllocEntry(Marshal_Allocator* allocator, uint32_t dataLen) {
  auto* entry =
      static_cast<LODEX_Entry*>(Marshal_Alloc(allocator, sizeof(LODEX_Entry) + dataLen + 1));
  if (entry == nullptr) return nullptr;
  memset(entry, 0, sizeof(LODEX_Entry) + dataLen + 1);
  entry->header.dataLen = dataLen;
  entry->data = reinterpret_cast<uint8_t*>(entry + 1);
  return entry;
}

void LODEX_FreeEntry(Marshal_Allocator* allocator, LODEX_Entry* entry) {
  Marshal_Free(allocator, entry);
}

NUK_ReturnStatus LODEX_Initialize(int, int, LODEX_Handle* handle) {
  if (handle == nullptr) return NUK_BAD_PARAM;
  auto dir = OpenDir();
  if (!dir) return NUK_DIRECTORY_NOT_RUNNING;
  *handle = new LODEX_HandleRec{dir};
  return NUK_OK;
}

NUK_ReturnStatus LODEX_Deinitialize(LODEX_Handle handle) {
  delete handle;
  return NUK_OK;
}

NUK_ReturnStatus LODEX_FindEntry(const LODEX_Query* query, int, LODEX_EntryHeader* entry,
                                 size_t size) {
  if (query == nullptr || entry == nullptr) return NUK_BAD_PARAM;
  std::vector<DirEntry> found;
  NUK_ReturnStatus st = FindByQuery(query, &found);
  if (st != NUK_OK) return st;
  LODEX_EntryHeader h;
  FillHeader(found.front(), &h);
  memcpy(entry, &h, size < sizeof(h) ? size : sizeof(h));
  return NUK_OK;
}

NUK_ReturnStatus LODEX_FindFullEntryByQuery(const LODEX_Query* query, int,
                                            Marshal_Allocator* allocator, LODEX_Entry** entry) {
  if (query == nullptr || entry == nullptr) return NUK_BAD_PARAM;
  std::vector<DirEntry> found;
  NUK_ReturnStatus st = FindByQuery(query, &found);
  if (st != NUK_OK) return st;
  LODEX_Entry* out = ToLodexEntry(allocator, found.front());
  if (out == nullptr) return NUK_NO_MEMORY;
  *entry = out;
  return NUK_OK;
}

NUK_ReturnStatus LODEX_FindFullEntryByHeader(const LODEX_EntryHeader* header, int,
                                             Marshal_Allocator* allocator, int count,
                                             LODEX_Entry** entry) {
  if (header == nullptr || entry == nullptr || count < 1) return NUK_BAD_PARAM;
  auto dir = OpenDir();
  if (!dir) return NUK_DIRECTORY_NOT_RUNNING;
  std::vector<LODEX_Entry*> made;
  for (int i = 0; i < count; ++i) {
    DirQuery q;
    q.matchUuid = q.matchType = true;
    memcpy(q.uuid.data(), header[i].uuid, 16);
    q.type = header[i].type;
    std::vector<DirEntry> found;
    NUK_ReturnStatus st = dir->Find(q, &found);
    LODEX_Entry* e = st == NUK_OK ? ToLodexEntry(allocator, found.front()) : nullptr;
    if (st == NUK_OK && e == nullptr) st = NUK_NO_MEMORY;
    if (st != NUK_OK) {
      for (LODEX_Entry* m : made) LODEX_FreeEntry(allocator, m);
      return st;
    }
    made.push_back(e);
  }
  for (int i = 0; i < count; ++i) entry[i] = made[i];
  return NUK_OK;
}

NUK_ReturnStatus LODEX_FindAllEntriesByQuery(const LODEX_Query* query, int,
                                             Marshal_Allocator* allocator, LODEX_EntryList** list) {
  if (query == nullptr || list == nullptr) return NUK_BAD_PARAM;
  std::vector<DirEntry> found;
  NUK_ReturnStatus st = FindByQuery(query, &found);
  if (st != NUK_OK) return st;
  auto* out = static_cast<LODEX_EntryList*>(Marshal_Alloc(allocator, sizeof(LODEX_EntryList)));
  if (out == nullptr) return NUK_NO_MEMORY;
  out->count = 0;
  out->entries =
      static_cast<LODEX_Entry**>(Marshal_Alloc(allocator, sizeof(LODEX_Entry*) * found.size()));
  if (out->entries == nullptr) {
    Marshal_Free(allocator, out);
    return NUK_NO_MEMORY;
  }
  for (const DirEntry& e : found) {
    LODEX_Entry* made = ToLodexEntry(allocator, e);
    if (made == nullptr) {
      LODEX_FreeEntryList(allocator, out);
      return NUK_NO_MEMORY;
    }
    out->entries[out->count++] = made;
  }
  *list = out;
  return NUK_OK;
}

const LODEX_Entry* LODEX_FirstEntry(const LODEX_EntryList* list) {
  return list != nullptr && list->count > 0 ? list->entries[0] : nullptr;
}

const LODEX_Entry* LODEX_NextEntry(const LODEX_EntryList* list, const LODEX_Entry* current) {
  if (list == nullptr) return nullptr;
  for (uint32_t i = 0; i + 1 < list->count; ++i) {
    if (list->entries[i] == current) return list->entries[i + 1];
  }
  return nullptr;
}

void LODEX_FreeEntryList(Marshal_Allocator* allocator, LODEX_EntryList* list) {
  if (list == nullptr) return;
  for (uint32_t i = 0; i < list->count; ++i) LODEX_FreeEntry(allocator, list->entries[i]);
  Marshal_Free(allocator, list->entries);
  Marshal_Free(allocator, list);
}

NUK_ReturnStatus LODEX_UpdateEntry(const LODEX_Entry* entry, LODEX_CompletionCb cb, void* context) {
  if (entry == nullptr) return NUK_BAD_PARAM;
  auto dir = OpenDir();
  if (!dir) return NUK_DIRECTORY_NOT_RUNNING;
  return dir->Update(FromLodexEntry(entry), [cb, context](NUK_ReturnStatus st) {
    if (cb != nullptr) cb(context, st);
  });
}

NUK_ReturnStatus LODEX_DeleteEntry(const LODEX_EntryHeader* header) {
  if (header == nullptr) return NUK_BAD_PARAM;
  auto dir = OpenDir();
  if (!dir) return NUK_DIRECTORY_NOT_RUNNING;
  DirUuid uuid;
  memcpy(uuid.data(), header->uuid, 16);
  return dir->Delete(uuid, header->type);
}

NUK_ReturnStatus LODEX_Subscribe(LODEX_Query* query, LODEX_NotifyCb cb, void* context) {
  if (query == nullptr || cb == nullptr) return NUK_BAD_PARAM;
  auto dir = OpenDir();
  if (!dir) return NUK_DIRECTORY_NOT_RUNNING;
  {
    std::lock_guard<std::mutex> guard(gRegistryMutex);
    if (gRegistry.count(query) != 0) return NUK_EXISTS;
    gRegistry[query] = Registration{dir, 0, cb, context};
  }
  auto notify = [query, cb, context](NUK_ReturnStatus status, const DirEntry* e) {
    if (status == NUK_SUBSCRIPTION_ENDED) {
      // Forget the handle before the callback may free it.
      std::lock_guard<std::mutex> guard(gRegistryMutex);
      gRegistry.erase(query);
    }
    if (e == nullptr) {
      cb(context, nullptr, -1, status);
      return;
    }
    LODEX_Entry* entry = ToLodexEntry(nullptr, *e);
    if (entry == nullptr) return;
    cb(context, entry, static_cast<int>(sizeof(LODEX_EntryHeader) + entry->header.dataLen), status);
    LODEX_FreeEntry(nullptr, entry);
  };
  Directory::SubscriptionId id = 0;
  NUK_ReturnStatus st = dir->Subscribe(ToDirQuery(query), notify, &id);
  std::lock_guard<std::mutex> guard(gRegistryMutex);
  if (st != NUK_OK) {
    gRegistry.erase(query);
    return st;
  }
  gRegistry[query].id = id;
  return NUK_OK;
}

NUK_ReturnStatus LODEX_Unsubscribe(LODEX_Query* handle, LODEX_NotifyCb cb, void* context) {
  Registration reg;
  {
    std::lock_guard<std::mutex> guard(gRegistryMutex);
    auto it = gRegistry.find(handle);
    if (it == gRegistry.end() || it->second.cb != cb || it->second.context != context) {
      return NUK_NOT_FOUND;
    }
    reg = it->second;
  }
  auto dir = reg.directory.lock();
  if (!dir) return NUK_NOT_FOUND;
  // The ended notification (which may free `handle`) can run inside this call.
  return dir->Unsubscribe(reg.id);
}

NUK_ReturnStatus LODEX_GetSelfUUID(uint8_t uuid[16]) {
  if (uuid == nullptr) return NUK_BAD_PARAM;
  auto dir = OpenDir();
  if (!dir) return NUK_DIRECTORY_NOT_RUNNING;
  DirUuid self = dir->SelfUuid();
  memcpy(uuid, self.data(), 16);
  return NUK_OK;
}
