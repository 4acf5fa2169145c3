// ConfHandle: the one way the service reads or changes kel.conf.
//
// Constructing a handle locks the file cluster-wide (mode 2: exclusive for writers; any other
// mode, callers pass 1: shared for readers), parses it into a `conf` and keeps the lock until the
// handle is destroyed. A handle is either fully constructed or not at all: a failing constructor
// leaves no lock and no model behind. WriteConfFile() raises the generation by one and replaces the
// file atomically; readers see the old or the new file, never a partial one.
//
// Thread-safety: a handle belongs to one thread. A thread never holds two handles at once. Parses
// are serialised process-wide by _fileLock because the scanner and parser keep global state.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "platform/fio.h"

struct conf;

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {

class ConfHandle {
 public:
  static constexpr int kShared = 1;
  static constexpr int kExclusive = 2;

  // Throws OrsaCtlException: "Parser: conf path uninitialized", "Parser: <share|exclusive> lock
  // failed on <path>", "Failed to read conf file: <path>", or the parser's own exception.
  explicit ConfHandle(int mode);
  ~ConfHandle();
  ConfHandle(const ConfHandle&) = delete;
  ConfHandle& operator=(const ConfHandle&) = delete;

  // Writes the model with generation + 1; returns the new generation. Throws on failure, leaving
  // the file unchanged (the in-memory generation stays raised).
  uint64_t WriteConfFile();
  // Prints the model into the backup file (truncating it).
  void UpdateBackupConfigFile();
  uint64_t GetCurrentGenerationNum() const;
  // The generation that the file at the path holds: the one read, or the one this handle wrote.
  // After WriteConfFile threw, it tells whether the new file was swapped in all the same (only the
  // directory sync after the swap failed).
  uint64_t GetFileGenerationNum() const { return fileGeneration_; }

  struct conf* GetConf() const {
    return conf_;
  }
  // Takes the model away from the handle; the caller deletes it with conf_delete.
  struct conf* ReleaseConf();
  const std::string& GetPath() const { return path_; }

  // A step an edit takes on the datastore before the file is written (a LUN's disk moved to
  // another target's namespace), tied to this handle so that the datastore and the file never
  // disagree: `undo` runs when the handle is destroyed without a write that swapped the file in
  // after the step was added (reverse order of adding); `commit` runs right after such a write,
  // still under the lock (clean-up that must wait for the file, such as removing the files the
  // step made obsolete). Both must not throw; they log their own failures.
  void AddDatastoreStep(std::function<void()> undo, std::function<void()> commit);

  // Path of the backup copy (<stateDir>/log/kel.conf.backup).
  static std::string BackupPath();

  // Test-only: lock budget in milliseconds used by the constructor (300000 in the product).
  static void SetLockWaitMsForTest(int wait_ms);

 private:
  void InitConfHandle();
  void OpenAndLockConfFile();
  void ReadConfFile();
  void _WriteConfigToFile(FILE* stream);
  void CloseAndUnlockConfFile();

  struct DatastoreStep {
    std::function<void()> undo;
    std::function<void()> commit;
  };

  struct conf* conf_ = nullptr;
  std::string path_;
  FioHandle file_;
  std::string lockType_;
  int mode_ = kShared;
  uint64_t fileGeneration_ = 0;
  std::vector<DatastoreStep> steps_;  // datastore steps of the edit in progress

  static std::mutex _fileLock;  // serialises parses within the process
};

// Why opening kel.conf at `path` failed with `status` (errno `err`), in words: a missing file, a
// dangling link, a directory, a lock held too long, a permission.
std::string OpenFailureReason(const std::string& path, NUK_ReturnStatus status, int err);
// Why the load of `path` that just failed refused it (conf_load_failure), never empty.
std::string LoadFailureText(const std::string& path);

}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
