#include "directory/interface_publication.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "directory/config_entry.h"
#include "platform/clog.h"
#include "platform/directory.h"
#include "platform/exception.h"
#include "platform/lodex.h"
#include "platform/log.h"
#include "platform/network.h"

namespace {

const Marshal_FieldDesc kInterfaceFields[] = {
    {"interfaceName", MARSHAL_FIELD_STRING, offsetof(LodexOrsaIscsiInterfaceMap, interfaceName)},
    {"v4", MARSHAL_FIELD_IPV4, offsetof(LodexOrsaIscsiInterfaceMap, v4)},
    {"v6", MARSHAL_FIELD_IPV6, offsetof(LodexOrsaIscsiInterfaceMap, v6)},
};

const Marshal_StructDesc kInterfaceDesc = {"LodexOrsaIscsiInterfaceMap",
                                           sizeof(LodexOrsaIscsiInterfaceMap), kInterfaceFields,
                                           sizeof(kInterfaceFields) / sizeof(kInterfaceFields[0])};

const char kInterfaceStructName[] = "LodexOrsaIscsiInterfaceMap";
const char* kTag = "Util";

// Interface names are short; the encoded map stays far below this.
constexpr uint32_t kMaxInterfaceEntryLen = 1024;

std::string UuidText(const uint8_t* bytes) {
  kel::platform::DirUuid u;
  memcpy(u.data(), bytes, 16);
  return kel::platform::DirUuidToText(u);
}

bool IsZero(const uint8_t* bytes, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (bytes[i] != 0) return false;
  }
  return true;
}

}  // namespace

Marshal_Description* KeldInterfaceEntryDescription(void) {
  static Marshal_Description* description = [] {
    Marshal_Description* d = Marshal_CreateDescription();
    Marshal_RegisterStructure(d, &kInterfaceDesc);
    return d;
  }();
  return description;
}

NUK_ReturnStatus KeldLodexGetInterfaceAddress(const char* name, const uint8_t* hostUuid,
                                              char* v4Text, char* v6Text) {
  if (v4Text != nullptr) v4Text[0] = '\0';
  if (v6Text != nullptr) v6Text[0] = '\0';
  if (name == nullptr || hostUuid == nullptr) return NUK_BAD_PARAM;
  LODEX_Query query;
  LODEX_InitQuery(&query, 0x626, nullptr, hostUuid);
  Marshal_Allocator* allocator = Marshal_DefaultAllocator();
  LODEX_EntryList* list = nullptr;
  NUK_ReturnStatus st = LODEX_FindAllEntriesByQuery(&query, 0, allocator, &list);
  if (st != NUK_OK) {
    // No entry of that host at all reads the same as a failed query: nothing to resolve with.
    log_debugx("Failed to get KEL nuk interface entry from LODEX with error: %s",
               NUK_ReturnStatusToString(st));
    return NUK_FAILURE;
  }
  LodexOrsaIscsiInterfaceMap* found = nullptr;
  for (const LODEX_Entry* e = LODEX_FirstEntry(list); e != nullptr && found == nullptr;
       e = LODEX_NextEntry(list, e)) {
    void* structure = nullptr;
    if (Marshal_UmshSingleStructure(allocator, KeldInterfaceEntryDescription(), e->data,
                                    e->header.dataLen, kInterfaceStructName,
                                    &structure) != NUK_OK) {
      continue;
    }
    auto* map = static_cast<LodexOrsaIscsiInterfaceMap*>(structure);
    if (map->interfaceName != nullptr && strcmp(map->interfaceName, name) == 0) {
      found = map;
    } else {
      Marshal_DeallocStructure(allocator, KeldInterfaceEntryDescription(), kInterfaceStructName,
                               structure);
    }
  }
  LODEX_FreeEntryList(allocator, list);
  if (found == nullptr) {
    st = NUK_NOT_FOUND;
    log_warnx("Unable to find LODEX entry for interface %s for host %s with error: %s", name,
              UuidText(hostUuid).c_str(), NUK_ReturnStatusToString(st));
    return st;
  }
  bool any = false;
  if (v4Text != nullptr && found->v4 != 0) {
    inet_ntop(AF_INET, &found->v4, v4Text, 16);
    log_debugx("Retrieved IPv4 address %s", v4Text);
    any = true;
  }
  if (v6Text != nullptr && !IsZero(found->v6, 16)) {
    inet_ntop(AF_INET6, found->v6, v6Text, INET6_ADDRSTRLEN);
    log_debugx("Retrieved IPv6 address %s", v6Text);
    any = true;
  }
  Marshal_DeallocStructure(allocator, KeldInterfaceEntryDescription(), kInterfaceStructName, found);
  if (!any) {
    log_warnx("Failed to fetch target interface %s address for host %s", name,
              UuidText(hostUuid).c_str());
    return NUK_FAILURE;
  }
  return NUK_OK;
}

