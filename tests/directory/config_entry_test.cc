// The configuration entry in the directory, its subscription, and the configuration cache that
// follows it.
#include "directory/config_entry.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "conf/conf_backup.h"
#include "conf/conf_handle.h"
#include "directory/config_cache.h"
#include "host/service_state.h"
#include "platform/exception.h"
#include "platform/lodex.h"
#include "platform/log.h"
#include "platform/testing/fake_directory.h"
#include "tests/directory/directory_test_env.h"

using HostCtl::Lib::Orsa::OrsaCtlException;
using kel::log::LogCapture;
using kel::platform::DirEntry;
using kel::platform::DirQuery;
using kel::platform::DirUuid;
using kel::testing::DirTestEnv;
namespace Util = NukCtl::Orsa::IscsiTarget::Util;
namespace ConfigCache = NukCtl::Orsa::IscsiTarget::ConfigCache;

namespace {

// What the glue forwarded to the cache.
struct Forwarded {
  std::mutex mu;
  std::condition_variable cv;
  std::vector<NUK_ReturnStatus> statuses;
  bool WaitCount(size_t n) {
    std::unique_lock<std::mutex> lock(mu);
    return cv.wait_for(lock, std::chrono::seconds(10), [&] { return statuses.size() >= n; });
  }
  size_t Count() {
    std::lock_guard<std::mutex> guard(mu);
    return statuses.size();
  }
};
Forwarded* gForwarded = nullptr;

void RecordForward(void*, NUK_ReturnStatus status) {
  std::lock_guard<std::mutex> guard(gForwarded->mu);
  gForwarded->statuses.push_back(status);
  gForwarded->cv.notify_all();
}

DirUuid NamespaceUuid(const DirTestEnv& env) {
  DirUuid u;
  kel::platform::DirUuidFromText(env.namespace_uuid(), &u);
  return u;
}

std::vector<DirEntry> ConfigEntries(const DirTestEnv& env) {
  DirQuery q;
  q.matchUuid = q.matchType = true;
  q.uuid = NamespaceUuid(env);
  q.type = 37;
  std::vector<DirEntry> found;
  kel::platform::GetDirectory()->Find(q, &found);
  return found;
}

// A query record as the subscription allocates it (freed by the ended notification).
LODEX_Query* NewQuery(const DirTestEnv& env) {
  auto* q = static_cast<LODEX_Query*>(calloc(1, 64));
  LODEX_InitQuery(q, 0xd25, NamespaceUuid(env).data(), nullptr);
  return q;
}

class ConfigEntryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    gForwarded = &forwarded_;
    gAppliedConfigGeneration.store(0);
    env_.WriteConf(1, {"t1"});
  }
  void TearDown() override { gForwarded = nullptr; }
  DirTestEnv env_;
  Forwarded forwarded_;
};

TEST_F(ConfigEntryTest, PublishesReadsAndAddsOnlyWhenMissing) {
  LogCapture capture;
  uint64_t gen = 0;
  EXPECT_EQ(KeldGetConfigGenNumInLodex(&gen), NUK_NOT_FOUND);

  ASSERT_EQ(KeldAddLodexEntryForConfig(5), NUK_OK);
  EXPECT_TRUE(capture.Contains("KELD: Added KEL config entry to LODEX successfully."));
  ASSERT_EQ(KeldGetConfigGenNumInLodex(&gen), NUK_OK);
  EXPECT_EQ(gen, 5u);

  capture.Clear();
  ASSERT_EQ(KeldAddLodexEntryForConfig(9), NUK_OK);
  EXPECT_TRUE(capture.Contains("KELD: KEL conf entry in LODEX already exists."));
  ASSERT_EQ(KeldGetConfigGenNumInLodex(&gen), NUK_OK);
  EXPECT_EQ(gen, 5u) << "an existing entry is left alone";

  ASSERT_EQ(KeldUpdateLodexEntryForConfig(6), NUK_OK);
  EXPECT_TRUE(capture.Contains("KELD: Successfully updated LODEX KEL config entry: Success"));
  ASSERT_EQ(KeldGetConfigGenNumInLodex(&gen), NUK_OK);
  EXPECT_EQ(gen, 6u);

  // The entry itself: keyed by the namespace UUID, type 37, owned by this host, and its data the
  // marshalled structure with version 1.
  auto entries = ConfigEntries(env_);
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].owner, kel::platform::GetDirectory()->SelfUuid());
  void* s = nullptr;
  ASSERT_EQ(Marshal_UmshSingleStructure(Marshal_DefaultAllocator(), KeldConfigEntryDescription(),
                                        reinterpret_cast<const uint8_t*>(entries[0].data.data()),
                                        static_cast<uint32_t>(entries[0].data.size()),
                                        "LodexOrsaIscsiTargetConfig", &s),
            NUK_OK);
  auto* config = static_cast<LodexOrsaIscsiTargetConfig*>(s);
  EXPECT_EQ(config->protocolVersion, 1u);
  EXPECT_EQ(memcmp(config->configNamespaceUuid, NamespaceUuid(env_).data(), 16), 0);
  EXPECT_EQ(config->configGenNumber, 6u);
  Marshal_DeallocStructure(Marshal_DefaultAllocator(), KeldConfigEntryDescription(),
                           "LodexOrsaIscsiTargetConfig", s);
}

