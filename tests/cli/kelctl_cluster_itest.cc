// Two hosts sharing one datastore and one real etcd, each driven by kelctl: a target made on one
// host is listed with its owner on the other, and moves to it.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "directory/config_entry.h"
#include "platform/directory.h"
#include "tests/cli/kelctl_testutil.h"
#include "tests/support/etcd_fixture.h"

namespace kel {
namespace testing {
namespace {

using nlohmann::json;

platform::HostConfig HostOf(const TempDir& root, const std::string& name,
                            const std::string& address, const std::string& endpoint,
                            const std::string& site) {
  platform::HostConfig c = MakeTestHostConfig(root.path(), name, endpoint, "/kel/cluster-itest");
  c.hostSite = site;
  c.networkOverride = true;
  c.interfaces["nuk0"] = {address, ""};
  c.daemonControl = "true";
  mkdir(c.stateDir.c_str(), 0700);
  mkdir(c.datastorePath.c_str(), 0700);
  return c;
}

TEST(KelctlCluster, TargetsAreSeenAndMovedAcrossHosts) {
  if (!EtcdServer::Available()) GTEST_SKIP() << "etcd is not installed";
  EtcdServer etcd;
  std::string error;
  ASSERT_TRUE(etcd.Start(&error)) << error;
  TempDir root;
  const platform::HostConfig a = HostOf(root, "host-a", "127.0.0.61", etcd.Endpoint(), "east");
  const platform::HostConfig b = HostOf(root, "host-b", "127.0.0.62", etcd.Endpoint(), "west");
  WriteHostConfigFile(root.Join("a.json"), a);
  WriteHostConfigFile(root.Join("b.json"), b);
  Kelctl ka(root.Join("a.json"));
  Kelctl kb(root.Join("b.json"));

  // This process is host A's agent: it keeps A a live member between kelctl runs.
  platform::SetCurrentHostConfig(a);
  platform::CloseDirectory();
  platform::SetDirectoryRole(platform::DirectoryRole::kHostAgent);
  ASSERT_NE(platform::GetDirectory(), nullptr);

  ka.Ok({"namespace", "create"});
  ka.Ok({"service", "enable"});
  ka.Ok({"target", "add", "--alias", "t1"});
  ka.Ok({"lun", "add", "--target", "t1", "--size", "8MiB"});
  kb.Ok({"service", "enable"});
  json targets = kb.Json({"target", "list"});
  ASSERT_EQ(targets.size(), 1u) << kb.transcript();
  EXPECT_EQ(targets[0]["ownerHostUuid"], a.hostUuid);
  EXPECT_EQ(targets[0]["ownerHostName"], "host-a");
  EXPECT_EQ(targets[0]["luns"].size(), 1u);
  EXPECT_EQ(targets[0]["ownerHostSite"], "east");

  // The preferred site is one of the members' sites, set once for the whole cluster.
  CommandResult refused = kb.Run({"cluster", "set-preferred-site", "north"});
  EXPECT_EQ(LastLine(refused.err),
            "Site north is not the site of any cluster host (sites: east, west)");
  kb.Ok({"cluster", "set-preferred-site", "west"});
  json placement = kb.Json({"cluster", "placement"});
  EXPECT_EQ(placement["quota"], 1) << placement.dump();
  EXPECT_EQ(placement["preferredSite"], "west");
  for (const json& h : placement["hosts"]) {
    const bool isA = h["name"] == "host-a";
    EXPECT_EQ(h["targets"], isA ? json({"t1"}) : json::array()) << h.dump();
    EXPECT_EQ(h["role"], isA ? "NonPreferred" : "Preferred") << h.dump();
  }
  EXPECT_NE(ka.Ok({"cluster", "placement"}).out.find("Quota: 1 targets per host"),
            std::string::npos);

  // B's own target, then A's target moved to B.
  kb.Ok({"target", "add", "--alias", "t2"});
  CommandResult r = kb.Ok({"target", "transfer", "--alias", "t1", "--retries", "0"});
  EXPECT_NE(r.out.find("moved to host host-b"), std::string::npos) << r.out;
  EXPECT_TRUE(ka.Json({"target", "list", "--local"}).empty()) << ka.transcript();
  targets = ka.Json({"target", "list"});
  ASSERT_EQ(targets.size(), 2u);
  for (const auto& t : targets) EXPECT_EQ(t["ownerHostUuid"], b.hostUuid) << t["alias"];

  // B in maintenance: its targets go to A, the one host left that can serve them.
  r = kb.Ok({"host", "maintenance", "enter"});
  EXPECT_EQ(r.out, "Targets still on this host: -\n") << kb.transcript();
  EXPECT_EQ(ka.Json({"target", "list", "--local"}).size(), 2u) << ka.transcript();

  // The configuration entry was last published by B's kelctl under a lease of its own, which
  // goes with it; the re-publication that A's agent runs puts it under A's lease with the shared
  // file's generation.
  uint64_t published = 0;
  NukCtl::Orsa::IscsiTarget::OrsaIscsiTargetImpl::KelCheckConfigLodexEntry();
  ASSERT_EQ(KeldGetConfigGenNumInLodex(&published), NUK_OK);
  EXPECT_EQ(published, ReadModel()->conf_generation);

  platform::CloseDirectory();
  platform::SetDirectoryRole(platform::DirectoryRole::kClient);
}

}  // namespace
}  // namespace testing
}  // namespace kel

// Several kelctl processes changing kel.conf at the same moment: every change lands, and the
// generation rises by exactly one per write.
namespace kel {
namespace testing {
namespace {

TEST(KelctlConcurrency, ParallelTargetsAndLunsAllLand) {
  TestHost env;
  Kelctl k(env);
  k.Ok({"namespace", "create"});
  k.Ok({"service", "enable"});
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
