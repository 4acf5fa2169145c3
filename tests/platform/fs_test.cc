#include "platform/fs.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/testing/fault_fs.h"
#include "tests/support/test_host.h"

namespace kel {
namespace platform {
namespace {

using kel::testing::PathExists;
using kel::testing::ReadFile;
using kel::testing::TempDir;
using kel::testing::WriteFile;
using testing::ScopedFaultFs;

TEST(ObjectAttr, KeepsIdentityInXattrOrSidecar) {
  TempDir dir;
  const std::string file = dir.Join("disk.pemo");
  WriteFile(file, "");
  Fs& fs = GetFs();

  ASSERT_EQ(0, WriteObjectAttr(fs, file, "uuid", "abc"));
  EXPECT_EQ("abc", kel::testing::XattrOf(file, "user.kel.uuid"));
  EXPECT_FALSE(PathExists(dir.Join(".disk.pemo.uuid")));
  std::string value;
  EXPECT_EQ(0, ReadObjectAttr(fs, file, "uuid", &value));
  EXPECT_EQ("abc", value);
  EXPECT_EQ(ENODATA, ReadObjectAttr(fs, file, "policy", &value));
  EXPECT_EQ(ENOENT, ReadObjectAttr(fs, dir.Join("missing"), "uuid", &value));

  // A file system without user xattrs keeps the value in a hidden sidecar; a link to the object
  // finds the sidecar of the object it points to, not one named after the link.
  ScopedFaultFs faulty;
  faulty.fs().SetNoUserXattrs(true);
  const std::string other = dir.Join("other.pemo");
  WriteFile(other, "");
  ASSERT_EQ(0, WriteObjectAttr(GetFs(), other, "policy", "(\"locality\" \"None\")"));
  EXPECT_EQ("(\"locality\" \"None\")", ReadFile(dir.Join(".other.pemo.policy")));
  EXPECT_EQ("", kel::testing::XattrOf(other, "user.kel.policy"));
  ASSERT_EQ(0, symlink("other.pemo", dir.Join("alias").c_str()));
  EXPECT_EQ(0, ReadObjectAttr(GetFs(), dir.Join("alias"), "policy", &value));
  EXPECT_EQ("(\"locality\" \"None\")", value);
  EXPECT_EQ(ENODATA, ReadObjectAttr(GetFs(), other, "uuid", &value));
  // Values written while xattrs worked are still read: the attribute is tried first.
  faulty.fs().SetNoUserXattrs(false);
  EXPECT_EQ(0, ReadObjectAttr(GetFs(), file, "uuid", &value));
  EXPECT_EQ("abc", value);
  EXPECT_EQ(ENOENT, WriteObjectAttr(GetFs(), dir.Join("missing"), "uuid", "x"));
}

TEST(LinuxFs, RemoveTreeNeverFollowsLinks) {
  TempDir dir;
  const std::string outside = dir.Join("outside");
  ASSERT_EQ(0, mkdir(outside.c_str(), 0700));
  WriteFile(outside + "/keep", "precious");
  const std::string tree = dir.Join("tree");
  ASSERT_EQ(0, mkdir(tree.c_str(), 0700));
  ASSERT_EQ(0, mkdir((tree + "/sub").c_str(), 0700));
  WriteFile(tree + "/sub/file", "x");
  ASSERT_EQ(0, symlink("../../outside", (tree + "/sub/link").c_str()));
  ASSERT_EQ(0, symlink(outside.c_str(), (tree + "/abs").c_str()));

  EXPECT_EQ(0, LinuxFs().RemoveTree(tree));
  EXPECT_FALSE(PathExists(tree));
  EXPECT_EQ("precious", ReadFile(outside + "/keep"));
  EXPECT_EQ(ENOENT, LinuxFs().RemoveTree(tree));
}

TEST(LinuxFs, AtomicWriteReplacesWholeFileAndLeavesNoTemporary) {
  TempDir dir;
  const std::string file = dir.Join("meta");
  Fs& fs = LinuxFs();
  ASSERT_EQ(0, fs.WriteFileAtomic(file, "first version, longer", 0640));
  ASSERT_EQ(0, fs.WriteFileAtomic(file, "second", 0640));
  std::string data;
  ASSERT_EQ(0, fs.ReadFile(file, &data));
  EXPECT_EQ("second", data);
  struct stat st;
  ASSERT_EQ(0, stat(file.c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 0777);
  std::vector<std::string> names;
  ASSERT_EQ(0, fs.ListDir(dir.path(), &names));
  EXPECT_EQ(std::vector<std::string>{"meta"}, names);
  EXPECT_EQ(ENOENT, fs.WriteFileAtomic(dir.Join("no/such/dir"), "x", 0600));
}

}  // namespace
}  // namespace platform
}  // namespace kel