TEST_F(ConfigEntryTest, ChangeActionPublishesWarnsOnExistsAndThrowsOtherwise) {
  LogCapture capture;
  Util::DoActionForConfigChange(UINT64_MAX);
  EXPECT_TRUE(ConfigEntries(env_).empty()) << "all ones means nothing was written";

  Util::DoActionForConfigChange(3);
  uint64_t gen = 0;
  ASSERT_EQ(KeldGetConfigGenNumInLodex(&gen), NUK_OK);
  EXPECT_EQ(gen, 3u);

  auto fake = std::make_shared<kel::platform::FakeDirectory>(env_.config().hostUuid);
  kel::platform::SetDirectoryForTest(fake);
  fake->SetUpdateResult(NUK_EXISTS);
  EXPECT_EQ(KeldUpdateLodexEntryForConfig(4), NUK_EXISTS);
  EXPECT_TRUE(
      capture.Contains("KELD: Successfully updated LODEX KEL config entry: Already exists"));
  EXPECT_NO_THROW(Util::DoActionForConfigChange(4));
  EXPECT_TRUE(capture.Contains(
      "Util: Update KEL conf entry into LODEX with config genration number 4 failed with "
      "NUK_EXISTS"));

  fake->SetUpdateResult(NUK_IO_ERROR);
  EXPECT_EQ(kel::testing::ErrorOf([] { Util::DoActionForConfigChange(5); }),
            "Failed to Update KEL conf entry into LODEX with error: I/O error");
  EXPECT_TRUE(capture.Contains("KELD: Failed to update KEL config entry: I/O error"));

  // Without a configuration namespace there is nothing to key the entry by.
  unlink(env_.DatastoreJoin(".iSCSI-CONFIG").c_str());
  int before = fake->UpdateCount();
  EXPECT_THROW(Util::DoActionForConfigChange(6), OrsaCtlException);
  EXPECT_EQ(fake->UpdateCount(), before);
}

TEST_F(ConfigEntryTest, CompletionKeepsTheFirstErrorAndWaitsForEveryCompletion) {
  LodexCompletionRecord record;
  LodexCompletionInit(&record, 3, 0);
  std::thread poster([&] {
    LodexEntryCallback(&record, NUK_OK);
    LodexEntryCallback(&record, NUK_IO_ERROR);
    LodexEntryCallback(&record, NUK_TIMEOUT);
  });
  EXPECT_EQ(LodexCompletionWait(&record), NUK_IO_ERROR);
  poster.join();
  LodexCompletionDestroy(&record);

  LodexCompletionRecord late;
  LodexCompletionInit(&late, 1, 1);  // nobody completes: the timed wait gives up
  EXPECT_EQ(LodexCompletionWait(&late), NUK_WAIT_FAILED);
  LodexCompletionDestroy(&late);
}

