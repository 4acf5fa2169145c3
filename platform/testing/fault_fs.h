// A file system for tests that runs every operation on the real (Linux) file system but can be told
// to fail chosen operations: "the next symlink fails with EEXIST", "every rename into this
// directory fails with EBUSY eleven times", "this file system has no user xattrs".
//
// Install it for a scope with ScopedFaultFs. Thread-safe.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/fs.h"

namespace kel {
namespace platform {
namespace testing {

class FaultFs : public Fs {
 public:
  enum class Op {
    kMakeDir,
    kRemoveDir,
    kRemoveTree,
    kSymlink,
    kReadLink,
    kLink,
    kRename,
    kUnlink,
    kLstat,
    kStat,
    kRealPath,
    kListDir,
    kCreateFile,
    kWriteFileAtomic,
    kReadFile,
    kGetXattr,
    kSetXattr,
    kFallocate,
    kTruncate,
  };

  // The next `times` calls of `op` whose (first) path contains `pathPart` fail with `err` without
  // touching the file system. times < 0 fails every such call until ClearFaults().
  void FailNext(Op op, int err, int times = 1, const std::string& pathPart = "");
  // The file system behaves as one without user extended attributes (ENOTSUP).
  void SetNoUserXattrs(bool on);
  void ClearFaults();
  // How many calls of `op` were made (failed or not).
  int Calls(Op op) const;

  int MakeDir(const std::string& path, mode_t mode) override;
  int RemoveDir(const std::string& path) override;
  int RemoveTree(const std::string& path) override;
  int Symlink(const std::string& target, const std::string& linkPath) override;
  int ReadLink(const std::string& path, size_t maxLen, std::string* target) override;
  int Link(const std::string& existing, const std::string& newPath) override;
  int Rename(const std::string& from, const std::string& to) override;
  int Unlink(const std::string& path) override;
  int Lstat(const std::string& path, FileInfo* info) override;
  int Stat(const std::string& path, FileInfo* info) override;
  int RealPath(const std::string& path, std::string* resolved) override;
  int ListDir(const std::string& path, std::vector<std::string>* names) override;
  int CreateFile(const std::string& path, mode_t mode) override;
  int WriteFileAtomic(const std::string& path, const std::string& data, mode_t mode) override;
  int ReadFile(const std::string& path, std::string* data) override;
  int GetXattr(const std::string& path, const std::string& name, std::string* value) override;
  int SetXattr(const std::string& path, const std::string& name, const std::string& value) override;
  int Fallocate(const std::string& path, uint64_t offset, uint64_t length) override;
  int Truncate(const std::string& path, uint64_t size) override;

 private:
  struct Fault {
    Op op;
    int err;
    int times;
    std::string pathPart;
  };
  // Counts the call and returns the injected error for it, or 0.
  int Check(Op op, const std::string& path);

  mutable std::mutex mu_;
  std::vector<Fault> faults_;  // guarded by mu_
  std::map<Op, int> calls_;    // guarded by mu_
  bool noUserXattrs_ = false;  // guarded by mu_
};

// Installs a FaultFs for the life of the object.
class ScopedFaultFs {
 public:
  ScopedFaultFs() { SetFsForTest(&fs_); }
  ~ScopedFaultFs() { SetFsForTest(nullptr); }
  ScopedFaultFs(const ScopedFaultFs&) = delete;
  ScopedFaultFs& operator=(const ScopedFaultFs&) = delete;
  FaultFs& fs() { return fs_; }

 private:
  FaultFs fs_;
};

}  // namespace testing
}  // namespace platform
}  // namespace kel
