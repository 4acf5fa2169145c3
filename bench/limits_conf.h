// The configuration at the cluster limits that the benchmarks share: 128 targets with 8 LUNs
// each (1024 LUNs), 256 initiator groups of 32 initiators (8192 initiators), targets spread over
// the portal groups of four interfaces nuk1..nuk4, a third each with CHAP, CHAP-Mutual and no
// authentication, each admitting two groups and one initiator name.
#pragma once

#include <string>

#include "confedit/parser_edit.h"

struct conf;

namespace kel {
namespace bench {

namespace limits = NukCtl::Orsa::IscsiTarget::Parser;

constexpr int kTargets = limits::kMaxTargets;
constexpr int kLunsPerTarget = limits::kMaxLuns / limits::kMaxTargets;
constexpr int kInitiatorGroups = limits::kMaxInitiatorGroups;
constexpr int kInitiatorsPerGroup = limits::kMaxInitiators / limits::kMaxInitiatorGroups;
constexpr int kNics = 4;

// A well-formed UUID text, distinct for every (kind, n).
std::string LimitsUuid(int kind, int n);

// The model, built through the model's functions the way the editing operations build it; the
// caller frees it with conf_delete.
struct conf* BuildLimitsModel();

}  // namespace bench
}  // namespace kel