TEST_F(ConfigEntryTest, SubscriptionAppliesOnlyNewerGenerationsUntilUnsubscribed) {
  LogCapture capture;
  void* handle = nullptr;
  ASSERT_EQ(KeldLodexSubscribeToConfigEntry(RecordForward, &handle), NUK_OK);
  ASSERT_NE(handle, nullptr);
  EXPECT_TRUE(capture.Contains("to LODEX notificationsfor KEL config"));

  ASSERT_EQ(KeldUpdateLodexEntryForConfig(7), NUK_OK);
  ASSERT_TRUE(forwarded_.WaitCount(1));
  EXPECT_EQ(gAppliedConfigGeneration.load(), 7u);
  ASSERT_EQ(KeldUpdateLodexEntryForConfig(7), NUK_OK);
  ASSERT_EQ(KeldUpdateLodexEntryForConfig(8), NUK_OK);
  ASSERT_TRUE(forwarded_.WaitCount(2));
  EXPECT_TRUE(
      capture.Contains("KELD: Ignoring config generation 7 because generation 7 already applied"));
  EXPECT_TRUE(capture.Contains("KELD: Applying config generation 8"));
  EXPECT_EQ(forwarded_.Count(), 2u) << "generation 7 twice is forwarded once";

  // The entry disappears: forwarded as "not found" so the cache knows to republish.
  ASSERT_EQ(kel::platform::GetDirectory()->Delete(NamespaceUuid(env_), 37), NUK_OK);
  ASSERT_TRUE(forwarded_.WaitCount(3));
  EXPECT_EQ(forwarded_.statuses[2], NUK_NOT_FOUND);
  EXPECT_TRUE(capture.Contains("KELD: Config entry NOT FOUND, marking it as need to republished"));

  ASSERT_EQ(KeldLodexUnsubscribeToConfigEntry(handle), NUK_OK);
  EXPECT_EQ(gAppliedConfigGeneration.load(), 0u);
  ASSERT_EQ(KeldUpdateLodexEntryForConfig(9), NUK_OK);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(forwarded_.Count(), 3u) << "nothing is forwarded after unsubscribing";
}

TEST_F(ConfigEntryTest, CallbackBranchesForwardAsTheStatusRequires) {
  LogCapture capture;
  // Registers the forwarding target and ends the real subscription: every notification below is
  // made by hand.
  void* handle = nullptr;
  ASSERT_EQ(KeldLodexSubscribeToConfigEntry(RecordForward, &handle), NUK_OK);
  ASSERT_EQ(KeldLodexUnsubscribeToConfigEntry(handle), NUK_OK);
  LODEX_Query* query = NewQuery(env_);

  // Look-again while there is no entry: waiting for a publication, nothing forwarded.
  EXPECT_EQ(KeldLodexConfUpdateCb(query, nullptr, -1, NUK_ENTRY_CHANGED), NUK_OK);
  EXPECT_TRUE(capture.Contains("Config entry doesn't exist, waiting for it to get published"));
  EXPECT_EQ(forwarded_.Count(), 0u);
  EXPECT_TRUE(
      capture.Contains("KeldLodexConfUpdateCb: Config entry callback, len:-1/-1, "
                       "status:0x0BAD002F (Entry changed)"));

  // Unexpected statuses are forwarded and returned.
  EXPECT_EQ(KeldLodexConfUpdateCb(query, nullptr, -1, NUK_TIMEOUT), NUK_TIMEOUT);
  EXPECT_TRUE(
      capture.Contains("Unexpected config entry callback with status 0x0BAD0009 (Timeout)"));
  EXPECT_EQ(forwarded_.Count(), 1u);

  // An entry that cannot be unmarshalled still makes the cache stale.
  DirEntry garbage;
  garbage.uuid = NamespaceUuid(env_);
  garbage.type = 37;
  garbage.data = "not a structure";
  ASSERT_EQ(kel::testing::UpdateAndWait(*kel::platform::GetDirectory(), garbage), NUK_OK);
  EXPECT_EQ(KeldLodexConfUpdateCb(query, nullptr, -1, NUK_ENTRY_CHANGED), NUK_OK);
  EXPECT_TRUE(capture.Contains("KELD: Can't unmarshal KEL config entry from LODEX"));
  EXPECT_EQ(forwarded_.Count(), 2u);

  // A header-only notification is looked up by its header; a larger generation is applied.
  ASSERT_EQ(KeldUpdateLodexEntryForConfig(12), NUK_OK);
  gAppliedConfigGeneration.store(11);
  size_t before = forwarded_.Count();
  LODEX_Entry* header = LODEX_AllocEntry(nullptr, 0);
  memcpy(header->header.uuid, NamespaceUuid(env_).data(), 16);
  header->header.type = 37;
  EXPECT_EQ(KeldLodexConfUpdateCb(query, header, 40, NUK_OK), NUK_OK);
  EXPECT_EQ(gAppliedConfigGeneration.load(), 12u);
  EXPECT_EQ(forwarded_.Count(), before + 1);
  EXPECT_EQ(KeldLodexConfUpdateCb(query, header, 40, NUK_OK), NUK_OK);
  EXPECT_EQ(forwarded_.Count(), before + 1) << "the same generation again is ignored";
  LODEX_FreeEntry(nullptr, header);

  // The end of a subscription frees its query record (the leak checker watches this one).
  EXPECT_EQ(KeldLodexConfUpdateCb(query, nullptr, -1, NUK_SUBSCRIPTION_ENDED), NUK_OK);
  EXPECT_EQ(forwarded_.Count(), before + 1);
}

