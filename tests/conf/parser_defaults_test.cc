#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "conf/conf.h"
#include "conf/conf_file.h"
#include "conf/parser_edit.h"
#include "directory/config_cache.h"
#include "directory/config_entry.h"
#include "platform/directory.h"
#include "platform/exec.h"
#include "platform/log.h"
#include "storage/paths.h"
#include "tests/conf/parser_testutil.h"

namespace {

using HostCtl::Orsa::IscsiTarget::DefaultInfo;
using HostCtl::Orsa::IscsiTarget::LunInfo;
using HostCtl::Orsa::IscsiTarget::TargetCreateParam;
using HostCtl::Orsa::IscsiTarget::TargetInfo;
using kel::log::LogCapture;
using kel::testing::ErrorOf;
using kel::testing::ModelTarget;
using kel::testing::ParserEnv;
using kel::testing::PortalGroupOf;
using kel::testing::ReadFile;
using kel::testing::TargetParam;
using kel::testing::WriteFile;
namespace IT = NukCtl::Orsa::IscsiTarget;
namespace Parser = NukCtl::Orsa::IscsiTarget::Parser;

// The names in `dir`, without kel.conf's intent file: that one is created by the first lock and
// stays for good, unlike temporary files.
std::vector<std::string> DirNames(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = opendir(dir.c_str());
  while (struct dirent* e = d != nullptr ? readdir(d) : nullptr) {
    const std::string n = e->d_name;
    if (n != "." && n != ".." && n != ".kel.conf.intent") names.push_back(n);
  }
  if (d != nullptr) closedir(d);
  return names;
}

TEST(ParserDefaults, InitConfCreatesOnlyAMissingFile) {
  ParserEnv env;
  EXPECT_EQ(ReadFile(env.conf_path()), "generation 1\n");
  struct stat st;
  ASSERT_EQ(stat(env.conf_path().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(DirNames(IT::Util::GetConfigDirPath()), std::vector<std::string>{"kel.conf"});

  Parser::AddNewInitiatorgroupToConfFile("keep");
  const std::string text = ReadFile(env.conf_path());
  LogCapture capture;
  Parser::InitConf();
  EXPECT_EQ(ReadFile(env.conf_path()), text);
  EXPECT_TRUE(capture.Contains("Parser: Initialize conf file"));

  ASSERT_EQ(unlink(env.conf_path().c_str()), 0);
  Parser::InitConf();
  EXPECT_EQ(ReadFile(env.conf_path()), "generation 1\n");
  EXPECT_EQ(DirNames(IT::Util::GetConfigDirPath()), std::vector<std::string>{"kel.conf"});
}

TEST(ParserDefaults, DefaultsAreWhatNewTargetsInherit) {
  ParserEnv env;
  const uint64_t gen = env.Generation();
  DefaultInfo info;
  info.networkInterface = "nuk1";
  info.port = 3270;
  info.authType = "CHAP-Mutual";
  info.chapName = "duser";
  info.chapSecret = "dsecret12345";
  info.mutualChapName = "dmutual";
  info.mutualChapSecret = "dmsecret1234";
  LogCapture capture;
  Parser::UpdateDefaultConfig(info);
  EXPECT_EQ(env.Generation(), gen + 1);
  EXPECT_EQ(env.Published(), gen + 1);
  EXPECT_TRUE(capture.Contains("Parser: Updating default authenticaion to auth type CHAP-Mutual"));
  EXPECT_TRUE(capture.Contains("Parser: Updated default config successfully."));

  DefaultInfo read = Parser::GetDefaultInfo(true);
  EXPECT_EQ(read.networkInterface, "nuk1");
  EXPECT_EQ(read.port, 3270);
  EXPECT_EQ(read.authType, "CHAP-Mutual");
  EXPECT_EQ(read.chapSecret, "dsecret12345");
  EXPECT_EQ(read.mutualChapName, "dmutual");
  EXPECT_EQ(Parser::GetDefaultInfo(false).chapSecret, "");
  auto c = env.Read();
  const struct portal_group* pg = portal_group_find(c.get(), "default");
  ASSERT_NE(TAILQ_FIRST(&pg->pg_portals), nullptr);
  EXPECT_EQ(TAILQ_NEXT(TAILQ_FIRST(&pg->pg_portals), p_next), nullptr);

  bool changed = false;
  TargetCreateParam p = TargetParam(1);
  Parser::AddNewTargetToConfFile(p, changed);
  TargetInfo t;
  IT::Util::GetTargetInfoFromConfFile("t1", t);
  EXPECT_EQ(t.networkInterface, "nuk1");
  EXPECT_EQ(t.port, 3270);
  EXPECT_EQ(t.authType, "CHAP-Mutual");
  EXPECT_EQ(t.chapName, "duser");
  EXPECT_EQ(PortalGroupOf(ModelTarget(env.Read().get(), "t1")), "default");

  // No-Authentication drops the credentials; an empty interface keeps the portal.
  DefaultInfo open;
  open.authType = "No-Authentication";
  Parser::UpdateDefaultConfig(open);
  read = Parser::GetDefaultInfo(true);
  EXPECT_EQ(read.authType, "No-Authentication");
  EXPECT_EQ(read.chapName, "");
  EXPECT_EQ(read.networkInterface, "nuk1");
  EXPECT_TRUE(TAILQ_EMPTY(&auth_group_find(env.Read().get(), "default")->ag_auths));
}

TEST(ParserDefaults, ChangeActionAndReaders) {
  ParserEnv env;
  bool changed = false;
  TargetCreateParam p = TargetParam(1);
  Parser::AddNewTargetToConfFile(p, changed);
  EXPECT_EQ(Parser::GetTargets().size(), 1u);  // installs a cached model
  EXPECT_NE(IT::ConfigCache::GetCachedConfGenNumber(), UINT64_MAX);

  // A daemon that cannot reload: the file is written and published, the caller hears of it, and
  // the cached model is dropped all the same.
  env.DaemonExitsWith(3);
  TargetCreateParam q = TargetParam(2);
  const uint64_t gen = env.Generation();
  EXPECT_EQ(ErrorOf([&] { Parser::AddNewTargetToConfFile(q, changed); }),
            "Failed to reload keld (return code 3)");
  EXPECT_TRUE(changed);
  EXPECT_EQ(env.Generation(), gen + 1);
  EXPECT_EQ(env.Published(), gen + 1);
  EXPECT_EQ(IT::ConfigCache::GetCachedConfGenNumber(), UINT64_MAX);
  env.DaemonExitsWith(0);

  const int reloads = env.Reloads();
  IT::Util::ApplyConfigChange(UINT64_MAX);
  EXPECT_EQ(env.Reloads(), reloads);
  EXPECT_EQ(env.Published(), gen + 1);

  std::vector<TargetInfo> targets = Parser::GetTargets();
  ASSERT_EQ(targets.size(), 2u);
  EXPECT_EQ(targets[1].alias, "t2");
  std::vector<LunInfo> luns{LunInfo()};
  Parser::GetLunsForTarget("t2", luns);
  EXPECT_TRUE(luns.empty());
  EXPECT_EQ(ErrorOf([&] { Parser::GetLunsForTarget("t3", luns); }), "Target t3 not found");
  TargetInfo info;
  EXPECT_EQ(ErrorOf([&] { IT::Util::GetTargetInfoFromConfFile("T2", info); }),
            "Target T2 not found");

  // An unreadable file: the readers log and pass the handle's error on.
  WriteFile(env.conf_path(), "generation 7\ntarget {\n");
  IT::ConfigCache::CleanupCachedConfig();
  LogCapture capture;
  const std::string error = ErrorOf([] { Parser::GetTargets(); });
  EXPECT_NE(error, "");
  EXPECT_TRUE(capture.Contains("Parser: Failed to load targets from config file, error " + error));
  EXPECT_NE(ErrorOf([] { Parser::GetDefaultInfo(false); }), "");
  EXPECT_TRUE(capture.Contains("Parser: Failed to retrieve default config info with error "));
}

// Whether `path` can be locked shared right now, without waiting.
bool LockableNow(const std::string& path) {
  FioHandle file;
  if (conf_file_open_share_lock(path.c_str(), &file, 0) != NUK_OK) return false;
  conf_close_file(&file);
  return true;
}

// The process's directory with the configuration entry's publications watched: each one notes
// whether kel.conf was locked at that moment, and the first one can be held back until another
// publication comes (or a second passes), the widest gap two racing writers can leave.
class PublishProbe : public kel::platform::Directory {
 public:
  PublishProbe(std::shared_ptr<Directory> inner, std::string confPath)
      : inner_(std::move(inner)), confPath_(std::move(confPath)) {}

  void HoldFirst() {
    std::lock_guard<std::mutex> guard(mu_);
    hold_ = true;
  }
  void WaitUntilHeld() {
    std::unique_lock<std::mutex> lock(mu_);
    cv_.wait(lock, [this] { return held_; });
  }
  int Publications() {
    std::lock_guard<std::mutex> guard(mu_);
    return publications_;
  }
  int UnlockedPublications() {
    std::lock_guard<std::mutex> guard(mu_);
    return unlocked_;
  }

  NUK_ReturnStatus Update(const kel::platform::DirEntry& e, CompletionFn done) override {
    if (e.type == KELD_LODEX_CONFIG_ENTRY_TYPE) {
      const bool unlocked = LockableNow(confPath_);
      std::unique_lock<std::mutex> lock(mu_);
      ++publications_;
      if (unlocked) ++unlocked_;
      cv_.notify_all();
      if (hold_) {
        hold_ = false;
        held_ = true;
        const int seen = publications_;
        cv_.notify_all();
        cv_.wait_for(lock, std::chrono::seconds(1), [&] { return publications_ > seen; });
      }
    }
    return inner_->Update(e, std::move(done));
  }

  kel::platform::DirUuid SelfUuid() const override { return inner_->SelfUuid(); }
  NUK_ReturnStatus Find(const kel::platform::DirQuery& q,
                        std::vector<kel::platform::DirEntry>* out) override {
    return inner_->Find(q, out);
  }
  NUK_ReturnStatus Delete(const kel::platform::DirUuid& u, uint8_t t) override {
    return inner_->Delete(u, t);
  }
  NUK_ReturnStatus Subscribe(const kel::platform::DirQuery& q, NotifyFn fn,
                             SubscriptionId* id) override {
    return inner_->Subscribe(q, std::move(fn), id);
  }
  NUK_ReturnStatus Unsubscribe(SubscriptionId id) override { return inner_->Unsubscribe(id); }
  NUK_ReturnStatus ListMembers(std::vector<kel::platform::MemberRecord>* out) override {
    return inner_->ListMembers(out);
  }
  NUK_ReturnStatus UpdateSelfMember(
      const std::function<void(kel::platform::MemberRecord&)>& edit) override {
    return inner_->UpdateSelfMember(edit);
  }
  NUK_ReturnStatus JoinCluster() override { return inner_->JoinCluster(); }
  NUK_ReturnStatus LeaveCluster() override { return inner_->LeaveCluster(); }
  NUK_ReturnStatus GetObjectOwner(const std::string& o, kel::platform::ObjectOwner* out) override {
    return inner_->GetObjectOwner(o, out);
  }
  NUK_ReturnStatus CompareAndSwapObjectOwner(const std::string& o, int64_t rev,
                                             const std::string& h) override {
    return inner_->CompareAndSwapObjectOwner(o, rev, h);
  }
  NUK_ReturnStatus DeleteObjectOwner(const std::string& o) override {
    return inner_->DeleteObjectOwner(o);
  }
  NUK_ReturnStatus ListObjectOwners(
      std::map<std::string, kel::platform::ObjectOwner>* out) override {
    return inner_->ListObjectOwners(out);
  }

 private:
  std::shared_ptr<Directory> inner_;
  const std::string confPath_;
  std::mutex mu_;
  std::condition_variable cv_;
  bool hold_ = false;     // guarded by mu_
  bool held_ = false;     // guarded by mu_
  int publications_ = 0;  // guarded by mu_
  int unlocked_ = 0;      // guarded by mu_
};

// Daemon control that notes, at each reload, whether kel.conf could be read (locked shared) then.
class ReloadProbe : public kel::platform::CommandRunner {
 public:
  explicit ReloadProbe(std::string confPath) : confPath_(std::move(confPath)) {
    kel::platform::SetCommandRunnerForTest(this);
  }
  ~ReloadProbe() override { kel::platform::SetCommandRunnerForTest(nullptr); }
  int Run(const std::vector<std::string>&) override { return 0; }
  int RunShell(const std::string& line) override {
    if (line.find("reload") == std::string::npos) return 0;
    const bool readable = LockableNow(confPath_);
    std::lock_guard<std::mutex> guard(mu_);
    ++reloads_;
    if (!readable) ++locked_;
    return 0;
  }
  int Reloads() {
    std::lock_guard<std::mutex> guard(mu_);
    return reloads_;
  }
  int LockedReloads() {
    std::lock_guard<std::mutex> guard(mu_);
    return locked_;
  }

 private:
  const std::string confPath_;
  std::mutex mu_;
  int reloads_ = 0;  // guarded by mu_
  int locked_ = 0;   // guarded by mu_
};

// Two writers racing: the first one's publication is slow. It still cannot overwrite the second
// one's newer generation, because each publishes while it holds the file; and a transaction's
// daemon reload comes once its handle has let the file go, so that the daemon can read it.
TEST(ParserDefaults, PublicationHappensUnderTheLockAndTheReloadAfterIt) {
  ParserEnv env;
  Parser::AddNewInitiatorgroupToConfFile("first");
  auto probe = std::make_shared<PublishProbe>(kel::platform::GetDirectory(), env.conf_path());
  kel::platform::SetDirectoryForTest(probe);
  ReloadProbe reloads(env.conf_path());

  probe->HoldFirst();
  std::thread slow([] { Parser::AddNewInitiatorgroupToConfFile("slow"); });
  probe->WaitUntilHeld();
  std::thread fast([] { Parser::AddNewInitiatorgroupToConfFile("fast"); });
  slow.join();
  fast.join();

  EXPECT_EQ(probe->Publications(), 2);
  EXPECT_EQ(probe->UnlockedPublications(), 0);
  EXPECT_EQ(env.Generation(), 4u);
  EXPECT_EQ(env.Published(), env.Generation());
  EXPECT_EQ(reloads.Reloads(), 2);
  // (While the two raced, one's reload could meet the other's lock: checked one at a time below.)
  const int lockedDuringRace = reloads.LockedReloads();

  // Every transaction takes the same path: the others publish under the lock as well.
  TargetCreateParam p = TargetParam(1);
  bool changed = false;
  Parser::AddNewTargetToConfFile(p, changed);
  DefaultInfo info;
  info.authType = "No-Authentication";
  Parser::UpdateDefaultConfig(info);
  Parser::AddInitiatorsToInitiatorgroup("fast", {"iqn.1998-01.org.example:h1"});
  Parser::RemoveInitiatorsFromInitiatorgroup("fast", {"iqn.1998-01.org.example:h1"});
  Parser::RemoveInitiatorgroupFromConfFile("slow", false);
  Parser::RemoveTargetFromConfFile("t1");
  EXPECT_EQ(probe->Publications(), 8);
  EXPECT_EQ(probe->UnlockedPublications(), 0);
  EXPECT_EQ(reloads.Reloads(), 8);
  EXPECT_EQ(reloads.LockedReloads(), lockedDuringRace);
  EXPECT_EQ(env.Published(), env.Generation());
  kel::platform::SetDirectoryForTest(nullptr);
}

}  // namespace
