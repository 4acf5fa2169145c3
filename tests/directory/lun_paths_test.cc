// The absolute and sibling paths of a LUN disk: whatever does not fit its buffer is refused, never
// cut short.
#include "directory/lun_paths.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "conf/conf.h"
#include "platform/clog.h"
#include "platform/exception.h"
#include "platform/host_config.h"
#include "platform/log.h"

namespace {

namespace Util = NukCtl::Orsa::IscsiTarget::Util;

void UseDatastore(const std::string& path) {
  kel::platform::HostConfig config;
  config.datastorePath = path;
  kel::platform::SetCurrentHostConfig(config);
}

TEST(LunPaths, AbsolutePathFitsExactlyOrIsRefused) {
  UseDatastore("/vol/ds1");
  struct lun l;
  std::memset(&l, 0, sizeof(l));
  char rel[] = "0f8e7d6c-5b4a-4392-8170-6f5e4d3c2b1a/11112222-3333-4444-5555-666677778888.pemo";
  l.l_path = rel;
  const std::string expected = std::string("/vol/ds1/") + rel;
  char out[200];
  std::memset(out, 'Z', sizeof(out));
  ASSERT_EQ(GetLunAbsPath(&l, static_cast<int>(expected.size() + 1), out), NUK_OK);
  EXPECT_EQ(std::string(out), expected);
  EXPECT_EQ(Util::GetLunUuid(out), "11112222-3333-4444-5555-666677778888");
  std::memset(out, 'Z', sizeof(out));
  EXPECT_EQ(GetLunAbsPath(&l, static_cast<int>(expected.size()), out), NUK_BAD_PARAM);
  EXPECT_EQ(out[0], 'Z');
  l.l_path = nullptr;
  EXPECT_EQ(GetLunAbsPath(&l, sizeof(out), out), NUK_BAD_PARAM);

  // A datastore path that does not fit is reported and returned.
  UseDatastore("/" + std::string(300, 'd'));
  l.l_path = rel;
  kel::log::LogCapture capture;
  log_init(4);
  EXPECT_EQ(GetLunAbsPath(&l, sizeof(out), out), NUK_BAD_PARAM);
  EXPECT_EQ(out[0], 'Z');
  EXPECT_TRUE(capture.Contains(std::string("KELD: Failed to get orsa datastore Path: ") +
                               NUK_ReturnStatusToString(NUK_BAD_PARAM)))
      << capture.Joined();
}

TEST(LunPaths, SiblingFilesFollowTheirOwnRules) {
  char out[300];
  ASSERT_EQ(GetLunPRFilePath("/a/b/c.pemo", sizeof(out), out), NUK_OK);
  EXPECT_STREQ(out, "/a/b/.c.pemo.pr");
  ASSERT_EQ(GetPemoLockFilePath("/a/b/c.pemo", sizeof(out), out), NUK_OK);
  EXPECT_STREQ(out, "/a/b/.c.lck");
  // The lock rule cuts the file's own extension only, not a dot of the directory.
  EXPECT_EQ(Util::GetPemoLockFilePath("/a/b.d/c.x.pemo"), "/a/b.d/.c.x.lck");
  EXPECT_EQ(Util::GetPemoLockFilePath("/a/b.d/c"), "/a/b.d/.c.lck");
  EXPECT_EQ(Util::GetLunUuid("/x.pemo/abc.PEMO"), "abc.PEMO");
  EXPECT_EQ(Util::GetLunUuid("/x/"), "");

  // No directory, too long, or not fitting the output: refused, never truncated.
  EXPECT_EQ(GetLunPRFilePath("c.pemo", sizeof(out), out), NUK_BAD_PARAM);
  EXPECT_THROW(Util::GetPemoLockFilePath("c.pemo"), HostCtl::Lib::Orsa::OrsaCtlException);
  const std::string longest = "/" + std::string(249, 'p') + ".pemo";  // 255 bytes
  EXPECT_EQ(Util::GetLunPRFilePath(longest), "/." + std::string(249, 'p') + ".pemo.pr");
  EXPECT_EQ(GetLunPRFilePath(("/" + longest).c_str(), sizeof(out), out), NUK_BAD_PARAM);
  char small[12];
  std::memset(small, 'Z', sizeof(small));
  EXPECT_EQ(GetLunPRFilePath("/a/b/c.pemo", sizeof(small), small), NUK_BAD_PARAM);
  EXPECT_EQ(small[0], 'Z');
  ASSERT_EQ(GetPemoLockFilePath("/a/b/c.pemo", sizeof(small), small), NUK_OK);  // 11 + NUL
  EXPECT_STREQ(small, "/a/b/.c.lck");
}

}  // namespace