TEST_F(ConfigEntryTest, BackupIsMadeOnlyInTheAgentAndOnlyForNewerGenerations) {
  LogCapture capture;
  env_.WriteConf(2, {"t1"});
  std::string backup = NukCtl::Orsa::IscsiTarget::ConfHandle::BackupPath();
  Util::backupConfGenNumber.store(UINT64_MAX);

  Util::SetRunningInOrsaMgmtdForTest(0);
  Util::BackupConfigFile();
  EXPECT_FALSE(kel::testing::PathExists(backup)) << "only the host agent backs up";

  Util::SetRunningInOrsaMgmtdForTest(1);
  EXPECT_TRUE(Util::IsBackupConfNeeded()) << "the first backup of a process is always made";
  Util::BackupConfigFile();
  EXPECT_TRUE(kel::testing::PathExists(backup));
  EXPECT_EQ(Util::backupConfGenNumber.load(), 2u);

  // No cache reads as all ones, which is larger: the copy step itself then skips.
  EXPECT_TRUE(Util::IsBackupConfNeeded());
  Util::BackupConfigFile();
  EXPECT_TRUE(
      capture.Contains("Util: backup kel.conf gen: 2, global kel.conf gen: 2, skip backup"));

  // A cache at the backed-up generation needs no backup; a newer one does.
  ConfigCache::GetTargetsInfos();
  EXPECT_FALSE(Util::IsBackupConfNeeded());
  env_.WriteConf(3, {"t1", "t2"});
  ConfigCache::CleanupCachedConfig();
  ConfigCache::GetTargetsInfos();
  EXPECT_TRUE(Util::IsBackupConfNeeded());
  Util::BackupConfigFile();
  EXPECT_EQ(Util::backupConfGenNumber.load(), 3u);
  Util::SetRunningInOrsaMgmtdForTest(-1);
}

std::vector<std::string> Aliases() {
  std::vector<std::string> out;
  for (const auto& t : ConfigCache::GetTargetsInfos()) out.push_back(t.alias);
  return out;
}

using ConfigCacheTest = ConfigEntryTest;

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

TEST_F(ConfigCacheTest, RefreshRuleKeepsItsAllOnesQuirkAndAFailedSubscriptionLeavesNone) {
  uint64_t lastSeen = 0;
  EXPECT_TRUE(Util::IsRefreshConfNeeded(lastSeen)) << "no cache reads as all ones";
  EXPECT_EQ(lastSeen, UINT64_MAX);
  Aliases();  // a cache at generation 1 now exists
  EXPECT_FALSE(Util::IsRefreshConfNeeded(lastSeen)) << "nothing is larger than all ones";
  lastSeen = 0;
  EXPECT_TRUE(Util::IsRefreshConfNeeded(lastSeen));
  EXPECT_EQ(lastSeen, 1u);
  EXPECT_FALSE(Util::IsRefreshConfNeeded(lastSeen));

  // A subscription that cannot be made leaves the process unsubscribed.
  unlink(env_.DatastoreJoin(".iSCSI-CONFIG").c_str());
  const std::string message = kel::testing::ErrorOf([] { ConfigCache::SubscribeLodex(); });
  EXPECT_EQ(message.rfind("Failed to subscribe LODEX KEL config entry: ", 0), 0u) << message;
  EXPECT_FALSE(ConfigCache::IsLodexSubscribed());
}

}  // namespace
