// The configuration entry's subscription in a program that closes its directory while another
// host's publications keep arriving, on a real etcd started on loopback for this binary.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "directory/config_cache.h"
#include "directory/config_entry.h"
#include "platform/directory.h"
#include "platform/directory_etcd.h"
#include "platform/marshal.h"
#include "tests/directory/directory_test_env.h"
#include "tests/support/etcd_fixture.h"

namespace {

namespace ConfigCache = NukCtl::Orsa::IscsiTarget::ConfigCache;
using kel::platform::HostConfig;

// A short-lived program (like kelctl): closing waits for a callback in flight and nothing brings
// the directory back from one, so after each close its own lease, and with it its member record, is
// gone.
TEST(ConfigEntryCluster, AProgramKeepingTheSubscriptionClosesCleanlyWhileNotificationsArrive) {
  kel::testing::EtcdServer etcd;
  std::string error;
  ASSERT_TRUE(etcd.Start(&error)) << error;
  kel::testing::DirTestEnv env(etcd.Endpoint(), "/kel/config-entry");
  env.WriteConf(1, {"t1"});
  HostConfig other = env.config();
  other.hostUuid = kel::platform::DirUuidToText(kel::platform::RandomDirUuid());
  other.hostName = "host-b";
  other.stateDir += "-b";
  auto otherDirectory = std::make_shared<kel::platform::EtcdDirectory>(
      other, kel::platform::DirectoryRole::kHostAgent);
  kel::platform::DirEntry entry;
  entry.type = KELD_LODEX_CONFIG_ENTRY_TYPE;
  ASSERT_TRUE(kel::platform::DirUuidFromText(env.namespace_uuid(), &entry.uuid));

  // The other host publishes rising generations as fast as its directory confirms them.
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> published{0};
  std::thread publisher([&] {
    for (uint64_t gen = 2; !stop.load(); ++gen) {
      LodexOrsaIscsiTargetConfig config{};
      config.protocolVersion = KELD_LODEX_CONFIG_PROTOCOL_VERSION;
      memcpy(config.configNamespaceUuid, entry.uuid.data(), 16);
      config.configGenNumber = gen;
      uint8_t buffer[KELD_LODEX_CONFIG_MAX_LEN];
      uint32_t length = sizeof(buffer);
      if (Marshal_MshSingleStructure(KeldConfigEntryDescription(), "LodexOrsaIscsiTargetConfig",
                                     &config, &length, buffer) != NUK_OK) {
        return;
      }
      kel::platform::DirEntry e = entry;
      e.data.assign(reinterpret_cast<const char*>(buffer), length);
      kel::testing::UpdateAndWait(*otherDirectory, e);
      published = gen;
    }
  });
  // Failures end the loop rather than the test, so that the publisher is always joined.
  for (int cycle = 0; cycle < 15 && !HasFailure(); ++cycle) {
    SCOPED_TRACE("cycle " + std::to_string(cycle));
    ConfigCache::SubscribeLodex();
    ConfigCache::SetKelConfDirty(false);
    EXPECT_TRUE(kel::testing::Eventually([] { return ConfigCache::IsKelConfDirty(); },
                                         std::chrono::seconds(20)));
    ConfigCache::UnsubscribeLodex();
    kel::platform::CloseDirectory();
    std::vector<kel::platform::MemberRecord> members;
    EXPECT_EQ(otherDirectory->ListMembers(&members), NUK_OK);
    for (const auto& m : members) EXPECT_NE(m.uuid, env.config().hostUuid);
    gAppliedConfigGeneration.store(0);
  }
  stop = true;
  publisher.join();
  EXPECT_GT(published.load(), 2u);
}

}  // namespace
