// The kel.conf writer: prints a configuration model as kel.conf text.
//
// It writes only what the service manages (generation, the last global option, initiator groups,
// named auth groups with their credentials and references, each portal group's first listen
// address, targets with their options and LUNs); everything else the grammar accepts is dropped.
// The output reads back with conf_new_from_file to the same written form.
//
// Thread-safety: reads the model only; callers hold whatever lock protects it.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

struct conf;

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Parser {

// Prints `conf` into `stream`. Secrets are written base64-encoded; a secret longer than 21 bytes
// does not fit and throws "Base64_Encode failed: Unexpected encoding size". Output already written
// when it throws stays in the stream (callers write into a temporary file).
void WriteConfToStream(const struct conf* conf, FILE* stream);

// The whole text WriteConfToStream prints for `conf`; on failure nothing is returned and the
// writer's exception propagates.
std::string WriteConfToString(const struct conf* conf);

// Standard base64 of `in` into `out`, NUL-terminated. Throws OrsaCtlException "Base64_Encode
// failed" when the encoder fails and "Base64_Encode failed: Unexpected encoding size" when the
// encoded text is not shorter than `out_size`.
void Base64EncodeWrapper(const unsigned char* in, size_t len, char* out, size_t out_size);

}  // namespace Parser
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
