// Shared locks on the disks keld serves.
//
// While a disk is served, keld holds a shared OFD lock (fcntl F_OFD_SETLK, F_RDLCK, whole file)
// on it. Whoever removes a LUN probes the disk with an exclusive lock and waits until that probe
// succeeds, which is the moment the serving host has let the disk go. A disk that somebody holds
// exclusively (being removed) cannot be locked, and keld then refuses to serve it.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace kel {
namespace keld {

class DiskLocker {
 public:
  virtual ~DiskLocker() = default;
  // Takes the shared lock on `path` (a no-op when it is already held). Returns false with
  // `*error` set when the file cannot be opened or someone holds it exclusively.
  virtual bool Lock(const std::string& path, std::string* error) = 0;
  // Drops the lock (a no-op when not held).
  virtual void Unlock(const std::string& path) = 0;
  virtual std::vector<std::string> Held() const = 0;
};

// The real locker: one read-only descriptor per disk, each carrying its OFD lock. Not
// thread-safe (the daemon uses it from one thread). Dropping the object drops every lock.
class OfdDiskLocker : public DiskLocker {
 public:
  OfdDiskLocker() = default;
  ~OfdDiskLocker() override;
  OfdDiskLocker(const OfdDiskLocker&) = delete;
  OfdDiskLocker& operator=(const OfdDiskLocker&) = delete;

  bool Lock(const std::string& path, std::string* error) override;
  void Unlock(const std::string& path) override;
  std::vector<std::string> Held() const override;

 private:
  std::map<std::string, int> fds_;  // path -> descriptor holding the lock
};

// Probes `path` with an exclusive OFD lock, without waiting: true when nobody holds it (the lock
// is released again at once). What a LUN removal asks before it deletes a disk.
bool ProbeDiskReleased(const std::string& path, std::string* error);

}  // namespace keld
}  // namespace kel
