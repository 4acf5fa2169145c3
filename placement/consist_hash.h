// Weighted consistent hash ring: maps a key (a target's name) to one node (a host) in proportion
// to each node's weight.
//
// A node of weight W owns up to 10 x W ring points, one per virtual key "<node>-<i>". The ring is
// a plain value object: built once from a weight map, queried, shrunk with RemoveHashNode, then
// destroyed; it is never grown. Not thread-safe: one ring belongs to one balancing pass.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace NukCtl {
namespace Orsa {
namespace IscsiTarget {
namespace Util {

// The 64-bit hash of `length` bytes at `key` with initial value `level`. Reads whole
// little-endian words when `key` lies on an 8-byte boundary and single bytes otherwise; both give
// the same value on every host.
uint64_t Lookup8Hash(const void* key, size_t length, uint64_t level);

class ConsistHash {
 public:
  // Virtual ring points per unit of weight.
  static constexpr int kPointsPerWeight = 10;
  // Initial value of the hash for ring keys and lookup keys.
  static constexpr uint64_t kHashLevel = 42;

  // Copies `weights` and fills the ring. Nodes are visited in ascending name order, so on a hash
  // collision the node whose name sorts first keeps the point. A node whose 10 x weight (32-bit
  // signed) is not positive is kept in the weights but owns no points.
  explicit ConsistHash(const std::map<std::string, int>& weights);
  ~ConsistHash();

  ConsistHash(const ConsistHash&) = default;
  ConsistHash& operator=(const ConsistHash&) = default;

  // Pure function of the string's bytes (no terminator).
  static uint64_t GetHashKey(const std::string& key);

  // The node of the first point whose hash is >= the key's hash, wrapping around to the smallest
  // point. Returns an empty name when the ring has no points.
  std::string FindHashNode(const std::string& key) const;

  // Erases every point whose hash equals one of the node's virtual keys (whichever node the point
  // names) and then the node's weight entry. An unknown node is ignored.
  void RemoveHashNode(const std::string& node);

  const std::map<std::string, int>& Weights() const { return weights_; }
  const std::map<uint64_t, std::string>& Ring() const { return ring_; }

 private:
  // Number of virtual keys of a node, formed in 32-bit signed arithmetic as the ring always was.
  static int32_t PointCount(int weight);
  // The virtual keys "<node>-<i>" of one node, formed in one reused buffer.
  class VirtualKeys {
   public:
    explicit VirtualKeys(const std::string& node);
    const std::string& Key(int32_t index);  // valid until the next call

   private:
    std::string key_;
    size_t base_;
  };

  std::map<std::string, int> weights_;    // node -> weight, byte-wise name order
  std::map<uint64_t, std::string> ring_;  // point hash -> node, ascending
};

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orsa
}  // namespace NukCtl
