// Helpers shared by the tests: temporary directories, files, free loopback ports and child
// processes that are always stopped by their own PID.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace kel {
namespace testing {

// A fresh directory under $TMPDIR (or /tmp), removed with its contents on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string Join(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

std::string ReadFile(const std::string& path);  // throws std::runtime_error
void WriteFile(const std::string& path, const std::string& text, int mode = 0600);
bool PathExists(const std::string& path);
std::string Sha256OfFile(const std::string& path);                      // hex; "" when unreadable
uint64_t FileSize(const std::string& path);                             // 0 when missing
uint64_t AllocatedBytes(const std::string& path);                       // blocks on disk, in bytes
std::string XattrOf(const std::string& path, const std::string& name);  // "" when unset
// Digest of every regular file, link and directory below `dir` (names, modes, contents).
std::string TreeDigest(const std::string& dir);

// Polls `done` every few milliseconds until it holds or `timeout` passes; returns its last answer.
bool Eventually(const std::function<bool()>& done,
                std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Whether a process with this PID exists and is not a zombie.
bool ProcessAlive(int pid);
// The `index`-th whitespace-separated number in the file at `path` (-1 when absent): PID files.
int NumberInFile(const std::string& path, int index = 0);

// A TCP port that was free on `address` a moment ago.
int FreeLoopbackPort(const std::string& address = "127.0.0.1");
// Waits until something accepts TCP connections on address:port.
bool WaitForPort(const std::string& address, int port, std::chrono::milliseconds timeout);

// The directory of the build tree (from the environment ctest sets).
std::string BinaryDir();

// A child process started with fork/exec. Its stdout and stderr go to `log_path` when given.
// Stop() sends SIGTERM to its PID (never by name), waits, then SIGKILL after the grace period.
class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Returns false if fork/exec failed.
  bool Start(const std::vector<std::string>& argv, const std::string& log_path = "",
             const std::map<std::string, std::string>& extra_env = {});
  // Returns the exit status as from waitpid, or -1 if it was not running.
  int Stop(std::chrono::milliseconds grace = std::chrono::milliseconds(5000));
  void Kill();  // SIGKILL at once
  bool Running();
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

// A child process holding an OFD lock (shared or exclusive) on `path`, as another host serving
// the file would, until Release() or destruction. locked() says whether it got the lock.
class LockHolder {
 public:
  LockHolder(const std::string& path, bool exclusive);
  ~LockHolder() { Release(); }
  LockHolder(const LockHolder&) = delete;
  LockHolder& operator=(const LockHolder&) = delete;
  bool locked() const { return locked_; }
  void Release();  // lets the child drop its lock and exit; waits for it

 private:
  pid_t pid_ = -1;
  int release_fd_ = -1;
  bool locked_ = false;
};

// Runs a command, waits for it, returns its exit code (-1 on failure) and captures its output.
struct CommandResult {
  int exit_code = -1;
  std::string out;
  std::string err;
};
CommandResult RunCommand(const std::vector<std::string>& argv, const std::string& stdin_text = "",
                         const std::map<std::string, std::string>& extra_env = {},
                         std::chrono::milliseconds timeout = std::chrono::milliseconds(120000));

}  // namespace testing
}  // namespace kel
