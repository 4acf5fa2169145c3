// LODEX_*: the C-level directory API of the glue code, over the process's directory
// (platform/directory.h).
//
// Records:
//   - LODEX_EntryHeader: uuid, owner host, type byte (all 8 bits are the type), health, data
//   length.
//   - LODEX_Entry: a header followed by its data in one allocation (`data` points just past the
//     header). Entries returned by the Find functions are allocated through the marshalling
//     allocator passed in and are freed with LODEX_FreeEntry through the same allocator.
//   - LODEX_Query: match flags plus a header whose fields are matched. The low byte of the match
//     flags is the entry type; the bits above say which fields must match:
//       LODEX_MATCH_UUID 0x100, LODEX_MATCH_OWNER 0x200, LODEX_MATCH_TYPE 0x400, and
//       LODEX_MATCH_NOTIFY 0x800 marking a subscription. So 0x525 reads the entry of type 0x25 with
//       the query's UUID, 0xd25 subscribes to it, and 0x626 finds the type 0x26 entries of one
//       owner.
//     A query record fits in 64 bytes.
//
// Statuses are the platform's (platform/status.h). A directory that cannot be opened answers
// NUK_DIRECTORY_NOT_RUNNING. All functions are thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/marshal.h"
#include "platform/status.h"

#define LODEX_MATCH_UUID 0x100u
#define LODEX_MATCH_OWNER 0x200u
#define LODEX_MATCH_TYPE 0x400u
#define LODEX_MATCH_NOTIFY 0x800u
#define LODEX_MATCH_TYPE_MASK 0xffu

#define LODEX_HEALTHY 1
#define LODEX_UNHEALTHY 0

typedef struct LODEX_EntryHeader {
  uint8_t uuid[16];
  uint8_t owner[16];
  uint8_t type;
  uint8_t health;
  uint16_t reserved;
  uint32_t dataLen;
} LODEX_EntryHeader;

typedef struct LODEX_Entry {
  LODEX_EntryHeader header;
  uint8_t* data;  // header.dataLen bytes
} LODEX_Entry;

typedef struct LODEX_Query {
  uint16_t matchFlags;
  uint16_t reserved;
  uint32_t reserved2;
  LODEX_EntryHeader header;  // the fields that the match flags select
  uint8_t pad[12];
} LODEX_Query;

static_assert(sizeof(LODEX_Query) <= 64, "a query record is allocated as 64 bytes");

typedef struct LODEX_HandleRec* LODEX_Handle;
typedef struct LODEX_EntryList LODEX_EntryList;

// Completion of LODEX_UpdateEntry: called once, on the directory's writer thread.
typedef void (*LODEX_CompletionCb)(void* context, NUK_ReturnStatus status);
// Change notification (see platform/directory.h for the statuses). `entry` is null for
// NUK_ENTRY_CHANGED and NUK_SUBSCRIPTION_ENDED; for NUK_OK it carries the header and the data;
// for NUK_NOT_FOUND the last header. `length` is the entry's total size (header and data), or -1.
// NUK_SUBSCRIPTION_ENDED is the last call: the context may be freed then.
typedef NUK_ReturnStatus (*LODEX_NotifyCb)(void* context, const LODEX_Entry* entry, int length,
                                           NUK_ReturnStatus status);

// Builds a query (zero-filled) with `flags` and, where given, the uuid and owner to match.
void LODEX_InitQuery(LODEX_Query* query, uint16_t flags, const uint8_t* uuid, const uint8_t* owner);

// Opens the process's directory (so a caller learns early that it is not reachable).
NUK_ReturnStatus LODEX_Initialize(int flag, int reserved, LODEX_Handle* handle);
NUK_ReturnStatus LODEX_Deinitialize(LODEX_Handle handle);

// Header of the first matching entry (in key order) copied into `entry` (`size` bytes available).
NUK_ReturnStatus LODEX_FindEntry(const LODEX_Query* query, int flags, LODEX_EntryHeader* entry,
                                 size_t size);
// First matching entry with its data. NUK_NOT_FOUND when none.
NUK_ReturnStatus LODEX_FindFullEntryByQuery(const LODEX_Query* query, int flags,
                                            Marshal_Allocator* allocator, LODEX_Entry** entry);
// The entries named by `count` headers (uuid and type), with their data, into entry[0..count-1].
// Fails (and returns nothing) when any of them is missing.
NUK_ReturnStatus LODEX_FindFullEntryByHeader(const LODEX_EntryHeader* header, int flags,
                                             Marshal_Allocator* allocator, int count,
                                             LODEX_Entry** entry);
// Every matching entry; walk with LODEX_FirstEntry / LODEX_NextEntry (null at the end).
NUK_ReturnStatus LODEX_FindAllEntriesByQuery(const LODEX_Query* query, int flags,
                                             Marshal_Allocator* allocator, LODEX_EntryList** list);
const LODEX_Entry* LODEX_FirstEntry(const LODEX_EntryList* list);
const LODEX_Entry* LODEX_NextEntry(const LODEX_EntryList* list, const LODEX_Entry* current);
void LODEX_FreeEntry(Marshal_Allocator* allocator, LODEX_Entry* entry);
void LODEX_FreeEntryList(Marshal_Allocator* allocator, LODEX_EntryList* list);

// Creates or replaces the entry (a zero owner means this host). Returns at once; `cb` gets the
// outcome. When the call itself fails, `cb` is not called.
NUK_ReturnStatus LODEX_UpdateEntry(const LODEX_Entry* entry, LODEX_CompletionCb cb, void* context);
NUK_ReturnStatus LODEX_DeleteEntry(const LODEX_EntryHeader* header);

// Watches the entries matching `query`; (`query`, `cb`, `context`) identify the subscription for
// LODEX_Unsubscribe. The query must stay valid until the ended notification.
NUK_ReturnStatus LODEX_Subscribe(LODEX_Query* query, LODEX_NotifyCb cb, void* context);
NUK_ReturnStatus LODEX_Unsubscribe(LODEX_Query* handle, LODEX_NotifyCb cb, void* context);

NUK_ReturnStatus LODEX_GetSelfUUID(uint8_t uuid[16]);

// Allocates an entry of `dataLen` bytes of data through `allocator` (zero-filled).
LODEX_Entry* LODEX_AllocEntry(Marshal_Allocator* allocator, uint32_t dataLen);
