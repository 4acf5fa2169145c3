// A host program that knows kel only through the plug-in module: it loads libkel_plugin.so with
// dlopen, finds the entry points with dlsym, and runs one operation through the service object.
//
//   kel_plugin_host MODULE GROUP
// loads MODULE, calls the load hook, gets a service object from the plug-in, adds the initiator
// group GROUP, prints every group's name (one per line, after "groups:"), releases everything,
// calls the unload hook and closes the module. The host configuration comes from $KEL_CONFIG.
// Exit codes: 0 done, 2 usage, 3 a missing entry point or module, 4 the operation failed.
#include <dlfcn.h>

#include <cstdio>
#include <exception>
#include <memory>

#include "service/orsa_async_plugin.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s MODULE GROUP\n", argv[0]);
    return 2;
  }
  void* module = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) {
    fprintf(stderr, "dlopen: %s\n", dlerror());
    return 3;
  }
  using IntFn = int (*)();
  using GetFn = HostCtl::OrsaAsyncPlugin* (*)();
  using ReleaseFn = void (*)(HostCtl::OrsaAsyncPlugin*);
  auto init = reinterpret_cast<IntFn>(dlsym(module, "kel_nukctl_init"));
  auto fini = reinterpret_cast<IntFn>(dlsym(module, "kel_nukctl_fini"));
  auto get = reinterpret_cast<GetFn>(dlsym(module, "kel_get_async_plugin"));
  auto release = reinterpret_cast<ReleaseFn>(dlsym(module, "kel_release_async_plugin"));
  auto version = static_cast<const char*>(dlsym(module, "kel_plugin_version"));
  if (init == nullptr || fini == nullptr || get == nullptr || release == nullptr ||
      version == nullptr) {
    fprintf(stderr, "missing entry point\n");
    return 3;
  }
  printf("version: %s\n", version);
  if (init() != 0) {
    fprintf(stderr, "load hook failed\n");
    return 3;
  }
  int status = 0;
  HostCtl::OrsaAsyncPlugin* plugin = get();
  if (plugin == nullptr) return 3;
  try {
    std::shared_ptr<HostCtl::Orsa::IscsiTarget::OrsaIscsiTarget> service =
        plugin->GetOrsaIscsiTarget();
    printf("enabled: %d\n", service->GetIscsiTargetStatus(true) ? 1 : 0);
    service->AddInitiatorgroup(argv[2]);
    printf("groups:\n");
    for (const auto& group : service->GetInitiatorgroups()) printf("%s\n", group.name.c_str());
  } catch (const std::exception& e) {
    fprintf(stderr, "%s\n", e.what());
    status = 4;
  }
  release(plugin);
  fini();
  dlclose(module);
  return status;
}
