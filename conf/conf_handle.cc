#include "conf/conf_handle.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <utility>
#include <vector>

#include "conf/conf.h"
#include "conf/conf_file.h"
#include "conf/paths.h"
#include "conf/writer.h"
#include "platform/exception.h"
#include "platform/host_config.h"
#include "platform/log.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {

namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;

constexpr int kDefaultLockWaitMs = 300000;
std::atomic<int> gLockWaitMs{kDefaultLockWaitMs};

// A whole kel.conf at the cluster limits is a few hundred kilobytes; a large stream buffer turns
// its printing into a handful of write calls.
constexpr size_t kStreamBufferSize = 256 * 1024;

// Creates `dir` and its parents (mode 0700 for new ones: state directories are the owner's).
bool MakeDirs(const std::string& dir) {
  std::string cur;
  for (size_t i = 0; i <= dir.size(); ++i) {
    if (i == dir.size() || dir[i] == '/') {
      if (!cur.empty() && mkdir(cur.c_str(), 0700) != 0 && errno != EEXIST) return false;
    }
    if (i < dir.size()) cur.push_back(dir[i]);
  }
  return true;
}

// The stream is private to this thread, so stdio's per-call locking (thousands of small prints per
// file) is pure overhead.
void PrepareStream(FILE* stream) {
  setvbuf(stream, nullptr, _IOFBF, kStreamBufferSize);
  __fsetlocking(stream, FSETLOCKING_BYCALLER);
}

// Closes `stream` when it leaves scope unless Close() already did.
class StreamCloser {
 public:
  explicit StreamCloser(FILE* stream) : stream_(stream) {}
  ~StreamCloser() {
    if (stream_ != nullptr) fclose(stream_);
  }
  // Returns fclose's result (EOF when buffered data could not be written).
  int Close() {
    FILE* s = stream_;
    stream_ = nullptr;
    return fclose(s);
  }

 private:
  FILE* stream_;
};

}  // namespace

std::string LoadFailureText(const std::string& path) {
  const std::string reason = conf_load_failure();
  return reason.empty() ? path + " could not be read" : reason;
}

std::string OpenFailureReason(const std::string& path, NUK_ReturnStatus status, int err) {
  if (status == NUK_BUSY) {
    return path + " stayed locked by another writer for the whole wait";
  }
  if (err == ENOENT) {
    struct stat st;
    char target[4096];
    if (lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
      ssize_t n = readlink(path.c_str(), target, sizeof(target) - 1);
      target[n > 0 ? n : 0] = '\0';
      return path + " is a dangling symbolic link to " + target;
    }
    return path + " does not exist (No such file or directory)";
  }
  if (err == EISDIR) return path + " is a directory, not a file";
  if (err == EINVAL) return path + " is not a regular file";
  return path + ": " + (err != 0 ? strerror(err) : NUK_ReturnStatusToString(status));
}

void ConfHandle::AddDatastoreStep(std::function<void()> undo, std::function<void()> commit) {
  steps_.push_back({std::move(undo), std::move(commit)});
}

std::mutex ConfHandle::_fileLock;

ConfHandle::ConfHandle(int mode) : mode_(mode) {
  try {
    InitConfHandle();
    OpenAndLockConfFile();
    ReadConfFile();
  } catch (...) {
    if (conf_ != nullptr) {
      conf_delete(conf_);
      conf_ = nullptr;
    }
    CloseAndUnlockConfFile();
    throw;
  }
}

ConfHandle::~ConfHandle() {
  // Steps not followed by a write: the file still describes the datastore as it was before them,
  // so they are undone while the lock still keeps everyone else out.
  std::vector<DatastoreStep> steps = std::move(steps_);
  steps_.clear();
  for (auto it = steps.rbegin(); it != steps.rend(); ++it) {
    if (it->undo) it->undo();
  }
  if (conf_ != nullptr) {
    conf_delete(conf_);
    conf_ = nullptr;
  }
  CloseAndUnlockConfFile();
}

void ConfHandle::InitConfHandle() {
  conf_ = nullptr;
  file_.fd = -1;
  file_.lock = 0;
  file_.path.clear();
  path_ = Util::GetConfFilePath();
  if (path_.empty()) throw OrsaCtlException("Parser: conf path uninitialized");
}

void ConfHandle::OpenAndLockConfFile() {
  NUK_ReturnStatus status;
  if (mode_ == kExclusive) {
    lockType_ = "exclusive";
    status = conf_file_open_exclusive_lock(path_.c_str(), &file_, gLockWaitMs.load());
  } else {
    lockType_ = "share";
    status = conf_file_open_share_lock(path_.c_str(), &file_, gLockWaitMs.load());
  }
  if (status != NUK_OK) {
    const std::string message = "Parser: " + lockType_ + " lock failed on " + path_;
    kel::log::NoteFailureReason("Parser", message, OpenFailureReason(path_, status, errno));
    throw OrsaCtlException(message);
  }
}

