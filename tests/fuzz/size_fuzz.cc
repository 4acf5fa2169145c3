// Fuzz target of LUN size and unit texts: a size is a positive sector count that fits the model's
// signed 64-bit field, or a refusal with the size message.
#include <cstdint>
#include <limits>

#include "host/validation.h"
#include "platform/exception.h"
#include "tests/fuzz/fuzz_main.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  namespace Util = NukCtl::Orsa::IscsiTarget::Util;
  const std::string text = FuzzText(data, size);
  try {
    const uint64_t sectors = Util::GetLunSizeInSectors(text);
    if (sectors == 0 || sectors > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
      __builtin_trap();
    }
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException& e) {
    if (e.GetMessage().rfind("Failed to validate LUN size: ", 0) != 0) __builtin_trap();
  }
  try {
    if (Util::GetUnitValueFromString(text) == 0) __builtin_trap();
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException&) {
  }
  return 0;
}