NUK_ReturnStatus KeldLodexGetSelfInterfaceAddress(const char* name, char* v4Text, char* v6Text) {
  uint8_t self[16];
  NUK_ReturnStatus st = LODEX_GetSelfUUID(self);
  if (st != NUK_OK) {
    if (v4Text != nullptr) v4Text[0] = '\0';
    if (v6Text != nullptr) v6Text[0] = '\0';
    return st;
  }
  return KeldLodexGetInterfaceAddress(name, self, v4Text, v6Text);
}

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

KelNetLodexEntry::KelNetLodexEntry() = default;

KelNetLodexEntry::KelNetLodexEntry(const std::string& name, uint32_t v4Addr,
                                   const uint8_t v6Addr[16])
    : interfaceName(name), v4(v4Addr) {
  memcpy(v6, v6Addr, 16);
}

KelNetLodexEntry::KelNetLodexEntry(const LodexOrsaIscsiInterfaceMap& map, const uint8_t id[16])
    : interfaceName(map.interfaceName != nullptr ? map.interfaceName : ""), v4(map.v4) {
  memcpy(v6, map.v6, 16);
  memcpy(uuid, id, 16);
}

bool KelNetLodexEntry::operator==(const KelNetLodexEntry& other) const {
  return interfaceName == other.interfaceName;
}

bool KelNetLodexEntry::DeepEqual(const KelNetLodexEntry& other) const {
  return interfaceName == other.interfaceName && v4 == other.v4 && memcmp(v6, other.v6, 16) == 0;
}

LodexOrsaIscsiInterfaceMap KelNetLodexEntry::GetLodexOrsaIscsiInterfaceMap() const {
  LodexOrsaIscsiInterfaceMap map;
  map.interfaceName = const_cast<char*>(interfaceName.c_str());
  map.v4 = v4;
  memcpy(map.v6, v6, 16);
  return map;
}

std::vector<KelNetLodexEntry> GetNewLodexEntries() {
  std::vector<KelNetLodexEntry> wanted;
  wanted.reserve(16);
  for (const std::string& name : NukCtl::Network::NukOSNicApi::GetNukOSNicNames()) {
    std::string v4Text, v6Text;
    NukCtl::Network::NukOSNicApi::GetPreferredKelNetworkAddressForNukNic(name, v4Text, v6Text);
    uint32_t v4 = 0;
    uint8_t v6[16] = {0};
    // Text that does not parse leaves that address zero ("none").
    if (inet_pton(AF_INET, v4Text.c_str(), &v4) != 1) v4 = 0;
    if (inet_pton(AF_INET6, v6Text.c_str(), v6) != 1) memset(v6, 0, sizeof(v6));
    wanted.emplace_back(name, v4, v6);
  }
  return wanted;
}

std::vector<KelNetLodexEntry> GetLodexEntriesForNukNics() {
  LogInfo("%s: Getting nuk interface entries from LODEX for this host.", kTag);
  std::vector<KelNetLodexEntry> published;
  uint8_t self[16];
  NUK_ReturnStatus st = LODEX_GetSelfUUID(self);
  LODEX_EntryList* list = nullptr;
  Marshal_Allocator* allocator = Marshal_DefaultAllocator();
  if (st == NUK_OK) {
    LODEX_Query query;
    LODEX_InitQuery(&query, 0x626, nullptr, self);
    st = LODEX_FindAllEntriesByQuery(&query, 0, allocator, &list);
  }
  if (st == NUK_NOT_FOUND) return published;  // nothing published yet
  if (st != NUK_OK) {
    LogError("%s: Failed to get KEL interface entry from LODEX with error %s", kTag,
             NUK_ReturnStatusToString(st));
    // Publishing without knowing what exists would duplicate every entry: give up this pass.
    throw HostCtl::Lib::Orsa::OrsaCtlException(
        std::string("Failed to get KEL interface entry from LODEX with error ") +
        NUK_ReturnStatusToString(st));
  }
  for (const LODEX_Entry* e = LODEX_FirstEntry(list); e != nullptr; e = LODEX_NextEntry(list, e)) {
    void* structure = nullptr;
    st = Marshal_UmshSingleStructure(allocator, KeldInterfaceEntryDescription(), e->data,
                                     e->header.dataLen, kInterfaceStructName, &structure);
    if (st != NUK_OK) {
      LogError("%s: Failed to umsh KEL interface entry from LODEX with error %s", kTag,
               NUK_ReturnStatusToString(st));
      continue;
    }
    published.emplace_back(*static_cast<LodexOrsaIscsiInterfaceMap*>(structure), e->header.uuid);
    Marshal_DeallocStructure(allocator, KeldInterfaceEntryDescription(), kInterfaceStructName,
                             structure);
  }
  LODEX_FreeEntryList(allocator, list);
  return published;
}

