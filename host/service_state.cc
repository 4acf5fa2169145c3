#include "host/service_state.h"

#include <errno.h>

#include <atomic>
#include <cstring>
#include <mutex>

#include "platform/exception.h"
#include "platform/log.h"
#include "platform/settings.h"

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {
namespace {

std::atomic<int> gMgmtdOverride{-1};

bool ComputeRunningInAgent() {
  const char* name = program_invocation_name;
  return name != nullptr && strstr(name, "kelhostd") != nullptr;
}

}  // namespace

void SetStatus(bool enabled) {
  const char* text = enabled ? "enabled" : "disabled";
  try {
    kel::platform::UpdateSettings(
        [enabled](kel::platform::Settings& s) { s.serviceEnabled = enabled; });
  } catch (const HostCtl::Lib::Orsa::OrsaCtlException& e) {
    LogError("%s: KEL failed to persist info for KEL status to config store with exception %s",
             "Util", e.GetMessage().c_str());
    throw;
  }
  LogInfo("%s: Stored kel status '%s' to config store successfully", "Util", text);
}

void LoadConfig(bool& enabled) { enabled = kel::platform::LoadSettings().serviceEnabled; }

void UpdateDefaultConfigToConfigStore(const HostCtl::Orsa::IscsiTarget::DefaultInfo& info) {
  kel::platform::UpdateSettings([&info](kel::platform::Settings& s) {
    s.defaults = info;
    s.hasDefaults = true;
  });
}

HostCtl::Orsa::IscsiTarget::DefaultInfo GetDefaultConfigFromConfigStore() {
  return kel::platform::LoadSettings().defaults;
}

bool IsRunningInOrsaMgmtd() {
  int forced = gMgmtdOverride.load();
  if (forced >= 0) return forced != 0;
  static const bool computed = ComputeRunningInAgent();  // thread-safe one-time initialisation
  return computed;
}

void SetRunningInOrsaMgmtdForTest(int value) { gMgmtdOverride.store(value); }

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
