// Fuzz target of the settings file (<stateDir>/settings.json): read as settings or refused.
#include "platform/exception.h"
#include "platform/settings.h"
#include "tests/fuzz/fuzz_main.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  try {
    kel::platform::ParseSettingsText("fuzz/settings.json", FuzzText(data, size));
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException&) {
  }
  return 0;
}