void UpdateNetLodexEntry(const LodexOrsaIscsiInterfaceMap& map, const uint8_t uuid[16]) {
  uint8_t buffer[kMaxInterfaceEntryLen];
  uint32_t length = sizeof(buffer);
  NUK_ReturnStatus st = Marshal_MshSingleStructure(KeldInterfaceEntryDescription(),
                                                   kInterfaceStructName, &map, &length, buffer);
  if (st != NUK_OK) {
    throw HostCtl::Lib::Orsa::OrsaCtlException(
        std::string("Failed to marshal LODEX KEL interface entry: ") +
        NUK_ReturnStatusToString(st));
  }
  uint8_t self[16] = {0};
  st = LODEX_GetSelfUUID(self);
  if (st == NUK_OK) {
    Marshal_Allocator* allocator = Marshal_DefaultAllocator();
    LODEX_Entry* entry = LODEX_AllocEntry(allocator, length);
    if (entry == nullptr) log_err(1, "Failed to allocate memory");
    memcpy(entry->header.uuid, uuid, 16);
    memcpy(entry->header.owner, self, 16);
    entry->header.type = KELD_LODEX_INTERFACE_ENTRY_TYPE;
    entry->header.health = LODEX_HEALTHY;
    memcpy(entry->data, buffer, length);
    LodexCompletionRecord record;
    LodexCompletionInit(&record, 1, 0);
    st = LODEX_UpdateEntry(entry, LodexEntryCallback, &record);
    if (st != NUK_OK) LodexEntryCallback(&record, st);
    st = LodexCompletionWait(&record);
    LodexCompletionDestroy(&record);
    LODEX_FreeEntry(allocator, entry);
  }
  const char* name = map.interfaceName != nullptr ? map.interfaceName : "";
  if (st != NUK_OK) {
    std::string msg = std::string("Failed to update LODEX interface entry for nuk nic ") + name +
                      " with status " + NUK_ReturnStatusToString(st);
    LogError("%s: %s", kTag, msg.c_str());
    throw HostCtl::Lib::Orsa::OrsaCtlException(msg);
  }
  LogInfo("%s: Successfully updated LODEX interface entry for nuk nic %s", kTag, name);
}

void PublishNewNetLodexEntry(const LodexOrsaIscsiInterfaceMap& map) {
  kel::platform::DirUuid uuid = kel::platform::RandomDirUuid();
  UpdateNetLodexEntry(map, uuid.data());
}

void DeleteNetLodexEntry(const uint8_t uuid[16]) {
  LODEX_Query query;
  LODEX_InitQuery(&query, LODEX_MATCH_UUID | LODEX_MATCH_TYPE | KELD_LODEX_INTERFACE_ENTRY_TYPE,
                  uuid, nullptr);
  LODEX_EntryHeader header;
  NUK_ReturnStatus st = LODEX_FindEntry(&query, 0, &header, sizeof(header));
  if (st != NUK_OK) {
    LogError("%s: Failed to get KEL interface entry from LODEX with error %s", kTag,
             NUK_ReturnStatusToString(st));
    return;
  }
  st = LODEX_DeleteEntry(&header);
  if (st != NUK_OK) {
    std::string msg = "Failed to delete interface entry UUID " + UuidText(uuid) + " with error " +
                      NUK_ReturnStatusToString(st);
    LogError("%s: %s", kTag, msg.c_str());
    throw HostCtl::Lib::Orsa::OrsaCtlException(msg);
  }
}

void PublishDiffNetLodexEntries(const std::vector<KelNetLodexEntry>& published,
                                const std::vector<KelNetLodexEntry>& wanted) {
  for (const KelNetLodexEntry& old : published) {
    auto match = std::find(wanted.begin(), wanted.end(), old);
    if (match == wanted.end()) {
      LogInfo("%s: Start to delete lodex entry for '%s'", kTag, old.interfaceName.c_str());
      DeleteNetLodexEntry(old.uuid);
    } else if (!match->DeepEqual(old)) {
      UpdateNetLodexEntry(match->GetLodexOrsaIscsiInterfaceMap(), old.uuid);
    }
  }
  for (const KelNetLodexEntry& want : wanted) {
    if (std::find(published.begin(), published.end(), want) == published.end()) {
      PublishNewNetLodexEntry(want.GetLodexOrsaIscsiInterfaceMap());
    }
  }
}

void PublishNukNicsToLodex() {
  LogInfo("%s: Start to publish nuknics to lodex", kTag);
  try {
    std::vector<KelNetLodexEntry> published = GetLodexEntriesForNukNics();
    std::vector<KelNetLodexEntry> wanted = GetNewLodexEntries();
    PublishDiffNetLodexEntries(published, wanted);
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException& e) {
    LogError("%s: Failed to publish nuk nic info to LODEX %s", kTag, e.GetMessage().c_str());
  }
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
