// An owned file descriptor, closed on every path out of the scope that holds it.
//
// Thread-safety: none; one owner at a time (not copyable).
#pragma once

#include <unistd.h>

#include <cerrno>

namespace kel {
namespace platform {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { Reset(); }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  // Closes the descriptor held, if any, and takes `fd` instead.
  void Reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }
  // Closes now and returns 0 or the errno of the close: a write lost on a network file system
  // shows up only here.
  int Close() {
    const int rc = fd_ >= 0 ? close(fd_) : 0;
    fd_ = -1;
    return rc == 0 ? 0 : errno;
  }

 private:
  int fd_ = -1;
};

}  // namespace platform
}  // namespace kel
