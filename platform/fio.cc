#include "platform/fio.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

namespace {

thread_local int tLastErrno = 0;

FioFaultHook gFaultHook;  // test-only; set while no Fio call runs

// The injected failure for `step`, or 0.
int Injected(FioStep step, const std::string& path) {
  return gFaultHook ? gFaultHook(step, path) : 0;
}

// A lock that a rename replaced under us is only worth a few more tries: each retry means another
// writer swapped the file in between, and the caller's own retry loop takes over after that.
constexpr int kMaxReopens = 64;

enum class Op { kLock, kOther };

// The one place where errno becomes a status in this module. A failing lock request reports a
// busy lock with EAGAIN or EACCES; elsewhere EACCES means a missing permission.
NUK_ReturnStatus Fail(int err, Op op) {
  tLastErrno = err;
  if (op == Op::kOther && err == EACCES) return NUK_NO_PERMISSION;
  if (op == Op::kOther && err == EAGAIN) return NUK_FAILURE;
  if (op == Op::kLock && (err == EAGAIN || err == EACCES)) return NUK_BUSY;
  return NUK_StatusFromErrno(err);
}

short LockType(int lock) { return lock == FIO_LOCK_EXCLUSIVE ? F_WRLCK : F_RDLCK; }

// Non-blocking OFD lock on the whole file.
bool TryLock(int fd, int lock) {
  struct flock fl;
  memset(&fl, 0, sizeof(fl));
  fl.l_type = LockType(lock);
  fl.l_whence = SEEK_SET;
  fl.l_start = 0;
  fl.l_len = 0;
  return fcntl(fd, F_OFD_SETLK, &fl) == 0;
}

void Invalidate(FioHandle* h) {
  h->fd = -1;
  h->lock = 0;
  h->path.clear();
}

std::string DirOf(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string BaseOf(const std::string& path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string TempPrefix(const std::string& path) { return "." + BaseOf(path) + ".tmp."; }

// Removes temporary files of `path` that nobody holds a lock on. Only called by the holder of the
// exclusive lock on `path`, so every such file belongs to a writer that died before its swap.
void RemoveStaleTemps(const std::string& path) {
  std::string dir = DirOf(path);
  std::string prefix = TempPrefix(path);
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return;
  std::vector<std::string> stale;
  while (struct dirent* e = readdir(d)) {
    if (strncmp(e->d_name, prefix.c_str(), prefix.size()) == 0) stale.push_back(e->d_name);
  }
  closedir(d);
  for (const std::string& name : stale) {
    std::string full = dir + "/" + name;
    int fd = open(full.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) continue;
    if (TryLock(fd, FIO_LOCK_EXCLUSIVE)) unlink(full.c_str());
    close(fd);
  }
}

}  // namespace

NUK_ReturnStatus Fio_Open(const char* path, int flags, FioHandle* out) {
  if (out == nullptr) return NUK_BAD_PARAM;
  Invalidate(out);
  if (path == nullptr || *path == '\0') return NUK_BAD_PARAM;
  int lock = 0;
  if ((flags & FIO_LOCK_EXCLUSIVE) != 0) {
    lock = FIO_LOCK_EXCLUSIVE;
  } else if ((flags & FIO_LOCK_SHARED) != 0) {
    lock = FIO_LOCK_SHARED;
  }
  // An exclusive OFD lock needs a descriptor open for writing.
  bool rw = (flags & FIO_ACCESS_WRITE) != 0 || lock == FIO_LOCK_EXCLUSIVE;
  int oflags = (rw ? O_RDWR : O_RDONLY) | O_CLOEXEC;

  for (int attempt = 0; attempt < kMaxReopens; ++attempt) {
    int fd = open(path, oflags);
    if (fd < 0) return Fail(errno, Op::kOther);
    if (lock != 0) {
      if (!TryLock(fd, lock)) {
        int err = errno;
        close(fd);
        return Fail(err, Op::kLock);
      }
      // The lock protects only the inode we opened; if a writer renamed a new file over the path
      // before we got the lock, we hold the lock of a file nobody reads any more.
      struct stat held, current;
      if (fstat(fd, &held) != 0) {
        int err = errno;
        close(fd);
        return Fail(err, Op::kOther);
      }
      if (stat(path, &current) != 0) {
        int err = errno;
        close(fd);
        if (err == ENOENT) continue;  // removed meanwhile: the next open reports it
        return Fail(err, Op::kOther);
      }
      if (held.st_dev != current.st_dev || held.st_ino != current.st_ino) {
        close(fd);
        continue;
      }
    }
    out->fd = fd;
    out->lock = lock;
    out->path = path;
    return NUK_OK;
  }
  return Fail(EAGAIN, Op::kLock);
}

NUK_ReturnStatus Fio_Close(FioHandle* file) {
  if (file == nullptr || !file->Valid()) {
    if (file != nullptr) Invalidate(file);
    return NUK_OK;
  }
  int rc = close(file->fd);
  int err = errno;
  Invalidate(file);  // on Linux the descriptor is gone even when close reports an error
  return rc == 0 ? NUK_OK : Fail(err, Op::kOther);
}

NUK_ReturnStatus Fio_AtomicTempFile(const FioHandle* file, FioHandle* temp) {
  if (temp == nullptr) return NUK_BAD_PARAM;
  Invalidate(temp);
  if (file == nullptr || !file->Valid() || file->path.empty()) return NUK_BAD_PARAM;
  if (file->lock == FIO_LOCK_EXCLUSIVE) RemoveStaleTemps(file->path);

  if (int err = Injected(FioStep::kTempCreate, file->path)) return Fail(err, Op::kOther);
  std::string pattern = DirOf(file->path) + "/" + TempPrefix(file->path) + "XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  int fd = mkostemp(name.data(), O_CLOEXEC);
  if (fd < 0) return Fail(errno, Op::kOther);
  if (fchmod(fd, 0600) != 0 || (file->lock != 0 && !TryLock(fd, file->lock))) {
    int err = errno;
    unlink(name.data());
    close(fd);
    return Fail(err, Op::kOther);
  }
  temp->fd = fd;
  temp->lock = file->lock;
  temp->path = name.data();
  return NUK_OK;
}

NUK_ReturnStatus Fio_Sync(const FioHandle* file) {
  if (file == nullptr || !file->Valid()) return NUK_BAD_PARAM;
  if (int err = Injected(FioStep::kSync, file->path)) return Fail(err, Op::kOther);
  if (fsync(file->fd) != 0) return Fail(errno, Op::kOther);
  return NUK_OK;
}

NUK_ReturnStatus Fio_Write(const FioHandle* file, const void* data, size_t len) {
  if (file == nullptr || !file->Valid() || (data == nullptr && len > 0)) return NUK_BAD_PARAM;
  const char* p = static_cast<const char*>(data);
  int injected = Injected(FioStep::kWrite, file->path);
  // An injected failure strikes half way, like a disk that fills up during the write.
  const size_t end = injected != 0 ? len / 2 : len;
  size_t done = 0;
  while (done < end) {
    ssize_t n = write(file->fd, p + done, end - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return Fail(errno, Op::kOther);
    done += static_cast<size_t>(n);
  }
  return injected != 0 ? Fail(injected, Op::kOther) : NUK_OK;
}

NUK_ReturnStatus Fio_AtomicUpdate(FioHandle* file, FioHandle* temp) {
  if (file == nullptr || temp == nullptr || !file->Valid() || !temp->Valid() ||
      file->path.empty() || temp->path.empty()) {
    return NUK_BAD_PARAM;
  }
  // mkostemp already made it 0600; the explicit mode keeps the secrets private whatever the umask.
  if (fchmod(temp->fd, 0600) != 0) return Fail(errno, Op::kOther);
  if (int err = Injected(FioStep::kRename, file->path)) return Fail(err, Op::kOther);
  if (rename(temp->path.c_str(), file->path.c_str()) != 0) return Fail(errno, Op::kOther);

  // From here on the path names the temporary file's inode, which this handle already holds
  // locked, so no other process can lock the new contents before this handle lets go. Closing
  // the old descriptor drops the lock of an inode that is no longer reachable.
  close(file->fd);
  file->fd = temp->fd;
  Invalidate(temp);

  if (int err = Injected(FioStep::kDirSync, file->path)) return Fail(err, Op::kOther);
  int dfd = open(DirOf(file->path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dfd < 0) return Fail(errno, Op::kOther);
  int rc = fsync(dfd);
  int err = errno;
  close(dfd);
  if (rc != 0) return Fail(err, Op::kOther);
  return NUK_OK;
}

NUK_ReturnStatus Fio_RemoveTemp(FioHandle* temp) {
  if (temp == nullptr) return NUK_BAD_PARAM;
  NUK_ReturnStatus status = NUK_OK;
  if (!temp->path.empty() && unlink(temp->path.c_str()) != 0 && errno != ENOENT) {
    status = Fail(errno, Op::kOther);
  }
  if (temp->Valid() && close(temp->fd) != 0 && status == NUK_OK) {
    status = Fail(errno, Op::kOther);
  }
  Invalidate(temp);
  return status;
}

std::string Fio_IntentPath(const std::string& path) {
  return DirOf(path) + "/." + BaseOf(path) + ".intent";
}

NUK_ReturnStatus Fio_LockIntent(const char* path, int lock, FioHandle* out) {
  if (out == nullptr) return NUK_BAD_PARAM;
  Invalidate(out);
  if (path == nullptr || *path == '\0' || (lock != FIO_LOCK_SHARED && lock != FIO_LOCK_EXCLUSIVE)) {
    return NUK_BAD_PARAM;
  }
  const std::string intent = Fio_IntentPath(path);
  // Write access for the exclusive lock; O_NOFOLLOW: a lock must never land on another file.
  int fd = open(intent.c_str(),
                (lock == FIO_LOCK_EXCLUSIVE ? O_RDWR : O_RDONLY) | O_CREAT | O_CLOEXEC | O_NOFOLLOW,
                0600);
  if (fd < 0) return Fail(errno, Op::kOther);
  if (!TryLock(fd, lock)) {
    int err = errno;
    close(fd);
    return Fail(err, Op::kLock);
  }
  out->fd = fd;
  out->lock = lock;
  out->path = intent;
  return NUK_OK;
}

const char* Fio_LastErrorText(void) { return strerror(tLastErrno); }

void Fio_SetFaultHookForTest(FioFaultHook hook) { gFaultHook = std::move(hook); }

int Fio_LastErrno(void) { return tLastErrno; }
