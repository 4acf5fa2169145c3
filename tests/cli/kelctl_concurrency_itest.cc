// Several kelctl processes changing kel.conf at the same moment: every change lands, and the
// generation rises by exactly one per write.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/cli/kelctl_testutil.h"

namespace kel {
namespace testing {
namespace {

TEST(KelctlConcurrency, ParallelTargetsAndLunsAllLand) {
  TestHost env;
  Kelctl k(env);
  ASSERT_EQ(k.Run({"namespace", "create"}).exit_code, 0) << k.transcript();
  ASSERT_EQ(k.Run({"service", "enable"}).exit_code, 0) << k.transcript();
  const uint64_t start = env.Generation();

  constexpr int kWorkers = 6;
  constexpr int kLunsPerTarget = 2;
  std::vector<CommandResult> results(kWorkers * (1 + kLunsPerTarget));
  std::vector<std::thread> workers;
  for (int w = 0; w < kWorkers; ++w) {
    workers.emplace_back([&, w] {
      const std::string alias = "t" + std::to_string(w);
      results[w * 3] = k.Run({"target", "add", "--alias", alias});
      for (int l = 0; l < kLunsPerTarget; ++l) {
        results[w * 3 + 1 + l] =
            k.Run({"lun", "add", "--target", alias, "--size", std::to_string(l + 1) + "MiB"});
      }
    });
  }
  for (auto& t : workers) t.join();
  for (const CommandResult& r : results) ASSERT_EQ(r.exit_code, 0) << r.out << r.err;

  EXPECT_EQ(env.Generation(), start + results.size());
  ConfPtr model = ReadModel();
  for (int w = 0; w < kWorkers; ++w) {
    struct target* t = TargetByAlias(model.get(), "t" + std::to_string(w));
    ASSERT_NE(t, nullptr) << w;
    for (int l = 0; l < kLunsPerTarget; ++l) {
      ASSERT_NE(t->t_luns[l], nullptr) << w << "/" << l;
      EXPECT_TRUE(PathExists(env.datastore() + "/" + t->t_luns[l]->l_path));
    }
  }
}

}  // namespace
}  // namespace testing
}  // namespace kel
