#include "platform/testing/fault_fs.h"

#include <cerrno>

namespace kel {
namespace platform {
namespace testing {

void FaultFs::FailNext(Op op, int err, int times, const std::string& pathPart) {
  std::lock_guard<std::mutex> lock(mu_);
  faults_.push_back(Fault{op, err, times, pathPart});
}

void FaultFs::SetNoUserXattrs(bool on) {
  std::lock_guard<std::mutex> lock(mu_);
  noUserXattrs_ = on;
}

void FaultFs::ClearFaults() {
  std::lock_guard<std::mutex> lock(mu_);
  faults_.clear();
  noUserXattrs_ = false;
}

int FaultFs::Calls(Op op) const {
  std::lock_guard<std::mutex> lock(mu_);
  auto it = calls_.find(op);
  return it == calls_.end() ? 0 : it->second;
}

int FaultFs::Check(Op op, const std::string& path) {
  std::lock_guard<std::mutex> lock(mu_);
  ++calls_[op];
  if (noUserXattrs_ && (op == Op::kGetXattr || op == Op::kSetXattr)) return ENOTSUP;
  for (auto it = faults_.begin(); it != faults_.end(); ++it) {
    if (it->op != op || path.find(it->pathPart) == std::string::npos) continue;
    int err = it->err;
    if (it->times > 0 && --it->times == 0) faults_.erase(it);
    return err;
  }
  return 0;
}

#define KEL_FAULT_OR(op, path, call) \
  do {                               \
    if (int err = Check(op, path)) { \
      return err;                    \
    }                                \
    return LinuxFs().call;           \
  } while (0)

int FaultFs::MakeDir(const std::string& path, mode_t mode) {
  KEL_FAULT_OR(Op::kMakeDir, path, MakeDir(path, mode));
}
int FaultFs::RemoveDir(const std::string& path) {
  KEL_FAULT_OR(Op::kRemoveDir, path, RemoveDir(path));
}
int FaultFs::RemoveTree(const std::string& path) {
  KEL_FAULT_OR(Op::kRemoveTree, path, RemoveTree(path));
}
int FaultFs::Symlink(const std::string& target, const std::string& linkPath) {
  KEL_FAULT_OR(Op::kSymlink, linkPath, Symlink(target, linkPath));
}
int FaultFs::ReadLink(const std::string& path, size_t maxLen, std::string* target) {
  KEL_FAULT_OR(Op::kReadLink, path, ReadLink(path, maxLen, target));
}
int FaultFs::Link(const std::string& existing, const std::string& newPath) {
  KEL_FAULT_OR(Op::kLink, newPath, Link(existing, newPath));
}
int FaultFs::Rename(const std::string& from, const std::string& to) {
  KEL_FAULT_OR(Op::kRename, from, Rename(from, to));
}
int FaultFs::Unlink(const std::string& path) { KEL_FAULT_OR(Op::kUnlink, path, Unlink(path)); }
int FaultFs::Lstat(const std::string& path, FileInfo* info) {
  KEL_FAULT_OR(Op::kLstat, path, Lstat(path, info));
}
int FaultFs::Stat(const std::string& path, FileInfo* info) {
  KEL_FAULT_OR(Op::kStat, path, Stat(path, info));
}
int FaultFs::RealPath(const std::string& path, std::string* resolved) {
  KEL_FAULT_OR(Op::kRealPath, path, RealPath(path, resolved));
}
int FaultFs::ListDir(const std::string& path, std::vector<std::string>* names) {
  KEL_FAULT_OR(Op::kListDir, path, ListDir(path, names));
}
int FaultFs::CreateFile(const std::string& path, mode_t mode) {
  KEL_FAULT_OR(Op::kCreateFile, path, CreateFile(path, mode));
}
int FaultFs::WriteFileAtomic(const std::string& path, const std::string& data, mode_t mode) {
  KEL_FAULT_OR(Op::kWriteFileAtomic, path, WriteFileAtomic(path, data, mode));
}
int FaultFs::ReadFile(const std::string& path, std::string* data) {
  KEL_FAULT_OR(Op::kReadFile, path, ReadFile(path, data));
}
int FaultFs::GetXattr(const std::string& path, const std::string& name, std::string* value) {
  KEL_FAULT_OR(Op::kGetXattr, path, GetXattr(path, name, value));
}
int FaultFs::SetXattr(const std::string& path, const std::string& name, const std::string& value) {
  KEL_FAULT_OR(Op::kSetXattr, path, SetXattr(path, name, value));
}
int FaultFs::Fallocate(const std::string& path, uint64_t offset, uint64_t length) {
  KEL_FAULT_OR(Op::kFallocate, path, Fallocate(path, offset, length));
}
int FaultFs::Truncate(const std::string& path, uint64_t size) {
  KEL_FAULT_OR(Op::kTruncate, path, Truncate(path, size));
}

#undef KEL_FAULT_OR

}  // namespace testing
}  // namespace platform
}  // namespace kel
