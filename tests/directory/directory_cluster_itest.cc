// Several hosts (or several processes of one host) sharing one directory: configuration changes
// reaching another process's cache, a dead host's lease taking its entries with it, orphaned
// objects being claimed once, and two transfers of one object racing on a real etcd.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <mutex>
#include <thread>

#include "directory/config_cache.h"
#include "directory/config_entry.h"
#include "directory/host_queries.h"
#include "directory/interface_publication.h"
#include "placement/orphan_claim.h"
#include "platform/clog.h"
#include "platform/directory_etcd.h"
#include "platform/log.h"
#include "tests/directory/directory_test_env.h"
#include "tests/support/etcd_fixture.h"

using kel::platform::DirectoryRole;
using kel::platform::EtcdDirectory;
using kel::platform::HostConfig;
using kel::testing::DirTestEnv;
namespace ConfigCache = NukCtl::Orsa::IscsiTarget::ConfigCache;
namespace Util = NukCtl::Orsa::IscsiTarget::Util;

namespace {

std::string Joined(const std::vector<std::string>& v) {
  std::string out;
  for (const auto& s : v) out += (out.empty() ? "" : ",") + s;
  return out;
}

std::vector<std::string> CachedAliases() {
  std::vector<std::string> out;
  for (const auto& t : ConfigCache::GetTargetsInfos()) out.push_back(t.alias);
  return out;
}

void AppendLine(const std::string& path, const std::string& line) {
  std::ofstream out(path, std::ios::app);
  out << line << "\n";
}

bool WaitForLine(const std::string& path, const std::string& needle) {
  return kel::testing::Eventually(
      [&] {
        return kel::testing::PathExists(path) &&
               kel::testing::ReadFile(path).find(needle) != std::string::npos;
      },
      std::chrono::seconds(30));
}

size_t Count(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

bool Eventually(const std::function<bool()>& pred) {
  return kel::testing::Eventually(pred, std::chrono::seconds(20));
}

// The other process: runs only when started by a test below (KEL_CHILD_OUT names its report).
// It subscribes its cache, then reports every reload, and each of its log lines about config
// generations as it comes, until it has seen KEL_CHILD_EXPECT targets.
TEST(DirectoryClusterChild, WatchConfiguration) {
  const char* out = getenv("KEL_CHILD_OUT");
  if (out == nullptr) GTEST_SKIP() << "helper of the cluster tests";
  size_t expect = static_cast<size_t>(atoi(getenv("KEL_CHILD_EXPECT")));
  log_init(4);
  kel::log::LogCapture capture;
  size_t reported = 0;
  auto report_logs = [&] {
    std::vector<kel::log::Record> records = capture.Records();
    for (; reported < records.size(); ++reported) {
      const std::string& text = records[reported].text;
      if (text.find("config generation") != std::string::npos) AppendLine(out, "log " + text);
    }
  };
  ConfigCache::SubscribeLodex();
  AppendLine(out, "ready " + Joined(CachedAliases()));
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  size_t seen = 0;
  while (seen < expect && std::chrono::steady_clock::now() < deadline) {
    report_logs();
    if (ConfigCache::IsKelConfDirty()) {
      auto aliases = CachedAliases();
      seen = aliases.size();
      AppendLine(out, "reloaded " + std::to_string(ConfigCache::GetCachedConfGenNumber()) + " " +
                          Joined(aliases));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  report_logs();
  ConfigCache::UnsubscribeLodex();
  AppendLine(out, "done");
  EXPECT_EQ(seen, expect);
}

class ClusterTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    etcd_ = new kel::testing::EtcdServer();
    std::string error;
    if (!etcd_->Start(&error)) FAIL() << error;
  }
  static void TearDownTestSuite() {
    delete etcd_;
    etcd_ = nullptr;
  }
  static std::string Prefix() {
    static int n = 0;
    return "/kel/cluster-" + std::to_string(++n);
  }
  // Another host of the same cluster and datastore as `base`.
  static HostConfig Peer(const HostConfig& base, const std::string& name, int ttl = 10) {
    HostConfig c = base;
    c.hostUuid = kel::platform::DirUuidToText(kel::platform::RandomDirUuid());
    c.hostName = name;
    c.stateDir = base.stateDir + "-" + name;
    c.leaseTtlSeconds = ttl;
    return c;
  }

  // One writer (this process) and one watcher process; the watcher's cache must follow.
  void RunPropagation(DirTestEnv& env, const HostConfig& watcher) {
    kel::testing::TempDir tmp;
    std::string configFile = tmp.Join("watcher.json");
    std::string report = tmp.Join("report");
    kel::testing::WriteHostConfigFile(configFile, watcher);
    env.WriteConf(1, {"t1"});
    Util::DoActionForConfigChange(1);

    kel::testing::ChildProcess child;
    ASSERT_TRUE(child.Start(
        {"/proc/self/exe", "--gtest_filter=DirectoryClusterChild.*"}, tmp.Join("child.log"),
        {{"KEL_CONFIG", configFile}, {"KEL_CHILD_OUT", report}, {"KEL_CHILD_EXPECT", "3"}}));
    ASSERT_TRUE(WaitForLine(report, "ready t1")) << kel::testing::ReadFile(tmp.Join("child.log"));

    env.WriteConf(2, {"t1", "t2"});
    Util::DoActionForConfigChange(2);
    ASSERT_TRUE(WaitForLine(report, "reloaded 2 t1,t2"));
    // The same generation again. Its notification reads the entry back when it runs: only once
    // the watcher has dealt with it may generation 3 be published, or the read could already
    // return 3 (and then the notification of 3 is the one ignored).
    Util::DoActionForConfigChange(2);
    ASSERT_TRUE(
        WaitForLine(report, "Ignoring config generation 2 because generation 2 already applied"))
        << kel::testing::ReadFile(report);
    env.WriteConf(3, {"t1", "t2", "t3"});
    Util::DoActionForConfigChange(3);
    ASSERT_TRUE(WaitForLine(report, "done")) << kel::testing::ReadFile(tmp.Join("child.log"));
    EXPECT_TRUE(Eventually([&] { return !child.Running(); }));

    // Each generation was applied once and made the cache stale once; the repeated one did not.
    std::string text = kel::testing::ReadFile(report);
    EXPECT_EQ(Count(text, "Applying config generation 2"), 1u) << text;
    EXPECT_EQ(Count(text, "Applying config generation 3"), 1u) << text;
    EXPECT_EQ(Count(text, "reloaded 2 "), 1u) << text;
    EXPECT_EQ(Count(text, "reloaded 3 t1,t2,t3"), 1u) << text;
    EXPECT_EQ(Count(text, "reloaded "), 2u) << text;
    EXPECT_EQ(text.find("reloaded 1 "), std::string::npos) << "no change, no reload: " << text;
  }

  static kel::testing::EtcdServer* etcd_;
};
kel::testing::EtcdServer* ClusterTest::etcd_ = nullptr;

TEST_F(ClusterTest, AnotherProcessOfTheHostSeesEachNewGenerationOnce) {
  DirTestEnv env;  // embedded: both processes use the same state directory
  RunPropagation(env, env.config());
}

TEST_F(ClusterTest, AnotherHostSeesEachNewGenerationOnce) {
  DirTestEnv env(etcd_->Endpoint(), Prefix());
  RunPropagation(env, Peer(env.config(), "host-b"));
}

TEST_F(ClusterTest, ADeadHostTakesItsEntriesAlongAndTheConfigEntryIsPublishedAgain) {
  DirTestEnv env(etcd_->Endpoint(), Prefix());
  HostConfig a = Peer(env.config(), "short-lived", 2);
  a.networkOverride = true;
  a.interfaces = {{"nuk0", {"127.0.0.21", ""}}};
  HostConfig b = env.config();
  auto dirA = std::make_shared<EtcdDirectory>(a, DirectoryRole::kHostAgent);
  auto dirB = std::make_shared<EtcdDirectory>(b, DirectoryRole::kHostAgent);
  env.WriteConf(5, {"t1"});

  kel::platform::SetCurrentHostConfig(a);
  kel::platform::SetDirectoryForTest(dirA);
  ASSERT_EQ(KeldUpdateLodexEntryForConfig(5), NUK_OK);
  Util::PublishNukNicsToLodex();

  kel::platform::SetCurrentHostConfig(b);
  kel::platform::SetDirectoryForTest(dirB);
  ConfigCache::SubscribeLodex();
  ConfigCache::SetKelConfLodexEntryExists(true, true);
  char v4[16];
  kel::platform::DirUuid aUuid = dirA->SelfUuid();
  ASSERT_EQ(KeldLodexGetInterfaceAddress("nuk0", aUuid.data(), v4, nullptr), NUK_OK);
  EXPECT_STREQ(v4, "127.0.0.21");
  EXPECT_EQ(Util::GetHostNameFromUuid(a.hostUuid), "short-lived");

  dirA->SuspendKeepAliveForTest(true);  // host A hangs; its lease runs out
  ASSERT_TRUE(Eventually([] { return !ConfigCache::GetKelConfLodexEntryExists(true); }));
  uint64_t gen = 0;
  EXPECT_EQ(KeldGetConfigGenNumInLodex(&gen), NUK_NOT_FOUND);
  EXPECT_EQ(Util::GetHostNameFromUuid(a.hostUuid), "") << "its member record is gone";
  EXPECT_EQ(KeldLodexGetInterfaceAddress("nuk0", aUuid.data(), v4, nullptr), NUK_FAILURE);
  dirA.reset();

  // The periodic check on a surviving host publishes the entry again.
  ASSERT_EQ(KeldAddLodexEntryForConfig(5), NUK_OK);
  ASSERT_EQ(KeldGetConfigGenNumInLodex(&gen), NUK_OK);
  EXPECT_EQ(gen, 5u);
}

TEST_F(ClusterTest, ObjectsOfADepartedHostAreClaimedOnceByTheLiveHosts) {
  DirTestEnv env(etcd_->Endpoint(), Prefix());
  HostConfig a = env.config(), b = Peer(a, "host-b"), c = Peer(a, "host-c");
  auto dirA = std::make_shared<EtcdDirectory>(a, DirectoryRole::kHostAgent);
  auto dirB = std::make_shared<EtcdDirectory>(b, DirectoryRole::kHostAgent);
  std::vector<std::string> objects;
  {
    // A program on host C with no agent: its membership ends with it.
    auto dirC = std::make_shared<EtcdDirectory>(c, DirectoryRole::kClient);
    kel::platform::SetCurrentHostConfig(c);
    kel::platform::SetDirectoryForTest(dirC);
    for (int i = 0; i < 24; ++i) {
      objects.push_back(kel::platform::DirUuidToText(kel::platform::RandomDirUuid()));
      Util::ClaimObjectOwnership(objects.back());
    }
    EXPECT_EQ(Util::GetTargetOwnerHostUuid(objects[0]), c.hostUuid);
    kel::platform::SetDirectoryForTest(dirA);
  }
  int claimed = 0;
  for (int round = 0; round < 2; ++round) {
    kel::platform::SetCurrentHostConfig(a);
    kel::platform::SetDirectoryForTest(dirA);
    claimed += Util::ClaimOrphanedObjects();
    kel::platform::SetCurrentHostConfig(b);
    kel::platform::SetDirectoryForTest(dirB);
    claimed += Util::ClaimOrphanedObjects();
  }
  EXPECT_EQ(claimed, 24) << "each orphan exactly once";
  int onA = 0;
  for (const std::string& o : objects) {
    std::string owner = Util::GetTargetOwnerHostUuid(o);
    EXPECT_TRUE(owner == a.hostUuid || owner == b.hostUuid) << owner;
    onA += owner == a.hostUuid;
  }
  EXPECT_GT(onA, 0);
  EXPECT_LT(onA, 24);
}

// Holds every owner read until two callers have read: their swaps then race on one revision.
class BarrierOnOwnerRead : public EtcdDirectory {
 public:
  using EtcdDirectory::EtcdDirectory;
  NUK_ReturnStatus GetObjectOwner(const std::string& o, kel::platform::ObjectOwner* out) override {
    NUK_ReturnStatus st = EtcdDirectory::GetObjectOwner(o, out);
    std::unique_lock<std::mutex> lock(mu_);
    ++readers_;
    cv_.notify_all();
    cv_.wait_for(lock, std::chrono::seconds(5), [&] { return readers_ >= 2; });
    return st;
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  int readers_ = 0;
};

TEST_F(ClusterTest, TwoConcurrentTransfersOfOneObjectHaveExactlyOneWinner) {
  DirTestEnv env(etcd_->Endpoint(), Prefix());
  HostConfig a = env.config(), b = Peer(a, "host-b"), c = Peer(a, "host-c");
  auto dirA = std::make_shared<BarrierOnOwnerRead>(a, DirectoryRole::kHostAgent);
  auto dirB = std::make_shared<EtcdDirectory>(b, DirectoryRole::kHostAgent);
  auto dirC = std::make_shared<EtcdDirectory>(c, DirectoryRole::kHostAgent);
  kel::platform::SetCurrentHostConfig(a);
  kel::platform::SetDirectoryForTest(dirA);
  std::string object = kel::platform::DirUuidToText(kel::platform::RandomDirUuid());
  ASSERT_EQ(dirB->CompareAndSwapObjectOwner(object, 0, a.hostUuid), NUK_OK);  // no barrier read
  bool toB = false, toC = false;
  std::thread t1([&] { toB = Util::TransferObjectByUuid(object, b.hostUuid); });
  std::thread t2([&] { toC = Util::TransferObjectByUuid(object, c.hostUuid); });
  t1.join();
  t2.join();
  EXPECT_NE(toB, toC) << "exactly one transfer wins";
  EXPECT_EQ(Util::GetTargetOwnerHostUuid(object), toB ? b.hostUuid : c.hostUuid);
}

}  // namespace
