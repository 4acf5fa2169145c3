#include "placement/consist_hash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/test_support.h"

namespace {

using NukCtl::Orsa::IscsiTarget::Util::ConsistHash;
using NukCtl::Orsa::IscsiTarget::Util::Lookup8Hash;

std::vector<std::string> RandomKeys(size_t count, unsigned seed) {
  std::mt19937_64 gen(seed);
  std::vector<std::string> keys;
  keys.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    keys.push_back("iqn.2024-01.com.example:t" + std::to_string(gen()));
  }
  return keys;
}

// Known answers: the two short ones are the published reference values; the longer ones (which
// go through the 24-byte block loop) were computed with an independent implementation. Fixed
// answers are also what makes every host and process place a target alike.
TEST(ConsistHashTest, HashMatchesKnownAnswers) {
  EXPECT_EQ(ConsistHash::GetHashKey(""), 12847030554503145994ULL);
  EXPECT_EQ(ConsistHash::GetHashKey("abc"), 3419232163308206256ULL);
  EXPECT_EQ(ConsistHash::GetHashKey("hostA-0"), 9815886893714112664ULL);
  EXPECT_EQ(ConsistHash::GetHashKey("iqn.2024-01.com.example:storage.target-with-a-long-name"),
            8986572424182830585ULL);
  std::string bytes;
  for (int i = 0; i < 71; ++i) bytes.push_back(static_cast<char>(i));
  EXPECT_EQ(ConsistHash::GetHashKey(bytes), 15776460768059346404ULL);
  // Embedded NULs and bytes >= 0x80 are hashed like any other byte.
  EXPECT_NE(ConsistHash::GetHashKey(std::string("a\0b", 3)), ConsistHash::GetHashKey("a"));
  EXPECT_NE(ConsistHash::GetHashKey("\xff"), ConsistHash::GetHashKey("\x7f"));
}

TEST(ConsistHashTest, AlignedAndUnalignedReadsAgree) {
  alignas(8) unsigned char buffer[128 + 8];
  std::mt19937 gen(7);
  for (size_t len = 0; len <= 100; ++len) {
    std::vector<unsigned char> data(len);
    for (auto& c : data) c = static_cast<unsigned char>(gen());
    std::copy(data.begin(), data.end(), buffer);
    const uint64_t expected = Lookup8Hash(buffer, len, 42);
    for (size_t offset = 1; offset < 8; ++offset) {
      std::copy(data.begin(), data.end(), buffer + offset);
      ASSERT_EQ(Lookup8Hash(buffer + offset, len, 42), expected) << len << " at " << offset;
    }
  }
  // The level is an input of the hash.
  EXPECT_NE(Lookup8Hash("abc", 3, 42), Lookup8Hash("abc", 3, 43));
}

TEST(ConsistHashTest, WeightsGiveTenPointsPerUnitAndNonPositiveWeightsGiveNone) {
  ConsistHash ring({{"hostA", 3}, {"hostB", 0}, {"hostC", -2}, {"hostD", 1}});
  EXPECT_EQ(ring.Weights().size(), 4u);
  size_t a = 0, d = 0;
  for (const auto& [hash, node] : ring.Ring()) {
    if (node == "hostA") ++a;
    if (node == "hostD") ++d;
    EXPECT_TRUE(node == "hostA" || node == "hostD") << node;
  }
  EXPECT_EQ(a, 30u);
  EXPECT_EQ(d, 10u);
  // Every virtual key of hostA is a point: "hostA-0" .. "hostA-29", and nothing beyond.
  for (int i = 0; i < 30; ++i) {
    EXPECT_EQ(ring.Ring().at(ConsistHash::GetHashKey("hostA-" + std::to_string(i))), "hostA");
  }
  EXPECT_EQ(ring.Ring().count(ConsistHash::GetHashKey("hostA-30")), 0u);
  // A key equal to a point's hash belongs to that point.
  EXPECT_EQ(ring.FindHashNode("hostD-7"), "hostD");

  // Removing a pointless node only drops its weight entry.
  const auto ring_before = ring.Ring();
  ring.RemoveHashNode("hostB");
  EXPECT_EQ(ring.Weights().count("hostB"), 0u);
  EXPECT_EQ(ring.Ring(), ring_before);
}

TEST(ConsistHashTest, PointCountIsFormedIn32BitSignedArithmetic) {
  // 10 x 429496730 = 4294967300, which is 4 modulo 2^32: four points. 10 x 214748365 wraps to a
  // negative count: none.
  ConsistHash ring({{"big", 429496730}, {"negative", 214748365}, {"max", INT_MAX}});
  size_t big = 0;
  for (const auto& [hash, node] : ring.Ring()) {
    if (node == "big") ++big;
    EXPECT_NE(node, "negative");
  }
  EXPECT_EQ(big, 4u);
  // INT_MAX x 10 = 21474836470 = 4294967286 (mod 2^32) = -10 as int32: no points.
  EXPECT_EQ(ring.Ring().size(), 4u);
  ring.RemoveHashNode("big");
  EXPECT_TRUE(ring.Ring().empty());
  EXPECT_EQ(ring.Weights().size(), 2u);
}

