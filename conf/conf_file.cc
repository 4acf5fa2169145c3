#include "conf/conf_file.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "platform/clock.h"
#include "platform/clog.h"

namespace {

constexpr int kLockSleepMs = 200;
constexpr int kLockWaitCapMs = 600000;
constexpr int kNotFoundSleepMs = 2000;
constexpr int kNotFoundWaitCapMs = 10000;

int CeilDiv(int a, int b) { return a <= 0 ? 0 : (a + b - 1) / b; }

// One attempt at `path` behind its intent file (Fio_LockIntent). A writer (exclusive) keeps the
// intent in `intent` while `path` is busy, so that no new reader gets in before it; a reader never
// waits holding it. An intent file that cannot be made (a read-only file system) only costs the
// preference: the attempt goes on without it.
NUK_ReturnStatus OpenBehindIntent(const char* path, int flags, FioHandle* file, FioHandle* intent,
                                  int* last_errno) {
  const bool writer = (flags & FIO_LOCK_EXCLUSIVE) != 0;
  if (!intent->Valid() && (flags & (FIO_LOCK_SHARED | FIO_LOCK_EXCLUSIVE)) != 0) {
    NUK_ReturnStatus status =
        Fio_LockIntent(path, writer ? FIO_LOCK_EXCLUSIVE : FIO_LOCK_SHARED, intent);
    if (status == NUK_BUSY || status == NUK_NOT_FOUND) {
      *last_errno = Fio_LastErrno();
      return status;
    }
  }
  NUK_ReturnStatus status = Fio_Open(path, flags, file);
  if (status != NUK_OK) *last_errno = Fio_LastErrno();
  if (!writer || status != NUK_BUSY) Fio_Close(intent);
  return status;
}

// Opens with retries: a busy lock (of the file or of its intent) and a missing file each have
// their own budget; any other result ends the wait at once. A retry sleeps only when another
// attempt follows, so the budgets are the numbers of re-opens (5 re-opens 2 s apart for a missing
// file under the 300 s wait).
NUK_ReturnStatus OpenWithRetries(const char* path, int flags, FioHandle* file, int wait_ms) {
  file->fd = -1;
  file->lock = 0;
  file->path.clear();
  const int lock_budget = CeilDiv(std::min(wait_ms, kLockWaitCapMs), kLockSleepMs);
  const int not_found_budget = CeilDiv(std::min(wait_ms, kNotFoundWaitCapMs), kNotFoundSleepMs);
  int lock_retries = 0;
  int not_found_retries = 0;
  NUK_ReturnStatus status;
  int last_errno = 0;
  FioHandle intent;
  for (;;) {
    status = OpenBehindIntent(path, flags, file, &intent, &last_errno);
    if (status == NUK_BUSY) {
      if (lock_retries >= lock_budget) break;
      ++lock_retries;
      kel::platform::SleepMs(kLockSleepMs);
    } else if (status == NUK_NOT_FOUND) {
      if (not_found_retries >= not_found_budget) break;
      ++not_found_retries;
      kel::platform::SleepMs(kNotFoundSleepMs);
    } else {
      break;
    }
  }
  Fio_Close(&intent);
  if (lock_retries != 0 || not_found_retries != 0) {
    if (status == NUK_OK) {
      log_debugx("open succeeded for %s after %d lock retries and %d not found retries", path,
                 lock_retries, not_found_retries);
    } else {
      log_warnx(
          "open failed for %s after %d lock retries and %d not found retries due to error "
          "(%s).",
          path, lock_retries, not_found_retries, NUK_ReturnStatusToString(status));
    }
  }
  // The caller's log_warn reports the system error of the failed open, not whatever the sleeps
  // or the log left in errno.
  errno = last_errno;
  return status;
}

NUK_ReturnStatus OpenLocked(const char* kind, int flags, const char* path, FioHandle* file,
                            int wait_ms) {
  if (path == nullptr || file == nullptr) return NUK_BAD_PARAM;
  log_debugx("requesting %s lock for config file %s", kind, path);
  NUK_ReturnStatus status = OpenWithRetries(path, flags, file, wait_ms);
  struct stat st = {};
  if (status == NUK_OK && (fstat(file->fd, &st) != 0 || !S_ISREG(st.st_mode))) {
    // A directory opens for reading and even locks; its "contents" would then fail deep inside
    // the scanner.
    Fio_Close(file);
    log_warnx("config file %s is not a regular file", path);
    errno = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    status = NUK_FAILURE;
  }
  if (status == NUK_OK) {
    log_debugx("%s lock succeeded for config file %s", kind, path);
  } else {
    log_warn("unable to open and lock config file %s", path);
  }
  return status;
}

}  // namespace

NUK_ReturnStatus conf_file_open_share_lock(const char* path, FioHandle* file, int wait_ms) {
  return OpenLocked("share", FIO_OPEN_READ_SHARED, path, file, wait_ms);
}

NUK_ReturnStatus conf_file_open_exclusive_lock(const char* path, FioHandle* file, int wait_ms) {
  return OpenLocked("exclusive", FIO_OPEN_RW_EXCLUSIVE, path, file, wait_ms);
}

NUK_ReturnStatus conf_close_file(FioHandle* file) {
  if (file == nullptr || !file->Valid()) return NUK_OK;
  NUK_ReturnStatus status = Fio_Close(file);
  if (status != NUK_OK) {
    errno = Fio_LastErrno();
    log_warn("close failed for config file");
  } else {
    log_debugx("unlocked config file");
  }
  return status;
}
