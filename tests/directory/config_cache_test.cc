#include "directory/config_cache.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "conf/conf.h"
#include "directory/config_entry.h"
#include "platform/exception.h"
#include "platform/log.h"
#include "tests/directory/directory_test_env.h"

using HostCtl::Lib::Orsa::OrsaCtlException;
using kel::log::LogCapture;
using kel::testing::DirTestEnv;
namespace ConfigCache = NukCtl::Orsa::IscsiTarget::ConfigCache;
namespace Util = NukCtl::Orsa::IscsiTarget::Util;

namespace {

std::vector<std::string> Aliases() {
  std::vector<std::string> out;
  for (const auto& t : ConfigCache::GetTargetsInfos()) out.push_back(t.alias);
  return out;
}

class ConfigCacheTest : public ::testing::Test {
 protected:
  void SetUp() override { env_.WriteConf(1, {"t1"}); }
  DirTestEnv env_;
};

TEST_F(ConfigCacheTest, WithoutASubscriptionEveryGetterReadsTheFile) {
  LogCapture capture;
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), UINT64_MAX);
  EXPECT_EQ(Aliases(), std::vector<std::string>{"t1"});
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), 1u) << "the fresh model is installed";
  EXPECT_FALSE(ConfigCache::IsKelConfCacheAvailable());
  Aliases();
  EXPECT_EQ(capture.Count("KelConfigCache: GetTargetsInfos from conf file"), 2u);

  ConfigCache::GetConfigInfo(false);
  ConfigCache::GetInitiatorGroupInfos();
  EXPECT_EQ(ConfigCache::GetAllIscsiNuknics(), std::set<std::string>{"nuk0"});
  EXPECT_TRUE(capture.Contains("KelConfigCache: GetConfigInfo from conf file"));
  EXPECT_TRUE(capture.Contains("KelConfigCache: GetInitiatorGroupInfos from conf file"));
  EXPECT_TRUE(capture.Contains("KelConfigCache: GetAllIscsiNuknics from conf file"));
}

TEST_F(ConfigCacheTest, ANotificationMakesTheNextReadTakeTheNewFile) {
  LogCapture capture;
  ConfigCache::SubscribeLodex();
  ConfigCache::SubscribeLodex();  // already subscribed: nothing happens
  EXPECT_EQ(capture.Count("KelConfigCache: Subscribing KEL config info from LODEX"), 1u);
  EXPECT_TRUE(ConfigCache::IsLodexSubscribed());

  EXPECT_EQ(Aliases(), std::vector<std::string>{"t1"});
  EXPECT_TRUE(ConfigCache::IsKelConfCacheAvailable());
  EXPECT_EQ(Aliases(), std::vector<std::string>{"t1"});
  EXPECT_EQ(capture.Count("GetTargetsInfos from conf file"), 1u) << "the second read is cached";

  // Another writer changes the file and publishes: the copy turns stale, the next read reloads.
  env_.WriteConf(2, {"t1", "t2"});
  EXPECT_EQ(Aliases(), std::vector<std::string>{"t1"}) << "not yet notified";
  Util::DoActionForConfigChange(2);
  ASSERT_TRUE(kel::testing::Eventually([] { return ConfigCache::IsKelConfDirty(); }));
  EXPECT_TRUE(ConfigCache::GetKelConfLodexEntryExists(true));
  EXPECT_EQ(Aliases(), (std::vector<std::string>{"t1", "t2"}));
  EXPECT_FALSE(ConfigCache::IsKelConfDirty()) << "installing the fresh copy clears the flag";
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), 2u);

  // Unsubscribing frees the copy and really ends the watch.
  ConfigCache::UnsubscribeLodex();
  EXPECT_FALSE(ConfigCache::IsLodexSubscribed());
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), UINT64_MAX);
  EXPECT_EQ(gAppliedConfigGeneration.load(), 0u);
  capture.Clear();
  Util::DoActionForConfigChange(3);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_FALSE(capture.Contains("Applying config generation")) << capture.Joined();
  EXPECT_FALSE(ConfigCache::IsKelConfDirty());
}