TEST(ConsistHashTest, LookupsSingleNodeWrapAroundAndEmptyRing) {
  ConsistHash single({{"only", 1}});
  for (const auto& key : RandomKeys(100, 2)) ASSERT_EQ(single.FindHashNode(key), "only");

  ConsistHash ring({{"hostA", 1}, {"hostB", 1}, {"hostC", 1}});
  const uint64_t smallest = ring.Ring().begin()->first;
  const uint64_t largest = ring.Ring().rbegin()->first;
  const std::string smallest_node = ring.Ring().begin()->second;
  // Keys past the last point and keys at or below the first both go to the first point.
  std::string beyond, just_above;
  for (const auto& key : RandomKeys(200000, 3)) {
    const uint64_t h = ConsistHash::GetHashKey(key);
    if (h > largest && beyond.empty()) beyond = key;
    if (h <= smallest && just_above.empty()) just_above = key;
    if (!beyond.empty() && !just_above.empty()) break;
  }
  ASSERT_FALSE(beyond.empty() || just_above.empty());
  EXPECT_EQ(ring.FindHashNode(beyond), smallest_node);
  EXPECT_EQ(ring.FindHashNode(just_above), smallest_node);

  EXPECT_EQ(ConsistHash({}).FindHashNode("anything"), "");
  EXPECT_EQ(ConsistHash({{"z", 0}}).FindHashNode("anything"), "");
}

TEST(ConsistHashTest, SharesFollowWeights) {
  ConsistHash ring({{"h1", 1}, {"h2", 2}, {"h3", 3}});
  std::map<std::string, int> counts;
  const auto keys = RandomKeys(20000, 5);
  for (const auto& key : keys) ++counts[ring.FindHashNode(key)];
  ASSERT_EQ(counts.size(), 3u);
  const double n = static_cast<double>(keys.size());
  EXPECT_NEAR(counts["h1"] / n, 1.0 / 6, 0.08);
  EXPECT_NEAR(counts["h2"] / n, 2.0 / 6, 0.08);
  EXPECT_NEAR(counts["h3"] / n, 3.0 / 6, 0.08);
}

TEST(ConsistHashTest, RemovalMovesOnlyTheRemovedNodesKeys) {
  std::map<std::string, int> weights;
  for (int i = 0; i < 8; ++i) weights["host" + std::to_string(i)] = 1 + i % 3;
  ConsistHash ring(weights);
  const auto keys = RandomKeys(10000, 6);
  std::vector<std::string> before;
  for (const auto& key : keys) before.push_back(ring.FindHashNode(key));

  ConsistHash unchanged = ring;
  unchanged.RemoveHashNode("no-such-host");
  EXPECT_EQ(unchanged.Ring(), ring.Ring());
  EXPECT_EQ(unchanged.Weights(), ring.Weights());

  ring.RemoveHashNode("host3");
  EXPECT_EQ(ring.Weights().count("host3"), 0u);
  size_t moved = 0;
  for (size_t i = 0; i < keys.size(); ++i) {
    const std::string after = ring.FindHashNode(keys[i]);
    ASSERT_NE(after, "host3");
    if (before[i] == "host3") {
      ++moved;
    } else {
      ASSERT_EQ(after, before[i]) << keys[i];
    }
  }
  EXPECT_GT(moved, 0u);

  // Shrinking to nothing leaves an empty ring.
  for (int i = 0; i < 8; ++i) ring.RemoveHashNode("host" + std::to_string(i));
  EXPECT_TRUE(ring.Ring().empty());
  EXPECT_TRUE(ring.Weights().empty());
}

// The placement of a fixed set of keys, one line per key.
std::string Placement() {
  ConsistHash ring({{"srv-a", 4}, {"srv-b", 1}, {"srv-c", 16}, {"srv-d", 7}});
  ring.RemoveHashNode("srv-d");
  std::ostringstream out;
  for (const auto& key : RandomKeys(3000, 8)) out << key << ' ' << ring.FindHashNode(key) << '\n';
  return out.str();
}

// Helper run in a child process by SameResultsAcrossProcesses.
TEST(ConsistHashChild, EmitPlacement) {
  const char* out = std::getenv("KEL_RING_PLACEMENT_OUT");
  if (out == nullptr) GTEST_SKIP() << "only run as the child of SameResultsAcrossProcesses";
  std::ofstream(out) << Placement();
}

TEST(ConsistHashTest, SameResultsAcrossRunsAndProcesses) {
  const std::string here = Placement();
  EXPECT_EQ(here, Placement());

  kel::testing::TempDir dir;
  const std::string out = dir.Join("placement");
  // Run before the exec, /proc/self/exe is still this test binary.
  auto result =
      kel::testing::RunCommand({"/proc/self/exe", "--gtest_filter=ConsistHashChild.EmitPlacement"},
                               "", {{"KEL_RING_PLACEMENT_OUT", out}});
  ASSERT_EQ(result.exit_code, 0) << result.out << result.err;
  EXPECT_EQ(kel::testing::ReadFile(out), here);
}

}  // namespace
