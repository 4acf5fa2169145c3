// Fuzz target of storage policy texts: a text is refused or parsed, and what parses prints as a
// text that parses to the same policy.
#include "platform/exception.h"
#include "platform/policy.h"
#include "tests/fuzz/fuzz_main.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using kel::platform::ParsePolicy;
  using kel::platform::PolicyToText;
  std::string text;
  try {
    text = PolicyToText(ParsePolicy(FuzzText(data, size)));
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException&) {
    return 0;
  }
  // The printed form is what gets stored with an object and read back later.
  if (PolicyToText(ParsePolicy(text)) != text) __builtin_trap();
  return 0;
}
