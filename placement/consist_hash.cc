#include "placement/consist_hash.h"

#include <charconv>
#include <cstring>

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

namespace {

constexpr uint64_t kGoldenRatio = 0x9e3779b97f4a7c13ULL;

// clang-format off
inline void Mix64(uint64_t& a, uint64_t& b, uint64_t& c) {
  a -= b; a -= c; a ^= (c >> 43);
  b -= c; b -= a; b ^= (a << 9);
  c -= a; c -= b; c ^= (b >> 8);
  a -= b; a -= c; a ^= (c >> 38);
  b -= c; b -= a; b ^= (a << 23);
  c -= a; c -= b; c ^= (b >> 5);
  a -= b; a -= c; a ^= (c >> 35);
  b -= c; b -= a; b ^= (a << 49);
  c -= a; c -= b; c ^= (b >> 11);
  a -= b; a -= c; a ^= (c >> 12);
  b -= c; b -= a; b ^= (a << 18);
  c -= a; c -= b; c ^= (b >> 22);
}
// clang-format on

inline uint64_t LoadBytesLe(const uint8_t* p) {
  return static_cast<uint64_t>(p[0]) | static_cast<uint64_t>(p[1]) << 8 |
         static_cast<uint64_t>(p[2]) << 16 | static_cast<uint64_t>(p[3]) << 24 |
         static_cast<uint64_t>(p[4]) << 32 | static_cast<uint64_t>(p[5]) << 40 |
         static_cast<uint64_t>(p[6]) << 48 | static_cast<uint64_t>(p[7]) << 56;
}

// Whole-word read of an aligned block; the hash is defined on little-endian words, so a
// big-endian host swaps.
inline uint64_t LoadWordLe(const uint8_t* p) {
  uint64_t v;
  std::memcpy(&v, p, sizeof(v));
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  v = __builtin_bswap64(v);
#endif
  return v;
}

}  // namespace

uint64_t Lookup8Hash(const void* key, size_t length, uint64_t level) {
  const uint8_t* k = static_cast<const uint8_t*>(key);
  uint64_t a = level;
  uint64_t b = level;
  uint64_t c = kGoldenRatio;
  size_t len = length;

  const bool aligned = (reinterpret_cast<uintptr_t>(k) & 7u) == 0;
  while (len >= 24) {
    if (aligned) {
      a += LoadWordLe(k);
      b += LoadWordLe(k + 8);
      c += LoadWordLe(k + 16);
    } else {
      a += LoadBytesLe(k);
      b += LoadBytesLe(k + 8);
      c += LoadBytesLe(k + 16);
    }
    Mix64(a, b, c);
    k += 24;
    len -= 24;
  }

  c += static_cast<uint32_t>(length);
  // clang-format off
  // The tail: bytes 0-7 into a, 8-15 into b, 16-22 into c above its lowest byte (which carries
  // the length). Every case falls through to the next.
  switch (len) {
    case 23: c += static_cast<uint64_t>(k[22]) << 56; [[fallthrough]];
    case 22: c += static_cast<uint64_t>(k[21]) << 48; [[fallthrough]];
    case 21: c += static_cast<uint64_t>(k[20]) << 40; [[fallthrough]];
    case 20: c += static_cast<uint64_t>(k[19]) << 32; [[fallthrough]];
    case 19: c += static_cast<uint64_t>(k[18]) << 24; [[fallthrough]];
    case 18: c += static_cast<uint64_t>(k[17]) << 16; [[fallthrough]];
    case 17: c += static_cast<uint64_t>(k[16]) << 8; [[fallthrough]];
    case 16: b += static_cast<uint64_t>(k[15]) << 56; [[fallthrough]];
    case 15: b += static_cast<uint64_t>(k[14]) << 48; [[fallthrough]];
    case 14: b += static_cast<uint64_t>(k[13]) << 40; [[fallthrough]];
    case 13: b += static_cast<uint64_t>(k[12]) << 32; [[fallthrough]];
    case 12: b += static_cast<uint64_t>(k[11]) << 24; [[fallthrough]];
    case 11: b += static_cast<uint64_t>(k[10]) << 16; [[fallthrough]];
    case 10: b += static_cast<uint64_t>(k[9]) << 8; [[fallthrough]];
    case 9: b += static_cast<uint64_t>(k[8]); [[fallthrough]];
    case 8: a += static_cast<uint64_t>(k[7]) << 56; [[fallthrough]];
    case 7: a += static_cast<uint64_t>(k[6]) << 48; [[fallthrough]];
    case 6: a += static_cast<uint64_t>(k[5]) << 40; [[fallthrough]];
    case 5: a += static_cast<uint64_t>(k[4]) << 32; [[fallthrough]];
    case 4: a += static_cast<uint64_t>(k[3]) << 24; [[fallthrough]];
    case 3: a += static_cast<uint64_t>(k[2]) << 16; [[fallthrough]];
    case 2: a += static_cast<uint64_t>(k[1]) << 8; [[fallthrough]];
    case 1: a += static_cast<uint64_t>(k[0]); [[fallthrough]];
    default: break;
  }
  // clang-format on
  Mix64(a, b, c);
  return c;
}

ConsistHash::ConsistHash(const std::map<std::string, int>& weights) {
  for (const auto& [node, weight] : weights) {
    weights_.emplace(node, weight);
    const int32_t points = PointCount(weight);
    VirtualKeys keys(node);
    for (int32_t i = 0; i < points; ++i) {
      // emplace keeps an existing point: the first node to claim a hash keeps it.
      ring_.emplace(GetHashKey(keys.Key(i)), node);
    }
  }
}

ConsistHash::~ConsistHash() {
  ring_.clear();
  weights_.clear();
}

uint64_t ConsistHash::GetHashKey(const std::string& key) {
  return Lookup8Hash(key.data(), key.size(), kHashLevel);
}

std::string ConsistHash::FindHashNode(const std::string& key) const {
  if (ring_.empty()) {
    return std::string();
  }
  auto it = ring_.lower_bound(GetHashKey(key));
  if (it == ring_.end()) {
    it = ring_.begin();
  }
  return it->second;
}

void ConsistHash::RemoveHashNode(const std::string& node) {
  auto w = weights_.find(node);
  if (w == weights_.end()) {
    return;
  }
  const int32_t points = PointCount(w->second);
  VirtualKeys keys(node);
  for (int32_t i = 0; i < points; ++i) {
    // Kept as is: erasing by hash also takes out a point that another node won by collision.
    ring_.erase(GetHashKey(keys.Key(i)));
  }
  weights_.erase(w);
}

int32_t ConsistHash::PointCount(int weight) {
  // 32-bit signed product with wrap-around, without the undefined behaviour of signed overflow.
  return static_cast<int32_t>(static_cast<uint32_t>(weight) *
                              static_cast<uint32_t>(kPointsPerWeight));
}

ConsistHash::VirtualKeys::VirtualKeys(const std::string& node)
    : key_(node), base_(node.size() + 1) {
  key_.push_back('-');
}

const std::string& ConsistHash::VirtualKeys::Key(int32_t index) {
  char digits[16];
  const auto end = std::to_chars(digits, digits + sizeof(digits), index).ptr;
  key_.resize(base_);
  key_.append(digits, end);
  return key_;
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
