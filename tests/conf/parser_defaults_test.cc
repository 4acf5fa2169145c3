#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

#include "conf/conf.h"
#include "conf/parser_edit.h"
#include "directory/config_cache.h"
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

std::vector<std::string> DirNames(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = opendir(dir.c_str());
  while (struct dirent* e = d != nullptr ? readdir(d) : nullptr) {
    const std::string n = e->d_name;
    if (n != "." && n != "..") names.push_back(n);
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

}  // namespace
