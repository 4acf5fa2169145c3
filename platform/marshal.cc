#include "platform/marshal.h"

#include <arpa/inet.h>
#include <uuid/uuid.h>

#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

using json = nlohmann::json;

struct Marshal_Description {
  mutable std::mutex mu;
  std::map<std::string, const Marshal_StructDesc*> structs;  // guarded by mu
};

namespace {

void* DefaultAlloc(void*, size_t size) { return calloc(1, size == 0 ? 1 : size); }
void DefaultFree(void*, void* ptr) { free(ptr); }

Marshal_Allocator gDefaultAllocator = {DefaultAlloc, DefaultFree, nullptr};

const Marshal_StructDesc* Lookup(const Marshal_Description* description, const char* name) {
  if (description == nullptr || name == nullptr) return nullptr;
  std::lock_guard<std::mutex> guard(description->mu);
  auto it = description->structs.find(name);
  return it == description->structs.end() ? nullptr : it->second;
}

size_t FieldSize(Marshal_FieldType type) {
  switch (type) {
    case MARSHAL_FIELD_UINT8:
      return 1;
    case MARSHAL_FIELD_UINT16:
      return 2;
    case MARSHAL_FIELD_UINT32:
      return 4;
    case MARSHAL_FIELD_UINT64:
      return 8;
    case MARSHAL_FIELD_INT32:
      return 4;
    case MARSHAL_FIELD_INT64:
      return 8;
    case MARSHAL_FIELD_UUID:
      return 16;
    case MARSHAL_FIELD_IPV4:
      return 4;
    case MARSHAL_FIELD_IPV6:
      return 16;
    case MARSHAL_FIELD_STRING:
      return sizeof(char*);
  }
  return 0;
}

template <typename T>
T Read(const void* structure, size_t offset) {
  T value;
  memcpy(&value, static_cast<const uint8_t*>(structure) + offset, sizeof(T));
  return value;
}

template <typename T>
void Write(void* structure, size_t offset, T value) {
  memcpy(static_cast<uint8_t*>(structure) + offset, &value, sizeof(T));
}

json EncodeField(const Marshal_FieldDesc& f, const void* s) {
  const uint8_t* base = static_cast<const uint8_t*>(s) + f.offset;
  switch (f.type) {
    case MARSHAL_FIELD_UINT8:
      return Read<uint8_t>(s, f.offset);
    case MARSHAL_FIELD_UINT16:
      return Read<uint16_t>(s, f.offset);
    case MARSHAL_FIELD_UINT32:
      return Read<uint32_t>(s, f.offset);
    case MARSHAL_FIELD_UINT64:
      return Read<uint64_t>(s, f.offset);
    case MARSHAL_FIELD_INT32:
      return Read<int32_t>(s, f.offset);
    case MARSHAL_FIELD_INT64:
      return Read<int64_t>(s, f.offset);
    case MARSHAL_FIELD_UUID: {
      char text[37];
      uuid_unparse_lower(base, text);
      return std::string(text);
    }
    case MARSHAL_FIELD_IPV4: {
      char text[INET_ADDRSTRLEN] = {0};
      inet_ntop(AF_INET, base, text, sizeof(text));
      return std::string(text);
    }
    case MARSHAL_FIELD_IPV6: {
      char text[INET6_ADDRSTRLEN] = {0};
      inet_ntop(AF_INET6, base, text, sizeof(text));
      return std::string(text);
    }
    case MARSHAL_FIELD_STRING: {
      const char* str = Read<const char*>(s, f.offset);
      return std::string(str == nullptr ? "" : str);
    }
  }
  return nullptr;
}

template <typename T>
bool DecodeInteger(const json& v, void* s, size_t offset) {
  if (!v.is_number_integer()) return false;
  if (std::numeric_limits<T>::is_signed) {
    if (v.is_number_unsigned()) {
      uint64_t u = v.get<uint64_t>();
      if (u > static_cast<uint64_t>(std::numeric_limits<T>::max())) return false;
      Write<T>(s, offset, static_cast<T>(u));
      return true;
    }
    int64_t i = v.get<int64_t>();
    if (i < static_cast<int64_t>(std::numeric_limits<T>::min()) ||
        i > static_cast<int64_t>(std::numeric_limits<T>::max())) {
      return false;
    }
    Write<T>(s, offset, static_cast<T>(i));
    return true;
  }
  if (!v.is_number_unsigned()) return false;  // negative
  uint64_t u = v.get<uint64_t>();
  if (u > static_cast<uint64_t>(std::numeric_limits<T>::max())) return false;
  Write<T>(s, offset, static_cast<T>(u));
  return true;
}

bool DecodeField(Marshal_Allocator* allocator, const Marshal_FieldDesc& f, const json& v, void* s) {
  uint8_t* base = static_cast<uint8_t*>(s) + f.offset;
  switch (f.type) {
    case MARSHAL_FIELD_UINT8:
      return DecodeInteger<uint8_t>(v, s, f.offset);
    case MARSHAL_FIELD_UINT16:
      return DecodeInteger<uint16_t>(v, s, f.offset);
    case MARSHAL_FIELD_UINT32:
      return DecodeInteger<uint32_t>(v, s, f.offset);
    case MARSHAL_FIELD_UINT64:
      return DecodeInteger<uint64_t>(v, s, f.offset);
    case MARSHAL_FIELD_INT32:
      return DecodeInteger<int32_t>(v, s, f.offset);
    case MARSHAL_FIELD_INT64:
      return DecodeInteger<int64_t>(v, s, f.offset);
    case MARSHAL_FIELD_UUID:
      return v.is_string() && uuid_parse(v.get<std::string>().c_str(), base) == 0;
    case MARSHAL_FIELD_IPV4:
      return v.is_string() && inet_pton(AF_INET, v.get<std::string>().c_str(), base) == 1;
    case MARSHAL_FIELD_IPV6:
      return v.is_string() && inet_pton(AF_INET6, v.get<std::string>().c_str(), base) == 1;
    case MARSHAL_FIELD_STRING: {
      if (!v.is_string()) return false;
      const std::string& text = v.get_ref<const std::string&>();
      char* copy = static_cast<char*>(Marshal_Alloc(allocator, text.size() + 1));
      if (copy == nullptr) return false;
      memcpy(copy, text.c_str(), text.size() + 1);
      Write<char*>(s, f.offset, copy);
      return true;
    }
  }
  return false;
}

void FreeStrings(Marshal_Allocator* allocator, const Marshal_StructDesc* desc, void* s) {
  for (size_t i = 0; i < desc->fieldCount; ++i) {
    if (desc->fields[i].type != MARSHAL_FIELD_STRING) continue;
    char* str = Read<char*>(s, desc->fields[i].offset);
    if (str != nullptr) Marshal_Free(allocator, str);
    Write<char*>(s, desc->fields[i].offset, nullptr);
  }
}

}  // namespace

