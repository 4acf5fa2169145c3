// Fuzz target of the host configuration (host.json): any text is a configuration or a refusal
// that names the file; nothing else may escape, crash or leak.
#include <cstdio>

#include "platform/exception.h"
#include "platform/host_config.h"
#include "tests/fuzz/fuzz_main.h"

// The configuration may name files (TLS, password) that are read at once: a name such as
// /dev/stdin must not wait for a terminal.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  if (freopen("/dev/null", "r", stdin) == nullptr) return 1;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  try {
    kel::platform::ParseHostConfigText("fuzz/host.json", FuzzText(data, size));
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException& e) {
    if (e.GetMessage().rfind("host configuration fuzz/host.json: ", 0) != 0) __builtin_trap();
  }
  return 0;
}
