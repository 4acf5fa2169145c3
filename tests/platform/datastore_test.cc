// The datastore: its identity and metadata, object attributes with their sidecar fallback, and the
// file operations beneath them.
#include "platform/datastore.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <regex>
#include <set>
#include <thread>
#include <vector>

#include "platform/exception.h"
#include "platform/fs.h"
#include "platform/testing/fault_fs.h"
#include "tests/support/test_host.h"

namespace kel {
namespace platform {
namespace {

using HostCtl::Lib::Orsa::OrsaCtlException;
using kel::testing::ErrorOf;
using kel::testing::PathExists;
using kel::testing::ReadFile;
using kel::testing::TempDir;
using kel::testing::WriteFile;
using testing::ScopedFaultFs;

TEST(Datastore, IdentityIsCreatedOnceAndKept) {
  kel::testing::TestHost ds;
  EXPECT_FALSE(PathExists(ds.DatastoreJoin(kDatastoreMetaFile)));
  Uuid16 first = DatastoreUuid();
  EXPECT_TRUE(PathExists(ds.DatastoreJoin(kDatastoreMetaFile)));
  EXPECT_EQ(first, DatastoreUuid());

  std::string text = DatastoreUuidText();
  EXPECT_TRUE(std::regex_match(text, std::regex("orsa:[0-9a-f]{16}-[0-9a-f]{16}"))) << text;
  EXPECT_EQ(text, FormatDatastoreUuid(first));
  Uuid16 known{};
  for (size_t i = 0; i < known.size(); ++i) known[i] = static_cast<uint8_t>(i * 17);
  EXPECT_EQ("orsa:0011223344556677-8899aabbccddeeff", FormatDatastoreUuid(known));

  // The default policy lives in the same file; changing it keeps the identity.
  EXPECT_EQ("", DatastoreDefaultPolicy());
  SetDatastoreDefaultPolicy("((\"proportionalCapacity\" i10))");
  EXPECT_EQ("((\"proportionalCapacity\" i10))", DatastoreDefaultPolicy());
  EXPECT_EQ(first, DatastoreUuid());

  // The mount path fits the caller's buffer with its NUL, or is refused.
  char buf[4096];
  ASSERT_EQ(NUK_OK, GetOrsaDatastoreUUIDPath(sizeof(buf), buf));
  EXPECT_EQ(ds.datastore(), buf);
  EXPECT_EQ(NUK_BAD_PARAM, GetOrsaDatastoreUUIDPath(static_cast<int>(ds.datastore().size()), buf));
}

TEST(Datastore, RacingFirstUsersAgreeOnOneIdentity) {
  kel::testing::TestHost ds;
  std::vector<Uuid16> seen(8);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < seen.size(); ++i) {
    threads.emplace_back([&seen, i] { seen[i] = DatastoreUuid(); });
  }
  for (auto& t : threads) t.join();
  std::set<Uuid16> distinct(seen.begin(), seen.end());
  EXPECT_EQ(1u, distinct.size());
  EXPECT_EQ(*distinct.begin(), DatastoreUuid());
  // No private creation files are left next to the metadata.
  std::vector<std::string> names;
  ASSERT_EQ(0, LinuxFs().ListDir(ds.datastore(), &names));
  EXPECT_EQ(std::vector<std::string>{kDatastoreMetaFile}, names);
}

TEST(Datastore, UnusableDatastoreOrMetadataIsReportedByPath) {
  kel::testing::TestHost ds;
  WriteFile(ds.DatastoreJoin(kDatastoreMetaFile), "this is not json");
  EXPECT_EQ("Datastore metadata " + ds.DatastoreJoin(kDatastoreMetaFile) +
                ": not a datastore metadata file",
            ErrorOf([] { DatastoreUuid(); }));
  WriteFile(ds.DatastoreJoin(kDatastoreMetaFile), "{\"uuid\": \"nope\"}");
  EXPECT_THROW(DatastoreUuid(), OrsaCtlException);
  // The corrupt file is never overwritten by a default-policy change.
  EXPECT_THROW(SetDatastoreDefaultPolicy(""), OrsaCtlException);
  EXPECT_EQ("{\"uuid\": \"nope\"}", ReadFile(ds.DatastoreJoin(kDatastoreMetaFile)));

  HostConfig config = *CurrentHostConfig();
  config.datastorePath = ds.DatastoreJoin("not-mounted");
  SetCurrentHostConfig(config);
  EXPECT_NE(std::string::npos,
            ErrorOf([] { DatastoreUuid(); }).find("datastore is not accessible"));
  EXPECT_FALSE(PathExists(ds.DatastoreJoin("not-mounted")));

  // The embedded default keeps its datastore in the state directory and makes it on first use.
  config.stateDir = ds.DatastoreJoin("state");
  config.datastorePath = config.stateDir + "/datastore";
  SetCurrentHostConfig(config);
  EXPECT_EQ(DatastoreUuid(), DatastoreUuid());
  EXPECT_TRUE(PathExists(ds.DatastoreJoin("state/datastore/") + kDatastoreMetaFile));
}

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
