// Fuzz target of keld's reading of tgtadm's output: the show listings of targets, accounts and
// portals, and the classification of a failed call by its exit code and stderr.
#include "keld/tgt_admin.h"
#include "tests/fuzz/fuzz_main.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text = FuzzText(data, size);
  for (const auto& target : kel::keld::ParseTargetShow(text)) {
    // Every LUN found must be one that the lookup finds again.
    for (const auto& lun : target.luns) {
      if (target.FindLun(lun.lun) == nullptr) __builtin_trap();
    }
  }
  kel::keld::ParseAccountShow(text);
  kel::keld::ParsePortalShow(text);
  kel::keld::ClassifyTgtadm(size > 0 ? data[0] : 0, size > 0 ? text.substr(1) : text);
  return 0;
}
