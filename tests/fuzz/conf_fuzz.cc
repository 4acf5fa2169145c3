// Fuzz target of the kel.conf grammar: any input must load or be refused without a crash, a leak
// or a sanitizer report; what loads must also survive the writer and a second load.
//
// Built with libFuzzer when the compiler is clang; otherwise it only replays files (fuzz_main.h).
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "conf/conf.h"
#include "conf/writer.h"
#include "platform/clog.h"
#include "platform/exception.h"
#include "tests/fuzz/fuzz_main.h"

namespace {

// An anonymous in-memory file holding `size` bytes; -1 when it cannot be made.
int MemoryFile(const uint8_t* data, size_t size) {
  int fd = memfd_create("kel.conf", MFD_CLOEXEC);
  if (fd < 0) return -1;
  size_t done = 0;
  while (done < size) {
    ssize_t n = write(fd, data + done, size - done);
    if (n <= 0) {
      close(fd);
      return -1;
    }
    done += static_cast<size_t>(n);
  }
  return fd;
}

// Loads `fd`; null when refused or thrown.
struct conf* Load(int fd) {
  try {
    return conf_new_from_file(fd, "fuzz/kel.conf", nullptr);
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException&) {
    KeldCleanConf();
    return nullptr;
  }
}

// The writer's output for `conf`; empty when the writer refuses (a secret too long to encode).
std::string Write(const struct conf* conf) {
  try {
    return NukCtl::Orsa::IscsiTarget::Parser::WriteConfToString(conf);
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException&) {
    return std::string();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Every line is formatted (the highest level), but no sink is installed, so nothing is printed.
  log_init(5);
  int fd = MemoryFile(data, size);
  if (fd < 0) return 0;
  struct conf* conf = Load(fd);
  close(fd);
  if (conf == nullptr) return 0;
  std::string text = Write(conf);
  conf_delete(conf);
  if (text.empty()) return 0;
  fd = MemoryFile(reinterpret_cast<const uint8_t*>(text.data()), text.size());
  if (fd < 0) return 0;
  conf = Load(fd);
  close(fd);
  conf_delete(conf);
  return 0;
}
