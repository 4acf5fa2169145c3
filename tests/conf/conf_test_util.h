// Helpers for the configuration model tests: load kel.conf text through a real file, print a
// model with the writer. Header-only so that it adds nothing to the other test binaries of this
// folder.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "conf/conf.h"
#include "conf/writer.h"
#include "platform/clog.h"
#include "tests/support/test_support.h"

namespace kel {
namespace testing {

struct ConfDeleter {
  void operator()(struct conf* conf) const { conf_delete(conf); }
};
using ConfPtr = std::unique_ptr<struct conf, ConfDeleter>;

// Writes `text` into a fresh file (mode 0600 unless given) and loads it with conf_new_from_file at
// log level 4. Null when the load fails; exceptions of the load propagate.
inline ConfPtr LoadConfText(const std::string& text, int mode = 0600,
                            struct conf* oldconf = nullptr) {
  TempDir dir;
  std::string path = dir.Join("kel.conf");
  WriteFile(path, text, mode);
  chmod(path.c_str(), mode);
  int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) return nullptr;
  log_init(4);
  ConfPtr conf;
  try {
    conf.reset(conf_new_from_file(fd, path.c_str(), oldconf));
  } catch (...) {
    close(fd);
    throw;
  }
  close(fd);
  return conf;
}

// The writer's output for `conf`.
inline std::string WriteConfText(const struct conf* conf) {
  char* data = nullptr;
  size_t size = 0;
  FILE* stream = open_memstream(&data, &size);
  try {
    NukCtl::Orsa::IscsiTarget::Parser::WriteConfToStream(conf, stream);
  } catch (...) {
    fclose(stream);
    free(data);
    throw;
  }
  fclose(stream);
  std::string text(data, size);
  free(data);
  return text;
}

}  // namespace testing
}  // namespace kel