void ConfHandle::ReadConfFile() {
  std::lock_guard<std::mutex> guard(_fileLock);
  try {
    conf_ = conf_new_from_file(file_.fd, path_.c_str(), nullptr);
  } catch (...) {
    KeldCleanConf();
    conf_ = nullptr;
    throw;
  }
  if (conf_ == nullptr) {
    const std::string message = "Failed to read conf file: " + path_;
    kel::log::NoteFailureReason("Parser", message, LoadFailureText(path_));
    throw OrsaCtlException(message);
  }
  fileGeneration_ = conf_->conf_generation;
}

uint64_t ConfHandle::WriteConfFile() {
  if (conf_ == nullptr) throw OrsaCtlException("Failed to read conf file: " + path_);
  FioHandle temp;
  if (Fio_AtomicTempFile(&file_, &temp) != NUK_OK) {
    LogError("%s: Cannot create a temporary file beside %s: %s", "Parser", path_.c_str(),
             Fio_LastErrorText());
    throw OrsaCtlException("Failed to create temp config file");
  }
  // Whatever happens below, nothing may stay at the temporary name; after a good swap the handle
  // is already invalid and this removes nothing.
  struct TempRemover {
    FioHandle* temp;
    ~TempRemover() {
      if (Fio_RemoveTemp(temp) != NUK_OK) {
        LogWarning("%s: Failed to remove temp config file", "Parser");
      }
    }
  } remover{&temp};

  conf_->conf_generation += 1;
  const std::string text = Parser::WriteConfToString(conf_);
  if (Fio_Write(&temp, text.data(), text.size()) != NUK_OK) {
    // A short write (a full datastore) must never be swapped in as the configuration.
    throw OrsaCtlException(std::string("Failed to write temp config file: ") + Fio_LastErrorText());
  }
  if (Fio_Sync(&temp) != NUK_OK) {
    LogError("%s: Cannot sync %s: %s", "Parser", temp.path.c_str(), Fio_LastErrorText());
    throw OrsaCtlException("Failed to sync temp config");
  }
  const NUK_ReturnStatus swap = Fio_AtomicUpdate(&file_, &temp);
  // The swap happened when the temporary handle was taken over (also when only the directory sync
  // after it failed): the file now describes the datastore after the edit's steps.
  if (!temp.Valid()) {
    fileGeneration_ = conf_->conf_generation;
    std::vector<DatastoreStep> steps = std::move(steps_);
    steps_.clear();
    for (DatastoreStep& step : steps) {
      if (step.commit) step.commit();
    }
  }
  if (swap != NUK_OK) {
    if (fileGeneration_ == conf_->conf_generation) {
      LogError(
          "%s: %s now holds generation %llu, but syncing its directory failed: %s; the change "
          "is saved but may not survive a crash of this host",
          "Parser", path_.c_str(), static_cast<unsigned long long>(fileGeneration_),
          Fio_LastErrorText());
    } else {
      LogError("%s: Cannot rename the temporary file over %s: %s; it still holds generation %llu",
               "Parser", path_.c_str(), Fio_LastErrorText(),
               static_cast<unsigned long long>(fileGeneration_));
    }
    throw OrsaCtlException("Failed to swap config and temp config");
  }
  return conf_->conf_generation;
}

void ConfHandle::_WriteConfigToFile(FILE* stream) { Parser::WriteConfToStream(conf_, stream); }

std::string ConfHandle::BackupPath() {
  return kel::platform::CurrentHostConfig()->stateDir + "/log/kel.conf.backup";
}

void ConfHandle::UpdateBackupConfigFile() {
  if (conf_ == nullptr) throw OrsaCtlException("Failed to read conf file: " + path_);
  std::string path = BackupPath();
  MakeDirs(path.substr(0, path.find_last_of('/')));
  // The backup holds the CHAP secrets too: owner-only, also when an older copy had another mode.
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  FILE* stream = nullptr;
  if (fd >= 0 && fchmod(fd, 0600) == 0) stream = fdopen(fd, "w");
  if (stream == nullptr) {
    int err = errno;
    if (fd >= 0) close(fd);
    throw OrsaCtlException(std::string("Failed to open backup config file: ") + strerror(err));
  }
  StreamCloser closer(stream);
  PrepareStream(stream);
  _WriteConfigToFile(stream);
  if (closer.Close() != 0) {
    throw OrsaCtlException(std::string("Failed to close backup config file: ") + strerror(errno));
  }
}

void ConfHandle::CloseAndUnlockConfFile() { conf_close_file(&file_); }

uint64_t ConfHandle::GetCurrentGenerationNum() const {
  if (conf_ == nullptr) throw OrsaCtlException("Failed to read conf file: " + path_);
  return conf_->conf_generation;
}

struct conf* ConfHandle::ReleaseConf() {
  struct conf* c = conf_;
  conf_ = nullptr;
  return c;
}

void ConfHandle::SetLockWaitMsForTest(int wait_ms) { gLockWaitMs.store(wait_ms); }

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
