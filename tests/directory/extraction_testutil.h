// Reading kel.conf text through the real grammar, for the extraction tests.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "conf/conf.h"
#include "platform/clog.h"
#include "platform/log.h"
#include "tests/support/test_support.h"

namespace kel {
namespace testing {

struct ConfDeleter {
  void operator()(struct conf* c) const { conf_delete(c); }
};
using ConfPtr = std::unique_ptr<struct conf, ConfDeleter>;

// Writes `text` into a fresh file and parses it; null when the grammar or verification refuses,
// with the parser's log lines in `*log` when given.
inline ConfPtr ParseConfText(const std::string& text, std::string* log = nullptr) {
  kel::log::LogCapture capture;
  TempDir dir;
  const std::string path = dir.Join("kel.conf");
  WriteFile(path, text, 0600);
  const int fd = open(path.c_str(), O_RDWR);
  if (fd < 0) return nullptr;
  log_init(4);
  ConfPtr conf(conf_new_from_file(fd, path.c_str(), nullptr));
  close(fd);
  if (log != nullptr) *log = capture.Joined();
  return conf;
}

}  // namespace testing
}  // namespace kel
