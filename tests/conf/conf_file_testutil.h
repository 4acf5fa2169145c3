// Test helpers for kel.conf locking: another process that holds a lock on a file, and a clock that
// runs a callback at a chosen sleep. Header-only so that it adds nothing to the other test
// binaries of this folder.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "platform/clock.h"

namespace kel {
namespace testing {

// A child process holding an OFD lock on `path` until Release() or destruction. The child does
// nothing but system calls between fork and _exit.
class LockHolder {
 public:
  LockHolder(const std::string& path, bool exclusive) {
    int ready[2], release[2];
    if (pipe(ready) != 0 || pipe(release) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      close(ready[0]);
      close(release[1]);
      int fd = open(path.c_str(), exclusive ? O_RDWR : O_RDONLY);
      struct flock fl;
      memset(&fl, 0, sizeof(fl));
      fl.l_type = exclusive ? F_WRLCK : F_RDLCK;
      char ok = (fd >= 0 && fcntl(fd, F_OFD_SETLK, &fl) == 0) ? 'y' : 'n';
      if (write(ready[1], &ok, 1) != 1) _exit(2);
      char c;
      while (read(release[0], &c, 1) < 0) {
      }
      _exit(0);
    }
    close(ready[1]);
    close(release[0]);
    release_fd_ = release[1];
    char ok = 'n';
    if (pid_ > 0 && read(ready[0], &ok, 1) == 1) locked_ = ok == 'y';
    close(ready[0]);
  }
  ~LockHolder() { Release(); }
  LockHolder(const LockHolder&) = delete;
  LockHolder& operator=(const LockHolder&) = delete;

  bool locked() const { return locked_; }

  // Lets the child drop its lock and exit; waits for it.
  void Release() {
    if (release_fd_ >= 0) {
      char c = 'x';
      if (write(release_fd_, &c, 1) != 1) kill(pid_, SIGKILL);
      close(release_fd_);
      release_fd_ = -1;
    }
    if (pid_ > 0) {
      int status;
      waitpid(pid_, &status, 0);
      pid_ = -1;
    }
    locked_ = false;
  }

 private:
  pid_t pid_ = -1;
  int release_fd_ = -1;
  bool locked_ = false;
};

// A clock whose sleeps return at once, are recorded, and run `on_sleep(n)` at the n-th sleep
// (counting from 1). Installed for the life of the object.
class ScriptedClock : public platform::Clock {
 public:
  explicit ScriptedClock(std::function<void(int)> on_sleep = nullptr)
      : on_sleep_(std::move(on_sleep)) {
    platform::SetClockForTest(this);
  }
  ~ScriptedClock() override { platform::SetClockForTest(nullptr); }

  void SleepFor(std::chrono::milliseconds duration) override {
    int n;
    {
      std::lock_guard<std::mutex> guard(mu_);
      sleeps_.push_back(duration);
      elapsed_ += duration;
      n = static_cast<int>(sleeps_.size());
    }
    if (on_sleep_) on_sleep_(n);
  }
  std::chrono::steady_clock::time_point Now() override {
    std::lock_guard<std::mutex> guard(mu_);
    return std::chrono::steady_clock::time_point(elapsed_);
  }
  std::vector<std::chrono::milliseconds> Sleeps() const {
    std::lock_guard<std::mutex> guard(mu_);
    return sleeps_;
  }

 private:
  std::function<void(int)> on_sleep_;
  mutable std::mutex mu_;
  std::vector<std::chrono::milliseconds> sleeps_;   // guarded by mu_
  std::chrono::steady_clock::duration elapsed_{0};  // guarded by mu_
};

}  // namespace testing
}  // namespace kel