Marshal_Allocator* Marshal_DefaultAllocator(void) { return &gDefaultAllocator; }

void* Marshal_Alloc(Marshal_Allocator* allocator, size_t size) {
  if (allocator == nullptr) allocator = &gDefaultAllocator;
  return allocator->alloc(allocator->ctx, size);
}

void Marshal_Free(Marshal_Allocator* allocator, void* ptr) {
  if (ptr == nullptr) return;
  if (allocator == nullptr) allocator = &gDefaultAllocator;
  allocator->free(allocator->ctx, ptr);
}

Marshal_Description* Marshal_CreateDescription(void) { return new Marshal_Description(); }

void Marshal_DestroyDescription(Marshal_Description* description) { delete description; }

NUK_ReturnStatus Marshal_RegisterStructure(Marshal_Description* description,
                                           const Marshal_StructDesc* desc) {
  if (description == nullptr || desc == nullptr || desc->name == nullptr || desc->name[0] == 0) {
    return NUK_BAD_PARAM;
  }
  for (size_t i = 0; i < desc->fieldCount; ++i) {
    const Marshal_FieldDesc& f = desc->fields[i];
    if (f.name == nullptr || f.offset + FieldSize(f.type) > desc->size) return NUK_BAD_PARAM;
  }
  std::lock_guard<std::mutex> guard(description->mu);
  if (!description->structs.emplace(desc->name, desc).second) return NUK_EXISTS;
  return NUK_OK;
}

NUK_ReturnStatus Marshal_MshSingleStructure(const Marshal_Description* description,
                                            const char* name, const void* structure,
                                            uint32_t* length, uint8_t* buffer) {
  if (structure == nullptr || length == nullptr || buffer == nullptr) return NUK_BAD_PARAM;
  const Marshal_StructDesc* desc = Lookup(description, name);
  if (desc == nullptr) return NUK_NOT_FOUND;
  json fields = json::object();
  for (size_t i = 0; i < desc->fieldCount; ++i) {
    fields[desc->fields[i].name] = EncodeField(desc->fields[i], structure);
  }
  json doc = json::object();
  doc[desc->name] = std::move(fields);
  std::string text = doc.dump();
  if (text.size() > *length) return NUK_BAD_PARAM;
  memcpy(buffer, text.data(), text.size());
  *length = static_cast<uint32_t>(text.size());
  return NUK_OK;
}

NUK_ReturnStatus Marshal_UmshSingleStructure(Marshal_Allocator* allocator,
                                             const Marshal_Description* description,
                                             const uint8_t* data, uint32_t length, const char* name,
                                             void** structure) {
  if (structure == nullptr || (data == nullptr && length != 0)) return NUK_BAD_PARAM;
  const Marshal_StructDesc* desc = Lookup(description, name);
  if (desc == nullptr) return NUK_NOT_FOUND;
  json doc = json::parse(data, data + length, nullptr, false);
  if (doc.is_discarded() || !doc.is_object()) return NUK_BAD_PARAM;
  auto body = doc.find(desc->name);
  if (body == doc.end() || !body->is_object()) return NUK_BAD_PARAM;
  void* s = Marshal_Alloc(allocator, desc->size);
  if (s == nullptr) return NUK_NO_MEMORY;
  memset(s, 0, desc->size);
  for (size_t i = 0; i < desc->fieldCount; ++i) {
    const Marshal_FieldDesc& f = desc->fields[i];
    auto v = body->find(f.name);
    if (v == body->end() || !DecodeField(allocator, f, *v, s)) {
      FreeStrings(allocator, desc, s);
      Marshal_Free(allocator, s);
      return NUK_BAD_PARAM;
    }
  }
  *structure = s;
  return NUK_OK;
}

void Marshal_DeallocStructure(Marshal_Allocator* allocator, const Marshal_Description* description,
                              const char* name, void* structure) {
  if (structure == nullptr) return;
  const Marshal_StructDesc* desc = Lookup(description, name);
  if (desc != nullptr) FreeStrings(allocator, desc, structure);
  Marshal_Free(allocator, structure);
}
