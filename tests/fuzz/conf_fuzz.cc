// Fuzz target of the kel.conf grammar: any input must load or be refused without a crash, a leak
// or a sanitizer report; what loads must also survive the writer and a second load.
//
// Built with libFuzzer when the compiler is clang; otherwise KEL_FUZZ_REPLAY_MAIN adds a main that
// replays the files (or directories of files) given on the command line.
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
  char* data = nullptr;
  size_t size = 0;
  FILE* stream = open_memstream(&data, &size);
  if (stream == nullptr) abort();
  bool ok = true;
  try {
    NukCtl::Orsa::IscsiTarget::Parser::WriteConfToStream(conf, stream);
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException&) {
    ok = false;
  }
  fclose(stream);
  std::string text = ok ? std::string(data, size) : std::string();
  free(data);
  return text;
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

#ifdef KEL_FUZZ_REPLAY_MAIN
#include <dirent.h>
#include <sys/stat.h>

#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

namespace {

int ReplayFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::cerr << "cannot read " << path << "\n";
    return 1;
  }
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  int failures = 0;
  size_t runs = 0;
  for (int i = 1; i < argc; i++) {
    std::string arg = argv[i];
    if (!arg.empty() && arg[0] == '-') continue;  // libFuzzer flags mean nothing here
    struct stat st;
    if (stat(arg.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
      DIR* dir = opendir(arg.c_str());
      if (dir == nullptr) return 1;
      while (struct dirent* e = readdir(dir)) {
        std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        failures += ReplayFile(arg + "/" + name);
        runs++;
      }
      closedir(dir);
    } else {
      failures += ReplayFile(arg);
      runs++;
    }
  }
  std::cout << "replayed " << runs << " inputs\n";
  return failures == 0 ? 0 : 1;
}
#endif
