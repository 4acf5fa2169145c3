#include "keld/disk_lock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "keld/tgt_exec.h"

namespace kel {
namespace keld {
namespace {

// Whole-file OFD lock of `type` on `fd`; returns errno or 0.
int OfdLock(int fd, short type) {
  struct flock fl = {};
  fl.l_type = type;
  fl.l_whence = SEEK_SET;
  fl.l_start = 0;
  fl.l_len = 0;
  return fcntl(fd, F_OFD_SETLK, &fl) == 0 ? 0 : errno;
}

std::string LockErrorText(const std::string& path, int err) {
  if (err == EAGAIN || err == EACCES) return "disk " + path + " is locked by another host";
  return "cannot lock disk " + path + ": " + ErrnoText(err);
}

}  // namespace

OfdDiskLocker::~OfdDiskLocker() {
  for (auto& entry : fds_) close(entry.second);
}

bool OfdDiskLocker::Lock(const std::string& path, std::string* error) {
  if (fds_.count(path) != 0) return true;
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *error = "cannot open disk " + path + ": " + ErrnoText(errno);
    return false;
  }
  int err = OfdLock(fd, F_RDLCK);
  if (err != 0) {
    close(fd);
    *error = LockErrorText(path, err);
    return false;
  }
  fds_[path] = fd;
  return true;
}

void OfdDiskLocker::Unlock(const std::string& path) {
  auto it = fds_.find(path);
  if (it == fds_.end()) return;
  close(it->second);  // closing the only descriptor of the description drops its OFD lock
  fds_.erase(it);
}

std::vector<std::string> OfdDiskLocker::Held() const {
  std::vector<std::string> paths;
  for (const auto& entry : fds_) paths.push_back(entry.first);
  return paths;
}

bool ProbeDiskReleased(const std::string& path, std::string* error) {
  int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    *error = "cannot open disk " + path + ": " + ErrnoText(errno);
    return false;
  }
  int err = OfdLock(fd, F_WRLCK);
  close(fd);
  if (err != 0) {
    *error = LockErrorText(path, err);
    return false;
  }
  return true;
}

}  // namespace keld
}  // namespace kel
