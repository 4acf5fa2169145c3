// Files with cluster-wide advisory locks and atomic replacement.
//
// Locks are OFD locks (fcntl F_OFD_SETLK) on the whole file: shared for readers, exclusive for
// writers. They belong to the open file description, so dup()ed descriptors share them and closing
// a dup does not drop them. Because a lock taken on a file that a rename then replaces protects
// nothing, Fio_Open re-checks after locking that the descriptor's inode is still the one at the
// path and reopens while they differ, and Fio_AtomicUpdate locks the replacement before it becomes
// visible at the path, so the handle keeps its lock across the swap.
//
// Errors are platform statuses: NUK_BUSY when the lock is held elsewhere, NUK_NOT_FOUND when the
// file is missing, NUK_NO_PERMISSION, NUK_IO_ERROR, NUK_FAILURE otherwise.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "platform/status.h"

#define FIO_ACCESS_READ 0x1
#define FIO_ACCESS_WRITE 0x2
#define FIO_LOCK_SHARED 0x20
#define FIO_LOCK_EXCLUSIVE 0x2000
// The combinations the configuration file uses.
#define FIO_OPEN_READ_SHARED (FIO_ACCESS_READ | FIO_LOCK_SHARED)                         // 0x21
#define FIO_OPEN_RW_EXCLUSIVE (FIO_ACCESS_READ | FIO_ACCESS_WRITE | FIO_LOCK_EXCLUSIVE)  // 0x2003

// Descriptors are opened close-on-exec: a lock must never leak into a program the service runs
// (a daemon inheriting the descriptor would hold kel.conf's lock for its whole life).
struct FioHandle {
  int fd = -1;       // -1: invalid
  int lock = 0;      // FIO_LOCK_SHARED, FIO_LOCK_EXCLUSIVE or 0 (no lock)
  std::string path;  // where it was opened (for a temporary file: its temporary name)
  bool Valid() const { return fd >= 0; }
};

// Opens `path` with the access and lock of `flags`, without waiting for a busy lock.
NUK_ReturnStatus Fio_Open(const char* path, int flags, FioHandle* out);
// Closes the descriptor (dropping its lock) and invalidates the handle. Closing an invalid handle
// is a no-op returning NUK_OK.
NUK_ReturnStatus Fio_Close(FioHandle* file);
// Creates a new, empty temporary file in the directory of `file` (mode 0600, named
// ".<name>.tmp.XXXXXX"), locked like `file`. When `file` holds the exclusive lock, temporary files
// that crashed writers left behind (unlocked ones of the same name pattern) are removed first: only
// an exclusive holder writes, so none of them can belong to a live writer.
NUK_ReturnStatus Fio_AtomicTempFile(const FioHandle* file, FioHandle* temp);
NUK_ReturnStatus Fio_Sync(const FioHandle* file);
// Renames `temp` over `file`'s path and syncs the directory. On success `file` refers to the new
// contents and still holds a lock of the same kind; `temp` is invalidated. The replacement gets
// mode 0600. A failing rename leaves both handles as they were. A failing directory sync after a
// good rename still moves the handle to the new file but returns NUK_IO_ERROR: the new contents
// are in place, only their durability is in doubt.
NUK_ReturnStatus Fio_AtomicUpdate(FioHandle* file, FioHandle* temp);
// Removes what is left at the temporary name (after a failed swap) and closes it.
NUK_ReturnStatus Fio_RemoveTemp(FioHandle* temp);
// Locks (FIO_LOCK_SHARED or FIO_LOCK_EXCLUSIVE, without waiting) the intent file of `path`: the
// sibling ".<name>.intent", created with mode 0600 when missing and never replaced, so that a lock
// on it means the same file to everyone. OFD locks do not favour a waiting writer, so back-to-back
// readers of `path` could keep one out for good; with the intent file a writer announces itself:
// it holds the intent exclusively while it waits for its lock on `path`, and a reader takes the
// intent shared only for the moment of taking its own lock, so new readers queue behind a waiting
// writer. NUK_BUSY when held in a conflicting mode, NUK_NOT_FOUND when the directory is missing.
NUK_ReturnStatus Fio_LockIntent(const char* path, int lock, FioHandle* out);
// The intent file of `path` (whoever removes the folder removes it with `path`).
std::string Fio_IntentPath(const std::string& path);
// Writes all `len` bytes at the descriptor's current offset (short writes are continued).
NUK_ReturnStatus Fio_Write(const FioHandle* file, const void* data, size_t len);
// Text of the system error behind the last failing Fio call of this thread.
const char* Fio_LastErrorText(void);
// errno value behind the last failing Fio call of this thread (0 if none).
int Fio_LastErrno(void);

// Test-only fault injection. The steps of an atomic replacement at which a test can make the
// system call fail (or stop the process, to stand for a crash at that moment).
enum class FioStep {
  kTempCreate,  // Fio_AtomicTempFile
  kWrite,       // Fio_Write: half of the data is written before the failure, as on a full disk
  kSync,        // Fio_Sync
  kRename,      // the rename of Fio_AtomicUpdate
  kDirSync,     // the directory sync after that rename
};
// Called before each step with the path it works on; a non-zero errno value makes the step fail
// with it. nullptr (the default) removes the hook. Must not race with Fio calls.
using FioFaultHook = std::function<int(FioStep step, const std::string& path)>;
void Fio_SetFaultHookForTest(FioFaultHook hook);
