// The configuration entry's subscription in a program that closes its directory while another
// host's publications keep arriving, on a real etcd started on loopback for this binary.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
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
using kel::platform::DirectoryRole;
using kel::platform::EtcdDirectory;
using kel::platform::HostConfig;
using kel::testing::DirTestEnv;

// Publishes the configuration entry of `entry.uuid` with rising generations, as fast as the
// directory confirms them, until stopped.
class Publisher {
 public:
  Publisher(std::shared_ptr<EtcdDirectory> directory, kel::platform::DirUuid namespaceUuid)
      : directory_(std::move(directory)), uuid_(namespaceUuid) {
    thread_ = std::thread([this] { Run(); });
  }
  ~Publisher() {
    stop_ = true;
    thread_.join();
  }
  uint64_t Published() const { return published_.load(); }

 private:
  void Run() {
    kel::platform::DirEntry entry;
    entry.uuid = uuid_;
    entry.type = KELD_LODEX_CONFIG_ENTRY_TYPE;
    for (uint64_t gen = 2; !stop_.load(); ++gen) {
      LodexOrsaIscsiTargetConfig config{};
      config.protocolVersion = KELD_LODEX_CONFIG_PROTOCOL_VERSION;
      memcpy(config.configNamespaceUuid, uuid_.data(), 16);
      config.configGenNumber = gen;
      uint8_t buffer[KELD_LODEX_CONFIG_MAX_LEN];
      uint32_t length = sizeof(buffer);
      if (Marshal_MshSingleStructure(KeldConfigEntryDescription(), "LodexOrsaIscsiTargetConfig",
                                     &config, &length, buffer) != NUK_OK) {
        return;
      }
      entry.data.assign(reinterpret_cast<const char*>(buffer), length);
      kel::testing::UpdateAndWait(*directory_, entry);
      published_ = gen;
    }
  }

  std::shared_ptr<EtcdDirectory> directory_;
  kel::platform::DirUuid uuid_;
  std::atomic<bool> stop_{false};
  std::atomic<uint64_t> published_{0};
  std::thread thread_;
};

// A short-lived program (like kelctl) that keeps the configuration subscription: it subscribes its
// cache, notifications of another host's publications arrive, and it unsubscribes and closes the
// directory while more are on their way. Closing waits for a callback in flight and nothing brings
// the directory back from one: after each close the program's own lease, and with it its member
// record, is gone.
TEST(ConfigEntryCluster, AProgramKeepingTheSubscriptionClosesCleanlyWhileNotificationsArrive) {
  kel::testing::EtcdServer etcd;
  std::string error;
  ASSERT_TRUE(etcd.Start(&error)) << error;
  DirTestEnv env(etcd.Endpoint(), "/kel/config-entry");
  env.WriteConf(1, {"t1"});
  HostConfig other = env.config();
  other.hostUuid = kel::platform::DirUuidToText(kel::platform::RandomDirUuid());
  other.hostName = "host-b";
  other.stateDir += "-b";
  auto otherDirectory = std::make_shared<EtcdDirectory>(other, DirectoryRole::kHostAgent);
  kel::platform::DirUuid namespaceUuid;
  ASSERT_TRUE(kel::platform::DirUuidFromText(env.namespace_uuid(), &namespaceUuid));

  {
    Publisher publisher(otherDirectory, namespaceUuid);
    for (int cycle = 0; cycle < 15; ++cycle) {
      SCOPED_TRACE("cycle " + std::to_string(cycle));
      ConfigCache::SubscribeLodex();
      ConfigCache::SetKelConfDirty(false);
      ASSERT_TRUE(kel::testing::Eventually([] { return ConfigCache::IsKelConfDirty(); },
                                           std::chrono::seconds(20)));
      ConfigCache::UnsubscribeLodex();
      kel::platform::CloseDirectory();
      std::vector<kel::platform::MemberRecord> members;
      ASSERT_EQ(otherDirectory->ListMembers(&members), NUK_OK);
      for (const auto& m : members) EXPECT_NE(m.uuid, env.config().hostUuid);
      gAppliedConfigGeneration.store(0);
    }
    EXPECT_GT(publisher.Published(), 2u);
  }
  otherDirectory.reset();
}

}  // namespace
