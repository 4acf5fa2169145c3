// Default target names for targets created without an IQN.
#pragma once

#include <string>

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

// The naming authority of generated names: the reverse of "kel.local". ".local" is reserved for
// link-local names and registered to nobody, so a generated name can never collide with a name
// minted by a real naming authority.
extern const char* const kDefaultIqnAuthority;  // "local.kel"

// "iqn." + the current year and month (UTC, "YYYY-MM") + "." + kDefaultIqnAuthority + ":" + a
// fresh random UUID in lower case, e.g. "iqn.2026-11.local.kel:3f6c1d2e-...". The random UUID
// (122 random bits) makes the name unique across the cluster without any coordination; the name
// passes the target IQN pattern and stays far below the 223-byte limit. The spelling of the
// function's name is kept as the system has it.
std::string GetDefautltIQN();

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