TEST_F(ConfigCacheTest, NotFoundOnlyClearsTheEntryFlagWhileOtherStatusesMakeTheCopyStale) {
  ConfigCache::SubscribeLodex();
  Aliases();
  ASSERT_TRUE(ConfigCache::IsKelConfCacheAvailable());
  ConfigCache::SetKelConfLodexEntryExists(true, true);

  ConfigCache::UpdateKelConfigCacheAPI(nullptr, NUK_NOT_FOUND);
  EXPECT_FALSE(ConfigCache::GetKelConfLodexEntryExists(true));
  EXPECT_TRUE(ConfigCache::IsKelConfCacheAvailable()) << "a missing entry alone is no change";

  ConfigCache::UpdateKelConfigCacheAPI(nullptr, NUK_ENTRY_CHANGED);
  EXPECT_TRUE(ConfigCache::GetKelConfLodexEntryExists(false));
  EXPECT_TRUE(ConfigCache::IsKelConfDirty());
  EXPECT_FALSE(ConfigCache::IsKelConfCacheAvailable());
}

TEST_F(ConfigCacheTest, ReloadKeepsTheDirtyFlagAndAFailedReloadLeavesNoCopy) {
  LogCapture capture;
  ConfigCache::SubscribeLodex();
  ConfigCache::SetKelConfDirty(true);
  ConfigCache::UpdateKelConfigCache(nullptr);
  EXPECT_TRUE(capture.Contains("KelConfigCache: Done with the KEL config cache update."));
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), 1u);
  EXPECT_TRUE(ConfigCache::IsKelConfDirty()) << "only a getter's install clears the flag";

  kel::testing::WriteFile(env_.conf_path(), "generation 2\ntarget {{{\n", 0600);
  ConfigCache::UpdateKelConfigCache(nullptr);
  EXPECT_TRUE(capture.Contains("KelConfigCache: Failed to update the config cache due to: "));
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), UINT64_MAX);
  EXPECT_THROW(ConfigCache::GetTargetsInfos(), OrsaCtlException);
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), UINT64_MAX) << "a failed read installs nothing";

  env_.WriteConf(4, {"t9"});
  EXPECT_EQ(Aliases(), std::vector<std::string>{"t9"});
  ConfigCache::CleanupCachedConfig();
  EXPECT_TRUE(capture.Contains("KelConfigCache: Cleanup cached kel config is done"));
  EXPECT_EQ(ConfigCache::GetCachedConfGenNumber(), UINT64_MAX);
}

TEST_F(ConfigCacheTest, RefreshRuleKeepsItsAllOnesQuirk) {
  uint64_t lastSeen = 0;
  EXPECT_TRUE(Util::IsRefreshConfNeeded(lastSeen)) << "no cache reads as all ones";
  EXPECT_EQ(lastSeen, UINT64_MAX);
  Aliases();  // a cache at generation 1 now exists
  EXPECT_FALSE(Util::IsRefreshConfNeeded(lastSeen)) << "nothing is larger than all ones";
  lastSeen = 0;
  EXPECT_TRUE(Util::IsRefreshConfNeeded(lastSeen));
  EXPECT_EQ(lastSeen, 1u);
  EXPECT_FALSE(Util::IsRefreshConfNeeded(lastSeen));
}

TEST_F(ConfigCacheTest, AFailedSubscriptionLeavesTheProcessUnsubscribed) {
  unlink(env_.DatastoreJoin(".iSCSI-CONFIG").c_str());
  const std::string message = kel::testing::ErrorOf([] { ConfigCache::SubscribeLodex(); });
  EXPECT_EQ(message.rfind("Failed to subscribe LODEX KEL config entry: ", 0), 0u) << message;
  EXPECT_FALSE(ConfigCache::IsLodexSubscribed());
}

}  // namespace
