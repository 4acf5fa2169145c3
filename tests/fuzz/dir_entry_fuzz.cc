// Fuzz target of directory entries as read back from etcd or the embedded directory: the stored
// value ({owner, health, data}) and the marshalled structures inside it (the configuration entry
// and the interface entries). Another host, or whoever can write to etcd, chose these bytes.
#include <cstring>

#include "directory/config_entry.h"
#include "directory/interface_publication.h"
#include "platform/directory.h"
#include "platform/marshal.h"
#include "tests/fuzz/fuzz_main.h"

namespace {

void Unmarshal(Marshal_Description* description, const char* name, const std::string& bytes) {
  Marshal_Allocator* allocator = Marshal_DefaultAllocator();
  void* structure = nullptr;
  if (Marshal_UmshSingleStructure(
          allocator, description, reinterpret_cast<const uint8_t*>(bytes.data()),
          static_cast<uint32_t>(bytes.size()), name, &structure) == NUK_OK) {
    Marshal_DeallocStructure(allocator, description, name, structure);
  }
}

void UnmarshalAll(const std::string& bytes) {
  Unmarshal(KeldConfigEntryDescription(), "LodexOrsaIscsiTargetConfig", bytes);
  Unmarshal(KeldInterfaceEntryDescription(), "LodexOrsaIscsiInterfaceMap", bytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text = FuzzText(data, size);
  kel::platform::DirEntry entry;
  if (kel::platform::DecodeEntryValue(text, &entry)) UnmarshalAll(entry.data);
  UnmarshalAll(text);
  return 0;
}
