// Structure marshalling for directory entry data.
//
// A structure is described once (name, size, fields with their types and offsets) and registered
// in a description set; the marshaller then converts between the C structure and its encoded form.
// The encoding is JSON, so operators can read entry data with ordinary tools:
//   {"LodexOrsaIscsiTargetConfig":{"protocolVersion":1,"configNamespaceUuid":"...","configGenNumber":7}}
// UUIDs are written in their 8-4-4-4-12 text form, IPv4 and IPv6 addresses as address text, 64-bit
// integers as JSON numbers (exact up to 2^64-1).
//
// Unmarshalling is strict: the structure name must match, every described field must be present
// with the right type, values must fit their field. Unknown extra fields are ignored so that a
// newer writer can add fields.
//
// Memory: unmarshalled structures (and their string fields) are allocated through the allocator
// given, and freed with Marshal_DeallocStructure through the same allocator.
// Marshal_DefaultAllocator uses malloc/free. Description sets are thread-safe for concurrent use
// once registration is done.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/status.h"

typedef struct Marshal_Allocator {
  void* (*alloc)(void* ctx, size_t size);  // zero-filled memory, or null
  void (*free)(void* ctx, void* ptr);
  void* ctx;
} Marshal_Allocator;

// The malloc/free allocator; never null.
Marshal_Allocator* Marshal_DefaultAllocator(void);
void* Marshal_Alloc(Marshal_Allocator* allocator, size_t size);
void Marshal_Free(Marshal_Allocator* allocator, void* ptr);

typedef enum Marshal_FieldType {
  MARSHAL_FIELD_UINT8,
  MARSHAL_FIELD_UINT16,
  MARSHAL_FIELD_UINT32,
  MARSHAL_FIELD_UINT64,
  MARSHAL_FIELD_INT32,
  MARSHAL_FIELD_INT64,
  MARSHAL_FIELD_UUID,    // uint8_t[16]
  MARSHAL_FIELD_IPV4,    // uint32_t in network byte order; 0 = none
  MARSHAL_FIELD_IPV6,    // uint8_t[16]; all zero = none
  MARSHAL_FIELD_STRING,  // char*, NUL-terminated; null marshals as ""
} Marshal_FieldType;

typedef struct Marshal_FieldDesc {
  const char* name;
  Marshal_FieldType type;
  size_t offset;
} Marshal_FieldDesc;

typedef struct Marshal_StructDesc {
  const char* name;
  size_t size;
  const Marshal_FieldDesc* fields;
  size_t fieldCount;
} Marshal_StructDesc;

// A set of registered structure descriptions.
typedef struct Marshal_Description Marshal_Description;

Marshal_Description* Marshal_CreateDescription(void);
void Marshal_DestroyDescription(Marshal_Description* description);
// Registers `desc` (not copied: it must outlive the set). NUK_EXISTS when the name is taken,
// NUK_BAD_PARAM for an empty name or a field outside the structure.
NUK_ReturnStatus Marshal_RegisterStructure(Marshal_Description* description,
                                           const Marshal_StructDesc* desc);

// Encodes `structure` as the registered structure `name` into `buffer`. On entry `*length` is the
// buffer's capacity, on success the encoded length. NUK_NOT_FOUND for an unregistered name,
// NUK_BAD_PARAM when the encoding does not fit (nothing useful is left in the buffer then).
NUK_ReturnStatus Marshal_MshSingleStructure(const Marshal_Description* description,
                                            const char* name, const void* structure,
                                            uint32_t* length, uint8_t* buffer);

// Decodes `length` bytes of `data` as the structure `name` into a new structure allocated through
// `allocator` (*structure is set only on success). NUK_BAD_PARAM for malformed data.
NUK_ReturnStatus Marshal_UmshSingleStructure(Marshal_Allocator* allocator,
                                             const Marshal_Description* description,
                                             const uint8_t* data, uint32_t length, const char* name,
                                             void** structure);

// Frees a structure made by Marshal_UmshSingleStructure, string fields included. Null is a no-op.
void Marshal_DeallocStructure(Marshal_Allocator* allocator, const Marshal_Description* description,
                              const char* name, void* structure);
