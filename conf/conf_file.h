// C side of the locked access to kel.conf: open with the shared or the exclusive cluster-wide lock,
// waiting for a busy lock and for a missing file, and close (which drops the lock).
//
// The wait is a fixed-step retry: a busy lock is retried every 200 ms, up to
// ceil(min(wait_ms, 600000) / 200) times; a missing file every 2 s, up to
// ceil(min(wait_ms, 10000) / 2000) times (1500 and 5 for the 300000 that ConfHandle uses). Every
// sleep goes through kel::platform::SleepMs, so tests run the rule with a fake clock.
//
// Writers are preferred over readers through the file's intent file (Fio_LockIntent): a writer
// takes the intent exclusively (a busy intent is retried like a busy lock), then the exclusive lock
// on the file, keeping the intent while it waits for that lock, and releases the intent once it
// has the lock; a reader takes the intent shared, tries the shared lock once, and releases the
// intent before it sleeps. New readers thus queue behind a waiting writer instead of keeping it out
// until its budget runs out.
//
// On failure the handle is left invalid and the platform status is returned (NUK_BUSY when the
// lock stayed busy, NUK_NOT_FOUND when the file stayed missing).
#pragma once

#include "platform/fio.h"
#include "platform/status.h"

// Opens `path` for reading with the shared lock (Fio flags 0x21).
NUK_ReturnStatus conf_file_open_share_lock(const char* path, FioHandle* file, int wait_ms);
// Opens `path` for reading and writing with the exclusive lock (Fio flags 0x2003).
NUK_ReturnStatus conf_file_open_exclusive_lock(const char* path, FioHandle* file, int wait_ms);
// Closes a valid handle, dropping its lock; an invalid handle is left alone. Returns the close
// status.
NUK_ReturnStatus conf_close_file(FioHandle* file);
