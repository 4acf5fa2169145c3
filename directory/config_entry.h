// The configuration entry: one directory entry per cluster that carries the generation number of
// kel.conf, so that every host learns of a change made by any host.
//
// The entry's UUID is the configuration namespace's UUID, its type 37, its owner the host that
// published it last, and its data the marshalled "LodexOrsaIscsiTargetConfig" (version 1, the
// namespace UUID, the generation). The glue functions (prefix Keld) return platform statuses and
// log through the C-side log; the Util wrappers throw OrsaCtlException.
//
// Per-process state: the callback that change notifications are forwarded to, and
// gAppliedConfigGeneration, the last generation seen in a notification (0 after unsubscribing).
// Notifications run on the directory's notification thread; only that thread writes
// gAppliedConfigGeneration, apart from the reset at unsubscribe.
#pragma once

#include <semaphore.h>

#include <atomic>
#include <cstdint>
#include <mutex>

#include "platform/lodex.h"
#include "platform/status.h"

#define KELD_LODEX_CONFIG_ENTRY_TYPE 37
#define KELD_LODEX_CONFIG_PROTOCOL_VERSION 1
// Largest marshalled form of the structure.
#define KELD_LODEX_CONFIG_MAX_LEN 1024

typedef struct LodexOrsaIscsiTargetConfig {
  uint32_t protocolVersion;
  uint8_t configNamespaceUuid[16];
  uint64_t configGenNumber;
} LodexOrsaIscsiTargetConfig;

// The description set with "LodexOrsaIscsiTargetConfig" registered (created once, never freed).
Marshal_Description* KeldConfigEntryDescription(void);

// Where a change notification of the entry is forwarded: (subscription handle, status).
typedef void (*KeldConfigChangeCb)(void* handle, NUK_ReturnStatus status);

extern std::atomic<uint64_t> gAppliedConfigGeneration;

// A wait for `expected` directory completions. The result starts as NUK_PENDING; a completion is
// stored only while the result is still pending or 0, so a first error is never overwritten.
struct LodexCompletionRecord {
  sem_t sem;
  std::mutex mu;
  NUK_ReturnStatus result;  // guarded by mu
  int expected;
  int timeoutSeconds;  // 0: wait without a time limit
};

void LodexCompletionInit(LodexCompletionRecord* record, int expected, int timeoutSeconds);
void LodexCompletionDestroy(LodexCompletionRecord* record);
// Stores `status` by the rule above and posts the semaphore (the LODEX completion callback;
// `context` is the record).
void LodexEntryCallback(void* context, NUK_ReturnStatus status);
// Waits once per expected completion and returns the stored result. An interrupted wait is
// retried; any other wait failure gives NUK_WAIT_FAILED, a clock failure NUK_FAILURE.
NUK_ReturnStatus LodexCompletionWait(LodexCompletionRecord* record);

// The generation currently published (NUK_NOT_FOUND when there is no entry).
NUK_ReturnStatus KeldGetConfigGenNumInLodex(uint64_t* gen);
// Publishes `gen` (create or replace) and waits for the directory to confirm it. 0 and NUK_EXISTS
// count as success. The status is returned either way.
NUK_ReturnStatus KeldUpdateLodexEntryForConfig(uint64_t gen);
// Publishes `gen` only when no entry exists yet.
NUK_ReturnStatus KeldAddLodexEntryForConfig(uint64_t gen);
// Starts watching the entry; notifications go to KeldLodexConfUpdateCb and from there to
// `callback`. `handle` (optional) gets the subscription handle to pass to the unsubscribe call.
NUK_ReturnStatus KeldLodexSubscribeToConfigEntry(KeldConfigChangeCb callback,
                                                 void** handle = nullptr);
// Stops watching and resets gAppliedConfigGeneration to 0. The handle is freed by the
// subscription's final notification.
NUK_ReturnStatus KeldLodexUnsubscribeToConfigEntry(void* handle);
// The notification callback of the subscription (`query` is the subscription's query record).
NUK_ReturnStatus KeldLodexConfUpdateCb(void* query, const LODEX_Entry* entry, int length,
                                       NUK_ReturnStatus status);

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

// Publishes the generation that a local write produced. All ones: nothing was written, nothing is
// done. NUK_EXISTS is only a warning; any other failure throws "Failed to Update KEL conf entry
// into LODEX with error: " + status text. The file stays as written either way.
void DoActionForConfigChange(uint64_t gen);

// The control thread's backup step: only in the host agent, and only when IsBackupConfNeeded().
void BackupConfigFile();
// True when this process never made a backup, or the cached generation is larger than the last
// backup's (no cache reads as all ones, which is larger).
bool IsBackupConfNeeded();

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
