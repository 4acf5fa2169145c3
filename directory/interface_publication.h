// Interface publication: each host publishes one directory entry per network interface with the
// interface's IPv4 and IPv6 addresses, so that any host can turn (owner host, interface name) into
// an address for a target's portal.
//
// Entries have type 38, are owned by the publishing host (and so vanish with it on a multi-host
// directory), get a random UUID when first published and keep it for as long as the interface
// exists, whatever its addresses do. Their data is the marshalled "LodexOrsaIscsiInterfaceMap".
//
// Publication failures never stop the service: the pass logs and returns, and the next pass
// retries the whole difference. Lookups return statuses.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/marshal.h"
#include "platform/status.h"

#define KELD_LODEX_INTERFACE_ENTRY_TYPE 38

typedef struct LodexOrsaIscsiInterfaceMap {
  char* interfaceName;
  uint32_t v4;     // network byte order; 0 when none
  uint8_t v6[16];  // all zero when none
} LodexOrsaIscsiInterfaceMap;

// The description set with "LodexOrsaIscsiInterfaceMap" registered (created once, never freed).
Marshal_Description* KeldInterfaceEntryDescription(void);

// Addresses of interface `name` of host `hostUuid` (16 bytes) as text. Outputs that are given are
// emptied first; `v4Text` needs 16 bytes, `v6Text` INET6_ADDRSTRLEN. An address the interface does
// not have stays empty. NUK_FAILURE when the directory cannot be queried or the interface has no
// address; NUK_NOT_FOUND when the host published no such interface.
NUK_ReturnStatus KeldLodexGetInterfaceAddress(const char* name, const uint8_t* hostUuid,
                                              char* v4Text, char* v6Text);
// The same for this host.
NUK_ReturnStatus KeldLodexGetSelfInterfaceAddress(const char* name, char* v4Text, char* v6Text);

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

class KelNetLodexEntry {
 public:
  KelNetLodexEntry();
  KelNetLodexEntry(const KelNetLodexEntry& other) = default;
  KelNetLodexEntry& operator=(const KelNetLodexEntry& other) = default;
  // An entry not yet published: zero UUID.
  KelNetLodexEntry(const std::string& name, uint32_t v4, const uint8_t v6[16]);
  KelNetLodexEntry(const LodexOrsaIscsiInterfaceMap& map, const uint8_t uuid[16]);

  // Names only (byte-wise): which published entry stands for which interface.
  bool operator==(const KelNetLodexEntry& other) const;
  // Name and both addresses: whether the published entry is still right. Neither looks at the UUID.
  bool DeepEqual(const KelNetLodexEntry& other) const;

  // The three data fields; `interfaceName` points into this object and lives as long as it.
  LodexOrsaIscsiInterfaceMap GetLodexOrsaIscsiInterfaceMap() const;

  std::string interfaceName;
  uint32_t v4 = 0;
  uint8_t v6[16] = {0};
  uint8_t uuid[16] = {0};
};

// The entries this host should publish now: every interface the platform reports, in its order.
std::vector<KelNetLodexEntry> GetNewLodexEntries();
// The entries this host has published. Throws after logging when the directory cannot be read.
std::vector<KelNetLodexEntry> GetLodexEntriesForNukNics();
// Rewrites changed entries under their UUIDs, deletes entries of vanished interfaces, publishes
// new interfaces under fresh UUIDs. Throws on the first failing directory call.
void PublishDiffNetLodexEntries(const std::vector<KelNetLodexEntry>& published,
                                const std::vector<KelNetLodexEntry>& wanted);
void PublishNewNetLodexEntry(const LodexOrsaIscsiInterfaceMap& map);
void UpdateNetLodexEntry(const LodexOrsaIscsiInterfaceMap& map, const uint8_t uuid[16]);
void DeleteNetLodexEntry(const uint8_t uuid[16]);
// The whole pass; never throws (failures are logged).
void PublishNukNicsToLodex();

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
